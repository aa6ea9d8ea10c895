// What is measured in the simulated cabinet: a real kernel with the file system that the product is for.

#include "contests.h"
#include "process.h"
#include "trees.h"

#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

/// The cabinet, with what it shows; switched off at the end.
struct Run {
    explicit Run(const std::string &stick);
    ~Run();
    Run(const Run &) = delete;
    Run &operator=(const Run &) = delete;

    pid_t pid;
    FILE *view;
};

Run::Run(const std::string &stick)
{
    int ends[2];
    if (pipe(ends))
        throw std::runtime_error("no pipe");
    pid = fork();
    if (pid == 0) {
        dup2(ends[1], STDOUT_FILENO);
        close(ends[0]);
        close(ends[1]);
        // With a limit, so that it ends also when nobody ends it.
        execl(BENCH_PROJECT "/run", "run", "--stick", stick.c_str(), "--application",
              BENCH_PROJECT "/build/bench/benchmarks/bench_on_machine", "--seconds", "3600", nullptr);
        _exit(1);
    }
    close(ends[1]);
    view = fdopen(ends[0], "r");
}

Run::~Run()
{
    kill(pid, SIGINT);
    waitpid(pid, nullptr, 0);
    fclose(view);
}

static std::string make_bench_stick(int rounds)
{
    const std::string stick = scratch("stick");
    fs::create_directories(stick);
    fs::copy_file(subject("bench_library"), stick + "/library");
    fs::copy_file(subject("bench_minimal"), stick + "/minimal");
    std::ofstream(stick + "/rounds") << rounds << '\n';
    return stick;
}

using Samples = std::map<std::string, std::map<std::string, std::vector<double>>>;

/// Reads "bench|TREE|COMMAND|MS" lines up to the last one.
static Samples read_samples(FILE *view)
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
        if (tree.rfind("end", 0) == 0)
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

std::vector<Contest> machine_contests(int rounds)
{
    const Run cabinet(make_bench_stick(rounds));
    Samples samples = read_samples(cabinet.view);

    std::vector<Contest> contests;
    for (auto &[tree, of] : samples) {
        contests.push_back({"remove " + tree + ", vfat, in the cabinet",
                            "ms",
                            {{"product", nullptr},
                             {"minimal loop, same calls", nullptr, 1.03},
                             {"busybox rm -rf", nullptr, 0, "no chmod, no batches of 20"}}});
        std::vector<Contender> &contenders = contests.back().contenders;
        contenders[0].samples = of["product"];
        contenders[1].samples = of["minimal"];
        contenders[2].samples = of["rm"];
    }
    return contests;
}
