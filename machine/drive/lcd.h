// The board's display as a picture, dot by dot.
#pragma once

#include "machine/drive/board.h"
#include "machine/drive/screen.h"

/// Where the dots are: the picture of 128 by 64 in the middle, and the four rows of 24 characters over it.
const unsigned lcd_dot_columns = 144, lcd_dot_rows = 64;

/// True for a dot that is dark, counted from the top left.
using LcdDots = std::array<std::array<bool, lcd_dot_columns>, lcd_dot_rows>;

/// What the display shows.
LcdDots lcd_dots(const Board &board);

/// The dots as squares on green, with a rim.
Picture draw_lcd(const LcdDots &dots);
