// Installing onto the internal disk from a stick, with the real sfdisk, mkdosfs, syslinux and miniunz.

#include "install_machine.h"

#include "factory/disk_check.h"

#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

namespace
{

/// The boot record without the disk's identifier, which every sfdisk makes anew.
std::string boot_record(const InstallMachine &machine)
{
    return read_file(machine.setup.internal_disk).substr(0, 512).replace(440, 4, "ID..");
}

} // namespace

// ---- The whole way ----

TEST(CabinetInstall, FromAFactoryStickLeavesADiskThatBootsByItself)
{
    InstallMachine machine;
    Delivery delivery = take_factory_stick(machine);
    start(machine);

    ASSERT_TRUE(wait_for_recorder(machine, "qel_application_1")) << machine.cabinet.console;
    EXPECT_TRUE(shows(machine, "Install complete.\nmount: /usr /storage\n"));
    power_off(machine.cabinet);
    for (const Finding &finding :
         check_disk({machine.setup.internal_disk, delivery.kernel, delivery.system_image}))
        EXPECT_TRUE(finding.good) << finding.text;

    Machine next;
    next.setup.kernel.clear();
    start_again(next, machine);
    ASSERT_TRUE(wait_for_recorder(next, "qel_application_1")) << next.cabinet.console;
    EXPECT_TRUE(next.cabinet.console.starts_with("QEL Loader...\n"));
    EXPECT_EQ(next.cabinet.console.find("Installing"), std::string::npos);
}

TEST(CabinetInstall, TellsItsProgress)
{
    InstallMachine machine;
    add_archive(machine);
    start_install(machine);

    ASSERT_TRUE(wait_for_recorder(machine, "qel_application_1"));
    const std::string &console = machine.cabinet.console;
    size_t begin = console.find("Installing...\n");
    ASSERT_NE(begin, std::string::npos);
    // The tools write to the console themselves; what the loader says stands between.
    size_t at = begin;
    for (const char *text : {"Installing...\n", "dev:  (hdc) hdc",
                             "copy: /disk/sda1/qel_usr.cramfs -> /dev/disk/hdc2\n"
                             "copy: /disk/sda1/vmlinux -> /boot/vmlinux\n"
                             "Found storage.zip\n",
                             "Install complete.\nmount: /usr /storage\n"}) {
        at = console.find(text, at);
        EXPECT_NE(at, std::string::npos) << text << "is missing or too early in:\n" << console;
    }
    EXPECT_THAT(tools_of(machine), ElementsAre("/bin/sfdisk -uM --quiet --Linux --force /dev/disk/hdc",
                                               "/bin/mkdosfs /dev/disk/hdc1", "/bin/mkdosfs /dev/disk/hdc3",
                                               "/bin/syslinux /dev/disk/hdc1",
                                               "/bin/miniunz /disk/sda1/storage.zip -d /storage"));
    EXPECT_EQ(look_inside(machine.cabinet, "grep -c ' /boot ' /proc/mounts"), "0\n");
    EXPECT_EQ(look_inside(machine.cabinet, "grep -c '^/dev/disk/sda1 /disk/sda1 vfat ro,' /proc/mounts"),
              "1\n");
    power_off(machine.cabinet);
    EXPECT_THAT(disk_faults(machine), IsEmpty());
}

TEST(CabinetInstall, WithoutAnArchiveLeavesTheStorageEmpty)
{
    InstallMachine machine;
    take_telling_loader(machine);
    start_install(machine);

    // There is no application then, and the start-up ends where one is needed.
    EXPECT_EQ(wait_for_stop(machine), "qel_application_loader:189 *app_file");
    EXPECT_TRUE(shows(machine, "Install complete.\nmount: /usr /storage\n"));
    EXPECT_FALSE(shows(machine, "Found storage.zip"));
    EXPECT_THAT(tools_of(machine), testing::SizeIs(4));
    power_off(machine.cabinet);
    EXPECT_THAT(storage_names(machine), IsEmpty());
    EXPECT_THAT(disk_faults(machine), ElementsAre(StartsWith("application: nothing")));
}

TEST(CabinetInstall, WithoutAnArchiveTakesTheSticksApplication)
{
    InstallMachine machine;
    machine.stick.push_back({"qel_application_2", machine.recorder});
    start_install(machine);

    ASSERT_TRUE(wait_for_recorder(machine, "qel_application_2"));
    EXPECT_TRUE(shows(machine, "copy: /disk/sda1/qel_application_2 -> /storage/qel_application_2\n"));
    power_off(machine.cabinet);
    EXPECT_THAT(disk_faults(machine), IsEmpty());
}

// ---- Disks that are not blank ----

TEST(CabinetInstall, TwiceInARowMakesTheSameDisk)
{
    InstallMachine machine;
    add_archive(machine);
    start_install(machine);
    ASSERT_TRUE(wait_for_recorder(machine, "qel_application_1"));
    power_off(machine.cabinet);
    std::string first = boot_record(machine);
    EXPECT_THAT(disk_faults(machine), IsEmpty());

    InstallMachine again;
    add_archive(again);
    again.setup.internal_disk = machine.setup.internal_disk;
    start_install(again);
    ASSERT_TRUE(wait_for_recorder(again, "qel_application_1"));
    EXPECT_TRUE(shows(again, "dev:  (hdc)\n")); // the nodes of the partitions were there already
    power_off(again.cabinet);
    EXPECT_EQ(boot_record(again), first);
    EXPECT_THAT(disk_faults(again), IsEmpty());
}

TEST(CabinetInstall, OntoADiskThatHeldOtherPartitionsReplacesThem)
{
    InstallMachine machine;
    add_archive(machine);
    const std::string &disk = machine.setup.internal_disk;
    run_tool({"sfdisk", "--quiet", "--label", "dos", disk}, ",20M,83\n,30M,82,*\n,5M,7\n,,c\n");
    make_vfat(disk, 1, {{"old/qel_application_9", machine.recorder}});
    make_vfat(disk, 4, {{"old/qel_application_9", machine.recorder}});
    start_install(machine);

    ASSERT_TRUE(wait_for_recorder(machine, "qel_application_1"));
    EXPECT_FALSE(shows(machine, "qel_application_9"));
    power_off(machine.cabinet);
    EXPECT_THAT(disk_faults(machine), IsEmpty());
    EXPECT_THAT(storage_names(machine), ElementsAre("::/qel_application_1"));
}

// ---- The stick ----

TEST(CabinetInstall, WaitsForAStickThatIsPluggedInLater)
{
    InstallMachine machine;
    add_archive(machine);
    std::string image = machine.folder.path + "/late.img";
    make_stick(image, machine.stick);
    machine.stick.clear();
    start_install(machine);

    ASSERT_TRUE(wait_for_console(machine.cabinet, "Waiting for external media...", patience));
    plug_in_stick(machine.cabinet, image);
    ASSERT_TRUE(wait_for_recorder(machine, "qel_application_1"));
    EXPECT_THAT(machine.cabinet.console, testing::ContainsRegex("\nWaiting for external media\\.+\ndev: "));
    EXPECT_TRUE(shows(machine, "Install complete.\n"));
    power_off(machine.cabinet);
    EXPECT_THAT(disk_faults(machine), IsEmpty());
}

TEST(CabinetInstall, DoesNotWaitForAStickThatIsThere)
{
    InstallMachine machine;
    add_archive(machine);
    start_install(machine);
    EXPECT_TRUE(wait_for_console(machine.cabinet, "Waiting for external media\ndev: ", patience))
        << machine.cabinet.console;
}
