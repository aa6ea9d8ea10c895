// qel_bench: the product beside its peers, everything in one run. See --help.

#include "contests.h"
#include "report.h"
#include "start_up_calls.h"
#include "trees.h"

#include <CLI/CLI.hpp>
#include <sys/resource.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <regex>

// ---- Where things are ----

std::string loader_of(const std::string &preset)
{
    return BENCH_PROJECT "/build/" + preset + "/src/qel_application_loader.stripped";
}

std::string subject(const std::string &name)
{
    return BENCH_PROJECT "/build/bench-subjects/benchmarks/" + name;
}

std::string source(const std::string &name)
{
    return BENCH_PROJECT "/benchmarks/" + name;
}

// ---- Jobs ----

/// The cabinet is emulated: it takes its time.
static const int machine_rounds_max = 9;
static const char machine_name[] = "vfat, in the cabinet";

static std::vector<Contest> chosen_contests(const std::regex &wanted)
{
    std::vector<Contest> all;
    add_loader_contests(all);
    add_in_process_contests(all);
    add_file_contests(all);
    std::vector<Contest> chosen;
    std::copy_if(all.begin(), all.end(), std::back_inserter(chosen),
                 [&](const Contest &contest) { return std::regex_search(contest.name, wanted); });
    return chosen;
}

static int compete(const std::string &choice, int rounds, const std::string &json)
{
    const std::regex wanted(choice, std::regex::icase);
    std::vector<Contest> contests = chosen_contests(wanted);
    run_rounds(contests, rounds);
    if (std::regex_search(machine_name, wanted)) {
        try {
            for (const Contest &contest : machine_contests(std::min(rounds, machine_rounds_max)))
                contests.push_back(contest);
        } catch (const std::exception &error) {
            contests.push_back({"removing from vfat, in the cabinet", "ms", {{"product", nullptr}}});
            contests.back().unavailable = error.what();
        }
    }
    if (contests.empty())
        throw std::runtime_error("nothing is called " + choice);
    std::cout << machine_description() << "\n" << table(contests);
    if (!json.empty()) {
        std::ofstream file(json);
        file << json_report(contests, rounds);
        if (!file.flush())
            throw std::runtime_error("cannot write " + json);
        std::cout << "\nEvery sample: " << json << '\n';
    }
    return 0;
}

/// What is the same at every speed.
static int is_timeless(const Contest &contest)
{
    return contest.unit == "bytes" || contest.unit == "kB" || contest.unit == "calls";
}

static int check_limits()
{
    std::vector<Contest> contests = chosen_contests(std::regex("."));
    std::erase_if(contests, [](const Contest &contest) { return !is_timeless(contest); });
    run_rounds(contests, 1);
    std::cout << table(contests);
    if (std::all_of(contests.begin(), contests.end(), is_met))
        return print_start_up_calls(source("start_up_calls.txt"));
    std::cerr << "error: a goal is missed; see NOT MET above\n";
    return 1;
}

int main(int argc, char **argv)
{
    CLI::App app{
        "Measures the loader and its library beside the best peers, in turns, in one run, and prints a\n"
        "Markdown table of medians and ratios. Nothing passes or fails by its time. Needs root."};
    int rounds = 21, only_calls = 0, only_limits = 0;
    std::string choice = ".", json;
    app.add_option("--rounds", rounds, "how often everything is measured (21)")->check(CLI::Range(1, 1000));
    app.add_option("--only", choice, "only what has a name that this regular expression finds");
    app.add_option("--json", json, "a file for every sample");
    app.add_flag("--calls", only_calls,
                 "instead, print the system calls of a start-up and compare them with\n"
                 "benchmarks/start_up_calls.txt");
    app.add_flag("--limits", only_limits,
                 "instead, check what is the same at every speed: size, memory, system calls;\n"
                 "exit code 1 when a goal is missed");
    CLI11_PARSE(app, argc, argv);

    // What else the computer does comes after the measurement.
    setpriority(PRIO_PROCESS, 0, -20);
    try {
        make_scratch();
        if (only_limits)
            return check_limits();
        return only_calls ? print_start_up_calls(source("start_up_calls.txt"))
                          : compete(choice, rounds, json);
    } catch (const std::exception &error) {
        std::cerr << "error: " << error.what() << '\n';
        return 1;
    }
}
