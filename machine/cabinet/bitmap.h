// Pictures of 128 by 64 dots in the form that qel_h8_gfx_draw_bitmap takes: rows from the top, 16 bytes each,
// the leftmost dot of a byte in its bit 0.
#pragma once

#include <array>
#include <cstdint>
#include <string>

const unsigned bitmap_columns = 128, bitmap_rows = 64, bitmap_row_bytes = 16;

using Bitmap = std::array<uint8_t, size_t{bitmap_rows} * bitmap_row_bytes>;

bool dot(const Bitmap &bitmap, unsigned column, unsigned row);
void set_dot(Bitmap &bitmap, unsigned column, unsigned row, bool value);

/// Dark pixels of a PNG file become dots, transparent ones do not. A file of another size, or none at all, is
/// a std::runtime_error that says so.
Bitmap bitmap_from_png(const std::string &path);

/// Dots become black pixels on white.
void bitmap_to_png(const Bitmap &bitmap, const std::string &path);

/// The bytes as a C array of this name, a row of the picture in each line.
std::string bitmap_to_c(const Bitmap &bitmap, const std::string &name);

/// From 1024 bytes, or from text in the form of bitmap_to_c; a std::runtime_error for anything else.
Bitmap bitmap_from_bytes_or_c(const std::string &content);
