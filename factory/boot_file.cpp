// The boot file is made by the kernel's own build (machine/kernel/build.sh), and kept beside this build's
// programs, because the RAM disk holds some of them.

#include "boot_file.h"

#include "cabinet/images.h"
#include "cabinet/tools.h"

#include <filesystem>
#include <sstream>

namespace fs = std::filesystem;

namespace
{

std::string as_text(const std::vector<std::string> &lines)
{
    std::string text;
    for (const std::string &line : lines)
        text += line + "\n";
    return text;
}

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
void make_boot_file(const std::string &output, const std::vector<std::string> &list)
{
    ScratchFolder scratch;
    write_file(scratch.path + "/list", as_text(list));
    run_tool({FACTORY_SOURCE_FOLDER "/machine/kernel/build.sh", "embed", scratch.path + "/list", output});
}

} // namespace

std::string usual_boot_file(const Parts &parts)
{
    std::string file = FACTORY_BUILD_FOLDER "/vmlinux-" + parts.target;
    std::vector<std::string> list = ram_disk_list(parts);
    make_unless_same(file, key_of(parts, list), [&] { make_boot_file(file, list); });
    return file;
}

std::string usual_storage(const Parts &parts)
{
    std::string folder = FACTORY_BUILD_FOLDER "/storage";
    fs::create_directories(folder);
    fs::copy_file(parts.sample_application,
                  folder + "/" + fs::path(parts.sample_application).filename().string(),
                  fs::copy_options::update_existing);
    return folder;
}
