// The RAM disk, the internal disk and the sticks. The system image is in system_image.cpp.

#include "images.h"

#include "tools.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>
#include <set>
#include <stdexcept>

namespace fs = std::filesystem;

// ---- RAM disk ----

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
    list.push_back(file_line("/bin/miniunz", find_tool("miniunzip")));
    for (const char *name : {"sfdisk", "mkfs.fat", "extlinux"})
        list.push_back(file_line("/lib/tools/" + std::string(name), find_tool(name)));
    std::set<std::string> libraries;
    for (const char *name : {"sfdisk", "mkfs.fat", "extlinux", "miniunzip"})
        libraries.merge(libraries_of(find_tool(name)));
    for (const std::string &library : libraries)
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
        "dir /lib64 755 0 0",
        file_line("/init", parts.first_program),
        file_line("/sbin/qel_application_loader", parts.loader),
        file_line("/bin/busybox", "/bin/busybox"),
        "slink /bin/sh busybox 777 0 0",
        file_line("/lib64/ld-linux-x86-64.so.2", "/lib64/ld-linux-x86-64.so.2"),
    };
    add_installer_tools(list, parts);
    return list;
}

void make_ram_disk(const std::string &image, const Parts &parts, const std::vector<std::string> &list)
{
    std::string text;
    for (const std::string &line : list)
        text += line + "\n";
    ScratchFolder scratch;
    write_file(scratch.path + "/list", text);
    // The archive comes on standard output, which run_tool would mix with warnings.
    run_tool({"sh", "-c", "exec \"$0\" \"$1\" >\"$2\"", parts.kernel_folder + "/gen_init_cpio",
              scratch.path + "/list", image});
}

// ---- Disks ----

namespace
{

void make_empty_file(const std::string &path, unsigned long long size)
{
    write_file(path, "");
    fs::resize_file(path, size);
}

} // namespace

void make_vfat(const std::string &image, int number, const std::vector<FileAt> &files)
{
    Partition partition = find_partition(image, number);
    std::vector<std::string> command = {"mkfs.fat",
                                        "-F",
                                        "16",
                                        "--offset",
                                        std::to_string(partition.offset / 512),
                                        image,
                                        std::to_string(partition.size / 1024)};
    // FAT16 wants more clusters than the usual cluster size gives a small partition.
    if (partition.size < 16 * mebibyte)
        command.insert(command.begin() + 1, {"-s", "2"});
    run_tool(command);
    std::set<std::string> folders;
    for (const FileAt &file : files)
        for (fs::path folder = fs::path(file.place).parent_path(); !folder.empty() && folder != "/";
             folder = folder.parent_path())
            folders.insert(folder.string());
    std::string mtools = mtools_name(image, number);
    for (const std::string &folder : folders)
        run_tool({"mmd", "-i", mtools, "::" + folder});
    for (const FileAt &file : files)
        run_tool({"mcopy", "-Q", "-i", mtools, file.source, "::" + file.place});
}

void make_blank_disk(const std::string &image, unsigned long long size)
{
    make_empty_file(image, size);
    write_boot_program(image);
}

void write_boot_program(const std::string &image)
{
    write_file_at(image, "/usr/lib/SYSLINUX/mbr.bin", 0);
}

void make_partitions(const std::string &image)
{
    run_tool({"sfdisk", "--quiet", "--label", "dos", "--wipe", "never", image}, ",8M,4,*\n,28M,L\n,,6\n");
}

void make_internal_disk(const std::string &image, const std::string &system_image,
                        const std::vector<FileAt> &storage)
{
    make_blank_disk(image);
    make_partitions(image);
    make_vfat(image, 1, {});
    write_file_at(image, system_image, find_partition(image, 2).offset);
    make_vfat(image, 3, storage);
}

void make_stick(const std::string &image, const std::vector<FileAt> &files, unsigned long long size)
{
    make_stick_without_file_system(image);
    fs::resize_file(image, size);
    run_tool({"sfdisk", "--quiet", "--label", "dos", image}, ",,6,*\n");
    make_vfat(image, 1, files);
}

void make_stick_without_file_system(const std::string &image)
{
    make_empty_file(image, 16 * mebibyte);
    run_tool({"sfdisk", "--quiet", "--label", "dos", image}, ",,6,*\n");
}

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

Partition find_partition(const std::string &image, int number)
{
    auto table = nlohmann::json::parse(run_tool({"sfdisk", "--json", image})).at("partitiontable");
    unsigned long long sector = table.value("sectorsize", 512ULL);
    std::string node = image + std::to_string(number),
                node_after_digit = image + "p" + std::to_string(number);
    for (const auto &entry : table.at("partitions")) {
        std::string name = entry.at("node");
        if (name == node || name == node_after_digit)
            return {entry.at("start").get<unsigned long long>() * sector,
                    entry.at("size").get<unsigned long long>() * sector};
    }
    throw std::runtime_error(image + ": no partition " + std::to_string(number));
}

std::string mtools_name(const std::string &image, int number)
{
    return image + "@@" + std::to_string(find_partition(image, number).offset);
}
