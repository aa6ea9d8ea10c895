// The wrappers: every call of the product that the linker turns over, in the order of the manual's
// sections. A call is recorded when it is over, with its error if it failed; fork and execve, which have
// no single end, before.

#include "sandbox/stand_in/stand_in.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#define DECLARED(result, symbol, parameters)                                                                 \
    extern "C" result wrap_##symbol parameters __asm__("__wrap_" #symbol);

/// A call that `target` carries out; the last arguments are the record.
#define PLAYED(result, failure, symbol, target, parameters, arguments, ...)                                  \
    DECLARED(result, symbol, parameters)                                                                     \
    result wrap_##symbol parameters                                                                          \
    {                                                                                                        \
        result outcome = failure;                                                                            \
        if (!is_planned_to_fail(#symbol))                                                                    \
            outcome = target arguments;                                                                      \
        record_call(outcome == failure, __VA_ARGS__);                                                        \
        return outcome;                                                                                      \
    }

/// A call that the host's kernel carries out.
#define PASSED(result, failure, symbol, parameters, arguments, ...)                                          \
    extern "C" result libc_##symbol parameters __asm__("__real_" #symbol);                                   \
    PLAYED(result, failure, symbol, libc_##symbol, parameters, arguments, __VA_ARGS__)

// ---- File systems, nodes, names ----

PLAYED(int, -1, mount, stand_in_mount,
       (const char *device, const char *folder, const char *type, unsigned long flags, const void *data),
       (device, folder, type, flags, data), "mount %s %s %s %lu%s", device, folder, type, flags,
       data ? " data" : "")
PASSED(int, -1, umount, (const char *folder), (folder), "umount %s", folder)
PASSED(int, -1, mknod, (const char *path, mode_t mode, dev_t device), (path, mode, device),
       "mknod %s 0%o %u:%u", path, mode, major(device), minor(device))
PASSED(int, -1, mkdir, (const char *path, mode_t mode), (path, mode), "mkdir %s 0%o", path, mode)
PASSED(int, -1, rmdir, (const char *path), (path), "rmdir %s", path)
PASSED(int, -1, unlink, (const char *path), (path), "unlink %s", path)
PASSED(int, -1, chmod, (const char *path, mode_t mode), (path, mode), "chmod %s 0%o", path, mode)
PASSED(int, -1, symlink, (const char *content, const char *path), (content, path), "symlink %s %s", content,
       path)
PASSED(int, -1, chdir, (const char *path), (path), "chdir %s", path)
PASSED(int, -1, stat64, (const char *path, struct stat *status), (path, status), "stat %s", path)

extern "C" int libc_access(const char *, int) __asm__("__real_access");
DECLARED(int, access, (const char *path, int mode))
int wrap_access(const char *path, int mode)
{
    const int outcome = libc_access(path, mode);
    record_poll(outcome != 0, "access %s %s", path, mode == R_OK ? "R_OK" : "other");
    return outcome;
}

extern "C" void real_sync() __asm__("__real_sync");
DECLARED(void, sync, ())
void wrap_sync()
{
    // Not passed on: it would wait for every disk of the host.
    record("sync");
}

// ---- Folders and files ----

PLAYED(DIR *, nullptr, opendir, stand_in_opendir, (const char *path), (path), "opendir %s", path)

DECLARED(struct dirent *, readdir64, (DIR * folder))
struct dirent *wrap_readdir64(DIR *folder)
{
    return stand_in_readdir(folder);
}

DECLARED(int, closedir, (DIR * folder))
int wrap_closedir(DIR *folder)
{
    return stand_in_closedir(folder);
}

PASSED(FILE *, nullptr, fopen64, (const char *path, const char *mode), (path, mode), "fopen %s %s", path,
       mode)

/// Spells the flags that the product uses.
static const char *open_flags(int flags)
{
    static char text[100];
    static const char *const access_modes[] = {"O_RDONLY", "O_WRONLY", "O_RDWR", "O_ACCMODE"};
    snprintf(text, sizeof text, "%s%s%s%s%s", access_modes[flags & O_ACCMODE],
             flags & O_CREAT ? "|O_CREAT" : "", flags & O_TRUNC ? "|O_TRUNC" : "",
             flags & O_NOCTTY ? "|O_NOCTTY" : "", flags & O_NONBLOCK ? "|O_NONBLOCK" : "");
    return text;
}

PLAYED(int, -1, open64, stand_in_open, (const char *path, int flags, mode_t mode), (path, flags, mode),
       flags &O_CREAT ? "open %s %s 0%o" : "open %s %s", path, open_flags(flags), mode)

DECLARED(ssize_t, read, (int file, void *buffer, size_t size))
ssize_t wrap_read(int file, void *buffer, size_t size)
{
    const char *device = board_device(file);
    if (!device)
        return real_read(file, buffer, size);
    const ssize_t count = board_read(file, buffer, size);
    char text[300];
    if (count >= 0)
        record("read %s %zu = %s", device, size, quoted(buffer, (size_t)count, text, sizeof text));
    return count;
}

DECLARED(ssize_t, write, (int file, const void *buffer, size_t size))
ssize_t wrap_write(int file, const void *buffer, size_t size)
{
    const char *device = board_device(file);
    if (!device)
        return real_write(file, buffer, size);
    const ssize_t count = board_write(file, buffer, size);
    char text[300];
    record_call(count < 0, "write %s %s", device, quoted(buffer, size, text, sizeof text));
    return count;
}

static int close_any(int file)
{
    board_close(file);
    return real_close(file);
}

PLAYED(int, -1, close, close_any, (int file), (file), "close %d", file)
PASSED(int, -1, dup2, (int from, int to), (from, to), "dup2 %d %d", from, to)

// ---- Processes ----

PASSED(int, -1, socketpair, (int domain, int type, int protocol, int *ends), (domain, type, protocol, ends),
       "socketpair %d %d %d", domain, type, protocol)
PASSED(int, -1, shutdown, (int file, int how), (file, how), "shutdown %d %d", file, how)

extern "C" pid_t libc_fork() __asm__("__real_fork");
DECLARED(pid_t, fork, ())
pid_t wrap_fork()
{
    const int fails = is_planned_to_fail("fork");
    record_call(fails, "fork");
    return fails ? -1 : libc_fork();
}

static const char *joined(char *const *texts, char *text, size_t size)
{
    if (!texts)
        return "null";
    size_t length = 0;
    text[0] = '\0';
    for (; *texts && length < size; ++texts)
        length += (size_t)snprintf(text + length, size - length, length ? " %s" : "%s", *texts);
    return text;
}

extern "C" int libc_execve(const char *, char *const *, char *const *) __asm__("__real_execve");
DECLARED(int, execve, (const char *path, char *const *arguments, char *const *environment))
int wrap_execve(const char *path, char *const *arguments, char *const *environment)
{
    char argument_text[600], environment_text[600];
    record("execve %s [%s] [%s]", path, joined(arguments, argument_text, sizeof argument_text),
           joined(environment, environment_text, sizeof environment_text));
    const int result = libc_execve(path, arguments, environment);
    record_call(1, "execve %s", path);
    return result;
}

extern "C" pid_t libc_waitpid(pid_t, int *, int) __asm__("__real_waitpid");
DECLARED(pid_t, waitpid, (pid_t process, int *status, int options))
pid_t wrap_waitpid(pid_t process, int *status, int options)
{
    const pid_t outcome = is_planned_to_fail("waitpid") ? -1 : libc_waitpid(process, status, options);
    if (outcome < 0)
        record_call(1, "waitpid %d %d", process, options);
    else if (WIFEXITED(*status))
        record("waitpid %d %d = %d exit %d", process, options, outcome, WEXITSTATUS(*status));
    else
        record("waitpid %d %d = %d signal %d", process, options, outcome, WTERMSIG(*status));
    return outcome;
}

extern "C" [[noreturn]] void libc__exit(int status) __asm__("__real__exit");
extern "C" [[noreturn]] void wrap__exit(int status) __asm__("__wrap__exit");
void wrap__exit(int status)
{
    record("_exit %d", status);
    libc__exit(status);
}

extern "C" unsigned libc_sleep(unsigned seconds) __asm__("__real_sleep");
DECLARED(unsigned, sleep, (unsigned seconds))
unsigned wrap_sleep(unsigned seconds)
{
    record("sleep %u", seconds);
    return libc_sleep(seconds);
}

// ---- Stops ----

[[noreturn]] void real_assert_fail(const char *expression, const char *file,
                                   int line) __asm__("__real_qel_assert_fail");
[[noreturn]] void wrap_assert_fail(const char *expression, const char *file,
                                   int line) __asm__("__wrap_qel_assert_fail");

void wrap_assert_fail(const char *expression, const char *file, int line)
{
    record("stop %s:%d %s", file, line, expression);
    real_assert_fail(expression, file, line);
}
