// The product's file library as a command, so that a whole process can be compared with rm, cp and find. It
// is built exactly as the product is.

#include "qel_utility/qel_filesystem.h"

#include <stdio.h>
#include <string.h>

static int _search(const char *folder, const char *prefix)
{
    char found_dir[1000] = "", found_name[1000] = "";
    qel_find_file_with_prefix(folder, prefix, found_dir, found_name);
    return *found_name != '\0';
}

/// Returns 1 when the job was done.
static int _do(const char *job, const char *a, const char *b)
{
    if (strcmp(job, "copy") == 0)
        return qel_copy_file(b, a);
    if (strcmp(job, "copy-tree") == 0)
        return qel_cpdircontents(a, b);
    if (strcmp(job, "remove") == 0)
        return qel_rmdirtree(a);
    return strcmp(job, "search") == 0 && _search(a, b);
}

int main(int argc, char **argv)
{
    if (argc < 3) {
        fprintf(stderr,
                "usage: library copy FROM TO | copy-tree FROM TO | remove TREE | search TREE PREFIX\n");
        return 2;
    }
    return _do(argv[1], argv[2], argc > 3 ? argv[3] : "") ? 0 : 1;
}
