// The commands that ask and send, each as a process of its own, against another qel-host on a socket.

#include <sys/stat.h>

#include <chrono>

#include "commands_fixture.h"

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::StartsWith;

static const char *const record_hex = "000102030405060708090a0b0c0d0e0f10111213";

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
