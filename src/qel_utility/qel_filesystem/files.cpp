// Files and folders. Copies move data through a 4096-byte buffer on the stack with plain reads and
// writes; the only streams are those that callers ask for.

#include "qel_utility/qel_filesystem/files.h"
#include "qel_utility/qel_filesystem/internal.h"
#include "qel_utility/qel_filesystem/paths.h"
#include "qel_utility/qel_log.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/vfs.h>
#include <unistd.h>

static const unsigned block_bytes = 4096;
static const unsigned folder_bit = 0x4000;
static const int stopwatch_cycle_s = 600;

/// What qel_elapsed_usec counts from; 0 until its first call.
static uint32_t stopwatch_base_usec;

// ---- Internal to the library ----

const struct dirent *_qel_next_entry(DIR *dir)
{
    const struct dirent *entry;
    do
        entry = readdir(dir);
    while (entry && (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0));
    return entry;
}

void _qel_require_eexist(int error, int line)
{
    QEL_ASSERT_TEXT_AT(line, "(*__errno_location ()) == 17", error == EEXIST);
}

void _qel_mkdir_if_missing(const char *path, int line)
{
    if (qel_mkdir(path))
        _qel_require_eexist(errno, line);
}

static void _call_hook()
{
    if (qel_fs_hook)
        qel_fs_hook();
}

// ---- Keep-alive hook ----

void (*qel_fs_hook)(void);

void qel_set_fs_hook(void (*hook)(void))
{
    qel_fs_hook = hook;
}

// ---- Opening and testing ----

FILE *qel_fopen(const char *path)
{
    QEL_ASSERT_AT(399, path);
    QEL_REQUIRE_ABSOLUTE_AT(400, path);

    FILE *f = fopen(path, "rb");
    QEL_ASSERT_AT(403, f);
    return f;
}

DIR *qel_opendir(const char *path)
{
    QEL_ASSERT_AT(428, path);
    QEL_REQUIRE_ABSOLUTE_AT(429, path);

    DIR *dir = opendir(path);
    QEL_ASSERT_AT(433, dir);
    return dir;
}

int qel_exists(const char *path)
{
    QEL_ASSERT_AT(414, path);
    QEL_REQUIRE_ABSOLUTE_AT(415, path);

    struct stat status;
    return stat(path, &status) == 0;
}

int qel_file_exists(const char *file)
{
    QEL_ASSERT_AT(1081, file);
    QEL_REQUIRE_ABSOLUTE_AT(1082, file);

    struct stat status;
    return stat(file, &status) == 0;
}

int qel_file_is_dir(const char *file)
{
    QEL_ASSERT_AT(1093, file);
    QEL_REQUIRE_ABSOLUTE_AT(1094, file);

    struct stat status;
    return stat(file, &status) == 0 && (status.st_mode & folder_bit) != 0;
}

int find_file_no_case(const char *folder, const char *search_name, char *result_path, int result_path_size)
{
    QEL_REQUIRE_VALID_AT(459, folder);
    QEL_ASSERT_AT(460, search_name);
    QEL_ASSERT_AT(461, *search_name);
    QEL_ASSERT_AT(462, result_path);
    QEL_ASSERT_AT(463, result_path_size > 0);

    DIR *dir = opendir(folder);
    if (!dir)
        return 0;
    const struct dirent *entry;
    do
        entry = readdir(dir);
    while (entry && strcasecmp(entry->d_name, search_name) != 0);
    if (entry)
        _qel_join_path(result_path, result_path_size, folder, entry->d_name);
    closedir(dir);
    return entry != nullptr;
}

// ---- Making and removing ----

int qel_mkdir(const char *path)
{
    QEL_ASSERT_AT(443, path);
    QEL_REQUIRE_ABSOLUTE_AT(444, path);

    _call_hook();
    return mkdir(path, 0755);
}

/// Makes the folder `path` unless something of that name exists. Returns 1, or 0 after saying so.
static int _create_folder(const char *path)
{
    if (qel_file_exists(path) || qel_mkdir(path) == 0)
        return 1;
    printf("couldn't create folder: %s\n", path);
    return 0;
}

int qel_create_folder_and_parents(char *folder)
{
    QEL_ASSERT_AT(901, folder);
    QEL_REQUIRE_ABSOLUTE_AT(902, folder);

    for (char *slash = folder; (slash = strchr(slash + 1, '/'));) {
        *slash = '\0';
        int created = _create_folder(folder);
        *slash = '/';
        if (!created)
            return 0;
    }
    return _create_folder(folder);
}

int qel_create_parent_folder_and_parents(char *path)
{
    QEL_ASSERT_AT(951, path);
    QEL_REQUIRE_ABSOLUTE_AT(952, path);

    char *slash = strrchr(path, '/');
    *slash = '\0';
    int created = qel_create_folder_and_parents(path);
    *slash = '/';
    return created;
}

int qel_chmod_all(const char *path)
{
    return chmod(path, 0777);
}

int qel_unlink(const char *path)
{
    _call_hook();
    qel_chmod_all(path);
    return unlink(path);
}

int qel_rmdir(const char *path)
{
    _call_hook();
    qel_chmod_all(path);
    return rmdir(path);
}

// ---- Copying and block transfer ----

/// Returns 1 when all of the file was copied, 0 when a write fell short.
static int _copy_data(int to, int from)
{
    char block[block_bytes];
    for (;;) {
        ssize_t count = read(from, block, sizeof block);
        int written = count <= 0 || write(to, block, (size_t)count) == count;
        _call_hook();
        if (count <= 0 || !written)
            return written;
    }
}

int qel_copy_file(const char *dst, const char *src)
{
    printf("copy: %s -> %s\n", src, dst);
    _call_hook();
    QEL_REQUIRE_ABSOLUTE_AT(583, src);
    QEL_REQUIRE_ABSOLUTE_AT(584, dst);

    qel_chmod_all(dst);
    int from = open(src, O_RDONLY);
    if (from == -1)
        return 0;
    int to = open(dst, O_RDWR | O_CREAT | O_TRUNC, 0666);
    if (to == -1) {
        close(from);
        return 0;
    }
    int copied = _copy_data(to, from);
    close(from);
    close(to);
    if (copied)
        qel_chmod_all(dst);
    return copied;
}

static unsigned _piece(unsigned remaining)
{
    return remaining < block_bytes ? remaining : block_bytes;
}

unsigned qel_read_block(void *buf, unsigned count, FILE *file)
{
    QEL_ASSERT_AT(307, buf);
    QEL_ASSERT_AT(308, file);

    unsigned total = 0, moved = 1;
    for (; total < count && moved > 0; total += moved)
        moved = (unsigned)fread((char *)buf + total, 1, _piece(count - total), file);
    return total;
}

unsigned qel_write_block(const void *buf, unsigned count, FILE *file)
{
    QEL_ASSERT_AT(337, buf);
    QEL_ASSERT_AT(338, file);

    unsigned total = 0, moved = 1;
    for (; total < count && moved > 0; total += moved)
        moved = (unsigned)fwrite((const char *)buf + total, 1, _piece(count - total), file);
    return total;
}

// ---- Sizes ----

int qel_get_folder_size_with_threshold(const char *path, int64_t threshold, int64_t *size)
{
    QEL_ASSERT_AT(644, path);
    QEL_REQUIRE_ABSOLUTE_AT(645, path);
    QEL_ASSERT_AT(646, size);

    struct stat status;
    if (stat(path, &status))
        return 1;
    if (__builtin_add_overflow(*size, status.st_size, size))
        *size = INT64_MAX;
    if (threshold != 0 && *size > threshold)
        return 0;
    if (!(status.st_mode & folder_bit))
        return 1;

    DIR *dir = opendir(path);
    if (!dir)
        return 1;
    int ok = 1;
    const struct dirent *entry;
    while (ok && (entry = _qel_next_entry(dir))) {
        char child[path_bytes];
        _qel_join_path(child, sizeof child, path, entry->d_name);
        ok = qel_get_folder_size_with_threshold(child, threshold, size);
    }
    closedir(dir);
    return ok;
}

int64_t qel_get_folder_size(const char *path)
{
    int64_t size = 0;
    int ok = qel_get_folder_size_with_threshold(path, 0, &size);
    QEL_ASSERT_AT(705, ok);
    return size;
}

void qel_get_disk_space(const char *path, int64_t *free_bytes, int64_t *total_bytes)
{
    QEL_REQUIRE_ABSOLUTE_AT(784, path);

    char buffers[2][path_bytes];
    int current = 0;
    snprintf(buffers[current], path_bytes, "%s", path);
    while (!qel_file_exists(buffers[current])) {
        qel_parent_dir(buffers[current], buffers[!current], path_bytes);
        current = !current;
    }

    struct statfs space;
    int err = statfs(buffers[current], &space);
    QEL_ASSERT_AT(814, !err);
    auto unit_bytes = (uint64_t)(int32_t)space.f_bsize;
    if (free_bytes)
        *free_bytes = (int64_t)(space.f_bavail * unit_bytes);
    if (total_bytes)
        *total_bytes = (int64_t)(space.f_blocks * unit_bytes);
}

int64_t qel_get_free_disk_space(const char *path)
{
    int64_t free_bytes = 0;
    qel_get_disk_space(path, &free_bytes, nullptr);
    return free_bytes;
}

// ---- Working folder ----

int qel_get_current_dir(char *result, int size)
{
    result = getcwd(result, size > 0 ? (size_t)size : 0);
    QEL_ASSERT_AT(1108, result);

    return printf("Got current directory: \"%s\".\n", result);
}

int qel_set_current_dir(const char *path)
{
    QEL_ASSERT_AT(1119, path);

    printf("Changing current directory to: \"%s\"...\n", path);
    int err = chdir(path);
    QEL_ASSERT_AT(1122, !err);
    return 0;
}

// ---- Stopwatch ----

uint32_t qel_elapsed_usec(void)
{
    struct timeval now;
    gettimeofday(&now, nullptr);
    uint32_t usec = (uint32_t)(now.tv_sec % stopwatch_cycle_s) * 1000000u + (uint32_t)now.tv_usec;
    if (stopwatch_base_usec == 0)
        stopwatch_base_usec = usec;
    return usec - stopwatch_base_usec;
}
