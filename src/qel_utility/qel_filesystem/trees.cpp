// Whole folder trees. Each level of a walk keeps one open folder and its path buffers on the stack;
// removal alone closes the folder before it touches an entry and reads it afresh for the next batch.

#include "qel_utility/qel_filesystem/trees.h"
#include "qel_utility/qel_filesystem/files.h"
#include "qel_utility/qel_filesystem/internal.h"
#include "qel_utility/qel_filesystem/paths.h"
#include "qel_utility/qel_log.h"

#include <errno.h>
#include <fnmatch.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

enum {
    batch_entries = 20,
    batch_bytes = 5120, ///< holds a full batch of names of up to 255 bytes with their NULs
};

// ---- Search ----

void qel_find_file_with_prefix(const char *folder, const char *prefix, char *found_dir, char *found_name)
{
    DIR *dir = qel_opendir(folder);
    const struct dirent *entry;
    while ((entry = readdir(dir))) {
        const char *name = entry->d_name;
        if (_qel_begins_with(name, prefix) && (!*found_name || strcmp(name, found_name) > 0)) {
            snprintf(found_name, path_bytes, "%s", name);
            snprintf(found_dir, path_bytes, "%s", folder);
            printf("candidate: %s/%s\n", folder, name);
        }
        if (name[0] != '.' && entry->d_type == DT_DIR) {
            char child[path_bytes];
            _qel_join_path(child, sizeof child, folder, name);
            qel_find_file_with_prefix(child, prefix, found_dir, found_name);
        }
    }
    closedir(dir);
}

// ---- Removing ----

/// Up to 20 entries of a folder: their names, each with its NUL, one after another. Fewer when there is no
/// room for the next name: some file systems have names of more than 255 bytes.
struct _batch {
    int count;
    int is_cut; ///< there was no room for the next name
    int is_folder[batch_entries];
    char names[batch_bytes];
};

/// Reads the first entries of `folder`. Returns 1, or 0 when it cannot be opened.
static int _read_batch(const char *folder, struct _batch *batch)
{
    DIR *dir = opendir(folder);
    if (!dir)
        return 0;

    batch->count = 0;
    batch->is_cut = 0;
    char *end = batch->names;
    const struct dirent *entry;
    while (batch->count < batch_entries && !batch->is_cut && (entry = _qel_next_entry(dir))) {
        auto *behind = (char *)memccpy(end, entry->d_name, '\0', (size_t)(batch->names + batch_bytes - end));
        if (behind) {
            batch->is_folder[batch->count++] = entry->d_type == DT_DIR;
            end = behind;
        } else {
            batch->is_cut = 1;
        }
    }
    closedir(dir);
    return 1;
}

/// Returns how many entries of the batch could not be removed, or not with all that was in them.
static int _remove_batch(const char *folder, const struct _batch *batch)
{
    int stayed = 0;
    const char *name = batch->names;
    for (int i = 0; i < batch->count; i++, name += strlen(name) + 1) {
        char path[tree_path_bytes];
        _qel_join_path(path, sizeof path, folder, name);
        int emptied = !batch->is_folder[i] || qel_rmdircontents(path);
        int removed = (batch->is_folder[i] ? qel_rmdir(path) : qel_unlink(path)) == 0;
        stayed += !emptied || !removed;
    }
    return stayed;
}

int qel_rmdircontents(const char *folder)
{
    QEL_ASSERT_AT(974, folder);
    QEL_REQUIRE_ABSOLUTE_AT(975, folder);

    printf("removing contents of \"%s\"\n", folder);
    int result = 1, stayed;
    struct _batch batch;
    do {
        if (!_read_batch(folder, &batch))
            return !qel_file_exists(folder);
        stayed = _remove_batch(folder, &batch);
        if (stayed || (batch.is_cut && batch.count == 0))
            result = 0;
        // A batch that was cut and of which all stayed would come again forever.
    } while (batch.count == batch_entries || (batch.is_cut && stayed < batch.count));
    return result;
}

int qel_rmdirtree(const char *folder)
{
    QEL_ASSERT_AT(1044, folder);
    QEL_REQUIRE_ABSOLUTE_AT(1045, folder);

    printf("removing dir tree \"%s\"\n", folder);
    if (!qel_file_is_dir(folder))
        return qel_unlink(folder) == 0 || errno == ENOENT;

    int emptied = qel_rmdircontents(folder);
    return qel_rmdir(folder) == 0 || errno == ENOENT ? emptied : 0;
}

// ---- Walking ----

void qel_recurse_files_in_folder(const char *src, const char *dst_root,
                                 int (*fn)(const char *src_path, const char *dst_path, void *user),
                                 void *user)
{
    QEL_ASSERT_AT(1255, src);
    QEL_ASSERT_AT(1256, dst_root);
    QEL_REQUIRE_ABSOLUTE_AT(1257, src);
    QEL_REQUIRE_VALID_AT(1258, dst_root);

    DIR *dir = opendir(src);
    if (!dir)
        return;
    const struct dirent *entry;
    while ((entry = _qel_next_entry(dir))) {
        char src_path[tree_path_bytes], dst_path[tree_path_bytes];
        _qel_join_path(src_path, sizeof src_path, src, entry->d_name);
        _qel_join_path(dst_path, sizeof dst_path, dst_root, entry->d_name);
        if (entry->d_type == DT_DIR)
            qel_recurse_files_in_folder(src_path, dst_path, fn, user);
        else
            fn(src_path, dst_path, user);
    }
    closedir(dir);
}

// ---- Copying ----

/// Returns 1 when the pattern of a rule matches the path, else 0. One that matches the last components
/// matches what is behind one of the slashes.
static int _rule_matches(const char *pattern, const char *path)
{
    if (pattern[0] == '/' || pattern[0] == '*')
        return fnmatch(pattern, path, 0) == 0;
    while ((path = strchr(path, '/'))) {
        if (fnmatch(pattern, ++path, 0) == 0)
            return 1;
    }
    return 0;
}

/// Returns 1 when a rule leaves the entry out, else 0.
static int _is_left_out(const char *path, int is_folder, const struct qel_copy_foo *rules, int count)
{
    for (int i = 0; i < count; i++) {
        int matches = _rule_matches(rules[i].pattern, path);
        if ((rules[i].exclude == 0 && !matches && !is_folder) || (rules[i].exclude == 1 && matches))
            return 1;
    }
    return 0;
}

int _qel_cpdirtree_with_foo(const char *src, const char *dst, int replace,
                            const struct qel_copy_foo *copy_foo, int copy_foo_count)
{
    struct stat status;
    if (stat(src, &status))
        return 0;
    int is_folder = S_ISDIR(status.st_mode);
    if (_is_left_out(src, is_folder, copy_foo, copy_foo_count))
        return 1;
    if (!is_folder)
        return qel_copy_file(dst, src);

    if (qel_mkdir(dst) && errno != EEXIST)
        return 0;
    DIR *dir = opendir(src);
    if (!dir)
        return 0;
    int result = 1;
    const struct dirent *entry;
    while ((entry = _qel_next_entry(dir))) {
        char src_path[tree_path_bytes], dst_path[tree_path_bytes];
        _qel_join_path(src_path, sizeof src_path, src, entry->d_name);
        _qel_join_path(dst_path, sizeof dst_path, dst, entry->d_name);
        if (replace)
            qel_rmdirtree(dst_path);
        if (!_qel_cpdirtree_with_foo(src_path, dst_path, 0, copy_foo, copy_foo_count))
            result = 0;
    }
    closedir(dir);
    return result;
}

int _qel_cpdirtree(const char *src, const char *dst, int replace)
{
    return _qel_cpdirtree_with_foo(src, dst, replace, nullptr, 0);
}

/// Has `create` make folders of a text that it may not change; the result is of no interest.
static void _create(int (*create)(char *), const char *path)
{
    char usual[PATH_MAX];
    size_t bytes = strlen(path) + 1;
    auto *writable = bytes <= sizeof usual ? usual : (char *)malloc(bytes);
    if (!writable)
        return;
    memcpy(writable, path, bytes);
    create(writable);
    if (writable != usual)
        free(writable);
}

int qel_cpdirtree_with_foo(const char *src, const char *dst_folder, const struct qel_copy_foo *copy_foo,
                           int copy_foo_count)
{
    printf("copying dir tree \"%s\" to inside of folder \"%s\"...\n", src, dst_folder);
    QEL_REQUIRE_ABSOLUTE_AT(1223, src);
    QEL_REQUIRE_ABSOLUTE_AT(1224, dst_folder);
    QEL_ASSERT_AT(1225, !copy_foo_count || copy_foo);

    char target[tree_path_bytes];
    _qel_join_path(target, sizeof target, dst_folder, _qel_base_name(src));
    if (!qel_rmdirtree(target))
        return 0;
    _create(qel_create_folder_and_parents, dst_folder);
    return _qel_cpdirtree_with_foo(src, target, 1, copy_foo, copy_foo_count);
}

int qel_cpdirtree(const char *src, const char *dst_folder)
{
    return qel_cpdirtree_with_foo(src, dst_folder, nullptr, 0);
}

static void _print_copying_contents(const char *src, const char *dst)
{
    printf("copying contents of \"%s\" to inside of folder \"%s\"...\n", src, dst);
}

int qel_cpdircontents(const char *src, const char *dst)
{
    _print_copying_contents(src, dst);
    QEL_REQUIRE_ABSOLUTE_AT(1295, src);
    QEL_REQUIRE_ABSOLUTE_AT(1296, dst);

    if (!qel_rmdirtree(dst))
        return 0;
    _create(qel_create_parent_folder_and_parents, dst);
    return _qel_cpdirtree(src, dst, 1);
}

int qel_mergedircontents(const char *src, const char *dst)
{
    _print_copying_contents(src, dst);
    QEL_REQUIRE_ABSOLUTE_AT(1315, src);
    QEL_REQUIRE_ABSOLUTE_AT(1316, dst);

    _create(qel_create_parent_folder_and_parents, dst);
    return _qel_cpdirtree(src, dst, 0);
}
