// The contests, a group from each file.
#pragma once

#include "../contest.h"

/// Copying, removing, copying trees, searching.
void add_file_contests(std::vector<Contest> &contests);
/// The host's end: recordings and updates.
void add_host_contests(std::vector<Contest> &contests);
/// CRC and packet link.
void add_in_process_contests(std::vector<Contest> &contests, int rounds);
/// Size, memory, start-up, restarts, install.
void add_loader_contests(std::vector<Contest> &contests);
/// Removing trees from the vfat of the simulated cabinet.
void add_machine_contests(std::vector<Contest> &contests, int rounds);
