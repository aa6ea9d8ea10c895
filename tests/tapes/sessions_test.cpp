// Long sessions on the whole link, in one process, without a new start between one exchange and the next.

#include "support/product_reset.h"
#include "support/query_cases.h"
#include "support/stops.h"
#include "tapes/golden.h"
#include "tapes/host.h"

#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

/// A link whose host confirms everything but the transmissions that `loses` names.
struct Session : testing::Test {
    Session()
    {
        EXPECT_TRUE(reset_product());
        link.con.recv = [](qel_sysmsg_con *, const void *message) {
            handed_on.push_back(static_cast<const uint8_t *>(message)[0]);
        };
        handed_on.clear();
        link.host.on_message = [this](const Bytes &message) { take(message); };
    }
    void take(const Bytes &message)
    {
        if (message[0] == 15) {
            confirmed.push_back(message[8]);
            return;
        }
        numbers.push_back(message[8]);
        if (loses && loses(numbers.size()))
            return;
        link.host.finds(1, confirm_of(message));
        if (!reply.empty()) {
            reply[8] = ++reply_number;
            link.host.finds(1, reply);
        }
    }
    /// The host sends a message of this type and number, which is polled for.
    void host_sends(uint8_t type, uint8_t number)
    {
        Bytes message = message_of(type, "00*4");
        message[8] = number;
        link.host.finds(1, message);
        qel_comms_poll(&link.comms);
    }
    int post()
    {
        return qel_sysmsg_post_22(&link.con);
    }

    const LeaksAllowed buffers_stay; ///< the link keeps them for the life of the process
    const Traces traces;
    Ground ground;
    Link link{ground};
    std::function<bool(size_t transmission)> loses;
    Bytes reply; ///< to each message that is confirmed
    uint8_t reply_number = 100;
    std::vector<int> numbers;   ///< of what the product sent
    std::vector<int> confirmed; ///< by the product
    inline static std::vector<int> handed_on;
};

} // namespace

TEST_F(Session, NumbersGoFrom2To255AndOnWith1)
{
    for (int i = 0; i < 600; ++i)
        ASSERT_EQ(post(), 1) << i;
    ASSERT_EQ(numbers.size(), 600U);
    EXPECT_EQ(numbers[0], 2);
    EXPECT_EQ(numbers[253], 255);
    EXPECT_EQ(numbers[254], 1);
    EXPECT_EQ(numbers[508], 255);
    EXPECT_EQ(numbers[509], 1);
    EXPECT_EQ(numbers[599], 91);
}

TEST_F(Session, NumbersOfTheHostWrapAsWell)
{
    for (int i = 0; i < 600; ++i)
        host_sends(22, static_cast<uint8_t>(1 + i % 255));
    EXPECT_EQ(handed_on.size(), 600U);
    EXPECT_EQ(confirmed.size(), 600U);
    EXPECT_EQ(confirmed[255], 1);
}

TEST_F(Session, BothEndsTakeTurnsOverTheWrap)
{
    for (int i = 0; i < 300; ++i) {
        ASSERT_EQ(post(), 1) << i;
        host_sends(22, static_cast<uint8_t>(numbers.back()));
    }
    EXPECT_EQ(handed_on.size(), 300U);
    EXPECT_EQ(numbers.back(), 46);
}

TEST_F(Session, LostConfirmsCostARepetitionEach)
{
    loses = [](size_t transmission) { return transmission % 3 == 1; };
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(post(), 1);
    EXPECT_THAT(numbers, ElementsAre(2, 2, 3, 4, 4, 5));
}

TEST_F(Session, ThreeLostConfirmsGiveUpAndTheNextMessageHasTheNextNumber)
{
    loses = [](size_t transmission) { return transmission <= 3; };
    EXPECT_EQ(post(), 0);
    EXPECT_EQ(post(), 1);
    EXPECT_THAT(numbers, ElementsAre(2, 2, 2, 3));
}

TEST_F(Session, ConfirmOfAMessageThatWasGivenUpDoesNotConfirmTheNext)
{
    loses = [](size_t transmission) { return transmission <= 3; };
    EXPECT_EQ(post(), 0);
    link.host.finds(1, message_of(15, "02 00*3"));
    EXPECT_EQ(post(), 1);
    EXPECT_THAT(numbers, ElementsAre(2, 2, 2, 3));
    EXPECT_THAT(handed_on, IsEmpty());
}

TEST_F(Session, ConfirmThatComesAfterTheEndIsHandedOn)
{
    loses = [](size_t) { return true; };
    EXPECT_EQ(post(), 0);
    host_sends(15, 2);
    EXPECT_THAT(handed_on, ElementsAre(15));
}

// The number is all that tells a repetition from a new message.
TEST_F(Session, HostThatStartsAnewIsNotHeardWhenItComesWithTheLastNumber)
{
    host_sends(22, 1);
    host_sends(21, 1);
    EXPECT_THAT(handed_on, ElementsAre(22));
    EXPECT_THAT(confirmed, ElementsAre(1, 1));
    host_sends(21, 2);
    host_sends(22, 1);
    EXPECT_THAT(handed_on, ElementsAre(22, 21, 22));
}

TEST_F(Session, HostThatStartsAnewIsHeardWhenTheNumberIsForgotten)
{
    host_sends(22, 1);
    qel_sysmsg_forget_sequence();
    host_sends(21, 1);
    EXPECT_THAT(handed_on, ElementsAre(22, 21));
}

TEST_F(Session, HostThatBreaksOffInAMessageIsHeardAgain)
{
    link.host.finds(1, message_of(22, "07 00*40"));
    link.host.looks.pop_back();
    qel_comms_poll(&link.comms);
    host_sends(22, 8);
    EXPECT_THAT(handed_on, ElementsAre(22));
    EXPECT_THAT(confirmed, ElementsAre(8));
}

TEST_F(Session, ReplyThatComesTooLateIsHandedOnAndTheNextQueryHasItsOwn)
{
    uint64_t size = 5;
    EXPECT_EQ(qel_sysmsg_get_plugin_size(&link.con, 1, &size), 0);
    EXPECT_EQ(size, 5U);
    host_sends(44, 50);
    EXPECT_THAT(handed_on, ElementsAre(44));
    reply = message_of(44, "00*4 01 00*3 09 00*7");
    EXPECT_EQ(qel_sysmsg_get_plugin_size(&link.con, 1, &size), 1);
    EXPECT_EQ(size, 9U);
}

// ---- A query that is answered, and the same query unanswered ----

TEST_F(Session, QueriesGiveNothingOldWhenTheSameIsUnanswered)
{
    for (const QueryCase &query : query_cases) {
        reply = message_of(query.answer_type, query.answer);
        EXPECT_EQ(query.ask(&link.con), query.answered) << query.name;
        reply.clear();
        EXPECT_EQ(query.ask(&link.con), query.unanswered) << query.name;
        loses = [](size_t) { return true; };
        EXPECT_EQ(query.ask(&link.con), query.unanswered) << query.name << " unconfirmed";
        loses = nullptr;
    }
}
