// The cabinet's front panel as text: the display, what goes over the board, the console to their right, and
// how far the start-up has come. Events are noted in a Panel; drawing turns it into rows of characters, which
// can be compared, printed, or put on a terminal (panel_screen.h).
#pragma once

#include "machine/drive/cabinet.h"

#include <deque>
#include <string>
#include <vector>

/// The smallest terminal that a panel fits on.
const int panel_rows_min = 18, panel_columns_min = 72;

/// What the cabinet is doing. With the update mode, three steps stand in place of the last three.
enum class Step { kernel, loader, disks, x_server, application, update, connected, updater };

struct PanelLine {
    double seconds;
    std::string text;
};

struct Panel {
    std::string title;
    bool update_mode = false; ///< the board's mode byte asks for it
    std::string stop;         ///< the first stop as describe_stop() puts it; empty before it
    Step step = Step::kernel;
    std::deque<PanelLine> console; ///< what the loader prints and starts; the newest last
    std::deque<PanelLine> board;   ///< commands and the host link; the newest last
};

/// Console bytes or a row of the display, with bytes that cannot be printed as "<07>" and without carriage
/// returns.
std::string printable(const std::string &bytes);

/// What a program_stopped event means, in a line.
std::string describe_stop(const Event &event);

/// Notes how far an event brings the start-up, and that it goes no further.
void note_event(Panel &panel, const Event &event);

/// Notes a line of the view: its source decides on which side of the panel it appears.
void note_line(Panel &panel, double seconds, const std::string &source, const std::string &text);

enum class Style { heading, present_step, stop, display };

struct StyledPart {
    int row, column, length;
    Style style;
};

struct Drawing {
    std::vector<std::string> rows; ///< each as long as the terminal is wide
    std::vector<StyledPart> parts;
};

/// The panel at `seconds` after power-on, for a terminal of this size. On one that is too small it only says
/// so.
Drawing draw_panel(const Panel &panel, const Board &board, double seconds, int rows, int columns);
