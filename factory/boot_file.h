// What this source tree delivers by itself: the boot file "vmlinux", which is the kernel with the RAM disk
// inside and starts from a stick or a disk alone, and a storage folder.
#pragma once

#include "cabinet/parts.h"

#include <string>

/// Links the kernel with the RAM disk of `parts` (10 to 20 seconds) into the file `output`.
void make_boot_file(const std::string &output, const Parts &parts);

/// The path of the boot file of this source tree, made anew only when something in it has changed.
std::string usual_boot_file(const Parts &parts);

/// A folder that holds the sample application.
std::string usual_storage(const Parts &parts);
