/// Dumps of folders, files and processes on the console, printed with qel_print. They change nothing.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/// Prints "PATH:", then " NAME (SIZE)" or " NAME (can't stat)" for each entry in directory order, "." and
/// ".." included, all on one line. A folder that cannot be opened has no entries.
void qel_dump_folder(const char *path);

/// Prints the file's lines between dashed frames that carry its path. For a file that cannot be
/// opened, the frames are empty.
void qel_dump_file(const char *path);

/// Dumps the status file of every process in /proc.
void qel_dump_processes(void);

#ifdef __cplusplus
}
#endif
