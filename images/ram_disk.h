// The RAM disk that a cabinet's kernel starts from.
#pragma once

#include "images/parts.h"

#include <string>
#include <vector>

/// The RAM disk's content in the words of the kernel's gen_init_cpio ("file /init FILE 755 0 0" ...). Of two
/// lines with the same name, the later wins.
std::vector<std::string> ram_disk_list(const Parts &parts);

/// Writes such a list to a file, as the kernel's tools read it.
void write_list(const std::string &file, const std::vector<std::string> &list);

/// Writes the RAM disk as an archive for QEMU's -initrd.
void make_ram_disk(const std::string &image, const Parts &parts, const std::vector<std::string> &list);
