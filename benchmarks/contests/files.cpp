// Files and trees: the product's library as a command, compared with the usual commands and the least that
// could be done.

#include "contests.h"

#include "../places.h"
#include "../process.h"
#include "../trees.h"

#include <filesystem>

namespace fs = std::filesystem;

namespace
{

// ---- Copying one file ----

constexpr size_t large_file_bytes = 64 << 20;

double time_copy(const Command &command)
{
    if (!fs::exists(scratch("large")))
        make_file(scratch("large"), large_file_bytes);
    const double seconds = time_command(command);
    fs::remove(scratch("copy"));
    return seconds * 1e3;
}

Contest copy_contest()
{
    const std::string from = scratch("large"), to = scratch("copy");
    const auto copies = [](const Command &command) { return [command] { return time_copy(command); }; };
    return {"copy a file of 64 MiB",
            "ms",
            {{"product", copies({subject("bench_library"), "copy", from, to})},
             {"raw loop of 4096 bytes", copies({subject("bench_minimal"), "copy", from, to}), 1.03},
             {"dd bs=4k", copies({"dd", "if=" + from, "of=" + to, "bs=4k", "status=none"}), 1.03}}};
}

// ---- System calls ----

/// How often a command, which must not fail, makes one of the calls, named as strace does.
double calls_of(const Command &command, const std::string &calls)
{
    const std::string log = scratch("calls");
    Command traced = {"strace", "-f", "-o", log, "-e", "trace=" + calls, "-e", "signal=none"};
    traced.insert(traced.end(), command.begin(), command.end());
    time_command(traced);
    // The last line reports the end.
    return static_cast<double>(lines_of(log).size()) - 1;
}

double memory_calls_of_copy()
{
    make_file(scratch("small"), 100000);
    return calls_of({subject("bench_library"), "copy", scratch("small"), scratch("copy")}, "brk,mmap,mremap");
}

/// Of a removal of 1,000 files; unlike its time, the same however busy the computer is.
Contender removal_calls(const std::string &name, const Command &command, std::optional<double> ratio_max = {})
{
    const auto measure = [command] {
        const std::string path = scratch("tree");
        make_tree(path, 10, 100);
        Command full = command;
        full.push_back(path);
        return calls_of(full, "all");
    };
    return {name, measure, ratio_max};
}

Contest removal_calls_contest()
{
    return {"system calls to remove 10 x 100 files",
            "calls",
            {removal_calls("product", {subject("bench_library"), "remove"}),
             removal_calls("minimal loop, same calls", {subject("bench_minimal"), "remove"}, 1.03),
             removal_calls("rm -rf", {"rm", "-rf"})},
            {},
            1,
            true};
}

// ---- Removing trees ----

struct Tree {
    std::string name;
    void (*make)(const std::string &path);
};

const Tree trees[] = {
    {"100 x 100 files", [](const std::string &path) { make_tree(path, 100, 100); }},
    {"10,000 files in one folder", [](const std::string &path) { make_tree(path, 0, 10000); }},
    {"a Wine prefix", make_wine_prefix},
};

double time_removal(const Tree &tree, const Command &command)
{
    const std::string path = scratch("tree");
    tree.make(path);
    settle(path);
    Command full = command;
    full.push_back(path);
    return time_command(full) * 1e3;
}

void add_removals(std::vector<Contest> &contests)
{
    for (const Tree &tree : trees) {
        const auto removes = [tree](const Command &command) {
            return [tree, command] { return time_removal(tree, command); };
        };
        contests.push_back(
            {"remove " + tree.name,
             "ms",
             {{"product", removes({subject("bench_library"), "remove"})},
              {"minimal loop, same calls", removes({subject("bench_minimal"), "remove"}), 1.03},
              {"rm -rf", removes({"rm", "-rf"}), 1.4, "no chmod, no batches of 20"}}});
    }
}

Contest growth_contest()
{
    const auto time_a_file = [](int files) {
        return [files] {
            const std::string path = scratch("tree");
            make_tree(path, 0, files);
            return time_command({subject("bench_library"), "remove", path}) / files * 1e6;
        };
    };
    return {"remove a file of 100,000 in one folder",
            "us",
            {{"product", time_a_file(100000)}, {"product, of 10,000", time_a_file(10000), 1.2}},
            {},
            3};
}

// ---- Copying trees ----

double time_tree_copy(const Command &command)
{
    if (!fs::exists(scratch("source")))
        make_tree(scratch("source"), 100, 100);
    const double seconds = time_command(command);
    time_command({"rm", "-rf", scratch("target")});
    return seconds * 1e3;
}

Contest tree_copy_contest()
{
    const std::string from = scratch("source"), to = scratch("target");
    const auto copies = [](const Command &command) { return [command] { return time_tree_copy(command); }; };
    return {"copy a tree of 10,000 small files",
            "ms",
            {{"product", copies({subject("bench_library"), "copy-tree", from, to})},
             {"cp -a", copies({"cp", "-a", from, to}), 1.0, "keeps owners and times"},
             {"rsync -a", copies({"rsync", "-a", from + "/", to}), 0.6, "keeps owners and times"},
             {"busybox cp -r", copies({"busybox", "cp", "-r", from, to}), 1.1}}};
}

// ---- Searching ----

double time_search(const Command &command)
{
    const std::string tree = scratch("searched");
    if (!fs::exists(tree)) {
        make_tree(tree, 100, 100);
        make_file(tree + "/folder_7/qel_application_1", 1);
        make_file(tree + "/folder_70/qel_application_2", 1);
    }
    return time_command(command) * 1e3;
}

Contest search_contest()
{
    const std::string tree = scratch("searched"), prefix = "qel_application_";
    const auto searches = [](const Command &command) { return [command] { return time_search(command); }; };
    return {"search 10,000 entries by prefix",
            "ms",
            {{"product", searches({subject("bench_library"), "search", tree, prefix})},
             {"find -name", searches({"find", tree, "-name", prefix + "*"}), 0.6},
             {"busybox find", searches({"busybox", "find", tree, "-name", prefix + "*"}), 0.25}}};
}

// ---- Nothing ----

std::function<double()> starts(const Command &command)
{
    return [command] {
        fs::create_directories(scratch("empty"));
        return time_command(command) * 1e3;
    };
}

/// What a process costs before it works: it is in every other figure of a command.
Contest start_of_commands_contest()
{
    const std::string empty = scratch("empty"), target = scratch("empty_too");
    return {"an empty job, for what the start of a command costs",
            "ms",
            {{"product", starts({subject("bench_library"), "remove", empty})},
             {"minimal loop", starts({subject("bench_minimal"), "remove", empty})},
             {"rm -rf", starts({"rm", "-rf", empty})},
             {"dd", starts({"dd", "if=/dev/null", "of=" + target + "_file", "status=none"})},
             {"cp -a", starts({"cp", "-a", empty, target})},
             {"rsync -a", starts({"rsync", "-a", empty + "/", target})},
             {"find", starts({"find", empty})},
             {"busybox find", starts({"busybox", "find", empty})}}};
}

} // namespace

void add_file_contests(std::vector<Contest> &contests)
{
    contests.push_back(start_of_commands_contest());
    contests.push_back(copy_contest());
    contests.push_back(
        {"calls for memory while copying a file", "calls", {{"product", memory_calls_of_copy}}, 0, 1, true});
    contests.push_back(removal_calls_contest());
    add_removals(contests);
    contests.push_back(growth_contest());
    contests.push_back(tree_copy_contest());
    contests.push_back(search_contest());
}
