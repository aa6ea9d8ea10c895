// Makes internal disks and sticks, without root.
#pragma once

#include "images/layout.h"
#include "images/stage.h"

#include <string>
#include <vector>

/// A blank internal disk: nothing but the boot program that starts the active partition, which the makers of
/// the disk write; the installer does not.
void make_blank_disk(const std::string &image, unsigned long long size = 128 * mebibyte);

/// Writes that program into the boot record; the partitions stay.
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
void make_stick_without_file_system(const std::string &image, unsigned long long size = 16 * mebibyte);
