// The dots' place in the bytes is told in one place, at(); everything else goes by column and row.

#include "bitmap.h"

#include <png.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <stdexcept>
#include <vector>

namespace
{

const unsigned char dark_below = 128;

size_t at(unsigned column, unsigned row)
{
    return row * bitmap_row_bytes + column / 8;
}

png_image new_image()
{
    png_image image = {};
    image.version = PNG_IMAGE_VERSION;
    return image;
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

Bitmap bitmap_from_png(const std::string &path)
{
    png_image image = new_image();
    if (!png_image_begin_read_from_file(&image, path.c_str()))
        throw std::runtime_error(path + ": " + image.message);
    if (image.width != bitmap_columns || image.height != bitmap_rows) {
        png_image_free(&image);
        throw std::runtime_error(path + " is " + std::to_string(image.width) + " by " +
                                 std::to_string(image.height) + " pixels; make it 128 by 64");
    }
    image.format = PNG_FORMAT_GRAY;
    const png_color white = {255, 255, 255};
    std::vector<unsigned char> pixels(PNG_IMAGE_SIZE(image));
    if (!png_image_finish_read(&image, &white, pixels.data(), 0, nullptr))
        throw std::runtime_error(path + ": " + image.message);
    Bitmap bitmap = {};
    for (unsigned row = 0; row < bitmap_rows; ++row)
        for (unsigned column = 0; column < bitmap_columns; ++column)
            set_dot(bitmap, column, row, pixels[row * bitmap_columns + column] < dark_below);
    return bitmap;
}

void bitmap_to_png(const Bitmap &bitmap, const std::string &path)
{
    std::vector<unsigned char> pixels;
    for (unsigned row = 0; row < bitmap_rows; ++row)
        for (unsigned column = 0; column < bitmap_columns; ++column)
            pixels.push_back(dot(bitmap, column, row) ? 0 : 255);
    png_image image = new_image();
    image.width = bitmap_columns;
    image.height = bitmap_rows;
    image.format = PNG_FORMAT_GRAY;
    if (!png_image_write_to_file(&image, path.c_str(), 0, pixels.data(), 0, nullptr))
        throw std::runtime_error(path + ": " + image.message);
}

std::string bitmap_to_c(const Bitmap &bitmap, const std::string &name)
{
    std::string text = "const unsigned char " + name + "[1024] = {\n";
    for (size_t i = 0; i < bitmap.size(); ++i) {
        char byte[8];
        snprintf(byte, sizeof byte, "0x%02x", bitmap[i]);
        const bool ends_line = i % bitmap_row_bytes == bitmap_row_bytes - 1;
        text += (i % bitmap_row_bytes == 0 ? "    " : " ") + std::string(byte) + (ends_line ? ",\n" : ",");
    }
    return text + "};\n";
}

Bitmap bitmap_from_bytes_or_c(const std::string &content)
{
    Bitmap bitmap;
    std::string bytes = content;
    if (bytes.size() != bitmap.size()) {
        bytes.clear();
        const size_t brace = content.find('{');
        const char *next = content.c_str() + (brace == content.npos ? content.size() : brace + 1);
        for (char *end = nullptr; bytes.size() <= bitmap.size(); next = end + (*end == ',')) {
            const long value = strtol(next, &end, 0);
            if (end == next || value < 0 || value > UINT8_MAX)
                break;
            bytes += static_cast<char>(value);
        }
        next += strspn(next, " \t\r\n");
        if (bytes.size() != bitmap.size() || *next != '}')
            throw std::runtime_error("neither 1024 bytes nor a C array of 1024 bytes");
    }
    std::copy(bytes.begin(), bytes.end(), bitmap.begin());
    return bitmap;
}
