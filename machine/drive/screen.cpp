// The X server keeps its picture in a file in the XWD format: a head of big-endian 32-bit words, a list of
// colours of 12 bytes each, and the rows of pixels, here of 4 bytes each: blue, green, red, unused.

#include "screen.h"

#include <png.h>

#include <stdexcept>

namespace
{

const size_t pixel_bytes = 4, color_bytes = 12;

/// Word `index` of the head.
size_t word(const std::string &dump, size_t index)
{
    size_t value = 0;
    for (size_t i = 0; i < 4; ++i)
        value = value << 8 | static_cast<unsigned char>(dump[4 * index + i]);
    return value;
}

} // namespace

Picture grab_screen(Cabinet &cabinet)
{
    enum {
        head_size = 0,
        width = 4,
        height = 5,
        bits_per_pixel = 11,
        bytes_per_line = 12,
        colors = 19,
        words = 25
    };
    Picture picture;
    int status = 0;
    std::string dump = look_inside(cabinet, "cat /tmp/Xvfb_screen0", &status);
    if (status != 0 || dump.size() < words * size_t{4} || word(dump, head_size) == 0)
        return picture;
    size_t start = word(dump, head_size) + word(dump, colors) * color_bytes;
    if (word(dump, bits_per_pixel) != 8 * pixel_bytes ||
        dump.size() < start + word(dump, bytes_per_line) * word(dump, height))
        throw std::runtime_error("the X server's picture has an unknown form");
    picture.width = static_cast<unsigned>(word(dump, width));
    picture.height = static_cast<unsigned>(word(dump, height));
    for (size_t row = 0; row < picture.height; ++row)
        for (size_t column = 0; column < picture.width; ++column) {
            size_t pixel = start + row * word(dump, bytes_per_line) + column * pixel_bytes;
            for (size_t part : {2U, 1U, 0U})
                picture.bytes.push_back(static_cast<unsigned char>(dump[pixel + part]));
        }
    return picture;
}

bool shows_something(const Picture &picture)
{
    for (size_t i = 3; i < picture.bytes.size(); ++i)
        if (picture.bytes[i] != picture.bytes[i - 3])
            return true;
    return false;
}

void write_png(const Picture &picture, const std::string &path)
{
    png_image image = {};
    image.version = PNG_IMAGE_VERSION;
    image.width = picture.width;
    image.height = picture.height;
    image.format = PNG_FORMAT_RGB;
    if (!png_image_write_to_file(&image, path.c_str(), 0, picture.bytes.data(), 0, nullptr))
        throw std::runtime_error(path + ": " + image.message);
}
