// Shows a running cabinet as readable lines. A console line is shown when it ends, or unended when nothing
// follows for half a second; the display is shown as a whole, once no row has changed for a moment.

#include "view.h"

#include "panel_screen.h"

namespace
{

const double console_wait = 0.5, lcd_wait = 0.1, link_wait = 1;

void show_console_line(View &view, const std::string &ending)
{
    show_line(view, view.console_at, "console", printable(view.console_line) + ending);
    view.console_line.clear();
}

void take_console_bytes(View &view, const Event &event)
{
    for (char byte : event.text) {
        if (view.console_line.empty())
            view.console_at = event.seconds;
        if (byte == '\n')
            show_console_line(view, "");
        else
            view.console_line += byte;
    }
}

void show_lcd(View &view, const Board &board)
{
    const size_t columns = lcd_columns;
    std::string edge = "+" + std::string(columns, '-') + "+";
    show_line(view, view.lcd_at, "lcd", edge);
    for (std::string row : board.lcd) {
        row.resize(columns, ' ');
        fprintf(view.out, "%19s|%s|\n", "", printable(row).c_str());
    }
    fprintf(view.out, "%19s%s\n", "", edge.c_str());
    view.lcd_changed = false;
}

void count_link_record(View &view, const Event &event)
{
    if (view.records_sent + view.records_received == 0)
        view.link_at = event.seconds;
    bool sent = event.kind == Event::link_from_loader;
    (sent ? view.records_sent : view.records_received) += 1;
    (sent ? view.bytes_sent : view.bytes_received) += event.text.size();
}

void show_link(View &view)
{
    auto records = [](size_t count, size_t bytes) {
        return std::to_string(count) + " records (" + std::to_string(bytes) + " bytes)";
    };
    show_line(view, view.link_at, "link",
              "loader sent " + records(view.records_sent, view.bytes_sent) + ", received " +
                  records(view.records_received, view.bytes_received));
    view.records_sent = view.bytes_sent = view.records_received = view.bytes_received = 0;
}

} // namespace

View::~View()
{
    close_panel(*this);
}

void open_panel(View &view, const std::string &title, int mode)
{
    view.panel.title = title;
    view.panel.update_mode = (mode & 2) != 0;
    view.on_panel = take_screen();
}

void close_panel(View &view)
{
    if (view.on_panel)
        give_screen_back();
    view.on_panel = false;
}

void show_line(View &view, double seconds, const std::string &source, const std::string &text)
{
    if (view.on_panel)
        note_line(view.panel, seconds, source, text);
    else
        fprintf(view.out, "%8.2f  %-8s %s\n", seconds, source.c_str(), text.c_str());
}

void show_event(View &view, const Event &event)
{
    note_event(view.panel, event);
    std::string process = " (process " + std::to_string(event.number) + ")";
    switch (event.kind) {
    case Event::console:
        take_console_bytes(view, event);
        break;
    case Event::loader_started:
        show_line(view, event.seconds, "machine", "the loader becomes process 1");
        break;
    case Event::program_started:
        show_line(view, event.seconds, "start", event.text + process);
        break;
    case Event::program_ended:
        show_line(view, event.seconds, "end", event.text + process);
        break;
    case Event::program_stopped:
        show_line(view, event.seconds, "stop", describe_stop(event));
        break;
    case Event::command:
        show_line(view, event.seconds, "h8", describe_command(event.text));
        break;
    case Event::lcd_row:
        view.lcd_changed = true;
        view.lcd_at = event.seconds;
        break;
    case Event::link_from_loader:
    case Event::link_to_loader:
        count_link_record(view, event);
        break;
    case Event::other_record:
        show_line(view, event.seconds, "board", "record of minor " + std::to_string(event.number));
        break;
    case Event::note:
        show_line(view, event.seconds, "note", event.text);
        break;
    case Event::terminal:
        break;
    }
}

void show_waiting(View &view, const Cabinet &cabinet)
{
    double now = uptime(cabinet);
    if (view.lcd_changed && !view.on_panel && now > view.lcd_at + lcd_wait)
        show_lcd(view, cabinet.board);
    if (view.records_sent + view.records_received > 0 && now > view.link_at + link_wait)
        show_link(view);
    if (!view.console_line.empty() && now > view.console_at + console_wait)
        show_console_line(view, " ...");
    if (view.on_panel)
        show_on_screen(view.panel, cabinet.board, now);
    else
        fflush(view.out);
}
