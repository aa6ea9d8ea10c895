// The system calls of a start-up, compared with their list.
#pragma once

#include <string>

/// Prints the system calls of a start-up up to the fork of the application, a line for each, then what libc
/// adds for itself. Returns 0 when that is what the file says, in whatever order, else 1, with a line on
/// standard error.
int print_start_up_calls(const std::string &expected_path);
