// Whitespace, replacement and the check of a file name. No state.

#include "qel_utility/qel_string.h"
#include "qel_utility/qel_log.h"

#include <limits.h>
#include <stdint.h>
#include <string.h>

/// 1 for the blanks of ASCII, whatever the locale.
static int _is_space(char character)
{
    return character == ' ' || (character >= '\t' && character <= '\r');
}

// ---- Whitespace ----

int qel_str_is_blank(const char *s)
{
    QEL_ASSERT(s);

    while (_is_space(*s))
        s++;
    return *s == '\0';
}

void qel_str_trim_left(char *s)
{
    QEL_ASSERT(s);

    const char *rest = s;
    while (_is_space(*rest))
        rest++;
    if (rest != s)
        memmove(s, rest, strlen(rest) + 1);
}

void qel_str_trim_right(char *s)
{
    QEL_ASSERT(s);

    for (size_t length = strlen(s); length > 0 && _is_space(s[length - 1]); length--)
        s[length - 1] = '\0';
}

void qel_str_trim(char *s)
{
    QEL_ASSERT(s);

    qel_str_trim_right(s);
    qel_str_trim_left(s);
}

void qel_str_collapse_spaces(char *s)
{
    QEL_ASSERT(s);

    for (; *s; s++) {
        if (_is_space(*s)) {
            *s = ' ';
            qel_str_trim_left(s + 1);
        }
    }
}

void qel_str_normalize_spaces(char *s)
{
    QEL_ASSERT(s);

    qel_str_trim(s);
    qel_str_collapse_spaces(s);
}

// ---- Replacement ----

/// Appends `length` characters behind the `count` already put out, storing what fits. Returns the new count.
static uint64_t _emit(char *dst, uint64_t dst_size, uint64_t count, const char *text, size_t length)
{
    if (count < dst_size) {
        uint64_t room = dst_size - count;
        memcpy(dst + count, text, length < room ? length : (size_t)room);
    }
    return count + length;
}

int qel_str_replace(const char *src, char *dst, int dst_size, const char *pattern, const char *replacement)
{
    QEL_ASSERT(src);
    QEL_ASSERT(dst);
    QEL_ASSERT(dst_size > 0);
    QEL_ASSERT(pattern);
    QEL_ASSERT(replacement);

    memset(dst, 0, (size_t)dst_size);
    uint64_t size = (uint64_t)dst_size;
    uint64_t count = 0;
    const char *match;
    while ((match = strstr(src, pattern))) {
        count = _emit(dst, size, count, src, (size_t)(match - src));
        count = _emit(dst, size, count, replacement, strlen(replacement));
        src = match + strlen(pattern);
    }
    count = _emit(dst, size, count, src, strlen(src));
    QEL_ASSERT(count < INT_MAX);
    return (int)count + 1;
}

// ---- File names ----

int qel_filename_is_valid(const char *name)
{
    if (!name || !*name)
        return 0;

    for (; *name; name++) {
        unsigned char byte = (unsigned char)*name;
        if (byte < ' ' || byte == '\x7F' || strchr("\\:*?\"<>|/", byte))
            return 0;
    }
    return 1;
}
