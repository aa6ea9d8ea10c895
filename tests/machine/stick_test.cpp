// USB sticks: where the application is taken from, and what stays on the internal disk.

#include "machine_test.h"

namespace
{

using Lines = std::vector<std::string>;

/// A script that says its own name and `text`, so that it is seen which copy runs.
std::string script_saying(Machine &machine, const std::string &file, const std::string &text)
{
    return file_with(machine, file, "#!/bin/sh\necho $0 " + text + " >/cabinet/note\n/bin/busybox sleep 1\n");
}

bool wait_for_note(Machine &machine, const std::string &text)
{
    auto noted = [&] {
        for (const Event &event : machine.cabinet.events)
            if (event.kind == Event::note && event.text == text)
                return true;
        return false;
    };
    return wait_until(machine.cabinet, noted, patience);
}

bool shows(const Machine &machine, const std::string &text)
{
    return machine.cabinet.console.find(text) != std::string::npos;
}

const char *const storage_is_read_only = "grep -c '^/dev/disk/hdc3 /storage vfat ro,' /proc/mounts";

} // namespace

TEST(Stick, MountsReadOnlyUnderDisk)
{
    Machine machine;
    machine.storage = {{"qel_application_1", machine.recorder}};
    insert_stick(machine, {{"readme.txt", file_with(machine, "readme", "from the stick\n")}});
    start(machine);

    ASSERT_TRUE(wait_for_recorder(machine, "qel_application_1"));
    // The RAM disk lists /dev/disk with the newest node first.
    EXPECT_TRUE(shows(machine, " hdc1 sda sda1\n"
                               "mount:sda1 mounted\n"
                               "sda not mounted\n"
                               "\n"
                               "mount: /usr /storage\n"))
        << machine.cabinet.console;
    EXPECT_EQ(look_inside(machine.cabinet, "grep -c '^/dev/disk/sda1 /disk/sda1 vfat ro,' /proc/mounts"),
              "1\n");
    EXPECT_EQ(look_inside(machine.cabinet, "ls /disk"), "sda1\n");
    EXPECT_EQ(look_inside(machine.cabinet, "cat /disk/sda1/readme.txt"), "from the stick\n");
}

TEST(Stick, BringsANewerApplicationThatStays)
{
    Machine machine;
    machine.storage = {{"qel_application_1", script_saying(machine, "old", "old")}};
    insert_stick(machine, {{"qel_application_2", script_saying(machine, "new", "new")}});
    start(machine);

    ASSERT_TRUE(wait_for_note(machine, "/storage/qel_application_2 new"));
    EXPECT_TRUE(shows(machine, "candidate: /storage/qel_application_1\n"
                               "candidate: /disk/sda1/qel_application_2\n"
                               "copy: /disk/sda1/qel_application_2 -> /storage/qel_application_2\n"));
    EXPECT_EQ(look_inside(machine.cabinet, storage_is_read_only), "1\n");

    Machine next;
    start_again(next, machine);
    EXPECT_TRUE(wait_for_note(next, "/storage/qel_application_2 new"));
    EXPECT_FALSE(shows(next, "copy: "));
    power_off(next.cabinet);

    EXPECT_EQ(storage_names(next), (Lines{"::/qel_application_1", "::/qel_application_2"}));
    EXPECT_EQ(storage_file(next, "qel_application_2"), read_file(machine.folder.path + "/new"));
    EXPECT_EQ(storage_file(next, "qel_application_1"), read_file(machine.folder.path + "/old"));
}

TEST(Stick, CopiesAnApplicationLargerThanAnyBufferByteForByte)
{
    Machine machine;
    std::string program = read_file(machine.recorder);
    insert_stick(machine, {{"qel_application_2", machine.recorder}});
    start(machine);

    ASSERT_TRUE(wait_for_recorder(machine, "qel_application_2"));
    power_off(machine.cabinet);
    EXPECT_GT(program.size(), 100000U);
    EXPECT_TRUE(storage_file(machine, "qel_application_2") == program);
}

TEST(Stick, LosesAgainstTheSameNameOnStorage)
{
    Machine machine;
    machine.storage = {{"qel_application_1", script_saying(machine, "internal", "internal")}};
    insert_stick(machine, {{"qel_application_1", script_saying(machine, "stick", "stick")}});
    start(machine);

    ASSERT_TRUE(wait_for_note(machine, "/storage/qel_application_1 internal"));
    EXPECT_FALSE(shows(machine, "copy: "));
    EXPECT_FALSE(shows(machine, "candidate: /disk"));
    power_off(machine.cabinet);
    EXPECT_EQ(storage_file(machine, "qel_application_1"), read_file(machine.folder.path + "/internal"));
}

TEST(Stick, LosesWithAnOlderName)
{
    Machine machine;
    machine.storage = {{"qel_application_2", script_saying(machine, "internal", "internal")}};
    insert_stick(machine, {{"qel_application_10", script_saying(machine, "stick", "stick")}});
    start(machine);

    // Names are compared byte by byte: 10 is older than 2.
    ASSERT_TRUE(wait_for_note(machine, "/storage/qel_application_2 internal"));
    EXPECT_FALSE(shows(machine, "copy: "));
}

TEST(Stick, IsSearchedInItsFoldersToo)
{
    Machine machine;
    machine.storage = {{"qel_application_1", script_saying(machine, "old", "old")}};
    insert_stick(machine, {{"updates/may/qel_application_2", script_saying(machine, "new", "new")}});
    start(machine);

    ASSERT_TRUE(wait_for_note(machine, "/storage/qel_application_2 new"));
    EXPECT_TRUE(
        shows(machine, "copy: /disk/sda1/updates/may/qel_application_2 -> /storage/qel_application_2\n"));
}

TEST(Stick, ThatIsNotVfatIsReportedAndSkipped)
{
    Machine machine;
    machine.storage = {{"qel_application_1", machine.recorder}};
    machine.setup.stick = machine.folder.path + "/stick.img";
    make_stick_without_file_system(machine.setup.stick);
    machine.setup.wait_for = {"/sys/block/sda/sda1"};
    start(machine);

    ASSERT_TRUE(wait_for_recorder(machine, "qel_application_1"));
    EXPECT_TRUE(shows(machine, "mount:sda1 not mounted\n"
                               "sda not mounted\n"
                               "\n"
                               "mount: /usr /storage\n"))
        << machine.cabinet.console;
    EXPECT_EQ(look_inside(machine.cabinet, "ls -A /disk"), "");
}

TEST(Stick, MayBePulledOutWhileTheApplicationItBroughtRuns)
{
    Machine machine;
    insert_stick(machine, {{"qel_application_2", machine.recorder}});
    start(machine);

    ASSERT_TRUE(wait_for_recorder(machine, "qel_application_2"));
    pull_out_stick(machine.cabinet);
    EXPECT_TRUE(wait_for_recorder(machine, "qel_application_2", 4));
}
