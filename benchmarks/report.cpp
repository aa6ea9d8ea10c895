// Tables.

#include "report.h"

#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/utsname.h>
#include <time.h>

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

// ---- Machine ----

/// The rest of the first line of a file that begins with `key`, behind its colon or equals sign.
static std::string value_in(const std::string &path, const std::string &key)
{
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        const size_t sign = line.find_first_of(":=");
        if (line.rfind(key, 0) != 0 || sign == std::string::npos)
            continue;
        const size_t begin = line.find_first_not_of(" \t\"", sign + 1);
        return line.substr(begin, line.find_last_not_of('"') + 1 - begin);
    }
    return "unknown";
}

static std::string today()
{
    char text[20];
    const time_t now = time(nullptr);
    strftime(text, sizeof text, "%Y-%m-%d", localtime(&now));
    return text;
}

static double load()
{
    double average = 0;
    getloadavg(&average, 1);
    return average;
}

std::string machine_description()
{
    struct utsname system;
    uname(&system);
    const std::string release = system.release;
    std::ostringstream text;
    text << "Date: " << today() << "\nProcessor: " << std::thread::hardware_concurrency() << " x "
         << value_in("/proc/cpuinfo", "model name") << "\nMemory: " << value_in("/proc/meminfo", "MemTotal")
         << "\nSystem: " << value_in("/etc/os-release", "PRETTY_NAME") << ", Linux "
         << release.substr(0, release.find('.', release.find('.') + 1)) << "\nCompiler: g++ " << __VERSION__
         << "\nLoad average at the end: " << load() << "\n";
    return text.str();
}

// ---- Table ----

/// Three digits that count.
static std::string number(double value)
{
    char text[40];
    if (value == 0 || fabs(value) >= 1000)
        snprintf(text, sizeof text, "%.0f", value);
    else
        snprintf(text, sizeof text, "%.*f", std::max(0, 2 - static_cast<int>(floor(log10(fabs(value))))),
                 value);
    return text;
}

using Row = std::vector<std::string>;

static std::string verdict(int met)
{
    return met ? "met" : "NOT MET";
}

static Row peer_row(const Contest &contest, const Contender &peer)
{
    const Spread ratio = ratios(contest, peer);
    const std::string range = number(ratio.low) + " to " + number(ratio.high);
    Row row = {"",
               "",
               peer.name,
               number(spread_of(peer.samples).median) + " " + contest.unit,
               std::to_string(peer.samples.size()),
               number(ratio.median),
               range,
               "",
               peer.remark};
    if (peer.ratio_max != 0) {
        row[7] = "at most " + number(peer.ratio_max);
        row[8] = verdict(ratio.median <= peer.ratio_max) + (peer.remark.empty() ? "" : "; " + peer.remark);
    }
    return row;
}

static void add_rows(std::vector<Row> &rows, const Contest &contest)
{
    const Contender &product = contest.contenders.front();
    if (!contest.unavailable.empty()) {
        rows.push_back({contest.name, "not measured", "", "", "", "", "", "", contest.unavailable});
        return;
    }
    const double median = spread_of(product.samples).median;
    Row own = {contest.name, number(median) + " " + contest.unit, "", "", "", "", "", "", ""};
    if (contest.limit != 0) {
        const double limit = std::max(contest.limit, 0.0);
        own[7] = "at most " + number(limit) + " " + contest.unit;
        own[8] = verdict(median <= limit);
    }
    rows.push_back(own);
    for (size_t i = 1; i < contest.contenders.size(); i++)
        rows.push_back(peer_row(contest, contest.contenders[i]));
}

static std::string aligned(const std::vector<Row> &rows)
{
    std::vector<size_t> widths(rows.front().size());
    for (const Row &row : rows) {
        for (size_t column = 0; column < row.size(); column++)
            widths[column] = std::max(widths[column], row[column].size());
    }
    std::ostringstream text;
    for (const Row &row : rows) {
        for (size_t column = 0; column < row.size(); column++) {
            const char fill = row[column] == "-" ? '-' : ' ';
            text << "| " << row[column] << std::string(widths[column] - row[column].size(), fill) << ' ';
        }
        text << "|\n";
    }
    return text.str();
}

std::string table(const std::vector<Contest> &contests)
{
    std::vector<Row> rows = {
        {"what", "product", "beside", "its figure", "samples", "ratio", "middle half", "goal", ""},
        Row(9, "-")};
    for (const Contest &contest : contests)
        add_rows(rows, contest);
    return aligned(rows);
}

// ---- JSON ----

static nlohmann::json json_of(const Contest &contest, const Contender &contender)
{
    const Spread spread = spread_of(contender.samples), ratio = ratios(contest, contender);
    nlohmann::json result = {{"name", contender.name},
                             {"median", spread.median},
                             {"quartiles", {spread.low, spread.high}},
                             {"ratio", ratio.median},
                             {"ratio_quartiles", {ratio.low, ratio.high}},
                             {"samples", contender.samples}};
    if (contender.ratio_max != 0)
        result["ratio_max"] = contender.ratio_max;
    return result;
}

std::string json_report(const std::vector<Contest> &contests, int rounds)
{
    nlohmann::json all = {{"machine", machine_description()}, {"rounds", rounds}, {"contests", {}}};
    for (const Contest &contest : contests) {
        nlohmann::json entry = {{"name", contest.name}, {"unit", contest.unit}, {"contenders", {}}};
        if (!contest.unavailable.empty()) {
            entry["not_measured"] = contest.unavailable;
        } else {
            for (const Contender &contender : contest.contenders)
                entry["contenders"].push_back(json_of(contest, contender));
            entry["met"] = is_met(contest) != 0;
        }
        all["contests"].push_back(entry);
    }
    return all.dump(2) + "\n";
}
