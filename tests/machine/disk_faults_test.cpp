// Disks and sticks that are full, write-protected, or gone: where the loader stops, and what it does not
// notice.

#include "install_machine.h"

#include <gmock/gmock.h>

#include <filesystem>

using testing::AnyOf;
using testing::StartsWith;

namespace
{

const char *const mounting_failed = "qel_utility/qel_filesystem:1964 !err";

/// Takes the internal disk out of the machine for good, from the kernel's side; whoever uses it gets errors.
void pull_internal_disk(Machine &machine)
{
    look_inside(machine.cabinet, "echo 1 >$(readlink -f /sys/block/hdc/device)/../remove");
}

/// Whether process 1 has a file open.
bool has_open(Machine &machine, const std::string &file)
{
    return look_inside(machine.cabinet, "for f in /proc/1/fd/*; do readlink $f; done").find(file + "\n") !=
           std::string::npos;
}

/// A file of so many random bytes.
std::string noise_file(Machine &machine, const std::string &name, unsigned bytes)
{
    std::string path = machine.folder.path + "/" + name;
    run_tool({"sh", "-c", "head -c \"$0\" /dev/urandom >\"$1\"", std::to_string(bytes), path});
    return path;
}

/// An internal disk whose storage has room for 7 MB.
void make_small_disk(Machine &machine)
{
    const std::string image = machine.folder.path + "/small_disk", system = machine.folder.path + "/system";
    make_system_image(system, machine.system);
    make_blank_disk(image, 44 * mebibyte);
    make_partitions(image);
    make_vfat(image, 1, {});
    write_file_at(image, system, find_partition(image, 2).offset);
    make_vfat(image, 3, machine.storage);
    machine.setup.internal_disk = image;
}

} // namespace

// ---- Full ----

TEST(FullStorage, StopsTheCopyOfAnApplicationAt197AndKeepsThePart)
{
    Machine machine;
    take_telling_loader(machine);
    machine.storage = {{"qel_application_1", machine.recorder},
                       {"filler", noise_file(machine, "filler", 6 * mebibyte - 512 * 1024)}};
    make_small_disk(machine);
    const std::string application = noise_file(machine, "application", 2 * mebibyte);
    insert_stick(machine, {{"qel_application_2", application}});
    start(machine);
    EXPECT_EQ(wait_for_stop(machine), "qel_application_loader:197 qel_copy_file(storage_path, app_path)");
    // The copy never ended, so /storage was not made read-only again.
    EXPECT_EQ(look_inside(machine.cabinet, "grep -c '^/dev/disk/hdc3 /storage vfat rw,' /proc/mounts"),
              "1\n");
    look_inside(machine.cabinet, "sync");

    Machine next;
    start_again(next, machine);
    EXPECT_TRUE(wait_for_console(next.cabinet, "exec failed: qel_application_2\n", patience));
    power_off(next.cabinet);
    const std::string part = storage_file(next, "qel_application_2");
    EXPECT_GT(part.size(), 0U);
    EXPECT_LT(part.size(), 2 * mebibyte);
    EXPECT_TRUE(read_file(application).starts_with(part));
}

// ---- Write-protected ----

TEST(WriteProtectedDisk, RunsItsApplication)
{
    Machine machine;
    machine.storage = {{"qel_application_1", machine.recorder}};
    machine.setup.internal_disk_read_only = true;
    start(machine);
    EXPECT_TRUE(wait_for_recorder(machine, "qel_application_1", 2));
}

TEST(WriteProtectedDisk, StopsWhereStorageIsMadeWritableForANewerApplication)
{
    Machine machine;
    take_telling_loader(machine);
    machine.storage = {{"qel_application_1", machine.recorder}};
    machine.setup.internal_disk_read_only = true;
    insert_stick(machine, {{"qel_application_2", machine.recorder}});
    start(machine);
    EXPECT_EQ(wait_for_stop(machine), mounting_failed);
    EXPECT_TRUE(shows(machine, "mount: /usr /storage\n"));
    EXPECT_EQ(count_starts(machine.cabinet, "/storage/"), 0);
}

TEST(WriteProtectedDisk, CannotBeInstalled)
{
    InstallMachine machine;
    take_telling_loader(machine);
    machine.setup.internal_disk_read_only = true;
    start_install(machine);
    EXPECT_THAT(wait_for_stop(machine), StartsWith("qel_utility/qel_filesystem:2117 "));
    EXPECT_EQ(tools_of(machine).back(), "/bin/sfdisk -uM --quiet --Linux --force /dev/disk/hdc");
}

// ---- Gone ----

TEST(MissingDisk, StopsMountingTheSystem)
{
    Machine machine;
    take_telling_loader(machine);
    make_ram_disk(machine.setup.ram_disk, machine.parts, machine.ram_disk);
    power_on(machine.cabinet, machine.setup);
    EXPECT_EQ(wait_for_stop(machine), mounting_failed);
    EXPECT_TRUE(machine.cabinet.console.ends_with("mount: /usr")) << machine.cabinet.console;
}

TEST(PulledDisk, WhileTheSystemImageIsCopiedIsNoticedByTheNextTool)
{
    InstallMachine machine;
    take_telling_loader(machine);
    machine.system.push_back({"share/large", noise_file(machine, "large", 4 * mebibyte)});
    make_system_image(machine.folder.path + "/qel_usr.cramfs", machine.system);
    start_install_from_slow_stick(machine, 100000);
    ASSERT_TRUE(wait_until_written(machine, "/dev/disk/hdc2"));
    pull_internal_disk(machine);
    EXPECT_TRUE(has_open(machine, "/dev/disk/hdc2"));
    speed_stick_up(machine);
    EXPECT_THAT(wait_for_stop(machine), StartsWith("qel_utility/qel_filesystem:2117 "));
    EXPECT_EQ(tools_of(machine).back(), "/bin/mkdosfs /dev/disk/hdc3");
}

TEST(PulledDisk, WhileAScriptRunsIsNoticedAtTheNextRun)
{
    Machine machine;
    machine.storage = {
        {"qel_application_1", file_with(machine, "script", "#!/bin/sh\nexec /bin/busybox sleep 1000\n")}};
    start(machine);
    ASSERT_TRUE(wait_for_start(machine, "sleep 1000"));
    pull_internal_disk(machine);
    look_inside(machine.cabinet, "kill -9 " + std::to_string(last_started(machine)));
    // A program whose pages are in use goes on running from memory; a script has to be read again.
    const std::string try_again = "run: /storage/qel_application_1\nexec failed: qel_application_1\n";
    EXPECT_TRUE(wait_for_console(machine.cabinet, try_again, patience));
}

TEST(PulledStick, WhileAnApplicationIsCopiedLeavesAPartThatIsTakenForTheWhole)
{
    Machine machine;
    take_telling_loader(machine);
    machine.storage = {{"qel_application_1", machine.recorder}};
    const std::string application = noise_file(machine, "application", 4 * mebibyte);
    expect_stick(machine);
    start(machine);
    plug_in_slow_stick(machine, {{"qel_application_2", application}}, 100000);
    ASSERT_TRUE(wait_until_written(machine, "/storage/qel_application_2"));
    pull_out_stick(machine.cabinet);

    // A read error counts as the end of the file.
    ASSERT_TRUE(wait_for_console(machine.cabinet, "exec failed: qel_application_2\n", patience));
    EXPECT_EQ(look_inside(machine.cabinet, "grep -c '^/dev/disk/hdc3 /storage vfat ro,' /proc/mounts"),
              "1\n");
    power_off(machine.cabinet);
    const std::string part = storage_file(machine, "qel_application_2");
    EXPECT_GT(part.size(), 0U);
    EXPECT_LT(part.size(), 4 * mebibyte);
    EXPECT_TRUE(read_file(application).starts_with(part));
}
