// qel-bitmap: pictures for the board's display, between PNG files and the bytes that programs draw.

#include "cabinet/bitmap.h"
#include "cabinet/tools.h"

#include <CLI/CLI.hpp>

#include <stdio.h>

#include <algorithm>
#include <stdexcept>

namespace
{

struct Options {
    std::string from, to, name;
    bool invert = false;
};

bool is_c_name(const std::string &name)
{
    auto is_letter = [](char c) { return c == '_' || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
    auto fits = [&](char c) { return is_letter(c) || (c >= '0' && c <= '9'); };
    return !name.empty() && is_letter(name[0]) && std::all_of(name.begin(), name.end(), fits);
}

Bitmap inverted_if(bool invert, Bitmap bitmap)
{
    for (uint8_t &byte : bitmap)
        byte = static_cast<uint8_t>(invert ? ~byte : byte);
    return bitmap;
}

void pack(const Options &options)
{
    Bitmap bitmap = inverted_if(options.invert, bitmap_from_png(options.from));
    write_file(options.to, options.name.empty() ? std::string(bitmap.begin(), bitmap.end())
                                                : bitmap_to_c(bitmap, options.name));
}

void unpack(const Options &options)
{
    try {
        bitmap_to_png(inverted_if(options.invert, bitmap_from_bytes_or_c(read_file(options.from))),
                      options.to);
    } catch (const std::runtime_error &error) {
        throw std::runtime_error(options.from + ": " + error.what());
    }
}

} // namespace

int main(int argc, char **argv)
{
    Options options;
    CLI::App app(
        "Makes pictures for the board's display, which is 128 by 64 dots, from PNG files, and back.");
    app.require_subcommand(1);
    CLI::App *packing = app.add_subcommand("pack", "turn a PNG file of 128 by 64 pixels into bytes");
    packing->add_option("PICTURE", options.from, "PNG file; its dark pixels become dots")->required();
    packing->add_option("IMAGE", options.to, "what qel_h8_gfx_draw_bitmap takes: 1024 bytes")->required();
    packing->add_option("--c-array", options.name, "write a C array of this name instead")
        ->check([](const std::string &name) { return is_c_name(name) ? "" : name + " is no name in C"; });
    CLI::App *unpacking =
        app.add_subcommand("unpack", "turn bytes, or a C array that pack wrote, into a PNG file");
    unpacking->add_option("IMAGE", options.from, "1024 bytes, or the C array")->required();
    unpacking->add_option("PICTURE", options.to, "PNG file; dots are black on white")->required();
    for (CLI::App *command : {packing, unpacking})
        command->add_flag("--invert", options.invert, "take light pixels for dots");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    try {
        *packing ? pack(options) : unpack(options);
        return 0;
    } catch (const std::exception &error) {
        fprintf(stderr, "error: %s\n", error.what());
        return 1;
    }
}
