// Installs that go wrong: where the loader stops for good, and what it does not notice.

#include "install_machine.h"

#include <gmock/gmock.h>

#include <filesystem>

using testing::Contains;
using testing::IsEmpty;
using testing::StartsWith;

namespace
{

const char *const signalled =
    "qel_utility/qel_filesystem:2116 ((((__extension__ (((union { __typeof(status) __in; int __i; }) { .__in "
    "= (status) }).__i))) & 0x7f) == 0)";
const char *const failed =
    "qel_utility/qel_filesystem:2117 ((((__extension__ (((union { __typeof(status) __in; int __i; }) { .__in "
    "= (status) }).__i))) & 0xff00) >> 8) == 0";

/// The tools of an install with an archive.
const std::vector<std::string> calls = {"/bin/sfdisk -uM --quiet --Linux --force /dev/disk/hdc",
                                        "/bin/mkdosfs /dev/disk/hdc1", "/bin/mkdosfs /dev/disk/hdc3",
                                        "/bin/syslinux /dev/disk/hdc1",
                                        "/bin/miniunz /disk/sda1/storage.zip -d /storage"};

/// The first `count` of them.
std::vector<std::string> first_calls(size_t count)
{
    return {calls.begin(), calls.begin() + static_cast<long>(count)};
}

/// A tool, and the number of tools started when it fails.
using Tool = std::pair<std::string, size_t>;

class FailingTool : public testing::TestWithParam<Tool>
{
  protected:
    FailingTool()
    {
        take_telling_loader(machine);
        add_archive(machine);
    }

    std::string stop_with(const std::string &line)
    {
        replace_tool(machine, "/bin/" + GetParam().first, line);
        start_install(machine);
        return wait_for_stop(machine);
    }

    InstallMachine machine;
};

void leave_out(InstallMachine &machine, const std::string &name)
{
    std::erase_if(machine.stick, [&](const FileAt &file) { return file.place == name; });
}

} // namespace

// ---- Tools ----

TEST_P(FailingTool, ThatExitsWith1StopsTheLoaderAt2117)
{
    EXPECT_EQ(stop_with("exit 1"), failed);
    EXPECT_EQ(tools_of(machine), first_calls(GetParam().second));
    EXPECT_FALSE(shows(machine, "Install complete.\n"));
}

TEST_P(FailingTool, ThatIsKilledStopsTheLoaderAt2116)
{
    EXPECT_EQ(stop_with("kill -9 $$"), signalled);
    EXPECT_EQ(tools_of(machine), first_calls(GetParam().second));
    EXPECT_FALSE(shows(machine, "Install complete.\n"));
}

INSTANTIATE_TEST_SUITE_P(Every, FailingTool,
                         testing::Values(Tool("sfdisk", 1), Tool("mkdosfs", 2), Tool("syslinux", 4),
                                         Tool("miniunz", 5)),
                         [](const auto &tool) { return tool.param.first; });

TEST(InstallFault, AToolThatIsMissingStopsInItsChildAt2101)
{
    InstallMachine machine;
    take_telling_loader(machine);
    std::erase_if(machine.ram_disk,
                  [](const std::string &line) { return line.find(" /bin/sfdisk ") != std::string::npos; });
    start_install(machine);
    EXPECT_EQ(wait_for_stop(machine), "qel_utility/qel_filesystem:2101 0");
    EXPECT_THAT(tools_of(machine), IsEmpty());
}

// ---- The stick ----

TEST(InstallFault, AStickWithoutTheSystemImageStopsAt144)
{
    InstallMachine machine;
    take_telling_loader(machine);
    leave_out(machine, "qel_usr.cramfs");
    start_install(machine);
    EXPECT_EQ(wait_for_stop(machine),
              "qel_application_loader:144 qel_copy_file(\"/dev/disk/hdc2\", \"/disk/sda1/qel_usr.cramfs\")");
    EXPECT_EQ(tools_of(machine), first_calls(2));
}

TEST(InstallFault, AStickWithoutTheKernelStopsAt150)
{
    InstallMachine machine;
    take_telling_loader(machine);
    leave_out(machine, "vmlinux");
    start_install(machine);
    EXPECT_EQ(wait_for_stop(machine),
              "qel_application_loader:150 qel_copy_file(\"/boot/vmlinux\", \"/disk/sda1/vmlinux\")");
    EXPECT_EQ(tools_of(machine), first_calls(3));
}

TEST(InstallFault, ASystemImageLargerThanItsPartitionStopsAt144)
{
    InstallMachine machine;
    take_telling_loader(machine);
    std::filesystem::resize_file(machine.folder.path + "/qel_usr.cramfs", 28 * mebibyte + 4096);
    start_install(machine);
    EXPECT_THAT(wait_for_stop(machine), StartsWith("qel_application_loader:144 "));
}

TEST(InstallFault, AStickPulledDuringTheCopyIsNoticedOnlyAtTheNextFile)
{
    InstallMachine machine;
    take_telling_loader(machine);
    std::string large = machine.folder.path + "/large";
    run_tool({"sh", "-c", "head -c 15000000 /dev/urandom >\"$0\"", large});
    machine.system.push_back({"share/large", large});
    make_system_image(machine.folder.path + "/qel_usr.cramfs", machine.system);
    start_install_from_slow_stick(machine, 100000);

    ASSERT_TRUE(wait_until_written(machine, "/dev/disk/hdc2"));
    EXPECT_EQ(tools_of(machine), first_calls(2));
    pull_out_stick(machine.cabinet);

    // What could not be read counts as the image's end. Then the kernel cannot even be opened.
    EXPECT_EQ(wait_for_stop(machine),
              "qel_application_loader:150 qel_copy_file(\"/boot/vmlinux\", \"/disk/sda1/vmlinux\")");
    EXPECT_EQ(tools_of(machine), first_calls(3));
    power_off(machine.cabinet);
    EXPECT_THAT(disk_faults(machine), Contains(StartsWith("system image: differs from ")));
}
