// The CRC of the packet link, 16 bytes at a time.
//
// The register is a polynomial of degree 15 that stands before the message: shifting n bytes in means to
// write register and bytes one behind the other, n + 2 bytes, and to reduce them modulo the polynomial.
// The last two bytes are below degree 16 and stay; each of the n bytes before them is reduced by one
// table, chosen by how far it stands from the end. The lookups do not wait for each other, which is what
// makes this fast.

#include "qel_tolbrin/qel_comms.h"

#include <string.h>

enum { polynomial = 0x1021, start_register = 0xFFFF, step_bytes = 16 };

/// tables[d][b] is the byte b followed by d + 2 zero bytes, reduced. Made at first use.
static uint16_t tables[step_bytes][256];

static void make_tables(void)
{
    for (int b = 0; b < 256; b++) {
        unsigned remainder = (unsigned)b << 8;
        for (auto &table : tables) {
            for (int bit = 0; bit < 8; bit++)
                remainder = remainder << 1 ^ (remainder & 0x8000 ? 0x10000 | polynomial : 0);
            table[b] = (uint16_t)remainder;
        }
    }
}

/// Shifts 1 to 16 bytes in.
static inline uint16_t step(uint16_t crc, const uint8_t *bytes, int count)
{
    uint8_t window[2 + step_bytes] = {(uint8_t)(crc >> 8), (uint8_t)crc};
    memcpy(window + 2, bytes, (size_t)count);

    unsigned reduced = (unsigned)window[count] << 8 | window[count + 1];
    for (int i = 0; i < count; i++)
        reduced ^= tables[count - 1 - i][window[i]];
    return (uint16_t)reduced;
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
    if (!tables[0][1])
        make_tables();

    const auto *next = (const uint8_t *)bytes;
    for (; length >= step_bytes; length -= step_bytes, next += step_bytes)
        crc = step(crc, next, step_bytes);
    if (length > 0)
        crc = step(crc, next, length);
    return crc;
}

uint16_t qel_crc16_final(uint16_t crc)
{
    const uint8_t zeros[2] = {};
    return qel_crc16_update(crc, zeros, 2);
}

uint16_t qel_crc16_update_final(uint16_t crc, const void *bytes, int length)
{
    return qel_crc16_final(qel_crc16_update(crc, bytes, length));
}

uint16_t qel_crc16_value(uint16_t crc)
{
    return crc;
}
