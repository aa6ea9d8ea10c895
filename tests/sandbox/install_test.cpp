// Installing from the stick, with played tools: what is called in which order, what lands where, and what
// a failing tool or copy stops.

#include "sandbox/cabinet.h"

#include <gmock/gmock.h>

#include <filesystem>

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

/// A cabinet with a blank internal disk, the installer's tools and a stick with a system. What the tools
/// make appears when they run.
class Installation : public Cabinet
{
  public:
    Installation()
    {
        std::string partition = "input";
        for (const char *name : {"hdc1", "hdc2", "hdc3"}) {
            const std::string now = std::string("/machine/sys/block/hdc/") + name,
                              later = std::string("/machine/") + name;
            std::filesystem::rename(at(now), at(later));
            partition += " move " + later + " " + now;
        }
        std::filesystem::remove(at("/machine/vfat/22:3"));
        add_program("/bin/sfdisk", partition);
        add_program("/bin/mkdosfs", "input folder /machine/vfat/22:1\ninput folder /machine/vfat/22:3\n");
        add_program("/bin/syslinux", "input exit 0");
        add_program("/bin/miniunz", "input folder /storage/unpacked");
        make_file("/machine/raw/22:2", "");

        plug_in_stick();
        make_file(stick("/qel_usr.cramfs"), image);
        make_file(stick("/vmlinux"), "a kernel");
        make_file(stick("/storage.zip"), "an archive");
        add_program(stick("/qel_application_1"));
    }
    /// What the process `pid` was started as and read.
    std::vector<std::string> tool(pid_t pid) const
    {
        std::vector<std::string> lines;
        for (const std::string &line : transcript().of(pid)) {
            if (begins_with(line, "execve") || begins_with(line, "environment") || begins_with(line, "input"))
                lines.push_back(line);
        }
        return lines;
    }
    /// Installs until the loader stops, and returns where: "UNIT:LINE".
    std::string stop()
    {
        start({"qelinstall"});
        await_lines("stop ");
        const std::string line = transcript().lines("stop ").front();
        return line.substr(5, line.find(' ', 5) - 5);
    }
    const std::string image = std::string(10000, 'i') + "the end";
};

TEST(TheInstaller, TakesItsStepsInOrderAndTheStartGoesOn)
{
    Installation cabinet;
    cabinet.start({"qelinstall"});
    EXPECT_TRUE(cabinet.matches("install.txt"));
}

TEST(TheInstaller, StartsItsToolsWithoutAnEnvironmentAndFeedsOnlySfdisk)
{
    Installation cabinet;
    cabinet.start({"qelinstall"});
    cabinet.await_lines("console \"Install complete.\\n\"");
    EXPECT_THAT(
        cabinet.tool(2),
        ElementsAre("execve /bin/sfdisk [/bin/sfdisk -uM --quiet --Linux --force /dev/disk/hdc] [null]",
                    "environment []", "input \",8,4,*\\n,28,L\\n,,6\\n\", then its end"));
    EXPECT_THAT(cabinet.tool(3), ElementsAre("execve /bin/mkdosfs [/bin/mkdosfs /dev/disk/hdc1] [null]",
                                             "environment []", "input \"\", then its end"));
    EXPECT_THAT(cabinet.tool(4), ElementsAre("execve /bin/mkdosfs [/bin/mkdosfs /dev/disk/hdc3] [null]",
                                             "environment []", "input \"\", then its end"));
    EXPECT_THAT(cabinet.tool(5), ElementsAre("execve /bin/syslinux [/bin/syslinux /dev/disk/hdc1] [null]",
                                             "environment []", "input \"\", then its end"));
    EXPECT_THAT(cabinet.tool(6),
                ElementsAre("execve /bin/miniunz [/bin/miniunz /disk/sda1/storage.zip -d /storage] [null]",
                            "environment []", "input \"\", then its end"));
}

TEST(TheInstaller, LeavesSystemKernelConfigurationAndStorageOnTheDisk)
{
    Installation cabinet;
    cabinet.start({"qelinstall"});
    cabinet.await_child(7); // the application, after sfdisk, mkdosfs twice, syslinux, miniunz, X server
    EXPECT_EQ(cabinet.content("/machine/raw/22:2"), cabinet.image);
    EXPECT_THAT(cabinet.names("/machine/vfat/22:1"), ElementsAre("syslinux.cfg", "vmlinux"));
    EXPECT_EQ(cabinet.content("/machine/vfat/22:1/vmlinux"), "a kernel");
    EXPECT_EQ(cabinet.content("/machine/vfat/22:1/syslinux.cfg"),
              "DEFAULT vmlinux root=/dev/ram0 usb-storage.delay_use=1\n");
    EXPECT_THAT(cabinet.names("/machine/vfat/22:3"), ElementsAre("qel_application_1", "unpacked"));
    // /boot is unmounted again.
    EXPECT_THAT(cabinet.names("/boot"), IsEmpty());
}

TEST(TheInstaller, LeavesTheStorageEmptyWithoutAnArchive)
{
    Installation cabinet;
    std::filesystem::remove(cabinet.at(Cabinet::stick("/storage.zip")));
    std::filesystem::remove(cabinet.at(Cabinet::stick("/qel_application_1")));
    EXPECT_EQ(cabinet.stop(), "qel_application_loader:189");
    EXPECT_EQ(cabinet.runs("miniunz"), 0U);
    EXPECT_THAT(cabinet.transcript().lines("console \"Found"), IsEmpty());
    EXPECT_THAT(cabinet.transcript().lines("umount"), ElementsAre("umount /boot"));
    EXPECT_THAT(cabinet.names("/machine/vfat/22:3"), IsEmpty());
}

TEST(TheInstaller, InstallsOverAnInstalledDisk)
{
    Installation cabinet;
    for (unsigned partition = 1; partition <= 3; partition++)
        cabinet.add_block_device("hdc/hdc" + std::to_string(partition), 22, partition);
    cabinet.add_program("/bin/sfdisk", "exit 0");
    cabinet.start({"qelinstall"});
    cabinet.await_lines("console \"Install complete.\\n\"");
    EXPECT_EQ(cabinet.content("/machine/raw/22:2"), cabinet.image);
    // The nodes were there: after sfdisk the disk's is named in brackets, the partitions' are passed over.
    EXPECT_THAT(cabinet.transcript().lines(), Contains("console \" (hdc)\\n\""));
}

TEST(TheInstaller, StopsWhenAToolFails)
{
    for (const char *tool : {"/bin/sfdisk", "/bin/mkdosfs", "/bin/syslinux", "/bin/miniunz"}) {
        Installation cabinet;
        const int is_format = std::string(tool) == "/bin/mkdosfs";
        cabinet.add_program(tool, is_format ? "folder /machine/vfat/22:1\nexit 1\n" : "exit 1\n");
        EXPECT_EQ(cabinet.stop(), "qel_utility/qel_filesystem:2117") << tool;
    }
}

TEST(TheInstaller, StopsWhenAToolIsKilled)
{
    Installation cabinet;
    cabinet.add_program("/bin/syslinux", "kill 11");
    EXPECT_EQ(cabinet.stop(), "qel_utility/qel_filesystem:2116");
}

TEST(TheInstaller, WaitsForTheParkedChildWhenAToolIsMissing)
{
    Installation cabinet;
    std::filesystem::remove(cabinet.at("/bin/mkdosfs"));
    cabinet.start({"qelinstall"});
    cabinet.await("the child's stop", [&] { return !cabinet.transcript().processes_with("stop ").empty(); });
    EXPECT_THAT(cabinet.transcript().of(3), Contains("stop qel_utility/qel_filesystem:2101 0"));
    EXPECT_EQ(cabinet.children().size(), 1U);
}

TEST(TheInstaller, StopsWithoutASystemImageOnTheStick)
{
    Installation cabinet;
    std::filesystem::remove(cabinet.at(Cabinet::stick("/qel_usr.cramfs")));
    EXPECT_EQ(cabinet.stop(), "qel_application_loader:144");
    EXPECT_EQ(cabinet.runs("mkdosfs"), 1U);
}

TEST(TheInstaller, StopsWithoutAKernelOnTheStick)
{
    Installation cabinet;
    std::filesystem::remove(cabinet.at(Cabinet::stick("/vmlinux")));
    EXPECT_EQ(cabinet.stop(), "qel_application_loader:150");
    EXPECT_EQ(cabinet.runs("syslinux"), 0U);
}

TEST(TheInstaller, DoesNotMindAConfigurationThatCannotBeWritten)
{
    Installation cabinet;
    cabinet.add_program("/bin/syslinux", "folder /boot/syslinux.cfg");
    cabinet.start({"qelinstall"});
    cabinet.await_lines("console \"Install complete.\\n\"");
    EXPECT_THAT(cabinet.transcript().lines(),
                Contains("open /boot/syslinux.cfg O_WRONLY|O_CREAT|O_TRUNC 0666 = EISDIR"));
}
