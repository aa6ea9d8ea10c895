// Every command of qel-host, as a process of its own, against another qel-host on a socket.

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>

#include "support.h"

using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace
{

const char *const record_hex = "000102030405060708090a0b0c0d0e0f10111213";

/// Another qel-host that serves ROOT, and commands towards it.
struct Commands : testing::Test {
    ScratchFolder scratch;
    std::string socket = scratch.at("socket");
    std::string root = scratch.at("root");
    std::unique_ptr<Process> server;

    Commands()
    {
        std::filesystem::create_directory(root);
    }

    void serve(const std::vector<std::string> &options = {})
    {
        std::vector<std::string> words = {"serve", root, "--listen", socket, "--no-pacing"};
        words.insert(words.end(), options.begin(), options.end());
        server = std::make_unique<Process>(host_words(words));
        ASSERT_TRUE(server->says("serving"));
    }

    Ended run(std::vector<std::string> words)
    {
        words.insert(words.end(), {"--socket", socket, "--no-pacing"});
        return host(words);
    }

    /// What a query prints.
    std::string answer(std::vector<std::string> words)
    {
        words.insert(words.begin(), "query");
        Ended ended = run(words);
        EXPECT_EQ(ended.code, 0) << ended.err;
        return ended.out;
    }
};

} // namespace

// ---- Queries ----

TEST_F(Commands, QueryPluginsListsTheIdsOfTheFolder)
{
    put_file(root + "/plugins/12", "");
    put_file(root + "/plugins/3", "abc");
    serve();
    EXPECT_EQ(answer({"plugins"}), "3\n12\n");
    EXPECT_EQ(answer({"plugin-size", "3"}), "3\n");
    EXPECT_EQ(answer({"plugin-size", "4"}), "0\n");
}

TEST_F(Commands, QueryPathExistsTellsYesAndNo)
{
    put_file(root + "/storage/file", "");
    serve();
    EXPECT_EQ(answer({"path-exists", "/storage/file"}), "1\n");
    EXPECT_EQ(answer({"path-exists", "/storage/other"}), "0\n");
}

TEST_F(Commands, QueryItemSizeCarriesValuesAndName)
{
    put_file(root + "/items/thing", "12345");
    serve();
    EXPECT_EQ(answer({"item-size", "7", "0x10", "thing"}), "5\n");
    EXPECT_EQ(answer({"item-size", "7", "8"}), "0\n");
    server->stop();
    EXPECT_THAT(server->out(), HasSubstr("value=7 name=\"thing\" value2=16"));
}

TEST_F(Commands, QueriesWithAnswersFromOptions)
{
    serve({"--info", "1", "2", "3", "--values", "4", "5000000000", "--answer", "the answer", "--text",
           "a text"});
    EXPECT_EQ(answer({"info"}), "1 2 3\n");
    EXPECT_EQ(answer({"41"}), "4 5000000000\n");
    EXPECT_EQ(answer({"23", "name", "one", "two"}), "\"the answer\"\n");
    EXPECT_EQ(answer({"text"}), "\"a text\"\n");
    EXPECT_EQ(answer({"decipher", "00:ff 10"}), "00ff10\n");
    server->stop();
    EXPECT_THAT(server->out(), HasSubstr("name=\"name\" items=[\"one\",\"two\"] count=2"));
}

TEST_F(Commands, AnEmptyAnswerIsNoAnswer)
{
    serve();
    Ended ended = run({"query", "text"});
    EXPECT_EQ(ended.code, 1);
    EXPECT_THAT(ended.err, HasSubstr("no answer to text, or an empty one"));
}

// ---- Sending ----

TEST_F(Commands, ConnectShowsAnswersAndRoundTrips)
{
    serve();
    Ended ended = run({"connect", "--seconds", "1.5"});
    EXPECT_EQ(ended.code, 0) << ended.err;
    EXPECT_THAT(ended.out, ContainsRegex("answer to 1 after [0-9.]+ ms\nanswer to 2 after [0-9.]+ ms\n"
                                         "announced 2 times, answered 2 times, round trip "));
}

TEST_F(Commands, ConnectShowsNoticesAndAnswersThatWereNotAsked)
{
    ScriptedPeer loader(socket);
    Process connect(host_words({"connect", "--socket", socket, "--seconds", "0.5"}));
    loader.accept();
    loader.send(bytes("00 00 00 08 b2 55 0b 00 00 00 08 00 00 00"));
    loader.send(bytes("00 00 00 0c 4c cb 26 00 00 00 0c 00 00 00 00 00 00 80"));
    Ended ended = connect.end();
    EXPECT_EQ(ended.code, 1) << "its own announcement was not answered";
    EXPECT_THAT(ended.out,
                StartsWith("notify_11 (11), 8 bytes\nanswer to 2147483648, which was not asked\n"));
}

TEST_F(Commands, ServeSendsANoticeEachSecondInWhichNobodyIsAnnounced)
{
    serve({"--notices", "--once"});
    Process watcher(host_words({"serve", root, "--socket", socket, "--seconds", "2.5"}));
    Ended ended = watcher.end();
    EXPECT_EQ(ended.code, 0) << ended.err;
    EXPECT_EQ(ended.out, "notify_11 (11), 8 bytes\nnotify_11 (11), 8 bytes\n");
}

TEST_F(Commands, SendFilePutsTheFileInItsPlace)
{
    const std::string content = noise(50000, 1); // three pieces
    put_file(scratch.at("local"), content);
    serve();
    Ended ended = run({"send-file", scratch.at("local"), "/new/folder/remote"});
    EXPECT_EQ(ended.code, 0) << ended.err;
    EXPECT_THAT(ended.out, ContainsRegex("sent .*/local: 50000 bytes, [0-9.]+ kB/s"));
    EXPECT_THAT(ended.err, HasSubstr("messages 5 sent, 5 received; 0 resent"));
    EXPECT_TRUE(
        server->says("received \"/new/folder/remote\", 50000 bytes")); // confirmed before it is placed
    EXPECT_TRUE(content_of(root + "/new/folder/remote") == content);
}

TEST_F(Commands, SendFileSendsAnEmptyFileAndSmallPieces)
{
    put_file(scratch.at("empty"), "");
    put_file(scratch.at("ten"), "0123456789");
    serve();
    EXPECT_EQ(run({"send-file", scratch.at("empty"), "empty"}).code, 0);
    EXPECT_TRUE(server->says("received \"empty\", 0 bytes"));
    EXPECT_TRUE(std::filesystem::exists(root + "/empty"));
    Ended ended = run({"send-file", "--chunk", "3", scratch.at("ten"), "ten"});
    EXPECT_THAT(ended.err, HasSubstr("messages 6 sent")) << "begin, 4 pieces, end";
    EXPECT_TRUE(server->says("received \"ten\", 10 bytes"));
    EXPECT_EQ(content_of(root + "/ten"), "0123456789");
}

TEST_F(Commands, SendFileOutOfTheFolderWritesNothing)
{
    put_file(scratch.at("local"), "x");
    serve();
    EXPECT_EQ(run({"send-file", scratch.at("local"), "../remote"}).code, 0)
        << "confirmed before it is looked at";
    Ended ended = server->stop();
    EXPECT_THAT(ended.err, HasSubstr("error: file \"../remote\": \"..\" is refused"));
    EXPECT_FALSE(std::filesystem::exists(scratch.at("remote")));
}

TEST_F(Commands, UpdateWaitsForTheLoaderSendsAndSeesItGone)
{
    const std::string program = noise(30000, 2);
    put_file(scratch.at("updater"), program);
    serve();
    Ended ended = run({"update", scratch.at("updater")});
    EXPECT_EQ(ended.code, 0) << ended.err;
    EXPECT_THAT(ended.out, ContainsRegex("waiting for the loader\nthe loader answers\n"
                                         "updater sent: 30000 bytes in [0-9.]+ s, [0-9.]+ kB/s\n"
                                         "the loader has gone: the updater has taken its place\n"));
    EXPECT_THAT(ended.err, HasSubstr("updater: 100 %, 30012 of 30012 bytes"));
    EXPECT_TRUE(content_of(root + "/updater") == program);
    struct stat entry = {};
    stat((root + "/updater").c_str(), &entry);
    EXPECT_EQ(entry.st_mode & 07777, 0755u);
}

TEST_F(Commands, UpdateIsPacedUnlessToldOtherwise)
{
    put_file(scratch.at("updater"), std::string(1000, 'x')); // 30 packets
    serve();
    auto started = std::chrono::steady_clock::now();
    Ended ended =
        host({"update", "--no-announce", "--watch", "0", scratch.at("updater"), "--socket", socket});
    std::chrono::duration<double> took = std::chrono::steady_clock::now() - started;
    EXPECT_EQ(ended.code, 0) << ended.err;
    EXPECT_THAT(ended.err, HasSubstr("packets 30 sent"));
    EXPECT_GE(took.count(), 30 * 0.015);
    EXPECT_LT(took.count(), 10);
    EXPECT_TRUE(server->says("received \"updater\", 1000 bytes"));
}

TEST_F(Commands, UpdateWithoutALoaderEndsInTime)
{
    put_file(scratch.at("updater"), "x");
    ScriptedPeer silent(socket);
    Ended ended = run({"update", scratch.at("updater"), "--loader-wait", "0.3"});
    EXPECT_EQ(ended.code, 1);
    EXPECT_THAT(ended.err, HasSubstr("no loader answered; switch the cabinet to update mode"));
}

TEST_F(Commands, UpdateNoticesALoaderThatDidNotTakeIt)
{
    put_file(scratch.at("updater"), "x");
    ScriptedPeer loader(socket);
    Process update(
        host_words({"update", "--no-announce", scratch.at("updater"), "--socket", socket, "--no-pacing"}));
    loader.accept();
    EXPECT_EQ(loader.receive().substr(6), bytes("0a 00 00 00 0d 00 00 00 01 00 00 00 78"));
    EXPECT_EQ(loader.receive().substr(6), bytes("05 00 00 00 0c 00 00 00 00 00 00 80"));
    // A type-38 message with that value.
    loader.send(bytes("00 00 00 0c 4c cb 26 00 00 00 0c 00 00 00 00 00 00 80"));
    Ended ended = update.end();
    EXPECT_EQ(ended.code, 1);
    EXPECT_THAT(ended.err,
                HasSubstr("the loader still answers, so it did not get the updater whole; try again"));
}

TEST_F(Commands, TestPatternsGoOnCountingAndAreChecked)
{
    serve();
    EXPECT_THAT(run({"test-pattern", "--count", "2"}).out, StartsWith("test patterns: 2 sent\n"));
    EXPECT_EQ(run({"test-pattern", "--count", "2", "--sequenced"}).out,
              "test patterns: 2 sent, 2 confirmed\n");
    run({"test-pattern"});
    EXPECT_TRUE(server->says("the counters jump from 1554 to 1\n"));
    std::string out = server->stop().out;
    EXPECT_THAT(out, HasSubstr("test_pattern (16), 3120 bytes: counters=777 values 1..777\n"
                               "test_pattern (16), 3120 bytes: counters=777 values 778..1554\n"));
    EXPECT_THAT(
        out, HasSubstr("test_pattern_sequenced (17) number 3, 3124 bytes: counters=777 values 778..1554\n"));
    EXPECT_THAT(out, HasSubstr("counters=777 values 1..777\n  the counters jump from 1554 to 1\n"));
}

TEST_F(Commands, PostSendsEveryOtherMessage)
{
    put_file(scratch.at("block"), "abc");
    const std::vector<std::pair<std::vector<std::string>, std::string>> posts = {
        {{"transfer_begin", "7"}, "transfer_begin (1) number 2, 16 bytes: value=7"},
        {{"transfer_data", scratch.at("block")},
         "transfer_data (2) number 2, 19 bytes: block=3 bytes 61 62 63"},
        {{"transfer_end"}, "transfer_end (3) number 2, 12 bytes"},
        {{"connect", "7"}, "connect (5), 12 bytes: value=7"},
        {{"notify_11"}, "notify_11 (11), 8 bytes"},
        {{"notify_12"}, "notify_12 (12), 8 bytes"},
        {{"post_18", "name"}, "post_18 (18) number 2, 136 bytes: name=\"name\""},
        {{"post_19", "name", "7", record_hex},
         "post_19 (19) number 2, 136 bytes: name=\"name\" value=7 record=20 bytes 00 01"},
        {{"post_20", "name"}, "post_20 (20) number 2, 136 bytes: name=\"name\""},
        {{"post_21", "7"}, "post_21 (21) number 2, 16 bytes: value=7"},
        {{"post_22"}, "post_22 (22) number 2, 12 bytes"},
        {{"notify_26"}, "notify_26 (26), 32 bytes"},
        {{"notify_27", record_hex}, "notify_27 (27), 32 bytes: record=20 bytes 00 01"},
        {{"notify_30", "7"}, "notify_30 (30), 12 bytes: value=7"},
        {{"notify_31"}, "notify_31 (31), 8 bytes"},
        {{"post_32", "name", "7"}, "post_32 (32) number 2, 44 bytes: name=\"name\" value=7"},
        {{"post_33", "name"}, "post_33 (33) number 2, 40 bytes: name=\"name\""},
        {{"post_34"}, "post_34 (34) number 2, 12 bytes"},
        {{"post_45", "7"}, "post_45 (45) number 2, 24 bytes: value=7"},
    };
    serve();
    for (const auto &[words, line] : posts) {
        std::vector<std::string> call = words;
        call.insert(call.begin(), "post");
        Ended ended = run(call);
        EXPECT_EQ(ended.code, 0) << words[0] << ": " << ended.err;
        EXPECT_TRUE(server->says(line, 2)) << line << "\nin\n" << server->out();
    }
}

// ---- The link ----

TEST_F(Commands, CountsTheLinkAtTheEnd)
{
    serve();
    EXPECT_THAT(
        run({"query", "info"}).err,
        EndsWith(
            "link: packets 2 sent, 2 received; messages 2 sent, 2 received; 0 resent; dropped: 0 by CRC, "
            "0 incomplete, 0 duplicates, 0 unseen, 0 refused\n"));
}

TEST_F(Commands, RepeatsAMessageThatIsNotConfirmedThreeTimesInThreeSeconds)
{
    ScriptedPeer silent(socket);
    auto started = std::chrono::steady_clock::now();
    Process post(host_words({"post", "post_22", "--socket", socket, "--no-pacing"}));
    silent.accept();
    const std::string message = silent.receive();
    EXPECT_EQ(message.substr(6), bytes("16 00 00 00 0c 00 00 00 02 00 00 00"));
    EXPECT_EQ(silent.receive(), message);
    EXPECT_EQ(silent.receive(), message);
    Ended ended = post.end();
    std::chrono::duration<double> took = std::chrono::steady_clock::now() - started;
    EXPECT_EQ(ended.code, 1);
    EXPECT_THAT(ended.err, HasSubstr("post_22 was not confirmed; is the other end there?"));
    EXPECT_THAT(ended.err, HasSubstr("messages 1 sent, 0 received; 2 resent"));
    EXPECT_GE(took.count(), 3.0);
    EXPECT_LT(took.count(), 6.0);
}

TEST_F(Commands, AQueryIsAskedAsOftenAsTold)
{
    ScriptedPeer peer(socket);
    Process query(host_words({"query", "text", "--tries", "2", "--socket", socket, "--no-pacing"}));
    peer.accept();
    std::string first = peer.receive();
    ASSERT_EQ(first.substr(6), bytes("2e 00 00 00 0c 00 00 00 02 00 00 00"));
    peer.send(bytes("00 00 00 0c 46 56 0f 00 00 00 0c 00 00 00 02 00 00 00"));             // the confirm of 2
    peer.send(bytes("00 00 00 10 14 fc 2f 00 00 00 10 00 00 00 09 00 00 00 00 00 00 00")); // no text
    EXPECT_EQ(peer.receive().substr(6), bytes("0f 00 00 00 0c 00 00 00 09 00 00 00"));
    EXPECT_EQ(peer.receive().substr(6), bytes("2e 00 00 00 0c 00 00 00 03 00 00 00")) << "asked again";
}

TEST_F(Commands, ServesOnePeerAfterAnotherOrOne)
{
    serve({"--once"});
    EXPECT_EQ(run({"query", "info"}).code, 0);
    EXPECT_EQ(server->end().code, 0);
    EXPECT_FALSE(std::filesystem::exists(socket)) << "and takes its socket away";
}

TEST_F(Commands, AClientCanListenAndAServerConnect)
{
    Process query(host_words({"query", "info", "--listen", socket, "--no-pacing"}));
    Ended served = run({"serve", root, "--info", "7", "8", "9"});
    EXPECT_EQ(served.code, 0) << served.err;
    EXPECT_EQ(query.end().out, "7 8 9\n");
}

TEST_F(Commands, APeerThatHangsUpEndsTheCommandAtOnce)
{
    ScriptedPeer peer(socket);
    Process query(host_words({"query", "info", "--socket", socket, "--no-pacing"}));
    peer.accept();
    peer.receive();
    peer.hang_up();
    Ended ended = query.end(2);
    EXPECT_EQ(ended.code, 1);
    EXPECT_THAT(ended.err, HasSubstr("the other end has hung up"));
}

TEST_F(Commands, AnInterruptEndsEachCommandInAnOrderlyWay)
{
    serve();
    Process connect(host_words({"connect", "--socket", socket}));
    ASSERT_TRUE(connect.says("answer to 1"));
    Ended ended = connect.stop();
    EXPECT_EQ(ended.code, 0);
    EXPECT_THAT(ended.out, HasSubstr("announced 1 times, answered 1 times"));
    put_file(scratch.at("updater"), std::string(100000, 'x'));
    Process update(host_words({"update", scratch.at("updater"), "--socket", socket}));
    ASSERT_TRUE(update.says("the loader answers"));
    ended = update.stop();
    EXPECT_EQ(ended.code, 5);
    EXPECT_THAT(ended.err, HasSubstr("interrupted"));
    EXPECT_EQ(server->stop().code, 0);
}

TEST_F(Commands, EveryCommandCanRecordTheLink)
{
    serve();
    EXPECT_EQ(run({"query", "info", "--record", scratch.at("r.pcapng")}).code, 0);
    Ended trace = host({"trace", "--messages", scratch.at("r.pcapng")});
    EXPECT_EQ(trace.code, 0);
    EXPECT_THAT(trace.out,
                ContainsRegex("out  = get_info \\(36\\) number 2, 12 bytes \\(CRC right\\)\n.*"
                              "in   = confirmed \\(15\\), 12 bytes: sequence=2 \\(CRC right\\)\n.*"
                              "in   = info \\(37\\) number 2, 24 bytes: a=0 b=0 c=0 \\(CRC right\\)\n.*"
                              "out  = confirmed \\(15\\), 12 bytes: sequence=2 \\(CRC right\\)\n"
                              "4 packets, 4 messages; 0 dropped"));
}

// ---- A device node ----

TEST_F(Commands, ADeviceNodeThatIsNotThereIsNamed)
{
    Ended ended = host({"connect", "--device", "/nonexistent/node"});
    EXPECT_EQ(ended.code, 3);
    EXPECT_THAT(ended.err,
                HasSubstr("device /nonexistent/node: No such file or directory; is the board's driver "
                          "loaded"));
}

TEST_F(Commands, SendsThroughADeviceNodeByTheTransportOfTheBoard)
{
    // The null device takes every record and never has one.
    Ended ended = host({"connect", "--device", "/dev/null", "--seconds", "0.2"});
    EXPECT_EQ(ended.code, 1);
    EXPECT_THAT(ended.out, HasSubstr("announced 1 times, answered 0 times"));
    EXPECT_THAT(ended.err, HasSubstr("packets 1 sent, 0 received"));
}

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
