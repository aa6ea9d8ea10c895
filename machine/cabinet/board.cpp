// The simulated board. A command record starts with the command's number; number 20 marks a record that is
// only a piece of a longer command, whose last record carries the number.

#include "board.h"

#include <stdio.h>

namespace
{

const unsigned char continuation = 20, read_block = 4, get_mode = 5, read_number = 14;
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
    case 11:
        return "graphics address";
    case 12:
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
