// What is beyond the ordinary limits: names, paths, lengths, counts and times that are longer, larger or less
// than any that the cabinet has. The libraries answer or stop; they touch nothing that is not theirs.

#include "support/output.h"
#include "support/scratch_disk.h"
#include "support/stops.h"
#include "support/sysmsg_fixture.h"

#include "qel_tolbrin/qel_h8_command.h"
#include "qel_tolbrin/qel_sysmsg.h"
#include "qel_utility/qel_filesystem.h"
#include "qel_utility/qel_log.h"
#include "qel_utility/qel_string.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <limits.h>
#include <stddef.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <memory>

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace
{

// ---- Names ----

/// A folder whose entries have names of any length. What is removed by a path that names it is gone.
struct LongNames : OnScratchDisk {
    LongNames()
    {
        kernel.on_opendir = [this](auto...) {
            next = 0;
            return reinterpret_cast<DIR *>(this);
        };
        kernel.on_readdir = [this](DIR *) { return next < names.size() ? entry(names[next++]) : nullptr; };
        kernel.on_closedir = [](auto...) { return 0; };
        kernel.on_stat = [](const char *, struct stat *status) {
            *status = {};
            status->st_mode = S_IFDIR;
            return 0;
        };
        kernel.on_chmod = [](auto...) { return 0; };
        kernel.on_unlink = [this](const char *path) {
            const auto found = std::find(names.begin(), names.end(), std::string(path).substr(strlen("/a/")));
            if (found == names.end())
                return -1;
            names.erase(found);
            return 0;
        };
    }
    struct dirent *entry(const std::string &name)
    {
        block.resize(offsetof(struct dirent, d_name) + name.size() + 1);
        auto *result = reinterpret_cast<struct dirent *>(block.data());
        result->d_type = DT_REG;
        memcpy(block.data() + offsetof(struct dirent, d_name), name.c_str(), name.size() + 1);
        return result;
    }
    void add(size_t count, size_t length)
    {
        for (size_t i = 0; i < count; ++i)
            names.push_back(std::string(length - 1, 'n') + static_cast<char>('a' + i));
    }
    int remove_contents()
    {
        int result = -1;
        output_of([&] { result = qel_rmdircontents("/a"); });
        return result;
    }

    std::vector<std::string> names;
    size_t next = 0;
    std::vector<char> block;
};

TEST_F(LongNames, Of255BytesComeIn20sAsAlways)
{
    add(25, 255);
    EXPECT_EQ(remove_contents(), 1);
    EXPECT_THAT(names, IsEmpty());
    EXPECT_EQ(kernel.count("opendir"), 2);
    EXPECT_EQ(kernel.count("readdir"), 26); // 20, then 5 and the end
}

TEST_F(LongNames, ThatDoNotFitWaitForTheNextBatch)
{
    add(25, 300);
    EXPECT_EQ(remove_contents(), 1);
    EXPECT_THAT(names, IsEmpty());
    EXPECT_EQ(kernel.count("opendir"), 2);
    EXPECT_EQ(kernel.count("readdir"), 27); // 17 and one that does not fit, then 8 and the end
}

TEST_F(LongNames, ThatAreOneByteTooLongForABatchWaitForTheNextOne)
{
    add(19, 255);
    add(1, 256); // 5121 bytes with the NULs
    EXPECT_EQ(remove_contents(), 1);
    EXPECT_EQ(kernel.count("readdir"), 22); // 19 and the one that does not fit, then that and the end
}

TEST_F(LongNames, ThatNoPathHasRoomForStay)
{
    add(10, 765);
    EXPECT_EQ(remove_contents(), 0);
    EXPECT_EQ(names.size(), 10U);
    EXPECT_EQ(kernel.count("unlink"), 6);
}

TEST_F(LongNames, ThatNoPathHasRoomForDoNotKeepTheOthers)
{
    add(3, 765);
    add(20, 300);
    EXPECT_EQ(remove_contents(), 0);
    EXPECT_EQ(names.size(), 3U);
}

TEST_F(LongNames, ThatNoPathHasRoomForDoNotKeepTheLastOne)
{
    add(6, 765);
    add(2, 300); // one in each batch
    EXPECT_EQ(remove_contents(), 0);
    EXPECT_EQ(names.size(), 6U);
}

TEST_F(LongNames, ThatNoBatchHasRoomForStay)
{
    add(1, 6000);
    EXPECT_EQ(remove_contents(), 0);
    EXPECT_EQ(names.size(), 1U);
}

// ---- Paths ----

/// A kernel on which nothing exists and every folder can be made.
struct LongPaths : OnScratchDisk {
    LongPaths()
    {
        kernel.on_stat = [](auto...) { return -1; };
        kernel.on_mkdir = [](auto...) { return 0; };
    }
    /// "/" and folders with names of 1 to 9 bytes, so many bytes in all that it is `length` or one more.
    static std::string path_of(size_t length)
    {
        std::string path;
        for (size_t size = 1; path.size() < length; size = size % 9 + 1)
            path += "/" + std::string(std::min(size, std::max<size_t>(length - path.size(), 2) - 1), 'x');
        return path;
    }
    /// The folders made by a copy into `path`.
    std::vector<std::string> made_for(const std::string &path)
    {
        kernel.forget_calls();
        output_of([&] { EXPECT_EQ(qel_mergedircontents("/missing", path.c_str()), 0); });
        return kernel.calls("mkdir");
    }
};

TEST_F(LongPaths, OfACopysDestinationAreMadeWhole)
{
    for (size_t length = PATH_MAX - 3; length <= PATH_MAX + 12; ++length) {
        const std::string path = path_of(length);
        EXPECT_EQ(made_for(path).back(), "mkdir " + path.substr(0, path.rfind('/')) + " 0755") << length;
    }
}

TEST_F(LongPaths, NeedMemoryToBeMade)
{
    kernel.watches_memory = 1;
    kernel.fail("malloc", ENOMEM);
    EXPECT_THAT(made_for(path_of(5000)), IsEmpty());
    EXPECT_THAT(made_for(path_of(4000)), Not(IsEmpty()));
}

TEST_F(LongPaths, AreMatchedWholeByARulesPattern)
{
    kernel.on_stat = [](const char *, struct stat *status) {
        *status = {};
        status->st_mode = S_IFREG;
        return 0;
    };
    const std::string name(600, 'x');
    const qel_copy_foo rules[] = {{1, name.c_str()}};
    EXPECT_EQ(_qel_cpdirtree_with_foo(("/a/" + name).c_str(), "/b", 0, rules, 1), 1);
    EXPECT_EQ(kernel.count("open"), 0);
    EXPECT_EQ(_qel_cpdirtree_with_foo(("/a/" + name + "x").c_str(), "/b", 0, rules, 1), 0);
    EXPECT_GT(kernel.count("open"), 0);
}

TEST(Rules, MatchWhatIsBehindAnyOfTheSlashes)
{
    FakeKernel kernel;
    kernel.on_stat = [](const char *, struct stat *status) {
        *status = {};
        status->st_mode = S_IFREG;
        return 0;
    };
    const auto leaves_out = [](const char *pattern, const char *path) {
        const qel_copy_foo rule = {1, pattern};
        int result = -1;
        output_of([&] { result = _qel_cpdirtree_with_foo(path, "/no/such/folder", 0, &rule, 1); });
        return result;
    };
    EXPECT_TRUE(leaves_out("b", "/a/b"));
    EXPECT_TRUE(leaves_out("b/c", "/a/b/c"));
    EXPECT_TRUE(leaves_out("b*", "/a/bx/c"));
    EXPECT_TRUE(leaves_out("?/c", "/a/b/c"));
    EXPECT_TRUE(leaves_out("a/b", "/a/b"));
    EXPECT_FALSE(leaves_out("b", "/a/b/c"));
    EXPECT_FALSE(leaves_out("b", "/a/ab"));
    EXPECT_FALSE(leaves_out("", "/a/b"));
}

// ---- Buffers that are too small, and one buffer for two things ----

TEST(BufferSizes, OfNothingOrLessTakeNothing)
{
    for (const int size : {0, -1, INT_MIN}) {
        char buffer[] = "untouched";
        EXPECT_EQ(qel_child_path("/a", "b", buffer, size), 4);
        EXPECT_EQ(qel_filename_part("/a/name", buffer, size), 4);
        qel_location_code("ab", 407, buffer, size);
        EXPECT_STREQ(buffer, "untouched");
        EXPECT_STOPS_AT(1173, qel_sibling_path("/a/b", "c", buffer, size));
        EXPECT_STOPS_AT(1108, qel_get_current_dir(buffer, size));
        EXPECT_STOPS_AT(1137, qel_parent_dir("/a/b", buffer, size));
        EXPECT_STOPS_AT(1199, qel_path_put_extension(".x", buffer, size));
        EXPECT_STOPS_AT(463, find_file_no_case("/", "x", buffer, size));
        EXPECT_STREQ(buffer, "untouched");
    }
}

TEST(BufferSizes, OfAPathMayEndBeforeItsExtension)
{
    char path[] = "/a/name.txt";
    EXPECT_EQ(qel_path_put_extension(".html", path, 1), 5);
    EXPECT_EQ(qel_path_put_extension(".html", path, 7), 5);
    EXPECT_STREQ(path, "/a/name.txt");
    EXPECT_EQ(qel_path_put_extension(".html", path, 9), 5);
    EXPECT_STREQ(path, "/a/name.");
    EXPECT_EQ(qel_path_put_extension(".html", path, 8), 5);
    EXPECT_STREQ(path, "/a/name");
}

TEST(OneBuffer, ServesAPathAndItsSibling)
{
    char path[20] = "/a/name";
    EXPECT_EQ(qel_sibling_path(path, "longer name", path, sizeof path), 11);
    EXPECT_STREQ(path, "/a/longer name");
    EXPECT_EQ(qel_sibling_path(path, "x", path, 4), 1);
    EXPECT_STREQ(path, "/a/");
}

TEST(OneBuffer, ServesAPathAndItsParentOrItsName)
{
    char path[20] = "/a/bc/name";
    qel_parent_dir(path, path, sizeof path);
    EXPECT_STREQ(path, "/a/bc");
    EXPECT_EQ(qel_filename_part(path, path, sizeof path), 2);
    EXPECT_STREQ(path, "bc");
}

TEST(OneBuffer, ServesAPathAndItsExtension)
{
    char path[20] = "/a/name.tar.gz";
    EXPECT_EQ(qel_path_put_extension(strrchr(path, '.'), path, sizeof path), 3);
    EXPECT_STREQ(path, "/a/name.tar.gz");
    EXPECT_EQ(qel_path_put_extension(strchr(path, '.'), path, sizeof path), 7);
    EXPECT_STREQ(path, "/a/name.tar.tar.gz");
}

// ---- Letters and blanks ----

TEST(Bytes, Above127AreNoLettersAndNoBlanksWhateverTheLocale)
{
    char path[] = "\xE9:/x";
    qel_path_normalize(path);
    EXPECT_STREQ(path, "\xE9:/x");
    EXPECT_EQ(_qel_path_root_len("\xC9:/x", 1), 0);
    char text[] = "\xA0 x\x85";
    qel_str_normalize_spaces(text);
    EXPECT_STREQ(text, "\xA0 x\x85");
    EXPECT_EQ(qel_filename_is_valid("\x9F\xA0"), 1);
}

TEST(Bytes, AroundTheLettersAreNone)
{
    for (const char *text : {"@:/", "[:/", "`:/", "{:/", "0:/"}) {
        char path[4];
        strcpy(path, text);
        qel_path_normalize(path);
        EXPECT_STREQ(path, std::string(text).substr(0, 2).c_str());
        EXPECT_EQ(_qel_path_root_len(text, 1), 0) << text;
    }
    for (const char *text : {"A:/", "Z:/", "a:/", "z:/"})
        EXPECT_EQ(_qel_path_root_len(text, 1), 3) << text;
}

// ---- Sizes ----

TEST_F(OnScratchDisk, ADiskOfAnySizeIsMultipliedWithoutASign)
{
    const auto measured = [this](uint64_t blocks, uint32_t block_bytes) {
        kernel.on_statfs = [=](const char *, struct statfs *space) {
            *space = {};
            space->f_bsize = static_cast<decltype(space->f_bsize)>(block_bytes);
            space->f_blocks = blocks;
            space->f_bavail = blocks - 1;
            return 0;
        };
        int64_t free_bytes = 0, total_bytes = 0;
        qel_get_disk_space("/", &free_bytes, &total_bytes);
        return std::vector<int64_t>{free_bytes, total_bytes};
    };
    EXPECT_THAT(measured(1000, 4096), ElementsAre(4091904, 4096000));
    EXPECT_THAT(measured(0x0010000000000001, 4096), ElementsAre(0, 4096)); // 2^64 and 4096 more
    EXPECT_THAT(measured(0x0008000000000000, 4096), ElementsAre(0x7FFFFFFFFFFFF000, INT64_MIN));
    EXPECT_THAT(measured(3, 0xFFFFFFFF), ElementsAre(-2, -3)); // a size of -1
}

TEST_F(OnScratchDisk, ATreeOfAnySizeAddsUpToTheLargestNumberAtMost)
{
    kernel.on_stat = [](const char *, struct stat *status) {
        *status = {};
        status->st_mode = S_IFREG;
        status->st_size = INT64_MAX;
        return 0;
    };
    int64_t size = 1;
    EXPECT_EQ(qel_get_folder_size_with_threshold("/a", 0, &size), 1);
    EXPECT_EQ(size, INT64_MAX);
    EXPECT_EQ(qel_get_folder_size_with_threshold("/a", INT64_MAX - 1, &size), 0);
}

// ---- Arguments ----

TEST(WineArguments, OfANegativeNumberAreNone)
{
    FakeKernel kernel;
    kernel.on_socketpair = [](auto...) { return 0; };
    kernel.on_fork = [] { return 0; };
    kernel.on_dup2 = [](int, int to) { return to; };
    kernel.fail("execve", ENOENT);
    EXPECT_STOPS_AT(1744, qel_wine_exec_capture("program", nullptr, INT_MIN));
    EXPECT_THAT(kernel.calls("execve"),
                ElementsAre(HasSubstr("execve /usr/wine/bin/wine [/usr/wine/bin/wine program]")));
}

// ---- Messages ----

using LongMessages = Query;

TEST_F(LongMessages, AsAnswersHaveNoNegativeLength)
{
    EXPECT_STOPS_ON("block_len >= 0", sysmsg_unit, qel_sysmsg_reply_plain(&peer.con, "x", -1));
    EXPECT_STOPS_ON("block_len >= 0", sysmsg_unit, qel_sysmsg_reply_plain(&peer.con, "x", INT_MIN));
    EXPECT_THAT(peer.sent, IsEmpty());
}

TEST_F(LongMessages, HaveALengthThatIsAnInt)
{
    FakeKernel kernel; // has no memory: nothing is copied should one get through
    kernel.watches_memory = 1;
    kernel.fail("malloc", ENOMEM);
    const void *plain;
    uint32_t length;
    EXPECT_STOPS_ON("size <= _qel_sysmsg_bytes_max", sysmsg_unit,
                    qel_sysmsg_reply_plain(&peer.con, "x", INT_MAX));
    EXPECT_STOPS_ON("size <= _qel_sysmsg_bytes_max", sysmsg_unit,
                    qel_sysmsg_transfer_data(&peer.con, "x", INT_MAX - 15));
    EXPECT_STOPS_ON("message", sysmsg_unit, qel_sysmsg_transfer_data(&peer.con, "x", INT_MAX - 16));
    EXPECT_STOPS_ON("size <= _qel_sysmsg_bytes_max", sysmsg_unit,
                    qel_sysmsg_send_updater(&peer.con, "x", INT_MAX - 11));
    EXPECT_STOPS_ON("message", sysmsg_unit, qel_sysmsg_send_updater(&peer.con, "x", INT_MAX - 12));
    EXPECT_STOPS_ON("size <= _qel_sysmsg_bytes_max", sysmsg_unit,
                    qel_sysmsg_decipher(&peer.con, "x", INT_MAX - 15, &plain, &length));
    EXPECT_THAT(peer.sent, IsEmpty());
}

#if SIZE_MAX > UINT32_MAX // else no program has room for such a text
/// A text of 2^31 bytes with its NUL: one page of memory, again and again.
struct LongestText {
    static const size_t bytes = 1UL << 31, page = 1UL << 21;
    char *text = static_cast<char *>(mmap(nullptr, bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    LongestText()
    {
        const int memory = memfd_create("page", 0);
        EXPECT_EQ(write(memory, std::string(page, 'x').c_str(), page), static_cast<ssize_t>(page));
        for (size_t at = 0; at < bytes; at += page)
            mmap(text + at, page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_FIXED, memory, 0);
        close(memory);
        text[bytes - 1] = '\0';
    }
    ~LongestText()
    {
        munmap(text, bytes);
    }
};

TEST_F(LongMessages, HaveATextWhoseLengthIsAnInt)
{
    LongestText longest;
    EXPECT_STOPS_ON("bytes <= _qel_sysmsg_bytes_max", sysmsg_unit,
                    qel_sysmsg_reply_text(&peer.con, longest.text));
    EXPECT_STOPS_ON("bytes <= _qel_sysmsg_bytes_max", sysmsg_unit,
                    qel_sysmsg_file_begin(&peer.con, longest.text));
    EXPECT_STOPS_ON("size <= _qel_sysmsg_bytes_max", sysmsg_unit,
                    qel_sysmsg_reply_text(&peer.con, longest.text + 1));
    EXPECT_THAT(peer.sent, IsEmpty());
}
#endif

TEST_F(LongMessages, OfPluginsHaveRoomForAllThatAreCounted)
{
    FakeKernel kernel;
    kernel.watches_memory = 1;
    kernel.fail("malloc", ENOMEM);
    const uint32_t id = 7;
    const char *const text = "count <= (_qel_sysmsg_bytes_max - 16) / 4";
    EXPECT_STOPS_ON(text, sysmsg_unit, qel_sysmsg_reply_plugins(&peer.con, &id, 0x3FFFFFFF));
    EXPECT_STOPS_ON(text, sysmsg_unit, qel_sysmsg_reply_plugins(&peer.con, &id, 0xFFFFFFFF));
    EXPECT_STOPS_ON(text, sysmsg_unit, qel_sysmsg_reply_plugins(&peer.con, &id, 0x1FFFFFFC));
    EXPECT_STOPS_ON("message", sysmsg_unit, qel_sysmsg_reply_plugins(&peer.con, &id, 0x1FFFFFFB));
    EXPECT_THAT(peer.sent, IsEmpty());
}

TEST_F(LongMessages, OfPluginsAreAskedForWithRoomForThem)
{
    uint32_t plugins[1], count;
    for (const int32_t room : {-1, -5, INT_MIN}) {
        EXPECT_STOPS_ON("plugin_max >= 0", sysmsg_unit,
                        qel_sysmsg_get_plugins(&peer.con, plugins, room, &count));
    }
    for (const int32_t room : {0x1FFFFFFC, 0x3FFFFFFF, INT_MAX}) {
        EXPECT_STOPS_ON("(uint32_t)plugin_max <= (_qel_sysmsg_bytes_max - 16) / 4", sysmsg_unit,
                        qel_sysmsg_get_plugins(&peer.con, plugins, room, &count));
    }
    EXPECT_THAT(peer.sent, IsEmpty());
}

TEST_F(LongMessages, MakeNoFileOfLessThanNothing)
{
    EXPECT_STOPS_ON("length >= 0", sysmsg_unit, qel_sysmsg_send_buffer_as_file(&peer.con, "x", -1, "/f"));
    EXPECT_THAT(peer.sent, IsEmpty());
}

TEST_F(LongMessages, AreNotReceivedWithANegativeLength)
{
    message = {26, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}; // 2^32 - 1 bytes, as it says
    EXPECT_STOPS_ON("len == sysmsg->msg_size", sysmsg_unit,
                    qel_sysmsg_receive(&peer.con, message.data(), -1));
}

TEST(H8Reply, HasNoNegativeSize)
{
    const uint8_t command = 5;
    uint8_t reply = 0;
    EXPECT_STOPS_ON("!reply || reply_len >= 0", h8_unit, qel_h8_command(&command, 1, &reply, -1));
}

// ---- Times ----

TEST(Timestamp, OfATimeThatHasNoDateIsAllZeros)
{
    FakeKernel kernel;
    kernel.fail("localtime", EOVERFLOW);
    int characters = 0;
    EXPECT_EQ(output_of([&] { characters = qel_log_timestamp(stdout); }), "0000-00-00 00:00:00 - ");
    EXPECT_EQ(characters, 22);
}

TEST(Timestamp, HasAnyYear)
{
    FakeKernel kernel;
    kernel.on_localtime = [](auto...) {
        static struct tm last = {};
        last.tm_year = INT_MAX;
        last.tm_mday = 1;
        return &last;
    };
    EXPECT_EQ(output_of([] { qel_log_timestamp(stdout); }), "2147485547-01-01 00:00:00 - ");
}

} // namespace
