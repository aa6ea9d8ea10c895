// The board as the loader meets it: the mode byte, the silenced console, and the driver's registration.

#include "machine_test.h"

#include <gmock/gmock.h>

namespace
{

const char *const before_the_mode =
    "QEL Loader...\n"
    "mount: /sys /proc\n"
    "dev:  qellpc_firmware qellpc_midi qellpc_lcd qellpc_command qellpc_button qellpc_test"
    " qellpc_console qellpc_host_comms qellpc_reserved1 qellpc_reserved2\n";

void start_with_mode(Machine &machine, int mode)
{
    machine.setup.board.mode = mode;
    machine.storage = {{"qel_application_1", machine.recorder}};
    start(machine);
}

bool board_heard_nothing(const Machine &machine)
{
    for (const Event &event : machine.cabinet.events)
        if (event.kind == Event::command || event.kind == Event::lcd_row ||
            event.kind == Event::link_from_loader)
            return false;
    return true;
}

} // namespace

TEST(ModeByte, ZeroSilencesTheStandardStreams)
{
    Machine machine;
    start_with_mode(machine, 0);

    ASSERT_TRUE(wait_for_recorder(machine, "qel_application_1", 2));
    EXPECT_EQ(machine.cabinet.console, before_the_mode);
    EXPECT_EQ(look_inside(machine.cabinet, "cd /proc/1/fd && for f in *; do echo $f $(readlink $f); done"),
              "0 /dev/null\n"
              "1 /dev/null\n"
              "2 /dev/null\n"
              "3 /dev/qellpc_command\n");
}

TEST(ModeByte, OneKeepsTheConsole)
{
    Machine machine;
    start_with_mode(machine, 1);

    ASSERT_TRUE(wait_for_recorder(machine, "qel_application_1"));
    EXPECT_TRUE(machine.cabinet.console.starts_with(before_the_mode + std::string("Want console...\ndev: ")));
    EXPECT_TRUE(wait_for_console(machine.cabinet, "run: /storage/qel_application_1\n", patience));
}

TEST(ModeByte, OtherBitsMeanNothing)
{
    Machine machine;
    start_with_mode(machine, 0xfc);

    ASSERT_TRUE(wait_for_recorder(machine, "qel_application_1"));
    EXPECT_EQ(machine.cabinet.console, before_the_mode);
}

TEST(ModeByte, IsTheFirstByteOfALongerAnswer)
{
    Machine machine;
    machine.setup.board.answer_instead = [](const std::string &) {
        return std::string("\x01") + std::string(63, '\0');
    };
    start_with_mode(machine, 0);

    ASSERT_TRUE(wait_for_recorder(machine, "qel_application_1"));
    EXPECT_TRUE(machine.cabinet.console.find("Want console...\n") != std::string::npos);
}

TEST(ModeByte, IsWaitedFor)
{
    Machine machine;
    machine.setup.board.answer_instead = [](const std::string &) { return std::nullopt; };
    start_with_mode(machine, 0);

    ASSERT_TRUE(wait_for_console(machine.cabinet, " qellpc_reserved2\n", patience));
    EXPECT_TRUE(wait_until_it_reads(machine));
    EXPECT_TRUE(machine.cabinet.console.ends_with(" qellpc_reserved2\n")) << machine.cabinet.console;
    send_record(machine.cabinet, minor_command, "\x01");
    EXPECT_TRUE(wait_for_console(machine.cabinet, "Want console...\n", patience));
}

TEST(BoardDriver, UsesTheNumberOfTheLaterLineThatNamesIt)
{
    Machine machine;
    machine.setup.kernel_words = "qellpc.decoy=200";
    start_with_mode(machine, 1);

    ASSERT_TRUE(wait_for_recorder(machine, "qel_application_1"));
    EXPECT_EQ(look_inside(machine.cabinet, "grep qellpc /proc/devices"), "200 qellpc_decoy\n252 qellpc\n");
    EXPECT_EQ(look_inside(machine.cabinet, "stat -c '%t:%T' /dev/qellpc_command"), "fc:3\n");
}

TEST(BoardDriver, UsesTheNumberOfTheLaterLineAlsoWhenItIsNotTheDriver)
{
    Machine machine;
    // 255 is behind the driver's own number in the list.
    machine.setup.kernel_words = "qellpc.decoy=255";
    start_with_mode(machine, 1);

    ASSERT_TRUE(wait_for_console(machine.cabinet, " qellpc_reserved2\n", patience));
    EXPECT_THAT(wait_until_parked(machine), testing::MatchesRegex("JET[0-9]+"));
    EXPECT_EQ(machine.cabinet.console, before_the_mode);
    EXPECT_TRUE(board_heard_nothing(machine));
    EXPECT_EQ(look_inside(machine.cabinet, "grep qellpc /proc/devices"), "252 qellpc\n255 qellpc_decoy\n");
    EXPECT_EQ(look_inside(machine.cabinet, "stat -c '%t:%T' /dev/qellpc_command"), "ff:3\n");
}

TEST(BoardDriver, WhenMissingParksTheLoader)
{
    Machine machine;
    machine.setup.kernel_words = "qellpc.absent=1";
    start_with_mode(machine, 1);

    ASSERT_TRUE(wait_for_console(machine.cabinet, "dev: ", patience));
    EXPECT_EQ(wait_until_parked(machine), "KCW2321");
    EXPECT_EQ(machine.cabinet.console, "QEL Loader...\nmount: /sys /proc\ndev: ");
    EXPECT_EQ(look_inside(machine.cabinet, "ls /dev"), "console\nnull\n");
}
