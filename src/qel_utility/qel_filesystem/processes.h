/// Child processes and symbolic links.
///
/// Programs are started with fork and execve, never through a shell, with a full path, an explicit
/// argument list (null-terminated, the path first) and an explicit environment (null for none). Their
/// standard input is one end of a local socket pair; they inherit every other open descriptor. A child
/// whose program cannot be started parks like any stopped program, and its parent waits for it forever.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/// The environment of the X server, the application and everything run under Wine. Null-terminated.
extern const char *const qel_loader_env[];

/// Runs a program that must succeed, feeds it `input_text` if that is not null ("" counts as given), and
/// waits for it. Blocks until the child has ended.
/// Stops when the socket pair (2093), the exec, in the child (2101), the fork (2103) or the write of the
/// text (2109) fails, when a signal ended the child (2116) or its exit code is not 0 (2117).
void qel_exec_wait_checked(const char *path, const char *const argv[], const char *const envp[],
                           const char *input_text);

/// The same (1686, 1694, 1696, 1702), but ignores how the child ended.
/// Deliberate: "exit CODE: PATH" is printed only when the wait itself fails, and then shows the exit
/// code of a status word that was never set. A child that fails prints nothing.
void qel_exec_wait(const char *path, const char *const argv[], const char *const envp[],
                   const char *input_text);

/// Runs a program under Wine with `arg_count` further arguments (none for a negative number; their pointers
/// go onto the stack) and no input, and returns what exactly one read of at most 10239 bytes gives: the
/// output of the first write, or its beginning, and of further writes as far as they were made by then. The
/// rest is lost. Waits for the end. Deliberate: the read has no other end than output, so a program that
/// prints nothing blocks the caller for ever. Stops when a socket pair (1731, 1734), the exec, in the child
/// (1744) or the fork (1746) fails, and if a read ever gave more than it was asked for (1762). Returns a
/// static buffer, NUL-terminated, that the next call overwrites.
const char *qel_wine_exec_capture(const char *program, const char *const args[], int arg_count);

/// Makes `target` a symbolic link with the content `name`, replacing an older link or file; a folder
/// stays. Prints "NAME -> TARGET"; on a failure, "symlink error : ..." for the errors it knows, then
/// "error code : N".
/// Stops when `name` is null (1852) or empty (1853), `target` null (1854) or empty (1855), or the link
/// cannot be made for any other reason than a folder in its place (1892). Returns 1.
int qel_symlink(const char *name, const char *target);

#ifdef __cplusplus
}
#endif
