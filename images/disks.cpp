// Debian's tools make the partitions and the file systems.

#include "disks.h"

#include "common/child.h"
#include "common/files.h"
#include "images/partitions.h"

#include <stdio.h>

#include <filesystem>
#include <set>

namespace fs = std::filesystem;

namespace
{

void make_empty_file(const std::string &path, unsigned long long size)
{
    write_file(path, "");
    fs::resize_file(path, size);
}

/// A line of sfdisk's input: start (left out), size, type, and whether it is active.
std::string sfdisk_line(const PartitionLayout &partition)
{
    char line[64];
    std::string size = partition.size == 0 ? "" : std::to_string(partition.size / mebibyte) + "M";
    snprintf(line, sizeof line, ",%s,%x%s\n", size.c_str(), partition.type, partition.active ? ",*" : "");
    return line;
}

} // namespace

void make_vfat(const std::string &image, int number, const std::vector<FileAt> &files)
{
    Partition partition = find_partition(image, number);
    std::vector<std::string> command = {"mkfs.fat", "-F", "16"};
    // FAT16 wants more clusters than the usual cluster size gives a small partition.
    if (partition.size < 16 * mebibyte)
        command.insert(command.end(), {"-s", "2"});
    command.insert(command.end(), {"--offset", std::to_string(partition.offset / sector_bytes), image,
                                   std::to_string(partition.size / 1024)});
    run_tool(command);
    if (files.empty())
        return;
    ScratchFolder scratch;
    stage(scratch.path, files);
    std::set<std::string> entries; // in the order of their names
    for (const auto &entry : fs::directory_iterator(scratch.path))
        entries.insert(entry.path());
    command = {"mcopy", "-Q", "-s", "-i", mtools_name(image, number)};
    command.insert(command.end(), entries.begin(), entries.end());
    command.push_back("::");
    run_tool(command);
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
    std::string lines;
    for (const PartitionLayout &partition : internal_disk_layout)
        lines += sfdisk_line(partition);
    run_tool({"sfdisk", "--quiet", "--label", "dos", "--wipe", "never", image}, lines);
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
    make_stick_without_file_system(image, size);
    make_vfat(image, 1, files);
}

void make_stick_without_file_system(const std::string &image, unsigned long long size)
{
    make_empty_file(image, size);
    run_tool({"sfdisk", "--quiet", "--label", "dos", image}, sfdisk_line(stick_layout));
}
