// Builds what a cabinet is started with, without root: RAM disk, system image, internal disk, sticks.
#pragma once

#include "parts.h"

#include <string>
#include <vector>

const unsigned long long mebibyte = 1024ULL * 1024;
const unsigned long long boot_partition_bytes = 8 * mebibyte;
const unsigned long long system_image_bytes_max = 28 * mebibyte; ///< size of the internal disk's partition 2

/// A file to put somewhere: `place` is where it goes, `source` a file of this computer.
struct FileAt {
    std::string place;
    std::string source;
};

// ---- RAM disk ----

/// The RAM disk's content in the words of the kernel's gen_init_cpio ("file /init FILE 755 0 0" ...). Lines
/// added behind it win over earlier ones with the same name.
std::vector<std::string> ram_disk_list(const Parts &parts);

/// Writes the RAM disk as an archive for QEMU's -initrd.
void make_ram_disk(const std::string &image, const Parts &parts, const std::vector<std::string> &list);

// ---- System image ----

/// Writes a cramfs with these files; `place` is relative to /usr. Throws when it outgrows its partition.
void make_system_image(const std::string &image, const std::vector<FileAt> &files);

/// The same from a whole folder, which is what /usr will be. Throws also when a file is too large for a
/// cramfs.
void pack_system_image(const std::string &image, const std::string &folder);

/// Everything of the usual system image: Debian's Xvfb behind Xfake, what it needs, and the libraries of
/// the sample application.
std::vector<FileAt> system_files(const Parts &parts);

/// The path of the usual system image, made anew only when one of its files has changed.
std::string usual_system_image(const Parts &parts);

// ---- Disks ----

/// A partition of an image, in bytes.
struct Partition {
    unsigned long long offset;
    unsigned long long size;
};

/// A blank internal disk: nothing but a boot record that starts the active partition. The installer writes
/// none, the makers of the disk do.
void make_blank_disk(const std::string &image, unsigned long long size = 128 * mebibyte);

/// Writes the program into the boot record that starts the active partition; the partitions stay.
void write_boot_program(const std::string &image);

/// Partitions an internal disk as the installer does.
void make_partitions(const std::string &image);

/// Formats partition `number` as the cabinet's mkdosfs does and puts `files` there.
void make_vfat(const std::string &image, int number, const std::vector<FileAt> &files);

/// An internal disk as the installer leaves it, but with an empty boot partition: for cabinets whose kernel
/// QEMU loads. The storage partition holds `storage`.
void make_internal_disk(const std::string &image, const std::string &system_image,
                        const std::vector<FileAt> &storage);

/// A stick with one vfat partition that holds `files`.
void make_stick(const std::string &image, const std::vector<FileAt> &files,
                unsigned long long size = 64 * mebibyte);

/// A stick whose one partition holds no file system.
void make_stick_without_file_system(const std::string &image);

/// All that is in a folder, for make_stick and make_internal_disk.
std::vector<FileAt> files_of_folder(const std::string &folder);

/// Where partition `number` (1 to 4) of an image lies. Throws when there is none.
Partition find_partition(const std::string &image, int number);

/// Names "image@@offset" for mtools' -i option, so that a partition's files can be listed and read.
std::string mtools_name(const std::string &image, int number);
