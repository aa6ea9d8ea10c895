// What failing calls lead to in the operations on single files and folders.

#include "support/fault_sweep.h"

#include "qel_utility/qel_filesystem/files.h"

#include <errno.h>
#include <string.h>

namespace
{

const int fopen_line = 403;
const int opendir_line = 433;

/// A result and, of -1, the error.
std::string result_with_errno(int result)
{
    return result ? std::to_string(result) + " " + strerrorname_np(errno) : "0";
}

/// One rule for each error of `call`: the result is -1 and the error.
std::vector<Rule> passed_on(const std::string &call, const std::string &pattern)
{
    std::vector<Rule> rules;
    for (int number : errors_of(call))
        rules.push_back({pattern, error({number}), gives(std::string("-1 ") + strerrorname_np(number))});
    return rules;
}

// ---- Opening and testing ----

/// A test of a folder that is there; what cannot be looked at is not.
Scenario test_of_folder(const char *name, const std::function<int()> &test)
{
    const auto run = [=](Ground &ground) {
        ground.disk.make_folder("/a");
        return std::to_string(test());
    };
    return {name, "1", run, {{"stat /a", any_fault, gives("0")}}};
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
     "open",
     [](Ground &ground) {
         ground.disk.make_file("/file");
         return std::string(qel_fopen("/file") ? "open" : "null");
     },
     {{"fopen /file rb", any_fault, stops("f", filesystem_unit, fopen_line)}},
     0,
     "/file"},
    {"Opendir",
     "open",
     [](Ground &ground) {
         ground.disk.make_folder("/folder");
         return std::string(qel_opendir("/folder") ? "open" : "null");
     },
     {{"opendir /folder", any_fault, stops("dir", filesystem_unit, opendir_line)}},
     0,
     "/folder"},
    test_of_folder("Exists", [] { return qel_exists("/a"); }),
    test_of_folder("FileExists", [] { return qel_file_exists("/a"); }),
    test_of_folder("FileIsDir", [] { return qel_file_is_dir("/a"); }),
    {"FindFileNoCase",
     "1 /boot/syslinux.cfg",
     find_boot_file,
     {{"opendir /boot", any_fault, gives("0 untouched")},
      {"readdir", any_fault, gives("0 untouched").then({"closedir"})},
      {"closedir", any_fault, ignored()}}},
};

// ---- Making and removing ----

std::string create_folders(Ground &ground)
{
    char path[] = "/a/b";
    const int result = qel_create_folder_and_parents(path);
    return std::to_string(result) + " " + path + (ground.disk.has("/a/b") ? " made" : "");
}

std::string create_folder_in_old_one(Ground &ground)
{
    ground.disk.make_folder("/a");
    return create_folders(ground);
}

std::string create_parents(Ground &ground)
{
    char path[] = "/a/b/file";
    const int result = qel_create_parent_folder_and_parents(path);
    return std::to_string(result) + " " + path + (ground.disk.has("/a/b") ? " made" : "");
}

/// Something to change and remove.
void make_entries(Ground &ground)
{
    ground.disk.make_file("/file");
    ground.disk.make_folder("/folder");
}

std::string chmod_file(Ground &ground)
{
    make_entries(ground);
    return result_with_errno(qel_chmod_all("/file"));
}

std::string unlink_file(Ground &ground)
{
    make_entries(ground);
    return result_with_errno(qel_unlink("/file"));
}

std::string remove_folder(Ground &ground)
{
    make_entries(ground);
    return result_with_errno(qel_rmdir("/folder"));
}

const std::vector<Scenario> making = {
    {"Mkdir", "0", [](Ground &) { return result_with_errno(qel_mkdir("/a")); },
     passed_on("mkdir", "mkdir /a 0755")},
    // A test that fails says that nothing is there.
    {"CreateFolderAndParents",
     "1 /a/b made",
     create_folders,
     {{"stat *", any_fault, ignored()},
      {"mkdir /a 0755", any_fault, gives("0 /a/b").prints("couldn't create folder: /a\n")},
      {"mkdir /a/b 0755", any_fault, gives("0 /a/b").prints("couldn't create folder: /a/b\n")}}},
    {"CreateFolderInOneThatExists",
     "1 /a/b made",
     create_folder_in_old_one,
     {{"stat /a", any_fault, gives("0 /a/b").then({"mkdir /a 0755"}).prints("couldn't create folder: /a\n")},
      {"stat /a/b", any_fault, ignored()},
      {"mkdir /a/b 0755", any_fault, gives("0 /a/b").prints("couldn't create folder: /a/b\n")}}},
    {"CreateParentFolderAndParents",
     "1 /a/b/file made",
     create_parents,
     {{"stat *", any_fault, ignored()},
      {"mkdir /a 0755", any_fault, gives("0 /a/b/file").prints("couldn't create folder: /a\n")},
      {"mkdir /a/b 0755", any_fault, gives("0 /a/b/file").prints("couldn't create folder: /a/b\n")}}},
    {"ChmodAll", "0", chmod_file, passed_on("chmod", "chmod /file 0777")},
    {"Unlink", "0", unlink_file,
     rules_of({{{"chmod /file 0777", any_fault, ignored()}}, passed_on("unlink", "unlink /file")})},
    {"Rmdir", "0", remove_folder,
     rules_of({{{"chmod /folder 0777", any_fault, ignored()}}, passed_on("rmdir", "rmdir /folder")})},
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

std::string read_blocks(Ground &ground)
{
    ground.disk.make_file("/file", five_thousand);
    FILE *file = real_fopen(ground.disk.at("/file").c_str(), "rb");
    char block[5000];
    const unsigned count = qel_read_block(block, sizeof block, file);
    real_fclose(file);
    return std::to_string(count);
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
     "1, whole, for all",
     copy_file,
     {{"chmod /dst 0777 #1", any_fault, ignored()},
      {"open /src *", any_fault, gives("0, nothing")},
      {"open /dst *", any_fault, gives("0, nothing").then({"close"})},
      // A read error counts as the end of the file.
      {"read 4096 #1", error_or_nothing,
       gives("1, less, for all").then({"close", "close", "chmod /dst 0777"})},
      {"read 4096 #2", error_or_nothing,
       gives("1, a block, for all").then({"close", "close", "chmod /dst 0777"})},
      {"read 4096 #3", error_or_nothing, ignored()},
      // A short one does not.
      {"read 4096 #1", moves(1),
       ignored().then({"write 1", "read 4096", "write 4096", "read 4096", "write 903", "read 4096", "close",
                       "close", "chmod *"})},
      {"read 4096 #1", moves(4095),
       ignored().then({"write 4095", "read 4096", "write 905", "read 4096", "close", "close", "chmod *"})},
      {"read 4096 #2", moves(1),
       ignored().then({"write 1", "read 4096", "write 903", "read 4096", "close", "close", "chmod *"})},
      {"read 4096 #2", moves(903),
       ignored().then({"write 903", "read 4096", "write 1", "read 4096", "close", "close", "chmod *"})},
      {"write 4096", any_fault, gives("0, less").then({"close", "close"})},
      {"write 904", error_or_nothing, gives("0, a block").then({"close", "close"})},
      {"write 904", moves_a_part, gives("0, less").then({"close", "close"})},
      {"close", any_fault, ignored()},
      {"chmod /dst 0777 #2", any_fault, gives("1, whole")}}},
    {"ReadBlock",
     "5000",
     read_blocks,
     {{"fread 1 4096", error_or_nothing, gives("0")},
      {"fread 1 4096", moves(1), ignored().then({"fread 1 4096", "fread 1 903"})},
      {"fread 1 4096", moves(4095), ignored().then({"fread 1 905"})},
      {"fread 1 904", error_or_nothing, gives("4096")},
      {"fread 1 904", moves(1), ignored().then({"fread 1 903"})},
      {"fread 1 904", moves(903), ignored().then({"fread 1 1"})}}},
    {"WriteBlock",
     "5000, file of 5000",
     write_blocks,
     {{"fwrite 1 4096", error_or_nothing, gives("0, file of 0")},
      {"fwrite 1 4096", moves(1), ignored().then({"fwrite 1 4096", "fwrite 1 903"})},
      {"fwrite 1 4096", moves(4095), ignored().then({"fwrite 1 905"})},
      {"fwrite 1 904", error_or_nothing, gives("4096, file of 4096")},
      {"fwrite 1 904", moves(1), ignored().then({"fwrite 1 903"})},
      {"fwrite 1 904", moves(903), ignored().then({"fwrite 1 1"})}}},
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

/// What cannot be looked at is left out.
const std::vector<Rule> measuring = {
    {"stat /a", any_fault, gives("1 0")},
    {"opendir /a", any_fault, gives("1 4000")},
    {"readdir #1", any_fault, gives("1 4000").then({"closedir"})},
    {"stat /a/file", any_fault, gives("1 4000").goes_on()},
    {"readdir #2", any_fault, ignored()},
    {"closedir", any_fault, ignored()},
};

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

std::string free_space(Ground &ground)
{
    make_storage(ground);
    return std::to_string(qel_get_free_disk_space("/storage/new"));
}

/// A folder that cannot be looked at passes for missing, and the one above is asked.
const std::vector<Rule> asking_for_space = {
    {"stat /storage/new", any_fault, ignored()},
    {"stat /storage", any_fault, ignored().then({"stat /", "statfs /"})},
    {"statfs /storage", any_fault, stops("!err", filesystem_unit, 814)},
};

std::string current_dir(Ground &ground)
{
    ground.kernel.on_getcwd = [](char *buffer, size_t) { return strcpy(buffer, "/here"); };
    char path[100];
    return std::to_string(qel_get_current_dir(path, sizeof path)) + " " + path;
}

const std::vector<Scenario> measuring_scenarios = {
    {"FolderSizeWithThreshold", "1 4010", measure_with_threshold, measuring},
    {"FolderSize", "1 4010", measure, measuring},
    {"DiskSpace", "40960 of 81920", disk_space, asking_for_space},
    {"FreeDiskSpace", "40960", free_space, asking_for_space},
    {"CurrentDir",
     "32 /here",
     current_dir,
     {{"getcwd 100", any_fault, stops("result", filesystem_unit, 1108)}}},
    {"SetCurrentDir",
     "0",
     [](Ground &ground) {
         ground.disk.make_folder("/a");
         return std::to_string(qel_set_current_dir("/a"));
     },
     {{"chdir /a", any_fault, stops("!err", filesystem_unit, 1122)}}},
    {"ElapsedUsecAndHook",
     "no call that can fail",
     [](Ground &) {
         qel_elapsed_usec();
         qel_set_fs_hook(nullptr);
         return std::string("no call that can fail");
     },
     {}},
};

} // namespace

INSTANTIATE_SWEEP(Opening, opening);
INSTANTIATE_SWEEP(Making, making);
INSTANTIATE_SWEEP(Copying, copying);
INSTANTIATE_SWEEP(Measuring, measuring_scenarios);
