// The panel of ./run: drawn from events to rows of text, and on a terminal of tmux.

#include "machine_test.h"

#include "machine/view/panel.h"

#include <gmock/gmock.h>

#include <unistd.h>

namespace
{

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

const int rows = panel_rows_min, columns = panel_columns_min;

std::string without_blanks_at_the_end(const std::string &row)
{
    return row.substr(0, row.find_last_not_of(' ') + 1);
}

std::vector<std::string> drawn(const Panel &panel, const Board &board = {}, double seconds = 0)
{
    std::vector<std::string> texts;
    for (const std::string &row : draw_panel(panel, board, seconds, rows, columns).rows)
        texts.push_back(without_blanks_at_the_end(row));
    return texts;
}

void happens(Panel &panel, Event::Kind kind, const std::string &text = "", int number = 0)
{
    note_event(panel, {kind, 0, number, text});
}

std::string steps(const Panel &panel)
{
    return drawn(panel)[1];
}

/// A panel whose loader has asked for the mode byte.
Panel after_the_mode(bool update_mode)
{
    Panel panel;
    panel.update_mode = update_mode;
    happens(panel, Event::loader_started);
    happens(panel, Event::command, "\x05");
    return panel;
}

} // namespace

TEST(Panel, ShowsDisplayBoardAndConsole)
{
    Panel panel = after_the_mode(false);
    panel.title = "A cabinet";
    note_line(panel, 2.74, "machine", "the loader becomes process 1");
    note_line(panel, 2.75, "console", "QEL Loader...");
    note_line(panel, 2.75, "console", "dev:  qellpc_firmware qellpc_midi qllpc_lcd qellpc_command");
    note_line(panel, 2.76, "h8", "get mode (5)");
    note_line(panel, 10.5, "link", "loader sent 1 records (35 bytes), received 0 records (0 bytes)");
    Board board;
    board.lcd = {"", "TOLBRIN Update...", "a display row of more than 24", "\x07"};

    EXPECT_THAT(
        drawn(panel, board, 12.34),
        ElementsAre(
            "A cabinet                                                         12.3 s",
            "kernel > loader > [disks] > X server > application", "", "+------------------------+  CONSOLE",
            "|                        |     2.74 * machine: the loader becomes proces",
            "|TOLBRIN Update...       |          s 1", "|a display row of more th|     2.75 QEL Loader...",
            "|<07>                    |     2.75 dev:  qellpc_firmware qellpc_midi ql",
            "+------------------------+          lpc_lcd qellpc_command", "", "BOARD", "   2.76 get mode (5)",
            "  10.50 link loader sent 1", "         records (35 by...", "", "", "", ""));
}

TEST(Panel, KeepsTheNewestLinesWhenThereIsNoRoomForAll)
{
    Panel panel;
    for (int i = 1; i <= 1000; ++i) {
        note_line(panel, i, "console", "line " + std::to_string(i));
        note_line(panel, i, "h8", "signal (" + std::to_string(i) + ")");
    }
    std::vector<std::string> texts = drawn(panel);
    EXPECT_THAT(texts[4], HasSubstr("987.00 line 987"));
    EXPECT_THAT(texts[17], HasSubstr("1000.00 line 1000"));
    EXPECT_THAT(texts[11], HasSubstr("994.00 signal (994)"));
    EXPECT_THAT(texts[17], HasSubstr("1000.00 signal (1000)"));
}

TEST(Panel, FillsExactlyTheTerminal)
{
    Panel panel;
    for (int i = 0; i < 100; ++i) {
        note_line(panel, 1e6, "console", std::string(1000, 'x'));
        note_line(panel, 1e6, "h8", std::string(1000, 'y'));
    }
    panel.title = std::string(200, 'z');
    for (auto [height, width] : {std::pair(panel_rows_min, panel_columns_min), {24, 80}, {60, 211}}) {
        Drawing drawing = draw_panel(panel, {}, 1e6, height, width);
        ASSERT_EQ(drawing.rows.size(), static_cast<size_t>(height));
        for (const std::string &row : drawing.rows)
            EXPECT_EQ(row.size(), static_cast<size_t>(width));
    }
}

TEST(Panel, OnlySaysSoOnATerminalThatIsTooSmall)
{
    for (auto [height, width] : {std::pair(rows - 1, columns), {rows, columns - 1}}) {
        Drawing drawing = draw_panel({}, {}, 0, height, width);
        EXPECT_EQ(without_blanks_at_the_end(drawing.rows[0]), "The panel needs 72 by 18 characters.");
        EXPECT_EQ(without_blanks_at_the_end(drawing.rows[1]), "");
    }
    EXPECT_THAT(draw_panel({}, {}, 0, 1, 9).rows, ElementsAre("The panel"));
}

TEST(Panel, StylesTheDisplayThePresentStepAndTheHeadings)
{
    auto parts_of = [](const Drawing &drawing, Style style) {
        std::vector<std::string> texts;
        for (const StyledPart &part : drawing.parts)
            if (part.style == style)
                texts.push_back(drawing.rows[static_cast<size_t>(part.row)].substr(
                    static_cast<size_t>(part.column), static_cast<size_t>(part.length)));
        return texts;
    };
    Panel panel;
    panel.title = "A cabinet";
    Board board;
    board.lcd = {"", "the second row", "", ""};
    Drawing drawing = draw_panel(panel, board, 0, rows, columns);
    const std::string blank(24, ' ');
    EXPECT_THAT(parts_of(drawing, Style::present_step), ElementsAre("[kernel]"));
    EXPECT_THAT(parts_of(drawing, Style::display),
                ElementsAre(blank, "the second row          ", blank, blank));
    EXPECT_THAT(parts_of(drawing, Style::heading), ElementsAre("A cabinet", "BOARD", "CONSOLE"));
}

TEST(Panel, FollowsTheStartUpToTheApplication)
{
    Panel panel;
    EXPECT_EQ(steps(panel), "[kernel] > loader > disks > X server > application");
    happens(panel, Event::loader_started);
    EXPECT_EQ(steps(panel), "kernel > [loader] > disks > X server > application");
    happens(panel, Event::command, "\x05");
    EXPECT_EQ(steps(panel), "kernel > loader > [disks] > X server > application");
    happens(panel, Event::program_started, "/usr/xorg/bin/Xfake -nolisten tcp -kb", 20);
    EXPECT_EQ(steps(panel), "kernel > loader > disks > [X server] > application");
    happens(panel, Event::program_started, "/storage/qel_application_sample", 21);
    EXPECT_EQ(steps(panel), "kernel > loader > disks > X server > [application]");
    happens(panel, Event::program_started, "/usr/xorg/bin/Xvfb :0", 20);
    happens(panel, Event::program_ended, "exit 0", 21);
    EXPECT_EQ(steps(panel), "kernel > loader > disks > X server > [application]");
}

TEST(Panel, SeesTheApplicationAlsoUnderWine)
{
    Panel panel = after_the_mode(false);
    happens(panel, Event::program_started, "/usr/wine/bin/wine /storage/qel_application_1.exe", 21);
    EXPECT_THAT(steps(panel), HasSubstr("[application]"));
}

TEST(Panel, FollowsTheUpdateModeByWhatTheDisplaySays)
{
    Panel panel = after_the_mode(true);
    happens(panel, Event::lcd_row, "TOLBRIN Update...", 1);
    EXPECT_EQ(steps(panel), "kernel > loader > [waiting for a host] > connected > updater");
    happens(panel, Event::lcd_row, "*Connected*", 2);
    EXPECT_EQ(steps(panel), "kernel > loader > waiting for a host > [connected] > updater");
    happens(panel, Event::lcd_row, "", 2);
    EXPECT_EQ(steps(panel), "kernel > loader > [waiting for a host] > connected > updater");
    happens(panel, Event::lcd_row, "Starting updater...", 2);
    EXPECT_EQ(steps(panel), "kernel > loader > waiting for a host > connected > [updater]");
    happens(panel, Event::lcd_row, "", 2);
    EXPECT_THAT(steps(panel), HasSubstr("[updater]"));
}

TEST(Panel, LeavesTheUpdateModeWithAStick)
{
    Panel panel = after_the_mode(true);
    happens(panel, Event::lcd_row, "*Found storage device*", 2);
    EXPECT_EQ(steps(panel), "kernel > loader > [disks] > X server > application");
    happens(panel, Event::lcd_row, "", 2);
    EXPECT_EQ(steps(panel), "kernel > loader > [disks] > X server > application");
}

TEST(Panel, DoesNotTakeOtherCommandsForTheMode)
{
    Panel panel;
    happens(panel, Event::loader_started);
    happens(panel, Event::command, "\x06Hi");
    EXPECT_THAT(steps(panel), HasSubstr("[loader]"));
}

TEST(Panel, HasABlankForATab)
{
    Panel panel;
    note_line(panel, 0, "console", "a\tb");
    EXPECT_THAT(drawn(panel)[4], HasSubstr("0.00 a b"));
}

// ---- On a terminal ----

namespace
{

/// ./run in a terminal of tmux, under a shell that tells the exit status and then waits.
struct TmuxTerminal {
    ScratchFolder folder;
    std::string socket = folder.path + "/tmux";

    TmuxTerminal(int width, int height, const std::string &command)
    {
        tmux({"-f", "/dev/null", "new-session", "-d", "-x", std::to_string(width), "-y",
              std::to_string(height),
              "trap : INT; " + command + "; echo status $?; trap '' INT; exec sleep 1000"});
    }

    ~TmuxTerminal()
    {
        tmux({"send-keys", "C-c"});
        screen_with("\nstatus ");
        tmux({"kill-server"});
    }

    std::string tmux(const std::vector<std::string> &words) const
    {
        std::vector<std::string> command = {"tmux", "-S", socket};
        command.insert(command.end(), words.begin(), words.end());
        return run_tool(command);
    }

    /// What the terminal shows, and what has scrolled off it.
    std::string screen() const
    {
        return tmux({"capture-pane", "-p", "-S", "-1000"});
    }

    /// Waits until the screen has this text; what it shows then, or after all patience.
    std::string screen_with(const std::string &text) const
    {
        const int naps_a_second = 10;
        std::string shown = screen();
        for (int i = 0; i < patience * naps_a_second && shown.find(text) == shown.npos; ++i) {
            usleep(1000000 / naps_a_second);
            shown = screen();
        }
        return shown;
    }

    /// Whether the terminal shows a full-screen program's screen, and whether it has its cursor.
    std::string state() const
    {
        return tmux({"display-message", "-p", "screen #{alternate_on} cursor #{cursor_flag}"});
    }
};

} // namespace

TEST(RunOnATerminal, DrawsThePanelFollowsItsSizeAndLeavesItInOrder)
{
    TmuxTerminal terminal(100, 30, MACHINE_TEST_RUN);
    std::string screen = terminal.screen_with("[application]");
    EXPECT_THAT(screen, HasSubstr("kernel > loader > disks > X server > [application]\n"));
    EXPECT_THAT(screen, HasSubstr("\n+------------------------+  CONSOLE\n"));
    EXPECT_THAT(screen, HasSubstr(" QEL Loader...\n"));
    EXPECT_THAT(screen, HasSubstr(" get mode (5)"));
    EXPECT_EQ(terminal.state(), "screen 1 cursor 0\n");

    terminal.tmux({"resize-window", "-x", "60", "-y", "20"});
    EXPECT_THAT(terminal.screen_with("The panel needs"), Not(HasSubstr("CONSOLE")));
    terminal.tmux({"resize-window", "-x", "80", "-y", "24"});
    EXPECT_THAT(terminal.screen_with("CONSOLE"), HasSubstr("[application]"));

    terminal.tmux({"send-keys", "C-c"});
    screen = terminal.screen_with("status ");
    EXPECT_THAT(screen, HasSubstr("machine  off; the application was started "));
    EXPECT_THAT(screen, HasSubstr("\nstatus 0\n"));
    EXPECT_THAT(screen, Not(HasSubstr("CONSOLE")));
    EXPECT_EQ(terminal.state(), "screen 0 cursor 1\n");
}

TEST(RunOnATerminal, PrintsLinesWhereNoPanelFitsOrIsWanted)
{
    const std::string run = MACHINE_TEST_RUN;
    struct {
        int width, height;
        std::string command;
    } const terminals[] = {{100, 30, "TERM=dumb " + run}, {71, 18, run}, {100, 30, run + " --plain"}};
    for (const auto &[width, height, command] : terminals) {
        TmuxTerminal terminal(width, height, command);
        std::string screen = terminal.screen_with("console  QEL Loader...");
        EXPECT_THAT(screen, HasSubstr("machine  the loader becomes process 1\n")) << command;
        EXPECT_EQ(terminal.state(), "screen 0 cursor 1\n") << command;
    }
}

TEST(RunUpdateOnATerminal, DrawsThePanel)
{
    TmuxTerminal terminal(80, 24, std::string(MACHINE_TEST_RUN) + " update --seconds 1000");
    std::string screen = terminal.screen_with("[updater]");
    EXPECT_THAT(screen, HasSubstr("|TOLBRIN Update...       |"));
    EXPECT_THAT(screen, HasSubstr("|Starting updater...     |"));
    EXPECT_THAT(screen, HasSubstr("* host: "));
}
