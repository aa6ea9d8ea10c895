// The mode byte's second bit: the loader waits for an updater, and goes on once there is a stick.

#include "machine_test.h"

#include <algorithm>

namespace
{

using Rows = std::vector<std::string>;

/// Every change of the display, as "ROW TEXT".
Rows display_changes(const Machine &machine)
{
    Rows changes;
    for (const Event &event : machine.cabinet.events)
        if (event.kind == Event::lcd_row)
            changes.push_back(std::to_string(event.number) + " " + event.text);
    return changes;
}

bool wait_for_display(Machine &machine, const std::string &change)
{
    auto changed = [&] {
        Rows changes = display_changes(machine);
        return std::find(changes.begin(), changes.end(), change) != changes.end();
    };
    return wait_until(machine.cabinet, changed, patience);
}

double seconds_of_display(const Machine &machine, const std::string &text)
{
    for (const Event &event : machine.cabinet.events)
        if (event.kind == Event::lcd_row && event.text == text)
            return event.seconds;
    return -1;
}

void start_with_mode(Machine &machine, int mode)
{
    machine.setup.board.mode = mode;
    machine.storage = {{"qel_application_1", machine.recorder}};
    start(machine);
    ASSERT_TRUE(wait_for_display(machine, "1 TOLBRIN Update..."));
}

void plug_in_new_stick(Machine &machine)
{
    std::string image = machine.folder.path + "/stick.img";
    make_stick(image, {{"readme.txt", machine.recorder}});
    plug_in_stick(machine.cabinet, image);
}

bool shows(const Machine &machine, const std::string &text)
{
    return machine.cabinet.console.find(text) != std::string::npos;
}

} // namespace

TEST(UpdateMode, AnnouncesItselfOnceASecondWhileNobodyAnswers)
{
    Machine machine;
    start_with_mode(machine, 3);

    auto notices = [&] {
        std::vector<double> seconds;
        for (const Event &event : machine.cabinet.events)
            if (event.kind == Event::link_from_loader)
                seconds.push_back(event.seconds);
        return seconds;
    };
    ASSERT_TRUE(wait_until(
        machine.cabinet, [&] { return notices().size() >= 5; }, patience));
    // The first one comes with the next second; a busy computer may swallow some, but adds none.
    EXPECT_GT(notices()[4] - notices()[0], 3.5);
    EXPECT_EQ(display_changes(machine), (Rows{"0 ", "1 TOLBRIN Update...", "2 "}));
    EXPECT_TRUE(machine.cabinet.console.ends_with("Want console...\n"));
    EXPECT_EQ(count_starts(machine.cabinet, ""), 0);
}

TEST(UpdateMode, GoesOnFiveSecondsAfterAStickIsPluggedIn)
{
    Machine machine;
    start_with_mode(machine, 3);
    plug_in_new_stick(machine);

    ASSERT_TRUE(wait_for_recorder(machine, "qel_application_1"));
    EXPECT_EQ(display_changes(machine),
              (Rows{"0 ", "1 TOLBRIN Update...", "2 ", "2 *Found storage device*", "2 "}));
    double found = seconds_of_display(machine, "*Found storage device*");
    auto cleared = std::find_if(machine.cabinet.events.rbegin(), machine.cabinet.events.rend(),
                                [](const Event &event) { return event.kind == Event::lcd_row; });
    EXPECT_GE(cleared->seconds - found, 4);
    EXPECT_LT(cleared->seconds - found, 20);
    // Five seconds are enough for the stick's partition to be there.
    EXPECT_TRUE(shows(machine, "mount:sda1 mounted\n"));
    EXPECT_TRUE(wait_for_console(machine.cabinet, "run: /storage/qel_application_1\n", patience));
}

TEST(UpdateMode, WithoutTheConsoleBitSilencesTheStreamsAfterwards)
{
    Machine machine;
    start_with_mode(machine, 2);
    EXPECT_EQ(look_inside(machine.cabinet, "readlink /proc/1/fd/1"), "/cabinet/console\n");
    plug_in_new_stick(machine);

    ASSERT_TRUE(wait_for_recorder(machine, "qel_application_1"));
    EXPECT_EQ(look_inside(machine.cabinet, "readlink /proc/1/fd/1"), "/dev/null\n");
    EXPECT_TRUE(machine.cabinet.console.ends_with(" qellpc_reserved2\n"));
    EXPECT_FALSE(shows(machine, "Want console"));
}

TEST(UpdateMode, DoesNotWaitWhenAStickIsThereFromTheStart)
{
    Machine machine;
    insert_stick(machine, {{"readme.txt", machine.recorder}});
    start_with_mode(machine, 3);

    ASSERT_TRUE(wait_for_recorder(machine, "qel_application_1"));
    EXPECT_EQ(display_changes(machine),
              (Rows{"0 ", "1 TOLBRIN Update...", "2 ", "2 *Found storage device*", "2 "}));
    bool announced = std::any_of(machine.cabinet.events.begin(), machine.cabinet.events.end(),
                                 [](const Event &event) { return event.kind == Event::link_from_loader; });
    EXPECT_FALSE(announced);
}

// ---- The host speaks ----

namespace
{

const int host_comms = 7; // the minor of the host link

// Packets as they travel: length and CRC, big-endian, then the message.
const std::string connect_packet("\x00\x00\x00\x0c\x66\x86\x05\x00\x00\x00\x0c\x00\x00\x00\x78\x56\x34\x12",
                                 18);
const std::string answer_packet("\x00\x00\x00\x0c\x0d\xb9\x26\x00\x00\x00\x0c\x00\x00\x00\x78\x56\x34\x12",
                                18);
const std::string notice_packet("\x00\x00\x00\x08\xb2\x55\x0b\x00\x00\x00\x08\x00\x00\x00", 14);

/// An updater of 39 bytes, "#!/bin/sh, exec /bin/busybox sleep 1000", whose length field says 79.
const std::vector<std::string> boasting_updater = {
    std::string("\x00\x00\x00\x33\xf6\xb3\x0a\x00\x00\x00\x33\x00\x00\x00\x4f\x00\x00\x00#!/bin/sh\nexec /b",
                35),
    "\x80in/busybox sleep 1000\n"};

/// When the records of this content came from the loader.
std::vector<double> seconds_of_record(const Machine &machine, const std::string &record)
{
    std::vector<double> seconds;
    for (const Event &event : machine.cabinet.events)
        if (event.kind == Event::link_from_loader && event.text == record)
            seconds.push_back(event.seconds);
    return seconds;
}

} // namespace

TEST(UpdateMode, ShowsAConnectedHostUntilItHasBeenSilentForTwoSeconds)
{
    Machine machine;
    start_with_mode(machine, 3);
    for (int i = 0; i < 8; i++) {
        send_record(machine.cabinet, host_comms, connect_packet);
        pump_for(machine.cabinet, 0.4);
    }
    double last_connect = uptime(machine.cabinet);
    EXPECT_EQ(seconds_of_record(machine, answer_packet).size(), 8U);
    EXPECT_EQ(display_changes(machine).back(), "2 *Connected*");

    ASSERT_TRUE(wait_until(
        machine.cabinet, [&] { return display_changes(machine).back() == "2 "; }, patience));
    ASSERT_TRUE(wait_until(
        machine.cabinet, [&] { return seconds_of_record(machine, notice_packet).size() >= 3; }, patience));
    auto last_row = std::find_if(machine.cabinet.events.rbegin(), machine.cabinet.events.rend(),
                                 [](const Event &event) { return event.kind == Event::lcd_row; });
    double cleared = last_row->seconds;
    EXPECT_GT(cleared - last_connect, 0.9);
    // One notice in the first silent second, and one in the second, just before the clearing.
    std::vector<double> notices = seconds_of_record(machine, notice_packet);
    auto silent = std::count_if(notices.begin(), notices.end(),
                                [&](double at) { return at > last_connect - 0.4 && at <= cleared; });
    EXPECT_EQ(silent, 2);
}

TEST(UpdateMode, WritesAnUpdaterByItsLengthFieldAndBecomesIt)
{
    Machine machine;
    start_with_mode(machine, 3);
    for (const std::string &packet : boasting_updater)
        send_record(machine.cabinet, host_comms, packet);

    ASSERT_TRUE(wait_for_display(machine, "2 Starting updater..."));
    auto is_updater = [&] {
        return look_inside(machine.cabinet, "tr '\\0' ' ' </proc/1/cmdline") == "/bin/busybox sleep 1000 ";
    };
    EXPECT_TRUE(wait_until(machine.cabinet, is_updater, patience));
    EXPECT_EQ(look_inside(machine.cabinet, "head -c 39 /tmp/updater"),
              "#!/bin/sh\nexec /bin/busybox sleep 1000\n");
    EXPECT_EQ(look_inside(machine.cabinet, "wc -c </tmp/updater"), "79\n");
}
