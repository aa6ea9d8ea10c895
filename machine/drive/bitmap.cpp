// The dots' place in the bytes stands in one place, at(); everything else goes by column and row.

#include "bitmap.h"

namespace
{

size_t at(unsigned column, unsigned row)
{
    return row * bitmap_row_bytes + column / 8;
}

} // namespace

bool dot(const Bitmap &bitmap, unsigned column, unsigned row)
{
    return (bitmap[at(column, row)] >> column % 8 & 1) != 0;
}

void set_dot(Bitmap &bitmap, unsigned column, unsigned row, bool value)
{
    uint8_t &byte = bitmap[at(column, row)];
    const int bit = 1 << column % 8;
    byte = static_cast<uint8_t>(value ? byte | bit : byte & ~bit);
}
