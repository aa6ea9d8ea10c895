// Messages as bytes, before the core numbers and sends them.

#include "qel_tolbrin/qel_sysmsg/build.h"
#include "qel_tolbrin/qel_sysmsg/wire.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "qel_utility/qel_log.h"

void _qel_sysmsg_begin(void *message, uint32_t type, uint32_t size)
{
    memset(message, 0, size);
    qel_sysmsg_put32(message, 0, type);
    qel_sysmsg_put32(message, 4, size);
}

void _qel_sysmsg_put_text(void *message, int offset, unsigned field_bytes, const char *text)
{
    snprintf((char *)message + offset, field_bytes, "%s", text);
}

void *_qel_sysmsg_new_block(uint32_t type, const void *block, int block_len, int offset)
{
    QEL_ASSERT(block_len >= 0);
    uint32_t size = (uint32_t)offset + 4 + (uint32_t)block_len;
    QEL_ASSERT(size <= _qel_sysmsg_bytes_max);
    void *message = malloc(size);
    QEL_ASSERT(message);
    _qel_sysmsg_begin(message, type, size);
    qel_sysmsg_put32(message, offset, (uint32_t)block_len);
    if (block_len)
        memcpy((uint8_t *)message + offset + 4, block, (size_t)block_len);
    return message;
}
