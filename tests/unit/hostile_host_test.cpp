// The update mode and a host that floods, lies about lengths, sends half messages, repeats itself and answers
// what nobody asked. The whole stack is real; the board's devices are lists of records and rows.

#include "support/comms_fixture.h"
#include "support/fake_kernel.h"
#include "support/link_model.h"

#include "qel_application_loader/update_mode.h"
#include "qel_tolbrin/qel_sysmsg.h"

#include <errno.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <deque>

using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace
{

const Bytes connect = bytes_of("05 00 00 00 0C 00 00 00 78 56 34 12");
const std::string answer = hex("00 00 00 0C 0D B9 26 00 00 00 0C 00 00 00 78 56 34 12");

} // namespace

struct HostileHost : testing::Test {
    HostileHost()
    {
        kernel.set_time(1000);
        kernel.on_open = [](const char *path, int, mode_t) { return strstr(path, "lcd") ? 501 : 500; };
        kernel.on_close = [](int) { return 0; };
        kernel.on_read = [this](int, void *buffer, size_t) { return read(buffer); };
        kernel.on_write = [this](int file, const void *bytes, size_t size) {
            (file == 500 ? sent : rows).push_back(hex_of(bytes, size));
            return static_cast<ssize_t>(size);
        };
        kernel.on_access = [this](const char *, int) {
            kernel.advance_usec(1000);
            errno = ENOENT;
            return records.empty() ? 0 : -1; // a stick ends the wait when all has been read
        };
    }

    ssize_t read(void *buffer)
    {
        // Some at a time, or one poll would take them all.
        if (records.empty() || ++reads % 10 == 0) {
            errno = EAGAIN;
            return -1;
        }
        const Bytes record = records.front();
        records.pop_front();
        std::copy(record.begin(), record.end(), static_cast<uint8_t *>(buffer));
        return static_cast<ssize_t>(record.size());
    }

    void host_sends(const Bytes &message)
    {
        for (const Bytes &packet : packets_of(message))
            records.push_back(packet);
    }

    /// Makes `block` the one of 2 GB; whether a computer has such a block does not matter then.
    void give_2_gigabytes(void *block)
    {
        kernel.watches_memory = 1;
        kernel.on_calloc = [block](size_t count, size_t size) {
            return count * size == 0x7FFFFFFF ? block : real_calloc(count, size);
        };
    }

    /// What the loader sent, but for its own notices.
    std::vector<std::string> answers() const
    {
        std::vector<std::string> result;
        std::copy_if(sent.begin(), sent.end(), std::back_inserter(result),
                     [](const std::string &packet) { return packet.rfind("00 00 00 08", 0) != 0; });
        return result;
    }

    const LeaksAllowed link_for_life;
    FakeKernel kernel;
    std::deque<Bytes> records;
    int reads = 0;
    std::vector<std::string> sent, rows;
};

TEST_F(HostileHost, SendingEveryTypeIsConfirmedWhereThatIsDueAndOtherwiseIgnored)
{
    size_t sequenced = 0;
    for (uint8_t type = 0; type < 100; ++type) {
        if (type == 5 || type == 10)
            continue; // those it serves
        sequenced += is_sequenced(type);
        host_sends(numbered(type, static_cast<uint8_t>(type + 1), 40));
    }
    qel_run_update_mode();
    EXPECT_THAT(answers(), SizeIs(sequenced));
    EXPECT_EQ(sequenced, 36U);
    EXPECT_THAT(answers(), Each(HasSubstr(" 0F 00 00 00 0C 00 00 00 ")));
}

TEST_F(HostileHost, FloodingWithHalfMessagesNoiseAndWrongCrcsIsStillAnsweredAfterwards)
{
    for (int i = 0; i < 5000; ++i) {
        Bytes packet = bytes_of("00 00 10 00 12 34 55*29"); // of 4096 bytes, never finished
        packet[6] = static_cast<uint8_t>(i);
        records.push_back(packet);
        records.push_back(bytes_of("80 AA*34"));
        records.push_back(bytes_of("00 00 00 01 00 00 77")); // a wrong CRC
        records.push_back(bytes_of("FF 00*20"));             // belongs to nothing
    }
    host_sends(connect);
    qel_run_update_mode();
    EXPECT_THAT(answers(), ElementsAre(answer));
}

TEST_F(HostileHost, RepeatingAMessageIsConfirmedEachTime)
{
    for (int i = 0; i < 300; ++i)
        host_sends(numbered(22, 7));
    qel_run_update_mode();
    EXPECT_THAT(answers(), SizeIs(300));
    EXPECT_THAT(answers(), Each(hex("00 00 00 0C FA 13 0F 00 00 00 0C 00 00 00 07 00 00 00")));
}

TEST_F(HostileHost, RepeatingItselfAThousandTimesASecondIsAnsweredAThousandTimes)
{
    for (int i = 0; i < 1000; ++i)
        host_sends(connect);
    qel_run_update_mode();
    EXPECT_THAT(answers(), SizeIs(1000));
    EXPECT_THAT(answers(), Each(answer));
}

TEST_F(HostileHost, LyingAboutALengthThatMemoryHoldsIsForgottenWithTheNextMessage)
{
    for (int i = 0; i < 100; ++i)
        records.push_back(bytes_of("00 FF FF FF 00 00 55*29")); // 16 MB, of which 29 bytes come
    host_sends(connect);
    qel_run_update_mode();
    EXPECT_THAT(answers(), ElementsAre(answer));
}

TEST_F(HostileHost, LyingAboutALengthOf2GigabytesIsForgottenByALoaderThatHasThem)
{
    Bytes block(29); // all that comes of them
    give_2_gigabytes(block.data());
    records.push_back(bytes_of("7F FF FF FF 00 00 55*29"));
    host_sends(connect);
    qel_run_update_mode();
    EXPECT_EQ(kernel.count("calloc"), 4); // transport, packet link, connection, message
    EXPECT_THAT(answers(), ElementsAre(answer));
}

TEST_F(HostileHost, LyingAboutALengthOf2GigabytesStopsALoaderThatDoesNotHaveThem)
{
    give_2_gigabytes(nullptr);
    records.push_back(bytes_of("7F FF FF FF 00 00 55*29"));
    host_sends(connect);
    EXPECT_STOPS_ON("buf", comms_unit, qel_run_update_mode());
    EXPECT_THAT(answers(), IsEmpty());
}

TEST_F(HostileHost, SayingAnotherSizeThanItSendsStopsTheLoader)
{
    Bytes message = numbered(22, 3);
    qel_sysmsg_put32(message.data(), 4, 0xFFFFFFFF);
    host_sends(message);
    EXPECT_STOPS_ON("len == sysmsg->msg_size", "qel_tolbrin/qel_sysmsg", qel_run_update_mode());
}

TEST_F(HostileHost, ConnectingWithoutAValueIsAnsweredWithWhatLiesInMemory)
{
    host_sends(connect);
    host_sends(bytes_of("05 00 00 00 08 00 00 00"));
    qel_run_update_mode();
    EXPECT_THAT(answers(), ElementsAre(answer, answer)); // the value of the message before
}
