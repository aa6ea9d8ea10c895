// The steps of the start-up sequence, one by one; mounts and nodes are played.

#include "support/output.h"
#include "support/scratch_disk.h"
#include "support/stops.h"

#include "qel_application_loader/start_up.h"

#include <errno.h>
#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;

class StartUp : public OnScratchDisk
{
  protected:
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

// ---- Kernel file systems and board nodes ----

TEST_F(KernelFileSystems, AreSysProcAndUsbInThisOrderReadWrite)
{
    disk.make_folder("/proc/bus");
    EXPECT_EQ(output_of(qel_mount_kernel_file_systems), "mount: /sys /proc\n");
    EXPECT_THAT(kernel.calls("mount"),
                ElementsAre("mount sysfs /sys sysfs 0 null", "mount proc /proc proc 0 null",
                            "mount none /proc/bus/usb usbfs 0 null"));
}

TEST_F(KernelFileSystems, AreAnnouncedBeforeTheFirstMount)
{
    kernel.leave_at("mount", 1);
    Output output;
    EXPECT_THROW(qel_mount_kernel_file_systems(), LeftProduct);
    EXPECT_EQ(output.flushed(), "mount: /sys /proc\n");
}

TEST_F(KernelFileSystems, MustAllMount)
{
    disk.make_folder("/proc/bus");
    for (int n : {1, 2, 3}) {
        kernel.forget_calls();
        kernel.fail_nth("mount", n, ENODEV);
        EXPECT_STOPS("!err", filesystem_unit, 1964, qel_mount_kernel_file_systems());
        EXPECT_EQ(kernel.count("mount"), n);
        kernel.fail_nth("mount", n, 0);
    }
}

TEST_F(BoardNodes, AreAnnouncedOnALineOfTheirOwn)
{
    disk.make_file("/proc/devices", "253 qellpc\n");
    Output output;
    qel_make_board_nodes();
    EXPECT_EQ(output.flushed(),
              "dev:  qellpc_firmware qellpc_midi qellpc_lcd qellpc_command qellpc_button qellpc_test"
              " qellpc_console qellpc_host_comms qellpc_reserved1 qellpc_reserved2\n");
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

TEST_F(SilenceStandardStreams, PointsAllThreeAtTheNullDeviceAndClosesTheSpareDescriptor)
{
    play_descriptors(3);
    qel_silence_standard_streams();
    EXPECT_THAT(kernel.calls(),
                ElementsAre("open /dev/null O_RDWR|O_NOCTTY", "dup2 3 0", "dup2 3 1", "dup2 3 2", "close 3"));
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

TEST_F(SilenceStandardStreams, DoesNotCheckTheOpen)
{
    play_descriptors(-1);
    qel_silence_standard_streams();
    EXPECT_THAT(kernel.calls("dup2 close"), ElementsAre("dup2 -1 0", "dup2 -1 1", "dup2 -1 2"));
}

// ---- External media ----

TEST_F(WaitForExternalMedia, PrintsADotASecondUntilThePartitionIsReadable)
{
    int missing = 3;
    kernel.on_access = [&](const char *, int) { return missing-- > 0 ? -1 : 0; };
    Output output;
    qel_wait_for_external_media();
    EXPECT_EQ(output.flushed(), "Waiting for external media...\n");
    EXPECT_THAT(kernel.calls(), ElementsAre("access /sys/block/sda/sda1 4", "sleep 1", //
                                            "access /sys/block/sda/sda1 4", "sleep 1", //
                                            "access /sys/block/sda/sda1 4", "sleep 1", //
                                            "access /sys/block/sda/sda1 4"));
}

TEST_F(WaitForExternalMedia, DoesNotWaitForAStickThatIsThere)
{
    disk.make_folder("/sys/block/sda/sda1");
    EXPECT_EQ(output_of(qel_wait_for_external_media), "Waiting for external media\n");
    EXPECT_EQ(kernel.count("sleep"), 0);
}

TEST_F(WaitForExternalMedia, ShowsEachDotBeforeItSleeps)
{
    kernel.leave_at("sleep", 2);
    Output output;
    EXPECT_THROW(qel_wait_for_external_media(), LeftProduct);
    EXPECT_EQ(output.flushed(), "Waiting for external media..");
}

// ---- Nodes and mounts ----

TEST_F(SoundAndDiskNodes, AreSoundThenTheInternalDisksThenTheUsbDisksOnOneLine)
{
    disk.make_folder("/dev");
    disk.make_file("/sys/class/sound/timer/dev", "116:33\n");
    disk.make_file("/sys/block/sdb/dev", "8:16\n");
    disk.make_file("/sys/block/sdb/sdb1/dev", "8:17\n");
    disk.make_file("/sys/block/hdc/dev", "22:0\n");
    Output output;
    qel_make_sound_and_disk_nodes();
    EXPECT_EQ(output.flushed(), "dev:  timer hdc sdb sdb1\n");
}

TEST_F(MountExternalMedia, TriesTheUsbDisksAndPrintsAroundTheirLines)
{
    disk.make_file("/dev/disk/sdb1");
    disk.make_file("/dev/disk/hdc1");
    Output output;
    qel_mount_external_media();
    EXPECT_EQ(output.flushed(), "mount:sdb1 mounted\n\n");
}

TEST_F(MountSystem, MountsTheImageThenStorageBothReadOnly)
{
    Output output;
    qel_mount_system();
    EXPECT_EQ(output.flushed(), "mount: /usr /storage\n");
    EXPECT_THAT(kernel.calls("mount"), ElementsAre("mount /dev/disk/hdc2 /usr cramfs 1 null",
                                                   "mount /dev/disk/hdc3 /storage vfat 1 null"));
}

TEST_F(MountSystem, NamesEachPlaceBeforeItMountsIt)
{
    kernel.leave_at("mount", 1);
    Output first;
    EXPECT_THROW(qel_mount_system(), LeftProduct);
    EXPECT_EQ(first.flushed(), "mount: /usr");

    kernel.forget_calls();
    kernel.leave_at("mount", 2);
    Output second;
    EXPECT_THROW(qel_mount_system(), LeftProduct);
    EXPECT_EQ(second.flushed(), "mount: /usr /storage\n");
}

TEST_F(MountSystem, StopsWhenEitherIsMissing)
{
    kernel.fail_nth("mount", 1, ENXIO);
    EXPECT_STOPS("!err", filesystem_unit, 1964, qel_mount_system());
    kernel.fail_nth("mount", 3, ENXIO);
    EXPECT_STOPS("!err", filesystem_unit, 1964, qel_mount_system());
}

TEST_F(LinkHome, MakesQelHomeALinkToTmpInPlaceOfAnOldOne)
{
    disk.make_link("/qel_home", "elsewhere");
    EXPECT_EQ(output_of(qel_link_home), "/tmp -> /qel_home\n");
    EXPECT_EQ(disk.link_content("/qel_home"), "/tmp");
}
