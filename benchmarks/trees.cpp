// Trees, made with plain calls: they are made anew for every measurement.

#include "trees.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

namespace fs = std::filesystem;

namespace
{

constexpr size_t small_file_bytes = 1000;
void require(bool is_fine, const std::string &what)
{
    if (!is_fine)
        throw std::runtime_error(what + ": " + strerror(errno));
}

} // namespace

void settle(const std::string &path)
{
    const int file = open(path.c_str(), O_RDONLY);
    syncfs(file);
    close(file);
}

void make_file(const std::string &path, size_t bytes)
{
    const std::string content(std::min<size_t>(bytes, 1 << 20), 'x');
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    require(file >= 0, path);
    for (size_t left = bytes; left > 0;) {
        const ssize_t written = write(file, content.data(), std::min(left, content.size()));
        require(written > 0, path);
        left -= static_cast<size_t>(written);
    }
    close(file);
}

namespace
{

void make_files(const std::string &folder, const std::string &name, int count, size_t bytes)
{
    require(mkdir(folder.c_str(), 0755) == 0 || errno == EEXIST, folder);
    for (int i = 0; i < count; ++i)
        make_file(folder + "/" + name + std::to_string(i), bytes);
}

} // namespace

void make_tree(const std::string &path, int folders, int files)
{
    if (folders == 0)
        make_files(path, "file_", files, small_file_bytes);
    else
        require(mkdir(path.c_str(), 0755) == 0, path);
    for (int i = 0; i < folders; ++i)
        make_files(path + "/folder_" + std::to_string(i), "file_", files, small_file_bytes);
}

void make_wine_prefix(const std::string &path)
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
