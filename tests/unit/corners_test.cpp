// Corners that the library's headers warn of: what a caller may not expect, and gets all the same.

#include "support/output.h"
#include "support/scratch_disk.h"
#include "support/stops.h"

#include "qel_utility/qel_filesystem.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

using testing::EndsWith;
using testing::IsEmpty;

namespace
{

using Corners = OnScratchDisk;

int quietly(const std::function<int()> &statement)
{
    int result = -1;
    output_of([&] { result = statement(); });
    return result;
}

// ---- Copies ----

TEST_F(Corners, ACopyToAPathDirectlyUnderTheRootStopsWhenTheOldOneIsGone)
{
    disk.make_file("/a/file", "content");
    disk.make_file("/x/old", "content");
    EXPECT_STOPS_AT(902, qel_cpdircontents("/a", "/x"));
    EXPECT_FALSE(disk.has("/x"));
}

TEST_F(Corners, AMergeIntoAPathDirectlyUnderTheRootStopsBeforeAnythingIsDone)
{
    disk.make_file("/a/file", "content");
    disk.make_file("/x/old", "content");
    EXPECT_STOPS_AT(902, qel_mergedircontents("/a", "/x"));
    EXPECT_EQ(disk.tree("/x"), std::vector<std::string>({"old"}));
}

TEST_F(Corners, ATreeCopiedOntoItselfIsDeleted)
{
    disk.make_file("/a/tree/file", "content");
    EXPECT_EQ(quietly([] { return qel_cpdircontents("/a/tree", "/a/tree"); }), 0);
    EXPECT_THAT(disk.tree("/a"), IsEmpty());
    disk.make_file("/a/tree/file", "content");
    EXPECT_EQ(quietly([] { return qel_cpdirtree("/a/tree", "/a"); }), 0);
    EXPECT_THAT(disk.tree("/a"), IsEmpty());
}

TEST_F(Corners, AFileCopiedOntoItselfIsEmpty)
{
    disk.make_file("/a/file", "content");
    EXPECT_EQ(quietly([] { return qel_copy_file("/a/file", "/a/file"); }), 1);
    EXPECT_EQ(disk.content("/a/file"), "");
}

TEST_F(Corners, ACopyOfNothingIsNoPath)
{
    EXPECT_STOPS_AT(235, qel_copy_file("/a", nullptr));
    EXPECT_STOPS_AT(235, qel_copy_file(nullptr, "/a"));
}

// ---- Links, sockets ----

TEST_F(Corners, WhatARemovedLinkLeadsToStaysWithAllRights)
{
    disk.make_file("/a/file", "content");
    disk.make_link("/b/link", disk.at("/a/file"));
    EXPECT_EQ(real_chmod(disk.at("/a/file").c_str(), 0400), 0);
    EXPECT_EQ(quietly([] { return qel_rmdircontents("/b"); }), 1);
    EXPECT_THAT(disk.tree("/b"), IsEmpty());
    EXPECT_EQ(disk.mode("/a/file"), 0777U);
}

TEST_F(Corners, ASocketPassesForAFolderAndIsNotRemovedAsATree)
{
    disk.make_folder("/a");
    WorkingFolder folder(disk.at("/a")); // the address has room for a short path only
    sockaddr_un address = {AF_UNIX, "socket"};
    const int socket_end = socket(AF_UNIX, SOCK_STREAM, 0);
    EXPECT_EQ(bind(socket_end, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    real_close(socket_end);
    EXPECT_EQ(qel_file_is_dir("/a/socket"), 1);
    EXPECT_EQ(quietly([] { return qel_rmdirtree("/a/socket"); }), 0);
    EXPECT_TRUE(disk.has("/a/socket"));
    EXPECT_EQ(quietly([] { return qel_rmdircontents("/a"); }), 1); // by its entry it is no folder
    EXPECT_FALSE(disk.has("/a/socket"));
}

TEST_F(Corners, ASizeCountsWhatSeveralLinksLeadToSeveralTimes)
{
    disk.make_file("/a/file", std::string(5000, 'x'));
    const int64_t once = qel_get_folder_size("/a");
    disk.make_link("/a/link", disk.at("/a/file"));
    EXPECT_EQ(qel_get_folder_size("/a/link"), 5000);
    EXPECT_GE(qel_get_folder_size("/a"), once + 5000);
    EXPECT_EQ(qel_get_folder_size("/missing"), 0);
}

// ---- Names ----

TEST_F(Corners, AFileOfTheRootIsFoundWithTwoSlashes)
{
    disk.make_file("/Name", "");
    char path[100];
    EXPECT_EQ(find_file_no_case("/", "nAME", path, sizeof path), 1);
    EXPECT_STREQ(path, "//Name");
    EXPECT_FALSE(qel_path_is_valid(path));
}

TEST(FileNames, ThatAreMadeValidMayStillBeNone)
{
    for (const auto &[text, name] : {std::pair(" \t", ""), std::pair(".", "."), std::pair(" .. ", "..")}) {
        char buffer[10];
        strcpy(buffer, text);
        qel_filename_make_valid(buffer);
        EXPECT_STREQ(buffer, name);
    }
}

// ---- Wine ----

TEST(WineCapture, HoldsAllThatWasWrittenBeforeItsRead)
{
    Scratch disk;
    FakeKernel kernel;
    kernel.redirect("/usr/wine", disk.path());
    disk.make_file("bin/wine", "#!/bin/sh\nprintf one\nprintf two\n", 0755);
    pid_t pid = 0;
    kernel.on_fork = [&] { return pid = real_fork(); };
    kernel.on_shutdown = [&](int end, int how) { // the first of them comes before the read
        siginfo_t child;
        EXPECT_EQ(waitid(P_PID, static_cast<id_t>(pid), &child, WEXITED | WNOWAIT), 0);
        EXPECT_EQ(child.si_status, 0);
        return real_shutdown(end, how);
    };
    EXPECT_STREQ(qel_wine_exec_capture("program", nullptr, 0), "onetwo");
}

} // namespace
