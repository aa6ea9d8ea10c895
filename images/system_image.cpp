// mkfs.cramfs packs a folder.

#include "system_image.h"

#include "common/child.h"
#include "common/files.h"
#include "images/layout.h"
#include "images/programs.h"

#include <filesystem>
#include <stdexcept>

namespace fs = std::filesystem;

namespace
{

/// Changes whenever one of the files does.
std::string key_of(const std::vector<FileAt> &files)
{
    std::string key;
    for (const FileAt &file : files)
        key += file.place + " " + file.source + " " + stamp_of(file.source) + "\n";
    return key;
}

std::vector<FileAt> system_files(const Parts &parts)
{
    const std::string server = find_program(parts, "Xvfb"), keyboard = find_program(parts, "xkbcomp");
    std::vector<FileAt> files = {
        {"xorg/bin/Xfake", parts.xfake}, {"xorg/bin/Xvfb", server}, {"bin/xkbcomp", keyboard}};
    for (const std::string &library : needed_libraries(parts, {server, keyboard, parts.sample_application}))
        files.push_back(
            {"xorg/lib/" + fs::path(library).filename().string(), fs::canonical(library).string()});
    for (const FileAt &file : files_of_folder("/usr/share/X11/xkb"))
        files.push_back({"share/X11/xkb/" + file.place, file.source});
    return files;
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
    std::string warnings = run_tool({"mkfs.cramfs", folder, image});
    if (warnings.find("file sizes truncated") != std::string::npos)
        throw std::runtime_error(image + ": a file in " + folder +
                                 " is larger than 16 MB, the most that a cramfs holds; leave it out");
    if (fs::file_size(image) > system_image_bytes_max)
        throw std::runtime_error(image + ": " + std::to_string(fs::file_size(image)) +
                                 " bytes do not fit the 28 MB system partition; leave something out");
}

std::string usual_system_image(const Parts &parts)
{
    std::vector<FileAt> files = system_files(parts);
    std::string image = parts.build_folder + "/machine/" + parts.target.name + "/qel_usr.cramfs";
    make_unless_same(image, key_of(files), [&] { make_system_image(image, files); });
    return image;
}
