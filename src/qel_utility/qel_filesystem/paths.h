/// Path rules and composition. It has no state and does not touch a disk.
///
/// A path is a NUL-terminated byte string with "/" as separator. It comes in two flavours: 0 is Unix
/// ("/" is the root), 1 is the DOS form that Windows programs use ("C:/" and "//" are roots). The
/// library itself works with flavour 0 throughout. Letters are those of ASCII, whatever the locale.
///
/// A path is valid when every byte after the root prefix is printable ASCII other than \ : * ? " < > |
/// or a byte of 128 and more, when it does not end in a slash (unless it is the root), and when no two
/// slashes are adjacent. It is absolute when it is valid and begins with a root prefix.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// ---- Tests ----

/// Returns the length of the root prefix: 1 for "/" in flavour 0; 3 for "C:/" and 2 for "//" in
/// flavour 1; 0 without one. A null path gives 0 in flavour 0 and stops in flavour 1 (117).
int _qel_path_root_len(const char *s, int flavour);

/// Returns 1 when the whole path is a root prefix, else 0. Null as for _qel_path_root_len.
int _qel_path_is_root_dir(const char *path, int flavour);
int qel_dos_path_is_root_dir(const char *path);
int qel_unix_path_is_root_dir(const char *path);
int qel_path_is_root_dir(const char *path); ///< the one that the library uses: "/" alone

/// Returns 1 when the path is valid, else 0; null and empty are invalid. Relative paths can be valid;
/// "." and ".." components get no special treatment, and the length is unlimited.
int _qel_path_is_valid(const char *path, int flavour);
int qel_path_is_valid(const char *path); ///< flavour 0

/// Returns 1 when the path is absolute, else 0. Null stops the program ("s": 213 here, then 221, 228 and
/// 235 in the order of declaration).
int _qel_path_is_absolute(const char *s, int flavour);
int qel_dos_path_is_absolute(const char *s);
int qel_unix_path_is_absolute(const char *s);
int qel_path_is_absolute(const char *s); ///< the one that the library uses: flavour 0

// ---- Changes in place ----

/// Turns a foreign path into an acceptable one, in this order: backslashes become slashes; one trailing
/// slash is removed (unless the path is "/"); runs of slashes shrink to one ("//" at the very start); the
/// letter before a ":" in second position becomes upper case. Null stops the program (264).
/// Deliberate: the trailing slash is removed before runs shrink, even from the DOS root, so "/a//" becomes
/// "/a/" and "c:\" becomes "C:". Both are part of the contract.
void qel_path_normalize(char *path);

/// Normalises, then requires a path that is valid in either flavour, else the program stops (299).
/// Returns 1.
int qel_path_normalize_strict(char *path);

/// Turns a path that is valid in flavour 1 into one with backslashes; backslashes in it are taken as
/// slashes first. Null (247) and any other path (254) stop the program.
void qel_path_to_dos(char *path);

/// Replaces what no file name of the machine may hold: whitespace is normalised, every character that may
/// not stand in a path and every slash becomes "_". Whether the rest is a name is the caller's to see: it can
/// be empty, "." or "..", or too long. Null stops (103).
void qel_filename_make_valid(char *filename);

// ---- Composers ----
//
// They write into a caller's buffer of the given size in bytes. A path that breaks the rules stops the
// program with "Path is not valid" or "Path is not absolute" at the line given. Where the result is
// int, it is that of the last bounded format, as snprintf gives it; longer text is cut, and a size of 0 or
// less writes nothing. One buffer may serve as path and as result but in qel_child_path; `sibling` must lie
// outside.

/// Writes the folder of `path`: "/a/b" gives "/a", "/a" gives "/", "a/b" gives "a".
/// Stops when the path is not valid (1128), the buffer is null (1129), the path is the root (1131), it
/// has no slash (1134), or the buffer is smaller than the result with its slash and NUL (1137).
void qel_parent_dir(const char *path, char *parent_dir, int parent_dir_size);

/// Cuts one trailing slash off, in place, then requires a valid path (1072); "/" no longer is one.
/// Null stops (1064). The path must contain a slash: that is not checked. Returns 1.
int qel_strip_trailing_slash(char *path);

/// Writes `parent`/`child`; `child` may have several components. Stops when `parent` is not absolute
/// (1150), `child` not valid (1151) or begins with a slash (1152).
int qel_child_path(const char *parent, const char *child, char *dst, int dst_size);

/// Writes `path` with its last component replaced by `sibling`. Stops when `path` is the root (1165) or
/// not absolute (1166), `sibling` is not valid (1167) or begins with a slash (1168), or the copy was
/// cut before its first slash (1173), also for a size of 0 or less. The result is the sibling's length.
int qel_sibling_path(const char *path, const char *sibling, char *dst, int dst_size);

/// Writes the text after the last slash. Stops when the path is not valid (1182), the buffer null
/// (1183), the path the root (1185) or without a slash (1188).
int qel_filename_part(const char *path, char *filename, int size);

/// Replaces the extension of the last component by `ext` (with its dot), or appends it. A leading dot
/// counts as the extension: "/a/.profile" with ".txt" becomes "/a/.txt". Stops when `ext` is null (1196)
/// or does not begin with a dot (1197), the path is not valid (1198) or the size not above 0 (1199).
/// The result is the extension's length.
int qel_path_put_extension(const char *ext, char *path, int path_size);

#ifdef __cplusplus
}
#endif
