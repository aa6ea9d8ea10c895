// What is on the RAM disk, and how it becomes an archive.

#include "ram_disk.h"

#include "common/child.h"
#include "common/files.h"
#include "images/programs.h"

#include <filesystem>

namespace fs = std::filesystem;

namespace
{

std::string file_line(const std::string &place, const std::string &source)
{
    return "file " + place + " " + fs::canonical(source).string() + " 755 0 0";
}

/// The tools that the installer starts by fixed names: today's ones, behind scripts where they have
/// changed. Their libraries must not be below /usr, which the system image covers.
void add_installer_tools(std::vector<std::string> &list, const Parts &parts)
{
    for (const char *name : {"sfdisk", "mkdosfs", "syslinux"})
        list.push_back(file_line("/bin/" + std::string(name), parts.installer_scripts + "/" + name));
    std::vector<std::string> programs;
    for (const char *name : {"sfdisk", "mkfs.fat", "extlinux", "miniunzip"}) {
        programs.push_back(find_program(parts, name));
        list.push_back(file_line("/lib/tools/" + std::string(name), programs.back()));
    }
    list.push_back("slink /bin/miniunz /lib/tools/miniunzip 777 0 0");
    for (const std::string &library : needed_libraries(parts, programs))
        list.push_back(file_line("/lib/" + fs::path(library).filename().string(), library));
}

} // namespace

std::vector<std::string> ram_disk_list(const Parts &parts)
{
    std::vector<std::string> list = {
        "dir /dev 755 0 0",
        "nod /dev/console 600 0 0 c 5 1",
        "nod /dev/null 666 0 0 c 1 3",
        "dir /tmp 1777 0 0",
        "dir /bin 755 0 0",
        "dir /sbin 755 0 0",
        "dir /lib 755 0 0",
        "dir /lib/tools 755 0 0",
        "dir " + fs::path(parts.target.dynamic_loader).parent_path().string() + " 755 0 0",
        file_line("/init", parts.first_program),
        file_line("/sbin/qel_application_loader", parts.loader),
        file_line("/bin/busybox", find_program(parts, "busybox")),
        "slink /bin/sh busybox 777 0 0",
        file_line(parts.target.dynamic_loader, parts.programs + parts.target.dynamic_loader),
    };
    add_installer_tools(list, parts);
    return list;
}

void write_list(const std::string &file, const std::vector<std::string> &list)
{
    std::string text;
    for (const std::string &line : list)
        text += line + "\n";
    write_file(file, text);
}

void make_ram_disk(const std::string &image, const Parts &parts, const std::vector<std::string> &list)
{
    ScratchFolder scratch;
    write_list(scratch.path + "/list", list);
    // The archive comes on standard output, which run_tool would mix with warnings.
    run_tool({"sh", "-c", "exec \"$0\" \"$1\" >\"$2\"", parts.kernel_folder + "/gen_init_cpio",
              scratch.path + "/list", image});
}
