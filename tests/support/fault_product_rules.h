/// Rules that several sweeps share: what the product promises where different pieces of it make the same
/// call.
#pragma once

#include "support/fault_sweep.h"

/// The text of the checks that accept EEXIST alone.
constexpr const char *not_eexist = "(*__errno_location ()) == 17";

/// A folder that cannot be made stops at `line`; one that exists is fine.
std::vector<Rule> mkdir_rules(const std::string &path, int line);

/// A folder that cannot be made stops, and so does what cannot be mounted on it.
std::vector<Rule> mount_rules(const std::string &folder);

/// A link that cannot be made stops and tells the error, by name if it is one that the product has a name
/// for; `if_exists` is what comes of EEXIST, which is told as well.
std::vector<Rule> symlink_rules(const Outcome &if_exists);

/// A file of `size` bytes whose first read, `read`, falls short: all of it is written, in two pieces.
std::vector<Rule> short_read_rules(const std::string &read, size_t size);
