// Goldens: the tapes that a person has read and justified, in NAME.tape of this folder.
//
//     # What the file proves, and where it is promised: docs/....md#section
//
//     == CopyFile
//     # Why this is as it should be.
//          0  open /src
//
// Lines that begin with # are the person's. Tests never write goldens: tools/tape.py accept NAME does.
#pragma once

#include "tapes/tape.h"

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

/// The tape of a scenario, without comments; empty when there is none.
std::vector<std::string> golden_of(const std::string &file, const std::string &scenario);

/// What is wrong with the goldens of a folder for these tests, "FILE.SCENARIO": a line for each block that
/// belongs to none of them or has no comment, each file without a link to docs, and for what is too long.
std::string complaints_about_goldens(const std::string &folder, const std::set<std::string> &tests);

/// A scenario and the file of its golden.
struct TapeTest {
    std::string file;
    Scenario scenario;
};
void PrintTo(const TapeTest &test, std::ostream *stream);
/// All that there are, by "FILE.SCENARIO".
std::map<std::string, Scenario> &all_tapes();
std::vector<TapeTest> tape_tests(const char *file, const std::vector<Scenario> &scenarios);

class Tape : public testing::TestWithParam<TapeTest>
{
};

/// Tests of a scenario each, whose goldens are in FILE.tape.
#define INSTANTIATE_TAPES(file, ...)                                                                         \
    INSTANTIATE_TEST_SUITE_P(file, Tape, testing::ValuesIn(tape_tests(#file, __VA_ARGS__)),                  \
                             [](const auto &test) { return std::string(test.param.scenario.name); })
