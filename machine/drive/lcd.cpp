// The letters of the real display are unknown, as is how text and picture share it. Here a row of text has 16
// rows of dots, and a dot is dark when text or picture wants it.

#include "lcd.h"

namespace
{

const unsigned character_columns = lcd_dot_columns / lcd_columns, row_rows = 16;
const unsigned letter_columns = 5, letter_rows = 7, letter_top = 4;

/// Letters of 5 by 7 dots, from the blank to "~": a column in each 7 bits from the lowest on, its lowest bit
/// on top.
const uint64_t letters[] = {
    // clang-format off
    0x0, 0x17c000, 0xe00380, 0x14fe53f94, 0x1255fd524, 0x62c8209a3, 0x50415a4b6, 0x61c400, 0x8288e00,
    0x388a080, 0x2a39fce2a, 0x810f8408, 0xc2800, 0x81020408, 0xc180000, 0x20820820, 0x3e8b268be, 0x81fe100,
    0x4693264f2, 0x339b260a1, 0x10fe48a18, 0x398b162a7, 0x31932653c, 0x712450c1, 0x3693264b6, 0x1e53264c6,
    0x50000, 0xd2000, 0x414450400, 0x142850a14, 0x8288a080, 0x61364082, 0x4eb3760be, 0x7c244497c, 0x3693264ff,
    0x2283060be, 0x3e83060ff, 0x4193264ff, 0x112244ff, 0x73a3060be, 0x7f102047f, 0x83fe080, 0x17f06020,
    0x41445047f, 0x40810207f, 0x7f047017f, 0x7f202027f, 0x3e83060be, 0x612244ff, 0x5e43460be, 0x4652644ff,
    0x3293264a6, 0x303fc083, 0x3f810203f, 0x1f410101f, 0x3f80e203f, 0x632820a63, 0x309e0203, 0x439b26ce1,
    0x418307f80, 0x202020202, 0x7f8306080, 0x40404104, 0x408102040, 0x101c180, 0x40f152a20, 0x38891147f,
    0x288912238, 0x7f5112238, 0x18a952a38, 0x213f8400, 0x3ca952a08, 0x78081047f, 0x81f6200, 0x7b02020,
    0x88a087f, 0x81fe080, 0x7809e027c, 0x78081047c, 0x388912238, 0x82850a7c, 0x7c2850a08, 0x8081047c,
    0x24a952a48, 0x2488fc204, 0x7c410203c, 0x1c410101c, 0x3c80c203c, 0x445041444, 0x3ca14280c, 0x449953244,
    0x82d8400, 0x1dc000, 0x10da080, 0x20808082
    // clang-format on
};

const unsigned dot_pixels = 4, pitch = 5, rim = 12;
const std::array<unsigned char, 3> ground = {0xa8, 0xc4, 0x3c}, light = {0xb2, 0xce, 0x46},
                                   dark = {0x1c, 0x2e, 0x14};

void write_character(LcdDots &dots, char character, unsigned left, unsigned top)
{
    const size_t index = static_cast<unsigned char>(character) - size_t{' '}; // huge below the blank
    const uint64_t letter = index < std::size(letters) ? letters[index] : 0;
    for (unsigned column = 0; column < letter_columns; ++column)
        for (unsigned row = 0; row < letter_rows; ++row)
            if ((letter >> (letter_rows * column + row) & 1) != 0)
                dots[top + row][left + column] = true;
}

} // namespace

LcdDots lcd_dots(const Board &board)
{
    const unsigned picture_left = (lcd_dot_columns - bitmap_columns) / 2;
    LcdDots dots = {};
    for (unsigned row = 0; row < bitmap_rows; ++row)
        for (unsigned column = 0; column < bitmap_columns; ++column)
            dots[row][picture_left + column] = dot(board.picture, column, row);
    for (unsigned row = 0; row < board.lcd.size(); ++row)
        for (unsigned i = 0; i < board.lcd[row].size() && i < lcd_columns; ++i)
            write_character(dots, board.lcd[row][i], i * character_columns, row * row_rows + letter_top);
    return dots;
}

Picture draw_lcd(const LcdDots &dots)
{
    Picture picture;
    picture.width = lcd_dot_columns * pitch + 2 * rim;
    picture.height = lcd_dot_rows * pitch + 2 * rim;
    for (unsigned y = 0; y < picture.height; ++y)
        for (unsigned x = 0; x < picture.width; ++x) {
            const unsigned row = (y - rim) / pitch,
                           column = (x - rim) / pitch; // huge on the upper and left rim
            const bool on_a_dot = row < lcd_dot_rows && column < lcd_dot_columns &&
                                  (y - rim) % pitch < dot_pixels && (x - rim) % pitch < dot_pixels;
            const auto &color = !on_a_dot ? ground : dots[row][column] ? dark : light;
            picture.bytes.insert(picture.bytes.end(), color.begin(), color.end());
        }
    return picture;
}
