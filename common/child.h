// Children: other programs, started in one way.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

struct ChildSetup {
    std::vector<std::string> words = {}; ///< the program, looked for as by find_tool, and its arguments
    int input = -1;                      ///< descriptor that becomes standard input, or -1 for ours
    int output = -1;                     ///< the same for standard output
    int errors = -1;                     ///< the same for standard error
    std::vector<int> inherited = {};     ///< further descriptors that it gets, under the numbers they have
    bool own_group = false;              ///< Ctrl-C on our terminal does not reach it
};

/// Starts a program that is killed when this process ends, in whichever way. Throws std::runtime_error with
/// the reason when it cannot be started.
pid_t start_child(const ChildSetup &setup);

/// Waits for the end of a child and returns its status as waitpid does.
int wait_for_child(pid_t child);

/// Runs a program and returns what it prints, errors included. Throws std::runtime_error with that text when
/// it cannot be started or does not end with 0.
std::string run_tool(const std::vector<std::string> &words, const std::string &input = "");

/// Where a program of this computer is: looked for in PATH and where Debian keeps root's tools. A name with a
/// slash is the path itself. Throws std::runtime_error when there is no such program.
std::string find_tool(const std::string &name);
