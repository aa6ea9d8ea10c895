// Shows a running cabinet as readable lines, what came when, from where; or as a panel that fills the
// terminal.
#pragma once

#include "machine/view/panel.h"

#include <stdio.h>

struct View {
    FILE *out = stdout;
    Panel panel;
    bool on_panel = false;    ///< the panel has the terminal; no lines are printed
    std::string console_line; ///< what the console shows of a line that has not ended
    double console_at = 0;    ///< when its first byte came
    bool lcd_changed = false;
    double lcd_at = 0;                               ///< when the display changed last
    double link_at = 0;                              ///< when the first of these host-comms records came
    size_t records_sent = 0, bytes_sent = 0;         ///< by the loader and not shown yet
    size_t records_received = 0, bytes_received = 0; ///< by the loader and not shown yet

    View() = default;
    ~View();
    View(const View &) = delete;
    View &operator=(const View &) = delete;
};

/// Shows all that follows on a panel, where standard output is a terminal that can; `mode` is the board's.
void open_panel(View &view, const std::string &title, int mode);

/// Gives the terminal back; what follows is printed as lines.
void close_panel(View &view);

/// Shows an event; a console line once it has ended, the display once it has settled; the
/// host link as a line a second.
void show_event(View &view, const Event &event);

/// Shows what has waited long enough. To be called regularly.
void show_waiting(View &view, const Cabinet &cabinet);

/// A line of the view's own.
void show_line(View &view, double seconds, const std::string &source, const std::string &text);
