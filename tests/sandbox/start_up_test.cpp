// The start-up sequence up to the application, its processes, nodes and mounts; and a loader that has
// stopped.

#include "sandbox/cabinet.h"

#include <gmock/gmock.h>

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(StartUp, WithTheConsoleTakesEveryStepInOrder)
{
    Cabinet cabinet;
    cabinet.plug_in_stick();
    cabinet.add_program(Cabinet::storage("/qel_application_1"), "exit 0\n");
    cabinet.start();
    EXPECT_TRUE(cabinet.matches("start_up_mode_1.txt"));
}

TEST(StartUp, GivesXServerAndApplicationTheirArgumentsEnvironmentFolderAndStreams)
{
    Cabinet cabinet;
    cabinet.add_program(Cabinet::storage("/qel_application_1"));
    cabinet.start();
    EXPECT_THAT(cabinet.await_child(1),
                ElementsAre("execve /usr/xorg/bin/Xfake [/usr/xorg/bin/Xfake -nolisten tcp -kb] " LOADER_ENV,
                            "arguments [/usr/xorg/bin/Xfake -nolisten tcp -kb]", "environment " LOADER_ENV,
                            "folder /", "streams console console console", "prefix fresh"));
    EXPECT_THAT(cabinet.await_child(2),
                ElementsAre("execve /storage/qel_application_1 [/storage/qel_application_1] " LOADER_ENV,
                            "arguments [/storage/qel_application_1]", "environment " LOADER_ENV,
                            "folder /storage", "streams console console console", "prefix fresh"));
}

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

TEST(Nodes, HaveTheTypesAndNumbersThatTheKernelPublishes)
{
    Cabinet cabinet;
    cabinet.plug_in_stick();
    cabinet.add_block_device("sdzz", 4095, 1048575);
    cabinet.start();
    cabinet.await_lines("console \"mount: /usr\"");

    EXPECT_THAT(cabinet.names("/dev"),
                ElementsAre("disk", "null", "qellpc_button", "qellpc_command", "qellpc_console",
                            "qellpc_firmware", "qellpc_host_comms", "qellpc_lcd", "qellpc_midi",
                            "qellpc_reserved1", "qellpc_reserved2", "qellpc_test", "snd"));
    EXPECT_THAT(cabinet.names("/dev/snd"), ElementsAre("controlC0", "pcmC0D0p"));
    EXPECT_THAT(cabinet.names("/dev/disk"),
                ElementsAre("hdc", "hdc1", "hdc2", "hdc3", "sda", "sda1", "sdzz"));
    // 0666 less the mask 022 with which the kernel starts its first program.
    const std::pair<const char *, const char *> nodes[] = {
        {"qellpc_firmware", "crw-r--r-- 240:0"},  {"qellpc_midi", "crw-r--r-- 240:1"},
        {"qellpc_lcd", "crw-r--r-- 240:2"},       {"qellpc_command", "crw-r--r-- 240:3"},
        {"qellpc_button", "crw-r--r-- 240:4"},    {"qellpc_test", "crw-r--r-- 240:5"},
        {"qellpc_console", "crw-r--r-- 240:6"},   {"qellpc_host_comms", "crw-r--r-- 240:7"},
        {"qellpc_reserved1", "crw-r--r-- 240:8"}, {"qellpc_reserved2", "crw-r--r-- 240:9"},
        {"snd/controlC0", "crw-r--r-- 116:0"},    {"snd/pcmC0D0p", "crw-r--r-- 116:16"},
        {"disk/hdc", "brw-r--r-- 22:0"},          {"disk/hdc3", "brw-r--r-- 22:3"},
        {"disk/sda1", "brw-r--r-- 8:1"},          {"disk/sdzz", "brw-r--r-- 4095:1048575"},
    };
    for (const auto &[name, look] : nodes)
        EXPECT_EQ(cabinet.look(std::string("/dev/") + name), look) << name;
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

TEST(AParkedLoader, SleepsForEverPrintsNothingAndHasNoChildren)
{
    Cabinet cabinet;
    cabinet.start();
    cabinet.await_lines("sleep 1", 3);
    const std::vector<std::string> &lines = cabinet.transcript().lines();
    const size_t stop = lines.size() - cabinet.transcript().lines("sleep 1").size() - 1;
    EXPECT_EQ(lines.at(stop), "stop qel_application_loader:189 *app_file");
    EXPECT_THAT(std::vector<std::string>(lines.begin() + static_cast<long>(stop) + 1, lines.end()),
                Each("sleep 1"));
    cabinet.await("PID 1 asleep", [&] { return cabinet.first_process().state == 'S'; });
    EXPECT_THAT(cabinet.children(), IsEmpty());
}
