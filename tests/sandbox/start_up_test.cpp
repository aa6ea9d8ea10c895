// The start-up sequence up to the application: its order, its arguments, its modes, its nodes and mounts.

#include "sandbox/cabinet.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <algorithm>

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;

static const char loader_environment[] =
    "[HOME=/qel_home TERM=linux WINEDEBUG=fixme-all,warn-all LD_LIBRARY_PATH=/usr/xorg/lib DISPLAY=unix:0]";

// ---- The order ----

TEST(StartUp, WithTheConsoleTellsEveryStepInOrder)
{
    Cabinet cabinet;
    cabinet.plug_in_stick();
    cabinet.add_program(Cabinet::storage("/qel_application_1"), "exit 0\n");
    cabinet.start();
    EXPECT_TRUE(cabinet.matches("start_up_mode_1.txt"));
}

TEST(StartUp, WithoutTheConsoleTakesTheSameStepsAndIsSilentAfterTheBoardsNodes)
{
    Cabinet cabinet;
    cabinet.mode = 0;
    cabinet.add_program(Cabinet::storage("/qel_application_1"), "exit 0\n");
    cabinet.start();
    EXPECT_TRUE(cabinet.matches("start_up_mode_0.txt"));
}

TEST(StartUp, GivesTheXServerItsArgumentsAndEnvironment)
{
    Cabinet cabinet;
    cabinet.add_program(Cabinet::storage("/qel_application_1"));
    cabinet.start();
    EXPECT_THAT(
        cabinet.await_child(1),
        ElementsAre(std::string("execve /usr/xorg/bin/Xfake [/usr/xorg/bin/Xfake -nolisten tcp -kb] ") +
                        loader_environment,
                    "arguments [/usr/xorg/bin/Xfake -nolisten tcp -kb]",
                    std::string("environment ") + loader_environment, "folder /",
                    "streams console console console", "prefix fresh"));
}

TEST(StartUp, GivesTheApplicationItsPathTheEnvironmentAndTheFolderStorage)
{
    Cabinet cabinet;
    cabinet.add_program(Cabinet::storage("/qel_application_1"));
    cabinet.start();
    EXPECT_THAT(cabinet.await_child(2),
                ElementsAre(std::string("execve /storage/qel_application_1 [/storage/qel_application_1] ") +
                                loader_environment,
                            "arguments [/storage/qel_application_1]",
                            std::string("environment ") + loader_environment, "folder /storage",
                            "streams console console console", "prefix fresh"));
}

// ---- The mode byte ----

TEST(ModeByte, Of0PointsTheStreamsOfLoaderXServerAndApplicationAtDevNull)
{
    Cabinet cabinet;
    cabinet.mode = 0;
    cabinet.add_program(Cabinet::storage("/qel_application_1"));
    cabinet.start();
    EXPECT_THAT(cabinet.await_child(1), Contains("streams /dev/null /dev/null /dev/null"));
    EXPECT_THAT(cabinet.await_child(2), Contains("streams /dev/null /dev/null /dev/null"));
    // Descriptor 3 is the board's command device, played by another /dev/null.
    using Descriptor = std::pair<const int, std::string>;
    EXPECT_THAT(cabinet.descriptors(), ElementsAre(Descriptor(0, "/dev/null"), Descriptor(1, "/dev/null"),
                                                   Descriptor(2, "/dev/null"), Descriptor(3, "/dev/null")));
}

/// 1 when the loader asked the console to stay, 0 when it silenced itself.
static int keeps_console(int mode)
{
    Cabinet cabinet;
    cabinet.mode = mode;
    cabinet.add_program(Cabinet::storage("/qel_application_1"));
    cabinet.start();
    cabinet.await_child(2);
    const int wants = !cabinet.transcript().lines("console \"Want console...\\n\"").empty();
    const int silences = !cabinet.transcript().lines("open /dev/null").empty();
    EXPECT_NE(wants, silences);
    return wants;
}

TEST(ModeByte, AsksForTheConsoleWithItsLowestBitAlone)
{
    EXPECT_TRUE(keeps_console(1));
    EXPECT_TRUE(keeps_console(5));
    EXPECT_TRUE(keeps_console(0xFD));
    EXPECT_FALSE(keeps_console(0));
    EXPECT_FALSE(keeps_console(4));
    EXPECT_FALSE(keeps_console(0x80));
}

// ---- Arguments ----

/// 1 when a start with these arguments after the program name waits for a stick.
static int selects_install_mode(const std::vector<std::string> &arguments,
                                const std::string &program_name = "/init")
{
    Cabinet cabinet;
    cabinet.program_name = program_name;
    cabinet.start(arguments);
    const auto after_mode = [&]() -> std::string {
        const std::vector<std::string> &lines = cabinet.transcript().lines();
        const auto found = std::find(lines.begin(), lines.end(), "console \"Want console...\\n\"");
        return lines.end() - found < 2 ? "" : found[1];
    };
    cabinet.await("the step after the mode byte", [&] { return !after_mode().empty(); });
    EXPECT_THAT(after_mode(), testing::AnyOf("console \"Waiting for external media\"", "console \"dev: \""));
    return after_mode() == "console \"Waiting for external media\"";
}

TEST(Arguments, SelectInstallModeWithQelinstallInAnyPlace)
{
    EXPECT_TRUE(selects_install_mode({"qelinstall"}));
    EXPECT_TRUE(selects_install_mode({"qelinstall", "quiet", "single"}));
    EXPECT_TRUE(selects_install_mode({"quiet", "qelinstall", "single"}));
    EXPECT_TRUE(selects_install_mode({"quiet", "single", "qelinstall"}));
    EXPECT_TRUE(selects_install_mode({"qelinstall", "qelinst"}));
}

TEST(Arguments, DoNotSelectInstallModeWithAnyOtherSpelling)
{
    EXPECT_FALSE(selects_install_mode({}));
    EXPECT_FALSE(selects_install_mode({"qelinstallx"}));
    EXPECT_FALSE(selects_install_mode({"qelinst"}));
    EXPECT_FALSE(selects_install_mode({"QELINSTALL"}));
    EXPECT_FALSE(selects_install_mode({" qelinstall"}));
    EXPECT_FALSE(selects_install_mode({"-qelinstall", "qelinstall=1", ""}));
}

TEST(Arguments, DoNotSelectInstallModeWithTheProgramName)
{
    EXPECT_FALSE(selects_install_mode({}, "qelinstall"));
}

TEST(InstallMode, WaitsForTheStickWithADotASecond)
{
    Cabinet cabinet;
    cabinet.start({"qelinstall"});
    cabinet.await_lines("sleep 1", 2);
    cabinet.plug_in_stick();
    EXPECT_TRUE(cabinet.matches("wait_for_stick.txt"));
}

// ---- Nodes ----

TEST(Nodes, HaveTheTypesAndNumbersThatTheKernelPublishes)
{
    Cabinet cabinet;
    cabinet.plug_in_stick();
    cabinet.start();
    cabinet.await_lines("console \"mount: /usr\"");

    // 0666 less the mask 022 with which the kernel starts its first program.
    EXPECT_THAT(cabinet.names("/dev"),
                ElementsAre("disk", "null", "qellpc_button", "qellpc_command", "qellpc_console",
                            "qellpc_firmware", "qellpc_host_comms", "qellpc_lcd", "qellpc_midi",
                            "qellpc_reserved1", "qellpc_reserved2", "qellpc_test", "snd"));
    EXPECT_EQ(cabinet.look("/dev/qellpc_firmware"), "crw-r--r-- 240:0");
    EXPECT_EQ(cabinet.look("/dev/qellpc_midi"), "crw-r--r-- 240:1");
    EXPECT_EQ(cabinet.look("/dev/qellpc_lcd"), "crw-r--r-- 240:2");
    EXPECT_EQ(cabinet.look("/dev/qellpc_command"), "crw-r--r-- 240:3");
    EXPECT_EQ(cabinet.look("/dev/qellpc_button"), "crw-r--r-- 240:4");
    EXPECT_EQ(cabinet.look("/dev/qellpc_test"), "crw-r--r-- 240:5");
    EXPECT_EQ(cabinet.look("/dev/qellpc_console"), "crw-r--r-- 240:6");
    EXPECT_EQ(cabinet.look("/dev/qellpc_host_comms"), "crw-r--r-- 240:7");
    EXPECT_EQ(cabinet.look("/dev/qellpc_reserved1"), "crw-r--r-- 240:8");
    EXPECT_EQ(cabinet.look("/dev/qellpc_reserved2"), "crw-r--r-- 240:9");

    EXPECT_THAT(cabinet.names("/dev/snd"), ElementsAre("controlC0", "pcmC0D0p"));
    EXPECT_EQ(cabinet.look("/dev/snd/controlC0"), "crw-r--r-- 116:0");
    EXPECT_EQ(cabinet.look("/dev/snd/pcmC0D0p"), "crw-r--r-- 116:16");

    EXPECT_THAT(cabinet.names("/dev/disk"), ElementsAre("hdc", "hdc1", "hdc2", "hdc3", "sda", "sda1"));
    EXPECT_EQ(cabinet.look("/dev/disk/hdc"), "brw-r--r-- 22:0");
    EXPECT_EQ(cabinet.look("/dev/disk/hdc3"), "brw-r--r-- 22:3");
    EXPECT_EQ(cabinet.look("/dev/disk/sda1"), "brw-r--r-- 8:1");
}

TEST(Nodes, OfTheBoardGetTheNumberOfTheDriversLastLine)
{
    Cabinet cabinet;
    cabinet.make_file("/machine/proc/devices", "240 qellpc\n241 qellpc2\n");
    cabinet.board_major = 241;
    cabinet.start();
    cabinet.await_lines("console \"Want console...\\n\"");
    EXPECT_EQ(cabinet.look("/dev/qellpc_firmware"), "crw-r--r-- 241:0");
    EXPECT_EQ(cabinet.look("/dev/qellpc_reserved2"), "crw-r--r-- 241:9");
}

TEST(Nodes, HaveLargeNumbersToo)
{
    Cabinet cabinet;
    cabinet.add_block_device("sdzz", 4095, 1048575);
    cabinet.start();
    cabinet.await_lines("console \"mount: /usr\"");
    EXPECT_EQ(cabinet.look("/dev/disk/sdzz"), "brw-r--r-- 4095:1048575");
}

TEST(Nodes, OfDisksThatExistAreLeftAloneAndNamedInBracketsThoseOfPartitionsPassedOver)
{
    Cabinet cabinet;
    cabinet.make_node("/dev/disk/hdc", S_IFBLK | 0600, 9, 9);
    cabinet.make_node("/dev/disk/hdc1", S_IFBLK | 0600, 9, 1);
    cabinet.start();
    cabinet.await_lines("console \"mount: /usr\"");
    EXPECT_THAT(cabinet.transcript().lines(), Contains("console \" controlC0 pcmC0D0p (hdc) hdc2 hdc3\\n\""));
    EXPECT_EQ(cabinet.look("/dev/disk/hdc"), "brw------- 9:9");
    EXPECT_EQ(cabinet.look("/dev/disk/hdc1"), "brw------- 9:1");
}

TEST(Nodes, AreMadeInTheOrderInWhichTheFoldersListThem)
{
    Cabinet cabinet;
    cabinet.list_folders_backwards();
    cabinet.start();
    cabinet.await_lines("console \"mount: /usr\"");
    EXPECT_THAT(cabinet.transcript().lines(),
                Contains("console \" pcmC0D0p controlC0 hdc hdc3 hdc2 hdc1\\n\""));
}

// ---- Mounts ----

TEST(Mounts, OfUsbDisksAreTriedForEveryNodeAndReported)
{
    Cabinet cabinet;
    cabinet.plug_in_stick();
    cabinet.add_block_device("sdb", 8, 16);
    cabinet.format("vfat", 8, 16);
    cabinet.add_block_device("sdb/sdb1", 8, 17);
    cabinet.start();
    cabinet.await_lines("console \"mount: /usr\"");
    EXPECT_THAT(cabinet.transcript().lines(),
                AllOf(Contains("console \"sda not mounted\\n\""), Contains("console \"sda1 mounted\\n\""),
                      Contains("console \"sdb mounted\\n\""), Contains("console \"sdb1 not mounted\\n\"")));
    EXPECT_THAT(cabinet.names("/disk"), ElementsAre("sda1", "sdb"));
}

TEST(Mounts, OfUsbDisksAreNotTriedForTheInternalDisk)
{
    Cabinet cabinet;
    cabinet.format("vfat", 22, 1);
    cabinet.start();
    cabinet.await_lines("console \"mount: /usr\"");
    EXPECT_THAT(cabinet.names("/disk"), ElementsAre());
}

TEST(Mounts, OfAStickWithAnotherFileSystemFailAndTheStartGoesOn)
{
    Cabinet cabinet;
    cabinet.add_block_device("sda", 8, 0);
    cabinet.add_block_device("sda/sda1", 8, 1);
    cabinet.format("cramfs", 8, 1);
    cabinet.add_program(Cabinet::storage("/qel_application_1"));
    cabinet.start();
    cabinet.await_child(2);
    EXPECT_THAT(cabinet.transcript().lines(), Contains("console \"sda1 not mounted\\n\""));
    EXPECT_THAT(cabinet.names("/disk"), ElementsAre());
}

TEST(Mounts, AreReadOnlyForUsrStorageAndTheStick)
{
    for (const char *folder : {"/usr/new", "/storage/new", "/disk/sda1/new"}) {
        Cabinet cabinet;
        cabinet.plug_in_stick();
        cabinet.add_program(Cabinet::storage("/qel_application_1"), std::string("folder ") + folder + "\n");
        cabinet.start();
        cabinet.await_lines("waitpid");
        EXPECT_THAT(cabinet.transcript().of(3), Contains("helper program: folder: Read-only file system"));
    }
}

TEST(HomeLink, ReplacesAnOlderOne)
{
    Cabinet cabinet;
    cabinet.make_link("/qel_home", "/somewhere/else");
    cabinet.add_program(Cabinet::storage("/qel_application_1"));
    cabinet.start();
    cabinet.await_child(2);
    EXPECT_EQ(cabinet.look("/qel_home"), "lrwxrwxrwx -> /tmp");
}

TEST(HomeLink, StaysAFolderWhereThereIsOneAndTheStartGoesOn)
{
    Cabinet cabinet;
    cabinet.make_folder("/qel_home");
    cabinet.add_program(Cabinet::storage("/qel_application_1"));
    cabinet.start();
    cabinet.await_child(2);
    EXPECT_THAT(cabinet.transcript().lines(), AllOf(Contains("console \"symlink error : EEXIST\\n\""),
                                                    Contains("console \"error code : 17\\n\"")));
    EXPECT_EQ(cabinet.look("/qel_home"), "drwxr-xr-x");
}
