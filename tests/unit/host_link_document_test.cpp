// The examples of docs/host-link.md: what the document shows is what the code sends and understands.

#include "support/scripted_peer.h"

#include "qel_tolbrin/qel_comms.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>

using testing::ElementsAre;

/// The packets in the document's examples, in order.
static std::vector<std::string> document_packets()
{
    const auto root = std::filesystem::path(__FILE__).parent_path().parent_path().parent_path();
    std::ifstream document(root / "docs/host-link.md");
    std::vector<std::string> packets;
    for (std::string line; std::getline(document, line);) {
        if (line.rfind("    ", 0) == 0)
            packets.push_back(line.substr(4));
    }
    return packets;
}

/// An end whose packets the test sees and feeds.
struct HostLinkDocument : testing::Test {
    HostLinkDocument()
    {
        kernel.set_time(1000);
        qel_comms_set_receiver(comms, qel_sysmsg_receive, con);
    }
    ~HostLinkDocument() override
    {
        free(con);
        free(comms);
    }
    void feed(const std::string &packet)
    {
        Bytes bytes = bytes_of(packet);
        const auto len = static_cast<int>(bytes.size());
        bytes.resize(64);
        qel_comms_receive_packet(comms, bytes.data(), len);
    }
    std::vector<std::string> sent()
    {
        std::vector<std::string> taken;
        taken.swap(packets);
        return taken;
    }

    static void *begin(void *)
    {
        static uint8_t packet[35];
        return packet;
    }
    static int end(void *test, void *packet, int len, int)
    {
        const auto *bytes = static_cast<const uint8_t *>(packet);
        std::string text;
        for (int at = 0; at < len; ++at) {
            char word[8];
            snprintf(word, sizeof word, at ? " %02X" : "%02X", bytes[at]);
            text += word;
        }
        static_cast<HostLinkDocument *>(test)->packets.push_back(text);
        return 0;
    }
    static int poll(void *test)
    {
        auto *self = static_cast<HostLinkDocument *>(test);
        self->kernel.advance_usec(1000);
        if (self->on_poll)
            self->on_poll();
        return 0;
    }
    static void handle(qel_sysmsg_con *connection, const void *message)
    {
        handled = hex_of(message, qel_sysmsg_get32(message, 4));
        if (qel_sysmsg_get32(message, 0) == qel_sysmsg_type_connect)
            qel_sysmsg_connect_answer(connection, message);
    }

    const std::vector<std::string> shown = document_packets();
    FakeKernel kernel;
    qel_comms *comms = qel_comms_create(35, begin, end, this, poll, this);
    qel_sysmsg_con *con = qel_sysmsg_create(handle, qel_comms_send, comms, qel_comms_poll, comms);
    std::function<void()> on_poll;
    std::vector<std::string> packets;
    inline static std::string handled;
};

TEST_F(HostLinkDocument, ShowsTwelvePackets)
{
    EXPECT_EQ(shown.size(), 12U);
}

TEST_F(HostLinkDocument, ShowsHowAHostConnects)
{
    qel_sysmsg_connect(con, 42);
    EXPECT_THAT(sent(), ElementsAre(shown.at(0)));
    feed(shown.at(0));
    EXPECT_THAT(sent(), ElementsAre(shown.at(1)));
    feed(shown.at(1));
    EXPECT_EQ(handled, "26 00 00 00 0C 00 00 00 2A 00 00 00");
}

TEST_F(HostLinkDocument, ShowsTheWaitingLoader)
{
    qel_sysmsg_notify_11(con);
    EXPECT_THAT(sent(), ElementsAre(shown.at(2)));
}

TEST_F(HostLinkDocument, ShowsAQueryAndItsAnswerFromBothSides)
{
    on_poll = [this] {
        EXPECT_THAT(sent(), ElementsAre(shown.at(3), shown.at(4), shown.at(5), shown.at(6)));
        feed(shown.at(7));
        feed(shown.at(8));
    };
    uint32_t exists = 0;
    EXPECT_EQ(qel_sysmsg_tolbrin_path_exists(con, "/storage/app", &exists), 1);
    EXPECT_EQ(exists, 1U);
    EXPECT_THAT(sent(), ElementsAre(shown.at(9)));

    // The other side: confirms the question, and answers with number 7 once 3 to 6 are spent.
    for (int packet = 3; packet <= 6; ++packet)
        feed(shown.at(static_cast<size_t>(packet)));
    EXPECT_THAT(sent(), ElementsAre(shown.at(7)));
    on_poll = nullptr;
    for (int number = 3; number <= 6; ++number)
        EXPECT_EQ(qel_sysmsg_post_22(con), 0);
    sent();
    on_poll = [this] { feed(shown.at(9)); };
    EXPECT_EQ(qel_sysmsg_reply_path_exists(con, 1), 1);
    EXPECT_THAT(sent(), ElementsAre(shown.at(8)));
}

TEST_F(HostLinkDocument, ShowsAnUpdater)
{
    qel_sysmsg_send_updater(con, "#!/bin/sh\nexec /bin/sh \n", 24);
    EXPECT_THAT(sent(), ElementsAre(shown.at(10), shown.at(11)));
    feed(shown.at(10));
    feed(shown.at(11));
    EXPECT_EQ(handled, hex("0A 00 00 00 24 00 00 00 18 00 00 00 '#!/bin/sh' 0A 'exec /bin/sh ' 0A"));
}
