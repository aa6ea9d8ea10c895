// Commands to the H8, record by record, and the display's rows. The two device files are played: their
// descriptors are numbers that no real file has, so that the command device, which stays open for the
// life of the process, is the same for every test.

#include "support/fake_kernel.h"
#include "support/stops.h"

#include "qel_tolbrin/qel_h8_command.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <string.h>

#include <deque>

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

struct H8 : testing::Test {
    static constexpr int command_device = 5001;
    static constexpr int lcd_device = 5002;

    H8()
    {
        kernel.on_open = [](const char *path, auto...) {
            if (strcmp(path, "/dev/qellpc_command") == 0)
                return command_device;
            EXPECT_STREQ(path, "/dev/qellpc_lcd");
            return lcd_device;
        };
        kernel.on_write = [this](int file, const void *bytes, size_t size) {
            (file == command_device ? records : rows).emplace_back(static_cast<const char *>(bytes), size);
            return static_cast<ssize_t>(size);
        };
        kernel.on_read = [this](int file, void *bytes, size_t size) -> ssize_t {
            EXPECT_EQ(file, command_device);
            EXPECT_FALSE(replies.empty());
            const std::string reply = replies.front().substr(0, size);
            replies.pop_front();
            memcpy(bytes, reply.data(), reply.size());
            return static_cast<ssize_t>(reply.size());
        };
        kernel.on_close = [this](int file) {
            EXPECT_EQ(file, lcd_device);
            return close_result;
        };
    }
    static int send(const std::string &command, uint8_t *reply = nullptr, int reply_len = 0)
    {
        return qel_h8_command(reinterpret_cast<const uint8_t *>(command.data()),
                              static_cast<int>(command.size()), reply, reply_len);
    }

    FakeKernel kernel;
    std::vector<std::string> records; ///< what the command device was given, write by write
    std::vector<std::string> rows;    ///< what the display was given, write by write
    std::deque<std::string> replies;  ///< what the next reads give
    int close_result = 0;
};

using H8Command = H8;
using H8Wrappers = H8;
using H8Graphics = H8;
using LcdRow = H8;

/// The bytes `first` to `last`.
static std::string run_of(int first, int last)
{
    std::string bytes;
    for (int byte = first; byte <= last; ++byte)
        bytes += static_cast<char>(byte);
    return bytes;
}

// ---- Opening ----

TEST_F(H8Command, OpensTheDeviceOnTheFirstCommandAndKeepsIt)
{
    send("\x07");
    send("\x0A");
    EXPECT_THAT(kernel.calls("open close"), ElementsAre("open /dev/qellpc_command O_RDWR"));
    EXPECT_THAT(records, ElementsAre("\x07", "\x0A"));
}

TEST_F(H8Command, StopsWhenTheDeviceCannotBeOpenedAndTriesAgainTheNextTime)
{
    kernel.fail_nth("open", 1, ENODEV);
    EXPECT_STOPS_ON("f != -1", h8_unit, send("\x07"));
    EXPECT_THAT(records, IsEmpty());
    send("\x07");
    EXPECT_THAT(records, ElementsAre("\x07"));
}

// ---- Sending ----

TEST_F(H8Command, GoesOutInRecordsOf64BytesOfWhichAllButTheLastAreContinued)
{
    const std::pair<int, std::vector<std::string>> cases[] = {
        {1, {"\x09"}},
        {64, {"\x09" + run_of(1, 63)}},
        {65, {"\x14" + run_of(1, 63), "\x09" + run_of(64, 64)}},
        {127, {"\x14" + run_of(1, 63), "\x09" + run_of(64, 126)}},
        {128, {"\x14" + run_of(1, 63), "\x14" + run_of(64, 126), "\x09" + run_of(127, 127)}},
    };
    for (const auto &[size, wanted] : cases) {
        records.clear();
        EXPECT_EQ(send("\x09" + run_of(1, size - 1)), 0);
        EXPECT_EQ(records, wanted) << size;
    }
}

TEST_F(H8Command, ChecksInOrder)
{
    const uint8_t command = 7;
    EXPECT_STOPS_ON("command", h8_unit, qel_h8_command(nullptr, 0, nullptr, 0));
    EXPECT_STOPS_ON("command_len > 0", h8_unit, qel_h8_command(&command, 0, nullptr, 0));
    EXPECT_STOPS_ON("command_len > 0", h8_unit, qel_h8_command(&command, -1, nullptr, 0));
    EXPECT_THAT(kernel.calls(), IsEmpty());
}

// ---- Receiving ----

TEST_F(H8Command, ReadsNothingWithoutAReplyBuffer)
{
    EXPECT_EQ(send("\x07", nullptr, 64), 0);
    EXPECT_EQ(kernel.count("read"), 0);
}

TEST_F(H8Command, ReadsItsReplyInChunksOfAtMost64Bytes)
{
    uint8_t reply[150];
    replies = {std::string(64, 'a'), std::string(64, 'b'), std::string(22, 'c')};
    EXPECT_EQ(send("\x04", reply, 150), 150);
    EXPECT_THAT(kernel.calls("read"), ElementsAre("read 5001 64", "read 5001 64", "read 5001 22"));
    replies = {std::string(63, 'd')};
    EXPECT_EQ(send("\x04", reply + 80, 63), 63); // as much as there is room for, no more
    EXPECT_EQ(kernel.calls("read").back(), "read 5001 63");
    replies = {std::string(64, 'a'), std::string(64, 'b'), std::string(22, 'c')};
    EXPECT_EQ(send("\x04", reply, 150), 150);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(reply), 150),
              std::string(64, 'a') + std::string(64, 'b') + std::string(22, 'c'));
}

TEST_F(H8Command, EndsItsReplyAtAShortReadAndLeavesTheRestFilledWithAB)
{
    uint8_t reply[100];
    memset(reply, 0, sizeof reply);
    replies = {"short"};
    EXPECT_EQ(send("\x04", reply, 99), 5);
    EXPECT_EQ(memcmp(reply, "short", 5), 0);
    for (int i = 5; i < 99; ++i)
        EXPECT_EQ(reply[i], 0xAB) << i;
    EXPECT_EQ(reply[99], 0);
    EXPECT_EQ(kernel.count("read"), 1);
}

TEST_F(H8Command, EndsItsReplyAtAnEmptyReadAfterAFullOne)
{
    uint8_t reply[100];
    replies = {std::string(64, 'a'), ""};
    EXPECT_EQ(send("\x04", reply, 100), 64);
    EXPECT_EQ(reply[64], 0xAB);
}

TEST_F(H8Command, StopsReadingWhenNothingRemains)
{
    uint8_t reply[64];
    replies = {std::string(64, 'a')};
    EXPECT_EQ(send("\x04", reply, 64), 64);
    EXPECT_EQ(kernel.count("read"), 1);
}

// ---- Wrappers ----

TEST_F(H8Wrappers, SendASignalAsItsNumberAlone)
{
    for (uint8_t number : std::initializer_list<uint8_t>{0, 7, 10, 13, 15, 16})
        EXPECT_EQ(qel_h8_signal(number), 0);
    EXPECT_THAT(records, ElementsAre(std::string(1, '\0'), "\x07", "\x0A", "\x0D", "\x0F", "\x10"));
    EXPECT_EQ(kernel.count("read"), 0);
}

TEST_F(H8Wrappers, ReadABlockOf64BytesWithCommand4)
{
    uint8_t block[65];
    memset(block, 0, sizeof block);
    replies = {run_of(1, 64)};
    EXPECT_EQ(qel_h8_read_block(block), 64);
    EXPECT_THAT(records, ElementsAre("\x04"));
    EXPECT_EQ(std::string(reinterpret_cast<char *>(block), 65), run_of(1, 64) + '\0');

    replies = {"abc"};
    EXPECT_EQ(qel_h8_read_block(block), 3);
    EXPECT_EQ(block[3], 0xAB);
}

TEST_F(H8Wrappers, GetTheModeWithCommand5FromTheFirstReplyByte)
{
    replies = {"\x03", std::string(64, '\x01')};
    EXPECT_EQ(qel_h8_get_mode(), 3);
    EXPECT_EQ(qel_h8_get_mode(), 1);
    EXPECT_THAT(records, ElementsAre("\x05", "\x05"));
    EXPECT_THAT(kernel.calls("read"), ElementsAre("read 5001 64", "read 5001 64"));
}

TEST_F(H8Wrappers, GetANegativeModeFromAByteOf128AndMore)
{
    replies = {"\x80", "\xFF", "\x7F"};
    EXPECT_EQ(qel_h8_get_mode(), -128);
    EXPECT_EQ(qel_h8_get_mode(), -1);
    EXPECT_EQ(qel_h8_get_mode(), 127);
}

TEST_F(H8Wrappers, GetTheFillerAsTheModeFromAnEmptyReply)
{
    replies = {""};
    EXPECT_EQ(qel_h8_get_mode(), -85); // 0xAB
}

TEST_F(H8Wrappers, SendATextWithItsNulAsCommand6Or8)
{
    EXPECT_EQ(qel_h8_send_text_6("Hi there"), 0);
    EXPECT_EQ(qel_h8_send_text_8(""), 0);
    EXPECT_THAT(records, ElementsAre(std::string("\x06Hi there\0", 10), std::string("\x08\0", 2)));
    EXPECT_EQ(kernel.count("read"), 0);
}

TEST_F(H8Wrappers, ReadANumberWithCommand14UpToTheFirstNonDigit)
{
    replies = {"12abc", "  -7", "abc", "", std::string(64, '0')};
    EXPECT_EQ(qel_h8_read_number(), 12);
    EXPECT_EQ(qel_h8_read_number(), -7);
    EXPECT_EQ(qel_h8_read_number(), 0);
    EXPECT_EQ(qel_h8_read_number(), 0);
    EXPECT_EQ(qel_h8_read_number(), 0);
    EXPECT_THAT(records, testing::Each("\x0E"));
    EXPECT_EQ(kernel.calls("read").front(), "read 5001 64");
}

TEST_F(H8Wrappers, ReadANumberThatFillsAllOfTheReply)
{
    replies = {std::string(54, ' ') + "1234567890"};
    EXPECT_EQ(qel_h8_read_number(), 1234567890);
}

// ---- Graphics ----

TEST_F(H8Graphics, WriteBytesWithCommand12)
{
    const uint8_t data[] = {1, 2, 0xFF};
    EXPECT_EQ(qel_h8_gfx_write(data, 3), 0);
    EXPECT_EQ(qel_h8_gfx_write(data, 1), 0);
    EXPECT_THAT(records, ElementsAre("\x0C\x01\x02\xFF", "\x0C\x01"));
}

TEST_F(H8Graphics, WriteUpTo255BytesInRecords)
{
    const std::string data = run_of(1, 255);
    qel_h8_gfx_write(reinterpret_cast<const uint8_t *>(data.data()), 255);
    EXPECT_THAT(records,
                ElementsAre("\x14" + run_of(1, 63), "\x14" + run_of(64, 126), "\x14" + run_of(127, 189),
                            "\x14" + run_of(190, 252), "\x0C" + run_of(253, 255)));
}

TEST_F(H8Graphics, StopOnNoDataAndOnALengthOf0)
{
    const uint8_t data = 1;
    EXPECT_STOPS_ON("data", h8_unit, qel_h8_gfx_write(nullptr, 0));
    EXPECT_STOPS_ON("len > 0", h8_unit, qel_h8_gfx_write(&data, 0));
    EXPECT_THAT(records, IsEmpty());
}

TEST_F(H8Graphics, DrawPixelXOfRowYFromBitXMod8OfItsByte)
{
    uint8_t image[1024] = {};
    image[0 * 16 + 0] = 0x01;   // pixel (0, 0)
    image[9 * 16 + 4] = 0x80;   // pixel (39, 9)
    image[63 * 16 + 15] = 0x80; // pixel (127, 63)
    qel_h8_gfx_draw_bitmap(image);

    ASSERT_THAT(records, SizeIs(40));
    // band 0, columns 0 to 31: column 0, top row
    EXPECT_EQ(records[1], "\x0C\x01" + std::string(31, '\0'));
    // band 1, columns 32 to 63: column 39 is the eighth, row 9 the band's second
    EXPECT_EQ(records[7], "\x0C" + std::string(7, '\0') + "\x02" + std::string(24, '\0'));
    // band 7, columns 96 to 127: column 127 is the last, row 63 the band's eighth
    EXPECT_EQ(records[39], "\x0C" + std::string(31, '\0') + "\x80");
    for (size_t i : {2U, 6U, 8U, 38U})
        EXPECT_EQ(records[i], "\x0C" + std::string(32, '\0')) << i;
}

TEST_F(H8Graphics, DrawARowAcrossTheWholeBand)
{
    uint8_t image[1024] = {};
    memset(image + 3 * 16, 0xFF, 16);
    qel_h8_gfx_draw_bitmap(image);
    for (size_t i = 1; i <= 4; ++i)
        EXPECT_EQ(records[i], "\x0C" + std::string(32, '\x08')) << i;
    EXPECT_EQ(records[6], "\x0C" + std::string(32, '\0'));
}

// ---- The display ----

TEST_F(LcdRow, IsADigitTheTextAndANulWithControlCharactersMadeBlanks)
{
    EXPECT_EQ(qel_lcd_write_row(1, "Hi\tthere"), 0);
    EXPECT_THAT(rows, ElementsAre(std::string("1Hi there\0", 10)));
    EXPECT_THAT(kernel.calls(), ElementsAre("open /dev/qellpc_lcd O_WRONLY", "write 5002 10", "close 5002"));
}

TEST_F(LcdRow, ShowsATildeForBytesOf127AndMore)
{
    qel_lcd_write_row(0, "a\xC8\x7F\xFFz");
    EXPECT_THAT(rows, ElementsAre(std::string("0a~~~z\0", 7)));
}

TEST_F(LcdRow, KeepsEveryPrintableCharacterAndBlanksEveryOtherBelow)
{
    qel_lcd_write_row(3, run_of(1, 31).c_str());
    qel_lcd_write_row(3, run_of(32, 93).c_str());
    qel_lcd_write_row(3, run_of(94, 126).c_str());
    EXPECT_THAT(rows, ElementsAre("3" + std::string(31, ' ') + '\0', "3" + run_of(32, 93) + '\0',
                                  "3" + run_of(94, 126) + '\0'));
}

TEST_F(LcdRow, OfAnEmptyTextIsTheDigitAndTheNul)
{
    qel_lcd_write_row(2, "");
    EXPECT_THAT(rows, ElementsAre(std::string("2\0", 2)));
}

TEST_F(LcdRow, IsCutAfter62Characters)
{
    qel_lcd_write_row(0, std::string(62, 'x').c_str());
    qel_lcd_write_row(0, (std::string(62, 'x') + "y").c_str());
    EXPECT_THAT(rows, ElementsAre("0" + std::string(62, 'x') + '\0', "0" + std::string(62, 'x') + '\0'));
}

TEST_F(LcdRow, OpensAndClosesTheDisplayEveryTimeAndReturnsTheResultOfTheClose)
{
    EXPECT_EQ(qel_lcd_write_row(0, "a"), 0);
    close_result = -1;
    EXPECT_EQ(qel_lcd_write_row(0, "b"), -1);
    EXPECT_EQ(kernel.count("open"), 2);
    EXPECT_EQ(kernel.count("close"), 2);
}
