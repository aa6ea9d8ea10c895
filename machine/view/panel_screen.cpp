// ncurses sends only what has changed, follows the terminal's size, and knows how each kind is left in order.

#include "panel_screen.h"

#define NCURSES_NOMACROS
#include <curses.h>
#include <sys/ioctl.h>
#include <term.h>
#include <unistd.h>

namespace
{

const short display_colors = 1;

bool can_place_the_cursor()
{
    int error = 0;
    if (setupterm(nullptr, STDOUT_FILENO, &error) != OK)
        return false;
    bool can = tigetstr("cup") != nullptr && tigetstr("clear") != nullptr;
    del_curterm(cur_term);
    return can;
}

bool is_large_enough()
{
    winsize size = {};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row >= panel_rows_min &&
           size.ws_col >= panel_columns_min;
}

attr_t attributes_of(Style style)
{
    switch (style) {
    case Style::heading:
        return A_BOLD;
    case Style::present_step:
    case Style::stop:
        return A_REVERSE | A_BOLD;
    case Style::display:
        return A_REVERSE;
    }
    return A_NORMAL;
}

} // namespace

bool take_screen()
{
    if (isatty(STDOUT_FILENO) == 0 || !can_place_the_cursor() || !is_large_enough())
        return false;
    if (newterm(nullptr, stdout, stdin) == nullptr)
        return false;
    cbreak();
    noecho();
    nodelay(stdscr, true);
    keypad(stdscr, true);
    curs_set(0);
    if (has_colors()) {
        start_color();
        init_pair(display_colors, COLOR_BLACK, COLOR_GREEN);
    }
    return true;
}

void show_on_screen(const Panel &panel, const Board &board, double seconds)
{
    while (getch() != ERR) // also what takes in a new size
        ;
    Drawing drawing = draw_panel(panel, board, seconds, LINES, COLS);
    erase();
    for (int row = 0; row < LINES; ++row)
        mvaddstr(row, 0, drawing.rows[static_cast<size_t>(row)].c_str());
    for (const StyledPart &part : drawing.parts) {
        bool colored = part.style == Style::display && has_colors();
        mvchgat(part.row, part.column, part.length, colored ? A_NORMAL : attributes_of(part.style),
                colored ? display_colors : 0, nullptr);
    }
    refresh();
}

void give_screen_back()
{
    endwin();
}
