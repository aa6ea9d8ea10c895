// The whole way of a cabinet, stage by stage. Both starts go through the BIOS: nothing is loaded from
// outside, and only what is on the stick or the disk can work.

#include "try_install.h"

#include "common/child.h"
#include "common/interrupt.h"
#include "factory/disk_check.h"
#include "images/disks.h"
#include "images/partitions.h"
#include "machine/drive/cabinet.h"
#include "machine/view/view.h"

#include <stdio.h>

#include <stdexcept>

namespace
{

const double install_seconds_max = 300, start_seconds_max = 120;
const double watched_seconds = 6; ///< of the application, once it runs

void announce(int stage, const std::string &text)
{
    printf("\n== stage %d of 4: %s\n", stage, text.c_str());
    fflush(stdout);
}

/// A failed check has stopped the loader, or a tool before it began.
bool has_stopped(const Cabinet &cabinet)
{
    return first_stop(cabinet) != nullptr;
}

/// Runs the cabinet until `condition` holds, and shows what it does; false when it does not in time, or no
/// more can.
bool watch(Cabinet &cabinet, View &view, const std::function<bool()> &condition, double seconds_max)
{
    while (!condition()) {
        if (interrupted())
            throw std::runtime_error("interrupted");
        if (uptime(cabinet) > seconds_max || has_stopped(cabinet))
            return false;
        pump(cabinet, 0.1);
        show_waiting(view, cabinet);
    }
    return true;
}

bool application_runs(const Cabinet &cabinet)
{
    return count_starts(cabinet, "/storage/qel_application_") > 0 ||
           count_starts(cabinet, "/usr/wine/bin/wine /storage/qel_application_") > 0;
}

/// A start from power-on to the application, and a little further.
bool start(const CabinetSetup &setup, const std::string &text_before, double seconds_max)
{
    Cabinet cabinet;
    View view;
    cabinet.on_event = [&](const Event &event) { show_event(view, event); };
    power_on(cabinet, setup);
    bool done = watch(
        cabinet, view,
        [&] { return cabinet.console.find(text_before) != std::string::npos && application_runs(cabinet); },
        seconds_max);
    double end = uptime(cabinet) + watched_seconds;
    watch(
        cabinet, view, [&] { return !done || uptime(cabinet) >= end; }, seconds_max + watched_seconds);
    power_off(cabinet);
    return done && !has_stopped(cabinet);
}

/// Compares the disk with what the stick holds.
bool check(const std::string &disk, const std::string &stick, const std::string &scratch)
{
    for (const char *name : {"vmlinux", "qel_usr.cramfs"})
        run_tool({"mcopy", "-i", mtools_name(stick, 1), "::" + std::string(name), scratch});
    std::vector<Finding> findings = check_disk({disk, scratch + "/vmlinux", scratch + "/qel_usr.cramfs"});
    for (const Finding &finding : findings)
        printf("%-6s %s\n", finding.good ? "ok" : "FAULT", finding.text.c_str());
    return all_good(findings);
}

bool fail(const std::string &text)
{
    printf("error: %s\n", text.c_str());
    return false;
}

} // namespace

bool try_install(const Hardware &hardware, const std::string &stick, const Delivery &delivery,
                 const Progress &progress)
{
    catch_interrupts();
    ScratchFolder scratch;
    CabinetSetup setup;
    setup.hardware = hardware;
    setup.internal_disk = scratch.path + "/internal_disk";
    setup.seconds_max = install_seconds_max + start_seconds_max;
    setup.report_stops = true;

    announce(1, "a factory stick and a blank disk");
    setup.stick = scratch.path + "/stick";
    if (stick.empty())
        make_factory_stick(setup.stick, delivery, progress);
    else
        run_tool({"cp", "--sparse=always", stick, setup.stick});
    make_blank_disk(setup.internal_disk, delivery.disk_bytes);

    announce(2, "the cabinet starts from the stick and installs itself");
    setup.start_from_stick = true;
    if (!start(setup, "Install complete.\n", install_seconds_max))
        return fail("the install did not come to its end");

    announce(3, "the checker looks at the disk");
    if (!check(setup.internal_disk, setup.stick, scratch.path))
        return fail("the disk is not well installed");

    announce(4, "the cabinet starts from its own disk, without the stick");
    setup.stick.clear();
    setup.start_from_stick = false;
    if (!start(setup, "QEL Loader...\n", start_seconds_max))
        return fail("the cabinet did not start from its disk");
    printf("\nthe cabinet runs from the disk that it installed\n");
    return true;
}
