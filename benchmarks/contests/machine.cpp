// What is measured in the simulated cabinet: a real kernel with the file system that the product is for.

#include "contests.h"

#include "../places.h"

#include "common/child.h"
#include "common/files.h"

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace
{

/// The cabinet is emulated: it takes its time.
const int rounds_max = 5;

/// The cabinet, with the lines it shows; switched off at the end.
struct Run {
    explicit Run(const std::string &stick);
    ~Run();
    Run(const Run &) = delete;
    Run &operator=(const Run &) = delete;

    pid_t process;
    FILE *view;
};

Run::Run(const std::string &stick)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        throw std::runtime_error("no pipe");
    view = fdopen(ends[0], "r");
    const Descriptor output = {ends[1]};
    // With a limit, so that it ends also when nobody ends it.
    process = start_child(
        {.words = {(BENCH_PROJECT "/run"), "--stick", stick, "--application",
                   (BENCH_PROJECT "/build/bench/benchmarks/bench_on_machine"), "--seconds", "3600"},
         .output = output.number});
}

Run::~Run()
{
    kill(process, SIGINT);
    wait_for_child(process);
    fclose(view);
}

std::string make_bench_stick(int rounds)
{
    const std::string stick = scratch("stick");
    fs::create_directories(stick);
    fs::copy_file(subject("bench_library"), stick + "/library");
    fs::copy_file(subject("bench_minimal"), stick + "/minimal");
    write_file(stick + "/rounds", std::to_string(rounds) + "\n");
    return stick;
}

using Samples = std::map<std::string, std::map<std::string, std::vector<double>>>;

/// Reads "bench|TREE|COMMAND|MS" lines up to the last one.
Samples read_samples(FILE *view)
{
    Samples samples;
    char line[1000];
    while (fgets(line, sizeof line, view)) {
        const std::string text = line;
        const size_t begin = text.find("bench|");
        if (begin == std::string::npos)
            continue;
        std::istringstream fields(text.substr(begin));
        std::string tag, tree, command, milliseconds;
        std::getline(fields, tag, '|');
        std::getline(fields, tree, '|');
        if (tree.starts_with("end"))
            return samples;
        std::getline(fields, command, '|');
        std::getline(fields, milliseconds);
        if (tree == "error")
            throw std::runtime_error("in the cabinet: " + command);
        samples[tree][command].push_back(std::stod(milliseconds));
        fprintf(stderr, "in the cabinet: %s\n",
                text.substr(begin + 6, text.find_last_not_of("\r\n") - begin - 5).c_str());
    }
    throw std::runtime_error("the cabinet stopped before it had measured; see ./run");
}

} // namespace

void add_machine_contests(std::vector<Contest> &contests, int rounds)
{
    // Measured all at once, when the first of them is asked for; each round takes the next sample.
    const int every = (rounds + rounds_max - 1) / rounds_max;
    const auto samples = std::make_shared<Samples>();
    const auto of = [=](const std::string &tree, const std::string &command) {
        return [=, next = size_t{0}]() mutable {
            if (samples->empty())
                *samples = read_samples(Run(make_bench_stick(rounds_max)).view);
            return samples->at(tree).at(command).at(next++);
        };
    };
    for (const char *tree : {"10 x 100 files", "1,000 files in one folder", "a Wine prefix"})
        contests.push_back({std::string("remove ") + tree + ", vfat, in the cabinet",
                            "ms",
                            {{"product", of(tree, "product")},
                             {"minimal loop, same calls", of(tree, "minimal"), 1.03},
                             {"busybox rm -rf", of(tree, "rm"), {}, "no chmod, no batches of 20"}},
                            {},
                            every});
}
