// Installing from the stick, with played tools: what is called in which order, what lands where, and what
// a failing tool or copy stops.

#include "sandbox/cabinet.h"

#include <gmock/gmock.h>

#include <filesystem>

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

/// A cabinet with a blank internal disk, the installer's tools and a stick with a system. What the tools
/// make appears when they run.
struct Installation : Cabinet {
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
    const std::pair<const char *, const char *> tools[] = {
        {"/bin/sfdisk [/bin/sfdisk -uM --quiet --Linux --force /dev/disk/hdc]", ",8,4,*\\n,28,L\\n,,6\\n"},
        {"/bin/mkdosfs [/bin/mkdosfs /dev/disk/hdc1]", ""},
        {"/bin/mkdosfs [/bin/mkdosfs /dev/disk/hdc3]", ""},
        {"/bin/syslinux [/bin/syslinux /dev/disk/hdc1]", ""},
        {"/bin/miniunz [/bin/miniunz /disk/sda1/storage.zip -d /storage]", ""},
    };
    pid_t pid = 2;
    for (const auto &[call, input] : tools)
        EXPECT_THAT(
            cabinet.transcript().of(pid++),
            testing::IsSupersetOf({std::string("execve ") + call + " [null]", std::string("environment []"),
                                   std::string("input \"") + input + "\", then its end"}));
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
