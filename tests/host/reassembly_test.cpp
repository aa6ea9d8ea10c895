// What becomes of packets that a peer may send: every outcome, and that the packet link sees none that would
// stop the program.

#include <gmock/gmock.h>

#include "link/reassembly.h"
#include "support.h"

namespace
{

// The message "a" of one byte; its CRC is 0xb01b. A first packet and 7 bytes.
const std::string one_byte_message = bytes("00 00 00 01 b0 1b 61");
// 30 times "a", CRC 0x3f11: 29 bytes in the first packet, 1 in the continuation.
const std::string first_of_two = bytes("00 00 00 1e 3f 11") + std::string(29, 'a');
const std::string second_of_two = bytes("80 61");
// Refused packets.
const std::string without_length = bytes("00 00 00 00 1d 0f 00"), without_bytes = bytes("00 00 00 01 b0 1b"),
                  too_long = std::string(36, 'a'), too_long_continuation = std::string(36, '\x80');

PacketReport take(Reassembly &reassembly, const std::string &packet)
{
    return reassembly_take(reassembly, {reinterpret_cast<const uint8_t *>(packet.data()), packet.size()});
}

/// What a receiver reports about each of these packets, in words.
std::vector<std::string> reports_on(const std::vector<std::string> &packets)
{
    Reassembly reassembly;
    std::vector<std::string> reports;
    for (const std::string &packet : packets) {
        const PacketReport report = take(reassembly, packet);
        const std::string outcomes[] = {
            "more", "delivered " + std::string(reassembly.message.begin(), reassembly.message.end()),
            "wrong CRC", "stray", "refused: " + std::string(report.reason)};
        reports.push_back((report.interrupts ? "interrupts, " : "") +
                          outcomes[static_cast<size_t>(report.outcome)]);
    }
    return reports;
}

const std::string delivered_30 = "delivered " + std::string(30, 'a'),
                  refused_length = "refused: a message of length 0",
                  refused_bytes = "refused: a first packet without a byte of its message",
                  refused_size = "refused: longer than packets of this link";

using Texts = std::vector<std::string>;

} // namespace

TEST(Reassembly, ReportsWhatAFirstPacketDeclares)
{
    Reassembly reassembly;
    const PacketReport first = take(reassembly, first_of_two);
    EXPECT_TRUE(first.is_first);
    EXPECT_EQ(first.message_bytes, 30u);
    EXPECT_EQ(first.crc, 0x3f11);
    EXPECT_FALSE(take(reassembly, second_of_two).is_first);
}

TEST(Reassembly, DeliversMessagesOfOneAndTwoPackets)
{
    EXPECT_EQ(reports_on({one_byte_message, first_of_two, second_of_two}),
              Texts({"delivered a", "more", delivered_30}));
}

TEST(Reassembly, ReportsAWrongCrcAndAContinuationWithoutAMessage)
{
    EXPECT_EQ(reports_on({bytes("00 00 00 01 b0 1c 61"), first_of_two, bytes("80 62"), second_of_two}),
              Texts({"wrong CRC", "more", "wrong CRC", "stray"}));
}

TEST(Reassembly, ReportsAMessageThatInterruptsAnother)
{
    EXPECT_EQ(reports_on({first_of_two, one_byte_message, one_byte_message}),
              Texts({"more", "interrupts, delivered a", "delivered a"}));
}

TEST(Reassembly, RefusesWhatWouldStopTheLoader)
{
    EXPECT_EQ(reports_on({"", without_bytes, "\x01", too_long_continuation, without_length}),
              Texts({"refused: empty", refused_bytes, refused_bytes, refused_size, refused_length}));
}

TEST(Reassembly, ARefusedFirstPacketEndsTheMessageInProgressAndReportsThat)
{
    const std::pair<std::string, std::string> cases[] = {
        {without_length, refused_length}, {without_bytes, refused_bytes}, {too_long, refused_size}};
    for (const auto &[packet, refused] : cases)
        EXPECT_EQ(reports_on({first_of_two, packet, packet, second_of_two}),
                  Texts({"more", "interrupts, " + refused, refused, "stray"}));
}

TEST(Reassembly, ARefusedContinuationLeavesTheMessageInProgress)
{
    EXPECT_EQ(reports_on({first_of_two, too_long_continuation, "", second_of_two}),
              Texts({"more", refused_size, "refused: empty", delivered_30}));
}

TEST(Reassembly, TakesZerosBehindAShortPacketOfAMessageThatGoesOn)
{
    EXPECT_EQ(reports_on({bytes("00 00 00 1e d0 97 61"), second_of_two}),
              Texts({"more", "delivered a" + std::string(28, '\0') + "a"}));
}

TEST(Reassembly, BeginsAMessageOfAnyLength)
{
    EXPECT_EQ(reports_on({bytes("7f ff ff ff 1d 0f 00"), one_byte_message}),
              Texts({"more", "interrupts, delivered a"}));
}
