/// Console, time stamp and assertions, used by every other unit.
///
/// The program is the first user-space process and cannot recover from a broken invariant: a failed
/// check stops it on the spot, and it parks instead of exiting. A user sees only the line that
/// QEL_FATAL_ERROR printed before, if any.
#pragma once

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#define QEL_NORETURN [[noreturn]]
#else
#define QEL_NORETURN _Noreturn
#endif

// ---- Assertions ----

/// Stops the program when `expr` is false, reporting the expression's text, the unit and this line.
/// Always compiled in.
#define QEL_ASSERT(expr) QEL_ASSERT_TEXT_AT(__LINE__, #expr, expr)

/// The same with a fixed line number, which stays put when code moves.
#define QEL_ASSERT_AT(line, expr) QEL_ASSERT_TEXT_AT(line, #expr, expr)

/// The same with a fixed text too, for expressions whose reported text C++ cannot spell.
#define QEL_ASSERT_TEXT_AT(line, text, expr) ((expr) ? (void)0 : qel_assert_fail(text, __FILE__, line))

/// Writes the time stamp, the place and the message to standard output, flushes it, copies the time
/// stamp and the message to `qel_log_file` if that is set, and stops the program with the text "0"
/// at the same place. The message must end in a newline.
#define QEL_FATAL_ERROR(...) QEL_FATAL_ERROR_AT(__LINE__, __VA_ARGS__)

/// The same with a fixed line number.
#define QEL_FATAL_ERROR_AT(line, ...) _qel_fatal_error(__FILE__, line, __func__, __VA_ARGS__)

/// Stops the program: forms the location code of `file` and `line`, prints nothing, and sleeps
/// forever, because the first process must not exit. `expression` is only for debuggers. A second failure
/// while the first is being handled waits one second and exits with status 1.
QEL_NORETURN void qel_assert_fail(const char *expression, const char *file, int line);

/// Writes the location code of a check, such as "ERROR HDC407", into `code` (at most `size` bytes with
/// the NUL; nothing for a size of 0 or less): three letters made from the base name of `file`, then the line.
/// The letters come from the sum of the squares of the name's characters, modulo 65536, least significant
/// letter first.
void qel_location_code(const char *file, int line, char *code, int size);

/// What QEL_FATAL_ERROR calls; not for direct use.
QEL_NORETURN void _qel_fatal_error(const char *file, int line, const char *function, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

// ---- Console ----

/// A second sink for fatal errors; null at start and never set by the loader.
extern FILE *qel_log_file;

/// Writes the local time as "YYYY-MM-DD hh:mm:ss - " to `stream`, a time that has no date as zeros. Returns
/// the number of characters.
int qel_log_timestamp(FILE *stream);

/// Prints to standard output and flushes it. Returns the result of the flush: 0, or EOF with errno.
__attribute__((format(printf, 1, 2))) int qel_print(const char *format, ...);

#ifdef __cplusplus
}
#endif
