// The 32-bit loader in its own cabinet, and there on what passes for an old kernel. All that is to be seen of
// it must be the same as of the 64-bit one. (CMakeLists.txt names further tests that run on both.)

#include "install_machine.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>

using testing::IsEmpty;

namespace
{

/// What was seen of a cabinet.
using Account = std::vector<std::string>;

/// A cabinet to look at: its target, and whether its kernel is to look old.
struct Kind {
    std::string target;
    bool old_kernel;
};
const Kind x86_64 = {"x86-64", false}, i586 = {"i586", false}, old_i586 = {"i586", true};

/// The console to where the application is about to start.
std::string start_up_lines(const Machine &machine)
{
    size_t end = machine.cabinet.console.find("run: ");
    EXPECT_NE(end, std::string::npos) << machine.cabinet.console;
    return machine.cabinet.console.substr(0, end);
}

Account board_records(const Machine &machine)
{
    Account records;
    for (const Event &event : machine.cabinet.events)
        if (event.kind == Event::command || event.kind == Event::lcd_row ||
            event.kind == Event::link_from_loader || event.kind == Event::other_record)
            records.push_back(std::to_string(event.kind) + " " + event.text);
    return records;
}

/// An ELF file's mark and its class: 1 in a 32-bit program, 2 in a 64-bit one.
std::string class_of_loader(Machine &machine)
{
    return look_inside(machine.cabinet, "head -c 5 /proc/1/exe | od -A n -t x1");
}

Account account_of_start(const Kind &kind)
{
    Machine machine(kind.target);
    machine.setup.old_kernel = kind.old_kernel;
    machine.storage = {{"qel_application_1", machine.recorder}};
    start(machine);
    EXPECT_TRUE(wait_for_recorder(machine, "qel_application_1"));
    EXPECT_TRUE(wait_for_recorder(machine, "Xfake"));
    EXPECT_EQ(class_of_loader(machine), kind.target == "i586" ? " 7f 45 4c 46 01\n" : " 7f 45 4c 46 02\n");
    if (kind.target == "i586") {
        EXPECT_EQ(look_inside(machine.cabinet, "sed -n 's/^Seccomp:\t//p' /proc/1/status"),
                  kind.old_kernel ? "2\n" : "0\n");
    }

    Account account = {start_up_lines(machine)};
    // What both programs were given, as the recorder writes it down before it looks for a Wine prefix.
    for (const std::string name : {"qel_application_1", "Xfake"})
        for (const std::string &note : notes_of(machine, name)) {
            if (note.starts_with("prefix "))
                break;
            account.push_back(name + " " + note);
        }
    for (const std::string &record : board_records(machine))
        account.push_back(record);
    // Kernels number disks and drivers differently.
    for (const char *command : {"tail -n +2 /proc/mounts", "find /dev | sort | xargs stat -c '%n %F %a'",
                                "stat -c '%n %T' /dev/qellpc_* /dev/snd/*", "readlink /qel_home",
                                "cd /proc/1/fd && for f in *; do readlink $f; done", "readlink /proc/1/cwd"})
        account.push_back(look_inside(machine.cabinet, command));
    return account;
}

/// Starts with a newer application on a stick.
Account account_of_copy(const Kind &kind)
{
    Machine machine(kind.target);
    machine.setup.old_kernel = kind.old_kernel;
    machine.storage = {{"qel_application_1", machine.recorder}};
    insert_stick(machine, {{"games/qel_application_2", machine.recorder}});
    start(machine);
    EXPECT_TRUE(wait_for_recorder(machine, "qel_application_2", 2));
    Account account = {start_up_lines(machine)};
    power_off(machine.cabinet);
    for (const std::string &name : storage_names(machine))
        account.push_back(name);
    EXPECT_TRUE(storage_file(machine, "qel_application_2") == read_file(machine.recorder));
    return account;
}

Account account_of_install(const Kind &kind)
{
    InstallMachine machine(kind.target);
    machine.setup.old_kernel = kind.old_kernel;
    add_archive(machine);
    start_install(machine);
    EXPECT_TRUE(wait_for_recorder(machine, "qel_application_1"))
        << machine.cabinet.console << read_file(machine.cabinet.scratch.path + "/kernel.log");

    Account account = tools_of(machine);
    account.push_back(start_up_lines(machine));
    power_off(machine.cabinet);
    EXPECT_THAT(disk_faults(machine), IsEmpty());
    for (const std::string &name : storage_names(machine))
        account.push_back(name);
    EXPECT_TRUE(storage_file(machine, "qel_application_1") == read_file(machine.recorder));
    return account;
}

/// A host connects, and then sends an updater.
Account account_of_update(const Kind &kind)
{
    const std::string connect("\x00\x00\x00\x0c\x66\x86\x05\x00\x00\x00\x0c\x00\x00\x00\x78\x56\x34\x12", 18);
    const std::string notice("\x00\x00\x00\x08\xb2\x55\x0b\x00\x00\x00\x08\x00\x00\x00", 14);
    Machine machine(kind.target);
    machine.setup.old_kernel = kind.old_kernel;
    machine.setup.board.mode = 3;
    start(machine);
    auto shown = [&](const std::string &text) {
        auto is_it = [&](const Event &event) { return event.text == text; };
        const std::vector<Event> &events = machine.cabinet.events;
        return wait_until(
            machine.cabinet, [&] { return std::any_of(events.begin(), events.end(), is_it); }, patience);
    };
    EXPECT_TRUE(shown("TOLBRIN Update..."));
    send_record(machine.cabinet, minor_host_comms, connect);
    EXPECT_TRUE(shown("*Connected*"));
    // A script of 39 bytes, in two records.
    send_record(
        machine.cabinet, minor_host_comms,
        std::string(
            "\x00\x00\x00\x33\xf6\xb3\x0a\x00\x00\x00\x33\x00\x00\x00\x4f\x00\x00\x00#!/bin/sh\nexec /b",
            35));
    send_record(machine.cabinet, minor_host_comms, "\x80in/busybox sleep 1000\n");
    EXPECT_TRUE(shown("Starting updater..."));
    EXPECT_TRUE(wait_until(
        machine.cabinet,
        [&] { return look_inside(machine.cabinet, "readlink /proc/1/exe") == "/bin/busybox\n"; }, patience));
    Account account = {machine.cabinet.console};
    for (const char *command :
         {"tr '\\0' ' ' </proc/1/cmdline", "head -c 39 /tmp/updater", "stat -c '%s %a' /tmp/updater"})
        account.push_back(look_inside(machine.cabinet, command));
    // How often the loader says that it is there is a matter of time.
    for (const std::string &record : board_records(machine))
        if (record.find(notice) == record.npos)
            account.push_back(record);
    return account;
}

struct Deed {
    const char *name;
    Account (*account)(const Kind &kind);
};

void PrintTo(const Deed &deed, std::ostream *stream)
{
    *stream << deed.name;
}

struct Cabinet32Bit : testing::TestWithParam<Deed> {
};

} // namespace

TEST_P(Cabinet32Bit, IsSeenToBehaveAsThe64BitOneAlsoOnAnOldKernel)
{
    Account account = GetParam().account(x86_64);
    EXPECT_EQ(GetParam().account(i586), account);
    EXPECT_EQ(GetParam().account(old_i586), account);
}

INSTANTIATE_TEST_SUITE_P(Deeds, Cabinet32Bit,
                         testing::Values(Deed{"Start", account_of_start}, Deed{"Copy", account_of_copy},
                                         Deed{"Install", account_of_install},
                                         Deed{"Update", account_of_update}),
                         [](const auto &test) { return std::string(test.param.name); });

// ---- The 32-bit cabinet's own ----

TEST(Hardware32Bit, HasAnIdeDiskAsHdcAndAFullSpeedStickAsSda)
{
    Machine machine("i586");
    machine.storage = {{"qel_application_1", machine.recorder}};
    start(machine);
    ASSERT_TRUE(wait_for_recorder(machine, "qel_application_1"));
    EXPECT_EQ(look_inside(machine.cabinet, "cat /sys/block/hdc/device/vendor /sys/block/hdc/device/model"),
              "ATA     \nQEMU HARDDISK   \n");
    EXPECT_EQ(look_inside(machine.cabinet, "cd -P /sys/block/hdc/device; echo ${PWD##*/ata}"),
              "2/host1/target1:0:0/1:0:0:0\n");
    // On the controller for USB 1, at 12 Mbit/s.
    const std::string image = machine.folder.path + "/stick.img";
    make_stick(image, {});
    monitor(machine.cabinet, "blockdev-add",
            {{"driver", "raw"}, {"node-name", "image"}, {"file", {{"driver", "file"}, {"filename", image}}}});
    monitor(machine.cabinet, "device_add",
            {{"driver", "usb-storage"}, {"drive", "image"}, {"bus", "usb1.0"}});
    auto there = [&] {
        return look_inside(machine.cabinet, "ls -d /sys/block/sda/sda1") == "/sys/block/sda/sda1\n";
    };
    EXPECT_TRUE(wait_until(machine.cabinet, there, patience));
    EXPECT_EQ(look_inside(machine.cabinet, "cd -P /sys/block/sda/device/../../../../..; cat speed"), "12\n");
}

/// Debian's 32-bit programs want a later processor: here the loader is alone on the RAM disk, and stops where
/// it asks the board.
TEST(Hardware32Bit, StartsItsLoaderOnAPentium)
{
    Machine machine("i586");
    machine.setup.hardware.processor = "pentium";
    machine.setup.kernel_words = "rdinit=/sbin/qel_application_loader";
    start(machine);
    const std::string log = machine.cabinet.scratch.path + "/kernel.log";
    auto asks = [&] {
        return std::filesystem::exists(log) &&
               read_file(log).find("qellpc_reserved2\r\n") != std::string::npos;
    };
    EXPECT_TRUE(wait_until(machine.cabinet, asks, patience));
    EXPECT_NE(read_file(log).find("QEL Loader...\r\nmount: /sys /proc\r\ndev:  qellpc_firmware"),
              std::string::npos)
        << read_file(log);
}
