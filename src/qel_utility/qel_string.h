/// String operations on NUL-terminated byte strings, in place or into a caller's buffer.
///
/// Whitespace is blank, tab, newline, vertical tab, form feed and carriage return; printable means the
/// printable ASCII characters, both whatever the locale. A null string stops the program ("s"), unless said
/// otherwise.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// ---- Whitespace ----

/// Returns 1 when `s` is empty or all whitespace, else 0.
int qel_str_is_blank(const char *s);

/// Removes leading whitespace by moving the rest to the start.
void qel_str_trim_left(char *s);

/// Replaces trailing whitespace by NULs.
void qel_str_trim_right(char *s);

/// Removes whitespace at both ends.
void qel_str_trim(char *s);

/// Replaces every run of whitespace, also at the ends, by exactly one blank.
void qel_str_collapse_spaces(char *s);

/// Trims, then collapses: no whitespace at the ends, single blanks inside.
void qel_str_normalize_spaces(char *s);

// ---- Replacement ----

/// Copies `src` to `dst` with every occurrence of `pattern` (left to right, not overlapping, inserted
/// text not searched again) replaced by `replacement`. `dst` has `dst_size` bytes and is filled with
/// zeros first; what does not fit is counted but not stored.
/// Requires all pointers and a size above 0, else the program stops ("src", "dst", "dst_size > 0",
/// "pattern", "replacement"), and a result of at most 2147483646 characters
/// ("count < INT_MAX", when `dst` has been filled). `pattern` must not be empty: that is not checked, and such a call
/// never returns.
/// Returns the size that the whole result needs with its NUL. Only when that is not greater than
/// `dst_size` is `dst` whole and terminated; a longer result fills `dst` and leaves it WITHOUT a NUL.
int qel_str_replace(const char *src, char *dst, int dst_size, const char *pattern, const char *replacement);

// ---- File names ----

/// Returns 1 when `name` can be one file-name component on a vfat partition, else 0: not null,
/// not empty, no control character, none of \ : * ? " < > | and no slash. Bytes of 128 and more pass.
int qel_filename_is_valid(const char *name);

#ifdef __cplusplus
}
#endif
