// Judges path texts and builds new ones; every file operation of the library refuses bad paths through
// these rules, with the macros of internal.h, which report the caller's own name and line.

#include "qel_utility/qel_filesystem/paths.h"
#include "qel_utility/qel_filesystem/internal.h"
#include "qel_utility/qel_log.h"
#include "qel_utility/qel_string.h"

#include <stddef.h>
#include <stdio.h>
#include <string.h>

enum { unix_flavour = 0, dos_flavour = 1 };

/// 1 when the byte may stand in a path; the slash may.
static int _is_allowed(char character)
{
    switch (character) {
    case '\\':
    case ':':
    case '*':
    case '?':
    case '"':
    case '<':
    case '>':
    case '|':
        return 0;
    default:
        return (unsigned char)character >= ' ' && character != '\x7F';
    }
}

/// 1 for the letters A to Z in either case, whatever the locale.
static int _is_letter(char character)
{
    int upper = character & ~0x20;
    return upper >= 'A' && upper <= 'Z';
}

static void _replace_all(char *s, char from, char to)
{
    for (; *s; s++) {
        if (*s == from)
            *s = to;
    }
}

// ---- Internal to the library ----

/// Puts as much of `text` to `end` as there is room for before `last`. Returns the new end.
static char *_append(char *end, char *last, const char *text)
{
    auto *behind = (char *)memccpy(end, text, '\0', (size_t)(last - end));
    return behind ? behind - 1 : last;
}

void _qel_join_path(char *path, int size, const char *folder, const char *name)
{
    char *last = path + size - 1;
    char *end = _append(path, last, folder);
    end = _append(end, last, "/");
    end = _append(end, last, name);
    *end = '\0';
}

const char *_qel_base_name(const char *path)
{
    const char *slash = strrchr(path, '/');
    return slash ? slash + 1 : path;
}

int _qel_begins_with(const char *text, const char *prefix)
{
    return strncmp(text, prefix, strlen(prefix)) == 0;
}

// ---- Tests ----

int _qel_path_root_len(const char *s, int flavour)
{
    if (flavour == unix_flavour)
        return s && s[0] == '/';

    QEL_ASSERT_AT(117, s);
    if (_is_letter(s[0]) && s[1] == ':' && s[2] == '/')
        return 3;
    return s[0] == '/' && s[1] == '/' ? 2 : 0;
}

int _qel_path_is_root_dir(const char *path, int flavour)
{
    int root_len = _qel_path_root_len(path, flavour);
    return root_len > 0 && path[root_len] == '\0';
}

int qel_dos_path_is_root_dir(const char *path)
{
    return _qel_path_is_root_dir(path, dos_flavour);
}

int qel_unix_path_is_root_dir(const char *path)
{
    return _qel_path_is_root_dir(path, unix_flavour);
}

int qel_path_is_root_dir(const char *path)
{
    return _qel_path_is_root_dir(path, unix_flavour);
}

int _qel_path_is_valid(const char *path, int flavour)
{
    if (!path || !*path)
        return 0;
    if (_qel_path_is_root_dir(path, flavour))
        return 1;

    int root_len = _qel_path_root_len(path, flavour);
    char previous = root_len > 0 ? path[root_len - 1] : 'Z';
    for (const char *p = path + root_len; *p; p++) {
        if (!_is_allowed(*p) || (*p == '/' && (previous == '/' || p[1] == '\0')))
            return 0;
        previous = *p;
    }
    return 1;
}

int qel_path_is_valid(const char *path)
{
    return _qel_path_is_valid(path, unix_flavour);
}

int _qel_path_is_absolute(const char *s, int flavour)
{
    QEL_ASSERT_AT(213, s);
    return _qel_path_root_len(s, flavour) > 0 && _qel_path_is_valid(s, flavour);
}

int qel_dos_path_is_absolute(const char *s)
{
    QEL_ASSERT_AT(221, s);
    return _qel_path_is_absolute(s, dos_flavour);
}

int qel_unix_path_is_absolute(const char *s)
{
    QEL_ASSERT_AT(228, s);
    return _qel_path_is_absolute(s, unix_flavour);
}

int qel_path_is_absolute(const char *s)
{
    QEL_ASSERT_AT(235, s);
    return _qel_path_is_absolute(s, unix_flavour);
}

// ---- Changes in place ----

/// Deletes every slash that follows a slash, except one that then stands in second place.
static void _collapse_slashes(char *path)
{
    char *out = path;
    for (const char *p = path; *p; p++) {
        if (*p == '/' && out > path + 1 && out[-1] == '/')
            continue;
        *out++ = *p;
    }
    *out = '\0';
}

void qel_path_normalize(char *path)
{
    QEL_ASSERT_AT(264, path);

    _replace_all(path, '\\', '/');
    size_t length = strlen(path);
    if (length > 0 && !qel_path_is_root_dir(path) && path[length - 1] == '/')
        path[length - 1] = '\0';
    _collapse_slashes(path);
    if (_is_letter(path[0]) && path[1] == ':')
        path[0] = (char)(path[0] & ~0x20);
}

int qel_path_normalize_strict(char *path)
{
    qel_path_normalize(path);
    QEL_ASSERT_AT(299, _qel_path_is_valid(path, 1) || _qel_path_is_valid(path, 0));
    return 1;
}

void qel_path_to_dos(char *path)
{
    QEL_ASSERT_AT(247, path);

    _replace_all(path, '\\', '/');
    QEL_ASSERT_AT(254, _qel_path_is_valid(path, 1));
    _replace_all(path, '/', '\\');
}

void qel_filename_make_valid(char *filename)
{
    QEL_ASSERT_AT(103, filename);

    qel_str_normalize_spaces(filename);
    for (char *p = filename; *p; p++) {
        if (!_is_allowed(*p) || *p == '/')
            *p = '_';
    }
}

// ---- Composers ----

/// Writes `text`, cut at `room` bytes with the NUL; without room, nothing. The two may overlap. Returns the
/// length of `text`.
static int _write(char *to, ptrdiff_t room, const char *text)
{
    size_t length = strlen(text);
    if (room > 0) {
        size_t stored = length < (size_t)room ? length : (size_t)room - 1;
        memmove(to, text, stored);
        to[stored] = '\0';
    }
    return (int)length;
}

void qel_parent_dir(const char *path, char *parent_dir, int parent_dir_size)
{
    QEL_REQUIRE_VALID_AT(1128, path);
    QEL_ASSERT_AT(1129, parent_dir);
    QEL_ASSERT_AT(1131, !qel_path_is_root_dir(path));
    const char *cp = strrchr(path, '/');
    QEL_ASSERT_AT(1134, cp);
    ptrdiff_t parent_dir_len = cp - path;
    QEL_ASSERT_AT(1137, parent_dir_size >= (parent_dir_len + 2));

    memmove(parent_dir, path, (size_t)parent_dir_len + 1);
    parent_dir[parent_dir_len + 1] = '\0';
    if (!qel_path_is_root_dir(parent_dir))
        parent_dir[parent_dir_len] = '\0';
}

int qel_strip_trailing_slash(char *path)
{
    QEL_ASSERT_AT(1064, path);

    char *slash = strrchr(path, '/');
    if (slash[1] == '\0')
        *slash = '\0';
    QEL_REQUIRE_VALID_AT(1072, path);
    return 1;
}

int qel_child_path(const char *parent, const char *child, char *dst, int dst_size)
{
    QEL_REQUIRE_ABSOLUTE_AT(1150, parent);
    QEL_REQUIRE_VALID_AT(1151, child);
    QEL_ASSERT_AT(1152, *child != '/');

    size_t room = dst_size > 0 ? (size_t)dst_size : 0;
    return snprintf(dst, room, "%s%s%s", parent, qel_path_is_root_dir(parent) ? "" : "/", child);
}

int qel_sibling_path(const char *path, const char *sibling, char *dst, int dst_size)
{
    QEL_ASSERT_AT(1165, !qel_path_is_root_dir(path));
    QEL_REQUIRE_ABSOLUTE_AT(1166, path);
    QEL_REQUIRE_VALID_AT(1167, sibling);
    QEL_ASSERT_AT(1168, sibling[0] != '/');

    _write(dst, dst_size, path);
    char *slash = dst_size > 0 ? strrchr(dst, '/') : nullptr;
    QEL_ASSERT_AT(1173, slash);
    return _write(slash + 1, dst_size - (slash + 1 - dst), sibling);
}

int qel_filename_part(const char *path, char *filename, int size)
{
    QEL_REQUIRE_VALID_AT(1182, path);
    QEL_ASSERT_AT(1183, filename);
    QEL_ASSERT_AT(1185, !qel_path_is_root_dir(path));
    const char *cp = strrchr(path, '/');
    QEL_ASSERT_AT(1188, cp);

    return _write(filename, size, cp + 1);
}

int qel_path_put_extension(const char *ext, char *path, int path_size)
{
    QEL_ASSERT_AT(1196, ext);
    QEL_ASSERT_AT(1197, ext[0] == '.');
    QEL_REQUIRE_VALID_AT(1198, path);
    QEL_ASSERT_AT(1199, path_size > 0);

    char *slash = strrchr(path, '/');
    char *component = slash ? slash : path;
    char *dot = strrchr(component, '.');
    char *end = dot ? dot : component + strlen(component);
    return _write(end, path_size - (end - path), ext);
}
