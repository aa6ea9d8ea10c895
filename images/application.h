// An application as its maker has it: what it needs of the cabinet besides itself, found before anything
// starts.
#pragma once

#include "images/parts.h"

#include <functional>
#include <set>
#include <string>

/// Looks at a program, a script or a Windows program for Wine. `system_has` says whether a path is below /usr
/// in the cabinet. Returns the shared libraries of the target's Debian that the cabinet has to get as well,
/// as paths. Throws std::runtime_error with everything that is missing and cannot be had, and what to do.
std::set<std::string> libraries_to_add(const Parts &parts, const std::string &application,
                                       const std::function<bool(const std::string &place)> &system_has);
