// Goldens, and the tests that compare with them.

#include "tapes/golden.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>

namespace
{

constexpr size_t lines_of_a_file_max = 140;
constexpr size_t lines_max = 4000;

std::vector<std::string> lines_of(const std::string &path)
{
    std::vector<std::string> lines;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);)
        lines.push_back(line);
    return lines;
}

/// The scenario that a line begins; empty when it begins none.
std::string block_begun_by(const std::string &line)
{
    return line.rfind("== ", 0) == 0 ? line.substr(3) : "";
}

std::string complaints_about_file(const std::string &name, const std::vector<std::string> &lines,
                                  const std::set<std::string> &tests)
{
    std::string complaints;
    if (lines.size() > lines_of_a_file_max)
        complaints += name + " has more than " + std::to_string(lines_of_a_file_max) + " lines\n";
    const auto first_block = std::find_if(
        lines.begin(), lines.end(), [](const std::string &line) { return !block_begun_by(line).empty(); });
    if (std::none_of(lines.begin(), first_block,
                     [](const std::string &line) { return line.find(".md#") != std::string::npos; }))
        complaints += name + " does not say where docs/ promises this: FILE.md#SECTION\n";
    for (size_t i = 0; i < lines.size(); ++i) {
        const std::string block = block_begun_by(lines[i]);
        if (block.empty())
            continue;
        if (!tests.count(name + "." + block))
            complaints += name + "." + block + " has no test\n";
        if (i + 1 == lines.size() || lines[i + 1].size() < 3 || lines[i + 1][0] != '#')
            complaints += name + "." + block + " has no sentence that justifies it\n";
    }
    return complaints;
}

} // namespace

std::vector<std::string> golden_of(const std::string &file, const std::string &scenario)
{
    std::vector<std::string> golden;
    bool is_inside = false;
    for (const std::string &line : lines_of(QEL_TAPES_FOLDER "/" + file + ".tape")) {
        if (!block_begun_by(line).empty())
            is_inside = block_begun_by(line) == scenario;
        else if (is_inside && !line.empty() && line[0] != '#')
            golden.push_back(line);
    }
    return golden;
}

std::string complaints_about_goldens(const std::string &folder, const std::set<std::string> &tests)
{
    std::string complaints;
    size_t total = 0;
    for (const auto &entry : std::filesystem::directory_iterator(folder)) {
        if (entry.path().extension() != ".tape")
            continue;
        const std::vector<std::string> lines = lines_of(entry.path());
        total += lines.size();
        complaints += complaints_about_file(entry.path().stem(), lines, tests);
    }
    return total > lines_max ? complaints + "more than " + std::to_string(lines_max) + " lines in all\n"
                             : complaints;
}

void PrintTo(const TapeTest &test, std::ostream *stream)
{
    *stream << test.scenario.name;
}

std::map<std::string, Scenario> &all_tapes()
{
    static std::map<std::string, Scenario> tapes;
    return tapes;
}

std::vector<TapeTest> tape_tests(const char *file, const std::vector<Scenario> &scenarios)
{
    std::vector<TapeTest> tests;
    for (const Scenario &scenario : scenarios) {
        all_tapes().emplace(std::string(file) + "." + scenario.name, scenario);
        tests.push_back({file, scenario});
    }
    return tests;
}
