// Nothing is known of the real display's letters and of how text and picture share it. Here a row of text has
// 16 rows of dots, and a dot is dark when text or picture wants it.

#include "lcd.h"

#include <ft2build.h>
#include FT_FREETYPE_H

#include <stdexcept>

namespace
{

const char *const font_file = "/usr/share/fonts/opentype/terminus/terminus-normal.otb";
const unsigned character_columns = lcd_dot_columns / lcd_columns, row_rows = 16, baseline = 12;
const FT_Short character_rows = 12;

const unsigned dot_pixels = 4, pitch = 5, rim = 12;
const std::array<unsigned char, 3> ground = {0xa8, 0xc4, 0x3c}, light = {0xb2, 0xce, 0x46},
                                   dark = {0x1c, 0x2e, 0x14};

/// The font's letters of 6 by 12 dots.
struct Font {
    FT_Library library = nullptr;
    FT_Face face = nullptr;

    Font()
    {
        if (FT_Init_FreeType(&library) != 0 || FT_New_Face(library, font_file, 0, &face) != 0)
            throw std::runtime_error(std::string(font_file) +
                                     " cannot be read; install the package fonts-terminus-otb");
        for (int i = 0; i < face->num_fixed_sizes; ++i)
            if (face->available_sizes[i].height == character_rows)
                FT_Select_Size(face, i);
    }
    ~Font()
    {
        FT_Done_FreeType(library);
    }
    Font(const Font &) = delete;
    Font &operator=(const Font &) = delete;
};

void write_character(LcdDots &dots, const Font &font, char character, unsigned left, unsigned top)
{
    if (FT_Load_Char(font.face, static_cast<unsigned char>(character),
                     FT_LOAD_RENDER | FT_LOAD_TARGET_MONO) != 0)
        return;
    const FT_Bitmap &glyph = font.face->glyph->bitmap;
    const unsigned x = left + static_cast<unsigned>(font.face->glyph->bitmap_left);
    const unsigned y = top + baseline - static_cast<unsigned>(font.face->glyph->bitmap_top);
    for (unsigned row = 0; row < glyph.rows; ++row)
        for (unsigned column = 0; column < glyph.width; ++column) {
            const unsigned char byte = glyph.buffer[row * static_cast<unsigned>(glyph.pitch) + column / 8];
            if ((byte >> (7 - column % 8) & 1) != 0 && y + row < lcd_dot_rows && x + column < lcd_dot_columns)
                dots[y + row][x + column] = true;
        }
}

} // namespace

LcdDots lcd_dots(const Board &board)
{
    const Font font;
    const unsigned picture_left = (lcd_dot_columns - bitmap_columns) / 2;
    LcdDots dots = {};
    for (unsigned row = 0; row < bitmap_rows; ++row)
        for (unsigned column = 0; column < bitmap_columns; ++column)
            dots[row][picture_left + column] = dot(board.picture, column, row);
    for (unsigned row = 0; row < board.lcd.size(); ++row)
        for (unsigned i = 0; i < board.lcd[row].size() && i < lcd_columns; ++i)
            write_character(dots, font, board.lcd[row][i], i * character_columns, row * row_rows);
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
