// Pictures of 128 by 64 dots in the form that qel_h8_gfx_draw_bitmap takes: rows from the top, 16 bytes each,
// the leftmost dot of a byte in its bit 0.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

const unsigned bitmap_columns = 128, bitmap_rows = 64, bitmap_row_bytes = 16;

using Bitmap = std::array<uint8_t, size_t{bitmap_rows} * bitmap_row_bytes>;

bool dot(const Bitmap &bitmap, unsigned column, unsigned row);
void set_dot(Bitmap &bitmap, unsigned column, unsigned row, bool value);
