// The boot file is made by the kernel's own build (machine/kernel/build.sh), and kept beside this build's
// programs, because the RAM disk holds some of them.

#include "boot_file.h"

#include "cabinet/images.h"
#include "cabinet/tools.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

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
            key += " " + std::to_string(fs::file_size(source)) + " " +
                   std::to_string(fs::last_write_time(source).time_since_epoch().count());
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
    std::string file = FACTORY_BUILD_FOLDER "/vmlinux-" + parts.target, key_file = file + ".key";
    std::vector<std::string> list = ram_disk_list(parts);
    std::string key = key_of(parts, list);
    int lock = open((file + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    flock(lock, LOCK_EX);
    if (!fs::exists(file) || !fs::exists(key_file) || read_file(key_file) != key) {
        fs::remove(key_file);
        make_boot_file(file, list);
        write_file(key_file, key);
    }
    close(lock);
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
