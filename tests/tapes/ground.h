/// The world of one run of a tape: an empty scratch disk as the root, where mounts, nodes and links work
/// without rights, children are process 4711 and end at once, and the clock is virtual. Folders list their
/// entries in order of name.
#pragma once

#include "support/fake_kernel.h"
#include "support/scratch.h"

#include <map>
#include <set>
#include <string>
#include <vector>

/// Thrown where the process would have become another program.
struct Became : LeftProduct {
    explicit Became(const char *path) : program(path) {}
    std::string program;
};

struct Ground {
    static constexpr int child = 4711;

    Ground();
    Ground(const Ground &) = delete;
    Ground &operator=(const Ground &) = delete;
    ~Ground();

    /// The run goes on as the child of each fork; execve throws Became.
    void fork_gives_child();
    /// The devices of the board: they take everything, and what is read from them are `reply_size` bytes that
    /// begin with `reply`.
    void play_board(const std::string &reply, size_t reply_size);

    Scratch disk;
    FakeKernel kernel{disk.path()};
    std::string closed_twice; ///< what was given back without being open

    std::map<DIR *, std::vector<struct dirent>> listings;
    std::set<DIR *> folders; ///< what is open
    std::set<FILE *> streams;
};
