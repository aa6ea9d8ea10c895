/// Finding the application, starting the X server, and running the application forever.
#pragma once

/// The application that this start runs: its file name and its full path.
struct qel_application {
    char app_name[1000];
    char app_path[1000];
};

/// Searches /storage, then /disk, for the file whose name begins with "qel_application_" and is the
/// greatest; of equal names the one on /storage wins. One found elsewhere is copied to /storage, which is
/// remounted read-write for that, and runs from there: a newer file on a stick replaces the installed one
/// for good.
/// Stops when no such file exists ("*app_file", 189) or the copy fails (197).
void qel_find_application(struct qel_application *application);

/// Starts the X server, once. Nothing waits for it, now or later.
void qel_start_x_server(void);

/// Runs the application again and again, each time with the Wine prefix removed before; a name with
/// ".exe.so" in it runs under Wine. Ignores how a run ended. Never returns.
[[noreturn]] void qel_run_application_for_ever(const struct qel_application *application);
