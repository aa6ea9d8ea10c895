// The loader, with one thing added by the linker: before a failed check parks it for good, it writes a line
// to /cabinet/note, "stopped UNIT:LINE TEXT". From outside a parked loader only stands still; with this one
// a test knows at which check.

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

[[noreturn]] void parking(const char *expression, const char *file,
                          int line) __asm__("__real_qel_assert_fail");
[[noreturn]] void telling(const char *expression, const char *file,
                          int line) __asm__("__wrap_qel_assert_fail");

void telling(const char *expression, const char *file, int line)
{
    int note = open("/cabinet/note", O_WRONLY | O_CLOEXEC);
    dprintf(note, "stopped %s:%d %s\n", file, line, expression);
    close(note);
    parking(expression, file, line);
}
