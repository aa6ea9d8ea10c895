// The CRC of the packet link against published values and against its definition, bit by bit.

#include "support/bytes.h"

#include "qel_tolbrin/qel_comms.h"

#include <gtest/gtest.h>

/// The definition: every bit shifted in at the bottom, then 16 zeros.
static uint16_t bit_by_bit(uint16_t crc, const Bytes &bytes)
{
    for (const uint8_t byte : bytes) {
        for (int bit = 7; bit >= 0; --bit) {
            const int top = crc & 0x8000;
            crc = static_cast<uint16_t>(crc << 1 | (byte >> bit & 1));
            if (top)
                crc ^= 0x1021;
        }
    }
    return crc;
}

TEST(Crc16, HasThePublishedValues)
{
    EXPECT_EQ(qel_crc16("123456789", 9), 0xE5CC);
    EXPECT_EQ(qel_crc16("", 0), 0x1D0F);
    EXPECT_EQ(qel_crc16("A", 1), 0x9479);
    EXPECT_EQ(qel_crc16(std::string(256, 'A').data(), 256), 0xE938);
}

TEST(Crc16, IsTheBitwiseDefinitionForEveryLengthAndAlignment)
{
    Bytes bytes(700);
    uint32_t state = 1;
    for (uint8_t &byte : bytes)
        byte = static_cast<uint8_t>((state = state * 1103515245 + 12345) >> 16);
    for (size_t length = 0; length <= 600; ++length) {
        const auto start = bytes.begin() + static_cast<long>(length % 19);
        const Bytes message(start, start + static_cast<long>(length));
        ASSERT_EQ(qel_crc16(&*start, static_cast<int>(length)),
                  bit_by_bit(bit_by_bit(0xFFFF, message), {0, 0}))
            << length << " bytes";
    }
}

TEST(Crc16, StartsWithAllOnes)
{
    EXPECT_EQ(qel_crc16_init(), 0xFFFF);
}

TEST(Crc16, IsTheSameInPieces)
{
    uint16_t crc = qel_crc16_init();
    crc = qel_crc16_update(crc, "1", 1);
    EXPECT_EQ(crc, bit_by_bit(0xFFFF, {'1'}));
    crc = qel_crc16_update(crc, "23456", 5);
    EXPECT_EQ(crc, bit_by_bit(0xFFFF, bytes_of("'123456'")));
    EXPECT_EQ(qel_crc16_update_final(crc, "789", 3), 0xE5CC);
    crc = qel_crc16_update(crc, "789", 3);
    EXPECT_EQ(qel_crc16_final(crc), 0xE5CC);
}

TEST(Crc16, OfAnyRegisterAndByteIsOneShiftOf8Bits)
{
    for (int crc = 0; crc <= 0xFFFF; crc += 7) {
        const uint8_t byte = static_cast<uint8_t>(crc * 31 >> 3);
        ASSERT_EQ(qel_crc16_update(static_cast<uint16_t>(crc), &byte, 1),
                  bit_by_bit(static_cast<uint16_t>(crc), {byte}));
    }
}

TEST(Crc16, OfNoBytesLeavesTheRegisterUnchanged)
{
    EXPECT_EQ(qel_crc16_update(0x1234, "x", 0), 0x1234);
    EXPECT_EQ(qel_crc16_update(0x1234, nullptr, 0), 0x1234);
    EXPECT_EQ(qel_crc16_update(0x1234, nullptr, -1), 0x1234);
}

TEST(Crc16, FinallyShifts16ZeroBitsThrough)
{
    EXPECT_EQ(qel_crc16_final(0xFFFF), 0x1D0F);
    EXPECT_EQ(qel_crc16_final(0x0000), 0x0000);
    EXPECT_EQ(qel_crc16_final(0x0001), 0x1021);
    EXPECT_EQ(qel_crc16_update_final(0xFFFF, nullptr, 0), 0x1D0F);
}

TEST(Crc16, ValueIsTheRegisterUnchanged)
{
    EXPECT_EQ(qel_crc16_value(0xE5CC), 0xE5CC);
    EXPECT_EQ(qel_crc16_value(0), 0);
}

TEST(Crc16, MakesItsTablesWhicheverFunctionComesFirst)
{
    EXPECT_EQ(qel_crc16_final(0xFFFF), 0x1D0F);
}
