// The tools that make file systems take a whole folder.

#include "stage.h"

#include "common/child.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>

namespace fs = std::filesystem;

std::vector<FileAt> files_of_folder(const std::string &folder)
{
    if (!fs::is_directory(folder))
        throw std::runtime_error(folder + ": not a folder");
    std::vector<FileAt> files;
    for (const auto &entry : fs::recursive_directory_iterator(folder))
        if (entry.is_regular_file())
            files.push_back({entry.path().lexically_relative(folder).string(), entry.path().string()});
    std::sort(files.begin(), files.end(), [](const FileAt &a, const FileAt &b) { return a.place < b.place; });
    return files;
}

void stage(const std::string &folder, const std::vector<FileAt> &files)
{
    for (const FileAt &file : files) {
        fs::path target = folder + "/" + file.place;
        fs::create_directories(target.parent_path());
        fs::copy_file(file.source, target, fs::copy_options::overwrite_existing);
    }
    fs::permissions(folder, fs::perms(0755));
}

std::string unpack(const std::string &archive, const std::string &folder)
{
    const std::string unpacked = folder + "/storage";
    fs::create_directory(unpacked);
    try {
        run_tool({"miniunzip", archive, "-d", unpacked});
    } catch (const std::runtime_error &error) {
        throw std::runtime_error(archive +
                                 ": the cabinet's miniunz cannot unpack this archive; make it again with "
                                 "zip\n" +
                                 error.what());
    }
    return unpacked;
}
