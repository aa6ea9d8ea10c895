// The power goes: during an install, and while an application is copied from a stick. Longer runs:
// tests/long_run.sh.

#include "power_cuts.h"

#include "disk_check.h"

namespace
{

/// Starts the machine by itself: from the stick, or without one from the disk.
void start_from(Machine &machine, const std::string &disk, const std::string &stick)
{
    machine.setup.kernel.clear();
    machine.setup.internal_disk = disk;
    machine.setup.stick = stick;
    machine.setup.start_from_stick = !stick.empty();
    start(machine);
}

bool runs_from(const std::string &disk, const std::string &stick)
{
    Machine machine;
    start_from(machine, disk, stick);
    return wait_for_recorder(machine, "qel_application_1");
}

std::string outcome_from_disk(const std::string &disk)
{
    Machine machine;
    start_from(machine, disk, "");
    return outcome_of_start(machine);
}

/// The log must tell all, or the cuts made from it prove nothing.
void expect_log_tells_all(const Machine &machine, const WriteLog &log, const std::string &before)
{
    const std::string again = machine.folder.path + "/written_again";
    run_tool({"cp", "--sparse=always", before, again});
    write_again(again, log, 0, log.entries.size());
    EXPECT_EQ(run_tool({"cmp", again, machine.setup.internal_disk}), "");
}

} // namespace

TEST(PowerCut, DuringAnInstallIsMendedByInstallingAgain)
{
    std::mt19937 chance = power_cut_chance();
    InstallMachine factory;
    Delivery delivery = take_factory_stick(factory);
    factory.setup.write_log = factory.folder.path + "/write_log";
    write_file(factory.setup.write_log, "");
    start(factory);
    ASSERT_TRUE(wait_for_recorder(factory, "qel_application_1"));
    power_off(factory.cabinet);

    const std::string disk = factory.folder.path + "/cut_disk", blank = factory.folder.path + "/blank_disk";
    make_blank_disk(blank);
    const WriteLog log = read_write_log(factory.setup.write_log);
    expect_log_tells_all(factory, log, blank);
    Outcomes alone;
    for (const Cut &cut : choose_cuts(log, cuts_wanted("QEL_INSTALL_CUTS", 2), chance)) {
        make_cut_disk(disk, blank, log, cut, chance);
        note_outcome(alone, describe(cut, log), outcome_from_disk(disk));
        ASSERT_TRUE(runs_from(disk, factory.setup.stick)) << describe(cut, log);
        for (const Finding &finding : check_disk({disk, delivery.kernel, delivery.system_image}))
            EXPECT_TRUE(finding.good) << describe(cut, log) << ": " << finding.text;
        EXPECT_TRUE(runs_from(disk, "")) << describe(cut, log);
    }
    print_outcomes(alone, "cuts during an install; each disk then started without the stick");
}

// ---- While a newer application is copied ----

namespace
{

const char *const old_name = "qel_application_1", *const new_name = "qel_application_2",
                  *const still_greater_name = "qel_application_3";

/// A start that copies the new application from a stick to a storage with the old one.
struct CopyRun {
    Machine machine;
    std::string before = machine.folder.path + "/before"; ///< the disk as it was
    WriteLog log;
};

/// With a slow stick the kernel writes to the disk while the copy is under way; else at its end, all at once.
void record_copy(CopyRun &run, bool slow_stick)
{
    Machine &machine = run.machine;
    machine.storage = {{old_name, recorder}};
    make_disk(machine);
    run_tool({"cp", "--sparse=always", machine.setup.internal_disk, run.before});
    machine.setup.write_log = machine.folder.path + "/write_log";
    write_file(machine.setup.write_log, "");
    insert_stick(machine, {{new_name, recorder}});
    if (slow_stick)
        machine.setup.kernel_words =
            "sysctl.vm.dirty_expire_centisecs=10 sysctl.vm.dirty_writeback_centisecs=10";
    start(machine);
    if (slow_stick)
        slow_stick_down(machine, 200000);
    ASSERT_TRUE(wait_for_recorder(machine, new_name));
    power_off(machine.cabinet);
    run.log = read_write_log(machine.setup.write_log);
    expect_log_tells_all(machine, run.log, run.before);
}

/// What a disk holds under the new application's name.
std::string state_of_copy(const std::string &disk)
{
    ScratchFolder folder;
    const std::string copy = folder.path + "/copy", whole = read_file(recorder);
    if (run_tool({"mdir", "-b", "-i", mtools_name(disk, 3), "::"}).find(new_name) == std::string::npos)
        return "absent";
    try {
        run_tool({"mcopy", "-i", mtools_name(disk, 3), "::" + std::string(new_name), copy});
    } catch (const std::runtime_error &) {
        return "a name whose content was not written";
    }
    const std::string part = read_file(copy);
    if (part == whole)
        return "whole";
    return part.empty() ? "empty" : whole.starts_with(part) ? "only its first part" : "damaged";
}

/// Starts a machine from such a disk, with a stick that holds this application, or with none.
std::string start_with(const std::string &disk, const std::string &application)
{
    Machine machine;
    // Each start has the disk as the cut left it.
    machine.setup.internal_disk = machine.folder.path + "/started_disk";
    run_tool({"cp", "--sparse=always", disk, machine.setup.internal_disk});
    if (!application.empty())
        insert_stick(machine, {{application, recorder}});
    start(machine);
    return outcome_of_start(machine);
}

/// Starts a disk that a cut left, in every way, and says what came of it.
std::string try_cut_disk(const std::string &disk)
{
    const std::string runs = "runs ", state = state_of_copy(disk), alone = start_with(disk, ""),
                      same_stick = start_with(disk, new_name);
    if (state == "absent") {
        EXPECT_EQ(alone, runs + old_name);
        EXPECT_EQ(same_stick, runs + new_name);
    } else {
        // Whatever stands under the name, the loader takes it and leaves it.
        EXPECT_NE(alone.find(new_name), std::string::npos) << alone;
        EXPECT_NE(same_stick.find(new_name), std::string::npos) << same_stick;
        EXPECT_EQ(same_stick.starts_with(runs), alone.starts_with(runs)) << same_stick;
    }
    if (state == "whole")
        EXPECT_EQ(alone, runs + new_name);
    else
        EXPECT_EQ(start_with(disk, still_greater_name), runs + still_greater_name);
    return "the new one is " + state + "; alone: " + alone + "; with the stick: " + same_stick;
}

} // namespace

TEST(PowerCut, WhileAnApplicationIsCopiedLeavesTheOldOneOrAnyPartOfTheNew)
{
    std::mt19937 chance = power_cut_chance();
    Outcomes outcomes;
    for (bool slow_stick : {true, false}) {
        CopyRun run;
        ASSERT_NO_FATAL_FAILURE(record_copy(run, slow_stick));
        const std::string disk = run.machine.folder.path + "/cut_disk";
        for (const Cut &cut :
             choose_cuts(run.log, (cuts_wanted("QEL_COPY_CUTS", 2) + slow_stick) / 2, chance)) {
            make_cut_disk(disk, run.before, run.log, cut, chance);
            note_outcome(outcomes, describe(cut, run.log), try_cut_disk(disk));
        }
    }
    print_outcomes(outcomes, "cuts during a copy");
}
