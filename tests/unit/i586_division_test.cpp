// The 32-bit product's 64-bit division.

#include <gtest/gtest.h>
#include <stdint.h>

extern "C" {
uint64_t __udivmoddi4(uint64_t dividend, uint64_t divisor, uint64_t *remainder);
int64_t __divmoddi4(int64_t dividend, int64_t divisor, int64_t *remainder);
uint64_t __udivdi3(uint64_t dividend, uint64_t divisor);
uint64_t __umoddi3(uint64_t dividend, uint64_t divisor);
int64_t __divdi3(int64_t dividend, int64_t divisor);
int64_t __moddi3(int64_t dividend, int64_t divisor);
}

struct Division {
    uint64_t dividend, divisor, quotient, remainder;
};

TEST(UnsignedDivision, IsRightUpToTheTopBit)
{
    const Division divisions[] = {
        {0, 1, 0, 0},
        {6, 7, 0, 6},
        {7, 7, 1, 0},
        {1'795'000'000, 86'400, 20'775, 40'000},
        {10'000'000'000, 3, 3'333'333'333, 1},
        {0xFFFF'FFFF'FFFF'FFFF, 1, 0xFFFF'FFFF'FFFF'FFFF, 0},
        {0xFFFF'FFFF'FFFF'FFFF, 10, 0x1999'9999'9999'9999, 5},
        {0xFFFF'FFFF'FFFF'FFFF, 0x8000'0000'0000'0001, 1, 0x7FFF'FFFF'FFFF'FFFE},
        {0xFFFF'FFFF'FFFF'FFFE, 0xFFFF'FFFF'FFFF'FFFF, 0, 0xFFFF'FFFF'FFFF'FFFE},
    };
    for (const auto &[dividend, divisor, quotient, remainder] : divisions) {
        uint64_t rest = 4711;
        EXPECT_EQ(__udivmoddi4(dividend, divisor, &rest), quotient) << dividend << " / " << divisor;
        EXPECT_EQ(rest, remainder) << dividend << " % " << divisor;
        EXPECT_EQ(__udivdi3(dividend, divisor), quotient);
        EXPECT_EQ(__umoddi3(dividend, divisor), remainder);
    }
}

TEST(SignedDivision, RoundsTowardsZeroAndItsRemainderHasTheDividendsSign)
{
    const int64_t divisions[][4] = {
        {7, 2, 3, 1},
        {-7, 2, -3, -1},
        {7, -2, -3, 1},
        {-7, -2, 3, -1},
        {-1, 86'400, 0, -1},
        {-1, 1, -1, 0},
        {1, -1, -1, 0},
        {-1, -1, 1, 0},
        {-10'000'000'000, 86'400, -115'740, -64'000},
        {INT64_MIN, 1, INT64_MIN, 0},
        {INT64_MIN, 3, -3'074'457'345'618'258'602, -2},
        {INT64_MAX, INT64_MIN, 0, INT64_MAX},
    };
    for (const auto &[dividend, divisor, quotient, remainder] : divisions) {
        int64_t rest = 4711;
        EXPECT_EQ(__divmoddi4(dividend, divisor, &rest), quotient) << dividend << " / " << divisor;
        EXPECT_EQ(rest, remainder) << dividend << " % " << divisor;
        EXPECT_EQ(__divdi3(dividend, divisor), quotient);
        EXPECT_EQ(__moddi3(dividend, divisor), remainder);
    }
}
