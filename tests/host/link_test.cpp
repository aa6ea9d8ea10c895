// What holds for the link of every command: counts, repetitions, peers that come and go, interrupts,
// recordings, and the device node.

#include <chrono>

#include "commands_fixture.h"
#include "qel_tolbrin/qel_comms.h"

using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;

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

// ---- A failed check of the libraries ----

TEST(StopDeathTest, SaysWhichCheckFailedAndEndsInsteadOfParking)
{
    EXPECT_EXIT(qel_comms_send(nullptr, nullptr, 1), testing::ExitedWithCode(4),
                "a check of the link's libraries failed: \"data\" at qel_tolbrin/qel_comms:[0-9]+\\. With "
                "--device, see whether the device is still there");
}
