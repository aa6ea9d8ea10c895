// The program behind ./run, and the whole cabinet with Debian's X server and the sample application.

#include "install_machine.h"

#include "common/link_socket.h"
#include "machine/drive/screen.h"

#include <gmock/gmock.h>
#include <sys/socket.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <regex>

using testing::ContainsRegex;
using testing::HasSubstr;

namespace
{

const char *const run = MACHINE_TEST_RUN;
const char *const script = MACHINE_TEST_SCRIPT;

/// Runs it and returns what it prints; `status` receives its exit status.
std::string run_with(const std::vector<std::string> &options, int &status, const char *program = run)
{
    std::vector<std::string> command = {"sh", "-c", "\"$0\" \"$@\"; echo status $?", program};
    command.insert(command.end(), options.begin(), options.end());
    std::string output = run_tool(command);
    status = std::stoi(output.substr(output.rfind("status ") + 7));
    return output;
}

} // namespace

TEST(WholeCabinet, ShowsTheSampleApplicationOnItsScreen)
{
    Machine machine;
    machine.storage = {{"qel_application_sample", machine.parts.sample_application}};
    machine.setup.internal_disk = machine.folder.path + "/internal_disk.img";
    make_internal_disk(machine.setup.internal_disk, usual_system_image(machine.parts), machine.storage);
    start(machine);

    ASSERT_TRUE(wait_for_start(machine, "/storage/qel_application_sample", 2));
    // The window's background in the corner where nothing else is drawn, and something drawn on it.
    const std::vector<unsigned char> background = {0x10, 0x24, 0x3e};
    Picture picture;
    auto drawn = [&] {
        picture = grab_screen(machine.cabinet);
        return shows_something(picture) &&
               std::equal(background.begin(), background.end(), picture.bytes.begin());
    };
    EXPECT_TRUE(wait_until(machine.cabinet, drawn, patience));
    EXPECT_EQ(picture.width, 800U);
    EXPECT_EQ(picture.height, 600U);
}

TEST(WholeCabinet, HasASystemImageThatFitsItsPartition)
{
    Parts parts = find_parts(tested_target());
    std::string image = usual_system_image(parts);
    EXPECT_LT(read_file(image).size(), 28U * 1024 * 1024);
}

class RunOfTarget : public testing::TestWithParam<std::string>
{
};

INSTANTIATE_TEST_SUITE_P(Each, RunOfTarget, testing::ValuesIn(targets));

TEST_P(RunOfTarget, EndsWithZeroWhenTheApplicationRan)
{
    int status = -1;
    std::string output = run_with({"--seconds", "6", "--target", GetParam()}, status);
    EXPECT_EQ(status, 0) << output;
    EXPECT_NE(output.find("console  QEL Loader...\n"), std::string::npos);
    EXPECT_NE(output.find("h8       get mode (5)\n"), std::string::npos);
    EXPECT_NE(output.find("start    /storage/qel_application_sample"), std::string::npos);
}

TEST(Run, ShowsTheApplicationAlsoWhenTheConsoleIsSilent)
{
    int status = -1;
    std::string output = run_with({"--seconds", "6", "--mode", "0"}, status);
    EXPECT_EQ(status, 0) << output;
    EXPECT_EQ(output.find("console  run: "), std::string::npos);
    EXPECT_NE(output.find("start    /storage/qel_application_sample"), std::string::npos);
}

TEST(Run, RefusesAnApplicationThatTheCabinetCannotRun)
{
    Machine machine;
    auto refusal = [](const std::string &application, const std::string &target = targets.front()) {
        int status = -1;
        const std::string output = run_with({"--application", application, "--target", target}, status);
        EXPECT_EQ(status, 1);
        EXPECT_EQ(output.find("console"), std::string::npos); // nothing was started
        return output;
    };
    const std::string text = file_with(machine, "text", "no program\n");
    EXPECT_THAT(refusal(text), HasSubstr("error: " + text + ": neither a program nor a script"));
    const std::string script = file_with(machine, "script", "#!/usr/bin/python3\n");
    EXPECT_THAT(refusal(script),
                HasSubstr(script + ": a script for /usr/bin/python3, which the cabinet has not"));
    EXPECT_THAT(refusal("/bin/busybox", "i586"),
                HasSubstr("/bin/busybox: does not run on the cabinet for i586: ELF 64-bit LSB executable"));
    std::string bytes = read_file(machine.parts.sample_application);
    for (size_t at = 0; (at = bytes.find("libX11.so.6", at)) != std::string::npos;)
        bytes.replace(at, 11, "libX99.so.9");
    const std::string program = file_with(machine, "program", bytes);
    EXPECT_THAT(refusal(program), HasSubstr(program + ": libraries are missing for x86-64: libX99.so.9;"));
    // The head of a Windows program: "MZ", and where "PE" is.
    bytes = std::string("MZ") + std::string(58, '\0') + std::string("\x40\0\0\0PE\0\0\x64\x86", 10) +
            std::string(64, '\0');
    bytes.replace(0x58, 2, "\x0b\x02");
    const std::string windows = file_with(machine, "program.exe", bytes);
    EXPECT_THAT(refusal(windows), HasSubstr(windows + ": a Windows program;"));
    const std::string for_wine = file_with(machine, "program.exe.so", bytes);
    EXPECT_THAT(refusal(for_wine), HasSubstr(for_wine + ": needs Wine (/usr/wine/bin/wine);"));
    const std::string library = file_with(machine, "library.exe.so", read_file(program));
    EXPECT_THAT(refusal(library), HasSubstr(library + ": needs Wine (/usr/wine/bin/wine);"));
}

TEST(Run, AddsTheLibrariesOfAnApplicationToTheSystemImage)
{
    int status = -1;
    // It starts, so its libraries are there, and wants a command.
    const std::string output = run_with({"--seconds", "8", "--application", MACHINE_TEST_HOST}, status);
    EXPECT_THAT(output, ContainsRegex("also gets, in /usr/xorg/lib:.* libstdc\\+\\+\\.so\\.6"));
    EXPECT_THAT(output, HasSubstr("end      exit 2 ("));
}

TEST(Run, SaysWhyTheApplicationWasNeverStarted)
{
    ScratchFolder storage;
    write_file(storage.path + "/qel_application_1", "no program\n");
    int status = -1;
    const std::string output = run_with({"--seconds", "8", "--storage", storage.path}, status);
    EXPECT_EQ(status, 1) << output;
    EXPECT_THAT(output,
                HasSubstr("error: the application was never started: exec failed: qel_application_1\n"));
}

TEST(Run, TakesStorageSystemImageAndMemoryFromTheUser)
{
    ScratchFolder folder;
    const std::string system = folder.path + "/usr", storage = folder.path + "/storage";
    std::filesystem::create_directories(system + "/share");
    std::filesystem::create_directories(storage + "/inner");
    write_file(system + "/share/greeting", "a word from /usr\n");
    write_file(storage + "/inner/qel_application_1",
               "#!/bin/sh\n/bin/busybox cat /usr/share/greeting\n/bin/busybox grep MemTotal /proc/meminfo\n"
               "exec /bin/busybox sleep 100\n");
    int status = -1;
    const std::string output = run_with(
        {"--seconds", "8", "--storage", storage, "--system-image", system, "--memory", "100"}, status);
    EXPECT_THAT(output, HasSubstr("console  a word from /usr\n"));
    EXPECT_THAT(output, ContainsRegex("console  MemTotal: +[89][0-9]{4} kB\n"));
    EXPECT_THAT(output, HasSubstr("start    /bin/sh /storage/inner/qel_application_1"));
}

TEST(Run, StartsFromACopyOfAnInstalledDiskUnlessToldToUseIt)
{
    InstallMachine factory;
    Delivery delivery = take_factory_stick(factory);
    delivery.storage.clear();
    delivery.application = file_with(factory, "qel_application_2",
                                     "#!/bin/sh\n"
                                     "/bin/busybox mount -o remount,rw /storage && echo >/storage/been_here\n"
                                     "/bin/busybox mount -o remount,ro /storage && echo written\n"
                                     "exec /bin/busybox sleep 100\n");
    const std::string disk = factory.folder.path + "/disk";
    make_installed_disk(disk, delivery, [](const std::string &) {});
    const std::string before = read_file(disk);
    int status = -1;
    std::string output = run_with({"--seconds", "8", "--disk", disk}, status);
    EXPECT_EQ(status, 0) << output;
    EXPECT_THAT(output, HasSubstr("console  written\n"));
    EXPECT_TRUE(read_file(disk) == before);
    output = run_with({"--seconds", "8", "--disk", disk, "--disk-in-place"}, status);
    EXPECT_EQ(status, 0) << output;
    EXPECT_THAT(output, HasSubstr("console  written\n"));
    EXPECT_FALSE(read_file(disk) == before);
    EXPECT_THAT(run_with({"--disk", disk, "--storage", "/"}, status), HasSubstr("--storage excludes --disk"));
    EXPECT_EQ(status, 2);
}

TEST(Run, PutsAFoldersFilesOnAStick)
{
    ScratchFolder stick;
    std::string application = "#!/bin/sh\nexec /bin/busybox sleep 100\n";
    write_file(stick.path + "/qel_application_zz", application);
    int status = -1;
    std::string output = run_with({"--seconds", "6", "--stick", stick.path}, status);
    EXPECT_EQ(status, 0) << output;
    EXPECT_NE(output.find("console  copy: /disk/sda1/qel_application_zz -> /storage/qel_application_zz\n"),
              std::string::npos);
}

TEST(Run, TellsWhereALoaderOfTheUsersOwnHasStopped)
{
    Machine machine;
    std::string application =
        file_with(machine, "harm", "#!/bin/sh\n/bin/busybox mkdir -p '/qel_home/.wine/a|b'\n");
    int status = -1;
    setenv("QEL_LOADER", MACHINE_TEST_TELLING_LOADER, 1);
    std::string output = run_with({"--seconds", "8", "--application", application}, status);
    unsetenv("QEL_LOADER");
    EXPECT_NE(output.find("note     stopped qel_utility/qel_filesystem:975 0\n"), std::string::npos)
        << output;
    EXPECT_NE(output.find("stop     the loader has stopped at KCW975; see host/where/qel-where KCW975\n"),
              std::string::npos)
        << output;
}

TEST(Run, WaitsForAHostOnItsLink)
{
    ScratchFolder folder;
    std::string updater = folder.path + "/updater";
    write_file(updater, "#!/bin/sh\nexec /bin/busybox sleep 1000\n");
    std::string output = run_tool({"sh", "-c",
                                   R"("$0" --mode 3 --link "$3/link" >"$3/view" &
                     "$1" update "$2" --socket "$3/link" --wait 60; echo "host $?"
                     kill -INT $!; wait $!; echo "run $?"; cat "$3/view")",
                                   run, MACHINE_TEST_HOST, updater, folder.path});
    EXPECT_NE(output.find("\nhost 0\nrun 1\n"), std::string::npos) << output; // no application was started
    EXPECT_NE(output.find("|Starting updater...     |\n"), std::string::npos) << output;
}

TEST(Run, WritesPicturesOfTheScreenAndOfTheDisplay)
{
    ScratchFolder folder;
    std::string application = folder.path + "/picture";
    std::filesystem::copy_file(find_parts(tested_target()).sample_application, application);
    int status = -1;
    std::string output = run_with({"--application", application, "--screenshot", folder.path + "/screen.png",
                                   "--lcd-screenshot", folder.path + "/lcd.png"},
                                  status);
    EXPECT_EQ(status, 0) << output;
    EXPECT_NE(output.find("start    /storage/qel_application_picture"), std::string::npos) << output;
    std::string picture = read_file(folder.path + "/screen.png");
    EXPECT_EQ(picture.substr(0, 8), "\x89PNG\r\n\x1a\n");
    EXPECT_EQ(picture.substr(12, 12), std::string("IHDR\0\0\x03\x20\0\0\x02\x58", 12)); // 800 by 600
    picture = read_file(folder.path + "/lcd.png");
    EXPECT_EQ(picture.substr(0, 8), "\x89PNG\r\n\x1a\n");
    EXPECT_EQ(picture.substr(12, 12), std::string("IHDR\0\0\x02\xe8\0\0\x01\x58", 12)); // 744 by 344
}

TEST(Run, HasOneHelpThatTheScriptPrintsBeforeAnythingIsBuilt)
{
    const std::string help = run_tool({run, "--help"});
    EXPECT_TRUE(help.starts_with("usage: ./run [OPTION...] ")) << help;
    EXPECT_EQ(run_tool({run, "update", "--help"}), help);
    EXPECT_EQ(run_tool({script, "--help"}), help);
    EXPECT_EQ(run_tool({script, "update", "--plain", "--help"}), help);
}

TEST(Run, TakesEveryOptionOfItsHelp)
{
    const std::map<std::string, std::string> values = {
        {" BYTE", "2"},   {" N", "1"},      {" MACHINE", "i586"},  {" PNG", "p"},
        {" PCAPNG", "p"}, {" SOCKET", "s"}, {" FOLDER", "/"},      {" FILE", "/bin/sh"},
        {" MB", "64"},    {" PATH", "/"},   {" IMAGE", "/bin/sh"}, {"", ""}};
    const std::string help = run_tool({run, "--help"});
    const size_t only_run = help.find("\nNot with update:");
    // What ends by itself takes no second word; --disk-in-place has a test of its own.
    const std::regex option("\n  (?!--version|--help|--disk-in-place)(--[a-z-]+)( [A-Z]+)?");
    for (std::sregex_iterator match(help.begin(), help.end(), option), none; match != none; ++match) {
        std::vector<std::string> words = {(*match)[1], "--nonsense"};
        if ((*match)[2].matched)
            words.insert(words.begin() + 1, values.at((*match)[2]));
        const std::string only_that = "The following argument was not expected: --nonsense\n"
                                      "Run with --help for more information.\nstatus 2\n";
        int status = -1;
        EXPECT_EQ(run_with(words, status), only_that) << words[0];
        words.insert(words.begin(), "update");
        EXPECT_EQ(run_with(words, status) == only_that, static_cast<size_t>(match->position()) < only_run)
            << words[1];
    }
}

TEST(Run, RefusesWhatItsHelpDoesNotList)
{
    int status = -1;
    EXPECT_EQ(run_with({"--nonsense"}, status, script),
              "error: unknown option: --nonsense (./run --help lists them all)\nstatus 2\n");
    EXPECT_EQ(run_with({"coffee"}, status, script),
              "error: unknown command: coffee (./run --help lists them all)\nstatus 2\n");
}

TEST(Run, PrintsTheCommandLineOfAQemuWithTheAcceleratorThatIsNamed)
{
    int status = -1;
    std::string output = run_with({"--seconds", "1", "--plain", "--print-qemu"}, status);
    EXPECT_NE(output.find("\nqemu-system-x86_64 -nodefaults -no-user-config -accel tcg "), std::string::npos)
        << output;
    setenv("QEL_ACCEL", "tcg,thread=single", 1);
    output = run_with({"--seconds", "1", "--plain", "--print-qemu"}, status);
    unsetenv("QEL_ACCEL");
    EXPECT_NE(output.find(" -accel tcg,thread=single -cpu "), std::string::npos) << output;
}

TEST(Run, LeavesTheLinkToTheCabinetThatHasIt)
{
    Machine machine;
    const std::string link = machine.setup.host_link = machine.folder.path + "/link";
    machine.setup.board.mode = 3;
    start(machine);
    auto shown = [&](const std::string &text) {
        const std::vector<Event> &events = machine.cabinet.events;
        return std::any_of(events.begin(), events.end(), [&](const Event &event) {
            return event.kind == Event::lcd_row && event.text == text;
        });
    };
    ASSERT_TRUE(wait_until(
        machine.cabinet, [&] { return shown("TOLBRIN Update..."); }, patience));
    int status = -1;
    std::string output = run_with({"--seconds", "1", "--plain", "--link", link}, status);
    EXPECT_EQ(status, 1);
    EXPECT_NE(output.find("error: " + link +
                          ": Address already in use; choose a name for the socket that nothing else has\n"),
              std::string::npos)
        << output;

    // The first cabinet's loader still hears a host: length and CRC of a packet, then message 5.
    const Descriptor host = {connect_link(link)};
    const char connect[] = "\x00\x00\x00\x0c\x66\x86\x05\x00\x00\x00\x0c\x00\x00\x00\x78\x56\x34\x12";
    ASSERT_EQ(send(host.number, connect, sizeof connect - 1, 0), 18);
    EXPECT_TRUE(wait_until(
        machine.cabinet, [&] { return shown("*Connected*"); }, patience));
}

TEST(Run, RefusesATargetItDoesNotKnowAndNamesThoseItDoes)
{
    for (const std::vector<std::string> &words :
         {std::vector<std::string>{"--target", "mips"}, {"update", "--target", "mips"}}) {
        int status = -1;
        std::string output = run_with(words, status);
        EXPECT_EQ(status, 2);
        EXPECT_NE(output.find("mips not in {x86-64,i586}\n"), std::string::npos) << output;
    }
}

// ---- ./run update ----

class RunUpdateOfTarget : public testing::TestWithParam<std::string>
{
};

INSTANTIATE_TEST_SUITE_P(Each, RunUpdateOfTarget, testing::ValuesIn(targets));

TEST_P(RunUpdateOfTarget, ShowsTheExchangeAndTheUpdaterAsProcess1)
{
    ScratchFolder folder;
    std::string recording = folder.path + "/link.pcapng";
    int status = -1;
    std::string output =
        run_with({"update", "--seconds", "4", "--record", recording, "--target", GetParam()}, status);
    EXPECT_EQ(status, 0) << output;
    // In this order: the display's three texts, what the updater prints, and what process 1 then is.
    size_t at = 0;
    for (const char *text :
         {"|TOLBRIN Update...", "|*Connected*", "host     updater: 100 %", "|Starting updater...",
          "console  updater: step 1\n", "machine  process 1 is now: /bin/sh /tmp/updater"}) {
        at = output.find(text, at);
        ASSERT_NE(at, std::string::npos) << text << " is missing or late in:\n" << output;
    }
    EXPECT_EQ(read_file(recording).substr(0, 4), "\x0a\x0d\x0d\x0a"); // a section header block
}

TEST(RunUpdate, SendsTheUpdaterThatIsNamed)
{
    ScratchFolder folder;
    std::string updater = folder.path + "/updater", recording = folder.path + "/link.pcapng";
    write_file(updater, "#!/bin/sh\necho my own updater\nexec /bin/busybox sleep 1000\n");
    int status = -1;
    std::string output = run_with({"update", updater, "--record", recording, "--seconds", "2"}, status);
    EXPECT_EQ(status, 0) << output;
    EXPECT_NE(output.find("console  my own updater\n"), std::string::npos) << output;
    std::string trace = run_tool({MACHINE_TEST_HOST, "trace", recording, "--messages"});
    EXPECT_NE(trace.find("updater"), std::string::npos) << trace;
}

TEST(RunUpdate, RefusesAnUpdaterThatIsNotThere)
{
    int status = -1;
    std::string output = run_with({"update", "/nonexistent"}, status);
    EXPECT_EQ(status, 2) << output;
}
