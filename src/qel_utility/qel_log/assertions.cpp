// What happens when a check fails. A file of its own, so that a test program can supply its own
// qel_assert_fail and still link the console functions.

#include "qel_utility/qel_log.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

/// 1 from the first failed check on.
static int assertion_in_progress;

void qel_location_code(const char *file, int line, char *code, int size)
{
    const char *slash = strrchr(file, '/');
    const char *name = slash ? slash + 1 : file;
    uint16_t sum = 0;
    for (; *name && *name != '\n'; name++) {
        int character = (signed char)*name; // NOLINT(bugprone-signed-char-misuse): signed by definition
        sum = (uint16_t)(sum + character * character);
    }
    snprintf(code, size > 0 ? (size_t)size : 0, "ERROR %c%c%c%d", 'A' + sum % 26, 'A' + sum / 26 % 26,
             'A' + sum / 26 / 26 % 26, line);
}

void qel_assert_fail(const char *, const char *file, int line)
{
    if (assertion_in_progress) {
        sleep(1);
        exit(1);
    }
    assertion_in_progress = 1;

    // Composed for a debugger attached to the parked process; deliberately not written anywhere.
    char code[100];
    qel_location_code(file, line, code, (int)sizeof code);

    for (;;)
        sleep(1);
}
