// Installing onto a blank internal disk from a stick, with the real tools.

#include "machine_test.h"

namespace
{

bool shows(const Machine &machine, const std::string &text)
{
    return machine.cabinet.console.find(text) != std::string::npos;
}

/// A blank disk, and a stick with a system image, a stand-in for the kernel and, if named, an archive.
void prepare(Machine &machine, const std::string &archive)
{
    machine.setup.loader_words = "qelinstall";
    machine.setup.internal_disk = machine.folder.path + "/internal_disk.img";
    make_blank_disk(machine.setup.internal_disk);
    make_system_image(machine.folder.path + "/qel_usr.cramfs", machine.system);
    std::vector<FileAt> files = {{"qel_usr.cramfs", machine.folder.path + "/qel_usr.cramfs"},
                                 {"vmlinux", machine.parts.kernel_folder + "/bzImage"}};
    if (!archive.empty())
        files.push_back({"storage.zip", archive});
    insert_stick(machine, files);
}

std::string application_archive(Machine &machine)
{
    std::string archive = machine.folder.path + "/storage.zip";
    std::string program = machine.folder.path + "/qel_application_1";
    write_file(program, read_file(recorder));
    run_tool({"sh", "-c", "cd \"$0\" && minizip -o storage.zip qel_application_1", machine.folder.path});
    return archive;
}

} // namespace

TEST(Install, FillsABlankDiskAndGoesOnToTheApplication)
{
    Machine machine;
    prepare(machine, application_archive(machine));
    start(machine);

    ASSERT_TRUE(wait_for_recorder(machine, "qel_application_1"));
    EXPECT_TRUE(shows(machine, "Found storage.zip\n"));
    EXPECT_TRUE(shows(machine, "Install complete.\n"));
    power_off(machine.cabinet);

    const std::string &disk = machine.setup.internal_disk;
    EXPECT_EQ(storage_names(machine), std::vector<std::string>{"::/qel_application_1"});
    EXPECT_EQ(run_tool({"mtype", "-i", mtools_name(disk, 1), "::syslinux.cfg"}),
              "DEFAULT vmlinux root=/dev/ram0 usb-storage.delay_use=1\n");
    EXPECT_EQ(find_partition(disk, 1).size, 8 * mebibyte);
    EXPECT_EQ(find_partition(disk, 2).size, 28 * mebibyte);
}

TEST(Install, WithoutAnArchiveLeavesTheStorageEmpty)
{
    Machine machine;
    prepare(machine, "");
    start(machine);

    ASSERT_TRUE(wait_for_console(machine.cabinet, "Install complete.\n", patience));
    ASSERT_TRUE(wait_for_console(machine.cabinet, "mount: /usr /storage\n", patience));
    EXPECT_TRUE(stays_parked(machine));
    EXPECT_FALSE(shows(machine, "Found storage.zip"));
    power_off(machine.cabinet);
    EXPECT_EQ(storage_names(machine), std::vector<std::string>{});
}
