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

struct Receiver {
    Reassembly reassembly;

    PacketReport take(const std::string &packet)
    {
        return reassembly_take(reassembly, {reinterpret_cast<const uint8_t *>(packet.data()), packet.size()});
    }

    std::string message() const
    {
        return {reassembly.message.begin(), reassembly.message.end()};
    }
};

} // namespace

TEST(Reassembly, DeliversAMessageOfOnePacket)
{
    Receiver receiver;
    PacketReport report = receiver.take(one_byte_message);
    EXPECT_EQ(report.outcome, PacketOutcome::delivered);
    EXPECT_TRUE(report.is_first);
    EXPECT_EQ(report.message_bytes, 1u);
    EXPECT_EQ(report.crc, 0xb01b);
    EXPECT_EQ(receiver.message(), "a");
}

TEST(Reassembly, DeliversAMessageOfTwoPackets)
{
    Receiver receiver;
    EXPECT_EQ(receiver.take(first_of_two).outcome, PacketOutcome::more);
    PacketReport report = receiver.take(second_of_two);
    EXPECT_EQ(report.outcome, PacketOutcome::delivered);
    EXPECT_FALSE(report.is_first);
    EXPECT_EQ(receiver.message(), std::string(30, 'a'));
}

TEST(Reassembly, ReportsAWrongCrc)
{
    Receiver receiver;
    EXPECT_EQ(receiver.take(bytes("00 00 00 01 b0 1c 61")).outcome, PacketOutcome::crc_wrong);
    EXPECT_EQ(receiver.take(first_of_two).outcome, PacketOutcome::more);
    EXPECT_EQ(receiver.take(bytes("80 62")).outcome, PacketOutcome::crc_wrong);
}

TEST(Reassembly, ReportsAContinuationWithoutAMessage)
{
    Receiver receiver;
    EXPECT_EQ(receiver.take(second_of_two).outcome, PacketOutcome::stray);
}

TEST(Reassembly, ReportsAMessageThatInterruptsAnother)
{
    Receiver receiver;
    receiver.take(first_of_two);
    PacketReport report = receiver.take(one_byte_message);
    EXPECT_TRUE(report.interrupts);
    EXPECT_EQ(report.outcome, PacketOutcome::delivered);
    EXPECT_FALSE(receiver.take(one_byte_message).interrupts);
}

TEST(Reassembly, RefusesWhatWouldStopTheLoader)
{
    Receiver receiver;
    EXPECT_STREQ(receiver.take("").reason, "empty");
    EXPECT_STREQ(receiver.take(bytes("00 00 00 01 b0 1b")).reason,
                 "a first packet without a byte of its message");
    EXPECT_STREQ(receiver.take("\x01").reason, "a first packet without a byte of its message");
    EXPECT_STREQ(receiver.take(std::string(36, '\x80')).reason, "longer than packets of this link");
    EXPECT_STREQ(receiver.take(bytes("00 00 00 00 1d 0f 00")).reason, "a message of length 0");
}

TEST(Reassembly, ARefusedFirstPacketEndsTheMessageInProgressAndReportsThat)
{
    for (const std::string &refused :
         {bytes("00 00 00 00 1d 0f 00"), bytes("00 00 00 01 b0 1b"), std::string(36, 'a')}) {
        Receiver receiver;
        receiver.take(first_of_two);
        PacketReport report = receiver.take(refused);
        EXPECT_EQ(report.outcome, PacketOutcome::refused);
        EXPECT_TRUE(report.interrupts);
        EXPECT_FALSE(receiver.take(refused).interrupts);
        EXPECT_EQ(receiver.take(second_of_two).outcome, PacketOutcome::stray);
    }
}

TEST(Reassembly, ARefusedContinuationLeavesTheMessageInProgress)
{
    for (const std::string &refused : {std::string(36, '\x80'), std::string()}) {
        Receiver receiver;
        receiver.take(first_of_two);
        PacketReport report = receiver.take(refused);
        EXPECT_EQ(report.outcome, PacketOutcome::refused);
        EXPECT_FALSE(report.interrupts);
        EXPECT_EQ(receiver.take(second_of_two).outcome, PacketOutcome::delivered);
    }
}

TEST(Reassembly, TakesZerosBehindAShortPacketOfAMessageThatGoesOn)
{
    Receiver receiver;
    EXPECT_EQ(receiver.take(bytes("00 00 00 1e 3f 11 61")).outcome, PacketOutcome::more);
    EXPECT_EQ(receiver.take(second_of_two).outcome, PacketOutcome::crc_wrong);
}

TEST(Reassembly, BeginsAMessageOfAnyLength)
{
    Receiver receiver;
    EXPECT_EQ(receiver.take(bytes("7f ff ff ff 1d 0f 00")).outcome, PacketOutcome::more);
    PacketReport report = receiver.take(one_byte_message);
    EXPECT_EQ(report.outcome, PacketOutcome::delivered);
    EXPECT_TRUE(report.interrupts);
}
