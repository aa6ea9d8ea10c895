/// Files and folders: strict, thin wrappers around the C library's calls and what is built on them.
///
/// Unless noted otherwise, the path operations first stop the program on a null path, then on one that is
/// not absolute (paths.h); brackets give the two line numbers.
#pragma once

#include <dirent.h>
#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

// ---- Keep-alive hook ----

/// Called before each qel_mkdir, qel_unlink and qel_rmdir, once at the start of qel_copy_file, and after
/// every block that qel_copy_file reads (including the last, empty one). Null unless set; the loader does
/// not set it.
extern void (*qel_fs_hook)(void);
void qel_set_fs_hook(void (*hook)(void));

// ---- Opening and testing ----

/// Opens a file for reading ("rb"); one that cannot be opened stops the program (403). [399, 400]
/// Never returns null; the caller closes the stream.
FILE *qel_fopen(const char *path);

/// Opens a folder; one that cannot be opened stops the program (433). [428, 429]
/// Never returns null; the caller closes the handle.
DIR *qel_opendir(const char *path);

/// Return 1 when stat succeeds, else 0; links are followed. [414, 415] and [1081, 1082]
int qel_exists(const char *path);
int qel_file_exists(const char *file);

/// Returns 1 when stat succeeds and the mode has the bit 0x4000, else 0. That single bit is the rule:
/// block devices and sockets have it too and count as folders. [1093, 1094]
int qel_file_is_dir(const char *file);

/// Looks in `folder` for the first entry, in directory order, whose name equals `search_name` ignoring
/// case as the caller's locale has it, "." and ".." included, and writes folder/name as the folder spells it
/// to `result_path` (cut at `result_path_size` bytes). Relative folders are accepted.
/// Deliberate: for the folder "/" that is "//name", which is not a valid path here.
/// Stops when the folder is not valid (459), `search_name` null (460) or empty (461), the buffer null
/// (462) or its size below 1 (463). Returns 1 when found; 0 when not, or the folder cannot be opened.
int find_file_no_case(const char *folder, const char *search_name, char *result_path, int result_path_size);

// ---- Making and removing ----

/// Makes a folder with mode 0755 (less the umask). Returns mkdir's result, errno kept. [443, 444]
int qel_mkdir(const char *path);

/// Makes the folder and every missing parent. An existing entry of any type counts as made, even a plain
/// file. The text must be writable: it is changed during the call and restored. [901, 902]
/// Returns 1; 0 after printing "couldn't create folder: PREFIX" when a mkdir fails.
int qel_create_folder_and_parents(char *folder);

/// The same for the folder of `path`. [951, 952]
/// A path directly under the root stops the program at 902, because its parent text is empty; callers pass
/// deeper paths.
int qel_create_parent_folder_and_parents(char *path);

/// chmod with mode 0777; of a link, what it leads to. Returns its result. No path check, here and in the next
/// two.
int qel_chmod_all(const char *path);

/// Gives the file (the folder) mode 0777, then removes it. Returns the removal's result, errno kept; that of
/// the chmod is ignored. Of a link, the link is removed, and what it leads to stays with mode 0777.
int qel_unlink(const char *path);
int qel_rmdir(const char *path);

// ---- Copying and block transfer ----

/// Copies the content of `src` to `dst` (destination first) in 4096-byte pieces. Prints "copy: SRC -> DST"
/// before anything is checked. No type is tested: a device node is a valid destination, links are followed,
/// and an existing file is overwritten even when it was write-protected. A file copied onto itself is empty.
/// Stops when `src` (583) or `dst` (584) is not absolute, and on null (235).
/// Returns 1 when copied, and then `dst` has mode 0777 where the file system has modes; 0 when a file cannot
/// be opened or a write falls short, and then the partial `dst` stays. A read error counts as the end of the
/// file.
int qel_copy_file(const char *dst, const char *src);

/// Move up to `count` bytes from (to) the stream in pieces of at most 4096, until a piece moves nothing.
/// Stop on a null buffer (307; 337) or stream (308; 338), also for a count of 0. Return the bytes moved.
unsigned qel_read_block(void *buf, unsigned count, FILE *file);
unsigned qel_write_block(const void *buf, unsigned count, FILE *file);

// ---- Sizes ----

/// Adds the sizes of everything below `path`, itself and folders included, to `*size`, which the caller
/// starts; the sum is INT64_MAX at most. With a `threshold` other than 0 it stops as soon as the sum exceeds
/// it. Links are followed: what several lead to counts several times, and one to a folder above it leads
/// round until the kernel has followed 40. What cannot be stat'ed or opened is left out. Paths are cut at
/// 1000 bytes, as in a search (trees.h). Each path of the walk is checked like the first. [644, 645]; a null
/// `size` stops (646). Returns 1 when completed, 0 when stopped at the threshold.
int qel_get_folder_size_with_threshold(const char *path, int64_t threshold, int64_t *size);

/// Returns that sum for `path` and everything below it, 0 for a path that is not there. The sizes are those
/// of the contents, not of the room that they take on the disk.
int64_t qel_get_folder_size(const char *path);

/// Measures the file system that holds, or would hold, `path`: the nearest existing parent is taken. A path
/// of more than 999 bytes is cut there first. `free_bytes` gets what an ordinary user may still fill,
/// `total_bytes` the size; either may be null. The size of a block counts as a signed number of 32 bits, and
/// a product has 64. Stops when the path is not absolute (784), the cut leaves a slash at its end (1082) or
/// statfs fails (814).
void qel_get_disk_space(const char *path, int64_t *free_bytes, int64_t *total_bytes);

/// Returns the free bytes of qel_get_disk_space.
int64_t qel_get_free_disk_space(const char *path);

// ---- Working folder ----

/// Writes the working folder to `result` (`size` bytes) and prints it. Stops when that fails (1108), also for
/// a size of 0 or less.
/// Returns printf's result.
int qel_get_current_dir(char *result, int size);

/// Prints the path and makes it the working folder. Null (1119) and a failing chdir (1122) stop the
/// program. Returns 0.
int qel_set_current_dir(const char *path);

// ---- Stopwatch ----

/// Returns the microseconds since the first call, which itself gets 0, on a cycle of 600 seconds: across
/// the end of a cycle the difference wraps to a huge value. Callers measure short spans and tolerate both.
uint32_t qel_elapsed_usec(void);

#ifdef __cplusplus
}
#endif
