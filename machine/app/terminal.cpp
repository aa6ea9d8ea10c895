// This terminal as the cabinet's shell terminal: keys go in one by one, Ctrl-C included, so that the shell
// behaves as on a terminal of its own. Input from a file or pipe serves scripts.

#include "terminal.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>

namespace
{

const char switch_off_key = 0x1d; // Ctrl-]
const double quiet_seconds = 2;

/// After the end of a script: the shell may still be at work on it.
void wait_for_last_output(Cabinet &cabinet)
{
    auto on_terminal = [](const Event &event) { return event.kind == Event::terminal; };
    size_t before = 0;
    do {
        before = cabinet.events.size();
        pump_for(cabinet, quiet_seconds);
    } while (
        std::any_of(cabinet.events.begin() + static_cast<long>(before), cabinet.events.end(), on_terminal));
}

} // namespace

Terminal::~Terminal()
{
    give_terminal_back(*this);
}

void take_terminal(Terminal &terminal)
{
    if (tcgetattr(0, &terminal.before) != 0)
        return;
    termios raw = terminal.before;
    cfmakeraw(&raw);
    raw.c_oflag |= OPOST;
    tcsetattr(0, TCSANOW, &raw);
    terminal.taken = true;
}

void give_terminal_back(Terminal &terminal)
{
    if (terminal.taken)
        tcsetattr(0, TCSANOW, &terminal.before);
    terminal.taken = false;
}

void pass_keys(Terminal &terminal, Cabinet &cabinet)
{
    if (!terminal.shell_ready)
        terminal.shell_ready =
            std::any_of(cabinet.events.begin(), cabinet.events.end(), [](const Event &event) {
                return event.kind == Event::terminal && event.text.find("# ") != std::string::npos;
            });
    pollfd input = {0, POLLIN, 0};
    if (!terminal.shell_ready || poll(&input, 1, 0) <= 0)
        return;
    char keys[256];
    ssize_t got = read(0, keys, sizeof keys);
    if (got <= 0 || (terminal.taken && keys[0] == switch_off_key)) {
        if (!terminal.taken)
            wait_for_last_output(cabinet);
        terminal.ended = true;
        return;
    }
    type(cabinet, std::string(keys, static_cast<size_t>(got)));
}

void show_on_terminal(const std::string &bytes)
{
    [[maybe_unused]] ssize_t written = write(1, bytes.data(), bytes.size());
}
