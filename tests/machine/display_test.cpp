// The board's display: the picture that the graphics commands draw, the picture of all that it shows, and
// qel-bitmap, which makes such pictures.

#include "machine_test.h"

#include "cabinet/lcd.h"

#include <gmock/gmock.h>
#include <png.h>

#include <algorithm>

namespace
{

using testing::HasSubstr;

/// Bytes 0, 17 and 1023 are not 0: dots 0 and 1 of row 0, dot 15 of row 1, and the last dot of all.
std::string three_bytes_image()
{
    std::string image(1024, '\0');
    image[0] = '\x03';
    image[17] = '\x80';
    image[1023] = '\x80';
    return image;
}

using Dots = std::vector<std::pair<unsigned, unsigned>>; ///< column and row

Dots dots_of(const Bitmap &bitmap)
{
    Dots dots;
    for (unsigned row = 0; row < bitmap_rows; ++row)
        for (unsigned column = 0; column < bitmap_columns; ++column)
            if (dot(bitmap, column, row))
                dots.emplace_back(column, row);
    return dots;
}

const Dots dots_of_three_bytes = {{0, 0}, {1, 0}, {15, 1}, {127, 63}};

void command(Board &board, const std::string &bytes)
{
    std::string whole;
    std::optional<std::string> answer;
    take_command_record(board, bytes, whole, answer);
}

std::string row_of(const LcdDots &dots, unsigned row, unsigned from, unsigned columns)
{
    std::string text;
    for (unsigned column = from; column < from + columns; ++column)
        text += dots[row][column] ? '#' : '.';
    return text;
}

/// Runs qel-bitmap; what it prints, and then its exit status.
std::string qel_bitmap(const std::string &words, const ScratchFolder &folder)
{
    return run_tool(
        {"sh", "-c", "cd \"$0\" && \"$1\" " + words + "; echo status $?", folder.path, MACHINE_TEST_BITMAP});
}

/// Writes a PNG file of gray pixels with an alpha channel: two bytes a pixel.
void write_gray(const std::string &path, unsigned width, unsigned height, const std::string &pixels)
{
    png_image image = {};
    image.version = PNG_IMAGE_VERSION;
    image.width = width;
    image.height = height;
    image.format = PNG_FORMAT_GA;
    ASSERT_TRUE(png_image_write_to_file(&image, path.c_str(), 0, pixels.data(), 0, nullptr));
}

} // namespace

TEST(Graphics, ArriveFromTheProductsOwnFunctionsDotByDot)
{
    Machine machine;
    machine.storage = {{"qel_application_artist", MACHINE_TEST_ARTIST},
                       {"image", file_with(machine, "image", three_bytes_image())}};
    start(machine);
    auto drawn = [&] { return machine.cabinet.board.lcd[3] == "drawn"; };
    ASSERT_TRUE(wait_until(machine.cabinet, drawn, patience));
    EXPECT_EQ(dots_of(machine.cabinet.board.picture), dots_of_three_bytes);
}

TEST(Graphics, AreColumnsOfABandFromTheAddressOn)
{
    Board board;
    command(board, {11, 2, 5});
    command(board, {12, '\x81', '\x02'});
    EXPECT_EQ(dots_of(board.picture), (Dots{{5, 16}, {6, 17}, {5, 23}}));
    command(board, {12, '\x01'});
    EXPECT_EQ(dots_of(board.picture), (Dots{{5, 16}, {7, 16}, {6, 17}, {5, 23}}));
    command(board, {11, 2, 5});
    command(board, std::string{12, 0, 0, 0});
    EXPECT_EQ(dots_of(board.picture), Dots());
}

TEST(Graphics, ThatDoNotFitAreLost)
{
    Board board;
    command(board, {11, 7, 127});
    command(board, {12, '\x01', '\x01'});
    command(board, {11, 8, 0});
    command(board, {12, '\x01'});
    EXPECT_EQ(dots_of(board.picture), (Dots{{127, 56}}));
}

TEST(DisplayPicture, HasTheGraphicsInTheMiddleAndTheTextOverIt)
{
    Board board;
    board.picture.fill(0);
    set_dot(board.picture, 0, 0, true);
    set_dot(board.picture, 127, 63, true);
    board.lcd[0] = "L";
    LcdDots dots = lcd_dots(board);
    // The letter's stem, and its foot on the base line; the picture begins 8 dots from the left.
    EXPECT_EQ(row_of(dots, 0, 0, 10), "........#.");
    for (unsigned row = 5; row <= 10; ++row)
        EXPECT_EQ(row_of(dots, row, 0, 6), "#.....") << row;
    EXPECT_EQ(row_of(dots, 11, 0, 6), "#####.");
    EXPECT_EQ(row_of(dots, 12, 0, 6), "......");
    EXPECT_EQ(row_of(dots, 63, 134, 10), ".#........");
}

TEST(DisplayPicture, ShowsDotsAsDarkSquares)
{
    LcdDots dots = {};
    dots[0][0] = true;
    Picture picture = draw_lcd(dots);
    ASSERT_EQ(picture.width, 744U);
    ASSERT_EQ(picture.height, 344U);
    auto pixel = [&](size_t x, size_t y) { return picture.bytes[3 * (y * picture.width + x)]; };
    EXPECT_EQ(pixel(12, 12), 0x1c);
    EXPECT_EQ(pixel(15, 15), 0x1c);
    EXPECT_EQ(pixel(16, 16), 0xa8); // the gap
    EXPECT_EQ(pixel(17, 12), 0xb2); // the dot beside it
    EXPECT_EQ(pixel(0, 0), 0xa8);   // the rim
    EXPECT_EQ(pixel(743, 343), 0xa8);
}

// ---- qel-bitmap ----

TEST(BitmapTool, UnpacksWhatItPacked)
{
    ScratchFolder folder;
    write_file(folder.path + "/image", three_bytes_image());
    EXPECT_EQ(qel_bitmap("unpack image image.png", folder), "status 0\n");
    EXPECT_EQ(qel_bitmap("pack image.png again", folder), "status 0\n");
    EXPECT_EQ(read_file(folder.path + "/again"), three_bytes_image());
    EXPECT_EQ(qel_bitmap("pack --c-array some_name image.png image.h", folder), "status 0\n");
    EXPECT_EQ(qel_bitmap("unpack image.h from_c.png", folder), "status 0\n");
    EXPECT_EQ(read_file(folder.path + "/from_c.png"), read_file(folder.path + "/image.png"));
}

TEST(BitmapTool, TakesDarkPixelsThatAreNotTransparent)
{
    ScratchFolder folder;
    std::string white(2 * 128 * 64, '\xff'), pixels = white;
    pixels[0] = '\x00';           // black
    pixels[2 * 9] = '\x10';       // dark
    pixels[2 * 128 * 2] = '\x20'; // dark, but transparent:
    pixels[2 * 128 * 2 + 1] = '\x00';
    write_gray(folder.path + "/picture.png", 128, 64, pixels);
    std::string expected(1024, '\0'), inverted(1024, '\xff');
    expected[0] = '\x01';
    expected[1] = '\x02';
    inverted[0] = '\xfe';
    inverted[1] = '\xfd';
    EXPECT_EQ(qel_bitmap("pack picture.png image", folder), "status 0\n");
    EXPECT_EQ(read_file(folder.path + "/image"), expected);
    EXPECT_EQ(qel_bitmap("pack --invert picture.png image", folder), "status 0\n");
    EXPECT_EQ(read_file(folder.path + "/image"), inverted);
}

TEST(BitmapTool, WritesACArrayWithARowInEachLine)
{
    ScratchFolder folder;
    write_file(folder.path + "/image", three_bytes_image());
    qel_bitmap("unpack image image.png && \"$1\" pack --c-array logo image.png logo.h", folder);
    std::string text = read_file(folder.path + "/logo.h");
    EXPECT_TRUE(text.starts_with("const unsigned char logo[1024] = {\n"
                                 "    0x03, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,"
                                 " 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,\n"
                                 "    0x00, 0x80, 0x00,"))
        << text;
    EXPECT_TRUE(text.ends_with(" 0x00, 0x80,\n};\n")) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 66);
}

TEST(BitmapTool, RefusesWhatIsNoPictureOrImage)
{
    ScratchFolder folder;
    write_gray(folder.path + "/small.png", 2, 1, "\xff\xff\xff\xff");
    write_file(folder.path + "/text", "no picture\n");
    write_file(folder.path + "/short.h", "const unsigned char a[1024] = { 0x01, 0x02 };\n");
    EXPECT_EQ(qel_bitmap("pack small.png image 2>&1", folder),
              "error: small.png is 2 by 1 pixels; make it 128 by 64\nstatus 1\n");
    EXPECT_THAT(qel_bitmap("pack text image 2>&1", folder), HasSubstr("error: text: "));
    for (const std::string name : {"text", "short.h"})
        EXPECT_EQ(qel_bitmap("unpack " + name + " picture.png 2>&1", folder),
                  "error: " + name + ": neither 1024 bytes nor a C array of 1024 bytes\nstatus 1\n");
    EXPECT_THAT(qel_bitmap("pack --c-array 9x small.png image 2>&1", folder),
                HasSubstr("9x is no name in C"));
    EXPECT_THAT(qel_bitmap("2>&1", folder), HasSubstr("\nstatus 2\n"));
}
