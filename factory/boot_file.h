// What this source tree delivers by itself: the boot file "vmlinux", which is the kernel with the RAM disk
// inside and starts from a stick or a disk alone, and a storage folder.
#pragma once

#include "images/parts.h"

#include <string>

/// The path of the boot file of this source tree. It is linked anew (10 to 20 seconds) only when something in
/// it has changed; no two links give the same bytes.
std::string usual_boot_file(const Parts &parts);

/// A folder that holds the sample application.
std::string usual_storage(const Parts &parts);
