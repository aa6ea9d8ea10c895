// The world of one run of a tape: an empty scratch disk as the root, where mounts, nodes and links work
// without rights, children are process 4711 and end at once, and the clock is virtual. Folders list their
// entries in order of name.
#pragma once

#include "support/fake_kernel.h"
#include "support/scratch.h"

#include <deque>
#include <map>
#include <set>
#include <string>
#include <utility>
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

    /// The run goes on as the child of the fork number `n`, of every one without; execve throws Became.
    void fork_gives_child(int n = 0);
    /// The devices of the board: they take everything, and what is read from them are `reply_size` bytes that
    /// begin with `reply`.
    void play_board(const std::string &reply, size_t reply_size);

    Scratch disk;
    FakeKernel kernel{disk.path()};
    /// The children that end, and their status, for one wait after the other; then whoever is waited for, and
    /// well.
    std::deque<std::pair<pid_t, int>> ended;
    /// A device that the product opened, or one of a test's own.
    static constexpr int link_descriptor = 5001;
    bool is_board(int file) const
    {
        return file == link_descriptor || board.count(file);
    }
    inline static std::set<int> board; ///< stays known while it stays open
    std::string closed_twice;          ///< what was given back without being open

    std::map<DIR *, std::vector<struct dirent>> listings;
    std::set<DIR *> folders; ///< what is open
    std::set<FILE *> streams;
};
