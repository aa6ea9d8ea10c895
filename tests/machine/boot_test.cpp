// A normal start: what is on the console, and what the machine looks like from inside afterwards.

#include "machine_test.h"

namespace
{

/// Starts a machine with an application and waits until it runs.
void start_with_application(Machine &machine)
{
    machine.storage = {{"qel_application_1", machine.recorder}};
    start(machine);
    ASSERT_TRUE(wait_for_recorder(machine, "qel_application_1"));
    ASSERT_TRUE(wait_for_recorder(machine, "Xfake"));
}

using Lines = std::vector<std::string>;

} // namespace

TEST(NormalBoot, PrintsTheStartUpSequence)
{
    Machine machine;
    start_with_application(machine);

    // Sound and disk nodes come in the order in which this kernel lists its folders.
    EXPECT_EQ(machine.cabinet.console.substr(0, machine.cabinet.console.find("run: ")),
              "QEL Loader...\n"
              "mount: /sys /proc\n"
              "dev:  qellpc_firmware qellpc_midi qellpc_lcd qellpc_command qellpc_button qellpc_test"
              " qellpc_console qellpc_host_comms qellpc_reserved1 qellpc_reserved2\n"
              "Want console...\n"
              "dev:  controlC0 pcmC0D0c timer pcmC0D0p hdc hdc2 hdc3 hdc1\n"
              "mount:\n"
              "mount: /usr /storage\n"
              "/tmp -> /qel_home\n"
              "candidate: /storage/qel_application_1\n"
              "removing dir tree \"/qel_home/.wine\"\n");
    EXPECT_TRUE(wait_for_console(machine.cabinet, "run: /storage/qel_application_1\n", patience));
}

TEST(NormalBoot, MakesTheBoardNodesWithTheDriversNumbers)
{
    Machine machine;
    start_with_application(machine);

    // The driver has major number 252 (fc) here. A new process may not let everybody write (umask 022),
    // and the first one is no exception.
    EXPECT_EQ(look_inside(machine.cabinet, "grep qellpc /proc/devices"), "252 qellpc\n");
    EXPECT_EQ(look_inside(machine.cabinet, "stat -c '%n %F %a %t:%T' /dev/qellpc_*"),
              "/dev/qellpc_button character special file 644 fc:4\n"
              "/dev/qellpc_command character special file 644 fc:3\n"
              "/dev/qellpc_console character special file 644 fc:6\n"
              "/dev/qellpc_firmware character special file 644 fc:0\n"
              "/dev/qellpc_host_comms character special file 644 fc:7\n"
              "/dev/qellpc_lcd character special file 644 fc:2\n"
              "/dev/qellpc_midi character special file 644 fc:1\n"
              "/dev/qellpc_reserved1 character special file 644 fc:8\n"
              "/dev/qellpc_reserved2 character special file 644 fc:9\n"
              "/dev/qellpc_test character special file 644 fc:5\n");
}

TEST(NormalBoot, MakesSoundAndDiskNodesAsTheKernelNumbersThem)
{
    Machine machine;
    start_with_application(machine);

    // Sound is major 116 (74), virtio disks are major 254 (fe) here. card0 has no number and so no node.
    EXPECT_EQ(look_inside(machine.cabinet, "stat -c '%n %F %a %t:%T' /dev/snd/* /dev/disk/*"),
              "/dev/snd/controlC0 character special file 644 74:0\n"
              "/dev/snd/pcmC0D0c character special file 644 74:18\n"
              "/dev/snd/pcmC0D0p character special file 644 74:10\n"
              "/dev/snd/timer character special file 644 74:21\n"
              "/dev/disk/hdc block special file 644 fe:0\n"
              "/dev/disk/hdc1 block special file 644 fe:1\n"
              "/dev/disk/hdc2 block special file 644 fe:2\n"
              "/dev/disk/hdc3 block special file 644 fe:3\n");
    EXPECT_EQ(look_inside(machine.cabinet, "cat /sys/block/hdc/hdc3/dev /sys/class/sound/pcmC0D0c/dev"),
              "254:3\n116:24\n");
    EXPECT_EQ(look_inside(machine.cabinet, "ls /sys/class/sound"),
              "card0\ncontrolC0\npcmC0D0c\npcmC0D0p\ntimer\n");
}

TEST(NormalBoot, MountsSystemAndStorageReadOnly)
{
    Machine machine;
    start_with_application(machine);

    EXPECT_EQ(look_inside(machine.cabinet, "tail -n +2 /proc/mounts | cut -d ' ' -f 1-4 | cut -d , -f 1"),
              "sysfs /sys sysfs rw\n"
              "proc /proc proc rw\n"
              "none /proc/bus/usb usbfs rw\n"
              "/dev/disk/hdc2 /usr cramfs ro\n"
              "/dev/disk/hdc3 /storage vfat ro\n");
}

TEST(NormalBoot, LinksTheHomeFolderToTheRamDisk)
{
    Machine machine;
    start_with_application(machine);

    EXPECT_EQ(look_inside(machine.cabinet, "readlink /qel_home"), "/tmp\n");
}

TEST(NormalBoot, RunsAsProcessOneFromStorageWithTheCommandDeviceOpen)
{
    Machine machine;
    start_with_application(machine);

    EXPECT_EQ(look_inside(machine.cabinet, "readlink /proc/1/exe"), "/sbin/qel_application_loader\n");
    EXPECT_EQ(look_inside(machine.cabinet, "readlink /proc/1/cwd"), "/storage\n");
    EXPECT_EQ(look_inside(machine.cabinet, "cd /proc/1/fd && for f in *; do echo $f $(readlink $f); done"),
              "0 /cabinet/console\n"
              "1 /cabinet/console\n"
              "2 /cabinet/console\n"
              "3 /dev/qellpc_command\n");
}

TEST(NormalBoot, AsksTheBoardForTheModeAndNothingElse)
{
    Machine machine;
    start_with_application(machine);

    Lines commands;
    for (const Event &event : machine.cabinet.events) {
        if (event.kind == Event::command)
            commands.push_back(event.text);
        EXPECT_NE(event.kind, Event::lcd_row);
        EXPECT_NE(event.kind, Event::link_from_loader);
        EXPECT_NE(event.kind, Event::other_record);
    }
    EXPECT_EQ(commands, Lines{"\x05"});
}

TEST(NormalBoot, StartsTheApplicationWithItsPathAloneAndTheFixedEnvironment)
{
    Machine machine;
    start_with_application(machine);

    Lines notes = notes_of(machine, "qel_application_1");
    notes.resize(9);
    EXPECT_EQ(notes,
              (Lines{"argument /storage/qel_application_1", "variable HOME=/qel_home", "variable TERM=linux",
                     "variable WINEDEBUG=fixme-all,warn-all", "variable LD_LIBRARY_PATH=/usr/xorg/lib",
                     "variable DISPLAY=unix:0", "folder /storage", "prefix absent", "done"}));
}

TEST(NormalBoot, StartsTheXServerWithItsOptionsAndTheFixedEnvironment)
{
    Machine machine;
    start_with_application(machine);

    Lines notes = notes_of(machine, "Xfake");
    // It is started before the loader goes to /storage. Whether the application has made its prefix by then
    // is not settled.
    notes.resize(10);
    EXPECT_EQ(notes, (Lines{"argument /usr/xorg/bin/Xfake", "argument -nolisten", "argument tcp",
                            "argument -kb", "variable HOME=/qel_home", "variable TERM=linux",
                            "variable WINEDEBUG=fixme-all,warn-all", "variable LD_LIBRARY_PATH=/usr/xorg/lib",
                            "variable DISPLAY=unix:0", "folder /"}));
}

TEST(NormalBoot, IgnoresAnArgumentThatOnlyBeginsLikeTheInstallArgument)
{
    Machine machine;
    machine.setup.loader_words = "qelinstallx qelinst";
    start_with_application(machine);

    EXPECT_EQ(look_inside(machine.cabinet, "tr '\\0' ' ' </proc/1/cmdline"), "/init qelinstallx qelinst ");
    EXPECT_EQ(machine.cabinet.console.find("Waiting for external media"), std::string::npos);
}
