// One program that plays all others of the cabinet: applications, the X server, Wine, the installer's
// tools. It reports how it was started, then does what /machine/programs/NAME says in the line for this
// run (NAME is the last part of its own path), word by word:
//
//   exit N         ends with this exit code          kill N     ends by this signal
//   input          reads standard input to its end   stay       stays forever
//   prefix         fills the Wine prefix             orphan     leaves a child behind, which ends at once
//   move FROM TO   renames                           folder P   makes a folder
//   quiet          at the start: reports nothing
//
// When the words are used up it ends with exit code 0; without a line for this run it stays forever.

#include "sandbox/settings.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static int is_quiet;

__attribute__((format(printf, 1, 2))) static void report(const char *format, ...)
{
    if (is_quiet)
        return;
    char line[1900];
    int length = snprintf(line, sizeof line, "%c%d ", record_mark, getpid());
    va_list arguments;
    va_start(arguments, format);
    length += vsnprintf(line + length, sizeof line - (size_t)length, format, arguments);
    va_end(arguments);
    if ((size_t)length + 1 >= sizeof line)
        abort();
    line[length++] = '\n';
    if (write(transcript_descriptor, line, (size_t)length) != length)
        abort();
}

static void fail(const char *what)
{
    report("helper program: %s: %s", what, strerror(errno));
    _exit(97);
}

// ---- Reports ----

static void report_list(const char *name, char *const *texts)
{
    char line[1500] = "";
    size_t length = 0;
    for (; *texts && length < sizeof line; ++texts)
        length += (size_t)snprintf(line + length, sizeof line - length, length ? " %s" : "%s", *texts);
    report("%s [%s]", name, line);
}

/// Reports what standard input, output and error are: the console, or where they lead.
static void report_streams()
{
    char streams[300] = "";
    for (int file = 0; file <= 2; ++file) {
        char link[30], target[100];
        snprintf(link, sizeof link, "/proc/self/fd/%d", file);
        const ssize_t length = readlink(link, target, sizeof target - 1);
        target[length < 0 ? 0 : length] = '\0';
        const size_t used = strlen(streams);
        snprintf(streams + used, sizeof streams - used, " %s", isatty(file) ? "console" : target);
    }
    report("streams%s", streams);
}

static void report_start(char *const *arguments, char *const *environment)
{
    report_list("arguments", arguments);
    report_list("environment", environment);
    char folder[1000];
    report("folder %s", getcwd(folder, sizeof folder) ? folder : "none");
    report_streams();
    report("prefix %s", access("/qel_home/.wine", F_OK) == 0 ? "left over" : "fresh");
}

// ---- What it can do ----

static void make_prefix()
{
    if (mkdir("/qel_home/.wine", 0755) || mkdir("/qel_home/.wine/drive_c", 0755))
        fail("prefix");
    const int file = open("/qel_home/.wine/drive_c/save", O_WRONLY | O_CREAT, 0400);
    if (file < 0 || write(file, "game", 4) != 4 || close(file))
        fail("prefix");
}

static void report_input()
{
    char text[1000];
    size_t total = 0;
    ssize_t count;
    while ((count = read(0, text + total, sizeof text - total)) > 0)
        total += (size_t)count;
    if (count < 0)
        fail("input");
    char line[1500];
    size_t length = 0;
    for (size_t i = 0; i < total && length + 3 < sizeof line; ++i)
        length +=
            (size_t)snprintf(line + length, sizeof line - length, text[i] == '\n' ? "\\n" : "%c", text[i]);
    line[length] = '\0';
    report("input \"%s\", then its end", line);
}

/// Leaves a child that ends as soon as PID 1 has adopted it.
static void leave_orphan()
{
    if (fork() == 0) {
        while (getppid() != 1)
            usleep(1000);
        _exit(0);
    }
}

[[noreturn]] static void stay()
{
    for (;;)
        pause();
}

static char *word()
{
    return strtok(nullptr, " \n");
}

static void act(const char *verb)
{
    if (strcmp(verb, "exit") == 0)
        _exit(atoi(word()));
    else if (strcmp(verb, "kill") == 0)
        kill(getpid(), atoi(word()));
    else if (strcmp(verb, "stay") == 0)
        stay();
    else if (strcmp(verb, "input") == 0)
        report_input();
    else if (strcmp(verb, "prefix") == 0)
        make_prefix();
    else if (strcmp(verb, "orphan") == 0)
        leave_orphan();
    else if (strcmp(verb, "folder") == 0) {
        if (mkdir(word(), 0755))
            fail("folder");
    } else if (strcmp(verb, "move") == 0) {
        const char *from = word();
        if (rename(from, word()))
            fail("move");
    } else {
        fail(verb);
    }
}

// ---- Runs ----

/// Counts this run. Returns its number, from 0.
static int count_run(const char *name)
{
    char path[300];
    snprintf(path, sizeof path, "/machine/programs/%s.runs", name);
    const int file = open(path, O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (file < 0 || write(file, "x", 1) != 1)
        fail(path);
    const int runs = (int)lseek(file, 0, SEEK_END);
    close(file);
    return runs - 1;
}

/// Finds the line for this run. Returns 1 when there is one.
static int read_line(const char *name, char *line, int size)
{
    char path[300];
    snprintf(path, sizeof path, "/machine/programs/%s", name);
    int run = count_run(name);
    FILE *file = fopen(path, "r");
    int found = 0;
    while (file && (found = fgets(line, size, file) != nullptr) && run-- > 0)
        ;
    if (file)
        fclose(file);
    if (!found)
        line[0] = '\0';
    return found;
}

int main(int, char **arguments, char **environment)
{
    const char *slash = strrchr(arguments[0], '/');
    char line[500] = "";
    const int found = read_line(slash ? slash + 1 : arguments[0], line, sizeof line);
    char *verb = strtok(line, " \n");
    if (verb && strcmp(verb, "quiet") == 0) {
        is_quiet = 1;
        verb = word();
    }
    report_start(arguments, environment);
    for (; verb; verb = word())
        act(verb);
    if (!found)
        stay();
    return 0;
}
