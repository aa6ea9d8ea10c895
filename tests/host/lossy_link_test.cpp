// Two qel-hosts with a bad link between them, on a real clock: what arrives is right, what does not arrive is
// reported, and every packet is accounted for.

#include <gmock/gmock.h>

#include <filesystem>
#include <regex>

#include "support.h"

namespace
{

/// The numbers of a line of counts, in its order.
std::vector<unsigned> numbers_in(const std::string &text, const std::string &line_start)
{
    size_t begin = text.rfind(line_start);
    if (begin == std::string::npos)
        return std::vector<unsigned>(12);
    std::string line = text.substr(begin, text.find('\n', begin) - begin);
    static const std::regex number("[0-9]+");
    std::vector<unsigned> numbers;
    for (std::sregex_iterator match(line.begin(), line.end(), number), end; match != end; ++match)
        numbers.push_back(static_cast<unsigned>(std::stoul(match->str())));
    return numbers;
}

/// The counts at the end of qel-host, and of the relay.
enum {
    packets_sent,
    packets_received,
    messages_sent,
    messages_received,
    resent,
    by_crc,
    incomplete,
    duplicates
};
enum { passed, dropped, damaged, repeated, cut, swapped, held };

/// A command of qel-host against one that serves, with a bad link between them. Several run side by side,
/// because most of the time they wait.
struct Exchange {
    ScratchFolder scratch;
    std::unique_ptr<Process> server, client, relay;
    Ended client_end;
    std::vector<unsigned> client_counts, server_counts, relay_counts;
    std::string server_out;

    void start(unsigned seed, const std::vector<std::string> &rates, std::vector<std::string> words)
    {
        std::filesystem::create_directory(scratch.at("root"));
        std::string server_socket = scratch.at("server"), client_socket = scratch.at("client");
        server = std::make_unique<Process>(
            host_words({"serve", scratch.at("root"), "--listen", server_socket, "--no-pacing", "--once"}));
        words.insert(words.end(), {"--listen", client_socket, "--no-pacing"});
        client = std::make_unique<Process>(host_words(words));
        std::vector<std::string> relay_words = {LOSSY_RELAY, client_socket, server_socket, "--seed",
                                                std::to_string(seed)};
        relay_words.insert(relay_words.end(), rates.begin(), rates.end());
        relay = std::make_unique<Process>(relay_words);
    }

    void end()
    {
        client_end = client->end(50);
        relay_counts = numbers_in(relay->end().out, "relay:");
        Ended served = server->end();
        client_counts = numbers_in(client_end.err, "link:");
        server_counts = numbers_in(served.err, "link:");
        server_out = served.out;
    }
};

const unsigned seeds = 4;

/// Every packet that an end sent was passed, dropped or is still held; every one passed was received.
void expect_packets_accounted_for(const Exchange &exchange)
{
    const auto &relay = exchange.relay_counts;
    EXPECT_EQ(exchange.client_counts[packets_sent] + exchange.server_counts[packets_sent],
              relay[passed] - relay[repeated] + relay[dropped] + relay[held]);
    EXPECT_EQ(exchange.client_counts[packets_received] + exchange.server_counts[packets_received],
              relay[passed]);
}

} // namespace

TEST(LossyLink, AFileArrivesWhole)
{
    Exchange exchanges[seeds];
    for (unsigned seed = 0; seed < seeds; seed++) {
        put_file(exchanges[seed].scratch.at("local"), noise(12000, seed));
        exchanges[seed].start(seed, {"--drop", "30", "--damage", "20", "--repeat", "20", "--swap", "10"},
                              {"send-file", "--chunk", "400", exchanges[seed].scratch.at("local"), "remote"});
    }
    unsigned resent_in_all = 0;
    for (unsigned seed = 0; seed < seeds; seed++) {
        Exchange &exchange = exchanges[seed];
        exchange.end();
        EXPECT_EQ(exchange.client_end.code, 0) << exchange.client_end.err;
        EXPECT_TRUE(content_of(exchange.scratch.at("root/remote")) == noise(12000, seed));
        expect_packets_accounted_for(exchange);
        // 30 pieces, begin and end; what came twice was seen to be a duplicate.
        EXPECT_EQ(exchange.client_counts[messages_sent], 32u);
        EXPECT_EQ(exchange.server_counts[messages_received], 32 + exchange.server_counts[duplicates]);
        resent_in_all += exchange.client_counts[resent];
    }
    EXPECT_GT(resent_in_all, 0u) << "the link was not bad enough to prove anything";
}

TEST(LossyLink, WhatIsConfirmedHasArrived)
{
    const unsigned patterns = 8;
    Exchange exchanges[seeds];
    for (unsigned seed = 0; seed < seeds; seed++)
        exchanges[seed].start(seed, {"--drop", "10", "--damage", "10", "--repeat", "10", "--swap", "5"},
                              {"test-pattern", "--sequenced", "--count", std::to_string(patterns)});
    for (Exchange &exchange : exchanges) {
        exchange.end();
        expect_packets_accounted_for(exchange);
        unsigned seen = 0;
        for (size_t at = 0;
             (at = exchange.server_out.find("test_pattern_sequenced", at)) != std::string::npos; at++)
            seen++;
        std::vector<unsigned> told = numbers_in(exchange.client_end.out, "test patterns:");
        ASSERT_EQ(told.size(), 2u) << exchange.client_end.err;
        EXPECT_EQ(told[0], patterns);
        EXPECT_GE(seen, told[1]);
        EXPECT_EQ(exchange.client_end.code, told[1] == patterns ? 0 : 1);
    }
}

TEST(LossyLink, AnUpdaterThatIsDamagedOnTheWayIsNotTaken)
{
    Exchange exchange;
    put_file(exchange.scratch.at("updater"), noise(20000, 1));
    exchange.start(1, {"--damage", "100"}, {"update", "--no-announce", exchange.scratch.at("updater")});
    exchange.end();
    EXPECT_EQ(exchange.client_end.code, 1);
    EXPECT_THAT(exchange.client_end.err,
                testing::HasSubstr("the loader still answers, so it did not get the updater whole"));
    EXPECT_FALSE(std::filesystem::exists(exchange.scratch.at("root/updater")));
    EXPECT_GT(exchange.server_counts[by_crc] + exchange.server_counts[incomplete], 0u);
}
