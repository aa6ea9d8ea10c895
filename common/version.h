// The release that a tool belongs to, for its --version.
#pragma once

#include <string>

/// The version alone, such as "1.0.0".
extern const char qel_version[];

/// "NAME 1.0.0 (2c311acf9d)": with the commit where it is known, which "-dirty" follows when files had changed.
std::string version_line(const std::string &name);
