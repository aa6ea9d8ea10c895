// Draws the front panel:
//
//     title                                                     seconds
//     steps of the start-up
//     where it has stopped, if it has
//     +------------------------+  CONSOLE
//     |the display's four rows |   0.01 QEL Loader...
//     +------------------------+   0.02 ...
//                                  (its newest lines)
//     BOARD
//      0.03 get mode (5)
//     (its newest lines)

#include "panel.h"

#include <ctype.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>

namespace
{

const size_t lines_kept = 500; // more than the rows of any terminal
const int steps_row = 1, stop_row = 2, top_row = 3, display_rows = 4;
const int left_columns = lcd_columns + 2, right_column = left_columns + 2;
const int board_row = top_row + display_rows + 3;
const size_t board_line_rows = 2, console_line_rows = 4;

// ---- Steps ----

/// In the order of Step.
const char *const step_names[] = {
    "kernel", "loader", "disks", "X server", "application", "waiting for a host", "connected", "updater"};

bool is_of_update_mode(Step step)
{
    return step == Step::update || step == Step::connected || step == Step::updater;
}

/// The way from power-on. A stick leads out of the update mode and onto the ordinary way.
std::vector<Step> way_of(const Panel &panel)
{
    bool before_the_fork = panel.step == Step::kernel || panel.step == Step::loader;
    if (is_of_update_mode(panel.step) || (panel.update_mode && before_the_fork))
        return {Step::kernel, Step::loader, Step::update, Step::connected, Step::updater};
    return {Step::kernel, Step::loader, Step::disks, Step::x_server, Step::application};
}

/// What the display says in update mode.
Step step_shown(const std::string &text, Step before)
{
    if (text == "*Connected*")
        return Step::connected;
    if (text == "Starting updater...")
        return Step::updater;
    if (text == "*Found storage device*")
        return Step::disks;
    return before == Step::connected ? Step::update : before;
}

// ---- Text ----

void put(Drawing &drawing, int row, int column, const std::string &text)
{
    std::string &line = drawing.rows[static_cast<size_t>(row)];
    size_t start = static_cast<size_t>(column);
    if (start < line.size())
        line.replace(start, text.size(), text, 0, line.size() - start).resize(line.size());
}

void put(Drawing &drawing, int row, int column, const std::string &text, Style style)
{
    put(drawing, row, column, text);
    drawing.parts.push_back({row, column, static_cast<int>(text.size()), style});
}

/// A line in pieces of `width` columns, at most `rows_max` of them; "..." ends what is cut off.
std::vector<std::string> wrap(const std::string &text, size_t width, size_t rows_max)
{
    std::vector<std::string> pieces;
    for (size_t at = 0; at < text.size() || pieces.empty(); at += width) {
        if (pieces.size() == rows_max) {
            pieces.back().replace(width - 3, 3, "...");
            break;
        }
        pieces.push_back(text.substr(at, width));
    }
    return pieces;
}

/// The newest lines, as many as fit between a row and the bottom, the oldest of them on top.
void put_newest(Drawing &drawing, const std::deque<PanelLine> &lines, int top, int column, int width,
                size_t line_rows)
{
    const size_t time_columns = 8;
    const size_t room = drawing.rows.size() - static_cast<size_t>(top);
    std::deque<std::string> shown;
    for (auto line = lines.rbegin(); line != lines.rend() && shown.size() < room; ++line) {
        char time[32];
        snprintf(time, sizeof time, "%7.2f ", line->seconds);
        std::vector<std::string> pieces =
            wrap(line->text, static_cast<size_t>(width) - time_columns, line_rows);
        for (size_t i = pieces.size(); i-- > 0;)
            shown.push_front((i == 0 ? time : std::string(time_columns, ' ')) + pieces[i]);
    }
    while (shown.size() > room)
        shown.pop_front();
    for (const std::string &text : shown)
        put(drawing, top++, column, text);
}

// ---- Pieces of the panel ----

void draw_head(Drawing &drawing, const Panel &panel, double seconds, int columns)
{
    char time[32];
    snprintf(time, sizeof time, "%.1f s", seconds);
    put(drawing, 0, 0, panel.title, Style::heading);
    put(drawing, 0, columns - static_cast<int>(strlen(time)), time);
    int column = 0;
    for (Step step : way_of(panel)) {
        if (column > 0) {
            put(drawing, steps_row, column, " > ");
            column += 3;
        }
        std::string name = step_names[static_cast<size_t>(step)];
        if (step == panel.step)
            put(drawing, steps_row, column, name = "[" + name + "]", Style::present_step);
        else
            put(drawing, steps_row, column, name);
        column += static_cast<int>(name.size());
    }
    if (!panel.stop.empty())
        put(drawing, stop_row, 0, panel.stop, Style::stop);
}

void draw_display(Drawing &drawing, const Board &board)
{
    const std::string edge = "+" + std::string(lcd_columns, '-') + "+";
    put(drawing, top_row, 0, edge);
    for (int row = 0; row < display_rows; ++row) {
        std::string text = printable(board.lcd[static_cast<size_t>(row)]);
        text.resize(lcd_columns, ' ');
        put(drawing, top_row + 1 + row, 0, "|" + text + "|");
        drawing.parts.push_back({top_row + 1 + row, 1, lcd_columns, Style::display});
    }
    put(drawing, top_row + 1 + display_rows, 0, edge);
}

void keep(std::deque<PanelLine> &lines, PanelLine line)
{
    std::replace(line.text.begin(), line.text.end(), '\t', ' ');
    lines.push_back(line);
    if (lines.size() > lines_kept)
        lines.pop_front();
}

} // namespace

std::string printable(const std::string &bytes)
{
    std::string text;
    for (char byte : bytes)
        if (isprint(static_cast<unsigned char>(byte)) != 0 || byte == '\t')
            text += byte;
        else if (byte != '\r') {
            char code[8];
            snprintf(code, sizeof code, "<%02x>", static_cast<unsigned char>(byte));
            text += code;
        }
    return text;
}

std::string describe_stop(const Event &event)
{
    std::string who = event.number == 1 ? "the loader" : "process " + std::to_string(event.number);
    return who + " has stopped at " + event.text + "; see host/where/qel-where " + event.text;
}

void note_event(Panel &panel, const Event &event)
{
    const unsigned char get_mode = 5;
    if (event.kind == Event::program_stopped && panel.stop.empty())
        panel.stop = describe_stop(event);
    if (event.kind == Event::loader_started)
        panel.step = Step::loader;
    else if (event.kind == Event::command && event.text[0] == get_mode)
        panel.step = panel.update_mode ? Step::update : Step::disks;
    else if (event.kind == Event::lcd_row && is_of_update_mode(panel.step))
        panel.step = step_shown(event.text, panel.step);
    else if (event.kind == Event::program_started && event.text.find("/qel_application_") != event.text.npos)
        panel.step = Step::application;
    else if (event.kind == Event::program_started && event.text.starts_with("/usr/xorg/bin/Xfake"))
        panel.step = std::max(panel.step, Step::x_server);
}

void note_line(Panel &panel, double seconds, const std::string &source, const std::string &text)
{
    if (source == "h8")
        keep(panel.board, {seconds, text});
    else if (source == "link" || source == "board")
        keep(panel.board, {seconds, source + " " + text});
    else
        keep(panel.console, {seconds, source == "console" ? text : "* " + source + ": " + text});
}

Drawing draw_panel(const Panel &panel, const Board &board, double seconds, int rows, int columns)
{
    Drawing drawing;
    drawing.rows.assign(static_cast<size_t>(rows), std::string(static_cast<size_t>(columns), ' '));
    if (rows < panel_rows_min || columns < panel_columns_min) {
        put(drawing, 0, 0,
            "The panel needs " + std::to_string(panel_columns_min) + " by " + std::to_string(panel_rows_min) +
                " characters.");
        return drawing;
    }
    draw_head(drawing, panel, seconds, columns);
    draw_display(drawing, board);
    put(drawing, board_row, 0, "BOARD", Style::heading);
    put_newest(drawing, panel.board, board_row + 1, 0, left_columns, board_line_rows);
    put(drawing, top_row, right_column, "CONSOLE", Style::heading);
    put_newest(drawing, panel.console, top_row + 1, right_column, columns - right_column, console_line_rows);
    return drawing;
}
