// A program that a failed check has stopped, as the panel and the lines of ./run tell it.

#include "machine_test.h"

#include "machine/view/panel.h"

#include <gmock/gmock.h>

namespace
{

using testing::HasSubstr;
using testing::StartsWith;

Event stop_of(int process, const std::string &code)
{
    return {Event::program_stopped, 0, process, code};
}

std::string stop_row(const Panel &panel)
{
    return draw_panel(panel, {}, 0, panel_rows_min, panel_columns_min).rows[2];
}

} // namespace

TEST(Stop, IsToldOnceWithTheCodeThatNobodyPrints)
{
    Machine machine; // without an application
    start(machine);
    ASSERT_EQ(wait_until_parked(machine), "VYS189");
    std::vector<Event> stops;
    for (const Event &event : machine.cabinet.events)
        if (event.kind == Event::program_stopped)
            stops.push_back(event);
    ASSERT_EQ(stops.size(), 1U);
    EXPECT_EQ(stops[0].number, 1);
    EXPECT_EQ(machine.cabinet.console.find("VYS"), std::string::npos);
}

TEST(Stop, LeavesThePanelsStepWhereItWas)
{
    Panel panel;
    EXPECT_EQ(stop_row(panel), std::string(panel_columns_min, ' '));
    note_event(panel, {Event::loader_started, 0, 0, ""});
    note_event(panel, stop_of(1, "KCW1964"));
    EXPECT_THAT(stop_row(panel),
                StartsWith("the loader has stopped at KCW1964; see host/where/qel-where KCW1964 "));
    EXPECT_THAT(draw_panel(panel, {}, 0, panel_rows_min, panel_columns_min).rows[1], HasSubstr("[loader]"));
}

TEST(Stop, OfAChildIsShownWithItsProcessUntilTheEnd)
{
    Panel panel;
    note_event(panel, stop_of(23, "KCW2101"));
    note_event(panel, stop_of(24, "KCW400"));
    EXPECT_THAT(stop_row(panel),
                StartsWith("process 23 has stopped at KCW2101; see host/where/qel-where KCW2101 "));
}

TEST(Stop, StandsOutOnThePanel)
{
    Panel panel;
    note_event(panel, stop_of(1, "VYS189"));
    for (const StyledPart &part : draw_panel(panel, {}, 0, panel_rows_min, panel_columns_min).parts)
        if (part.style == Style::stop) {
            EXPECT_EQ(part.row, 2);
            return;
        }
    FAIL() << "no part has the style";
}
