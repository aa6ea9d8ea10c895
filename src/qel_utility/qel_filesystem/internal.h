/// Checks shared by several files of this unit, internal to qel_filesystem. They are macros, so a check
/// reports the function that contains it.
#pragma once

#include "qel_utility/qel_filesystem/paths.h"
#include "qel_utility/qel_log.h"

#include <dirent.h>

/// Runs Windows programs, for the loader too.
#define QEL_WINE "/usr/wine/bin/wine"

/// Stops the program with a fatal error at `line` unless `path` is absolute. Null stops with "s" (235).
#define QEL_REQUIRE_ABSOLUTE_AT(line, path)                                                                  \
    do {                                                                                                     \
        if (!qel_path_is_absolute(path))                                                                     \
            QEL_FATAL_ERROR_AT(line, "Path is not absolute: \"%s\"\n", path);                                \
    } while (0)

/// Stops the program with a fatal error at `line` unless `path` is valid and not null.
#define QEL_REQUIRE_VALID_AT(line, path)                                                                     \
    do {                                                                                                     \
        if (!qel_path_is_valid(path))                                                                        \
            QEL_FATAL_ERROR_AT(line, "Path is not valid: \"%s\"\n", path);                                   \
    } while (0)

enum {
    path_bytes = 1000,     ///< the usual path buffer
    tree_path_bytes = 512, ///< the path buffers of removing and copying trees
};

#pragma GCC visibility push(hidden)

/// Writes `folder`/`name` into `path`, cut at `size` bytes with the NUL.
void _qel_join_path(char *path, int size, const char *folder, const char *name);

/// Returns the part of `path` after its last slash, or all of it without a slash.
const char *_qel_base_name(const char *path);

/// Returns 1 when `text` begins with `prefix`, else 0.
int _qel_begins_with(const char *text, const char *prefix);

/// Returns the next entry of `dir` other than "." and "..", null at the end.
const struct dirent *_qel_next_entry(DIR *dir);

/// Makes the folder unless it exists; any other failure stops the program at `line`.
void _qel_mkdir_if_missing(const char *path, int line);

/// Stops the program at `line` with the text of a failed comparison of errno with EEXIST.
void _qel_require_eexist(int error, int line);

#pragma GCC visibility pop
