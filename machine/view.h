// Shows a running cabinet as readable lines: what came when, from where.
#pragma once

#include "cabinet/cabinet.h"

#include <stdio.h>

struct View {
    FILE *out = stdout;
    std::string console_line; ///< what the console shows of a line that has not ended
    double console_at = 0;    ///< when its first byte came
    bool lcd_changed = false;
    double lcd_at = 0; ///< when the display changed last
};

/// Shows an event; a console line once it has ended, the display once it has settled.
void show_event(View &view, const Event &event);

/// Shows what has waited long enough. To be called regularly.
void show_waiting(View &view, const Cabinet &cabinet);

/// A line of the view's own.
void show_line(View &view, double seconds, const std::string &source, const std::string &text);
