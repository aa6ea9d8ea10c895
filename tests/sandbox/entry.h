/// The way into a sandbox: new namespaces, and a program as PID 1 of them.
#pragma once

#include <sys/types.h>

struct Entry {
    int root;           ///< a file system that is mounted nowhere
    int console;        ///< a terminal
    int for_the_inside; ///< what becomes host_descriptor; -1 for nothing
    const char *program;
    char *const *arguments;
    char *const *environment;
    /// A folder that becomes a tmpfs with these options; "" for none.
    const char *limited_folder;
    const char *limit_options;
};

/// Starts the program as PID 1 of new mount and process namespaces, with `root` as its root and `console`
/// as its streams and its transcript. What goes wrong inside before the program runs is said there, and the
/// process ends with status 98; it also ends with the thread that called this.
/// Returns the process as the caller's namespace knows it, -1 with errno when there is none.
pid_t start_inside(const Entry &entry);
