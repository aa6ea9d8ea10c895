// The loader's main: which steps it takes in which mode, and their order. What each step does is for the
// other files.

#include "support/fresh_process.h"
#include "support/output.h"
#include "support/scratch_disk.h"
#include "support/stops.h"

#include <errno.h>
#include <gmock/gmock.h>

#include <sstream>

using testing::ElementsAre;
using testing::IsEmpty;

/// The loader's main under another name.
int qel_loader_main(int argc, char **argv);

/// A cabinet whose stick and disk need no nodes, and whose children are only counted. Standard streams stay
/// what they are. The run is left when the application would be waited for.
class Main : public OnScratchDisk
{
  protected:
    Main()
    {
        disk.make_folder("/proc/bus");
        disk.make_file("/proc/devices", "254 qellpc\n");
        disk.make_file("/sys/block/sda/sda1/uevent");
        disk.make_file("/disk/sda1/qel_usr.cramfs");
        disk.make_file("/disk/sda1/vmlinux");
        disk.make_file("/storage/qel_application_1");
        for (const char *folder : {"/sys/class/sound", "/dev/disk", "/tmp"})
            disk.make_folder(folder);
        kernel.set_time(1000);
        kernel.on_mount = [](auto...) { return 0; };
        kernel.on_umount = [](auto...) { return 0; };
        kernel.on_sync = [] {};
        kernel.on_mknod = [](auto...) { return 0; };
        kernel.on_symlink = [](auto...) { return 0; };
        kernel.on_dup2 = [](int, int to) { return to; };
        kernel.on_open = [this](const char *path, int flags, mode_t mode) {
            return strncmp(path, "/dev/", 5) == 0 && strncmp(path, "/dev/disk/", 10) != 0
                       ? board
                       : real_open(kernel.at(path).c_str(), flags, mode);
        };
        kernel.on_close = [](int file) { return file == board ? 0 : real_close(file); };
        kernel.on_write = [](int, const void *, size_t size) { return static_cast<ssize_t>(size); };
        kernel.on_read = [this](int file, void *bytes, size_t size) {
            if (file != board)
                return real_read(file, bytes, size);
            memset(bytes, mode_byte, size);
            return static_cast<ssize_t>(size);
        };
        kernel.on_fork = [this] {
            kernel.on_waitpid = [this](pid_t process, int *status, int) {
                if (kernel.calls().back().find("waitpid 4711") == 0 && kernel.count("chdir") > 0)
                    throw LeftProduct();
                *status = 0;
                return process;
            };
            return 4711;
        };
    }
    /// The lines that main prints in this mode.
    std::vector<std::string> lines(std::vector<std::string> arguments)
    {
        std::vector<char *> argv;
        for (std::string &argument : arguments)
            argv.push_back(argument.data());
        argv.push_back(nullptr);
        Output output;
        EXPECT_THROW(qel_loader_main(static_cast<int>(arguments.size()), argv.data()), LeftProduct);
        std::vector<std::string> all;
        std::istringstream text(output.text());
        for (std::string line; std::getline(text, line);)
            all.push_back(line);
        return all;
    }

    const LeaksAllowed link_for_life;
    static constexpr int board = 5001;
    int mode_byte = 0;
};

static const std::string board_nodes =
    "dev:  qellpc_firmware qellpc_midi qellpc_lcd qellpc_command qellpc_button qellpc_test qellpc_console "
    "qellpc_host_comms qellpc_reserved1 qellpc_reserved2";

TEST_F(Main, TakesItsStepsInOrder)
{
    if (!in_fresh_process())
        return;
    EXPECT_THAT(lines({"loader"}),
                ElementsAre("QEL Loader...", "mount: /sys /proc", board_nodes,
                            "dev: ", "mount:", "mount: /usr /storage", "/tmp -> /qel_home",
                            "candidate: /storage/qel_application_1", "removing dir tree \"/qel_home/.wine\"",
                            "run: /storage/qel_application_1"));
    EXPECT_THAT(kernel.calls("mount"),
                ElementsAre("mount sysfs /sys sysfs 0 null", "mount proc /proc proc 0 null",
                            "mount none /proc/bus/usb usbfs 0 null",
                            "mount /dev/disk/hdc2 /usr cramfs 1 null",
                            "mount /dev/disk/hdc3 /storage vfat 1 null"));
    EXPECT_EQ(kernel.count("fork"), 2); // the X server and the application
}

TEST_F(Main, SilencesTheStandardStreamsBeforeItLooksForDisksUnlessAConsoleIsWanted)
{
    if (!in_fresh_process())
        return;
    lines({"loader"});
    const std::vector<std::string> calls = kernel.calls("read dup2 opendir");
    ASSERT_GT(calls.size(), 4U);
    EXPECT_EQ(calls[0], "read 5001 64"); // the mode byte
    EXPECT_EQ(calls[1], "dup2 5001 0");
    EXPECT_EQ(calls[2], "dup2 5001 1");
    EXPECT_EQ(calls[3], "dup2 5001 2");
    EXPECT_EQ(calls[4], "opendir /sys/class/sound");
}

TEST_F(Main, LeavesTheStandardStreamsAloneWhenAConsoleIsWanted)
{
    if (!in_fresh_process())
        return;
    mode_byte = 1;
    EXPECT_EQ(lines({"loader"}).at(3), "Want console...");
    EXPECT_THAT(kernel.calls("dup2"), IsEmpty());
}

TEST_F(Main, RunsTheUpdateModeBeforeItSilencesTheStandardStreams)
{
    if (!in_fresh_process())
        return;
    mode_byte = 2;
    lines({"loader"});
    const std::vector<std::string> calls = kernel.calls("open dup2");
    ASSERT_GT(calls.size(), 7U);
    EXPECT_EQ(calls[0], "open /dev/qellpc_command O_RDWR");
    EXPECT_EQ(calls[1], "open /dev/qellpc_host_comms O_RDWR|O_NONBLOCK");
    EXPECT_EQ(kernel.calls("sleep dup2").at(0), "sleep 5"); // a stick was found
    EXPECT_EQ(kernel.count("dup2"), 3);
}

TEST_F(Main, IgnoresTheOtherBitsOfTheModeByte)
{
    if (!in_fresh_process())
        return;
    mode_byte = 0xFC;
    lines({"loader"});
    EXPECT_EQ(kernel.count("dup2"), 3);
    EXPECT_EQ(kernel.count("sleep"), 0);
}

TEST_F(Main, WaitsForAStickAndInstallsBeforeItMountsTheSystem)
{
    if (!in_fresh_process())
        return;
    mode_byte = 1;
    EXPECT_THAT(lines({"loader", "qelinstall"}),
                ElementsAre("QEL Loader...", "mount: /sys /proc", board_nodes, "Want console...",
                            "Waiting for external media", "dev: ", "mount:", "Installing...",
                            "dev: ", "copy: /disk/sda1/qel_usr.cramfs -> /dev/disk/hdc2",
                            "copy: /disk/sda1/vmlinux -> /boot/vmlinux", "Install complete.",
                            "mount: /usr /storage", "/tmp -> /qel_home",
                            "candidate: /storage/qel_application_1", "removing dir tree \"/qel_home/.wine\"",
                            "run: /storage/qel_application_1"));
}
