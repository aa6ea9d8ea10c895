// A run and its tape.

#include "tapes/tape.h"
#include "support/bytes.h"
#include "support/output.h"
#include "support/product_reset.h"
#include "support/stops.h"
#include "tapes/recorder.h"

#include <fcntl.h>
#include <gtest/gtest-spi.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>

// ---- What runs leave behind ----

static std::set<int> open_descriptors()
{
    std::set<int> files;
    DIR *folder = real_opendir("/proc/self/fd");
    while (const struct dirent *entry = real_readdir(folder)) {
        const int file = atoi(entry->d_name);
        if (entry->d_name[0] != '.' && file != dirfd(folder))
            files.insert(file);
    }
    real_closedir(folder);
    return files;
}

Traces::Traces()
    : product(product_state()), folder(real_open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0)),
      open_before(open_descriptors())
{
}

Traces::~Traces()
{
    for (const int file : open_descriptors()) {
        if (!open_before.count(file)) {
            real_close(file);
            Ground::board.erase(file);
        }
    }
    restore_product(product);
    EXPECT_EQ(fchdir(folder), 0);
    real_close(folder);
}

namespace
{

/// What a descriptor leads to: a path of the scratch disk, or "socket".
std::string target_of(int file, const Scratch &disk)
{
    std::string target = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file));
    if (target.rfind(disk.path(), 0) == 0)
        target.erase(0, disk.path().size());
    return target.substr(0, target.find(":["));
}

std::string opened_since(const std::set<int> &before, const Scratch &disk)
{
    std::multiset<std::string> opened;
    for (const int file : open_descriptors()) {
        if (!before.count(file))
            opened.insert(target_of(file, disk));
    }
    std::string text;
    for (const std::string &target : opened)
        text += (text.empty() ? "" : " ") + target;
    return text;
}

std::map<std::string, std::string> files_on(const Scratch &disk)
{
    std::map<std::string, std::string> files;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(disk.path())) {
        if (entry.is_symlink() || !entry.is_regular_file())
            continue;
        std::ifstream file(entry.path(), std::ios::binary);
        files[entry.path().string().substr(disk.path().size())] = {std::istreambuf_iterator<char>(file), {}};
    }
    return files;
}

// ---- The run ----

std::string end_of(const Scenario &scenario, Ground &ground, bool &is_over)
{
    try {
        const std::string end = scenario.piece.run(ground);
        is_over = true;
        return end;
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

void plan(FakeKernel &kernel, const Injection &injection)
{
    if (injection.error)
        kernel.fail_nth(injection.call, injection.n, injection.error);
    else
        kernel.shorten_nth(injection.call, injection.n, injection.size_max);
}

void note_stop(Run &run, const StopResult &stop)
{
    run.stop_text = stop.text;
    run.stop_place = stop.unit;
    // Only these lines are fixed.
    if (stop.unit == filesystem_unit || stop.unit == loader_unit)
        run.stop_place += ":" + std::to_string(stop.line);
    run.end = "stops " + run.stop_place + " \"" + stop.text + "\"";
}

std::string complaints_of(const testing::TestPartResultArray &failures)
{
    std::string text;
    for (int i = 0; i < failures.size(); ++i)
        text += failures.GetTestPartResult(i).message() + std::string("\n");
    return text;
}

/// The folder of all runs' scratch folders; in memory where the system has room there and nobody asks for
/// another place: a disk takes longer than all the rest.
const Scratch &place_of_runs()
{
    const bool in_memory = !getenv("TMPDIR") && real_access("/dev/shm", W_OK) == 0;
    if (in_memory)
        setenv("TMPDIR", "/dev/shm", 1);
    static const Scratch place;
    if (in_memory)
        unsetenv("TMPDIR");
    return place;
}

/// The time zone and the place of the run's disk, as long as it exists.
struct Surroundings {
    Surroundings()
    {
        setenv("TMPDIR", place_of_runs().path().c_str(), 1);
        setenv("TZ", "UTC0", 1);
    }
    ~Surroundings()
    {
        unsetenv("TMPDIR");
        unsetenv("TZ");
    }
};

} // namespace

Run run_tape(const Scenario &scenario, const Injection *injection, bool is_again, size_t calls_max)
{
    if (!is_again) {
        EXPECT_TRUE(reset_product());
    }
    const Surroundings surroundings;
    testing::TestPartResultArray failures;
    Run run;
    {
        const testing::ScopedFakeTestPartResultReporter failures_go_here{
            testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &failures};
        Ground ground;
        // A while later, as far as the product can see.
        if (is_again)
            ground.kernel.advance_usec(4000000000);
        Recorder recorder(ground, scenario.until, calls_max, is_again);
        recorder.on_first_call = [&] { run.files_before = files_on(ground.disk); };
        if (injection)
            plan(ground.kernel, *injection);
        const StopResult stop = stop_of([&] {
            const std::set<int> before = open_descriptors();
            run.end = "ends " + end_of(scenario, ground, run.is_over);
            run.left_open = opened_since(before, ground.disk);
        });
        if (stop.stopped)
            note_stop(run, stop);
        run.events = recorder.tape(stop.output);
        run.complaints = ground.closed_twice.empty() ? "" : "closed twice:" + ground.closed_twice + "\n";
        if (recorder.ran_away)
            run.complaints += "it does not end\n";
        run.heap_blocks = ground.kernel.blocks.size();
        run.files = files_on(ground.disk);
        run.events.push_back(effect(run.end, recorder.now_ms()));
        if (!stop.stopped && !run.left_open.empty())
            run.events.push_back(effect("open: " + run.left_open, recorder.now_ms()));
    }
    run.complaints += complaints_of(failures);
    return run;
}
