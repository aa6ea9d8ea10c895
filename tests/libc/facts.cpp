// What the product does where C libraries differ, or could. Built three times: with the product's own objects
// and libc, for both word sizes, and with the tests' libc. C headers only.

#include "qel_utility/qel_filesystem.h"
#include "qel_utility/qel_string.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

namespace
{

char folder[] = "/tmp/libc_facts.XXXXXX";

/// A path in the program's folder; the next call but three overwrites it.
const char *at(const char *name)
{
    static char paths[4][600];
    static int next;
    char *path = paths[next++ % 4];
    snprintf(path, sizeof paths[0], "%s/%s", folder, name);
    return path;
}

void make_file(const char *path)
{
    close(open(path, O_WRONLY | O_CREAT | O_TRUNC, 0600));
}

/// Where standard output goes for a while; what has left the process can be read.
struct Pipe {
    Pipe() : original(dup(STDOUT_FILENO))
    {
        if (pipe2(ends, O_NONBLOCK) != 0 || dup2(ends[1], STDOUT_FILENO) == -1)
            abort();
    }
    ~Pipe()
    {
        fflush(stdout);
        dup2(original, STDOUT_FILENO);
        close(original);
        close(ends[0]);
        close(ends[1]);
    }
    long read_text(char *text, size_t size) const
    {
        const ssize_t count = read(ends[0], text, size - 1);
        text[count > 0 ? count : 0] = '\0';
        return count;
    }
    int original;
    int ends[2];
};

// ---- Facts: each gives a number ----

/// The buffer that progress lines fill before they leave the process: they are not flushed.
long long bytes_held()
{
    const Pipe pipe;
    printf("first\n");
    fflush(stdout);
    char text[10000];
    pipe.read_text(text, sizeof text);
    do
        qel_rmdircontents(at("absent"));
    while (pipe.read_text(text, sizeof text) <= 0);
    return (long long)strlen(text) / 1024 * 1024;
}

/// 1 when a rule keeps a file with this name from being copied.
int leaves_out(const char *pattern, const char *name)
{
    const Pipe pipe;
    const char *const source = at(name), *const copy = at("copy");
    unlink(copy);
    make_file(source);
    const struct qel_copy_foo rule = {1, pattern};
    _qel_cpdirtree_with_foo(source, copy, 0, &rule, 1);
    unlink(source);
    return access(copy, F_OK) != 0;
}

/// A folder of 500 files with long names, in how many batches libc may read it: gone.
long long removes_many()
{
    const Pipe pipe;
    mkdir(at("many"), 0700);
    for (int i = 0; i < 500; ++i) {
        char name[300];
        snprintf(name, sizeof name, "many/%0200d", i);
        make_file(at(name));
    }
    return qel_rmdirtree(at("many")) && access(at("many"), F_OK) != 0;
}

int finds_no_case(const char *entry, const char *wanted)
{
    mkdir(at("names"), 0700);
    char name[100], found[600];
    snprintf(name, sizeof name, "names/%s", entry);
    make_file(at(name));
    const int result = find_file_no_case(at("names"), wanted, found, sizeof found);
    unlink(at(name));
    return result;
}

/// Reads "MAJOR:MINOR" of a device that has its node: 1 when both were numbers.
int reads_numbers(const char *numbers)
{
    const Pipe pipe;
    mkdir(at("device"), 0700);
    FILE *file = fopen(at("device/dev"), "w");
    fputs(numbers, file);
    fclose(file);
    make_file(at("nodes/device"));
    mkdir(at("nodes"), 0700);
    make_file(at("nodes/device"));
    qel_make_node_from_sysfs(at("device"), at("nodes"), S_IFBLK);
    fflush(stdout);
    char text[100];
    pipe.read_text(text, sizeof text);
    return strcmp(text, " (device)") == 0;
}

/// How much a folder grows when its file does by 5 GB, of which the disk holds nothing.
long long big_file()
{
    mkdir(at("big"), 0700);
    make_file(at("big/file"));
    const long long before = (long long)qel_get_folder_size(at("big"));
    if (truncate(at("big/file"), 5000000000LL) != 0)
        return -1;
    return (long long)qel_get_folder_size(at("big")) - before;
}

/// The size of a big file as a dump shows it.
long long big_file_dumped()
{
    const Pipe pipe;
    qel_dump_folder(at("big"));
    fflush(stdout);
    char text[2000];
    pipe.read_text(text, sizeof text);
    const char *size = strstr(text, "file (");
    return size ? atoll(size + 6) : -1;
}

/// The year, minus 1900, beyond what 32 bits of seconds hold.
long long late_year()
{
    setenv("TZ", "UTC0", 1);
    const time_t seconds = 5000000000;
    const struct tm *date = localtime(&seconds);
    return date ? date->tm_year : -1;
}

int valid_bytes()
{
    int count = 0;
    for (int byte = 1; byte < 256; ++byte) {
        const char path[] = {'/', 'a', (char)byte, 'b', '\0'};
        count += qel_path_is_valid(path);
    }
    return count;
}

int blank_bytes()
{
    int count = 0;
    for (int byte = 1; byte < 256; ++byte) {
        const char text[] = {(char)byte, '\0'};
        count += qel_str_is_blank(text);
    }
    return count;
}

/// A fact, and what it is with the product's libc and with the tests'.
struct Fact {
    const char *name;
    long long (*value)();
    long long musl, glibc;
};

const struct Fact facts[] = {
    {"bytes of output that are held", bytes_held, 1024, 4096},
    {"a rule with an escaped bracket in brackets fits it",
     [] { return (long long)leaves_out("*[\\]]", "]"); }, 0, 1},
    {"a rule with a collating symbol fits it", [] { return (long long)leaves_out("*[[.a.]]", "a"); }, 0, 1},
    {"a rule with a class fits its members", [] { return (long long)leaves_out("*/[[:alpha:]]", "a"); }, 1,
     1},
    {"a rule with an open bracket fits it", [] { return (long long)leaves_out("*[", "["); }, 1, 1},
    {"a rule with an exclamation mark fits all others", [] { return (long long)leaves_out("*/[!a]", "b"); },
     1, 1},
    {"a question mark fits a byte above 127", [] { return (long long)leaves_out("*/?", "\xC3"); }, 1, 1},
    {"a question mark fits no two bytes", [] { return (long long)leaves_out("*/?", "\xC3\xA9"); }, 0, 0},
    {"a star fits a period at the beginning", [] { return (long long)leaves_out("*/*", ".a"); }, 1, 1},
    {"a folder of 500 long names goes", removes_many, 1, 1},
    {"letters of another case are found", [] { return (long long)finds_no_case("NAME", "name"); }, 1, 1},
    {"bytes above 127 of another case are not", [] { return (long long)finds_no_case("\xC4", "\xE4"); }, 0,
     0},
    {"numbers of devices are read", [] { return (long long)reads_numbers("22:3\n"); }, 1, 1},
    {"with blanks before them", [] { return (long long)reads_numbers(" 22: 3"); }, 1, 1},
    {"and too large ones are", [] { return (long long)reads_numbers("99999999999:4294967296"); }, 1, 1},
    {"a folder with a file of 5 GB", big_file, 5000000000, 5000000000},
    {"and its dump", big_file_dumped, 5000000000, 5000000000},
    {"the year of second 5000000000, from 1900", late_year, 228, 228},
    {"bytes that a name may have", [] { return (long long)valid_bytes(); }, 215, 215},
    {"bytes that are blank", [] { return (long long)blank_bytes(); }, 6, 6},
};

} // namespace

int main()
{
    // A check that fails would stop it for good.
    alarm(60);
    if (!mkdtemp(folder))
        abort();
    int wrong = 0;
    for (const struct Fact &fact : facts) {
#ifdef __GLIBC__
        const long long expected = fact.glibc;
#else
        const long long expected = fact.musl;
#endif
        const long long value = fact.value();
        if (value != expected) {
            fprintf(stderr, "%s: %lld, not %lld\n", fact.name, value, expected);
            ++wrong;
        }
    }
    {
        const Pipe pipe;
        qel_rmdirtree(folder);
    }
    printf("%zu facts, %d of them wrong\n", sizeof facts / sizeof facts[0], wrong);
    return wrong != 0;
}
