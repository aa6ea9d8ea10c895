// The update mode against a scripted host: the board's devices are lists of packets and rows, and time goes
// on by 100 ms with each look for a stick.

#include "support/fresh_process.h"
#include "support/scratch_disk.h"
#include "support/stops.h"

#include "qel_application_loader/update_mode.h"
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
const time_t start_s = 1000;

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

class UpdateMode : public OnScratchDisk
{
  protected:
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
                sent.push_back({tenths(), record});
            else if (file == lcd_file)
                rows.push_back({tenths(), record.substr(0, size - 1)});
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

    struct Timed {
        int at; ///< tenths of a second since the start
        std::string what;
        bool operator==(const Timed &) const = default;
        friend std::ostream &operator<<(std::ostream &out, const Timed &timed)
        {
            return out << timed.at << ": " << testing::PrintToString(timed.what);
        }
    };

    int tenths() const
    {
        return static_cast<int>((kernel.clock_usec - start_s * 1000000LL) / 100000);
    }
    /// What was shown on row 2, with the second in which it was shown.
    std::vector<std::string> status_rows() const
    {
        std::vector<std::string> result;
        for (const auto &row : rows)
            if (row.what[0] == '2')
                result.push_back(std::to_string(row.at / 10) + " s" + row.what);
        return result;
    }
    /// The seconds in which `packet` was sent.
    std::vector<int> seconds_of(const std::string &packet) const
    {
        std::vector<int> result;
        for (const auto &packet_sent : sent)
            if (packet_sent.what == packet)
                result.push_back(packet_sent.at / 10);
        return result;
    }

    int stick_at = 0;                              ///< when /sys/block/sda appears
    std::vector<std::pair<int, std::string>> host; ///< what the host sends, and when
    std::deque<std::string> incoming;
    std::vector<Timed> sent;
    std::vector<Timed> rows;
};

TEST_F(UpdateMode, ShowsTheBannerAndGoesOnAfterFiveSecondsWhenAStickIsThereFromTheStart)
{
    if (!in_fresh_process())
        return;
    qel_run_update_mode();
    EXPECT_THAT(rows, ElementsAre(Timed{0, "0"}, Timed{0, "1TOLBRIN Update..."}, Timed{0, "2"},
                                  Timed{0, "2*Found storage device*"}, Timed{50, "2"}));
    EXPECT_THAT(sent, IsEmpty());
    EXPECT_EQ(kernel.count("read"), 0);
    EXPECT_THAT(kernel.calls("sleep"), ElementsAre("sleep 5"));
}

TEST_F(UpdateMode, OpensTheLinkBeforeItShowsTheBanner)
{
    if (!in_fresh_process())
        return;
    qel_run_update_mode();
    EXPECT_EQ(kernel.calls("open").front().find("open /dev/qellpc_host_comms"), 0U);
}

TEST_F(UpdateMode, AnnouncesItselfOnceASecondWithoutAPeerAndLeavesRow2Empty)
{
    if (!in_fresh_process())
        return;
    stick_at = 65;
    qel_run_update_mode();
    EXPECT_THAT(seconds_of(notice_packet), ElementsAre(1, 2, 3, 4, 5, 6));
    EXPECT_EQ(sent.size(), 6U);
    EXPECT_THAT(status_rows(), ElementsAre("0 s2", "6 s2*Found storage device*", "11 s2"));
}

TEST_F(UpdateMode, AnswersEveryConnectAtOnceWithItsValue)
{
    if (!in_fresh_process())
        return;
    host = {{2, connect_packet}, {6, connect_packet}};
    stick_at = 9;
    qel_run_update_mode();
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_EQ(sent[0].what, answer_packet);
    EXPECT_EQ(sent[1].what, answer_packet);
    EXPECT_LE(sent[0].at, 4);
    EXPECT_THAT(status_rows(), ElementsAre("0 s2", "0 s2*Connected*", "0 s2*Connected*",
                                           "0 s2*Found storage device*", "5 s2"));
}

TEST_F(UpdateMode, SaysNothingWhileThePeerConnectsEverySecondAndClearsRow2AtTheSecondSilentSecond)
{
    if (!in_fresh_process())
        return;
    host = {{5, connect_packet}, {15, connect_packet}, {25, connect_packet}};
    stick_at = 75;
    qel_run_update_mode();
    // The count changes are seen at the turns to seconds 1, 2 and 3; seconds 4 and 5 end silent.
    EXPECT_THAT(seconds_of(notice_packet), ElementsAre(4, 5, 6, 7));
    EXPECT_THAT(status_rows(), ElementsAre("0 s2", "0 s2*Connected*", "1 s2*Connected*", "2 s2*Connected*",
                                           "5 s2", "7 s2*Found storage device*", "12 s2"));
}

TEST_F(UpdateMode, StopsAnnouncingItselfWhenThePeerComesBackBeforeRow2IsCleared)
{
    if (!in_fresh_process())
        return;
    host = {{5, connect_packet}, {25, connect_packet}};
    stick_at = 55;
    qel_run_update_mode();
    // Silent are seconds 2, then 4 and 5; the connect of second 2 keeps the text for two more.
    EXPECT_THAT(seconds_of(notice_packet), ElementsAre(2, 4, 5));
    EXPECT_THAT(status_rows(), ElementsAre("0 s2", "0 s2*Connected*", "2 s2*Connected*", "5 s2",
                                           "5 s2*Found storage device*", "10 s2"));
}

TEST_F(UpdateMode, IgnoresEveryOtherMessage)
{
    if (!in_fresh_process())
        return;
    host = {{2, notice_packet}};
    stick_at = 5;
    qel_run_update_mode();
    EXPECT_THAT(sent, IsEmpty());
    EXPECT_THAT(status_rows(), ElementsAre("0 s2", "0 s2*Found storage device*", "5 s2"));
}

TEST_F(UpdateMode, WritesAnUpdaterAndTakesItAsTheProgramEvenWhenAStickComesRightBehindIt)
{
    if (!in_fresh_process())
        return;
    host = {{2, updater_packet}};
    stick_at = 3;
    kernel.leave_at("execve", 1);
    EXPECT_THROW(qel_run_update_mode(), LeftProduct);
    EXPECT_EQ(disk.content("/tmp/updater"), "\x7f"
                                            "ELF");
    EXPECT_EQ(rows.back().what, "2Starting updater...");
    EXPECT_THAT(kernel.calls("execve"),
                ElementsAre("execve /tmp/updater [/tmp/updater] [HOME=/qel_home TERM=linux "
                            "WINEDEBUG=fixme-all,warn-all LD_LIBRARY_PATH=/usr/xorg/lib DISPLAY=unix:0]"));
}

TEST_F(UpdateMode, JoinsAnUpdaterFromPacketsOf35Bytes)
{
    if (!in_fresh_process())
        return;
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

class UpdateHandler : public UpdateMode
{
  protected:
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
    receive_updater(message);
    EXPECT_EQ(disk.content("/tmp/updater"), "ABCD");
    EXPECT_EQ(disk.mode("/tmp/updater"), 0755U);
}

TEST_F(UpdateHandler, DoesNotTruncateAnOlderUpdater)
{
    disk.make_file("/tmp/updater", "abcdefgh", 0755);
    receive_updater(message);
    EXPECT_EQ(disk.content("/tmp/updater"), "ABCDefgh");
}

TEST_F(UpdateHandler, WritesAsManyBytesAsTheLengthFieldSays)
{
    std::string long_message = message + std::string(100, 'x');
    long_message[8] = 20; // says 20, and 4 are the image's
    receive_updater(long_message);
    EXPECT_EQ(disk.content("/tmp/updater"), "ABCDxxxxxxxxxxxxxxxx");
    EXPECT_EQ(kernel.count("write"), 2); // one for the image, one for the display
}

TEST_F(UpdateHandler, ClosesTheUpdaterSoThatItCanRun)
{
    receive_updater(message);
    std::vector<std::string> calls = kernel.calls();
    calls.resize(3);
    EXPECT_THAT(calls,
                ElementsAre(StartsWith("open /tmp/updater "), StartsWith("write "), StartsWith("close ")));
}

TEST_F(UpdateHandler, TriesToRunTheUpdaterEvenWhenItCouldNotBeWritten)
{
    kernel.fail_nth("open", 1, EROFS);
    receive_updater(message);
    EXPECT_EQ(kernel.count("execve"), 1);
}

TEST_F(UpdateHandler, PrintsTheProgramAndExitsWith1WhenTheUpdaterCannotBeRun)
{
    kernel.fail("execve", ENOEXEC);
    disk.make_file("/console");
    const int console = real_open(disk.at("/console").c_str(), O_WRONLY, 0);
    const pid_t child = real_fork();
    if (child == 0) {
        real_dup2(console, STDOUT_FILENO);
        qel_update_handler(nullptr, message.data());
        real__exit(99);
    }
    real_close(console);
    int status = 0;
    ASSERT_EQ(real_waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
    EXPECT_EQ(disk.content("/console"), "exec failed: /tmp/updater\n");
}
