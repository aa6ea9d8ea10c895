// The loader's main: which steps it takes in which mode, and their order. What each step does is for the
// other files.

#include "support/scratch_disk.h"
#include "support/stops.h"
#include "support/transcript.h"

#include <errno.h>
#include <gmock/gmock.h>

/// The loader's main under another name.
int qel_loader_main(int argc, char **argv);

/// A cabinet whose stick and disk need no nodes, and whose children are only counted. Standard streams stay
/// what they are. The run is left when the application would be waited for.
struct Main : OnScratchDisk {
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
    /// What main does and shows in this mode, as far as the steps of start_up.h and their neighbours show.
    std::vector<std::string> steps(std::vector<std::string> arguments)
    {
        std::vector<char *> argv;
        for (std::string &argument : arguments)
            argv.push_back(argument.data());
        argv.push_back(nullptr);
        Transcript transcript(kernel, "mount umount sync dup2 sleep opendir symlink fork chdir");
        EXPECT_THROW(qel_loader_main(static_cast<int>(arguments.size()), argv.data()), LeftProduct);
        return transcript.lines();
    }

    const LeaksAllowed link_for_life;
    static constexpr int board = 5001;
    int mode_byte = 0;
};

using Lines = std::vector<std::string>;

/// The parts, one behind the other.
static Lines all_of(const std::vector<Lines> &parts)
{
    Lines all;
    for (const Lines &part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

static const Lines kernel_and_board = {
    "> QEL Loader...\nmount: /sys /proc\n",
    "mount sysfs /sys sysfs 0 null",
    "mount proc /proc proc 0 null",
    "mount none /proc/bus/usb usbfs 0 null",
    "> dev: ",
    ">  qellpc_firmware qellpc_midi qellpc_lcd qellpc_command qellpc_button qellpc_test qellpc_console "
    "qellpc_host_comms qellpc_reserved1 qellpc_reserved2\n",
};
static const Lines silence = {"dup2 5001 0", "dup2 5001 1", "dup2 5001 2"};
/// Begins behind an unfinished line, if there is one.
static Lines disks(const std::string &line_end)
{
    return {"> " + line_end + "dev: ", "opendir /sys/class/sound", "opendir /sys/block",
            "opendir /sys/block",      "opendir /sys/block/sda",   "> \nmount:",
            "opendir /dev/disk"};
}
static Lines system_and_application(const std::string &printed)
{
    return {"> " + printed + "mount: /usr",
            "mount /dev/disk/hdc2 /usr cramfs 1 null",
            ">  /storage\n",
            "mount /dev/disk/hdc3 /storage vfat 1 null",
            "symlink /tmp /qel_home",
            "opendir /storage",
            "opendir /disk",
            "opendir /disk/sda1",
            "fork", // the X server
            "> /tmp -> /qel_home\ncandidate: /storage/qel_application_1\n"
            "removing dir tree \"/qel_home/.wine\"\nrun: /storage/qel_application_1\n",
            "chdir /storage",
            "fork"};
}

TEST_F(Main, TakesItsStepsInOrder)
{
    EXPECT_EQ(steps({"loader"}),
              all_of({kernel_and_board, silence, disks(""), system_and_application("\n")}));
}

TEST_F(Main, IgnoresTheOtherBitsOfTheModeByte)
{
    mode_byte = 0xFC;
    EXPECT_EQ(steps({"loader"}),
              all_of({kernel_and_board, silence, disks(""), system_and_application("\n")}));
}

TEST_F(Main, RunsTheUpdateModeBeforeItSilencesTheStandardStreams)
{
    mode_byte = 2;
    EXPECT_EQ(steps({"loader"}), all_of({kernel_and_board,
                                         {"sleep 5"}, // a stick was found
                                         silence,
                                         disks(""),
                                         system_and_application("\n")}));
}

TEST_F(Main, SaysThatAConsoleIsWantedBeforeTheUpdateModeAndLeavesTheStandardStreamsAlone)
{
    mode_byte = 0x83;
    EXPECT_EQ(
        steps({"loader"}),
        all_of(
            {kernel_and_board, {"> Want console...\n", "sleep 5"}, disks(""), system_and_application("\n")}));
}

TEST_F(Main, WaitsForAStickAndInstallsBeforeItMountsTheSystem)
{
    EXPECT_EQ(steps({"loader", "qelinstall"}),
              all_of({kernel_and_board,
                      silence,
                      {"> Waiting for external media"},
                      disks("\n"),
                      {"> \nInstalling...\n", "fork", "sync", "> dev: ", "opendir /sys/block", "> \n", "fork",
                       "fork", "mount /dev/disk/hdc1 /boot vfat 0 null", "fork", "umount /boot", "sync"},
                      system_and_application("copy: /disk/sda1/qel_usr.cramfs -> /dev/disk/hdc2\n"
                                             "copy: /disk/sda1/vmlinux -> /boot/vmlinux\n"
                                             "Install complete.\n")}));
}

TEST_F(Main, InstallsWithTheConsoleAndBehindTheUpdateModeToo)
{
    mode_byte = 3;
    const Lines lines = steps({"loader", "qelinstall"});
    ASSERT_GT(lines.size(), 8U);
    EXPECT_EQ(Lines(lines.begin() + 6, lines.begin() + 9),
              Lines({"> Want console...\n", "sleep 5", "> Waiting for external media"}));
}
