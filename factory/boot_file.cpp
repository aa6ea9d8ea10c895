// The boot file is made by the kernel's own build (machine/kernel/build.sh), and kept with this build's
// programs, some of which are on the RAM disk.

#include "boot_file.h"

#include "common/child.h"
#include "common/files.h"
#include "images/ram_disk.h"

#include <filesystem>
#include <sstream>

namespace fs = std::filesystem;

namespace
{

/// Changes whenever the kernel or a file of the RAM disk does.
std::string key_of(const Parts &parts, const std::vector<std::string> &list)
{
    std::string key = fs::canonical(parts.kernel_folder).string() + "\n";
    for (const std::string &line : list) {
        std::istringstream words(line);
        std::string kind, place, source;
        words >> kind >> place >> source;
        key += line;
        if (kind == "file")
            key += " " + stamp_of(source);
        key += "\n";
    }
    return key;
}

/// Links the kernel with the RAM disk inside.
void make_boot_file(const std::string &output, const Parts &parts, const std::vector<std::string> &list)
{
    ScratchFolder scratch;
    write_list(scratch.path + "/list", list);
    run_tool({parts.source_folder + "/machine/kernel/build.sh", "embed", parts.target.name,
              scratch.path + "/list", output});
}

} // namespace

std::string usual_boot_file(const Parts &parts)
{
    std::string file = parts.build_folder + "/factory/vmlinux-" + parts.target.name;
    std::vector<std::string> list = ram_disk_list(parts);
    make_unless_same(file, key_of(parts, list), [&] { make_boot_file(file, parts, list); });
    return file;
}

std::string usual_storage(const Parts &parts)
{
    std::string folder = parts.build_folder + "/factory/storage-" + parts.target.name;
    fs::create_directories(folder);
    fs::copy_file(parts.sample_application,
                  folder + "/" + fs::path(parts.sample_application).filename().string(),
                  fs::copy_options::update_existing);
    return folder;
}
