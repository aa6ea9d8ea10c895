// This terminal as the cabinet's shell terminal.
#pragma once

#include "machine/drive/cabinet.h"

#include <termios.h>

struct Terminal {
    bool taken = false; ///< standard input is a terminal, and passes every key on as it is
    termios before = {};
    bool shell_ready = false; ///< the shell has shown its prompt, so that it hears what is typed
    bool ended = false;       ///< Ctrl-] was typed, or the input has ended
    ~Terminal();
};

void take_terminal(Terminal &terminal);
void give_terminal_back(Terminal &terminal);

/// Passes what was typed to the shell.
void pass_keys(Terminal &terminal, Cabinet &cabinet);

void show_on_terminal(const std::string &bytes);
