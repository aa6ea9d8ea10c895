/// Whole folder trees: search, removal, walks and copies.
///
/// All walks take entries in directory order and never sort; which entries are folders is read from the
/// directory listing, so links are never entered unless noted otherwise. A failing entry does not end a
/// walk: it makes the result 0, and the work done stays. Trees must not change during a walk.
///
/// chmod with mode 0777 stands before each removal and behind each copy of a file, and it follows links: what
/// a removed link leads to stays with mode 0777.
///
/// Every folder of a walk is checked like the first: one whose name breaks the path rules (paths.h) stops
/// the program, as does such a file in a copy. Other entries are removed without a check.
///
/// Depth is bounded by the stack and the number of open handles; paths are cut at 512 bytes, in the search
/// and in measuring (files.h) at 1000. Keep trees below that: a path cut in the wrong place names a folder
/// above it, and the walk goes round until the stack is used up.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// ---- Search ----

/// Searches `folder` and the folders below it, depth first, for the entry with the greatest name (by
/// strcmp) that begins with `prefix`. Any type of entry can be found; folders whose names begin with "."
/// are not entered. `found_dir` and `found_name` are the caller's buffers of 1000 bytes, kept when
/// nothing greater is found: empty `found_name` before the first search, then run several searches with
/// the same buffers, and the best of all wins; of equal names, the first one found. Prints
/// "candidate: DIR/NAME" for each entry taken.
/// A folder that cannot be opened stops the program (433), as does one whose path breaks the rules (429).
void qel_find_file_with_prefix(const char *folder, const char *prefix, char *found_dir, char *found_name);

// ---- Removing ----

/// Removes everything in `folder`, which stays; prints "removing contents of ..." for it and for every
/// folder in it. Entries are read in batches of up to 20, fewer when their names have more than 5120 bytes
/// with their NULs, and removed with the folder closed. Deliberate: entries that cannot be removed are read
/// again in every batch, so that twenty of them keep this function going without end. Stops when `folder` is
/// null (974) or not absolute (975). Returns 1 when everything went or the folder does not exist; 0 when
/// something stayed or the folder exists but cannot be opened. A batch that is shorter for its names' length,
/// and of which nothing goes, ends it with 0, whatever else is in the folder.
int qel_rmdircontents(const char *folder);

/// Removes a folder with its contents, or a file; prints "removing dir tree ...".
/// Stops when `folder` is null (1044) or not absolute (1045).
/// Returns 1 when it is gone or never was there, else 0.
/// Deliberate: a link to a folder passes for the folder. The contents of its target are removed, the
/// link itself stays, and the result is 0. A socket or a block device passes for a folder too
/// (qel_file_is_dir): it stays, and the result is 0.
int qel_rmdirtree(const char *folder);

// ---- Walking ----

/// Calls `fn(source path, destination path, user)` for everything below `src` that is not a folder; the
/// destination path is the same path below `dst_root`. Creates nothing; the result of `fn` is ignored. A
/// folder that cannot be opened counts as empty. Paths are cut at 512 bytes.
/// Stops when `src` (1255) or `dst_root` (1256) is null, `src` not absolute (1257) or `dst_root` not
/// valid (1258).
void qel_recurse_files_in_folder(const char *src, const char *dst_root,
                                 int (*fn)(const char *src_path, const char *dst_path, void *user),
                                 void *user);

// ---- Copying ----
//
// Copies follow links: a link to a file becomes a file, a link to a folder a folder. Source and destination
// must lie apart: a tree copied onto itself, or to where it stands already, is deleted, because what stands
// at the destination is removed first. One copied into itself goes deeper until its paths are cut.

/// A filter rule of a tree copy. `pattern` is an fnmatch pattern for the whole source path ("*" spans
/// "/"); one that begins with neither "/" nor "*" matches the last components ("foo" means "*/foo"). "?" is a
/// character of the caller's locale: a byte in the loader's.
struct qel_copy_foo {
    uint32_t exclude; ///< 0: only files that match are copied; 1: matches are left out, folders with
                      ///< their contents; any other value: the rule does nothing
    const char *pattern;
};

/// Copies the tree `src` into `dst_folder` under its own name, replacing any such entry. A file must pass
/// every rule; leaving a file out counts as success. Files end with mode 0777.
/// Prints "copying dir tree ..." first. Stops when `src` (1223) or `dst_folder` (1224) is not absolute,
/// or `copy_foo` is null with a count other than 0 (1225). Paths are cut at 512 bytes.
/// Returns 1 when everything was copied, else 0.
int qel_cpdirtree_with_foo(const char *src, const char *dst_folder, const struct qel_copy_foo *copy_foo,
                           int copy_foo_count);

/// The same without rules.
int qel_cpdirtree(const char *src, const char *dst_folder);

/// Makes `dst` an exact copy of `src`; what was in `dst` is gone. Prints "copying contents of ...".
/// Stops when `src` (1295) or `dst` (1296) is not absolute. A `dst` directly under the root stops at 902,
/// when what was there has been removed already. Returns 1 or 0.
int qel_cpdircontents(const char *src, const char *dst);

/// Copies what is in `src` over `dst`; what only `dst` has stays. Prints "copying contents of ...".
/// Stops when `src` (1315) or `dst` (1316) is not absolute, and for a `dst` directly under the root (902).
/// Returns 1 or 0.
int qel_mergedircontents(const char *src, const char *dst);

/// The worker of the copies: copies `src`, a file or a folder, to the path `dst`. A set `replace` removes
/// each entry of the destination folder before its copy, on this level only. Returns 1 or 0.
int _qel_cpdirtree_with_foo(const char *src, const char *dst, int replace,
                            const struct qel_copy_foo *copy_foo, int copy_foo_count);

/// The worker without rules.
int _qel_cpdirtree(const char *src, const char *dst, int replace);

#ifdef __cplusplus
}
#endif
