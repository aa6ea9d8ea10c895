// The application loop: restarts, the fresh Wine prefix, Windows programs, and programs that do not start.

#include "machine_test.h"

#include <algorithm>

namespace
{

size_t count_in(const std::string &text, const std::string &part)
{
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size()))
        ++count;
    return count;
}

/// True when the console has shown `text` at least `times` times, perhaps after waiting.
bool wait_for_console_times(Machine &machine, const std::string &text, size_t times)
{
    return wait_until(
        machine.cabinet, [&] { return count_in(machine.cabinet.console, text) >= times; }, patience);
}

} // namespace

TEST(ApplicationLoop, RestartsTheApplicationWhateverItsStatus)
{
    Machine machine;
    machine.storage = {{"qel_application_1", machine.recorder}};
    start(machine);

    ASSERT_TRUE(wait_for_recorder(machine, "qel_application_1", 4));
    size_t status_3 = 0;
    for (const Event &event : machine.cabinet.events)
        if (event.kind == Event::program_ended && event.text == "exit 3")
            ++status_3;
    EXPECT_GE(status_3, 3U);
    EXPECT_GE(count_in(machine.cabinet.console, "run: /storage/qel_application_1\n"), 3U);
}

TEST(ApplicationLoop, GivesEveryRunAFreshWinePrefix)
{
    Machine machine;
    machine.storage = {{"qel_application_1", machine.recorder}};
    start(machine);

    // Each run leaves a prefix with folders, files and a link to "/" in it.
    ASSERT_TRUE(wait_for_recorder(machine, "qel_application_1", 4));
    std::vector<std::string> notes = notes_of(machine, "qel_application_1");
    EXPECT_GE(std::count(notes.begin(), notes.end(), "prefix absent"), 4);
    EXPECT_EQ(std::count(notes.begin(), notes.end(), "prefix present"), 0);
    // The link inside was removed, not what it points to.
    EXPECT_EQ(look_inside(machine.cabinet, "ls -d /sbin/qel_application_loader"),
              "/sbin/qel_application_loader\n");
}

TEST(ApplicationLoop, RestartsAnApplicationThatExitsAtOnce)
{
    Machine machine;
    machine.storage = {{"qel_application_quick", machine.recorder}};
    start(machine);

    ASSERT_TRUE(wait_for_recorder(machine, "qel_application_quick", 20));
    std::vector<std::string> notes = notes_of(machine, "qel_application_quick");
    EXPECT_EQ(std::count(notes.begin(), notes.end(), "prefix present"), 0);
}

TEST(ApplicationLoop, RestartsAnApplicationThatIsKilled)
{
    Machine machine;
    std::string script = file_with(machine, "script", "#!/bin/sh\nexec /bin/busybox sleep 1000\n");
    machine.storage = {{"qel_application_1", script}};
    start(machine);

    ASSERT_TRUE(wait_for_start(machine, "sleep 1000"));
    look_inside(machine.cabinet, "kill -9 " + std::to_string(last_started(machine)));
    ASSERT_TRUE(wait_for_start(machine, "sleep 1000", 2));
    bool killed =
        std::any_of(machine.cabinet.events.begin(), machine.cabinet.events.end(), [](const Event &event) {
            return event.kind == Event::program_ended && event.text == "signal 9";
        });
    EXPECT_TRUE(killed);
}

TEST(ApplicationLoop, StartsTheXServerOnce)
{
    Machine machine;
    machine.storage = {{"qel_application_1", machine.recorder}};
    start(machine);

    ASSERT_TRUE(wait_for_start(machine, "/usr/xorg/bin/Xfake -nolisten tcp -kb"));
    look_inside(machine.cabinet, "kill -9 $(pidof Xfake)");
    size_t runs = static_cast<size_t>(count_starts(machine.cabinet, "/storage/"));
    ASSERT_TRUE(wait_for_start(machine, "/storage/", static_cast<int>(runs) + 3));
    EXPECT_EQ(count_starts(machine.cabinet, "Xfake"), 1);
}

TEST(ApplicationLoop, RunsTheApplicationAlsoWithoutAnXServer)
{
    Machine machine;
    machine.system = {{"share/empty", file_with(machine, "empty", "")}};
    machine.storage = {{"qel_application_1", machine.recorder}};
    start(machine);

    EXPECT_TRUE(wait_for_recorder(machine, "qel_application_1", 2));
    EXPECT_EQ(count_starts(machine.cabinet, "Xfake"), 0);
    EXPECT_EQ(machine.cabinet.console.find("failed"), std::string::npos);
}

TEST(ApplicationLoop, SaysSoAndTriesAgainWhenTheApplicationDoesNotStart)
{
    Machine machine;
    machine.storage = {{"qel_application_1", file_with(machine, "text", "no program\n")}};
    start(machine);

    EXPECT_TRUE(wait_for_console_times(machine,
                                       "run: /storage/qel_application_1\n"
                                       "exec failed: qel_application_1\n",
                                       2));
    EXPECT_EQ(count_starts(machine.cabinet, "/storage/"), 0);
}

TEST(WindowsApplication, RunsThroughWine)
{
    Machine machine;
    machine.system.push_back({"wine/bin/wine", machine.recorder});
    machine.storage = {{"qel_application_game.exe.so", file_with(machine, "game", "a Windows program\n")}};
    start(machine);

    ASSERT_TRUE(wait_for_recorder(machine, "wine", 2));
    std::vector<std::string> notes = notes_of(machine, "wine");
    notes.resize(10);
    EXPECT_EQ(notes, (std::vector<std::string>{
                         "argument /usr/wine/bin/wine", "argument /storage/qel_application_game.exe.so",
                         "variable HOME=/qel_home", "variable TERM=linux",
                         "variable WINEDEBUG=fixme-all,warn-all", "variable LD_LIBRARY_PATH=/usr/xorg/lib",
                         "variable DISPLAY=unix:0", "folder /storage", "prefix absent", "done"}));
    EXPECT_TRUE(wait_for_console(machine.cabinet, "run: /storage/qel_application_game.exe.so\n", patience));
}

TEST(WindowsApplication, SaysSoAndTriesAgainWithoutWine)
{
    Machine machine;
    machine.storage = {{"qel_application_game.exe.so", machine.recorder}};
    start(machine);

    EXPECT_TRUE(wait_for_console_times(machine,
                                       "run: /storage/qel_application_game.exe.so\n"
                                       "wine failed: qel_application_game.exe.so\n",
                                       2));
}

TEST(NoApplication, ParksAndPrintsNothingMore)
{
    Machine machine;
    machine.storage = {{"application", machine.recorder}, {"folder/not_qel_application_1", machine.recorder}};
    start(machine);

    ASSERT_TRUE(wait_for_console(machine.cabinet, "mount: /usr /storage\n", patience));
    EXPECT_EQ(wait_until_parked(machine), "VYS189");
    // This console is no terminal: the line of the home link, which is not flushed, stays in the buffer.
    EXPECT_TRUE(machine.cabinet.console.ends_with("mount: /usr /storage\n")) << machine.cabinet.console;
    EXPECT_EQ(look_inside(machine.cabinet, "readlink /qel_home"), "/tmp\n");
    EXPECT_EQ(count_starts(machine.cabinet, ""), 0);
}
