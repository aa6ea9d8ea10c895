// Sticks as people have them: partitioned otherwise or not at all, damaged, full of files, two at once.

#include "install_machine.h"

#include <gmock/gmock.h>
#include <stdlib.h>

#include <algorithm>

using testing::ContainsRegex;
using testing::HasSubstr;

namespace
{

/// A FAT of 32 MB without a partition table, which holds `file` under this name. The FAT begins at byte 512;
/// the file has the clusters from number 2 on, of 4096 bytes each.
std::string make_plain_fat(Machine &machine, const std::string &name, const std::string &file)
{
    const std::string image = machine.folder.at("fat.img");
    run_tool({"mkfs.fat", "-a", "-R", "1", "-s", "8", "-F", "16", "-C", image, "32768"});
    run_tool({"mcopy", "-i", image, file, "::" + name});
    return image;
}

void insert_image(Machine &machine, const std::string &image, const std::string &wait_for = "/sys/block/sda")
{
    machine.setup.stick = image;
    machine.setup.wait_for = {wait_for};
}

/// Pumps until these are the kernel's disks on USB, one a line.
bool wait_for_disks(Machine &machine, const std::string &disks)
{
    auto there = [&] { return look_inside(machine.cabinet, "cd /sys/block; ls | grep ^sd") == disks; };
    return wait_until(machine.cabinet, there, patience);
}

/// How often a program in the machine has noted this.
long count_notes(const Machine &machine, const std::string &text)
{
    const std::vector<Event> &events = machine.cabinet.events;
    return std::count_if(events.begin(), events.end(),
                         [&](const Event &event) { return event.kind == Event::note && event.text == text; });
}

} // namespace

// ---- Partitions ----

TEST(SeveralPartitions, AreEachMountedAndSearched)
{
    Machine machine;
    const std::string stick = file_with(machine, "stick.img", std::string(64 * mebibyte, '\0'));
    run_tool({"sfdisk", "--quiet", "--label", "dos", stick}, "stick1: size=16M, type=e\n"
                                                             "stick2: size=8M, type=83\n"
                                                             "stick3: type=f\n"
                                                             "stick5: start=30M, type=e\n");
    make_vfat(stick, 1, {{"qel_application_2", machine.recorder}});
    write_file_at(stick, make_plain_fat(machine, "qel_application_3", machine.recorder), 30 * mebibyte);
    insert_image(machine, stick, "/sys/block/sda/sda5");
    start(machine);

    ASSERT_TRUE(wait_for_recorder(machine, "qel_application_3"));
    for (const char *line : {"sda1 mounted\n", "sda2 not mounted\n", "sda3 not mounted\n", "sda5 mounted\n"})
        EXPECT_THAT(machine.cabinet.console, HasSubstr(line));
    EXPECT_TRUE(shows(machine, "copy: /disk/sda5/qel_application_3 -> /storage/qel_application_3\n"));
    EXPECT_EQ(look_inside(machine.cabinet, "ls /disk/*"),
              "/disk/sda1:\nqel_application_2\n\n/disk/sda5:\nqel_application_3\n");
}

TEST(NoPartitionTable, MountsTheWholeStick)
{
    Machine machine;
    insert_image(machine, make_plain_fat(machine, "qel_application_2", machine.recorder));
    start(machine);

    ASSERT_TRUE(wait_for_recorder(machine, "qel_application_2"));
    EXPECT_TRUE(shows(machine, "mount:sda mounted\n\nmount: /usr /storage\n")) << machine.cabinet.console;
    EXPECT_TRUE(shows(machine, "copy: /disk/sda/qel_application_2 -> /storage/qel_application_2\n"));
}

TEST(NoPartitionTable, LetsAnInstallWaitForAnotherStick)
{
    InstallMachine machine;
    add_archive(machine);
    const std::string good_stick = machine.folder.at("good.img");
    make_stick(good_stick, machine.stick);
    insert_image(machine, make_plain_fat(machine, "vmlinux", kernel_stand_in(machine)));
    start(machine);

    ASSERT_TRUE(wait_for_console(machine.cabinet, "Waiting for external media...", patience));
    EXPECT_TRUE(wait_for_disks(machine, "sda\n"));
    pull_out_stick(machine.cabinet);
    ASSERT_TRUE(wait_for_disks(machine, ""));
    plug_in_stick(machine.cabinet, good_stick, "good");
    ASSERT_TRUE(wait_for_recorder(machine, "qel_application_1"));
    EXPECT_THAT(machine.cabinet.console, ContainsRegex("external media\\.+\ndev: [^\n]* sda sda1\n"));
}

// ---- A damaged FAT ----

/// A read error counts as the end of the file.
TEST(DamagedFat, GivesThePartOfTheApplicationThatCanBeRead)
{
    Machine machine;
    const std::string whole =
        "#!/bin/sh\necho part >/cabinet/note\n" + std::string(10000, '\n') + "echo whole >/cabinet/note\n";
    const std::string stick =
        make_plain_fat(machine, "qel_application_2", file_with(machine, "whole", whole));
    // The file's second cluster, number 3, leads to a free one.
    write_file_at(stick, file_with(machine, "free", std::string(2, '\0')), 512 + 2 * 3);
    insert_image(machine, stick);
    start(machine);
    ASSERT_TRUE(wait_for_console(machine.cabinet, "run: /storage/qel_application_2\n", patience));

    Machine next;
    start_again(next, machine);
    ASSERT_TRUE(wait_until(
        next.cabinet, [&] { return count_notes(next, "part") >= 2; }, patience));
    EXPECT_EQ(count_notes(next, "whole"), 0);
    power_off(next.cabinet);
    EXPECT_EQ(storage_file(next, "qel_application_2"), whole.substr(0, 8192));
}

TEST(DamagedFat, WithAFolderThatHoldsItselfStopsTheSearch)
{
    Machine machine;
    machine.storage = {{"qel_application_1", machine.recorder}};
    const std::string stick = make_plain_fat(machine, "readme.txt", machine.recorder);
    run_tool({"mmd", "-i", stick, "::LOOP", "::LOOP/LOOP"});
    // Bytes 26 and 27 of a folder's entry are its first cluster.
    std::string bytes = read_file(stick);
    const std::string entry = "LOOP       \x10";
    bytes.replace(bytes.rfind(entry) + 26, 2, bytes, bytes.find(entry) + 26, 2);
    write_file(stick, bytes);
    insert_image(machine, stick);
    start(machine);

    EXPECT_EQ(wait_until_parked(machine), "KCW433");
    EXPECT_TRUE(machine.cabinet.console.ends_with("mount: /usr /storage\n")) << machine.cabinet.console;
}

// ---- Files ----

TEST(TenThousandFiles, AreSearchedToTheLast)
{
    Machine machine;
    const std::string photo = file_with(machine, "photo", "a photo\n");
    std::vector<FileAt> files = {{"FOLDER19/more/qel_application_2", machine.recorder}};
    for (int i = 0; i < 10000; ++i)
        files.push_back({"FOLDER" + std::to_string(i / 500) + "/IMG" + std::to_string(i) + ".JPG", photo});
    insert_stick(machine, files);
    start(machine);

    ASSERT_TRUE(wait_for_recorder(machine, "qel_application_2"));
    EXPECT_TRUE(shows(machine, "\ncandidate: /disk/sda1/FOLDER19/more/qel_application_2\n"
                               "copy: /disk/sda1/FOLDER19/more/qel_application_2 -> "
                               "/storage/qel_application_2\n"));
    EXPECT_EQ(look_inside(machine.cabinet, "find /disk/sda1 -type f | wc -l"), "10001\n");
}

/// The cabinet's kernel shows names in Latin-1, and a question mark, which no path may have, for other
/// letters.
struct NamesInUtf8 : testing::Test {
    Machine machine;

    void insert(const std::string &place)
    {
        setenv("LC_ALL", "C.UTF-8", 1); // for mtools
        machine.storage = {{"qel_application_1", machine.recorder}};
        insert_stick(machine, {{"Привет.txt", machine.recorder}, {place, machine.recorder}});
        start(machine);
    }
};

TEST_F(NamesInUtf8, AreKeptWhenTheApplicationIsCopied)
{
    insert("für Märchen/qel_application_é");
    ASSERT_TRUE(wait_for_recorder(machine, "qel_application_\xe9"));
    EXPECT_TRUE(shows(machine, "copy: /disk/sda1/f\xfcr M\xe4rchen/qel_application_\xe9 -> "
                               "/storage/qel_application_\xe9\n"));
    power_off(machine.cabinet);
    EXPECT_TRUE(storage_file(machine, "qel_application_é") == read_file(machine.recorder));
}

TEST_F(NamesInUtf8, StopTheSearchAtAFolderWithOtherLetters)
{
    insert("Фото/readme.txt");
    EXPECT_EQ(wait_until_parked(machine), "KCW429");
    EXPECT_TRUE(machine.cabinet.console.ends_with("ERROR - qel_utility/qel_filesystem:429 - qel_opendir() - "
                                                  "Path is not absolute: \"/disk/sda1/????\"\n"))
        << machine.cabinet.console;
}

TEST_F(NamesInUtf8, StopTheCopyOfAnApplicationWithOtherLetters)
{
    insert("qel_application_новый");
    EXPECT_EQ(wait_until_parked(machine), "KCW583");
    EXPECT_THAT(machine.cabinet.console, HasSubstr("copy: /disk/sda1/qel_application_????? -> "));
}

// ---- More than one, more than once ----

TEST(TwoSticks, AreBothMountedAndTheGreaterNameWins)
{
    Machine machine;
    const std::string second = machine.folder.at("second.img");
    make_stick(second, {{"qel_application_3", machine.recorder}});
    insert_stick(machine, {{"qel_application_2", machine.recorder}});
    machine.setup.wait_for.push_back("/sys/block/sdb/sdb1");
    start(machine);
    plug_in_stick(machine.cabinet, second, "second");

    ASSERT_TRUE(wait_for_recorder(machine, "qel_application_3"));
    for (const char *line : {"sda1 mounted\n", "sda not mounted\n", "sdb1 mounted\n", "sdb not mounted\n"})
        EXPECT_THAT(machine.cabinet.console, HasSubstr(line));
    EXPECT_THAT(machine.cabinet.console,
                ContainsRegex("\ncopy: /disk/sd[ab]1/qel_application_3 -> /storage/qel_application_3\n"));
    power_off(machine.cabinet);
    EXPECT_EQ(storage_names(machine), std::vector<std::string>{"::/qel_application_3"});
}

TEST(PulledAndPutBack, StaysUnusedUntilTheNextStart)
{
    Machine machine, next;
    machine.storage = {{"qel_application_1", machine.recorder}};
    insert_stick(machine, {{"readme.txt", machine.recorder}});
    start(machine);
    ASSERT_TRUE(wait_for_recorder(machine, "qel_application_1"));

    // Its mount holds the old name, so that it comes back under another.
    pull_out_stick(machine.cabinet);
    ASSERT_TRUE(wait_for_disks(machine, ""));
    const std::string stick = next.setup.stick = machine.folder.at("again.img");
    make_stick(stick, {{"qel_application_2", machine.recorder}});
    plug_in_stick(machine.cabinet, stick, "again");
    ASSERT_TRUE(wait_for_disks(machine, "sdb\n"));
    const int runs = count_starts(machine.cabinet, "/storage/");
    ASSERT_TRUE(wait_for_start(machine, "/storage/", runs + 3));
    EXPECT_EQ(look_inside(machine.cabinet, "ls /disk"), "sda1\n");

    expect_stick(next);
    start_again(next, machine);
    EXPECT_TRUE(wait_for_recorder(next, "qel_application_2"));
}
