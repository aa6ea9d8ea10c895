// Trees that nobody would make on purpose, on a real file system: names of every byte, the longest names,
// paths longer than every buffer, links in a circle, folders that an ordinary user may not enter.

#include "support/scratch_disk.h"
#include "support/output.h"
#include "support/stops.h"

#include "qel_utility/qel_filesystem.h"

#include <gmock/gmock.h>
#include <errno.h>
#include <unistd.h>

#include <filesystem>

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace
{

/// Bytes that may stand in a name but not in a path of the product: controls, and eight printable ones.
std::string forbidden_bytes()
{
    std::string bytes = "\x7f\\:*?\"<>|";
    for (char byte = 1; byte < ' '; ++byte)
        bytes += byte;
    return bytes;
}

/// The result of a call whose output does not matter.
template <typename Call> auto quietly(Call call)
{
    const Output unprinted;
    return call();
}

int as_files(const char *, const char *, void *paths)
{
    (*static_cast<int *>(paths))++;
    return 1;
}

/// The names that a search takes: all that begin with this.
constexpr const char *prefix = "qel_application_";

struct Found {
    char dir[1000] = "";
    char name[1000] = "";
};

} // namespace

using HostileNames = OnScratchDisk;
using HostileDepths = OnScratchDisk;
using HostileLinks = OnScratchDisk;

// ---- Names ----

TEST_F(HostileNames, OfFilesAreRemovedWhateverBytesTheyHold)
{
    for (int byte = 1; byte < 256; ++byte) {
        if (byte != '/')
            disk.make_file(std::string("/a/f") + static_cast<char>(byte));
    }
    EXPECT_EQ(quietly([] { return qel_rmdirtree("/a"); }), 1);
    EXPECT_THAT(disk.tree("/"), IsEmpty());
}

TEST_F(HostileNames, OfFoldersStopARemovalAndNothingBelowIsTouched)
{
    for (const char byte : forbidden_bytes()) {
        const std::string folder = std::string("/a/d") + byte;
        disk.make_file(folder + "/file");
        EXPECT_FATAL("Path is not absolute: \"" + folder + "\"\n", "qel_rmdircontents", filesystem_unit, 975,
                     qel_rmdirtree("/a"));
        EXPECT_TRUE(disk.has(folder + "/file"));
        std::filesystem::remove_all(disk.at("/a"));
    }
}

TEST_F(HostileNames, StopACopyAtTheFileThatHasOne)
{
    for (const char byte : forbidden_bytes()) {
        const std::string name = std::string("f") + byte;
        disk.make_file("/a/" + name, "content");
        EXPECT_FATAL("Path is not absolute: \"/a/" + name + "\"\n", "qel_copy_file", filesystem_unit, 583,
                     qel_mergedircontents("/a", "/b/c"));
        std::filesystem::remove_all(disk.at("/a"));
        EXPECT_THAT(disk.tree("/b"), ElementsAre("c/"));
    }
}

TEST_F(HostileNames, StopASearchAtTheFolderThatHasOne)
{
    for (const char byte : forbidden_bytes()) {
        const std::string folder = std::string("/a/d") + byte;
        disk.make_folder(folder);
        Found found;
        EXPECT_FATAL("Path is not absolute: \"" + folder + "\"\n", "qel_opendir", filesystem_unit, 429,
                     qel_find_file_with_prefix("/a", prefix, found.dir, found.name));
        std::filesystem::remove_all(disk.at("/a"));
    }
}

TEST_F(HostileNames, OfApplicationsAreFoundEvenWithControlBytes)
{
    disk.make_file("/a/qel_application_\x1b[2J");
    Found found;
    quietly([&] {
        qel_find_file_with_prefix("/a", prefix, found.dir, found.name);
        return 0;
    });
    EXPECT_STREQ(found.name, "qel_application_\x1b[2J");
}

TEST_F(HostileNames, StopMeasuringATree)
{
    disk.make_file("/a/tab\there");
    EXPECT_STOPS_AT(645, qel_get_folder_size("/a"));
}

TEST_F(HostileNames, StopTheLinksOfAWindowsApplication)
{
    disk.make_file("/storage/win_apps/app/a:b");
    EXPECT_STOPS_AT(952, qel_install_windows_apps());
}

TEST_F(HostileNames, OfBrokenUtf8PassEverywhere)
{
    const std::string name = "\xff\xfe\xc3\x28\xf5";
    disk.make_file("/a/" + name + "/" + name, "content");
    EXPECT_EQ(quietly([] { return qel_mergedircontents("/a", "/b/c"); }), 1);
    EXPECT_EQ(disk.content("/b/c/" + name + "/" + name), "content");
    EXPECT_EQ(quietly([] { return qel_rmdirtree("/a"); }), 1);
}

TEST_F(HostileNames, Of255BytesAreFoundCopiedAndRemoved)
{
    const std::string name = prefix + std::string(239, 'x');
    disk.make_file("/a/" + name, "content");
    Found found;
    quietly([&] {
        qel_find_file_with_prefix("/a", prefix, found.dir, found.name);
        return 0;
    });
    EXPECT_EQ(found.name, name);
    EXPECT_EQ(quietly([] { return qel_cpdircontents("/a", "/b/c"); }), 1);
    EXPECT_EQ(disk.content("/b/c/" + name), "content");
    EXPECT_EQ(quietly([] { return qel_rmdirtree("/b/c"); }), 1);
    EXPECT_FALSE(disk.has("/b/c"));
}

// ---- Depths ----

namespace
{

/// A path of exactly `size` bytes below `top`, of components of 9 bytes and a last one that fills up.
std::string path_of(const std::string &top, size_t size)
{
    std::string path = top;
    while (path.size() + 21 <= size)
        path += "/ddddddddd";
    return path + "/" + std::string(size - path.size() - 1, 'e');
}

} // namespace

TEST_F(HostileDepths, JustInsideTheBuffersAreWalkedToTheirEnd)
{
    disk.make_file(path_of("/a", 500) + "/12345678", "content");                  // 509
    disk.make_file(path_of("/s", 970) + "/qel_application_1234567890", "search"); // 997
    Found found;
    quietly([&] {
        qel_find_file_with_prefix("/s", prefix, found.dir, found.name);
        return 0;
    });
    EXPECT_EQ(found.dir, path_of("/s", 970));
    EXPECT_EQ(quietly([] { return qel_cpdircontents("/a", "/b/c"); }), 1);
    EXPECT_EQ(disk.content("/b/c" + path_of("/a", 500).substr(2) + "/12345678"), "content");
    EXPECT_EQ(quietly([] { return qel_rmdirtree("/a"); }), 1);
    EXPECT_FALSE(disk.has("/a"));
}

TEST_F(HostileDepths, BeyondTheBufferLeaveARemovalIncompleteWithoutTouchingWhatLiesOutside)
{
    disk.make_file("/outside", "stays");
    disk.make_file(path_of("/a", 600) + "/file");
    EXPECT_EQ(quietly([] { return qel_rmdirtree("/a"); }), 0);
    EXPECT_TRUE(disk.has(path_of("/a", 600) + "/file"));
    EXPECT_EQ(disk.content("/outside"), "stays");
}

TEST_F(HostileDepths, BeyondTheBufferLeaveACopyIncomplete)
{
    disk.make_file("/a/near", "content");
    disk.make_file(path_of("/a", 600) + "/file");
    EXPECT_EQ(quietly([] { return qel_cpdircontents("/a", "/b/c"); }), 0);
    EXPECT_EQ(disk.content("/b/c/near"), "content");
}

TEST_F(HostileDepths, BeyondTheBufferStopASearch)
{
    disk.make_folder(path_of("/a", 1100));
    Found found;
    EXPECT_STOPS_AT(433, qel_find_file_with_prefix("/a", prefix, found.dir, found.name));
    EXPECT_LE(kernel.calls("opendir").back().size(), strlen("opendir ") + 999);
}

TEST_F(HostileDepths, ThatFillTheBufferTurnASearchInCirclesUntilNoHandleIsLeft)
{
    const std::string full = path_of("/a", 999);
    disk.make_folder(full + "/b");
    std::vector<DIR *> handles;
    kernel.on_opendir = [&](const char *path) -> DIR * {
        if (handles.size() == 1000) {
            errno = EMFILE;
            return nullptr;
        }
        handles.push_back(real_opendir(kernel.at(path).c_str()));
        return handles.back();
    };
    Found found;
    EXPECT_STOPS_AT(433, qel_find_file_with_prefix("/a", prefix, found.dir, found.name));
    EXPECT_EQ(kernel.calls("opendir").back(), "opendir " + full);
    for (DIR *handle : handles)
        real_closedir(handle);
}

TEST_F(HostileDepths, ThatFillTheBufferTurnARemovalInCirclesOverTheSameFolder)
{
    const std::string full = path_of("/a", 511);
    disk.make_folder(full + "/b");
    kernel.leave_at("opendir", 200); // or it goes on until the stack is used up
    const Output unprinted;
    EXPECT_THROW(qel_rmdirtree("/a"), LeftProduct);
    EXPECT_EQ(kernel.calls("opendir").back(), "opendir " + full);
    EXPECT_THAT(kernel.calls("unlink rmdir"), IsEmpty());
}

TEST_F(HostileDepths, OneShortOfTheBufferLeaveTheSlashAndStopARemoval)
{
    const std::string full = path_of("/a", 510);
    disk.make_folder(full + "/b");
    EXPECT_FATAL("Path is not absolute: \"" + full + "/\"\n", "qel_rmdircontents", filesystem_unit, 975,
                 qel_rmdirtree("/a"));
}

// ---- Links ----

TEST_F(HostileLinks, InACircleAreNeverEnteredByASearchOrARemoval)
{
    disk.make_file("/outside/qel_application_9", "stays");
    disk.make_link("/a/b/up", "..");
    disk.make_link("/a/b/self", "self");
    disk.make_link("/a/b/out", disk.at("/outside"));
    Found found;
    quietly([&] {
        qel_find_file_with_prefix("/a", prefix, found.dir, found.name);
        return 0;
    });
    EXPECT_STREQ(found.name, "");
    EXPECT_EQ(quietly([] { return qel_rmdirtree("/a"); }), 1);
    EXPECT_FALSE(disk.has("/a"));
    EXPECT_TRUE(disk.has("/outside/qel_application_9"));
}

TEST_F(HostileLinks, InACircleAreCopiedAsOftenAsTheKernelFollowsThem)
{
    disk.make_file("/a/file", "content");
    disk.make_link("/a/l", ".");
    EXPECT_EQ(quietly([] { return qel_cpdircontents("/a", "/b/c"); }), 0);
    std::string deepest = "/b/c";
    int levels = 0;
    for (; disk.is_folder(deepest + "/l"); ++levels)
        deepest += "/l";
    EXPECT_EQ(levels, 40); // the kernel's limit
    EXPECT_EQ(disk.content(deepest + "/file"), "content");
}

TEST_F(HostileLinks, InACircleAreMeasuredAsOftenAsTheKernelFollowsThem)
{
    disk.make_file("/a/file", std::string(1000, 'x'));
    disk.make_link("/a/l", ".");
    struct stat folder = {};
    EXPECT_EQ(real_stat(disk.at("/a").c_str(), &folder), 0);
    EXPECT_EQ(qel_get_folder_size("/a"), 41 * (folder.st_size + 1000));
}

TEST_F(HostileLinks, InACircleWithOneAnotherCountAsMissing)
{
    disk.make_link("/a/one", "two");
    disk.make_link("/a/two", "one");
    EXPECT_EQ(qel_exists("/a/one"), 0);
    EXPECT_EQ(quietly([] { return qel_copy_file("/b", "/a/one"); }), 0);
    EXPECT_EQ(quietly([] { return qel_copy_file("/a/one", "/a/two"); }), 0);
    EXPECT_STOPS_AT(403, qel_fopen("/a/one"));
}

// ---- Folders without permission ----

/// An ordinary user, whom the file system can refuse something.
struct HostilePermissions : OnScratchDisk {
    HostilePermissions()
    {
        if (is_root) {
            EXPECT_EQ(chown(disk.path().c_str(), ordinary_user, ordinary_user), 0);
        }
        become(ordinary_user);
        disk.make_file("/a/closed/file", "secret");
        disk.make_file("/a/open", "content");
        EXPECT_EQ(real_chmod(disk.at("/a/closed").c_str(), 0), 0);
    }
    ~HostilePermissions() override
    {
        real_chmod(disk.at("/a").c_str(), 0700);
        real_chmod(disk.at("/a/closed").c_str(), 0700);
        become(0);
    }

    void become(uid_t user) const
    {
        if (is_root) {
            EXPECT_EQ(seteuid(user), 0);
        }
    }

    static constexpr uid_t ordinary_user = 65534;
    const bool is_root = geteuid() == 0;
};

TEST_F(HostilePermissions, StopASearch)
{
    Found found;
    EXPECT_STOPS_AT(433, qel_find_file_with_prefix("/a", prefix, found.dir, found.name));
}

TEST_F(HostilePermissions, MakeACopyIncomplete)
{
    EXPECT_EQ(quietly([] { return qel_cpdircontents("/a", "/b/c"); }), 0);
    EXPECT_EQ(disk.content("/b/c/open"), "content");
    EXPECT_THAT(disk.tree("/b/c"), Not(Contains("closed/file")));
}

TEST_F(HostilePermissions, LeaveAFolderOutOfAWalkAndOfASize)
{
    int files = 0;
    qel_recurse_files_in_folder("/a", "/b", as_files, &files);
    EXPECT_EQ(files, 1);
    int64_t size = 0;
    EXPECT_EQ(qel_get_folder_size_with_threshold("/a", 0, &size), 1);
    EXPECT_GT(size, 0);
}

TEST_F(HostilePermissions, OfTheFolderAboveKeepWhatItHolds)
{
    EXPECT_EQ(real_chmod(disk.at("/a").c_str(), 0500), 0);
    EXPECT_EQ(quietly([] { return qel_rmdirtree("/a/open"); }), 0);
    EXPECT_EQ(disk.content("/a/open"), "content");
}

TEST_F(HostilePermissions, AreGivenBeforeAnEmptyFolderIsRemovedButNotBeforeItIsRead)
{
    EXPECT_EQ(quietly([] { return qel_rmdirtree("/a"); }), 0);
    EXPECT_EQ(disk.tree("/a"), std::vector<std::string>({"closed/", "closed/file"}));
    EXPECT_EQ(disk.mode("/a/closed"), 0777U);
    EXPECT_EQ(quietly([] { return qel_rmdirtree("/a"); }), 1); // by then it can be read
}
