// 64-bit division for the 32-bit product. The compiler's own library has it too, but begins it with an
// instruction (endbr32) that the processors of the cabinet's age refuse; musl divides when it computes the
// date.

#include <stdint.h>
#include <sys/types.h>

// Dates after 2038 and files over 2 GB are none of the 32-bit product's limits.
static_assert(sizeof(time_t) == 8 && sizeof(off_t) == 8);

extern "C" {
uint64_t __udivmoddi4(uint64_t dividend, uint64_t divisor, uint64_t *remainder);
int64_t __divmoddi4(int64_t dividend, int64_t divisor, int64_t *remainder);
uint64_t __udivdi3(uint64_t dividend, uint64_t divisor);
uint64_t __umoddi3(uint64_t dividend, uint64_t divisor);
int64_t __divdi3(int64_t dividend, int64_t divisor);
int64_t __moddi3(int64_t dividend, int64_t divisor);
}

/// By hand, a bit a step: the dividend moves into the rest at its top, the quotient takes its place from
/// below. No bit of the rest is lost: it never has more bits than steps were done.
uint64_t __udivmoddi4(uint64_t dividend, uint64_t divisor, uint64_t *remainder)
{
    uint64_t rest = 0;
    for (int bit = 0; bit < 64; bit++) {
        rest = rest << 1 | dividend >> 63;
        dividend <<= 1;
        if (rest >= divisor) {
            rest -= divisor;
            dividend |= 1;
        }
    }
    *remainder = rest;
    return dividend;
}

static uint64_t magnitude(int64_t number)
{
    return number < 0 ? -(uint64_t)number : (uint64_t)number;
}

/// Rounds towards zero; the remainder has the dividend's sign.
int64_t __divmoddi4(int64_t dividend, int64_t divisor, int64_t *remainder)
{
    uint64_t rest;
    uint64_t quotient = __udivmoddi4(magnitude(dividend), magnitude(divisor), &rest);
    *remainder = (int64_t)(dividend < 0 ? -rest : rest);
    return (int64_t)((dividend < 0) != (divisor < 0) ? -quotient : quotient);
}

uint64_t __udivdi3(uint64_t dividend, uint64_t divisor)
{
    uint64_t rest;
    return __udivmoddi4(dividend, divisor, &rest);
}

uint64_t __umoddi3(uint64_t dividend, uint64_t divisor)
{
    uint64_t rest;
    __udivmoddi4(dividend, divisor, &rest);
    return rest;
}

int64_t __divdi3(int64_t dividend, int64_t divisor)
{
    int64_t rest;
    return __divmoddi4(dividend, divisor, &rest);
}

int64_t __moddi3(int64_t dividend, int64_t divisor)
{
    int64_t rest;
    __divmoddi4(dividend, divisor, &rest);
    return rest;
}
