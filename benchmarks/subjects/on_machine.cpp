// The application of a cabinet that is measured: removes trees from the cabinet's own vfat, by the commands
// on the stick in turns, and prints a line for each:
//
//   bench|TREE|COMMAND|MILLISECONDS
//
// and "bench|end" when it has done as many rounds as the file "rounds" on the stick says.

#include "places.h"
#include "process.h"
#include "trees.h"

#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

namespace
{

const std::string stick = "/disk/sda1", tree = "/storage/tree";

struct Tree {
    const char *name;
    void (*make)(const std::string &path);
};

/// Smaller than elsewhere: a folder of FAT is a list, and this processor is emulated.
const Tree trees[] = {
    {"10 x 100 files", [](const std::string &path) { make_tree(path, 10, 100); }},
    {"1,000 files in one folder", [](const std::string &path) { make_tree(path, 0, 1000); }},
    {"a Wine prefix", make_wine_prefix},
};

struct Remover {
    const char *name;
    std::vector<std::string> command;
};

const Remover removers[] = {
    {"product", {stick + "/library", "remove", tree}},
    {"minimal", {stick + "/minimal", "remove", tree}},
    {"rm", {"/bin/busybox", "rm", "-rf", tree}},
};

void run_round(int round)
{
    for (const Tree &kind : trees) {
        for (int i = 0; i < 3; ++i) {
            const Remover &remover = removers[(round + i) % 3];
            kind.make(tree);
            sync();
            printf("bench|%s|%s|%.3f\n", kind.name, remover.name, time_command(remover.command) * 1e3);
            fflush(stdout);
        }
    }
}

} // namespace

int main()
{
    try {
        std::filesystem::create_directories(scratch(""));
        if (mount(nullptr, "/storage", nullptr, MS_REMOUNT, nullptr))
            throw std::runtime_error("/storage cannot be written");
        const int rounds = std::stoi(lines_of(stick + "/rounds").at(0));
        for (int round = 0; round < rounds; ++round)
            run_round(round);
        puts("bench|end");
    } catch (const std::exception &error) {
        printf("bench|error|%s\n", error.what());
    }
    fflush(stdout);
    pause();
}
