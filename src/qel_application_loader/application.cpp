// From the application file to the endless loop that runs it.

#include "qel_application_loader/application.h"
#include "qel_utility/qel_filesystem.h"
#include "qel_utility/qel_filesystem/internal.h"
#include "qel_utility/qel_log.h"

#include <stdio.h>
#include <string.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#define APPLICATION_PREFIX "qel_application_"

// ---- Finding it ----

/// Copies the application to /storage for good.
static void _install_from_stick(struct qel_application *application)
{
    const char *app_path = application->app_path;
    char storage_path[sizeof application->app_path];
    snprintf(storage_path, sizeof storage_path, "/storage/%s", application->app_name);

    qel_remount_storage_rw();
    QEL_ASSERT_AT(197, qel_copy_file(storage_path, app_path));
    qel_remount_storage_ro();
    strcpy(application->app_path, storage_path);
}

void qel_find_application(struct qel_application *application)
{
    char app_dir[1000] = "";
    char *app_name = application->app_name;
    memset(app_name, 0, sizeof application->app_name);

    qel_find_file_with_prefix("/storage", APPLICATION_PREFIX, app_dir, app_name);
    qel_find_file_with_prefix("/disk", APPLICATION_PREFIX, app_dir, app_name);
    snprintf(application->app_path, sizeof application->app_path, "%s/%s", app_dir, app_name);
    QEL_ASSERT_TEXT_AT(189, "*app_file", *app_name);

    if (strstr(app_dir, "/storage") != app_dir)
        _install_from_stick(application);
}

// ---- Running it ----

/// Starts a program in a child. When it cannot be started, the child prints `failure` with `name`, unless
/// that is null, and ends with status 1; it ends without flushing what the parent had left unprinted.
/// Returns the child's pid, -1 when there is none.
static pid_t _start_child(const char *const argv[], const char *failure, const char *name)
{
    pid_t pid = fork();
    if (pid == 0) {
        execve(argv[0], (char *const *)argv, (char *const *)qel_loader_env);
        if (failure)
            qel_print("%s failed: %s\n", failure, name);
        _exit(1);
    }
    return pid;
}

void qel_start_x_server(void)
{
    const char *const argv[] = {"/usr/xorg/bin/Xfake", "-nolisten", "tcp", "-kb", nullptr};
    _start_child(argv, nullptr, nullptr);
}

static pid_t _start_application(const struct qel_application *application)
{
    const char *path = application->app_path;
    if (strstr(path, ".exe.so")) {
        const char *const argv[] = {QEL_WINE, path, nullptr};
        return _start_child(argv, "wine", application->app_name);
    }
    const char *const argv[] = {path, nullptr};
    return _start_child(argv, "exec", application->app_name);
}

/// Waits for exactly this child. Without a child, -1, that is until no child is left.
static void _wait_for(pid_t pid)
{
    int status;
    while (waitpid(pid, &status, 0) != pid)
        sleep(1);
}

void qel_run_application_for_ever(const struct qel_application *application)
{
    for (;;) {
        qel_rmdirtree("/qel_home/.wine");
        qel_print("run: %s\n", application->app_path);
        chdir("/storage");
        _wait_for(_start_application(application));
    }
}
