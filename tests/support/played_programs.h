/// Programs that the product starts, played: each start really forks, and the child notes what it was given
/// and ends as the test says, instead of becoming the program.
///
///     PlayedPrograms programs(kernel);
///     programs.end_with("/bin/syslinux /dev/disk/hdc1", 1);
///     ...
///     EXPECT_THAT(programs.runs(), ElementsAre("/bin/syslinux: /bin/syslinux /dev/disk/hdc1 | env: none"));
#pragma once

#include "support/fake_kernel.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

struct PlayedPrograms {
    explicit PlayedPrograms(FakeKernel &kernel) : notes(memfd_create("programs", MFD_CLOEXEC))
    {
        kernel.on_fork = [] { return real_fork(); };
        kernel.on_execve = [this](const char *path, char *const *arguments, char *const *environment) {
            return play(path, words(arguments), environment ? words(environment) : "none");
        };
    }
    ~PlayedPrograms()
    {
        real_close(notes);
    }

    /// How a program started with just these words ends: its exit code, or a signal's number, negative.
    void end_with(const std::string &whole_command, int outcome)
    {
        outcomes[whole_command] = outcome;
    }

    /// Every program so far: "PATH: ARGUMENTS | env: VARIABLES | in: INPUT", the input only if there was
    /// some.
    std::vector<std::string> runs() const
    {
        std::vector<std::string> all;
        std::string run;
        char byte;
        for (off_t at = 0; pread(notes, &byte, 1, at) == 1; ++at) {
            if (byte)
                run += byte;
            else
                all.push_back(std::exchange(run, ""));
        }
        return all;
    }
    static std::string words(char *const *list)
    {
        std::string all;
        for (; *list; ++list)
            all += (all.empty() ? "" : " ") + std::string(*list);
        return all;
    }

    /// In the child: its standard input must come to an end, or the test hangs here.
    [[noreturn]] int play(const std::string &path, const std::string &arguments,
                          const std::string &environment)
    {
        std::string input;
        char byte;
        while (real_read(STDIN_FILENO, &byte, 1) == 1)
            input += byte;
        std::string note = path + ": " + arguments + " | env: " + environment;
        if (!input.empty())
            note += " | in: " + input;
        real_write(notes, note.c_str(), note.size() + 1);
        const int outcome = outcomes.count(arguments) ? outcomes[arguments] : 0;
        if (outcome < 0) {
            signal(-outcome, SIG_DFL);
            raise(-outcome);
        }
        real__exit(outcome);
    }

    int notes;
    std::map<std::string, int> outcomes;
};
