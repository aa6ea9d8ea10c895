// The CRC of the packet link, 16 bytes at a time.
//
// The register is a polynomial that stands before the message: shifting n bytes in means to write
// register and bytes one behind the other, n + 2 bytes, and to reduce them modulo the polynomial. The last
// two bytes are below degree 16 and stay; each byte before them is reduced by one lookup in the table for
// its distance from the end. The register's own lookups come last, so that those of the next bytes need
// not wait for them: that is what makes this fast.

#include "qel_tolbrin/qel_comms.h"

enum { polynomial = 0x1021, start_register = 0xFFFF, step_bytes = 16 };

/// tables[d][b] is the byte b followed by d + 2 zero bytes, reduced. Made at first use.
static uint16_t tables[step_bytes][256];

static void _need_tables(void)
{
    if (tables[0][1])
        return;
    for (int b = 0; b < 256; b++) {
        unsigned remainder = (unsigned)b << 8;
        for (auto &table : tables) {
            for (int bit = 0; bit < 8; bit++)
                remainder = remainder << 1 ^ (remainder & 0x8000 ? 0x10000 | polynomial : 0);
            table[b] = (uint16_t)remainder;
        }
    }
}

/// Shifts 16 bytes in.
static inline unsigned _step(unsigned crc, const uint8_t *b)
{
    const auto &t = tables;
    return (unsigned)(t[13][b[0]] ^ t[12][b[1]] ^ t[11][b[2]] ^ t[10][b[3]] ^ t[9][b[4]] ^ t[8][b[5]] ^
                      t[7][b[6]] ^ t[6][b[7]] ^ t[5][b[8]] ^ t[4][b[9]] ^ t[3][b[10]] ^ t[2][b[11]] ^
                      t[1][b[12]] ^ t[0][b[13]] ^ b[14] << 8 ^ b[15] ^ t[15][crc >> 8] ^ t[14][crc & 0xFF]);
}

/// Shifts 2 to 15 bytes in: the same, for any number.
static inline unsigned _short_step(unsigned crc, const uint8_t *b, int count)
{
    const auto *table = &tables[count - 2];
    auto reduced = (unsigned)(table[1][crc >> 8] ^ table[0][crc & 0xFF]);
    while (table != tables)
        reduced ^= (*--table)[*b++];
    return reduced ^ (unsigned)(b[0] << 8 ^ b[1]);
}

uint16_t qel_crc16(const void *bytes, int length)
{
    return qel_crc16_update_final(qel_crc16_init(), bytes, length);
}

uint16_t qel_crc16_init(void)
{
    return start_register;
}

uint16_t qel_crc16_update(uint16_t crc, const void *bytes, int length)
{
    _need_tables();

    unsigned sum = crc;
    const auto *next = (const uint8_t *)bytes;
    for (; length >= step_bytes; length -= step_bytes, next += step_bytes)
        sum = _step(sum, next);
    if (length > 1)
        sum = _short_step(sum, next, length);
    else if (length == 1)
        sum = (sum << 8 & 0xFF00) ^ *next ^ tables[0][sum >> 8];
    return (uint16_t)sum;
}

uint16_t qel_crc16_final(uint16_t crc)
{
    _need_tables();

    return tables[1][crc >> 8] ^ tables[0][crc & 0xFF];
}

uint16_t qel_crc16_update_final(uint16_t crc, const void *bytes, int length)
{
    return qel_crc16_final(qel_crc16_update(crc, bytes, length));
}

uint16_t qel_crc16_value(uint16_t crc)
{
    return crc;
}
