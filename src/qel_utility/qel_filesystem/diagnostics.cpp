// Console dumps of folders, files and processes, for debugging a machine in the field.

#include "qel_utility/qel_filesystem/diagnostics.h"
#include "qel_utility/qel_filesystem/internal.h"
#include "qel_utility/qel_log.h"

#include <ctype.h>
#include <dirent.h>
#include <stdio.h>
#include <sys/stat.h>

#define DASHES "----------------------------------------\n"

void qel_dump_folder(const char *path)
{
    qel_print("%s:", path);
    DIR *dir = opendir(path);
    const struct dirent *entry;
    while (dir && (entry = readdir(dir))) {
        char child[path_bytes];
        _qel_join_path(child, sizeof child, path, entry->d_name);
        struct stat status;
        if (stat(child, &status) == 0)
            qel_print(" %s (%lld)", entry->d_name, (long long)status.st_size);
        else
            qel_print(" %s (can't stat)", entry->d_name);
    }
    if (dir)
        closedir(dir);
    qel_print("\n");
}

void qel_dump_file(const char *path)
{
    qel_print(DASHES);
    qel_print("%s\n", path);
    qel_print(DASHES);
    FILE *file = fopen(path, "rb");
    if (file) {
        char line[1000];
        while (fgets(line, sizeof line, file))
            qel_print("%s", line);
        fclose(file);
    }
    qel_print(DASHES "\n");
}

void qel_dump_processes(void)
{
    DIR *dir = opendir("/proc");
    const struct dirent *entry;
    while (dir && (entry = readdir(dir))) {
        if (!isdigit((unsigned char)entry->d_name[0]))
            continue;
        char status_file[path_bytes];
        snprintf(status_file, sizeof status_file, "/proc/%s/status", entry->d_name);
        qel_dump_file(status_file);
    }
    if (dir)
        closedir(dir);
    qel_print("\n");
}
