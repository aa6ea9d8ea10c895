// The loader as a whole: its file, its memory, its start and its restarts. It runs as process 1 of
// namespaces, in a root that has what a cabinet has (subjects/loader_kernel.cpp). The contests first; their
// list is at the end.

#include "contests.h"
#include "process.h"
#include "root.h"

#include <unistd.h>

#include <filesystem>

namespace fs = std::filesystem;

using Command = std::vector<std::string>;

// ---- Size ----

static std::function<double()> size_of(const std::string &file)
{
    return [file] { return static_cast<double>(fs::file_size(file)); };
}

static Contest size_contest(const std::string &target, const std::string &file)
{
    return {"size of the loader, " + target,
            "bytes",
            {{"product", size_of(file)},
             {"tini-static", size_of("/usr/bin/tini-static"), 0.14},
             {"busybox-static", size_of("/bin/busybox"), 0.05},
             {"the loader on static glibc", size_of(loader_of("bench")), 0.12}},
            96 * 1024,
            once};
}

// ---- Memory ----

/// In a root without anything the loader stops at its third mount and parks.
static double parked_memory(const std::string &loader)
{
    const Root root;
    root.add_program(loader, "/init");
    const FirstProcess process(root.path, {"/init"});
    process.go();
    return process.peak_memory_kb();
}

static double waiting_memory(const std::string &program, const Command &command)
{
    const Root root;
    equip(root, lasting_application);
    root.add_file("/etc/inittab", std::string("::respawn:") + lasting_application + "\n");
    root.add_program(program, "/init");
    const FirstProcess process(root.path, command);
    process.go();
    process.await_beats(1);
    return process.peak_memory_kb();
}

static std::vector<Contender> with_memory_peers(const Contender &product)
{
    return {product,
            {"tini-static, waiting",
             [] {
                 return waiting_memory("/usr/bin/tini-static", {"/init", "--", lasting_application});
             },
             0.25},
            {"busybox init, waiting", [] { return waiting_memory("/bin/busybox", {"/init"}); }, 0.12},
            {"the loader on static glibc, parked", [] { return parked_memory(loader_of("bench")); }, 0.2}};
}

static void add_memory_contests(std::vector<Contest> &contests)
{
    const double limit_kb = 160;
    const int every = 5;
    contests.push_back({"peak memory, parked, x86-64", "kB",
                        with_memory_peers({"product", [] { return parked_memory(loader_of("product")); }}),
                        limit_kb, every});
    contests.push_back(
        {"peak memory, parked, i586", "kB",
         with_memory_peers({"product", [] { return parked_memory(loader_of("product-i586")); }}), limit_kb,
         every});
    contests.push_back(
        {"peak memory, waiting, x86-64", "kB",
         with_memory_peers({"product", [] { return waiting_memory(subject("bench_loader"), {"/init"}); }}),
         limit_kb, every});
}

// ---- Start ----

/// Seconds from process 1 becoming the program to the application's first sign.
static double time_start(const Root &root, const Command &command)
{
    const FirstProcess process(root.path, command);
    usleep(20000); // it has entered its root by then
    const double start = now();
    process.go();
    process.await_beats(1);
    return (now() - start) * 1e3;
}

static double time_null_start()
{
    const Root root;
    root.add_program(subject("bench_application"), "/init");
    return time_start(root, {"/init"});
}

static double time_loader_start()
{
    const double null = time_null_start();
    const Root root;
    equip(root);
    root.add_program(subject("bench_loader"), "/init");
    return time_start(root, {"/init"}) - null;
}

static double time_script_start()
{
    const double null = time_null_start();
    const Root root;
    equip(root);
    add_busybox(root);
    root.add_program(source("subjects/start_up.sh"), "/init");
    fs::permissions(root.path + "/init", fs::perms::owner_all);
    return time_start(root, {"/init"}) - null;
}

static Contest start_contest()
{
    return {"start-up, net of a null program",
            "ms",
            {{"product", time_loader_start}, {"busybox sh script", time_script_start, 0.10}}};
}

// ---- Restarts ----

/// Milliseconds a restart, by the beats of the application.
static double time_restarts(const Root &root, const Command &command, size_t count)
{
    const FirstProcess process(root.path, command);
    process.go();
    process.await_beats(2);
    const double start = now();
    process.await_beats(count);
    return (now() - start) / static_cast<double>(count) * 1e3;
}

static double time_own_restarts(const std::string &program, const Command &command)
{
    const Root root;
    equip(root);
    root.add_program(program, "/init");
    return time_restarts(root, command, 1000);
}

/// A supervisor with its libraries, and the application as the service that ends at once.
static double time_supervised_restarts(const std::string &supervisor, const Command &command)
{
    const Root root;
    equip(root);
    root.add_program(supervisor, "/init");
    for (const std::string &library : libraries_of(supervisor))
        root.add_program(fs::canonical(library), library);
    root.add_program(subject("bench_application"), "/service/run");
    root.add_file("/etc/inittab", std::string("::respawn:") + application + "\n");
    return time_restarts(root, command, 2);
}

static void add_restart_contests(std::vector<Contest> &contests)
{
    const auto product = [] { return time_own_restarts(subject("bench_loader"), {"/init"}); };
    const auto bare = [](const std::string &loop) {
        return [loop] { return time_own_restarts(subject("bench_minimal"), {"/init", loop, application}); };
    };
    const auto supervised = [](const std::string &supervisor, const Command &command) {
        return [supervisor, command] { return time_supervised_restarts(supervisor, command); };
    };
    contests.push_back(
        {"restart of the application",
         "ms",
         {{"product", product},
          {"bare fork, execve, waitpid", bare("restart"), 1.05, "without what comes before each start"},
          {"minimal loop, same calls", bare("restart-prepared")}}});
    const std::string pause = "waits a second after a short run";
    contests.push_back({"restart, beside supervisors",
                        "ms",
                        {{"product", product},
                         {"busybox init", supervised("/bin/busybox", {"/init"}), 0, pause},
                         {"runit", supervised("/usr/bin/runsv", {"/init", "/service"}), 0, pause},
                         {"s6", supervised("/usr/bin/s6-supervise", {"/init", "/service"}), 0, pause}},
                        0,
                        5});
}

// ---- All ----

void add_loader_contests(std::vector<Contest> &contests)
{
    contests.push_back(size_contest("x86-64", loader_of("product")));
    contests.push_back(size_contest("i586", loader_of("product-i586")));
    add_memory_contests(contests);
    contests.push_back(start_contest());
    add_restart_contests(contests);
}
