// The Debian programs that run inside a cabinet: this computer's own, or those of a 32-bit Debian unpacked
// beside it. None of them is started here.
#pragma once

#include "images/parts.h"

#include <set>
#include <string>
#include <vector>

/// Where a program is. Throws std::runtime_error when there is no such program.
std::string find_program(const Parts &parts, const std::string &name);

/// The shared libraries that these programs need, and those that they need in turn, as paths, without the
/// dynamic loader. Throws std::runtime_error with the name of one that is not there.
std::set<std::string> needed_libraries(const Parts &parts, const std::vector<std::string> &programs);
