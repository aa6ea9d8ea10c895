/// What comes out: a table to read, which is Markdown, and JSON with every sample.
#pragma once

#include "contest.h"

#include <string>

/// The computer and the software that matter, a line for each.
std::string machine_description();

/// The table, a line for each peer, with the product's goals.
std::string table(const std::vector<Contest> &contests);

/// Everything that was measured.
std::string json_report(const std::vector<Contest> &contests, int rounds);
