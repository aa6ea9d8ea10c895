// The power goes: during an install, and while an application is copied from a stick. Longer runs:
// tests/long_run.sh.

#include "power_cuts.h"

#include "factory/disk_check.h"

#include <gmock/gmock.h>

namespace
{

/// More than outcome_of_start waits before it gives up.
const double machine_seconds_max = 4 * patience;

/// Starts the machine by itself: from the stick, or without one from the disk.
void start_from(Machine &machine, const std::string &disk, const std::string &stick)
{
    machine.setup.kernel.clear();
    machine.setup.internal_disk = disk;
    machine.setup.stick = stick;
    machine.setup.start_from_stick = !stick.empty();
    machine.setup.seconds_max = machine_seconds_max;
    start(machine);
}

bool runs_from(const std::string &disk, const std::string &stick)
{
    return start_in_time([&] {
        Machine machine;
        start_from(machine, disk, stick);
        return wait_for_recorder(machine, "qel_application_1");
    });
}

/// Starts a copy of the disk by itself.
Outcome outcome_from_disk(const std::string &disk, const std::set<std::string> &endings)
{
    return start_in_time([&] {
        Machine machine;
        const std::string copy = machine.folder.path + "/started_disk";
        run_tool({"cp", "--sparse=always", disk, copy});
        start_from(machine, copy, "");
        return outcome_of_start(machine, endings);
    });
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

// The disk that a cut leaves is first started by itself, and comes to one of the endings that
// docs/failures.md has for it; then it is installed again.
TEST(PowerCut, DuringAnInstallEndsAsDocumentedAndIsMendedByInstallingAgain)
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
    const std::set<std::string> endings = documented("### A cut during an install");
    Outcomes alone;
    for (const Cut &cut : choose_cuts(log, cuts_wanted("QEL_INSTALL_CUTS", 2), chance)) {
        make_cut_disk(disk, blank, log, cut, chance);
        const Outcome outcome = outcome_from_disk(disk, endings);
        note_outcome(alone, describe(cut, log), outcome.ending, outcome.more);
        EXPECT_TRUE(endings.contains(outcome.ending)) << "docs/failures.md does not have: " << outcome.ending;
        ASSERT_TRUE(runs_from(disk, factory.setup.stick)) << describe(cut, log);
        for (const Finding &finding : check_disk({disk, delivery.kernel, delivery.system_image}))
            EXPECT_TRUE(finding.good) << describe(cut, log) << ": " << finding.text;
        EXPECT_TRUE(runs_from(disk, "")) << describe(cut, log);
    }
    print_outcomes(alone, "cuts during an install; each disk then started without the stick");
}

TEST(PowerCut, ThatLeftAPartOfTheKernelEndsWithAHalt)
{
    InstallMachine factory;
    const Delivery delivery = take_factory_stick(factory);
    const std::string disk = factory.folder.path + "/disk", kernel = factory.folder.path + "/kernel";
    make_installed_disk(disk, delivery, [](const std::string &) {});
    std::string bytes = read_file(delivery.kernel);
    write_file(kernel, bytes.replace(bytes.size() / 2, 64 * 1024, 64 * 1024, '\0'));
    run_tool({"mcopy", "-o", "-i", mtools_name(disk, 1), kernel, "::vmlinux"});
    EXPECT_EQ(outcome_from_disk(disk, documented("### A cut during an install")).ending, "a halt");
}

TEST(PowerCut, ThatLeftHalfABootSectorEndsWithAHalt)
{
    InstallMachine factory;
    const std::string disk = factory.folder.path + "/disk";
    make_installed_disk(disk, take_factory_stick(factory), [](const std::string &) {});
    // Where the sector's first jump leads stands no instruction (0F 0B).
    write_file_at(disk, file_with(factory, "no_instruction", "\x0f\x0b"),
                  find_partition(disk, 1).offset + 0x5a);
    EXPECT_EQ(outcome_from_disk(disk, documented("### A cut during an install")).ending, "a halt");
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
    machine.storage = {{old_name, machine.recorder}};
    make_disk(machine);
    run_tool({"cp", "--sparse=always", machine.setup.internal_disk, run.before});
    machine.setup.write_log = machine.folder.path + "/write_log";
    write_file(machine.setup.write_log, "");
    if (slow_stick) {
        machine.setup.kernel_words =
            "sysctl.vm.dirty_expire_centisecs=10 sysctl.vm.dirty_writeback_centisecs=10";
        expect_stick(machine);
        start(machine);
        plug_in_slow_stick(machine, {{new_name, machine.recorder}}, 200000);
    } else {
        insert_stick(machine, {{new_name, machine.recorder}});
        start(machine);
    }
    ASSERT_TRUE(wait_for_recorder(machine, new_name));
    power_off(machine.cabinet);
    run.log = read_write_log(machine.setup.write_log);
    expect_log_tells_all(machine, run.log, run.before);
}

/// Whether each sector of a part is either the whole's at the same place, or zeros, which the disk held
/// before.
bool misses_only_pieces(const std::string &part, const std::string &whole)
{
    const size_t sector = 512;
    for (size_t at = 0; at < part.size(); at += sector) {
        const std::string piece = part.substr(at, sector);
        if (piece != whole.substr(at, piece.size()) && piece != std::string(piece.size(), '\0'))
            return false;
    }
    return part.size() <= whole.size();
}

/// What a disk holds under the new application's name, in the words of docs/failures.md.
std::string state_of_copy(const std::string &disk)
{
    ScratchFolder folder;
    const std::string copy = folder.path + "/copy", whole = read_file(Machine().recorder);
    if (run_tool({"mdir", "-b", "-i", mtools_name(disk, 3), "::"}).find(new_name) == std::string::npos)
        return "no new one";
    try {
        run_tool({"mcopy", "-i", mtools_name(disk, 3), "::" + std::string(new_name), copy});
    } catch (const std::runtime_error &) {
        return "a name whose content cannot be found";
    }
    const std::string part = read_file(copy);
    if (part == whole)
        return "the whole new one";
    if (part.empty())
        return "an empty file";
    if (whole.starts_with(part))
        return "its first part";
    return misses_only_pieces(part, whole) ? "a part with pieces missing" : "damaged";
}

/// Starts a machine from such a disk, with a stick that holds this application, or with none.
Outcome start_with(const std::string &disk, const std::string &application)
{
    return start_in_time([&] {
        Machine machine;
        // Each start has the disk as the cut left it.
        machine.setup.internal_disk = machine.folder.path + "/started_disk";
        machine.setup.seconds_max = machine_seconds_max;
        run_tool({"cp", "--sparse=always", disk, machine.setup.internal_disk});
        if (!application.empty())
            insert_stick(machine, {{application, machine.recorder}});
        start(machine);
        return outcome_of_start(machine, {});
    });
}

std::string in_words(const Outcome &outcome)
{
    return outcome.ending + " (" + outcome.more + ")";
}

void expect_runs(const Outcome &outcome, const std::string &application)
{
    EXPECT_EQ(in_words(outcome), "the application (" + application + ")");
}

/// The part of the new application is taken: it fails, it crashes, or it runs as far as it goes.
void expect_takes_the_part(const Outcome &outcome)
{
    EXPECT_THAT(outcome.ending, testing::AnyOf("exec failed, again and again", "a crash, again and again",
                                               "the application"));
    EXPECT_THAT(outcome.more, testing::StartsWith(new_name));
}

/// Starts a disk that a cut left, in every way, and says what came of it.
std::string try_cut_disk(const std::string &disk)
{
    const std::string state = state_of_copy(disk);
    EXPECT_TRUE(documented("### A cut while a newer application is copied").contains(state))
        << "docs/failures.md does not have: " << state;
    const Outcome alone = start_with(disk, ""), same_stick = start_with(disk, new_name);
    if (state == "no new one") {
        expect_runs(alone, old_name);
        expect_runs(same_stick, new_name);
    } else if (state == "the whole new one") {
        expect_runs(alone, new_name);
        expect_runs(same_stick, new_name);
    } else {
        expect_takes_the_part(alone);
        expect_takes_the_part(same_stick);
        EXPECT_EQ(same_stick.ending, alone.ending);
        if (state == "an empty file") {
            EXPECT_EQ(alone.ending, "exec failed, again and again");
        }
    }
    if (state != "the whole new one")
        expect_runs(start_with(disk, still_greater_name), still_greater_name);
    return state + "; alone: " + in_words(alone) + "; with the stick: " + in_words(same_stick);
}

} // namespace

// Each disk is started by itself, with the same stick, and with a stick that has a still greater name. What
// is accepted stands in try_cut_disk and, for people, in docs/failures.md.
TEST(PowerCut, WhileAnApplicationIsCopiedLeavesTheOldOneTheNewOneOrAPartOfItThatTheNextNameReplaces)
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
