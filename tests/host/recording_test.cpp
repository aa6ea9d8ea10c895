// Recordings: what is written, to the byte, and that nothing in a file can upset the reader.

#include <gmock/gmock.h>
#include <unistd.h>

#include "recording.h"
#include "support.h"

using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace
{

// As the pcapng format has them, little-endian.
const std::string section =
    bytes("0a 0d 0d 0a  1c 00 00 00  4d 3c 2b 1a  01 00 00 00  ff ff ff ff ff ff ff ff  1c 00 00 00");
const std::string interface =
    bytes("01 00 00 00  28 00 00 00  93 00 00 00  40 00 00 00"
          " 02 00 09 00 68 6f 73 74 20 6c 69 6e 6b 00 00 00  00 00 00 00  28 00 00 00");
// 0x0005d12b8040666a is 1637359649 s and 056362 us; 7 bytes, outbound.
const std::string packet =
    bytes("06 00 00 00  34 00 00 00  00 00 00 00  2b d1 05 00  6a 66 40 80  07 00 00 00  07 00 00 00"
          " 00 00 00 01 e1 f0 61 00  02 00 04 00 02 00 00 00  00 00 00 00  34 00 00 00");
const uint64_t packet_time_us = 0x0005d12b8040666a;

std::span<const uint8_t> span_of(const std::string &text)
{
    return {reinterpret_cast<const uint8_t *>(text.data()), text.size()};
}

std::string text_of(std::span<const uint8_t> characters)
{
    return {characters.begin(), characters.end()};
}

/// What the reader makes of a file, with the bytes that it refers to.
struct Read : RecordingContents {
    explicit Read(const std::string &content) : file(content)
    {
        static_cast<RecordingContents &>(*this) = recording_read(span_of(file));
    }
    Read(const Read &) = delete;
    Read &operator=(const Read &) = delete;
    std::string file;
};

} // namespace

TEST(RecordingWriter, WritesSectionInterfaceAndPacketsToTheByte)
{
    ScratchFolder scratch;
    FILE *file = recording_create(scratch.at("r").c_str());
    ASSERT_NE(file, nullptr);
    ASSERT_TRUE(
        recording_add(file, packet_time_us, Direction::outbound, span_of(bytes("00 00 00 01 e1 f0 61"))));
    EXPECT_EQ(content_of(scratch.at("r")), section + interface + packet) << "and without a close";
    fclose(file);
}

TEST(RecordingWriter, TellsThatAFileCannotBeMade)
{
    EXPECT_EQ(recording_create("/nonexistent/r"), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

TEST(RecordingReader, ReadsWhatTheWriterWrites)
{
    Read contents(section + interface + packet + packet);
    ASSERT_THAT(contents.packets, SizeIs(2));
    EXPECT_EQ(contents.packets[0].time_us, packet_time_us);
    EXPECT_EQ(contents.packets[0].direction, Direction::outbound);
    EXPECT_EQ(text_of(contents.packets[0].bytes), bytes("00 00 00 01 e1 f0 61"));
    EXPECT_EQ(contents.problem, "");
}

TEST(RecordingReader, FollowsTheResolutionOfTheInterface)
{
    // Option 9 with 9: nanoseconds; with 3: milliseconds; with 0x8a: 1/1024 s, which nothing writes here.
    const std::string nanoseconds = bytes("01 00 00 00  20 00 00 00  93 00 00 00  40 00 00 00"
                                          " 09 00 01 00 09 00 00 00  00 00 00 00  20 00 00 00");
    const std::string milliseconds = bytes("01 00 00 00  20 00 00 00  93 00 00 00  40 00 00 00"
                                           " 09 00 01 00 03 00 00 00  00 00 00 00  20 00 00 00");
    const std::string binary = bytes("01 00 00 00  20 00 00 00  93 00 00 00  40 00 00 00"
                                     " 09 00 01 00 8a 00 00 00  00 00 00 00  20 00 00 00");
    // 2048 ticks.
    const std::string at_2048 = bytes("06 00 00 00  24 00 00 00  00 00 00 00  00 00 00 00  00 08 00 00"
                                      " 01 00 00 00  01 00 00 00  80 00 00 00  24 00 00 00");
    ASSERT_THAT(Read(section + nanoseconds + at_2048).packets, SizeIs(1));
    EXPECT_EQ(Read(section + nanoseconds + at_2048).packets[0].time_us, 2u);
    EXPECT_EQ(Read(section + milliseconds + at_2048).packets.at(0).time_us, 2048000u);
    EXPECT_EQ(Read(section + milliseconds + at_2048).packets.at(0).direction, Direction::unknown);
    EXPECT_EQ(Read(section + binary + at_2048).problem, "time resolution out of range (at byte 28)");
}

TEST(RecordingReader, LeavesOutOtherLinkTypesAndUnknownBlocks)
{
    const std::string ethernet = bytes("01 00 00 00  14 00 00 00  01 00 00 00  40 00 00 00  14 00 00 00");
    const std::string statistics = bytes("05 00 00 00  10 00 00 00  00 00 00 00  10 00 00 00");
    const std::string simple = bytes("03 00 00 00  14 00 00 00  01 00 00 00  61 00 00 00  14 00 00 00");
    Read contents(section + ethernet + statistics + packet + simple);
    EXPECT_THAT(contents.packets, IsEmpty());
    EXPECT_EQ(contents.foreign, 2u);
    EXPECT_EQ(contents.problem, "");
}

TEST(RecordingReader, ANewSectionForgetsTheInterfaces)
{
    EXPECT_EQ(Read(section + interface + section + packet).problem,
              "packet of an interface that was not described (at byte 96)");
}

struct BrokenFile {
    const char *what;
    std::string content;
    const char *problem;
};

TEST(RecordingReader, NamesTheProblemOfABrokenFileAndKeepsWhatCameBefore)
{
    const std::string good = section + interface + packet; // 28 + 40 + 52 bytes
    const BrokenFile broken[] = {
        {"empty", "", "not a pcapng file (at byte 0)"},
        {"another format", "hello world, this is text", "not a pcapng file (at byte 0)"},
        {"no byte order", bytes("0a 0d 0d 0a  1c 00 00 00  00 00 00 00"),
         "not a little-endian pcapng file (at byte 0)"},
        {"the other byte order",
         bytes("0a 0d 0d 0a  00 00 00 1c  1a 2b 3c 4d  00 01 00 00  ff ff ff ff ff ff ff ff  00 00 00 1c"),
         "not a little-endian pcapng file (at byte 0)"},
        {"section too short", bytes("0a 0d 0d 0a  10 00 00 00  4d 3c 2b 1a  10 00 00 00"),
         "section header too short (at byte 0)"},
        {"another version",
         bytes("0a 0d 0d 0a  1c 00 00 00  4d 3c 2b 1a  02 00 00 00  ff ff ff ff ff ff ff ff  1c 00 00 00"),
         "unknown version of the file format (at byte 0)"},
        {"rest shorter than a block", good + bytes("06 00 00 00 20 00"),
         "cut off in the middle of a block (at byte 120)"},
        {"length 0", good + bytes("06 00 00 00  00 00 00 00  00 00 00 00"),
         "block length cannot be right (at byte 120)"},
        {"length 8", good + bytes("06 00 00 00  08 00 00 00  08 00 00 00"),
         "block length cannot be right (at byte 120)"},
        {"odd length", good + bytes("06 00 00 00  0d 00 00 00  00 00 00 00 0d"),
         "block length cannot be right (at byte 120)"},
        {"length beyond the end", good + bytes("06 00 00 00  fc ff ff ff  00 00 00 00"),
         "cut off in the middle of a block (at byte 120)"},
        {"lengths that differ", good + bytes("07 00 00 00  0c 00 00 00  10 00 00 00"),
         "the two lengths of a block differ (at byte 120)"},
        {"interface too short", good + bytes("01 00 00 00  0c 00 00 00  0c 00 00 00"),
         "interface description too short (at byte 120)"},
        {"resolution out of range",
         good +
             bytes(
                 "01 00 00 00  1c 00 00 00  93 00 00 00  40 00 00 00  09 00 01 00 7f 00 00 00  1c 00 00 00"),
         "time resolution out of range (at byte 120)"},
        {"packet block too short", good + bytes("06 00 00 00  10 00 00 00  00 00 00 00  10 00 00 00"),
         "packet block too short (at byte 120)"},
        {"interface number out of range",
         good + bytes("06 00 00 00  20 00 00 00  01 00 00 00  00 00 00 00  00 00 00 00  00 00 00 00  00 00 "
                      "00 00  20 00 00 00"),
         "packet of an interface that was not described (at byte 120)"},
        {"packet longer than its block",
         good + bytes("06 00 00 00  20 00 00 00  00 00 00 00  00 00 00 00  00 00 00 00  01 00 00 00  01 00 "
                      "00 00  20 00 00 00"),
         "packet longer than its block (at byte 120)"},
        {"packet of 4 GiB",
         good + bytes("06 00 00 00  20 00 00 00  00 00 00 00  00 00 00 00  00 00 00 00  ff ff ff ff  01 00 "
                      "00 00  20 00 00 00"),
         "packet longer than its block (at byte 120)"},
    };
    for (const BrokenFile &file : broken) {
        Read contents(file.content);
        EXPECT_EQ(contents.problem, file.problem) << file.what;
        EXPECT_EQ(contents.packets.size(), file.content.starts_with(good) ? 1u : 0u) << file.what;
    }
}

TEST(RecordingReader, TakesBrokenOptionsAsNone)
{
    // The option claims 60000 bytes.
    std::string file = section + interface + packet;
    file[file.size() - 14] = '\x60';
    file[file.size() - 13] = '\xea';
    Read contents(file);
    EXPECT_EQ(contents.problem, "");
    ASSERT_THAT(contents.packets, SizeIs(1));
    EXPECT_EQ(contents.packets[0].direction, Direction::unknown);
}

TEST(RecordingReader, SurvivesEveryCutAndEveryFlippedBit)
{
    const std::string good = section + interface + packet + packet;
    for (size_t size = 0; size < good.size(); size++) {
        Read contents(good.substr(0, size));
        EXPECT_LE(contents.packets.size(), 1u) << size;
        bool between_blocks = size == 28 || size == 68 || size == 120;
        EXPECT_EQ(contents.problem.empty(), between_blocks) << size;
    }
    for (size_t bit = 0; bit < good.size() * 8; bit++) {
        std::string damaged = good;
        damaged[bit / 8] ^= static_cast<char>(1 << bit % 8);
        for (const RecordedPacket &read : Read(damaged).packets)
            EXPECT_LE(read.bytes.size(), 20u) << "bit " << bit;
    }
}
