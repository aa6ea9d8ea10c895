// The least that can be done for a job with the calls that the product has to make: what is measured against
// it is the price of the product's own checks, texts and structure. Built exactly as the product is.

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

// ---- Copying: pieces of 4096 bytes ----

static int _copy(const char *from, const char *to)
{
    int in = open(from, O_RDONLY);
    int out = open(to, O_WRONLY | O_CREAT | O_TRUNC, 0666);
    char block[4096];
    ssize_t count;
    while ((count = read(in, block, sizeof block)) > 0) {
        if (write(out, block, (size_t)count) != count)
            return 0;
    }
    close(in);
    close(out);
    return count == 0;
}

// ---- Removing: batches of 20 from a folder that is closed meanwhile, each entry made writable first ----

enum { batch_entries = 20 };

static int _remove_contents(const char *folder)
{
    char names[batch_entries][256];
    int is_folder[batch_entries];
    int count;
    do {
        DIR *dir = opendir(folder);
        if (!dir)
            return 0;
        const struct dirent *entry;
        count = 0;
        while (count < batch_entries && (entry = readdir(dir))) {
            if (entry->d_name[0] == '.' && (!entry->d_name[1] || !strcmp(entry->d_name, "..")))
                continue;
            is_folder[count] = entry->d_type == DT_DIR;
            strcpy(names[count++], entry->d_name);
        }
        closedir(dir);
        for (int i = 0; i < count; i++) {
            char path[512];
            stpcpy(stpcpy(stpcpy(path, folder), "/"), names[i]);
            if (is_folder[i])
                _remove_contents(path);
            chmod(path, 0777);
            if (is_folder[i] ? rmdir(path) : unlink(path))
                return 0;
        }
    } while (count == batch_entries);
    return 1;
}

static int _remove(const char *tree)
{
    return _remove_contents(tree) && chmod(tree, 0777) == 0 && rmdir(tree) == 0;
}

// ---- Restarting: fork, execve, waitpid ----

/// What has to come before each start: the Wine prefix goes, a line is shown.
static void _prepare(const char *program)
{
    const char prefix[] = "/qel_home/.wine";
    struct stat status;
    stat(prefix, &status);
    chmod(prefix, 0777);
    unlink(prefix);
    printf("removing dir tree \"%s\"\nrun: %s\n", prefix, program);
    fflush(stdout);
    chdir("/storage");
}

/// With `prepared`, with all that the behaviour wants before a start.
[[noreturn]] static void _restart(const char *program, int prepared)
{
    const char *const argv[] = {program, nullptr};
    const char *const envp[] = {nullptr};
    for (;;) {
        if (prepared)
            _prepare(program);
        pid_t pid = fork();
        if (pid == 0) {
            execve(program, (char *const *)argv, (char *const *)envp);
            _exit(1);
        }
        int status;
        waitpid(pid, &status, 0);
    }
}

// ---- Moving records of 35 bytes from process to process ----

static int _records(long count)
{
    char record[35] = "";
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends))
        return 0;
    pid_t reader = fork();
    for (long i = 0; i < count; i++) {
        if ((reader ? write(ends[0], record, sizeof record) : read(ends[1], record, sizeof record)) !=
            sizeof record)
            return 0;
    }
    int status = 0;
    return reader == 0 || (waitpid(reader, &status, 0) == reader && status == 0);
}

int main(int argc, char **argv)
{
    if (argc == 4 && strcmp(argv[1], "copy") == 0)
        return !_copy(argv[2], argv[3]);
    if (argc == 3 && strcmp(argv[1], "remove") == 0)
        return !_remove(argv[2]);
    if (argc == 3 && strcmp(argv[1], "records") == 0)
        return !_records(atol(argv[2]));
    if (argc == 3 && strcmp(argv[1], "restart") == 0)
        _restart(argv[2], 0);
    if (argc == 3 && strcmp(argv[1], "restart-prepared") == 0)
        _restart(argv[2], 1);
    fprintf(stderr,
            "usage: minimal copy FROM TO | remove TREE | records COUNT | restart[-prepared] PROGRAM\n");
    return 2;
}
