// Processes, files and bytes for the tests of the host tier.
#pragma once

#include "common/files.h"

#include <sys/types.h>

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

/// A program that runs alongside the test; killed when it is still there at the end of the test.
struct Process {
    explicit Process(const std::vector<std::string> &words);
    ~Process();
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;

    /// Waits until it has ended by itself; kills it after `seconds`, and its code is then -1000.
    Finished end(double seconds = 20);

    ScratchFolder files;
    pid_t process;
};

/// Runs qel-host with these words to its end.
Finished host(const std::vector<std::string> &words, double seconds = 20);

/// The words of a call of qel-host.
std::vector<std::string> host_words(std::vector<std::string> words);

/// The notation of tests/support/bytes.h as a string.
std::string bytes(const std::string &notation);
