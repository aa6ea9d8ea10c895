// Child processes and links, function by function, with real processes on a real file system.

#include "sandbox/sandbox.h"

#include <gmock/gmock.h>

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

/// A sandbox in which a program makes the calls that its arguments name (library_main.cpp).
class Library : public Sandbox
{
  public:
    Library()
    {
        make_folder("/machine/programs");
    }
    void add_program(const std::string &path, const std::string &run)
    {
        copy_in(SANDBOX_HELPER_PROGRAM, path);
        make_file("/machine/programs/" + path.substr(path.rfind('/') + 1), run);
    }
    void call(const std::vector<std::string> &words)
    {
        std::vector<std::string> arguments = {"/init"};
        arguments.insert(arguments.end(), words.begin(), words.end());
        start(SANDBOX_LIBRARY, arguments);
    }
    /// What the call printed, once it has returned.
    std::vector<std::string> printed()
    {
        await_lines("console \"done\\n\"");
        std::vector<std::string> lines = transcript().lines("console");
        lines.pop_back();
        return lines;
    }
    /// What the process `pid` reported, the first line that begins so.
    std::string report(pid_t pid, const std::string &beginning)
    {
        const auto find = [&]() -> std::string {
            for (const std::string &line : transcript().of(pid)) {
                if (begins_with(line, beginning))
                    return line;
            }
            return "";
        };
        await(beginning + " of process " + std::to_string(pid), [&] { return !find().empty(); });
        return find();
    }
};

static const char signal_text[] = "((((__extension__ (((union { __typeof(status) __in; int __i; }) { .__in = "
                                  "(status) }).__i))) & 0x7f) == 0)";
static const char exit_text[] = "((((__extension__ (((union { __typeof(status) __in; int __i; }) { .__in = "
                                "(status) }).__i))) & 0xff00) >> 8) == 0";

// ---- Programs that must succeed ----

TEST(ExecWaitChecked, GivesArgumentsAndEnvironmentAsTheyAreAndWaitsForTheEnd)
{
    Library library;
    library.add_program("/bin/tool", "exit 0");
    library.call({"qel_exec_wait_checked", "/bin/tool", "-"});
    EXPECT_THAT(library.printed(), ElementsAre("console \"waited\\n\""));
    EXPECT_THAT(library.transcript().of(2),
                testing::IsSupersetOf({"execve /bin/tool [/bin/tool first second] [NAME=value]",
                                       "arguments [/bin/tool first second]", "environment [NAME=value]"}));
}

TEST(ExecWaitChecked, MakesTheCallsInOrderAndLeavesNothingOpen)
{
    Library library;
    library.add_program("/bin/tool", "input exit 0");
    library.call({"qel_exec_wait_checked", "/bin/tool", "text"});
    EXPECT_TRUE(library.matches("exec_wait_checked.txt"));
}

TEST(ExecWaitChecked, LetsTheChildReadExactlyTheTextAndThenItsEnd)
{
    Library library;
    library.add_program("/bin/tool", "input exit 0");
    library.call({"qel_exec_wait_checked", "/bin/tool", ",8,4,*\n,28,L\n,,6\n"});
    EXPECT_THAT(library.printed(), ElementsAre("console \"waited\\n\""));
    EXPECT_EQ(library.report(2, "input"), "input \",8,4,*\\n,28,L\\n,,6\\n\", then its end");
}

TEST(ExecWaitChecked, EndsTheChildsInputAtOnceWithoutAText)
{
    for (const char *text : {"-", ""}) {
        Library library;
        library.add_program("/bin/tool", "input exit 0");
        library.call({"qel_exec_wait_checked", "/bin/tool", text});
        EXPECT_THAT(library.printed(), ElementsAre("console \"waited\\n\""));
        EXPECT_EQ(library.report(2, "input"), "input \"\", then its end");
    }
}

TEST(ExecWaitChecked, DoesNotMindAChildThatLeavesItsInputAlone)
{
    Library library;
    library.add_program("/bin/tool", "exit 0");
    library.call({"qel_exec_wait_checked", "/bin/tool", "unread"});
    EXPECT_THAT(library.printed(), ElementsAre("console \"waited\\n\""));
}

TEST(ExecWaitChecked, LeavesTheChildTheConsoleAsItsOutput)
{
    Library library;
    library.add_program("/bin/tool", "print hello");
    library.call({"qel_exec_wait_checked", "/bin/tool", "-"});
    EXPECT_THAT(library.printed(), ElementsAre("console \"hello\"", "console \"waited\\n\""));
}

TEST(ExecWaitChecked, StopsAfterAnExitCodeOtherThan0)
{
    for (const char *code : {"1", "255"}) {
        Library library;
        library.add_program("/bin/tool", std::string("exit ") + code);
        library.call({"qel_exec_wait_checked", "/bin/tool", "-"});
        library.await_lines("stop ");
        EXPECT_THAT(library.transcript().lines("stop "),
                    ElementsAre(std::string("stop qel_utility/qel_filesystem:2117 ") + exit_text));
    }
}

TEST(ExecWaitChecked, StopsAfterASignal)
{
    Library library;
    library.add_program("/bin/tool", "kill 9");
    library.call({"qel_exec_wait_checked", "/bin/tool", "-"});
    library.await_lines("stop ");
    EXPECT_THAT(library.transcript().lines("stop "),
                ElementsAre(std::string("stop qel_utility/qel_filesystem:2116 ") + signal_text));
}

TEST(ExecWaitChecked, ParksTheChildWhoseProgramIsMissingAndWaitsForIt)
{
    Library library;
    library.call({"qel_exec_wait_checked", "/bin/tool", "-"});
    EXPECT_EQ(library.report(2, "stop"), "stop qel_utility/qel_filesystem:2101 0");
    EXPECT_EQ(library.report(2, "sleep"), "sleep 1");
    EXPECT_THAT(library.transcript().lines("waitpid"), IsEmpty());
    EXPECT_EQ(library.children().size(), 1U);
}

// ---- Programs that are not judged ----

TEST(ExecWait, PrintsNothingHoweverTheChildEnded)
{
    for (const char *run : {"exit 0", "exit 3", "kill 9"}) {
        Library library;
        library.add_program("/bin/tool", run);
        library.call({"qel_exec_wait", "/bin/tool", "-"});
        EXPECT_THAT(library.printed(), ElementsAre("console \"waited\\n\""));
    }
}

TEST(ExecWait, LetsTheChildReadExactlyTheTextAndThenItsEnd)
{
    Library library;
    library.add_program("/bin/tool", "input exit 1");
    library.call({"qel_exec_wait", "/bin/tool", "one\ntwo\n"});
    EXPECT_THAT(library.printed(), ElementsAre("console \"waited\\n\""));
    EXPECT_EQ(library.report(2, "input"), "input \"one\\ntwo\\n\", then its end");
}

TEST(ExecWait, ParksTheChildWhoseProgramIsMissing)
{
    Library library;
    library.call({"qel_exec_wait", "/bin/tool", "-"});
    EXPECT_EQ(library.report(2, "stop"), "stop qel_utility/qel_filesystem:1694 0");
}

// ---- Wine ----

static const char wine[] = "/usr/wine/bin/wine";

TEST(WineExecCapture, RunsTheProgramUnderWineWithoutInputAndReturnsItsOutput)
{
    Library library;
    library.add_program(wine, "input print hello");
    library.call({"qel_wine_exec_capture", "regedit.exe"});
    EXPECT_THAT(library.printed(), ElementsAre("console \"captured: hello\\n\""));
    EXPECT_EQ(library.report(2, "arguments"), "arguments [/usr/wine/bin/wine regedit.exe /S some file.reg]");
    EXPECT_EQ(library.report(2, "environment"),
              "environment [HOME=/qel_home TERM=linux WINEDEBUG=fixme-all,warn-all "
              "LD_LIBRARY_PATH=/usr/xorg/lib DISPLAY=unix:0]");
    EXPECT_EQ(library.report(2, "input"), "input \"\", then its end");
}

TEST(WineExecCapture, WaitsForEverForTheOutputOfAChildThatEndedWithoutAny)
{
    // The loader holds the child's end of the output pair too, so the child's end ends no read.
    Library library;
    library.add_program(wine, "exit 0");
    library.call({"qel_wine_exec_capture", "regedit.exe"});
    library.await_lines("shutdown 4 2");
    library.await("the child's end", [&] {
        const auto children = library.children();
        return children.size() == 1 && children.front().state == 'Z';
    });
    library.await("PID 1 asleep", [&] { return library.first_process().state == 'S'; });
    EXPECT_EQ(library.transcript().lines().back(), "shutdown 4 2");
}

TEST(WineExecCapture, KeepsWhatItsFirstReadGave)
{
    Library library;
    library.add_program(wine, "fill 20000");
    library.call({"qel_wine_exec_capture", "regedit.exe"});
    EXPECT_THAT(library.printed(), ElementsAre("console \"captured: " + std::string(10239, 'x') + "\\n\""));
}

TEST(WineExecCapture, OverwritesTheTextOfTheCallBefore)
{
    Library library;
    library.add_program(wine, "print longer\nprint short\n");
    library.call({"qel_wine_exec_capture", "a.exe", "qel_wine_exec_capture", "b.exe"});
    EXPECT_THAT(library.printed(),
                ElementsAre("console \"captured: longer\\n\"", "console \"captured: short\\n\""));
}

TEST(WineExecCapture, IsAnsweredByTheEndOfTheParkedChildOnly)
{
    Library library;
    library.call({"qel_wine_exec_capture", "regedit.exe"});
    EXPECT_EQ(library.report(2, "stop"), "stop qel_utility/qel_filesystem:1744 0");
    EXPECT_EQ(library.report(2, "sleep"), "sleep 1");
    EXPECT_THAT(library.transcript().lines("console"), IsEmpty());
}

// ---- Links ----

TEST(Symlink, MakesTheLinkAndSaysSo)
{
    Library library;
    library.call({"qel_symlink", "/tmp", "/home"});
    EXPECT_THAT(library.printed(),
                ElementsAre("console \"/tmp -> /home\\n\"", "console \"returned non-zero\\n\""));
    EXPECT_EQ(library.look("/home"), "lrwxrwxrwx -> /tmp");
}

TEST(Symlink, ReplacesALinkAndAFile)
{
    Library library;
    library.make_link("/link", "old");
    library.make_file("/file", "old");
    library.call({"qel_symlink", "new", "/link", "qel_symlink", "new", "/file"});
    library.printed();
    EXPECT_EQ(library.look("/link"), "lrwxrwxrwx -> new");
    EXPECT_EQ(library.look("/file"), "lrwxrwxrwx -> new");
}

TEST(Symlink, OntoAFolderSaysSoAndReturns)
{
    Library library;
    library.make_folder("/folder");
    library.call({"qel_symlink", "/tmp", "/folder"});
    EXPECT_THAT(library.printed(),
                ElementsAre("console \"/tmp -> /folder\\n\"", "console \"symlink error : EEXIST\\n\"",
                            "console \"error code : 17\\n\"", "console \"returned non-zero\\n\""));
    EXPECT_EQ(library.look("/folder"), "drwxr-xr-x");
}

/// Calls qel_symlink and returns what it printed before it stopped at 1892.
static std::vector<std::string> stopped_link(Library &library, const std::string &target)
{
    library.call({"qel_symlink", "/tmp", target});
    library.await_lines("stop ");
    EXPECT_THAT(library.transcript().lines("stop "),
                ElementsAre("stop qel_utility/qel_filesystem:1892 (*__errno_location ()) == 17"));
    std::vector<std::string> lines = library.transcript().lines("console");
    EXPECT_EQ(lines.at(0), "console \"/tmp -> " + target + "\\n\"");
    lines.erase(lines.begin());
    return lines;
}

TEST(Symlink, NamesTheErrorAndStopsWhereTheFileSystemRefuses)
{
    const std::vector<std::tuple<std::string, std::string, int>> cases = {
        {"/lib/link", "EROFS", 30},
        {"/missing/link", "ENOENT", 2},
        {"/file/link", "ENOTDIR", 20},
        {"/loop/link", "ELOOP", 40},
        {"/" + std::string(256, 'n'), "ENAMETOOLONG", 36},
    };
    for (const auto &[target, name, number] : cases) {
        Library library;
        library.make_file("/file", "");
        library.make_link("/loop", "/loop");
        EXPECT_THAT(stopped_link(library, target),
                    ElementsAre("console \"symlink error : " + name + "\\n\"",
                                "console \"error code : " + std::to_string(number) + "\\n\""));
    }
}

TEST(Symlink, GivesTheNumberAloneOfAnErrorWithoutAName)
{
    Library library;
    library.set("SANDBOX_FAIL", "symlink 1 1");
    EXPECT_THAT(stopped_link(library, "/link"), ElementsAre("console \"error code : 1\\n\""));
}
