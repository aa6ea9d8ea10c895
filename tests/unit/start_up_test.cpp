// The steps of the start-up sequence, one by one; mounts and nodes are played.

#include "support/output.h"
#include "support/scratch_disk.h"
#include "support/stops.h"

#include "qel_application_loader/start_up.h"

#include <errno.h>
#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;

struct StartUp : OnScratchDisk {
    StartUp()
    {
        kernel.set_time(0);
        kernel.on_mount = [](auto...) { return 0; };
        kernel.on_mknod = [this](const char *path, auto...) {
            disk.make_file(path);
            return 0;
        };
    }
    /// Plays descriptors, so that the test keeps its own; open gives `null_device`.
    void play_descriptors(int null_device)
    {
        kernel.on_open = [=](auto...) { return null_device; };
        kernel.on_dup2 = [](int, int to) { return to; };
        kernel.on_close = [](int) { return 0; };
    }
};

using InstallRequested = StartUp;
using KernelFileSystems = StartUp;
using BoardNodes = StartUp;
using ConsoleRequested = StartUp;
using SilenceStandardStreams = StartUp;
using WaitForExternalMedia = StartUp;
using SoundAndDiskNodes = StartUp;
using MountExternalMedia = StartUp;
using MountSystem = StartUp;
using LinkHome = StartUp;

// ---- Arguments ----

static int requested_by(std::vector<std::string> arguments)
{
    std::vector<char *> argv;
    for (std::string &argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    return qel_install_requested(static_cast<int>(arguments.size()), argv.data());
}

TEST_F(InstallRequested, ByTheArgumentAnywhereInTheList)
{
    EXPECT_EQ(requested_by({"loader", "qelinstall"}), 1);
    EXPECT_EQ(requested_by({"loader", "qelinstall", "a", "b"}), 1);
    EXPECT_EQ(requested_by({"loader", "a", "", "qelinstall"}), 1);
    EXPECT_EQ(requested_by({"loader", "qelinstall", "qelinstallx"}), 1);
    EXPECT_EQ(requested_by({"loader", "qelinstall", "qelinstall"}), 1);
}

TEST_F(InstallRequested, NotByAnArgumentThatIsLongerOrShorter)
{
    EXPECT_EQ(requested_by({"loader", "qelinstallx"}), 0);
    EXPECT_EQ(requested_by({"loader", "qelinst"}), 0);
    EXPECT_EQ(requested_by({"loader", "QELINSTALL", " qelinstall", "qelinstall=1"}), 0);
}

TEST_F(InstallRequested, NotByTheProgramsOwnNameOrByNothing)
{
    EXPECT_EQ(requested_by({"qelinstall"}), 0);
    EXPECT_EQ(requested_by({}), 0);
}

// ---- Console ----

TEST_F(ConsoleRequested, ByBit0OfTheModeByteWhichIsSaid)
{
    for (int mode : {1, 3, -1, -127}) {
        Output output;
        EXPECT_EQ(qel_console_requested(mode), 1) << mode;
        EXPECT_EQ(output.flushed(), "Want console...\n") << mode;
    }
}

TEST_F(ConsoleRequested, NotByAnyOtherBit)
{
    for (int mode : {0, 2, 4, 126, -128, -2})
        EXPECT_EQ(output_of([=] { EXPECT_EQ(qel_console_requested(mode), 0); }), "") << mode;
}

TEST_F(SilenceStandardStreams, KeepsADescriptorThatIsAStreamAlready)
{
    play_descriptors(0);
    qel_silence_standard_streams();
    EXPECT_THAT(kernel.calls("dup2 close"), ElementsAre("dup2 0 1", "dup2 0 2"));

    kernel.forget_calls();
    play_descriptors(1);
    qel_silence_standard_streams();
    EXPECT_THAT(kernel.calls("dup2 close"), ElementsAre("dup2 1 0", "dup2 1 2"));

    kernel.forget_calls();
    play_descriptors(2);
    qel_silence_standard_streams();
    EXPECT_THAT(kernel.calls("dup2 close"), ElementsAre("dup2 2 0", "dup2 2 1"));
}
