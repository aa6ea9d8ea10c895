// mkfs.cramfs packs a folder.

#include "system_image.h"

#include "common/child.h"
#include "common/files.h"
#include "images/application.h"
#include "images/layout.h"
#include "images/partitions.h"
#include "images/programs.h"

#include <filesystem>
#include <set>
#include <stdexcept>

namespace fs = std::filesystem;

namespace
{

const unsigned long long cramfs_file_bytes = 16 * mebibyte; ///< a file in a cramfs has fewer

/// Changes whenever one of the files does.
std::string key_of(const std::vector<FileAt> &files)
{
    std::string key;
    for (const FileAt &file : files)
        key += file.place + " " + file.source + " " + stamp_of(file.source) + "\n";
    return key;
}

void add_libraries(std::vector<FileAt> &files, const std::set<std::string> &libraries)
{
    for (const std::string &library : libraries)
        files.push_back(
            {"xorg/lib/" + fs::path(library).filename().string(), fs::canonical(library).string()});
}

std::vector<FileAt> system_files(const Parts &parts)
{
    const std::string server = find_program(parts, "Xvfb"), keyboard = find_program(parts, "xkbcomp");
    std::vector<FileAt> files = {
        {"xorg/bin/Xfake", parts.xfake}, {"xorg/bin/Xvfb", server}, {"bin/xkbcomp", keyboard}};
    add_libraries(files, needed_libraries(parts, {server, keyboard, parts.sample_application}));
    for (const FileAt &file : files_of_folder("/usr/share/X11/xkb"))
        files.push_back({"share/X11/xkb/" + file.place, file.source});
    return files;
}

void check_size(const std::string &image)
{
    if (fs::file_size(image) > system_image_bytes_max)
        throw std::runtime_error(image + ": " + std::to_string(fs::file_size(image)) +
                                 " bytes do not fit the 28 MB system partition; leave something out");
}

} // namespace

void make_system_image(const std::string &image, const std::vector<FileAt> &files)
{
    ScratchFolder scratch;
    stage(scratch.path, files);
    pack_system_image(image, scratch.path);
}

void pack_system_image(const std::string &image, const std::string &folder)
{
    for (const auto &entry : fs::recursive_directory_iterator(folder))
        if (!entry.is_symlink() && entry.is_regular_file() && entry.file_size() >= cramfs_file_bytes)
            throw std::runtime_error(image + ": " + entry.path().lexically_relative(folder).string() +
                                     " is larger than 16 MB, the most that a cramfs holds; leave it out");
    run_tool({"mkfs.cramfs", folder, image});
    check_size(image);
}

std::string usual_system_image(const Parts &parts)
{
    std::vector<FileAt> files = system_files(parts);
    std::string image = parts.build_folder + "/machine/" + parts.target.name + "/qel_usr.cramfs";
    make_unless_same(image, key_of(files), [&] { make_system_image(image, files); });
    return image;
}

void check_system_image(const std::string &image)
{
    require_file(image, "name the system image with --system-image; qel-factory make-system-image makes one");
    check_size(image);
    DiskReader file(image);
    const std::string head = read_bytes(file, 0, 4);
    if (head.size() < 4 || number_at(head, 0) != cramfs_magic)
        throw std::runtime_error(image +
                                 ": not a cramfs; make it from a folder with qel-factory make-system-image");
    try {
        run_tool({"fsck.cramfs", image});
    } catch (const std::runtime_error &error) {
        throw std::runtime_error(image + ": this system image is damaged; make it again\n" + error.what());
    }
}

std::string system_image_for(const Parts &parts, const std::string &named, const std::string &application,
                             const std::string &folder)
{
    const bool is_folder = fs::is_directory(named);
    if (!named.empty() && !is_folder) {
        check_system_image(named);
        return named;
    }
    std::vector<FileAt> files = is_folder ? files_of_folder(named) : system_files(parts);
    std::set<std::string> places;
    for (const FileAt &file : files)
        places.insert(file.place);
    std::set<std::string> added;
    if (!application.empty())
        added = libraries_to_add(parts, application,
                                 [&](const std::string &place) { return places.contains(place); });
    if (!is_folder && added.empty())
        return usual_system_image(parts);
    std::string names;
    for (const std::string &library : added)
        names += " " + fs::path(library).filename().string();
    if (!added.empty())
        printf("the system image also gets, in /usr/xorg/lib:%s\n", names.c_str());
    if (is_folder) {
        run_tool({"cp", "-a", named + "/.", folder + "/system"}); // with its links
        files.clear();
    }
    add_libraries(files, added);
    stage(folder + "/system", files);
    pack_system_image(folder + "/system_image", folder + "/system");
    return folder + "/system_image";
}
