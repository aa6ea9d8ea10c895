// The served folder: no path leads out of it, and files are whole or not there.

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "errors.h"
#include "commands/folder.h"
#include "support.h"

namespace fs = std::filesystem;
using testing::ElementsAre;

namespace
{

/// ROOT is served; OUTSIDE is next to it and must not change.
struct Served : testing::Test {
    ScratchFolder scratch;
    Folder folder;
    IncomingFile incoming;

    Served()
    {
        put_file(scratch.at("root/inside"), "12345");
        put_file(scratch.at("outside/secret"), "secret");
        fs::create_symlink("../outside", scratch.at("root/way_out"));
        fs::create_symlink("../outside/secret", scratch.at("root/link"));
        folder = folder_open(scratch.at("root"));
    }

    std::string receive(const std::string &path, const std::string &content)
    {
        std::string problem = incoming_begin(incoming, folder, path);
        if (!problem.empty())
            return problem;
        problem = incoming_add(incoming, content);
        return problem.empty() ? incoming_end(incoming, 0644) : problem;
    }
};

using ServedFolder = Served;

} // namespace

TEST_F(ServedFolder, HasItsFilesUnderAbsoluteAndRelativePaths)
{
    EXPECT_TRUE(folder_has(folder, "/inside"));
    EXPECT_TRUE(folder_has(folder, "inside"));
    EXPECT_TRUE(folder_has(folder, "//.//inside"));
    EXPECT_TRUE(folder_has(folder, "/"));
    EXPECT_FALSE(folder_has(folder, "/nothing"));
    EXPECT_FALSE(folder_has(folder, "/inside/below"));
    EXPECT_EQ(folder_file_size(folder, "/inside"), 5u);
    EXPECT_EQ(folder_file_size(folder, "/"), 0u) << "a folder is not a file";
    EXPECT_EQ(folder_file_size(folder, "/nothing"), 0u);
}

TEST_F(ServedFolder, ShowsNothingOutside)
{
    EXPECT_FALSE(folder_has(folder, ".."));
    EXPECT_FALSE(folder_has(folder, "/../outside/secret"));
    EXPECT_FALSE(folder_has(folder, "inside/../../outside/secret"));
    EXPECT_FALSE(folder_has(folder, "way_out/secret"));
    EXPECT_EQ(folder_file_size(folder, "way_out/secret"), 0u);
    EXPECT_EQ(folder_file_size(folder, "link"), 0u);
    EXPECT_EQ(folder_file_size(folder, "../outside/secret"), 0u);
    EXPECT_TRUE(folder_has(folder, "link")) << "the link itself is there";
}

TEST_F(ServedFolder, ListsNumbersInOrderAndNothingElse)
{
    for (const char *name : {"12", "3", "0", "007", "-5", "4294967295", "4294967296", "5x", "x5"})
        put_file(scratch.at(std::string("root/plugins/") + name), "");
    EXPECT_THAT(folder_numbers(folder, "plugins"), ElementsAre(3, 12, 4294967295));
    EXPECT_THAT(folder_numbers(folder, "nothing"), ElementsAre());
    EXPECT_THAT(folder_numbers(folder, "way_out"), ElementsAre());
}

TEST_F(ServedFolder, ReceivesAFileAndMakesTheFoldersToIt)
{
    EXPECT_EQ(receive("/a/b/file", "content"), "");
    EXPECT_EQ(content_of(scratch.at("root/a/b/file")), "content");
    struct stat entry = {};
    stat(scratch.at("root/a/b/file").c_str(), &entry);
    EXPECT_EQ(entry.st_mode & 07777, 0644u);
}

TEST_F(ServedFolder, ReplacesAFileOnlyWhenTheNewOneIsWhole)
{
    ASSERT_EQ(incoming_begin(incoming, folder, "inside"), "");
    EXPECT_EQ(content_of(scratch.at("root/inside")), "12345");
    EXPECT_TRUE(fs::exists(scratch.at("root/inside.part")));
    incoming_drop(incoming);
    EXPECT_FALSE(fs::exists(scratch.at("root/inside.part")));
    EXPECT_EQ(receive("inside", "new"), "");
    EXPECT_EQ(content_of(scratch.at("root/inside")), "new");
    EXPECT_FALSE(fs::exists(scratch.at("root/inside.part")));
}

TEST_F(ServedFolder, ABeginThrowsAwayTheFileThatWasNotEnded)
{
    ASSERT_EQ(incoming_begin(incoming, folder, "one"), "");
    EXPECT_EQ(receive("two", "2"), "");
    EXPECT_FALSE(fs::exists(scratch.at("root/one.part")));
    EXPECT_FALSE(fs::exists(scratch.at("root/one")));
}

TEST_F(ServedFolder, WritesNothingOutside)
{
    EXPECT_EQ(receive("../outside/new", "x"), "\"..\" is refused");
    EXPECT_EQ(receive("/a/../../outside/new", "x"), "\"..\" is refused");
    EXPECT_EQ(receive("..", "x"), "\"..\" is refused");
    EXPECT_EQ(receive("way_out/new", "x"), "Not a directory");
    EXPECT_EQ(receive("way_out/secret", "x"), "Not a directory");
    EXPECT_EQ(receive("/", "x"), "no name");
    EXPECT_EQ(receive("", "x"), "no name");
    EXPECT_EQ(receive(std::string(5000, 'a'), "x"), "too long");
    EXPECT_EQ(receive(std::string(300, 'a'), "x"), "File name too long");
    EXPECT_EQ(content_of(scratch.at("outside/secret")), "secret");
    EXPECT_EQ(std::distance(fs::directory_iterator(scratch.at("outside")), {}), 1);
}

TEST_F(ServedFolder, ALinkIsReplacedAndNotWrittenThrough)
{
    fs::create_symlink("../outside/secret", scratch.at("root/file.part"));
    EXPECT_EQ(receive("file", "x"), "");
    EXPECT_EQ(receive("link", "x"), "");
    EXPECT_EQ(content_of(scratch.at("root/link")), "x");
    EXPECT_FALSE(fs::is_symlink(scratch.at("root/link")));
    EXPECT_EQ(content_of(scratch.at("outside/secret")), "secret");
}

TEST_F(ServedFolder, AFolderIsNotReplacedByAFile)
{
    put_file(scratch.at("root/folder/below"), "");
    EXPECT_EQ(receive("folder", "x"), "Is a directory");
    EXPECT_FALSE(fs::exists(scratch.at("root/folder.part")));
}

TEST_F(ServedFolder, DataAndEndWithoutABeginAreRefused)
{
    EXPECT_EQ(incoming_add(incoming, ""), "no file has begun");
    EXPECT_EQ(incoming_end(incoming, 0644), "no file has begun");
}

TEST(FolderOpen, WantsAFolder)
{
    ScratchFolder scratch;
    put_file(scratch.at("file"), "");
    EXPECT_THROW(folder_open(scratch.at("nothing")), Failure);
    EXPECT_THROW(folder_open(scratch.at("file")), Failure);
}
