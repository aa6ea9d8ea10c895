// The runs of the fault sweeps, in this process: each begins with the product's variables as they were at the
// start, and what it leaves open is closed.

#include "support/fault_run.h"
#include "support/product_reset.h"
#include "support/scratch_disk.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest-spi.h>
#include <signal.h>
#include <stdio_ext.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>

// ---- The ground ----

Ground::Ground()
{
    kernel.throws_at_exit = true;
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
    watch_descriptors();
    kernel.on_fork = [] { return child; };
    kernel.on_waitpid = [](pid_t process, int *status, int) {
        *status = 0;
        return process;
    };
}

/// Gives something back for which there is a record in `open`, or else takes note of that.
template <typename Stream, typename GiveBack>
static int give_back(Stream *stream, std::set<Stream *> &open, const char *what, std::string &closed_twice,
                     GiveBack *back)
{
    if (open.erase(stream))
        return back(stream);
    closed_twice += what;
    errno = EBADF;
    return EOF;
}

void Ground::watch_descriptors()
{
    kernel.on_close = [this](int file) {
        const int result = real_close(file);
        // -1 is what the product has of an open that failed.
        if (result == -1 && file != -1)
            closed_twice += " a descriptor";
        return result;
    };
    kernel.on_opendir = [this](const char *path) {
        DIR *folder = real_opendir(kernel.at(path).c_str());
        if (folder)
            folders.insert(folder);
        return folder;
    };
    kernel.on_closedir = [this](DIR *folder) {
        listings.erase(folder);
        return give_back(folder, folders, " a folder", closed_twice, real_closedir);
    };
    kernel.on_fopen = [this](const char *path, const char *mode) {
        FILE *stream = real_fopen(kernel.at(path).c_str(), mode);
        if (stream)
            streams.insert(stream);
        return stream;
    };
    kernel.on_fclose = [this](FILE *stream) {
        return give_back(stream, streams, " a stream", closed_twice, real_fclose);
    };
}

void Ground::give_back_streams()
{
    for (DIR *folder : folders)
        real_closedir(folder);
    for (FILE *stream : streams)
        real_fclose(stream);
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

/// What is on standard output so far, flushed or not.
static size_t printed_so_far()
{
    return static_cast<size_t>(lseek(STDOUT_FILENO, 0, SEEK_CUR)) + __fpending(stdout);
}

/// Looks at the clock are left out: they change nothing, and cannot fail.
static std::vector<Call> comparable_calls(const FakeKernel &kernel, const std::vector<size_t> &printed)
{
    static const std::set<std::string> looks = {"time", "gettimeofday"};
    std::vector<Call> calls;
    std::map<std::string, int> counts;
    for (size_t at = 0; at < kernel.calls().size(); at++) {
        const std::string &record = kernel.calls()[at];
        if (!looks.count(name_of(record)))
            calls.push_back(
                {comparable(record, ++counts[name_of(record)]), printed.at(at), kernel.moved(at)});
    }
    return calls;
}

/// The descriptors of this process and what they lead to, as in Scenario::left_open.
static std::map<std::string, std::string> descriptors(const Scratch &disk)
{
    std::map<std::string, std::string> all;
    const std::string listing = "/proc/" + std::to_string(getpid()) + "/fd";
    for (const auto &entry : std::filesystem::directory_iterator(listing)) {
        std::string target = std::filesystem::read_symlink(entry);
        if (target == listing)
            continue;
        if (target.rfind(disk.path(), 0) == 0)
            target.erase(0, disk.path().size());
        all[entry.path().filename()] = target.substr(0, target.find(":["));
    }
    return all;
}

/// What is open now and was not before, in order of name.
static std::string opened_since(const std::map<std::string, std::string> &before, const Scratch &disk)
{
    std::multiset<std::string> opened;
    for (const auto &[number, target] : descriptors(disk)) {
        if (!before.count(number))
            opened.insert(target);
    }
    std::string text;
    for (const std::string &target : opened)
        text += (text.empty() ? "" : " ") + target;
    return text;
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
    } catch (const ProductExit &exit) {
        return "exit " + std::to_string(exit.status);
    }
}

// ---- The run ----

/// What a run may leave behind in this process, put back at its end.
struct Traces {
    Traces() : folder(real_open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0))
    {
        reset_product();
        for (int file = 0; file < descriptors_max; ++file)
            was_open[file] = fcntl(file, F_GETFD) != -1;
    }
    ~Traces()
    {
        for (int file = 0; file < descriptors_max; ++file) {
            if (!was_open[file])
                real_close(file);
        }
        EXPECT_EQ(fchdir(folder), 0);
        real_close(folder);
    }
    Traces(const Traces &) = delete;
    Traces &operator=(const Traces &) = delete;

    static constexpr int descriptors_max = 64;
    int folder;
    bool was_open[descriptors_max];
};

static std::string complaints_of(const testing::TestPartResultArray &failures)
{
    std::string text;
    for (int i = 0; i < failures.size(); i++)
        text += failures.GetTestPartResult(i).message() + std::string("\n");
    return text;
}

static Run run_here(const Scenario &scenario, const Injection *injection)
{
    const Traces traces;
    testing::TestPartResultArray failures;
    const testing::ScopedFakeTestPartResultReporter failures_go_here{
        testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &failures};
    Ground ground;
    std::vector<size_t> printed;
    ground.kernel.on_record = [&] { printed.push_back(printed_so_far()); };
    if (injection)
        plan(ground.kernel, *injection);
    Run run;
    const StopResult stop = stop_of([&] {
        const auto open_before = descriptors(ground.disk);
        run.result = result_of(scenario, ground);
        run.left_open = opened_since(open_before, ground.disk);
    });
    if (stop.stopped) {
        run.stop = stop.text;
        run.unit = stop.unit;
        run.line = std::to_string(stop.line);
    }
    run.printed = stop.output;
    run.closed_twice = ground.closed_twice;
    run.calls = comparable_calls(ground.kernel, printed);
    run.complaints = complaints_of(failures);
    ground.give_back_streams();
    return run;
}

// ---- A run that may crash ----

/// Whether a process that runs the scenario ends in order.
static bool survives(const Scenario &scenario, const Injection *injection)
{
    const pid_t process = real_fork();
    if (process == 0) {
        const struct rlimit no_core = {};
        setrlimit(RLIMIT_CORE, &no_core);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        real_dup2(real_open("/dev/null", O_WRONLY, 0), STDERR_FILENO);
        tests_run_here();
        run_here(scenario, injection);
        real__exit(0);
    }
    int status = 0;
    EXPECT_EQ(real_waitpid(process, &status, 0), process);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

/// The folder of all runs' scratch folders; what crashes leave in it is gone with this process. It is in
/// memory where the system has room there and nobody asks for another place: a disk takes longer than all the
/// rest.
static const Scratch &place_of_runs()
{
    const bool in_memory = !getenv("TMPDIR") && real_access("/dev/shm", W_OK) == 0;
    if (in_memory)
        setenv("TMPDIR", "/dev/shm", 1);
    static const Scratch place;
    if (in_memory)
        unsetenv("TMPDIR");
    return place;
}

Run run_once(const Scenario &scenario, const Injection *injection)
{
    const Scratch &place = place_of_runs();
    setenv("TMPDIR", place.path().c_str(), 1);
    const bool may_crash = injection && injection->name == "localtime";
    const bool crashes = may_crash && !survives(scenario, injection);
    Run run;
    if (crashes)
        run.result = crashed;
    else
        run = run_here(scenario, injection);
    unsetenv("TMPDIR");
    return run;
}
