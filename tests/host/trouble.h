/// A recording of a link on which everything goes wrong once.
#pragma once

#include <string>

/// Writes it to the file `path`.
void record_trouble(const std::string &path);
