// The runs of the fault sweeps. Every run is a forked process: stops may leave files open and state behind,
// and standard streams may go anywhere. It tells its end through a file in memory.

#include "support/fault_run.h"
#include "support/scratch_disk.h"

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <sstream>

// ---- The ground ----

Ground::Ground()
{
    kernel.set_time(1000);
    kernel.on_mount = [](auto...) { return 0; };
    kernel.on_umount = [](auto...) { return 0; };
    kernel.on_sync = [] {};
    kernel.on_dup2 = [](int, int to) { return to; };
    make_nodes_as_files(kernel, disk);
    // What a link leads to lies on the scratch disk as well.
    kernel.on_symlink = [this](const char *content, const char *path) {
        return real_symlink(kernel.at(content).c_str(), kernel.at(path).c_str());
    };
    kernel.on_readdir = [this](DIR * folder) -> struct dirent *
    {
        const auto [listing, is_new] = listings.try_emplace(folder);
        std::vector<struct dirent> &entries = listing->second;
        if (is_new) {
            while (const struct dirent *entry = real_readdir(folder)) {
                if (entry->d_name[0] != '.')
                    entries.push_back(*entry);
            }
            // Backwards, so that the next is the last.
            std::sort(entries.begin(), entries.end(),
                      [](const auto &a, const auto &b) { return strcmp(a.d_name, b.d_name) > 0; });
            entries.insert(entries.begin(), dirent{});
        } else {
            entries.pop_back();
        }
        return entries.size() > 1 ? &entries.back() : nullptr;
    };
    kernel.on_closedir = [this](DIR *folder) {
        listings.erase(folder);
        return real_closedir(folder);
    };
    kernel.on_fork = [] { return child; };
    kernel.on_waitpid = [](pid_t process, int *status, int) {
        *status = 0;
        return process;
    };
}

/// Thrown where the process would have become another program.
struct Became : LeftProduct {
    explicit Became(const char *path) : program(path) {}
    std::string program;
};

void Ground::fork_gives_child()
{
    kernel.on_fork = [] { return 0; };
    kernel.on_execve = [](const char *path, auto...) -> int { throw Became(path); };
}

// ---- One run ----

std::string name_of(const std::string &call)
{
    return call.substr(0, call.find(' '));
}

/// The record of a call without the number of a descriptor, but with its own number.
static std::string comparable(const std::string &record, int n)
{
    static const std::set<std::string> with_descriptor = {"read", "write", "close", "dup2", "shutdown"};
    const std::string name = name_of(record);
    std::string rest = record.substr(name.size());
    if (with_descriptor.count(name)) {
        const size_t next = rest.find(' ', 1);
        rest = next == std::string::npos ? "" : rest.substr(next);
    }
    return name + rest + " #" + std::to_string(n);
}

/// Looks at the clock are left out: they change nothing.
static std::vector<std::string> comparable_calls(const FakeKernel &kernel)
{
    static const std::set<std::string> looks = {"time", "gettimeofday", "localtime"};
    std::vector<std::string> calls;
    std::map<std::string, int> counts;
    for (const std::string &record : kernel.calls()) {
        if (!looks.count(name_of(record)))
            calls.push_back(comparable(record, ++counts[name_of(record)]));
    }
    return calls;
}

static void plan(FakeKernel &kernel, const Injection &injection)
{
    if (injection.fault.error)
        kernel.fail_nth(injection.name, injection.n, injection.fault.error);
    else
        kernel.shorten_nth(injection.name, injection.n, injection.fault.size_max);
}

static std::string result_of(const Scenario &scenario, Ground &ground)
{
    try {
        return scenario.run(ground);
    } catch (const Became &became) {
        return "became " + became.program;
    } catch (const LeftProduct &) {
        return "left";
    } catch (const ChildExit &exit) {
        return "exit " + std::to_string(exit.status);
    }
}

static void tell(int file, const Run &run)
{
    std::string text;
    for (const std::string &part : {run.result, run.stop, run.unit, run.line, run.printed})
        text += part + '\0';
    for (const std::string &call : run.calls)
        text += call + '\0';
    real_write(file, text.data(), text.size());
}

static Run read_run(int file)
{
    std::string text(static_cast<size_t>(lseek(file, 0, SEEK_END)), '\0');
    pread(file, text.data(), text.size(), 0);
    std::istringstream parts(text);
    Run run;
    for (std::string *part : {&run.result, &run.stop, &run.unit, &run.line, &run.printed})
        std::getline(parts, *part, '\0');
    for (std::string call; std::getline(parts, call, '\0');)
        run.calls.push_back(call);
    return run;
}

/// What a run that calls exit leaves to be told.
struct Ending {
    int file;
    Ground *ground;
};

static void tell_exit(int status, void *context)
{
    const auto *ending = static_cast<const Ending *>(context);
    if (!ending->ground)
        return;
    Run run;
    run.result = "exit " + std::to_string(status);
    run.printed = "?";
    run.calls = comparable_calls(ending->ground->kernel);
    tell(ending->file, run);
}

static void run_in_child(const Scenario &scenario, const Injection *injection, int file)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    tests_run_here();
    static Ending ending = {file, nullptr};
    on_exit(tell_exit, &ending);
    Run run;
    {
        Ground ground;
        ending.ground = &ground;
        if (injection)
            plan(ground.kernel, *injection);
        const StopResult stop = stop_of([&] { run.result = result_of(scenario, ground); });
        if (stop.stopped) {
            run.stop = stop.text;
            run.unit = stop.unit;
            run.line = std::to_string(stop.line);
        }
        run.printed = stop.output;
        run.calls = comparable_calls(ground.kernel);
        ending.ground = nullptr;
    }
    tell(file, run);
}

Run run_once(const Scenario &scenario, const Injection *injection)
{
    const int file = memfd_create("run", MFD_CLOEXEC);
    const pid_t process = real_fork();
    if (process == 0) {
        run_in_child(scenario, injection, file);
        real__exit(0);
    }
    int status = 0;
    EXPECT_EQ(real_waitpid(process, &status, 0), process);
    EXPECT_TRUE(WIFEXITED(status)) << "killed by signal " << WTERMSIG(status);
    const Run run = read_run(file);
    real_close(file);
    return run;
}
