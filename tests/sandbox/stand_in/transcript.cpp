// The inside of the transcript, and the plan of calls that are to fail.

#include "sandbox/settings.h"
#include "sandbox/stand_in/stand_in.h"

#include <ctype.h>
#include <errno.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <unistd.h>

enum { record_bytes = 2000 };

// ---- Records ----

/// The last record of this process.
static char last_line[record_bytes];

/// Writes a record, and the outcome with it when `error` is not 0. errno stays.
__attribute__((format(printf, 3, 0))) static void write_record(int may_repeat, int error, const char *format,
                                                               va_list arguments)
{
    const int errno_before = errno;
    char line[record_bytes];
    int length = snprintf(line, sizeof line, "%c%d ", record_mark, getpid());
    length += vsnprintf(line + length, sizeof line - (size_t)length, format, arguments);
    if (length < record_bytes && error)
        length += snprintf(line + length, sizeof line - (size_t)length, " = %s", strerrorname_np(error));
    if (length < record_bytes)
        length += snprintf(line + length, sizeof line - (size_t)length, "\n");
    if (length >= record_bytes) {
        fprintf(stderr, "sandbox: a record is too long: %.60s\n", line + 1);
        abort();
    }
    if (may_repeat || strcmp(line, last_line) != 0) {
        strcpy(last_line, line);
        // One write, so that records of several processes do not mix.
        real_write(transcript_descriptor, line, (size_t)length);
    }
    errno = errno_before;
}

void record(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    write_record(1, 0, format, arguments);
    va_end(arguments);
}

void record_call(int failed, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    write_record(1, failed ? errno : 0, format, arguments);
    va_end(arguments);
}

void record_poll(int failed, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    write_record(0, failed ? errno : 0, format, arguments);
    va_end(arguments);
}

const char *quoted(const void *bytes, size_t count, char *text, size_t size)
{
    size_t length = (size_t)snprintf(text, size, "\"");
    for (size_t i = 0; i < count && length < size; ++i) {
        const unsigned char byte = ((const unsigned char *)bytes)[i];
        const int is_plain = isprint(byte) && byte != '"' && byte != '\\';
        length += (size_t)snprintf(text + length, size - length, is_plain ? "%c" : "\\x%02x", byte);
    }
    if (length < size)
        snprintf(text + length, size - length, "\"");
    return text;
}

// ---- Calls that are to fail ----

int is_planned_to_fail(const char *name)
{
    static struct plan {
        char name[20];
        int n;
        int error;
    } plans[8];
    static int count = -1;
    if (count < 0) {
        count = 0;
        for (const char *text = getenv(fail_setting); text && count < 8; text = strchr(text, ',')) {
            text += strspn(text, ", ");
            struct plan *plan = &plans[count];
            count += sscanf(text, "%19s %d %d", plan->name, &plan->n, &plan->error) == 3;
        }
    }
    int fails = 0;
    for (struct plan *plan = plans; plan < plans + count; ++plan) {
        if (strcmp(plan->name, name) == 0 && --plan->n == 0) {
            errno = plan->error;
            fails = 1;
        }
    }
    return fails;
}

// ---- Before main ----

/// A sanitizer looks into /proc before main runs, so the sandbox begins with one. The product, which
/// mounts its own, must not find it.
__attribute__((constructor)) static void take_early_proc_away()
{
    umount2("/proc", MNT_DETACH);
}
