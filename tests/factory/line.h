// The production line of the tests: a small delivery made for each test, and what becomes of it.
#pragma once

#include "factory/disk_check.h"
#include "factory/stick.h"

#include "common/child.h"
#include "common/files.h"
#include "images/disks.h"
#include "images/partitions.h"
#include "images/system_image.h"

#include <gtest/gtest.h>

/// A delivery with a stand-in for the kernel, a small system image and a storage folder, for a disk that is
/// just large enough.
struct Line {
    ScratchFolder folder;
    Delivery delivery;
    std::vector<std::string> steps; ///< progress reported so far

    Line();
    std::string at(const std::string &name) const;
    std::string make_disk(); ///< an installed disk; returns its path
    std::string make_stick();
    /// What is wrong with the delivery: the first line of the error, empty when a stick can be made.
    std::string refusal();
};

/// A stand-in for a kernel: the boot loader's mark in the right place, and bytes that do not compress.
std::string kernel_of(size_t size);

/// The texts of the faults alone.
std::vector<std::string> faults_of(const DiskCheck &check);

/// Changes bytes of a file in place.
void patch(const std::string &file, unsigned long long offset, const std::string &bytes);

/// Where a partition of the image begins.
unsigned long long start_of(const std::string &image, int number);
