// The program behind ./run, and the whole cabinet with Debian's X server and the sample application.

#include "machine_test.h"

#include "machine/drive/screen.h"

#include <algorithm>
#include <filesystem>

namespace
{

const char *const run = MACHINE_TEST_RUN;

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
    Parts parts = find_parts();
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

TEST(Run, EndsWithOneWhenTheApplicationDoesNotStart)
{
    Machine machine;
    int status = -1;
    std::string output =
        run_with({"--seconds", "4", "--application", file_with(machine, "text", "no program\n")}, status);
    EXPECT_EQ(status, 1) << output;
    EXPECT_NE(output.find("console  exec failed: qel_application_text\n"), std::string::npos);
}

TEST(Run, PutsAFoldersFilesOnAStick)
{
    ScratchFolder stick;
    std::string application = "#!/bin/sh\nexec /bin/busybox sleep 1\n";
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
    EXPECT_EQ(status, 0) << output; // the application ran
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
    std::filesystem::copy_file(find_parts().sample_application, application);
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

TEST(Run, RefusesAnOptionItDoesNotKnow)
{
    int status = -1;
    run_with({"--nonsense"}, status);
    EXPECT_EQ(status, 2);
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
