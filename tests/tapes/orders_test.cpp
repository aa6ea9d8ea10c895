// Critical orders as rules: what a golden shows, and may not be accepted away.

#include "tapes/golden.h"

#include <fnmatch.h>

namespace
{

/// Every line of the run that fits `first` comes before every line that fits `then`; patterns as fnmatch has
/// them. A line that has been there before ends with its number: "sync", "sync #2".
struct Order {
    const char *tape, *first, *then, *reason;
};

const Order orders[] = {
    {"start_up.StartUp", "console \"QEL Loader*", "mkdir *", "the banner shows before anything can fail"},
    {"start_up.StartUp", "mount proc /proc *", "fopen /proc/devices *", "the driver's number is in /proc"},
    {"start_up.StartUp", "mknod /dev/qellpc_*", "open /dev/qellpc_*", "a board without nodes is not asked"},
    {"start_up.StartUp", "mount * /usr *", "fork*", "the X server is on /usr"},
    {"start_up.StartUp", "symlink /tmp /qel_home", "fork*", "programs have their home from the start"},
    {"starts.Mode0", "dup2 /dev/null *", "opendir *", "without a console nothing more shows"},
    {"install_starts.InstallInMode0", "dup2 /dev/null *", "access *sda1 *",
     "streams are silenced before the wait"},
    {"starts.Mode3UpToTheLink", "console \"Want*", "open /dev/qellpc_host_comms *",
     "the update mode has its console"},
    {"starts.Mode2FromTheStick", "sleep 5", "open /dev/null *", "the update mode speaks, whatever the mode"},
    {"install_starts.InstallInMode1FromTheMounts", "mount * /disk/sda1 *", "console \"Installing*",
     "what is installed is on the stick"},
    {"install_starts.InstallInMode1FromItsEnd", "umount /boot", "mount /dev/disk/hdc3 /storage vfat 1 *",
     "the start goes on with what is installed"},
    {"applications.FindApplicationOnAStick", "mount * /storage vfat 32 *", "open /storage/* *",
     "the copy needs a writable storage"},
    {"applications.FindApplicationOnAStick", "close /storage/*", "mount * /storage vfat 33 *",
     "storage is read-only after the copy"},
    {"applications.FindApplicationOnAStick", "mount * /storage vfat 33 *", "sync",
     "the copy is on the disk before it runs"},
    {"applications.RunApplication", "unlink /qel_home/.wine*", "execve *",
     "each run has a fresh Wine prefix"},
    {"applications.RunApplication", "chdir /storage*", "execve *", "programs start in /storage"},
    {"tools.MkdosfsOfBootInTheChild", "sync", "fork", "the partition table is on the disk before it is used"},
    {"tools.MkdosfsOfBootInTheChild", "mknod /dev/disk/hdc2 *", "fork",
     "tools find the new partitions' nodes"},
    {"tools.SyslinuxInTheChild", "close /boot/vmlinux", "execve *",
     "the kernel is there before it is to boot"},
    {"tools.MiniunzInTheChild", "mount * /storage vfat 32 *", "execve *",
     "the archive needs a writable storage"},
    {"install.Install", "umount /storage", "umount /boot", "mounts go in the reverse order"},
    {"installs.WithoutAnArchive", "umount /boot", "sync #2", "all of an installation is on the disk"},
    {"installs.WithoutAnArchive", "sync #2", "console \"Install complete*",
     "whoever reads it may switch off"},
    {"updates.UpdateModeWithAPeer", "write /dev/qellpc_lcd 13 *", "write * message 38 *",
     "the display is ahead of the answer"},
    {"updates.UpdaterWinsOverAStick", "close /tmp/updater", "write * \"Starting updater*",
     "the display names what is whole"},
    {"updates.UpdaterWinsOverAStick", "write * \"Starting updater*", "execve *",
     "the display is not the updater's"},
    {"confirms.BothBusy", "write * message 15 *", "console \"handed on*", "a confirm waits for no handler"},
    {"programs.ExecWaitChecked", "write pair1.1 *", "shutdown *", "input ends when all of it is there"},
    {"programs.ExecWaitChecked", "waitpid *", "close *", "a tool that never reads cannot break its input"},
    {"copying.CopyFile", "open /src *", "open /dst *", "without a source the destination stays as it is"},
    {"unpacking.UnpackArchives", "waitpid *", "unlink /storage/archives/*",
     "an archive goes when it is unpacked"},
};

/// All of the run, also what is before the tape.
std::vector<std::string> lines_of_run(const Scenario &scenario)
{
    std::map<std::string, int> counts;
    std::vector<std::string> lines;
    const Traces traces;
    for (const Event &event : run_tape(scenario).events) {
        const int n = ++counts[event.text];
        lines.push_back(n == 1 ? event.text : event.text + " #" + std::to_string(n));
    }
    return lines;
}

/// What is wrong with an order; empty when nothing is.
std::string complaint_about(const std::vector<std::string> &lines, const char *first, const char *then)
{
    bool has_first = false, has_then = false;
    for (const std::string &line : lines) {
        const bool is_first = fnmatch(first, line.c_str(), 0) == 0;
        if (is_first && has_then)
            return line + ": too late";
        has_first |= is_first;
        has_then |= fnmatch(then, line.c_str(), 0) == 0;
    }
    return !has_first ? std::string("never: ") + first : !has_then ? std::string("never: ") + then : "";
}

} // namespace

TEST(Orders, AreKept)
{
    for (const Order &order : orders) {
        ASSERT_TRUE(all_tapes().count(order.tape)) << order.tape;
        EXPECT_EQ(complaint_about(lines_of_run(all_tapes().at(order.tape)), order.first, order.then), "")
            << order.tape << ": " << order.reason;
    }
}

TEST(Orders, AreBrokenByWhatComesTooLateOrNever)
{
    const std::vector<std::string> lines = {"a 1", "b", "a 2"};
    EXPECT_EQ(complaint_about(lines, "a 1", "b"), "");
    EXPECT_EQ(complaint_about(lines, "a *", "b"), "a 2: too late");
    EXPECT_EQ(complaint_about(lines, "b", "a *"), "b: too late");
    EXPECT_EQ(complaint_about(lines, "c", "b"), "never: c");
    EXPECT_EQ(complaint_about(lines, "b", "c"), "never: c");
}
