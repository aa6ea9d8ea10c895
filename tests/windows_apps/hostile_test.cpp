// Archives and disks that nobody would make on purpose, with the real tools and real mounts: archives whose
// names lead elsewhere, entries that are links, double or far too large, disks that are full or read-only.

#include "support/fake_kernel.h"
#include "windows_apps/storage_room.h"

#include "qel_application_loader/installer.h"
#include "qel_application_loader/update_mode.h"
#include "qel_tolbrin/qel_sysmsg.h"
#include "qel_utility/qel_filesystem.h"

#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <string.h>
#include <sys/mount.h>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace
{

// ---- Archives ----

void put(std::string &bytes, uint32_t value, int size)
{
    for (; size > 0; size--, value >>= 8)
        bytes += static_cast<char>(value);
}

uint32_t crc32_of(const std::string &text)
{
    uint32_t crc = 0xFFFFFFFF;
    for (const char character : text) {
        crc ^= static_cast<uint8_t>(character);
        for (int bit = 0; bit < 8; bit++)
            crc = crc >> 1 ^ (crc & 1 ? 0xEDB88320 : 0);
    }
    return ~crc;
}

struct ZipEntry {
    std::string name;
    std::string content;
    uint32_t mode = 0100644;
    uint32_t claimed_size = 0; ///< 0 for the true one
};

/// An archive whose entries are stored as they are; the zip program would not make such names.
std::string zip_of(const std::vector<ZipEntry> &entries)
{
    std::string file, directory;
    for (const ZipEntry &entry : entries) {
        std::string head;
        put(head, 20, 2);         // version
        put(head, 0, 4);          // flags, stored
        put(head, 0x00210000, 4); // 1980-01-01
        put(head, crc32_of(entry.content), 4);
        put(head, static_cast<uint32_t>(entry.content.size()), 4);
        put(head, entry.claimed_size ? entry.claimed_size : static_cast<uint32_t>(entry.content.size()), 4);
        put(head, static_cast<uint32_t>(entry.name.size()), 2);
        put(head, 0, 2); // no extra field
        put(directory, 0x02014B50, 4);
        put(directory, 0x0314, 2); // made on Unix
        directory += head;
        put(directory, 0, 6); // no comment, disk 0, no attributes of its own
        put(directory, entry.mode << 16, 4);
        put(directory, static_cast<uint32_t>(file.size()), 4);
        directory += entry.name;
        put(file, 0x04034B50, 4);
        file += head + entry.name + entry.content;
    }
    const auto start = static_cast<uint32_t>(file.size());
    file += directory;
    put(file, 0x06054B50, 4);
    put(file, 0, 4);
    put(file, static_cast<uint32_t>(entries.size()), 2);
    put(file, static_cast<uint32_t>(entries.size()), 2);
    put(file, static_cast<uint32_t>(directory.size()), 4);
    put(file, start, 4);
    put(file, 0, 2);
    return file;
}

/// Mounts a disk of this size on `folder`, in the room.
void mount_disk(const char *folder, const char *options)
{
    if (real_mount("disk", folder, "tmpfs", 0, options) != 0)
        real__exit(97);
}

/// Prints a result, so that it leaves the room.
void tell(const char *what, long result)
{
    printf("%s: %ld\n", what, result);
    fflush(stdout);
}

} // namespace

class HostileArchive : public testing::Test
{
  protected:
    /// Installs an archive as a Windows application.
    std::string install_application(const std::vector<ZipEntry> &entries)
    {
        disk.make_file("/storage/archives/app.pkg", zip_of(entries));
        return room.run([] { qel_install_windows_apps(); });
    }

    /// Installs the system from a stick with this storage.zip; only miniunz is real, the disk's tools do
    /// nothing, and /storage is a disk of its own of 1 MB.
    std::string install_system(const std::string &archive)
    {
        for (const char *tool : {"/bin/sfdisk", "/bin/mkdosfs", "/bin/syslinux"})
            disk.make_link(tool, "/usr/bin/true");
        disk.make_file("/disk/sda1/qel_usr.cramfs", "system");
        disk.make_file("/disk/sda1/vmlinux", "kernel");
        disk.make_file("/disk/sda1/storage.zip", archive);
        disk.make_folder("/boot");
        disk.make_folder("/devices");
        disk.make_folder("/blocks");
        return room.run([] {
            mount_disk("/storage", "size=1m");
            FakeKernel kernel;
            kernel.redirect("/dev/disk", "/devices");
            kernel.redirect("/sys/block", "/blocks");
            kernel.on_mount = [](auto...) { return 0; };
            kernel.on_umount = [](const char *folder) {
                // What the storage holds is gone with the room.
                return strcmp(folder, "/storage") == 0 ? system("cp -r /storage /unpacked") : 0;
            };
            qel_install();
        });
    }

    StorageRoom room;
    Scratch &disk = room.disk;
};

TEST_F(HostileArchive, WithNamesThatLeadElsewhereIsUnpackedBelowItsFolderAllTheSame)
{
    disk.make_file("/etc_of_the_machine", "stays");
    EXPECT_EQ(install_application({{"../../etc_of_the_machine", "evil"},
                                   {"/etc_of_the_machine", "evil"},
                                   {"app/../../../etc_of_the_machine", "evil"},
                                   {"app/file", "good"}}),
              StorageRoom::ended)
        << room.output;
    EXPECT_EQ(disk.content("/etc_of_the_machine"), "stays");
    EXPECT_EQ(disk.content("/storage/win_apps/etc_of_the_machine"), "evil"); // the tool takes the way off
    EXPECT_EQ(disk.content("/storage/win_apps/app/file"), "good");
}

TEST_F(HostileArchive, WithALinkGetsAFileThatHoldsItsText)
{
    EXPECT_EQ(install_application({{"app/link", "/", 0120777}, {"app/link/through", "evil"}}),
              StorageRoom::ended)
        << room.output;
    EXPECT_FALSE(disk.is_link("/storage/win_apps/app/link"));
    EXPECT_EQ(disk.content("/storage/win_apps/app/link"), "/");
    EXPECT_FALSE(disk.has("/through"));
}

TEST_F(HostileArchive, WithAForbiddenByteInANameStopsAtItsLinkAfterUnpacking)
{
    EXPECT_EQ(install_application({{"app/bell\x07", "content"}}),
              "stopped at qel_utility/qel_filesystem:952");
    EXPECT_THAT(room.output, HasSubstr("qel_utility/qel_filesystem:952 - "
                                       "qel_create_parent_folder_and_parents() - Path is not absolute"));
    EXPECT_THAT(disk.names("/storage/archives"), IsEmpty());
    EXPECT_TRUE(disk.has("/storage/win_apps/app/bell\x07"));
}

TEST_F(HostileArchive, WithANameLongerThanItsToolTakesLeavesThatFileOutAndTheRestIsUnpacked)
{
    // After 256 bytes of a name, the tool goes on with whatever its memory holds. A file where the name needs
    // a folder makes it fail in every case.
    std::string deep = "app/folder/file";
    while (deep.size() < 600)
        deep += "/" + std::string(60, 'd');
    EXPECT_EQ(install_application({{"app/folder/file", "short"}, {deep, "long"}, {"app/near", "content"}}),
              StorageRoom::ended)
        << room.output;
    EXPECT_THAT(disk.tree("/storage/win_apps"),
                ElementsAre("app/", "app/folder/", "app/folder/file", "app/near"));
    EXPECT_EQ(disk.content("/storage/win_apps/app/folder/file"), "short");
    EXPECT_THAT(disk.tree("/tmp/.wine"), ElementsAre("folder/", "folder/file", "near"));
}

TEST_F(HostileArchive, UnpackedDeeperThanTheBuffersIsLinkedAsFarAsTheyGo)
{
    std::string deep = "/storage/win_apps/app";
    while (deep.size() < 600)
        deep += "/" + std::string(60, 'd');
    disk.make_file(deep + "/file");
    EXPECT_EQ(install_application({{"app/near", "content"}}), StorageRoom::ended) << room.output;
    EXPECT_TRUE(disk.is_link("/tmp/.wine/near"));
    EXPECT_THAT(disk.tree("/tmp/.wine"), ElementsAre("near"));
}

TEST_F(HostileArchive, ThatClaimsMoreThanItHoldsGivesNoMoreThanItHoldsAndIsRemoved)
{
    EXPECT_EQ(install_application({{"app/huge", "short", 0100644, 0xFFFFFFF0}}), StorageRoom::ended)
        << room.output;
    EXPECT_THAT(disk.names("/storage/archives"), IsEmpty());
    EXPECT_LE(disk.content("/storage/win_apps/app/huge").size(), 5U);
}

TEST_F(HostileArchive, LargerThanTheDiskIsRemovedAndItsPartStays)
{
    disk.make_file("/app.pkg", zip_of({{"app/first", "content"}, {"app/large", std::string(300000, 'x')}}));
    const std::string result = room.run([] {
        mount_disk("/storage", "size=256k");
        real_mkdir("/storage/archives", 0755);
        real_symlink("/app.pkg", "/storage/archives/app.pkg"); // it would not fit either
        qel_install_windows_apps();
        tell("archives", real_rmdir("/storage/archives"));
        tell("first", real_access("/storage/win_apps/app/first", F_OK));
        tell("link", real_access("/qel_home/.wine/first", F_OK));
    });
    EXPECT_EQ(result, StorageRoom::ended) << room.output;
    EXPECT_THAT(room.output, HasSubstr("archives: 0\nfirst: 0\nlink: 0\n"));
}

TEST_F(HostileArchive, OnAStickIsUnpackedBelowTheStorageWhateverItsNamesSay)
{
    EXPECT_EQ(install_system(zip_of({{"../boot/vmlinux", "evil"}, {"/bin/sh", "evil"}, {"file", "good"}})),
              StorageRoom::ended)
        << room.output;
    EXPECT_EQ(disk.content("/boot/vmlinux"), "kernel");
    EXPECT_EQ(disk.tree("/unpacked"),
              std::vector<std::string>({"bin/", "bin/sh", "boot/", "boot/vmlinux", "file"}));
}

// The tool says that something is wrong, and then ends as if nothing were.
TEST_F(HostileArchive, OnAStickThatIsLargerThanTheStorageIsUnpackedInPartAndNothingStops)
{
    EXPECT_EQ(install_system(
                  zip_of({{"first", "content"}, {"large", std::string(2000000, 'x')}, {"last", "content"}})),
              StorageRoom::ended)
        << room.output;
    EXPECT_THAT(room.output, HasSubstr("error in writing extracted file"));
    EXPECT_THAT(room.output, HasSubstr("Install complete"));
    EXPECT_TRUE(disk.has("/unpacked/first"));
    EXPECT_FALSE(disk.has("/unpacked/last"));
}

TEST_F(HostileArchive, OnAStickWithADamagedFileIsUnpackedUpToItAndNothingStops)
{
    std::string archive = zip_of({{"first", "content"}, {"second", "CONTENT"}, {"last", "content"}});
    archive[archive.find("CONTENT")] = 'X';
    EXPECT_EQ(install_system(archive), StorageRoom::ended) << room.output;
    EXPECT_THAT(room.output, HasSubstr("error -105"));
    EXPECT_THAT(disk.tree("/unpacked"), ElementsAre("first", "second"));
}

TEST_F(HostileArchive, OnAStickWithANameTwiceStopsTheInstallerWhichIsAskedAndHasNoAnswer)
{
    EXPECT_EQ(install_system(zip_of({{"file", "one"}, {"file", "two"}})),
              "stopped at qel_utility/qel_filesystem:2117")
        << room.output;
    EXPECT_THAT(room.output, HasSubstr("Overwrite ?"));
    EXPECT_THAT(room.output, Not(HasSubstr("Install complete")));
}

TEST_F(HostileArchive, OnAStickThatIsCutOffStopsTheInstaller)
{
    const std::string whole = zip_of({{"file", "content"}, {"another", "content"}});
    EXPECT_EQ(install_system(whole.substr(0, whole.size() / 2)), "stopped at qel_utility/qel_filesystem:2117")
        << room.output;
    EXPECT_THAT(room.output, Not(HasSubstr("Install complete")));
}

// ---- Disks ----

/// What is done on a disk of 64 kB, mounted on /full, of which nothing is left.
class HostileDisk : public testing::Test
{
  protected:
    /// Runs it, and returns what it told.
    std::string on_full_disk(const std::function<void()> &statement,
                             const std::string &expected = StorageRoom::ended)
    {
        room.disk.make_folder("/full");
        room.disk.make_file("/source/file", std::string(5000, 'x'));
        EXPECT_EQ(room.run([&] {
            mount_disk("/full", "size=64k");
            real_mkdir("/full/folder", 0755);
            const int file = real_open("/full/filler", O_WRONLY | O_CREAT, 0644);
            const char block[4096] = {};
            while (real_write(file, block, sizeof block) > 0)
                ;
            real_close(file);
            statement();
        }),
                  expected)
            << room.output;
        return room.output;
    }

    /// The same on a disk that has become read-only.
    std::string on_read_only_disk(const std::function<void()> &statement,
                                  const std::string &expected = StorageRoom::ended)
    {
        return on_full_disk(
            [&] {
                if (real_mount(nullptr, "/full", nullptr, MS_REMOUNT | MS_RDONLY, nullptr) != 0)
                    real__exit(97);
                statement();
            },
            expected);
    }

    StorageRoom room;
};

TEST_F(HostileDisk, ThatIsFullTakesAnEmptyFileOfACopyAndTheCopyFails)
{
    EXPECT_THAT(on_full_disk([] {
                    tell("copied", qel_copy_file("/full/new", "/source/file"));
                    tell("size", static_cast<long>(qel_get_folder_size("/full/new")));
                    tell("free", static_cast<long>(qel_get_free_disk_space("/full/not/there")));
                }),
                HasSubstr("copied: 0\nsize: 0\nfree: 0\n"));
}

TEST_F(HostileDisk, ThatIsFullLeavesATreeCopiedInPart)
{
    EXPECT_THAT(on_full_disk([] { tell("copied", qel_cpdirtree("/source", "/full/folder")); }),
                HasSubstr("copied: 0\n"));
}

TEST_F(HostileDisk, ThatIsFullCanBeEmptied)
{
    EXPECT_THAT(on_full_disk([] {
                    tell("emptied", qel_rmdircontents("/full"));
                    tell("copied", qel_copy_file("/full/new", "/source/file"));
                }),
                testing::EndsWith("emptied: 1\ncopy: /source/file -> /full/new\ncopied: 1\n"));
}

TEST_F(HostileDisk, ThatIsFullStopsALinkThatDoesNotFit)
{
    const std::string content(4000, 'c');
    EXPECT_THAT(on_full_disk([&] { qel_symlink(content.c_str(), "/full/link"); },
                             "stopped at qel_utility/qel_filesystem:1892"),
                HasSubstr("ccc -> /full/link\n"));
}

TEST_F(HostileDisk, ThatIsFullMakesTheLoaderEndWhenItsUpdaterCannotBeWritten)
{
    const std::string output = on_full_disk(
        [] {
            real_mount("/full", "/tmp", nullptr, MS_BIND, nullptr);
            FakeKernel kernel;
            kernel.on_open = [](const char *path, int flags, mode_t mode) {
                return strstr(path, "lcd") ? 500 : real_open(path, flags, mode);
            };
            kernel.on_write = [](int file, const void *bytes, size_t size) {
                return file == 500 ? static_cast<ssize_t>(size) : real_write(file, bytes, size);
            };
            const uint8_t message[] = {10,  0,   0,   0,   24,  0,   0,   0,   12,  0,   0,   0,
                                       '#', '!', '/', 'b', 'i', 'n', '/', 't', 'r', 'u', 'e', '\n'};
            qel_update_handler(nullptr, message);
        },
        "exit code 1");
    EXPECT_THAT(output, HasSubstr("exec failed: /tmp/updater\n"));
}

TEST_F(HostileDisk, ThatIsReadOnlyRefusesEverythingAndNothingStops)
{
    EXPECT_THAT(on_read_only_disk([] {
                    tell("mkdir", qel_mkdir("/full/new"));
                    tell("error", errno);
                    tell("copied", qel_copy_file("/full/filler", "/source/file"));
                    tell("removed", qel_rmdirtree("/full/folder"));
                    tell("unlinked", qel_unlink("/full/filler"));
                    char folder[] = "/full/a/b";
                    tell("created", qel_create_folder_and_parents(folder));
                }),
                testing::AllOf(HasSubstr("mkdir: -1\nerror: 30\n"), HasSubstr("copied: 0\n"),
                               HasSubstr("removed: 0\n"), HasSubstr("unlinked: -1\n"),
                               HasSubstr("couldn't create folder: /full/a\ncreated: 0\n")));
}

TEST_F(HostileDisk, ThatIsReadOnlyStopsALink)
{
    on_read_only_disk([] { qel_symlink("/tmp", "/full/link"); },
                      "stopped at qel_utility/qel_filesystem:1892");
}
