// The update mode against a scripted host: the board's devices are lists of packets and rows, and time goes
// on by 100 ms with each look for a stick.

#include "support/scratch_disk.h"
#include "support/stops.h"

#include "qel_application_loader/update_mode.h"
#include "qel_tolbrin/qel_comms.h"
#include "qel_tolbrin/qel_lpc_comms.h"
#include "qel_tolbrin/qel_sysmsg.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <sys/wait.h>

#include <deque>

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

namespace
{

const int link_file = 500;
const int lcd_file = 501;
const time_t start_s = 5000000000; // beyond 32 bits

// Packets as they travel: length and CRC, big-endian, then the message.
const std::string connect_packet("\x00\x00\x00\x0c\x66\x86\x05\x00\x00\x00\x0c\x00\x00\x00\x78\x56\x34\x12",
                                 18);
const std::string answer_packet("\x00\x00\x00\x0c\x0d\xb9\x26\x00\x00\x00\x0c\x00\x00\x00\x78\x56\x34\x12",
                                18);
const std::string notice_packet("\x00\x00\x00\x08\xb2\x55\x0b\x00\x00\x00\x08\x00\x00\x00", 14);
const std::string
    updater_packet("\x00\x00\x00\x10\x2c\x1f\x0a\x00\x00\x00\x10\x00\x00\x00\x04\x00\x00\x00\x7f\x45\x4c\x46",
                   22);

} // namespace

struct UpdateMode : OnScratchDisk {
    UpdateMode()
    {
        disk.make_folder("/tmp");
        kernel.set_time(start_s);
        kernel.on_open = [this](const char *path, int flags, mode_t mode) {
            const std::string name = path;
            if (name == "/dev/qellpc_host_comms")
                return link_file;
            if (name == "/dev/qellpc_lcd")
                return lcd_file;
            return real_open(kernel.at(path).c_str(), flags, mode);
        };
        kernel.on_close = [](int file) { return file == lcd_file ? 0 : real_close(file); };
        kernel.on_read = [this](int file, void *buffer, size_t size) {
            if (file != link_file)
                return real_read(file, buffer, size);
            if (incoming.empty()) {
                errno = EAGAIN;
                return ssize_t{-1};
            }
            const std::string packet = incoming.front();
            incoming.pop_front();
            EXPECT_LE(packet.size(), size);
            memcpy(buffer, packet.data(), packet.size());
            return static_cast<ssize_t>(packet.size());
        };
        kernel.on_write = [this](int file, const void *buffer, size_t size) {
            const std::string record(static_cast<const char *>(buffer), size);
            if (file == link_file)
                events.push_back(time() + name_of(record));
            else if (file == lcd_file)
                events.push_back(time() + "row " + record.substr(0, size - 1));
            else
                return real_write(file, buffer, size);
            return static_cast<ssize_t>(size);
        };
        kernel.on_access = [this](const char *path, int) {
            EXPECT_STREQ(path, "/sys/block/sda");
            if (tenths() >= stick_at)
                return 0;
            for (auto &[at, packet] : host)
                if (at >= 0 && tenths() >= at) {
                    incoming.push_back(packet);
                    at = -1;
                }
            kernel.advance_usec(100000);
            errno = ENOENT;
            return -1;
        };
    }

    const LeaksAllowed link_for_life;

    int tenths() const
    {
        return static_cast<int>((kernel.clock_usec - start_s * 1000000LL) / 100000);
    }
    std::string time() const
    {
        return std::to_string(tenths() / 10) + "." + std::to_string(tenths() % 10) + " ";
    }
    static std::string name_of(const std::string &packet)
    {
        return packet == answer_packet ? "answer" : packet == notice_packet ? "notice" : packet;
    }
    /// What the update mode shows and sends, behind the banner, until it has found the stick.
    std::vector<std::string> run()
    {
        qel_run_update_mode();
        const std::vector<std::string> banner = {"0.0 row 0", "0.0 row 1TOLBRIN Update...", "0.0 row 2"};
        EXPECT_GE(events.size(), 5U);
        EXPECT_EQ(std::vector<std::string>(events.begin(), events.begin() + 3), banner);
        const std::string found = events.at(events.size() - 2), cleared = events.back();
        EXPECT_EQ(found.substr(found.find(' ')), " row 2*Found storage device*");
        EXPECT_EQ(cleared.substr(cleared.find(' ')), " row 2");
        EXPECT_EQ(atoi(cleared.c_str()), atoi(found.c_str()) + 5);
        EXPECT_THAT(kernel.calls("sleep"), ElementsAre("sleep 5"));
        return {events.begin() + 3, events.end() - 2};
    }

    int stick_at = 0;                              ///< when /sys/block/sda appears
    std::vector<std::pair<int, std::string>> host; ///< what the host sends, and when
    std::deque<std::string> incoming;
    std::vector<std::string> events; ///< rows shown and packets sent: "1.0 notice", "0.3 row 2*Connected*"
};

TEST_F(UpdateMode, WiresTransportLinkAndMessagesTogether)
{
    std::vector<void *> made;
    kernel.watches_memory = 1;
    kernel.on_calloc = [&](size_t count, size_t size) { return made.emplace_back(real_calloc(count, size)); };
    qel_run_update_mode();
    ASSERT_EQ(made.size(), 3U);
    std::vector<std::string> calls = kernel.calls("calloc open");
    for (std::string &call : calls)
        call = call.substr(0, call.find_first_of(" 0123456789"));
    calls.resize(5);
    EXPECT_THAT(calls, ElementsAre("calloc", "open", "calloc", "calloc", "open"));
    const auto *lpc = static_cast<qel_lpc *>(made[0]);
    const auto *comms = static_cast<qel_comms *>(made[1]);
    const auto *con = static_cast<qel_sysmsg_con *>(made[2]);
    EXPECT_TRUE(lpc->fd == link_file && lpc->recv == qel_comms_receive_packet && lpc->recv_ctx == comms);
    EXPECT_TRUE(comms->packet_send_begin == qel_lpc_get_tx_buf &&
                comms->packet_send_end == qel_lpc_packet_send_end && comms->send_ctx == lpc);
    EXPECT_TRUE(comms->poll == qel_lpc_poll && comms->poll_ctx == lpc);
    EXPECT_TRUE(comms->recv == qel_sysmsg_receive && comms->recv_ctx == con);
    EXPECT_EQ(comms->packet_size_max, 35);
    EXPECT_TRUE(con->recv == qel_update_handler && con->send == qel_comms_send && con->send_ctx == comms);
    EXPECT_TRUE(con->poll == qel_comms_poll && con->poll_ctx == comms);
}

TEST_F(UpdateMode, ShowsAndAnswersEveryConnectAtOnceWithItsValue)
{
    host = {{2, connect_packet}, {6, connect_packet}};
    stick_at = 9;
    EXPECT_THAT(run(),
                ElementsAre("0.3 row 2*Connected*", "0.3 answer", "0.7 row 2*Connected*", "0.7 answer"));
}

TEST_F(UpdateMode, SaysNothingWhileThePeerConnectsEverySecondAndClearsRow2AtTheSecondSilentSecond)
{
    host = {{5, connect_packet}, {15, connect_packet}, {25, connect_packet}};
    stick_at = 75;
    // The count changes are seen at the turns to seconds 1, 2 and 3; seconds 4 and 5 end silent.
    EXPECT_THAT(run(), ElementsAre("0.6 row 2*Connected*", "0.6 answer", "1.6 row 2*Connected*", "1.6 answer",
                                   "2.6 row 2*Connected*", "2.6 answer", "4.0 notice", "5.0 notice",
                                   "5.0 row 2", "6.0 notice", "7.1 notice"));
}

TEST_F(UpdateMode, StopsAnnouncingItselfWhenThePeerComesBackBeforeRow2IsCleared)
{
    host = {{5, connect_packet}, {25, connect_packet}};
    stick_at = 55;
    // Silent are seconds 2, then 4 and 5; the connect of second 2 keeps the text for two more.
    EXPECT_THAT(run(), ElementsAre("0.6 row 2*Connected*", "0.6 answer", "2.0 notice", "2.6 row 2*Connected*",
                                   "2.6 answer", "4.0 notice", "5.0 notice", "5.0 row 2"));
}

TEST_F(UpdateMode, IgnoresEveryOtherMessage)
{
    host = {{2, notice_packet}};
    stick_at = 5;
    EXPECT_THAT(run(), IsEmpty());
}

TEST_F(UpdateMode, LeavesTheDisplayAloneHoweverLongThePeerIsSilent)
{
    stick_at = 3000;
    for (const std::string &event : run())
        EXPECT_THAT(event, testing::EndsWith(" notice"));
}

TEST_F(UpdateMode, TakesEveryOtherSecondThanTheLastForANewOneWhereverTheClockGoes)
{
    // A notice that takes its 15 ms across a turn, an hour ahead, an hour back, and standing still.
    const std::vector<long> looks_ms = {500, 1990, 2500, 2900, 3603000, 3603500, 3000, 3900, 4000};
    kernel.on_access = [&, next = 0U](auto...) mutable {
        if (next == looks_ms.size())
            return 0;
        kernel.clock_usec = start_s * 1000000LL + looks_ms[next++] * 1000LL;
        return -1;
    };
    EXPECT_THAT(run(), ElementsAre("2.0 notice", "2.5 notice", "3603.0 notice", "3.0 notice", "4.0 notice"));
}

TEST_F(UpdateMode, CountsConnectsFromTheStartOfTheProcessIn32Bits)
{
    // 65536 of them before the wait, which knows of none.
    qel_sysmsg_con deaf = {};
    deaf.send = [](auto...) { return 0; };
    const std::string connect = connect_packet.substr(6);
    {
        FakeKernel board;
        board.on_open = [](auto...) { return lcd_file; };
        board.on_close = [](auto...) { return 0; };
        board.on_write = [](int, const void *, size_t size) { return static_cast<ssize_t>(size); };
        for (int i = 0; i < 0x10000; ++i)
            qel_update_handler(&deaf, connect.data());
    }
    stick_at = 45;
    EXPECT_THAT(run(), ElementsAre("2.0 notice", "3.0 notice", "3.0 row 2", "4.0 notice"));
}

TEST_F(UpdateMode, WritesAnUpdaterAndTakesItAsTheProgramEvenWhenAStickComesRightBehindIt)
{
    host = {{2, updater_packet}};
    stick_at = 3;
    kernel.leave_at("execve", 1);
    EXPECT_THROW(qel_run_update_mode(), LeftProduct);
    EXPECT_EQ(disk.content("/tmp/updater"), "\x7f"
                                            "ELF");
    EXPECT_EQ(events.back(), "0.3 row 2Starting updater...");
    EXPECT_THAT(kernel.calls("execve"),
                ElementsAre("execve /tmp/updater [/tmp/updater] [HOME=/qel_home TERM=linux "
                            "WINEDEBUG=fixme-all,warn-all LD_LIBRARY_PATH=/usr/xorg/lib DISPLAY=unix:0]"));
}

TEST_F(UpdateMode, JoinsAnUpdaterFromPacketsOf35Bytes)
{
    host = {{1, std::string("\x00\x00\x00\x24\xa8\x74\x0a\x00\x00\x00\x24\x00\x00\x00\x18\x00\x00\x00"
                            "#!/bin/sh\nexec /b",
                            35)},
            {2, std::string("\x80in/sh \n")}};
    stick_at = 3;
    kernel.leave_at("execve", 1);
    EXPECT_THROW(qel_run_update_mode(), LeftProduct);
    EXPECT_EQ(disk.content("/tmp/updater"), "#!/bin/sh\nexec /bin/sh \n");
}

// ---- qel_update_handler ----

struct UpdateHandler : UpdateMode {
    /// Type 10, size 16, length 4, four bytes.
    const std::string message{"\x0a\x00\x00\x00\x10\x00\x00\x00\x04\x00\x00\x00"
                              "ABCD",
                              16};

    void receive_updater(const std::string &bytes)
    {
        kernel.leave_at("execve", 1);
        EXPECT_THROW(qel_update_handler(nullptr, bytes.data()), LeftProduct);
    }
};

TEST_F(UpdateHandler, MakesTheUpdaterExecutable)
{
    umask(0);
    receive_updater(message);
    umask(022);
    EXPECT_EQ(disk.content("/tmp/updater"), "ABCD");
    EXPECT_EQ(disk.mode("/tmp/updater"), 0755U);
}

TEST_F(UpdateHandler, WritesAsManyBytesAsTheLengthFieldSays)
{
    std::string long_message = message + std::string(100, 'x');
    long_message[8] = 20; // says 20, and 4 are the image's
    receive_updater(long_message);
    EXPECT_EQ(disk.content("/tmp/updater"), "ABCDxxxxxxxxxxxxxxxx");
    EXPECT_EQ(kernel.count("write"), 2); // one for the image, one for the display
}

TEST_F(UpdateHandler, TakesTheLengthAs32BitsWithoutASign)
{
    kernel.on_write = [](int, const void *, size_t size) { return static_cast<ssize_t>(size); };
    receive_updater(message.substr(0, 8) + "\x70\x11\x01\x80" + message.substr(12));
    EXPECT_THAT(kernel.calls("write").front(), testing::EndsWith(" 2147553648"));
}

TEST_F(UpdateHandler, PrintsTheProgramAndExitsWith1WhenTheUpdaterCannotBeRun)
{
    kernel.fail("execve", ENOEXEC);
    disk.make_file("/console");
    const int console = real_open(disk.at("/console").c_str(), O_WRONLY, 0);
    const pid_t child = real_fork();
    if (child == 0) {
        real_dup2(console, STDOUT_FILENO);
        atexit([] { real_write(STDOUT_FILENO, "exit\n", 5); });
        qel_update_handler(nullptr, message.data());
        real__exit(99);
    }
    real_close(console);
    int status = 0;
    ASSERT_EQ(real_waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
    EXPECT_EQ(disk.content("/console"), "exec failed: /tmp/updater\nexit\n");
}
