// A panel on the whole of this terminal. The only user of ncurses.
#pragma once

#include "machine/view/panel.h"

/// Takes the terminal. Returns false, with nothing changed, if standard output is not a terminal, or one that
/// cannot place the cursor or is too small for a panel.
bool take_screen();

/// Shows the panel, in the size that the terminal has now. Keys that were typed are dropped.
void show_on_screen(const Panel &panel, const Board &board, double seconds);

/// Gives the terminal back as it was before.
void give_screen_back();
