// The command line: wrong calls, files and sockets that cannot be used, help.

#include "commands_fixture.h"

using testing::HasSubstr;

// ---- Wrong calls and wrong files ----

struct WrongCall {
    std::vector<std::string> words;
    int code;
    const char *error;
};

TEST(CommandLine, TellsWhatIsWrongAndWhatToDo)
{
    const WrongCall calls[] = {
        {{}, 2, "subcommand is required"},
        {{"frobnicate"}, 2, "--help"},
        {{"connect"}, 2, "say where the other end is, with one of --device, --socket and --listen"},
        {{"connect", "--socket", "a", "--listen", "b"}, 2, "say where the other end is"},
        {{"connect", "--socket", "a", "--seconds", "x"}, 2, "--seconds"},
        {{"update", "--socket", "a"}, 2, "file is required"},
        {{"query", "nothing", "--socket", "a"}, 2, "there is no \"nothing\" to send"},
        {{"query", "path-exists", "--socket", "a"}, 2, "path-exists takes PATH"},
        {{"query", "info", "x", "--socket", "a"}, 2, "info takes no arguments"},
        {{"query", "23", "n", "1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11", "--socket", "a"},
         2,
         "23 takes NAME"},
        {{"post", "post_32", "name", "--socket", "a"}, 2, "post_32 takes NAME VALUE"},
        {{"connect", "--socket", "/nonexistent/s", "--wait", "0"}, 3, "start the simulated cabinet"},
        {{"connect", "--socket", std::string(200, 'x')}, 3, "characters; choose another"},
        {{"connect", "--listen", "/nonexistent/s"}, 3, "choose a path in a folder of yours"},
        {{"connect", "--socket", "a", "--record", "/nonexistent/r"}, 3, "recording /nonexistent/r"},
        {{"trace", "/nonexistent/r"}, 3, "file /nonexistent/r"},
        {{"trace", "/dev/null"}, 3, "there is nothing in it"},
        {{"serve", "/nonexistent", "--socket", "a", "--wait", "0"}, 3, "a"},
    };
    for (const WrongCall &call : calls) {
        Ended ended = host(call.words);
        EXPECT_EQ(ended.code, call.code) << testing::PrintToString(call.words);
        EXPECT_THAT(ended.err, HasSubstr(call.error)) << testing::PrintToString(call.words);
    }
}

TEST_F(Commands, ArgumentsThatDoNotFitAreWrongCalls)
{
    serve();
    EXPECT_THAT(run({"query", "path-exists", "relative"}).err, HasSubstr("is no absolute path"));
    EXPECT_EQ(run({"query", "path-exists", "/with/"}).code, 2);
    EXPECT_EQ(run({"query", "plugin-size", "0"}).code, 2);
    EXPECT_EQ(run({"query", "plugin-size", "-1"}).code, 2);
    EXPECT_EQ(run({"query", "plugin-size", "4294967296"}).code, 2);
    EXPECT_EQ(run({"query", "plugin-size", "12x"}).code, 2);
    EXPECT_EQ(run({"query", "decipher", "123"}).code, 2);
    EXPECT_EQ(run({"query", "decipher", "xx"}).code, 2);
    EXPECT_EQ(run({"post", "notify_27", "00"}).code, 2);
    EXPECT_EQ(run({"post", "transfer_data", scratch.at("nothing")}).code, 3);
    EXPECT_EQ(run({"send-file", scratch.at("nothing"), "remote"}).code, 3);
    EXPECT_EQ(run({"update", scratch.at("nothing")}).code, 3);
    EXPECT_EQ(server->stop().code, 0);
}

TEST(CommandLine, HasHelpForEveryCommand)
{
    Ended help = host({"--help"});
    EXPECT_EQ(help.code, 0);
    EXPECT_THAT(help.out, HasSubstr("Exit codes: 0 done; 1 the other end"));
    for (const char *command :
         {"connect", "update", "send-file", "test-pattern", "query", "post", "serve", "trace", "catalogue"}) {
        EXPECT_THAT(help.out, HasSubstr(std::string("\n  ") + command + " "));
        Ended ended = host({command, "--help"});
        EXPECT_EQ(ended.code, 0) << command;
        EXPECT_THAT(ended.out, HasSubstr("Usage: qel-host " + std::string(command))) << command;
    }
    EXPECT_THAT(host({"query", "--help"}).out, HasSubstr("  item-size VALUE VALUE2 [NAME]\n"));
    EXPECT_THAT(host({"post", "--help"}).out, HasSubstr("  post_19 NAME VALUE RECORD\n"));
}

TEST_F(Commands, APathThatSomethingElseUsesIsNotTaken)
{
    put_file(socket, "a file");
    Ended ended = host({"serve", root, "--listen", socket});
    EXPECT_EQ(ended.code, 3);
    EXPECT_THAT(ended.err, HasSubstr("Address already in use"));
    EXPECT_EQ(content_of(socket), "a file");
}

TEST_F(Commands, ASocketThatWasLeftBehindIsReplaced)
{
    {
        ScriptedPeer gone(socket);
    }
    ASSERT_TRUE(std::filesystem::exists(socket));
    serve();
    EXPECT_EQ(run({"query", "info"}).code, 0);
}
