// Runs functions of the file-system library as PID 1 of a sandbox, one after another, as the arguments
// say: the function's name, then its own arguments, then the next name. "-" is null. What a function
// returned is printed.

#include "qel_utility/qel_filesystem.h"
#include "qel_utility/qel_log.h"

#include <string.h>

static char **next_argument;

static const char *argument()
{
    const char *text = *next_argument++;
    return strcmp(text, "-") == 0 ? nullptr : text;
}

static void exec_wait(void (*function)(const char *, const char *const *, const char *const *, const char *))
{
    const char *path = argument();
    const char *input_text = argument();
    const char *const arguments[] = {path, "first", "second", nullptr};
    const char *const environment[] = {"NAME=value", nullptr};
    function(path, arguments, environment, input_text);
    qel_print("waited\n");
}

static void wine_exec_capture()
{
    const char *program = argument();
    const char *const arguments[] = {"/S", "some file.reg"};
    qel_print("captured: %s\n", qel_wine_exec_capture(program, arguments, 2));
}

static void symlink_and_tell()
{
    const char *name = argument();
    const char *target = argument();
    const int result = qel_symlink(name, target);
    qel_print("returned %s\n", result ? "non-zero" : "0");
}

int main(int, char **arguments)
{
    for (next_argument = arguments + 1; *next_argument;) {
        const char *function = argument();
        if (strcmp(function, "qel_exec_wait_checked") == 0)
            exec_wait(qel_exec_wait_checked);
        else if (strcmp(function, "qel_exec_wait") == 0)
            exec_wait(qel_exec_wait);
        else if (strcmp(function, "qel_wine_exec_capture") == 0)
            wine_exec_capture();
        else if (strcmp(function, "qel_symlink") == 0)
            symlink_and_tell();
        else
            qel_print("no such function: %s\n", function);
    }
    qel_print("done\n");
    return 0;
}
