// The simulated board. A command record starts with the command's number; number 20 marks a record that is
// only a piece of a longer command, whose last record carries the number.

#include "board.h"

#include <stdio.h>

namespace
{

const unsigned char continuation = 20, read_block = 4, get_mode = 5, read_number = 14, graphics_address = 11,
                    graphics_data = 12;
const size_t block_bytes = 64;

unsigned char byte_at(const std::string &bytes, size_t index)
{
    return static_cast<unsigned char>(bytes[index]);
}

std::optional<std::string> answer_to(const Board &board, const std::string &command)
{
    if (board.answer_instead)
        return board.answer_instead(command);
    switch (byte_at(command, 0)) {
    case read_block: {
        std::string block(block_bytes, '\0');
        for (size_t i = 0; i < block_bytes; ++i)
            block[i] = static_cast<char>(i);
        return block;
    }
    case get_mode:
        return std::string(1, static_cast<char>(board.mode));
    case read_number:
        return board.number + '\0';
    default:
        return std::nullopt;
    }
}

/// A byte is a column of 8 dots, its bit 0 on top. Dots right of column 127 or below row 63 are lost.
void draw_column(Board &board, unsigned char byte)
{
    const unsigned band_rows = 8;
    if (board.column < bitmap_columns && board.band < bitmap_rows / band_rows)
        for (unsigned bit = 0; bit < band_rows; ++bit)
            set_dot(board.picture, board.column, board.band * band_rows + bit, (byte >> bit & 1) != 0);
    ++board.column;
}

void take_graphics(Board &board, const std::string &command)
{
    if (byte_at(command, 0) == graphics_address && command.size() == 3) {
        board.band = byte_at(command, 1);
        board.column = byte_at(command, 2);
    }
    if (byte_at(command, 0) == graphics_data)
        for (size_t i = 1; i < command.size(); ++i)
            draw_column(board, byte_at(command, i));
}

const char *name_of(unsigned char number)
{
    switch (number) {
    case 3:
        return "set value";
    case read_block:
        return "read block";
    case get_mode:
        return "get mode";
    case 6:
    case 8:
        return "send text";
    case 9:
        return "set values";
    case graphics_address:
        return "graphics address";
    case graphics_data:
        return "graphics data";
    case read_number:
        return "read number";
    default:
        return "signal";
    }
}

} // namespace

bool take_command_record(Board &board, const std::string &record, std::string &command,
                         std::optional<std::string> &answer)
{
    if (byte_at(record, 0) == continuation) {
        board.continued += record.substr(1);
        return false;
    }
    command = record.substr(0, 1) + board.continued + record.substr(1);
    board.continued.clear();
    take_graphics(board, command);
    answer = answer_to(board, command);
    return true;
}

int take_lcd_record(Board &board, const std::string &record)
{
    int row = record[0] - '0';
    if (row < 0 || row >= static_cast<int>(board.lcd.size()))
        return -1;
    board.lcd[static_cast<size_t>(row)] = std::string(record.c_str() + 1);
    return row;
}

std::string describe_command(const std::string &command)
{
    std::string text =
        std::string(name_of(byte_at(command, 0))) + " (" + std::to_string(byte_at(command, 0)) + ")";
    for (size_t i = 1; i < command.size(); ++i) {
        char byte[8];
        snprintf(byte, sizeof byte, " %02x", byte_at(command, i));
        text += byte;
    }
    return text;
}
