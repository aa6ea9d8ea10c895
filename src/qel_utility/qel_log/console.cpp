// The console printer and the message of a fatal error.

#include "qel_utility/qel_log.h"

#include <stdarg.h>
#include <time.h>

FILE *qel_log_file;

int qel_log_timestamp(FILE *stream)
{
    time_t now = time(nullptr);
    const struct tm *local = localtime(&now);
    if (!local)
        return fprintf(stream, "0000-00-00 00:00:00 - ");
    return fprintf(stream, "%04lld-%02d-%02d %02d:%02d:%02d - ", local->tm_year + 1900LL, local->tm_mon + 1,
                   local->tm_mday, local->tm_hour, local->tm_min, local->tm_sec);
}

int qel_print(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vfprintf(stdout, format, arguments);
    va_end(arguments);
    return fflush(stdout);
}

void _qel_fatal_error(const char *file, int line, const char *function, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);

    va_list again;
    va_copy(again, arguments);
    qel_log_timestamp(stdout);
    printf("ERROR - %s:%d - %s() - ", file, line, function);
    vprintf(format, again);
    va_end(again);
    fflush(stdout);

    if (qel_log_file) {
        qel_log_timestamp(qel_log_file);
        vfprintf(qel_log_file, format, arguments);
    }
    va_end(arguments);

    qel_assert_fail("0", file, line);
}
