// A cabinet for the tests.

#include "machine_test.h"

#include <stdlib.h>

#include <algorithm>
#include <sstream>

std::string tested_target()
{
    const char *target = getenv("QEL_TEST_TARGET");
    return target == nullptr ? targets.front() : target;
}

Machine::Machine(const std::string &target)
    : parts(find_parts(target)),
      recorder(parts.build_folder + "/machine/" + target + "/machine_test_recorder"),
      system({{"xorg/bin/Xfake", recorder}})
{
    setup.hardware = parts.target.hardware;
    setup.kernel = parts.kernel;
    setup.ram_disk = folder.path + "/ram_disk.img";
    setup.report_stops = true;
}

void make_disk(Machine &machine)
{
    if (!machine.setup.internal_disk.empty())
        return;
    std::string system_image = machine.folder.path + "/system.img";
    make_system_image(system_image, machine.system);
    machine.setup.internal_disk = machine.folder.path + "/internal_disk.img";
    make_internal_disk(machine.setup.internal_disk, system_image, machine.storage);
}

void start(Machine &machine)
{
    make_disk(machine);
    make_ram_disk(machine.setup.ram_disk, machine.parts, machine.ram_disk);
    power_on(machine.cabinet, machine.setup);
}

void start_again(Machine &next, Machine &before)
{
    power_off(before.cabinet);
    next.setup.internal_disk = before.setup.internal_disk;
    start(next);
}

void expect_stick(Machine &machine)
{
    machine.setup.wait_for = {"/sys/block/sda/sda1"};
}

void insert_stick(Machine &machine, const std::vector<FileAt> &files)
{
    machine.setup.stick = machine.folder.path + "/stick.img";
    make_stick(machine.setup.stick, files);
    expect_stick(machine);
}

void plug_in_slow_stick(Machine &machine, const std::vector<FileAt> &files, int bytes_per_second)
{
    const std::string image = machine.folder.path + "/slow_stick.img";
    make_stick(image, files);
    monitor(machine.cabinet, "object-add",
            {{"qom-type", "throttle-group"}, {"id", "slow"}, {"limits", {{"bps-read", bytes_per_second}}}});
    monitor(machine.cabinet, "blockdev-add",
            {{"driver", "throttle"},
             {"node-name", "slow-stick"},
             {"throttle-group", "slow"},
             {"file", {{"driver", "raw"}, {"file", {{"driver", "file"}, {"filename", image}}}}}});
    monitor(machine.cabinet, "device_add",
            {{"driver", "usb-storage"}, {"id", "stick"}, {"drive", "slow-stick"}, {"bus", "usb.0"}});
}

void speed_stick_up(Machine &machine)
{
    monitor(machine.cabinet, "qom-set",
            {{"path", "/objects/slow"}, {"property", "limits"}, {"value", {{"bps-read", 0}}}});
}

bool wait_until_written(Machine &machine, const std::string &file)
{
    auto written = [&] {
        return look_inside(machine.cabinet, "for f in /proc/1/fd/*; do [ \"$(readlink $f)\" = " + file +
                                                " ] && grep -v '^pos:.0$' /proc/1/fdinfo/${f##*/}; done")
            .starts_with("pos:");
    };
    return wait_until(machine.cabinet, written, patience);
}

std::string file_with(Machine &machine, const std::string &name, const std::string &text)
{
    std::string path = machine.folder.path + "/" + name;
    write_file(path, text);
    return path;
}

std::vector<std::string> notes_of(const Machine &machine, const std::string &name)
{
    std::vector<std::string> notes;
    for (const Event &event : machine.cabinet.events)
        if (event.kind == Event::note && event.text.starts_with(name + " "))
            notes.push_back(event.text.substr(name.size() + 1));
    return notes;
}

bool wait_for_recorder(Machine &machine, const std::string &name, int times)
{
    auto recorded = [&] {
        std::vector<std::string> notes = notes_of(machine, name);
        return std::count(notes.begin(), notes.end(), "done") >= times;
    };
    return wait_until(machine.cabinet, recorded, patience);
}

bool wait_for_start(Machine &machine, const std::string &words, int times)
{
    return wait_until(
        machine.cabinet, [&] { return count_starts(machine.cabinet, words) >= times; }, patience);
}

int last_started(const Machine &machine)
{
    int process = 0;
    for (const Event &event : machine.cabinet.events)
        if (event.kind == Event::program_started)
            process = event.number;
    return process;
}

std::vector<std::string> storage_names(const Machine &machine)
{
    std::istringstream listing(
        run_tool({"mdir", "-b", "-i", mtools_name(machine.setup.internal_disk, 3), "::"}));
    std::vector<std::string> names;
    for (std::string name; std::getline(listing, name);)
        names.push_back(name);
    return names;
}

std::string storage_file(const Machine &machine, const std::string &name)
{
    ScratchFolder folder;
    std::string copy = folder.path + "/copy";
    run_tool({"mcopy", "-i", mtools_name(machine.setup.internal_disk, 3), "::" + name, copy});
    return read_file(copy);
}

// ---- The loader as it stands ----

namespace
{

/// How often a process has gone to sleep.
int sleeps_of(Machine &machine, int process)
{
    const std::string number =
        look_inside(machine.cabinet, "sed -n 's/^voluntary_ctxt_switches:[^0-9]*//p' /proc/" +
                                         std::to_string(process) + "/status 2>/dev/null || echo 0");
    return std::stoi("0" + number);
}

bool sleeps_again(Machine &machine, int process, int times)
{
    const int wanted = sleeps_of(machine, process) + times;
    return wait_until(
        machine.cabinet, [&] { return sleeps_of(machine, process) >= wanted; }, patience);
}

} // namespace

std::string wait_until_parked(Machine &machine)
{
    auto stopped = [&] { return first_stop(machine.cabinet) != nullptr; };
    if (!wait_until(machine.cabinet, stopped, patience))
        return "";
    // After the first sleep all that was said before has come.
    const Event stop = *first_stop(machine.cabinet);
    if (!sleeps_again(machine, stop.number, 1))
        return "";
    const size_t events_before = machine.cabinet.events.size();
    if (!sleeps_again(machine, stop.number, 3) || machine.cabinet.events.size() != events_before)
        return "";
    return stop.text;
}

bool wait_until_it_reads(Machine &machine)
{
    auto reads = [&] { return look_inside(machine.cabinet, "cat /proc/1/syscall").starts_with("0 0x3 "); };
    return wait_until(machine.cabinet, reads, patience);
}
