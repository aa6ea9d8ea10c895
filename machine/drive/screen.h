// What is on the cabinet's screen.
#pragma once

#include "machine/drive/cabinet.h"

#include <vector>

/// Rows from the top, three bytes (red, green, blue) a pixel.
struct Picture {
    unsigned width = 0;
    unsigned height = 0;
    std::vector<unsigned char> bytes;
};

/// Fetches the X server's picture from inside; empty (0 by 0) while no X server runs.
Picture grab_screen(Cabinet &cabinet);

/// True when there is anything but one colour on it.
bool shows_something(const Picture &picture);

void write_png(const Picture &picture, const std::string &path);
