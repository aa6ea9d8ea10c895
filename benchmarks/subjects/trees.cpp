// Trees of files to be removed, copied and searched, made with plain calls: they are made anew for every
// measurement.
//
//   bench_trees KIND PATH    KIND: FOLDERS x FILES of 1000 bytes each (0 folders: all in the top one), or
//   "prefix"
//
// Without words it is the application of a cabinet that is measured: it removes trees from the cabinet's own
// vfat, by the commands on the stick in turns, and prints a line for each:
//
//   bench|TREE|COMMAND|MILLISECONDS
//
// and "bench|end" when it has done as many rounds as the file "rounds" on the stick says.

#include "common/child.h"
#include "common/clock.h"
#include "common/files.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

namespace fs = std::filesystem;

namespace
{

// ---- Making ----

void require(bool is_fine, const std::string &what)
{
    if (!is_fine)
        throw std::runtime_error(what + ": " + strerror(errno));
}

void make_file(const std::string &path, size_t bytes)
{
    const std::string content(bytes, 'x');
    const Descriptor file = {open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644)};
    require(write(file.number, content.data(), bytes) == static_cast<ssize_t>(bytes), path);
}

void make_files(const std::string &folder, const std::string &name, int count, size_t bytes)
{
    require(mkdir(folder.c_str(), 0755) == 0 || errno == EEXIST, folder);
    for (int i = 0; i < count; ++i)
        make_file(folder + "/" + name + std::to_string(i), bytes);
}

/// The like of what Wine makes of a new prefix: 1,150 files of many sizes in 80 folders, some links.
void make_prefix(const std::string &path)
{
    const std::string windows = path + "/drive_c/windows", users = path + "/drive_c/users/root";
    fs::create_directories(path + "/dosdevices");
    fs::create_directories(path + "/drive_c/Program Files/Common Files/System/ADO");
    make_file(path + "/system.reg", 1500000);
    make_file(path + "/user.reg", 40000);
    make_file(path + "/userdef.reg", 4000);
    fs::create_directories(windows);
    make_files(windows + "/system32", "library_", 750, 1500);
    make_files(windows + "/system32/drivers", "driver_", 30, 1500);
    make_files(windows + "/Fonts", "font_", 40, 60000);
    make_files(windows + "/inf", "device_", 10, 5000);
    for (int i = 0; i < 60; ++i)
        make_files(windows + "/assembly_" + std::to_string(i), "part_", 5, 3000);
    fs::create_directories(users + "/Local Settings/Application Data/Microsoft");
    make_files(users + "/Temp", "temporary_", 17, 200);
    // FAT has no links; there, plain files take their places.
    for (const char *link : {"c", "z"}) {
        if (symlink("/", (path + "/dosdevices/" + link).c_str()))
            make_file(path + "/dosdevices/" + link, 0);
    }
}

void make_tree(const std::string &kind, const std::string &path)
{
    if (kind == "prefix")
        return make_prefix(path);
    int folders = 0, files = 0;
    if (sscanf(kind.c_str(), "%d x %d", &folders, &files) != 2)
        throw std::runtime_error(kind + ": not FOLDERS x FILES");
    make_files(path, "file_", folders == 0 ? files : 0, 1000);
    for (int i = 0; i < folders; ++i)
        make_files(path + "/folder_" + std::to_string(i), "file_", files, 1000);
}

// ---- Removing, in the cabinet ----

const std::string stick = "/disk/sda1", tree = "/storage/tree";

/// Smaller than elsewhere: a folder of FAT is a list, and this processor is emulated.
const char *const trees[][2] = {
    {"10 x 100 files", "10 x 100"}, {"1,000 files in one folder", "0 x 1000"}, {"a Wine prefix", "prefix"}};

const std::pair<const char *, std::vector<std::string>> removers[] = {
    {"product", {stick + "/library", "remove", tree}},
    {"minimal", {stick + "/minimal", "remove", tree}},
    {"rm", {"/bin/busybox", "rm", "-rf", tree}},
};

void run_round(int round)
{
    for (const auto &[name, kind] : trees) {
        for (int i = 0; i < 3; ++i) {
            const auto &[remover, command] = removers[(round + i) % 3];
            make_tree(kind, tree);
            sync();
            const double start = seconds_now();
            run_tool(command);
            printf("bench|%s|%s|%.3f\n", name, remover, (seconds_now() - start) * 1e3);
            fflush(stdout);
        }
    }
}

void measure()
{
    if (mount(nullptr, "/storage", nullptr, MS_REMOUNT, nullptr))
        throw std::runtime_error("/storage cannot be written");
    const int rounds = std::stoi(read_file(stick + "/rounds"));
    for (int round = 0; round < rounds; ++round)
        run_round(round);
    puts("bench|end");
}

} // namespace

int main(int argc, char **argv)
{
    try {
        if (argc == 3)
            make_tree(argv[1], argv[2]);
        else
            measure();
    } catch (const std::exception &error) {
        printf("bench|error|%s\n", error.what());
        if (argc == 3)
            return 1;
    }
    fflush(stdout);
    if (argc != 3)
        pause();
}
