// qel_bench: the product compared with its peers, everything in one run. See --help.

#include "contests/contests.h"
#include "places.h"
#include "start_up_calls.h"

#include "common/version.h"

#include <CLI/CLI.hpp>
#include <sys/resource.h>

#include <algorithm>
#include <regex>

namespace
{

std::vector<Contest> chosen_contests(const std::string &choice, int rounds, bool timeless_only)
{
    std::vector<Contest> contests;
    add_loader_contests(contests);
    add_in_process_contests(contests, rounds);
    add_file_contests(contests);
    add_host_contests(contests);
    add_machine_contests(contests, rounds);
    const std::regex wanted(choice, std::regex::icase);
    std::erase_if(contests, [&](const Contest &contest) {
        const bool timeless = contest.unit == "bytes" || contest.unit == "kB" || contest.unit == "calls";
        return !std::regex_search(contest.name, wanted) || (timeless_only && !timeless);
    });
    if (contests.empty())
        throw std::runtime_error("no contest has a name that matches " + choice);
    return contests;
}

} // namespace

int main(int argc, char **argv)
{
    CLI::App app("Measures all contenders in turns and writes every sample to a file. Needs root.");
    app.set_version_flag("--version", version_line("qel_bench"));
    int rounds = 21;
    bool calls = false, limits = false;
    std::string choice = ".", results, machine = "{}";
    app.add_option("--rounds", rounds, "how often everything is measured")
        ->check(CLI::Range(1, 1000))
        ->capture_default_str();
    app.add_option("--only", choice, "only what has a name that this regular expression finds");
    app.add_option("--results", results, "the file of samples, as JSON")->take_last();
    app.add_option("--machine", machine, "what the file says about the computer, as JSON");
    app.add_flag("--calls", calls,
                 "instead, print the system calls of a start-up and compare them with\n"
                 "benchmarks/start_up_calls.txt");
    app.add_flag("--limits", limits,
                 "one round of what is the same at every speed: size, memory, system calls");
    CLI11_PARSE(app, argc, argv);

    // Raise our priority while measuring.
    setpriority(PRIO_PROCESS, 0, -20);
    try {
        make_scratch();
        if (calls)
            return print_start_up_calls(source("start_up_calls.txt"));
        std::vector<Contest> contests = chosen_contests(choice, rounds, limits);
        run_rounds(contests, limits ? 1 : rounds, results, machine);
    } catch (const std::exception &error) {
        fprintf(stderr, "error: %s\n", error.what());
        return 1;
    }
}
