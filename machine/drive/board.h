// The simulated board: what its microcontroller answers, and what its LCD shows. It sits outside the
// machine, at the other end of the board driver's back side, so that it is the same board whatever disk
// the machine is started from.
#pragma once

#include "machine/drive/bitmap.h"

#include <array>
#include <functional>
#include <optional>
#include <string>

const int minor_lcd = 2, minor_command = 3, minor_host_comms = 7;

const int lcd_columns = 24; ///< what the simulated display shows of a row

struct Board {
    int mode = 1;                   ///< the answer to command 5; bit 0 = console, bit 1 = update mode
    std::string number = "1234";    ///< the answer to command 14, as text
    std::array<std::string, 4> lcd; ///< the rows of the display as last written

    Bitmap picture = {}; ///< the dots behind the text, as commands 11 and 12 have set them
    unsigned band = 0;   ///< where the next bytes of command 12 go
    unsigned column = 0;

    /// Answers in place of the board when set; an empty result leaves the command unanswered.
    std::function<std::optional<std::string>(const std::string &command)> answer_instead;

    std::string continued; ///< data of a long command whose last record is still to come
};

/// Takes one record of the command node. Returns true when it completes a command, which is then in
/// `command` (number first, however many records it came in) with the board's answer, if any, in `answer`.
bool take_command_record(Board &board, const std::string &record, std::string &command,
                         std::optional<std::string> &answer);

/// Takes one record of the LCD node and returns the row it changes, or -1 if it is not an LCD record.
int take_lcd_record(Board &board, const std::string &record);

/// A command in words and its bytes: "get mode (5)".
std::string describe_command(const std::string &command);
