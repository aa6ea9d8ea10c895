// What a well installed disk looks like, from its first sector to its last: boot record, partition table,
// boot partition, system image, storage. The file systems are copied out and checked with Debian's tools,
// so that the disk itself is only read.

#include "disk_check.h"

#include "common/child.h"
#include "common/files.h"
#include "images/layout.h"
#include "images/partitions.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace
{

const std::string configuration = std::string(boot_line) + "\n";
const size_t boot_program_bytes = 440;
const size_t cramfs_head_bytes = 76;

/// A check under way.
struct Work {
    const DiskCheck &check;
    DiskReader disk;
    ScratchFolder scratch;
    std::array<Partition, 4> table = {};
    std::vector<Finding> findings;

    explicit Work(const DiskCheck &what) : check(what), disk(what.disk) {}
};

void good(Work &work, const std::string &text)
{
    work.findings.push_back({true, text});
}

void fault(Work &work, const std::string &text)
{
    work.findings.push_back({false, text});
}

std::string megabytes(unsigned long long bytes)
{
    char text[32];
    snprintf(text, sizeof text, "%.4g MB", static_cast<double>(bytes) / static_cast<double>(mebibyte));
    return text;
}

std::string hexadecimal(unsigned number)
{
    char text[16];
    snprintf(text, sizeof text, "%x", number);
    return text;
}

/// What a tool said that failed, as one line that does not name the copy it looked at.
std::string on_one_line(const Work &work, const std::runtime_error &error)
{
    std::istringstream text(error.what());
    std::string whole;
    for (std::string line; std::getline(text, line);) {
        line.erase(0, line.find_first_not_of(' '));
        if (size_t at = line.find(work.scratch.path + "/"); at != std::string::npos)
            line.erase(at, work.scratch.path.size() + 1);
        if (!line.empty())
            whole += (whole.empty() ? "" : whole.ends_with(':') ? " " : "; ") + line;
    }
    return whole;
}

// ---- Boot record and partition table ----

/// False when there is no table to read.
bool check_boot_record(Work &work)
{
    std::string record = read_bytes(work.disk, 0, sector_bytes);
    if (record.size() < sector_bytes || record.substr(sector_bytes - 2) != "\x55\xaa") {
        fault(work, "boot record: no 55 aa at its end, so there is no partition table; install this disk");
        return false;
    }
    if (record.substr(0, boot_program_bytes).find_first_not_of('\0') == std::string::npos)
        fault(work, "boot record: no boot program, and the installer writes none; write one: dd "
                    "if=/usr/lib/SYSLINUX/mbr.bin of=DISK bs=440 count=1 conv=notrunc");
    else
        good(work, "boot record: a boot program and a partition table");
    work.table = partition_table(record);
    return true;
}

/// Every way in which an entry of the table differs from the layout.
std::vector<std::string> faults_of(const Work &work, size_t index)
{
    const Partition &entry = work.table[index];
    const PartitionLayout &wanted = internal_disk_layout[index];
    std::vector<std::string> faults;
    if (entry.type == 0)
        return {"does not exist"};
    if (entry.type != wanted.type)
        faults.push_back("type " + hexadecimal(entry.type) + " instead of " + hexadecimal(wanted.type));
    if (entry.active != wanted.active)
        faults.push_back(wanted.active ? "not active" : "active");
    if (wanted.size != 0 && entry.size != wanted.size)
        faults.push_back(megabytes(entry.size) + " instead of " + megabytes(wanted.size));
    if (index > 0 && entry.offset != work.table[index - 1].offset + work.table[index - 1].size)
        faults.push_back("does not directly follow partition " + std::to_string(index));
    unsigned long long end = entry.offset + entry.size;
    if (end > work.disk.size)
        faults.push_back("extends past the end of the disk");
    else if (wanted.size == 0 && work.disk.size - end >= mebibyte)
        faults.push_back("leaves " + megabytes(work.disk.size - end) + " of the disk unused");
    return faults;
}

/// False when the partitions are not where they belong, so that nothing can be said about their content.
bool check_partition_table(Work &work)
{
    bool right = true;
    for (size_t i = 0; i < std::size(internal_disk_layout); ++i) {
        std::string where = "partition " + std::to_string(i + 1) + ": ";
        std::vector<std::string> faults = faults_of(work, i);
        for (const std::string &text : faults)
            fault(work, where + text);
        if (faults.empty())
            good(work, where + megabytes(work.table[i].size) + ", type " + hexadecimal(work.table[i].type) +
                           (work.table[i].active ? ", active" : ""));
        right = right && faults.empty();
    }
    if (work.table[3].type != 0)
        fault(work, "partition 4: must not exist");
    return right;
}

// ---- File systems ----

/// Copies a partition out and has its file system checked; its file, or nothing when it is not sound.
std::string check_file_system(Work &work, const std::string &where, size_t index)
{
    const Partition &partition = work.table[index];
    std::string copy = work.scratch.path + "/partition" + std::to_string(index + 1);
    copy_piece(work.disk, partition.offset, partition.size, copy);
    try {
        run_tool({"fsck.fat", "-n", copy});
    } catch (const std::runtime_error &error) {
        fault(work, where + ": " + on_one_line(work, error));
        return "";
    }
    good(work, where + ": a FAT file system without errors");
    return copy;
}

/// The paths of everything, "/name", "/folder/" and "/folder/name".
std::vector<std::string> entries_of(const std::string &partition)
{
    std::vector<std::string> entries;
    // Through folders, mdir takes an empty file system for an error.
    if (run_tool({"mdir", "-b", "-a", "-i", partition, "::"}).empty())
        return entries;
    std::istringstream listing(run_tool({"mdir", "-/", "-b", "-a", "-i", partition, "::"}));
    for (std::string line; std::getline(listing, line);)
        if (line.starts_with("::"))
            entries.push_back(line.substr(2));
    return entries;
}

/// The bytes of a file in the boot partition, or nothing after a fault.
std::string boot_file(Work &work, const std::string &partition, const std::string &name)
{
    std::vector<std::string> files = entries_of(partition);
    auto has_name = [&](const std::string &file) {
        return strcasecmp(file.c_str(), ("/" + name).c_str()) == 0;
    };
    if (std::none_of(files.begin(), files.end(), has_name)) {
        fault(work, "boot partition: " + name + " is missing");
        return "";
    }
    std::string copy = work.scratch.path + "/" + name;
    run_tool({"mcopy", "-n", "-i", partition, "::" + name, copy});
    std::string bytes = read_file(copy);
    if (bytes.empty())
        fault(work, "boot partition: " + name + " is empty");
    return bytes;
}

// ---- Boot partition ----

/// From version 5 on the boot loader has a second file.
bool needs_second_file(const std::string &loader)
{
    size_t at = loader.find("SYSLINUX ");
    return at == std::string::npos || atoi(loader.c_str() + at + strlen("SYSLINUX ")) >= 5;
}

void check_boot_loader(Work &work, const std::string &partition)
{
    std::string loader = boot_file(work, partition, "ldlinux.sys");
    if (loader.empty() || (needs_second_file(loader) && boot_file(work, partition, "ldlinux.c32").empty()))
        return;
    if (read_bytes(work.disk, work.table[0].offset, sector_bytes).substr(3, 8) != "SYSLINUX")
        fault(work, "boot partition: its first sector does not start ldlinux.sys; syslinux has not run");
    else
        good(work, "boot partition: the boot loader is installed");
}

void check_kernel(Work &work, const std::string &partition)
{
    std::string kernel = boot_file(work, partition, "vmlinux");
    if (kernel.empty())
        return;
    std::string size = "vmlinux: " + std::to_string(kernel.size()) + " bytes";
    if (work.check.kernel.empty()) {
        if (kernel.size() < kernel_mark_at + 4 || kernel.substr(kernel_mark_at, 4) != kernel_mark)
            fault(work, size + ", but not a kernel that the boot loader can start");
        else
            good(work, size + ", a kernel (to compare it, name the original: --kernel)");
    } else if (kernel != read_file(work.check.kernel)) {
        fault(work, size + ", not the same as " + work.check.kernel);
    } else {
        good(work, size + ", the same as " + work.check.kernel);
    }
}

void check_configuration(Work &work, const std::string &partition)
{
    std::string found = boot_file(work, partition, "syslinux.cfg");
    if (found == configuration)
        good(work, "syslinux.cfg: its 55 bytes");
    else if (!found.empty())
        fault(work, "syslinux.cfg: not the 55 bytes of: " + std::string(boot_line));
}

void check_boot_partition(Work &work)
{
    std::string partition = check_file_system(work, "boot partition", 0);
    if (partition.empty())
        return;
    check_boot_loader(work, partition);
    check_kernel(work, partition);
    check_configuration(work, partition);
}

// ---- System image ----

/// A cramfs carries a checksum of itself.
void check_system_checksum(Work &work, unsigned long long offset)
{
    std::string head = read_bytes(work.disk, offset, cramfs_head_bytes);
    if (head.size() < cramfs_head_bytes || number_at(head, 0) != cramfs_magic) {
        fault(work, "system image: partition 2 does not begin with a cramfs");
        return;
    }
    std::string copy = work.scratch.path + "/system_image";
    unsigned long size = number_at(head, cramfs_size_at);
    copy_piece(work.disk, offset, std::min<unsigned long long>(size, system_image_bytes_max), copy);
    try {
        run_tool({"fsck.cramfs", copy});
        good(work, "system image: " + std::to_string(size) +
                       " bytes, its checksum is right (to compare it, name the original: --system-image)");
    } catch (const std::runtime_error &error) {
        fault(work, "system image: " + on_one_line(work, error));
    }
}

void check_system_image(Work &work)
{
    unsigned long long offset = work.table[1].offset;
    const std::string &original = work.check.system_image;
    if (original.empty())
        return check_system_checksum(work, offset);
    std::string size = std::to_string(fs::file_size(original)) + " bytes";
    long long difference = first_difference(work.disk, offset, original);
    if (difference < 0)
        good(work, "system image: " + size + ", the same as " + original);
    else
        fault(work, "system image: differs from " + original + " at byte " + std::to_string(difference) +
                        " of " + size);
}

// ---- Storage ----

/// The loader takes the entry with the greatest name, whatever it is.
void check_application(Work &work, const std::string &partition)
{
    std::string newest, where;
    for (const std::string &entry : entries_of(partition)) {
        bool is_folder = entry.ends_with('/');
        std::string name = fs::path(is_folder ? entry.substr(0, entry.size() - 1) : entry).filename();
        if (name.starts_with(application_prefix) && name > newest) {
            newest = name;
            where = entry;
        }
    }
    if (newest.empty())
        fault(work,
              "application: nothing on the storage partition has a name beginning with qel_application_");
    else if (where.ends_with('/'))
        fault(work, "application: the loader would take the folder " + where + " for it; rename that folder");
    else
        good(work, "application: " + where);
}

void check_storage(Work &work)
{
    std::string partition = check_file_system(work, "storage partition", 2);
    if (!partition.empty())
        check_application(work, partition);
}

} // namespace

std::vector<Finding> check_disk(const DiskCheck &check)
{
    Work work(check);
    if (check_boot_record(work) && check_partition_table(work)) {
        check_boot_partition(work);
        check_system_image(work);
        check_storage(work);
    }
    return work.findings;
}

bool all_good(const std::vector<Finding> &findings)
{
    return std::all_of(findings.begin(), findings.end(), [](const Finding &finding) { return finding.good; });
}
