/// The contests, a group from each file.
#pragma once

#include "contest.h"

/// Where the builds and the sources of what is measured are: files of the product ("product", "product-i586",
/// the glibc one "bench"), subjects, and scripts.
std::string loader_of(const std::string &preset);
std::string subject(const std::string &name);
std::string source(const std::string &name);

/// Copying, removing, copying trees, searching (files.cpp).
void add_file_contests(std::vector<Contest> &contests);
/// Size, memory, start-up, restarts (loader.cpp).
void add_loader_contests(std::vector<Contest> &contests);
/// CRC and packet link (in_process_results.cpp).
void add_in_process_contests(std::vector<Contest> &contests);
/// Removing trees from the vfat of the simulated cabinet (machine.cpp): measured when this is called, as
/// often as told, in one run of the cabinet.
std::vector<Contest> machine_contests(int rounds);
