// The queries that keep an answer of any length for their caller: a text, and deciphered bytes.

#include "support/sysmsg_fixture.h"

#include <errno.h>
#include <gmock/gmock.h>

#include <optional>

using QueryText = Query;
using QueryDecipher = Query;

// ---- Text ----

// The answer may fill its 528 bytes with text; the NUL that it counts is then the buffer's byte behind it.
// Without its NUL, of which only the last byte counts, or with one behind the buffer, it is none.
TEST_F(QueryText, MayFillTheBufferAndEndsInIt)
{
    const std::pair<const char *, std::optional<std::string>> cases[] = {
        {"11 00*3 09 00*3 01 00*4", ""},
        {"10 02 00 00 09 00*3 00 02 00 00 74*511 00", std::string(511, 't')},
        {"10 02 00 00 09 00*3 01 02 00 00 74*512", std::string(512, 't')},
        {"10 00*3 09 00*3 00*4", std::nullopt},
        {"15 00*3 09 00*3 05 00*3 'textX'", std::nullopt},
        {"15 00*3 09 00*3 05 00*3 'te' 00 'tX'", std::nullopt},
        {"11 00*3 09 00*3 02 02 00 00 00", std::nullopt},
        {"11 00*3 09 00*3 01 00 01 00 00", std::nullopt},
        {"11 00*3 09 00*3 FF FF FF 7F 00", std::nullopt},
        {"11 00*3 09 00*3 F1 FF FF FF 00", std::nullopt},
        {"11 00*3 09 00*3 FF FF FF FF 00", std::nullopt},
    };
    for (const auto &[answer, wanted] : cases) {
        qel_sysmsg_forget_sequence();
        peer.answers("2F 00 00 00 " + std::string(answer));
        const char *text = qel_sysmsg_get_text(&peer.con);
        EXPECT_EQ(text ? std::optional<std::string>(text) : std::nullopt, wanted) << answer;
    }
}

TEST_F(QueryText, StopsOnALongerAnswer)
{
    peer.answers("2F 00 00 00 11 02 00 00 09 00*3 01 02 00 00 74*512 00"); // 529 bytes
    EXPECT_STOPS_ON("sysmsg->msg_size <= wait_buf_size", sysmsg_unit, qel_sysmsg_get_text(&peer.con));
}

TEST_F(QueryText, StopsInTheSendWithoutMemoryForTheAnswer)
{
    peer.kernel.watches_memory = 1;
    peer.kernel.fail("realloc", ENOMEM);
    EXPECT_STOPS_ON("buf", sysmsg_unit, qel_sysmsg_get_text(&peer.con));
    EXPECT_TRUE(peer.sent.empty());
}

TEST_F(QueryText, StaysUntilTheNextOne)
{
    peer.answers("2F 00 00 00 15 00 00 00 09 00*3 05 00 00 00 'text' 00");
    const char *first = qel_sysmsg_get_text(&peer.con);
    peer.answers("2F 00 00 00 15 00 00 00 0A 00*3 05 00 00 00 'next' 00");
    EXPECT_EQ(qel_sysmsg_get_text(&peer.con), first);
    EXPECT_STREQ(first, "next");
}

TEST_F(QueryText, NeedsAConnection)
{
    peer.kernel.watches_memory = 1;
    EXPECT_STOPS_ON("con", sysmsg_unit, qel_sysmsg_get_text(nullptr));
    EXPECT_STOPS_ON("con", sysmsg_unit, qel_sysmsg_reply_text(nullptr, "text"));
    EXPECT_EQ(peer.kernel.count("realloc") + peer.kernel.count("malloc"), 0); // at once
}

// ---- Decipher ----

TEST_F(QueryDecipher, FailsOnAnAnswerOfLength0)
{
    peer.answers("31 00 00 00 10 00 00 00 09 00*3 00 00 00 00");
    const void *plain = "x";
    uint32_t length = 99;
    EXPECT_EQ(qel_sysmsg_decipher(&peer.con, "XYZ", 3, &plain, &length), 0);
    EXPECT_EQ(plain, nullptr);
    EXPECT_EQ(length, 0U);
}

TEST_F(QueryDecipher, FailsOnAFirstAnswerWithoutALength)
{
    // What the answer does not fill of a new buffer is zero.
    peer.answers("31 00 00 00 0C 00 00 00 09 00*3");
    const void *plain;
    uint32_t length;
    EXPECT_EQ(qel_sysmsg_decipher(&peer.con, "XYZ", 3, &plain, &length), 0);
}

TEST_F(QueryDecipher, KeepsWhatItsBufferHeldWhenItGrows)
{
    const void *plain;
    uint32_t length;
    peer.answers("31 00 00 00 13 00 00 00 09 00*3 03 00 00 00 'abc'");
    EXPECT_EQ(qel_sysmsg_decipher(&peer.con, "XYZ", 3, &plain, &length), 1);
    // An answer without a length leaves that of the one before.
    peer.answers("31 00 00 00 0C 00 00 00 0A 00*3");
    EXPECT_EQ(qel_sysmsg_decipher(&peer.con, std::string(300, 'X').data(), 300, &plain, &length), 1);
    EXPECT_EQ(hex_of(plain, length), hex("'abc'"));
}

TEST_F(QueryDecipher, KeepsNoMemoryButItsBuffer)
{
    peer.answers("31 00 00 00 13 00 00 00 09 00*3 03 00 00 00 'abc'");
    peer.kernel.watches_memory = 1;
    const void *plain;
    uint32_t length;
    EXPECT_EQ(qel_sysmsg_decipher(&peer.con, "XYZ", 3, &plain, &length), 1);
    peer.on_send = nullptr;
    EXPECT_EQ(qel_sysmsg_decipher(&peer.con, "XYZ", 3, &plain, &length), 0);
    EXPECT_EQ(peer.kernel.count("malloc"), 2);
    EXPECT_EQ(peer.kernel.blocks.size(), static_cast<size_t>(peer.kernel.count("realloc")));
}

TEST_F(QueryDecipher, DoesNotExamineTheLengthThatThePeerGives)
{
    peer.answers("31 00 00 00 13 00 00 00 09 00*3 FF 00 00 00 'abc'");
    const void *plain;
    uint32_t length;
    EXPECT_EQ(qel_sysmsg_decipher(&peer.con, "XYZ", 3, &plain, &length), 1);
    EXPECT_EQ(length, 255U);
    EXPECT_EQ(hex_of(plain, 3), hex("'abc'"));
}

TEST_F(QueryDecipher, StopsOnAnAnswerLongerThanTheQuestion)
{
    peer.answers("31 00 00 00 14 00 00 00 09 00*3 04 00 00 00 'abcd'");
    const void *plain;
    uint32_t length;
    EXPECT_STOPS_ON("sysmsg->msg_size <= wait_buf_size", sysmsg_unit,
                    qel_sysmsg_decipher(&peer.con, "XYZ", 3, &plain, &length));
}

TEST_F(QueryDecipher, TakesQuestionsOfAnyLengthInTurnAndGrowsItsBufferOnlyForLongerAnswers)
{
    peer.kernel.watches_memory = 1;
    for (const int size : {1, 111, 112, 113, 240, 20000, 5}) {
        qel_sysmsg_forget_sequence();
        const Bytes cipher(static_cast<size_t>(size), 0x43);
        peer.on_send = [&](int, const Bytes &sent) {
            if (sent[0] != 48)
                return;
            peer.delivers(0, confirm_of(sent));
            Bytes answer = sent;
            answer[0] = 49;
            peer.delivers(0, answer);
        };
        const void *plain;
        uint32_t length;
        EXPECT_EQ(qel_sysmsg_decipher(&peer.con, cipher.data(), size, &plain, &length), 1);
        EXPECT_EQ(hex_of(plain, length), hex_of(cipher));
    }
    EXPECT_THAT(peer.kernel.calls("realloc"),
                testing::ElementsAre("realloc 128", "realloc 256", "realloc 20096"));
}

TEST_F(QueryDecipher, NeedsEverything)
{
    const void *plain = "untouched";
    uint32_t length = 99;
    EXPECT_STOPS_ON("con", sysmsg_unit, qel_sysmsg_decipher(nullptr, nullptr, 0, nullptr, nullptr));
    EXPECT_STOPS_ON("cipher", sysmsg_unit, qel_sysmsg_decipher(&peer.con, nullptr, 0, nullptr, nullptr));
    EXPECT_STOPS_ON("cipher_len > 0", sysmsg_unit, qel_sysmsg_decipher(&peer.con, "x", 0, nullptr, nullptr));
    EXPECT_STOPS_ON("cipher_len > 0", sysmsg_unit, qel_sysmsg_decipher(&peer.con, "x", -1, &plain, &length));
    EXPECT_STOPS_ON("plain", sysmsg_unit, qel_sysmsg_decipher(&peer.con, "x", 1, nullptr, nullptr));
    EXPECT_STOPS_ON("plain_len", sysmsg_unit, qel_sysmsg_decipher(&peer.con, "x", 1, &plain, nullptr));
    EXPECT_STREQ(static_cast<const char *>(plain), "untouched");
    EXPECT_EQ(length, 99U);
}
