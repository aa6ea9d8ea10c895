// A cabinet for the tests.

#include "machine_test.h"

#include <algorithm>
#include <sstream>

const char *const recorder = MACHINE_TEST_RECORDER;

Machine::Machine(const std::string &target) : parts(find_parts(target))
{
    system = {{"xorg/bin/Xfake", recorder}};
    setup.kernel = parts.kernel_folder + "/vmlinux";
    setup.ram_disk = folder.path + "/ram_disk.img";
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

void insert_stick(Machine &machine, const std::vector<FileAt> &files)
{
    machine.setup.stick = machine.folder.path + "/stick.img";
    make_stick(machine.setup.stick, files);
    machine.setup.wait_for = {"/sys/block/sda/sda1"};
}

void slow_stick_down(Machine &machine, int bytes_per_second)
{
    monitor(machine.cabinet, "block_set_io_throttle",
            {{"device", "stick"},
             {"bps", bytes_per_second},
             {"bps_rd", 0},
             {"bps_wr", 0},
             {"iops", 0},
             {"iops_rd", 0},
             {"iops_wr", 0}});
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

bool stays_parked(Machine &machine)
{
    // The last lines may still be on their way.
    pump_for(machine.cabinet, 1);
    size_t events_before = machine.cabinet.events.size();
    pump_for(machine.cabinet, 3);
    std::string state = look_inside(machine.cabinet, "/bin/busybox grep State: /proc/1/status");
    return machine.cabinet.events.size() == events_before && state == "State:\tS (sleeping)\n";
}
