// The system image: Debian's X server with its libraries and keyboard tables, packed as cramfs.

#include "images.h"

#include "tools.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <stdexcept>

namespace fs = std::filesystem;

namespace
{

const char *const key_name = "/qel_usr.key";

/// Changes whenever one of the files does.
std::string key_of(const std::vector<FileAt> &files)
{
    std::string key;
    for (const FileAt &file : files) {
        auto changed = fs::last_write_time(file.source).time_since_epoch().count();
        key += file.place + " " + file.source + " " + std::to_string(changed) + " " +
               std::to_string(fs::file_size(file.source)) + "\n";
    }
    return key;
}

} // namespace

void make_system_image(const std::string &image, const std::vector<FileAt> &files)
{
    ScratchFolder scratch;
    for (const FileAt &file : files) {
        fs::path target = fs::path(scratch.path) / file.place;
        fs::create_directories(target.parent_path());
        fs::copy_file(file.source, target);
    }
    fs::permissions(scratch.path, fs::perms(0755));
    pack_system_image(image, scratch.path);
}

void pack_system_image(const std::string &image, const std::string &folder)
{
    std::string warnings = run_tool({"mkfs.cramfs", folder, image});
    if (warnings.find("file sizes truncated") != std::string::npos)
        throw std::runtime_error(image + ": a file in " + folder +
                                 " is larger than 16 MB, the most that a cramfs holds; leave it out");
    if (fs::file_size(image) > system_image_bytes_max)
        throw std::runtime_error(image + ": " + std::to_string(fs::file_size(image)) +
                                 " bytes do not fit the 28 MB system partition; leave something out");
}

std::vector<FileAt> system_files(const Parts &parts)
{
    std::vector<FileAt> files = {
        {"xorg/bin/Xfake", parts.xfake},
        {"xorg/bin/Xvfb", "/usr/bin/Xvfb"},
        {"bin/xkbcomp", "/usr/bin/xkbcomp"},
    };
    std::set<std::string> libraries;
    for (const std::string &program :
         {std::string("/usr/bin/Xvfb"), std::string("/usr/bin/xkbcomp"), parts.sample_application})
        libraries.merge(libraries_of(program));
    for (const std::string &library : libraries)
        files.push_back(
            {"xorg/lib/" + fs::path(library).filename().string(), fs::canonical(library).string()});
    for (const FileAt &file : files_of_folder("/usr/share/X11/xkb"))
        files.push_back({"share/X11/xkb/" + file.place, file.source});
    return files;
}

std::string usual_system_image(const Parts &parts)
{
    std::vector<FileAt> files = system_files(parts);
    std::string key = key_of(files), image = parts.work_folder + "/qel_usr.cramfs";
    std::string key_file = parts.work_folder + key_name;
    int lock = open((parts.work_folder + "/qel_usr.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    flock(lock, LOCK_EX);
    if (!fs::exists(image) || !fs::exists(key_file) || read_file(key_file) != key) {
        fs::remove(key_file);
        make_system_image(image, files);
        write_file(key_file, key);
    }
    close(lock);
    return image;
}
