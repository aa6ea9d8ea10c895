// The loader as a whole: its file, its memory, its start and its restarts. It runs as process 1 of
// namespaces, in a root that has what a cabinet has (subjects/loader_kernel.cpp). The contests first; their
// list is at the end.

#include "contests.h"

#include "../places.h"
#include "../process.h"
#include "../root.h"

#include "common/child.h"
#include "common/clock.h"

#include <unistd.h>

#include <filesystem>

namespace fs = std::filesystem;

namespace
{

// ---- Size ----

std::function<double()> size_of(const std::string &file)
{
    return [file] { return static_cast<double>(fs::file_size(file)); };
}

Contest size_contest(const std::string &target, const std::string &file)
{
    return {"size of the loader, " + target,
            "bytes",
            {{"product", size_of(file)},
             {"tini-static", size_of("/usr/bin/tini-static"), 0.14},
             {"busybox-static", size_of("/bin/busybox"), 0.05},
             {"the loader on glibc", size_of(loader_of("bench")), 0.12}},
            96 * 1024,
            1,
            true};
}

// ---- Memory ----

/// In a root without anything the loader stops at its third mount and parks.
double parked_memory(const std::string &loader)
{
    const Root root;
    root.add_program(loader, "/init");
    const FirstProcess process(root.path, {"/init"});
    process.go();
    return process.peak_memory_kb();
}

double waiting_memory(const std::string &program, const Command &command)
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

std::vector<Contender> with_memory_peers(const Contender &product)
{
    return {product,
            {"tini-static, waiting",
             [] {
                 return waiting_memory("/usr/bin/tini-static", {"/init", "--", lasting_application});
             },
             0.25},
            {"busybox init, waiting", [] { return waiting_memory("/bin/busybox", {"/init"}); }, 0.12},
            {"the loader on glibc, parked", [] { return parked_memory(loader_of("bench")); }, 0.2}};
}

void add_memory_contests(std::vector<Contest> &contests)
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
double time_start(const Root &root, const Command &command)
{
    const FirstProcess process(root.path, command);
    usleep(20000); // it has entered its root by then
    const double start = seconds_now();
    process.go();
    process.await_beats(1);
    return (seconds_now() - start) * 1e3;
}

double time_null_start()
{
    const Root root;
    root.add_program(subject("bench_application"), "/init");
    return time_start(root, {"/init"});
}

/// A start by `program`, net of the start of a program that does nothing.
double time_net_start(const std::string &program, bool with_install = false)
{
    const double null = time_null_start();
    const Root root;
    if (with_install)
        equip_for_install(root);
    else
        equip(root);
    add_busybox(root);
    root.add_program(program, "/init");
    return time_start(root, with_install ? Command{"/init", "qelinstall"} : Command{"/init"}) - null;
}

Contest start_contest()
{
    return {"start-up, net of a null program",
            "ms",
            {{"product", [] { return time_net_start(subject("bench_loader")); }},
             {"minimal program, same calls", [] { return time_net_start(subject("bench_start")); }, 1.1},
             {"busybox sh script", [] { return time_net_start(source("subjects/start_up.sh")); }, 0.1}}};
}

Contest install_contest()
{
    return {"install from a stick and first start",
            "ms",
            {{"product", [] { return time_net_start(subject("bench_loader"), true); }},
             {"busybox sh script, same tools",
              [] { return time_net_start(source("subjects/start_up.sh"), true); }, 1.0}}};
}

// ---- Restarts ----

/// Milliseconds a restart, by the beats of the application.
double time_restarts(const std::string &program, const Command &command)
{
    const size_t count = 1000;
    const Root root;
    equip(root);
    root.add_program(program, "/init");
    const FirstProcess process(root.path, command);
    process.go();
    process.await_beats(2);
    const double start = seconds_now();
    process.await_beats(count);
    return (seconds_now() - start) / static_cast<double>(count) * 1e3;
}

Contest restart_contest()
{
    const auto minimal = [](const std::string &loop) {
        return [loop] { return time_restarts(subject("bench_minimal"), {"/init", loop, application}); };
    };
    return {"restart of the application",
            "ms",
            {{"product", [] { return time_restarts(subject("bench_loader"), {"/init"}); }},
             {"minimal loop, same calls", minimal("restart-prepared"), 1.1},
             {"bare fork, execve, waitpid", minimal("restart"), {}, "without what comes before each start"}}};
}

} // namespace

void add_loader_contests(std::vector<Contest> &contests)
{
    contests.push_back(size_contest("x86-64", loader_of("product")));
    contests.push_back(size_contest("i586", loader_of("product-i586")));
    add_memory_contests(contests);
    contests.push_back(start_contest());
    contests.push_back(install_contest());
    contests.push_back(restart_contest());
}
