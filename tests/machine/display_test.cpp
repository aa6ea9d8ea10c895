// The board's display: the picture that the graphics commands draw, and the picture of all that it shows.

#include "machine_test.h"

#include "machine/drive/lcd.h"

namespace
{

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
    // The picture begins 8 dots from the left; the letter is a stem and a foot.
    EXPECT_EQ(row_of(dots, 0, 0, 10), "........#.");
    EXPECT_EQ(row_of(dots, 3, 0, 6), "......");
    for (unsigned row = 4; row <= 9; ++row)
        EXPECT_EQ(row_of(dots, row, 0, 6), "#.....") << row;
    EXPECT_EQ(row_of(dots, 10, 0, 6), "#####.");
    EXPECT_EQ(row_of(dots, 11, 0, 6), "......");
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
