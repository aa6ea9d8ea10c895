// Operations on single files and folders.

#include "tapes/golden.h"

#include "qel_utility/qel_filesystem/files.h"

#include <errno.h>
#include <string.h>

namespace
{

/// A result and, of -1, the error.
std::string result_with_errno(int result)
{
    return result ? std::to_string(result) + " " + strerrorname_np(errno) : "0";
}

// ---- Opening and testing ----

/// On a folder that is there; what cannot be looked at is not.
Scenario on_folder(const char *name, const std::function<int()> &work,
                   const std::vector<std::string> &may_end = {"0"})
{
    const auto run = [=](Ground &ground) {
        ground.disk.make_folder("/a");
        return work();
    };
    return {name, run, may_end};
}

std::string find_boot_file(Ground &ground)
{
    ground.disk.make_file("/boot/ldlinux.sys");
    ground.disk.make_file("/boot/syslinux.cfg");
    char path[100] = "untouched";
    const int found = find_file_no_case("/boot", "SYSLINUX.CFG", path, sizeof path);
    return std::to_string(found) + " " + path;
}

const std::vector<Scenario> opening = {
    {"Fopen",
     [](Ground &ground) {
         ground.disk.make_file("/file");
         return std::string(qel_fopen("/file") ? "open" : "null");
     }},
    {"Opendir",
     [](Ground &ground) {
         ground.disk.make_folder("/folder");
         return std::string(qel_opendir("/folder") ? "open" : "null");
     }},
    on_folder("Exists", [] { return qel_exists("/a"); }),
    on_folder("FileExists", [] { return qel_file_exists("/a"); }),
    on_folder("FileIsDir", [] { return qel_file_is_dir("/a"); }),
    {"FindFileNoCase", find_boot_file, {"0 untouched"}},
};

// ---- Making and removing ----

/// A path, and whether its folder is there then.
Scenario making_folders(const char *name, const std::function<int(char *)> &make, const std::string &of,
                        bool has_parent)
{
    const auto run = [=](Ground &ground) {
        if (has_parent)
            ground.disk.make_folder("/a");
        std::string path = of;
        const int result = make(path.data());
        return std::to_string(result) + " " + path + (ground.disk.has("/a/b") ? " made" : "");
    };
    // A test that fails says that nothing is there.
    return {name, run, {"0 " + of}};
}

int make_folders(char *path)
{
    return qel_create_folder_and_parents(path);
}

/// On a file and a folder; fails with an error.
Scenario changing(const char *name, const std::function<int()> &work)
{
    const auto run = [=](Ground &ground) {
        ground.disk.make_file("/file");
        ground.disk.make_folder("/folder");
        return result_with_errno(work());
    };
    return {name, run, {"-1 E*"}};
}

const std::vector<Scenario> making = {
    changing("Mkdir", [] { return qel_mkdir("/a"); }),
    making_folders("CreateFolderAndParents", make_folders, "/a/b", false),
    making_folders("CreateFolderInOneThatExists", make_folders, "/a/b", true),
    making_folders(
        "CreateParentFolderAndParents", [](char *path) { return qel_create_parent_folder_and_parents(path); },
        "/a/b/file", false),
    changing("ChmodAll", [] { return qel_chmod_all("/file"); }),
    changing("Unlink", [] { return qel_unlink("/file"); }),
    changing("Rmdir", [] { return qel_rmdir("/folder"); }),
};

// ---- Copying and block transfer ----

/// Two blocks, the second of 904 bytes.
const std::string five_thousand(5000, 'x');

std::string copy_file(Ground &ground)
{
    ground.disk.make_file("/src", five_thousand);
    const std::string result = std::to_string(qel_copy_file("/dst", "/src"));
    if (!ground.disk.has("/dst"))
        return result + ", nothing";
    const size_t size = ground.disk.content("/dst").size();
    return result +
           (size == five_thousand.size() ? ", whole"
            : size == 4096               ? ", a block"
                                         : ", less") +
           (ground.disk.mode("/dst") == 0777 ? ", for all" : "");
}

unsigned read_blocks(Ground &ground)
{
    ground.disk.make_file("/file", five_thousand);
    FILE *file = real_fopen(ground.disk.at("/file").c_str(), "rb");
    char block[5000];
    const unsigned count = qel_read_block(block, sizeof block, file);
    real_fclose(file);
    return count;
}

std::string write_blocks(Ground &ground)
{
    FILE *file = real_fopen(ground.disk.at("/file").c_str(), "wb");
    const unsigned count = qel_write_block(five_thousand.data(), 5000, file);
    real_fclose(file);
    return std::to_string(count) + ", file of " + std::to_string(ground.disk.content("/file").size());
}

const std::vector<Scenario> copying = {
    {"CopyFile",
     copy_file,
     {"0, a block", "0, less", "0, nothing", "1, a block, for all", "1, less, for all", "1, whole"}},
    {"ReadBlock", read_blocks, {"0", "4096"}},
    {"WriteBlock", write_blocks, {"0, file of 0", "4096, file of 4096"}},
};

// ---- Sizes and the working folder ----

/// A folder of 4000 bytes with a file of 10.
void make_measured_folder(Ground &ground)
{
    ground.disk.make_file("/a/file", "0123456789");
    ground.kernel.on_stat = [&ground](const char *path, struct stat *status) {
        const int result = real_stat(ground.kernel.at(path).c_str(), status);
        if (S_ISDIR(status->st_mode))
            status->st_size = 4000;
        return result;
    };
}

std::string measure_with_threshold(Ground &ground)
{
    make_measured_folder(ground);
    int64_t size = 0;
    const int result = qel_get_folder_size_with_threshold("/a", 5000, &size);
    return std::to_string(result) + " " + std::to_string(size);
}

std::string measure(Ground &ground)
{
    make_measured_folder(ground);
    return "1 " + std::to_string(qel_get_folder_size("/a"));
}

void make_storage(Ground &ground)
{
    ground.disk.make_folder("/storage");
    ground.kernel.on_statfs = [](const char *, struct statfs *space) {
        space->f_bsize = 4096;
        space->f_bavail = 10;
        space->f_blocks = 20;
        return 0;
    };
}

std::string disk_space(Ground &ground)
{
    make_storage(ground);
    int64_t free_bytes = 0, total_bytes = 0;
    qel_get_disk_space("/storage/new", &free_bytes, &total_bytes);
    return std::to_string(free_bytes) + " of " + std::to_string(total_bytes);
}

int64_t free_space(Ground &ground)
{
    make_storage(ground);
    return qel_get_free_disk_space("/storage/new");
}

std::string current_dir(Ground &ground)
{
    ground.kernel.on_getcwd = [](char *buffer, size_t) { return strcpy(buffer, "/here"); };
    char path[100];
    return std::to_string(qel_get_current_dir(path, sizeof path)) + " " + path;
}

const std::vector<Scenario> measuring = {
    {"FolderSizeWithThreshold", measure_with_threshold, {"1 0", "1 4000"}},
    {"FolderSize", measure, {"1 0", "1 4000"}},
    {"DiskSpace", disk_space},
    {"FreeDiskSpace", free_space},
    {"CurrentDir", current_dir},
    on_folder("SetCurrentDir", [] { return qel_set_current_dir("/a"); }, {}),
    {"ElapsedUsecAndHook",
     [] {
         qel_elapsed_usec();
         qel_set_fs_hook(nullptr);
     }},
};

} // namespace

INSTANTIATE_TAPES(opening, opening);
INSTANTIATE_TAPES(making, making);
INSTANTIATE_TAPES(copying, copying);
INSTANTIATE_TAPES(measuring, measuring);
