// Starting programs and waiting for them, and making links. The parent keeps both ends of the input
// socket pair open until the child has ended: a child that never reads its input cannot break the write.

#include "qel_utility/qel_filesystem/processes.h"
#include "qel_utility/qel_filesystem/internal.h"
#include "qel_utility/qel_log.h"

#include <alloca.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

const char *const qel_loader_env[] = {
    "HOME=/qel_home", "TERM=linux", "WINEDEBUG=fixme-all,warn-all", "LD_LIBRARY_PATH=/usr/xorg/lib",
    "DISPLAY=unix:0", nullptr,
};

enum { wine_output_bytes = 10240 };

static char qel_wine_output_buffer[wine_output_bytes];

/// The lines that a start reports, in the order of its steps.
struct _start_lines {
    int socketpair;
    int exec;
    int fork;
    int write;
};

static const struct _start_lines checked_lines = {
    .socketpair = 2093, .exec = 2101, .fork = 2103, .write = 2109};
static const struct _start_lines unchecked_lines = {
    .socketpair = 1686, .exec = 1694, .fork = 1696, .write = 1702};

// ---- Running programs ----

static void _make_socket_pair(int ends[2], int line)
{
    int err = socketpair(AF_UNIX, SOCK_STREAM, 0, ends);
    QEL_ASSERT_AT(line, !err);
}

static void _close_both(const int ends[2])
{
    close(ends[0]);
    close(ends[1]);
}

/// Replaces the process; never returns. execve leaves its arguments alone, whatever its prototype says.
static void _exec(const char *path, const char *const argv[], const char *const envp[], int line)
{
    execve(path, (char *const *)argv, (char *const *)envp);
    QEL_ASSERT_AT(line, 0);
}

/// Starts the program with `input_text` on its standard input. Returns its pid; the caller closes `ends`.
static pid_t _start_with_input(const char *path, const char *const argv[], const char *const envp[],
                               const char *input_text, int ends[2], const struct _start_lines *lines)
{
    _make_socket_pair(ends, lines->socketpair);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(ends[0], STDIN_FILENO);
        _exec(path, argv, envp, lines->exec);
    }
    QEL_ASSERT_AT(lines->fork, pid != -1);
    if (input_text) {
        ssize_t data_len = (ssize_t)strlen(input_text);
        ssize_t n = write(ends[1], input_text, (size_t)data_len);
        QEL_ASSERT_AT(lines->write, n == data_len);
    }
    shutdown(ends[1], SHUT_RDWR);
    return pid;
}

/// Waits for the end of the child, repeating only what a signal interrupted. How it ended is not judged.
static void _wait_unjudged(pid_t pid, const char *path)
{
    int status = 0;
    pid_t waited;
    do
        waited = waitpid(pid, &status, 0);
    while (waited < 0 && errno == EINTR);
    if (waited < 0)
        printf("exit %d: %s\n", (status & 0xff00) >> 8, path);
}

void qel_exec_wait_checked(const char *path, const char *const argv[], const char *const envp[],
                           const char *input_text)
{
    int ends[2];
    pid_t pid = _start_with_input(path, argv, envp, input_text, ends, &checked_lines);
    int status = 0;
    while (waitpid(pid, &status, 0) != pid)
        ;
    QEL_ASSERT_TEXT_AT(2116,
                       "((((__extension__ (((union { __typeof(status) __in; int __i; }) { .__in = (status) "
                       "}).__i))) & 0x7f) == 0)",
                       (status & 0x7f) == 0);
    QEL_ASSERT_TEXT_AT(2117,
                       "((((__extension__ (((union { __typeof(status) __in; int __i; }) { .__in = (status) "
                       "}).__i))) & 0xff00) >> 8) == 0",
                       (status & 0xff00) >> 8 == 0);
    _close_both(ends);
}

void qel_exec_wait(const char *path, const char *const argv[], const char *const envp[],
                   const char *input_text)
{
    int ends[2];
    pid_t pid = _start_with_input(path, argv, envp, input_text, ends, &unchecked_lines);
    _wait_unjudged(pid, path);
    _close_both(ends);
}

const char *qel_wine_exec_capture(const char *program, const char *const args[], int arg_count)
{
    if (arg_count < 0)
        arg_count = 0;
    const char **argv = (const char **)alloca(sizeof *argv * ((size_t)arg_count + 3));
    argv[0] = QEL_WINE;
    argv[1] = program;
    for (int i = 0; i < arg_count; i++)
        argv[2 + i] = args[i];
    argv[2 + arg_count] = nullptr;

    int input[2], output[2];
    _make_socket_pair(input, 1731);
    _make_socket_pair(output, 1734);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(input[0], STDIN_FILENO);
        dup2(output[0], STDOUT_FILENO);
        _exec(QEL_WINE, argv, qel_loader_env, 1744);
    }
    QEL_ASSERT_AT(1746, pid != -1);
    shutdown(input[1], SHUT_RDWR);

    int out_size = wine_output_bytes;
    int outbuf_count = (int)read(output[1], qel_wine_output_buffer, (size_t)out_size - 1);
    QEL_ASSERT_AT(1762, outbuf_count < out_size);
    qel_wine_output_buffer[outbuf_count > 0 ? outbuf_count : 0] = '\0';
    shutdown(output[1], SHUT_RDWR);
    _wait_unjudged(pid, QEL_WINE);
    _close_both(input);
    _close_both(output);
    return qel_wine_output_buffer;
}

// ---- Links ----

static void _print_symlink_error(int error)
{
    static const struct {
        int error;
        const char *name;
    } known[] = {
        {EEXIST, "EEXIST"}, {EROFS, "EROFS"},     {ENOSPC, "ENOSPC"},
        {EIO, "EIO"},       {EACCES, "EACCES"},   {ENAMETOOLONG, "ENAMETOOLONG"},
        {ENOENT, "ENOENT"}, {ENOTDIR, "ENOTDIR"}, {ELOOP, "ELOOP"},
    };
    for (size_t i = 0; i < sizeof known / sizeof known[0]; i++) {
        if (known[i].error == error)
            printf("symlink error : %s\n", known[i].name);
    }
    printf("error code : %d\n", error);
}

int qel_symlink(const char *name, const char *target)
{
    QEL_ASSERT_AT(1852, name);
    QEL_ASSERT_AT(1853, *name);
    QEL_ASSERT_AT(1854, target);
    QEL_ASSERT_AT(1855, *target);

    unlink(target);
    printf("%s -> %s\n", name, target);
    if (symlink(name, target)) {
        int error = errno;
        _print_symlink_error(error);
        _qel_require_eexist(error, 1892);
    }
    return 1;
}
