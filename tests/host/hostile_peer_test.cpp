// Peers that flood, lie about lengths, send half messages, replay and answer with something else. qel-host
// must neither hang nor be stopped by a check of the libraries (exit code 4), and must write nothing.

#include <gmock/gmock.h>

#include <filesystem>
#include <random>

#include "qel_tolbrin/qel_comms.h"
#include "support.h"

using testing::HasSubstr;

namespace
{

std::string number32(uint32_t value)
{
    std::string result;
    for (int shift = 0; shift < 32; shift += 8)
        result += static_cast<char>(value >> shift & 0xFF);
    return result;
}

/// The packets of a message, with a right CRC.
std::vector<std::string> packets_of(const std::string &message)
{
    auto size = static_cast<uint32_t>(message.size());
    uint16_t crc = qel_crc16(message.data(), static_cast<int>(size));
    std::string head = {static_cast<char>(size >> 24), static_cast<char>(size >> 16),
                        static_cast<char>(size >> 8),  static_cast<char>(size),
                        static_cast<char>(crc >> 8),   static_cast<char>(crc)};
    std::vector<std::string> packets = {head + message.substr(0, 29)};
    for (size_t at = 29; at < message.size(); at += 34)
        packets.push_back("\x80" + message.substr(at, 34));
    return packets;
}

struct HostilePeer : testing::Test {
    ScratchFolder scratch;
    std::string socket = scratch.at("socket");
    ScriptedPeer peer{socket};

    std::vector<std::string> call(std::vector<std::string> words)
    {
        words.insert(words.end(), {"--socket", socket, "--no-pacing"});
        return host_words(words);
    }

    void send_message(const std::string &message)
    {
        for (const std::string &packet : packets_of(message))
            peer.send(packet);
    }

    /// Receives a query and confirms it.
    void confirm_query()
    {
        std::string first = peer.receive();
        ASSERT_GE(first.size(), 18u);
        int left = static_cast<uint8_t>(first[2]) * 256 + static_cast<uint8_t>(first[3]) - 29;
        for (; left > 0; left -= 34)
            peer.receive();
        send_message(bytes("0f 00 00 00 0c 00 00 00") + first[14] + bytes("00 00 00"));
    }

    /// Asks `query`, answers with `message`, and hangs up after the answer.
    Ended answer(const std::vector<std::string> &query, const std::string &message)
    {
        Process asking(call(query));
        peer.accept();
        confirm_query();
        send_message(message);
        peer.hang_up();
        return asking.end();
    }
};

/// A message of a sequenced type with number 9.
std::string numbered(uint32_t type, uint32_t size, const std::string &body)
{
    return number32(type) + number32(size) + bytes("09 00 00 00") + body;
}

} // namespace

TEST_F(HostilePeer, AnswersThatBreakTheCatalogueAreIgnoredAndNamed)
{
    struct {
        std::vector<std::string> query;
        std::string answer;
        const char *error;
    } const cases[] = {
        {{"query", "info"},
         numbered(37, 24, bytes("01 00 00 00")),
         "it says that it has 24 bytes, there are 16"},
        {{"query", "info"}, numbered(37, 16, bytes("01 00 00 00")), "16 bytes instead of 24"},
        {{"query", "info"}, number32(37) + number32(24) + std::string(16, 0), "its number is 0"},
        {{"query", "info"}, number32(37) + number32(9) + "\x09", "too short for a number"},
        {{"query", "info"}, "\x25", "1 bytes, shorter than a header"},
        {{"query", "plugins"},
         numbered(14, 16, bytes("ff ff ff ff")),
         "the length of its plugins says 17179869180 bytes, there are 0"},
        {{"query", "plugins"},
         numbered(14, 16 + 400004, number32(100001) + std::string(400004, 1)),
         "an answer too long to take"},
        {{"query", "text"},
         numbered(47, 16 + 513, number32(513) + std::string(513, 'a')),
         "an answer too long to take"},
        {{"query", "text"},
         numbered(47, 20, bytes("ff ff ff ff") + "aaaa"),
         "the length of its text says 4294967295 bytes"},
        {{"query", "decipher", "0102"}, numbered(49, 19, number32(3) + "abc"), "an answer too long to take"},
        {{"query", "41"}, numbered(42, 12, ""), "12 bytes instead of 32"},
        {{"query", "23", "name"}, numbered(24, 16, "text"), "16 bytes instead of 112"},
    };
    for (const auto &test : cases) {
        Ended ended = answer(test.query, test.answer);
        EXPECT_EQ(ended.code, 1) << test.error << "\n" << ended.err;
        EXPECT_THAT(ended.err, HasSubstr(test.error));
    }
}

TEST_F(HostilePeer, TheLongestAnswersThatFitAreTaken)
{
    Ended ended =
        answer({"query", "text"}, numbered(47, 16 + 512, number32(512) + std::string(511, 'a') + '\0'));
    EXPECT_EQ(ended.code, 0) << ended.err;
    EXPECT_EQ(ended.out, '"' + std::string(511, 'a') + "\"\n");
    ended = answer({"query", "23", "name"}, numbered(24, 112, "").substr(0, 9) + std::string(103, 'b'));
    EXPECT_EQ(ended.code, 0) << ended.err;
    EXPECT_EQ(ended.out, '"' + std::string(100, 'b') + "\"\n")
        << "a text without its NUL ends with its field";
}

TEST_F(HostilePeer, TextWithControlCharactersDoesNotReachTheTerminal)
{
    Ended ended = answer({"query", "text"}, numbered(47, 16 + 6, number32(6) + "\x1b[2J\x07" + '\0'));
    EXPECT_EQ(ended.out, "\"\\x1b[2J\\x07\"\n");
}

TEST_F(HostilePeer, PacketsThatBreakTheRulesOfTheLinkAreIgnoredAndNamed)
{
    struct {
        std::string packet;
        const char *error;
    } const cases[] = {
        {bytes("7f ff ff ff 00 00 61"), "a message longer than can be taken"},
        {bytes("00 00 00 00 1d 0f 61"), "a message of length 0"},
        {bytes("00 00 00 08 00 00"), "a first packet without a byte of its message"},
        {std::string(36, '\x80'), "longer than packets of this link"},
        {std::string(64, '\0'), "longer than packets of this link"},
    };
    Process connect(call({"connect", "--seconds", "1"}));
    peer.accept();
    for (const auto &test : cases)
        peer.send(test.packet);
    Ended ended = connect.end();
    EXPECT_EQ(ended.code, 1);
    for (const auto &test : cases)
        EXPECT_THAT(ended.err, HasSubstr(test.error));
    EXPECT_THAT(ended.err, HasSubstr("5 refused"));
}

TEST_F(HostilePeer, ARecordOfMoreThan64BytesIsNoHostCommsSocket)
{
    Process connect(call({"connect", "--seconds", "5"}));
    peer.accept();
    peer.send(std::string(65, '\x80'));
    Ended ended = connect.end(3);
    EXPECT_EQ(ended.code, 1);
    EXPECT_THAT(ended.err, HasSubstr("is that a host-comms socket?"));
}

TEST_F(HostilePeer, APeerThatConfirmsAndNeverAnswersIsWaitedForFifteenSeconds)
{
    Process query(call({"query", "info"}));
    peer.accept();
    confirm_query();
    Ended ended = query.end(17);
    EXPECT_EQ(ended.code, 1);
    EXPECT_THAT(ended.err, HasSubstr("no answer to info"));
}

TEST_F(HostilePeer, AFloodDoesNotKeepACommandFromEnding)
{
    Process connect(call({"connect", "--seconds", "1"}));
    peer.accept();
    // Half messages, replays of a confirm, and messages that nobody wants.
    const std::string half = bytes("00 00 10 00 12 34") + std::string(29, 'x');
    for (int i = 0; i < 20000; i++) {
        peer.send(half);
        send_message(bytes("0f 00 00 00 0c 00 00 00 05 00 00 00"));
        send_message(numbered(18, 12, ""));
    }
    Ended ended = connect.end();
    EXPECT_EQ(ended.code, 1);
    EXPECT_THAT(ended.out, HasSubstr("answered 0 times"));
}

TEST_F(HostilePeer, NoiseStopsNoCommand)
{
    std::filesystem::create_directory(scratch.at("root"));
    for (unsigned seed = 1; seed <= 5; seed++) {
        Process serve(call({"serve", scratch.at("root"), "--seconds", "10"}));
        peer.accept();
        std::mt19937 random(seed);
        for (int i = 0; i < 3000; i++)
            peer.send(noise(1 + random() % 40, random()));
        // Then messages with a right CRC and noise inside, of every type.
        for (uint32_t i = 0; i < 1000; i++) {
            std::string body = noise(random() % 60, random());
            send_message(number32(i % 55) + number32(static_cast<uint32_t>(body.size()) + 12) +
                         bytes("07 00 00 00") + body);
        }
        peer.hang_up();
        Ended ended = serve.end();
        EXPECT_EQ(ended.code, 0) << ended.err.substr(ended.err.size() > 500 ? ended.err.size() - 500 : 0);
        EXPECT_THAT(ended.err, HasSubstr("refused\n"));
    }
}

TEST_F(HostilePeer, ServeSurvivesManyQueriesThatAreNeverConfirmed)
{
    std::filesystem::create_directory(scratch.at("root"));
    Process serve(call({"serve", scratch.at("root"), "--seconds", "30"}));
    peer.accept();
    for (uint8_t number = 1; number <= 200; number++)
        send_message(number32(36) + number32(12) + static_cast<char>(number) + bytes("00 00 00"));
    EXPECT_EQ(peer.receive().substr(6, 1), "\x0f") << "confirmed";
    peer.hang_up();
    Ended ended = serve.end(8);
    EXPECT_EQ(ended.code, 0);
}

TEST_F(HostilePeer, HalfMessagesOfAnyLengthThatCanBeTakenAreForgottenWithTheNext)
{
    Process connect(call({"connect", "--seconds", "1"}));
    peer.accept();
    for (const char *length : {"0f ff ff ff", "00 ff ff ff", "00 00 01 00"})
        peer.send(bytes(length) + bytes("12 34") + std::string(29, 'x'));
    send_message(bytes("0b 00 00 00 08 00 00 00"));
    Ended ended = connect.end();
    EXPECT_EQ(ended.code, 1) << "nothing was answered";
    EXPECT_THAT(ended.out, HasSubstr("notify_11"));
    EXPECT_THAT(ended.err, HasSubstr("3 incomplete"));
    EXPECT_THAT(ended.err, HasSubstr("0 refused"));
}

TEST_F(HostilePeer, RepeatedMessagesAreConfirmedEachTimeAndCountOnce)
{
    std::filesystem::create_directory(scratch.at("root"));
    Process serve(call({"serve", scratch.at("root"), "--seconds", "10"}));
    peer.accept();
    for (int i = 0; i < 100; i++)
        send_message(numbered(34, 12, ""));
    for (int i = 0; i < 100; i++)
        EXPECT_EQ(peer.receive().substr(6), bytes("0f 00 00 00 0c 00 00 00 09 00 00 00"));
    peer.hang_up();
    Ended ended = serve.end();
    EXPECT_EQ(ended.code, 0);
    EXPECT_THAT(ended.err, HasSubstr("99 duplicates"));
}

namespace
{

/// The peer of a qel-host that serves, as it sends files.
struct HostileNames : HostilePeer {
    uint8_t number = 1;

    void send_block(uint32_t type, const std::string &block)
    {
        const auto size = static_cast<uint32_t>(block.size());
        send_message(number32(type) + number32(size + 16) + static_cast<char>(number++) + bytes("00 00 00") +
                     number32(size) + block);
        peer.receive(); // its confirm
    }
    void send_file(const std::string &path)
    {
        send_block(7, path + '\0');
        send_block(8, "content");
        send_message(number32(9) + number32(12) + static_cast<char>(number++) + bytes("00 00 00"));
        peer.receive();
    }
};

} // namespace

TEST_F(HostileNames, OfFilesLeadNowhereElseAndUpsetNoTerminal)
{
    std::filesystem::create_directory(scratch.at("root"));
    std::filesystem::create_directory_symlink(scratch.path, scratch.at("root/link"));
    Process serve(call({"serve", scratch.at("root"), "--seconds", "20"}));
    peer.accept();
    for (const std::string &path :
         {std::string("../outside"), std::string("/../outside"), std::string("a/../../outside"),
          std::string("link/outside"), std::string(""), std::string("."), std::string(300, 'n'),
          std::string(5000, 'p'), "bell\x07" + std::string("\x1b[2J"), std::string("good")})
        send_file(path);
    peer.hang_up();
    Ended ended = serve.end();
    EXPECT_EQ(ended.code, 0);
    EXPECT_FALSE(std::filesystem::exists(scratch.at("outside")));
    EXPECT_EQ(content_of(scratch.at("root/good")), "content");
    EXPECT_EQ(content_of(scratch.at("root/bell\x07\x1b[2J")), "content");
    EXPECT_EQ((ended.out + ended.err).find_first_of("\x07\x1b"), std::string::npos);
    for (const char *problem :
         {"\"..\" is refused", "Not a directory", "no name", "File name too long", "too long"})
        EXPECT_THAT(ended.err, HasSubstr(problem));
}

TEST_F(HostileNames, InAFolderThatTakesNoFilesAreReportedAndServingGoesOn)
{
    Process serve(call({"serve", "/proc", "--seconds", "20"}));
    peer.accept();
    send_file("file");
    send_message(bytes("05 00 00 00 0c 00 00 00 2a 00 00 00"));
    EXPECT_EQ(peer.receive().substr(6), bytes("26 00 00 00 0c 00 00 00 2a 00 00 00"));
    peer.hang_up();
    Ended ended = serve.end();
    EXPECT_EQ(ended.code, 0);
    EXPECT_THAT(ended.err, HasSubstr("error: file \"file\": "));
    EXPECT_THAT(ended.err, HasSubstr("no file has begun"));
}
