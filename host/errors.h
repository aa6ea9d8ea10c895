/// What ends a command before its time.
#pragma once

#include <stdexcept>
#include <string>

/// How the program ends; the documentation of the commands has the same list.
enum ExitCode {
    exit_done = 0,
    exit_no_answer = 1,   ///< the other end did not answer, refused, or hung up
    exit_wrong_call = 2,  ///< the command line
    exit_file_error = 3,  ///< a file, folder, socket or device of this computer
    exit_stopped = 4,     ///< a check of the link's libraries failed
    exit_interrupted = 5, ///< by a signal, before it was done
};

struct CommandError : std::runtime_error {
    CommandError(ExitCode exit_code, const std::string &text) : std::runtime_error(text), code(exit_code) {}
    ExitCode code;
};

/// A file, folder, socket or device of this computer cannot be used.
struct FileError : CommandError {
    explicit FileError(const std::string &text) : CommandError(exit_file_error, text) {}
};

/// The other end did not answer, refused, or hung up.
struct LinkError : CommandError {
    explicit LinkError(const std::string &text) : CommandError(exit_no_answer, text) {}
};
