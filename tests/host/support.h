// Processes, files and bytes for the tests of the host tier.
#pragma once

#include "common/files.h"

#include <string>
#include <vector>

/// The content of a file, "" when it is not there.
std::string content_of(const std::string &path);

/// Writes a file and makes the folders that lead to it.
void put_file(const std::string &path, const std::string &content);

/// How a process ended and what it printed.
struct Finished {
    int code; ///< exit code, or minus the signal
    std::string out;
    std::string err;
};

/// Runs a program to its end.
Finished run(const std::vector<std::string> &words);

/// Runs qel-host with these words to its end.
Finished host(std::vector<std::string> words);

/// The notation of tests/support/bytes.h as a string.
std::string bytes(const std::string &notation);
