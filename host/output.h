// What qel-host prints. Standard output has results only, as text or as a JSON object for each line; standard
// error has notes, progress and errors.
#pragma once

#include "errors.h"
#include "fields.h"

#include <string>

struct OutputSettings {
    bool json = false;
    bool quiet = false;
    bool verbose = false;
    std::string link = {}; ///< of several, the one this process runs on: errors and messages name it
};

/// The settings of this process.
extern OutputSettings output;

/// Prints a line to standard output, at once, or with output_buffered(true) when enough has gathered. What
/// cannot be written is thrown as Failure.
void print_line(const std::string &line);
void output_buffered(bool on);
void flush_output();

/// The object as a line.
void print_json(const Json &object);

/// Prints to standard error; nothing with --quiet, or on one of several links.
void note(const std::string &line);
void note_unended(const std::string &text);

/// Prints "error: ..." to standard error.
void print_error(const std::string &text);

enum class Way { in, out, unknown };

/// Prints a message that a command shows: its line, or its event. `time` counts seconds since 1970.
void show_message(Way way, ByteView message, double time);

/// The same of a message that passes, with --verbose.
void show_passing(Way way, ByteView message);

/// Seconds since 1970.
double wall_clock();

/// How a command ended.
struct Ended {
    std::string command = {};
    Json link = {}, proof = {}, result = {}, counts = {};
    Fault fault = {"", 0}; ///< what ended it early, if anything did
    std::string text = {}; ///< its message
    double seconds = 0;
    std::string answer = {}; ///< what a query prints
};

/// Prints the result: as JSON, as a row when it is that of one of several links, else what a query prints.
void print_result(const Ended &ended);

/// The result as --json prints it.
Json ended_json(const Ended &ended);
