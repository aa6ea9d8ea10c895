/// Two real ends of the host link with a bad line between them.
///
/// The state of the link and of the messages is one set for each process, so each end is a process of its
/// own, a child of the test, with the whole stack from the transport up. An end's device and clock are the
/// test's: a packet that it writes is a record to the test, and in every poll it waits for its turn, which
/// brings the time and the packets that arrive. So both ends go in step, time is virtual, and a run is the
/// same for the same seed. The test is the line: it drops, damages, repeats, delays and cuts packets. A
/// referee for each end keeps the books, so that every single message is accounted for.
///
/// The line spares the ends what would stop them by design: a first packet of 6 bytes or less, and lengths
/// of 0 or of more than the memory holds. The CRC has 16 bits: one damaged message in 65536 gets through and
/// would show up in the books. With these seeds none does.
#pragma once

#include "support/link_end.h"
#include "support/link_referee.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <limits.h>

#include <algorithm>
#include <map>
#include <random>

// ---- The line ----

/// How likely a packet meets each fate, in thousandths.
struct Faults {
    unsigned drop, damage, repeat, delay, cut;
};

struct Line {
    Line(Faults line_faults, uint32_t seed) : faults(line_faults), random(seed) {}

    void takes(Bytes packet, long long now)
    {
        if (happens(faults.drop))
            return;
        if (happens(faults.cut))
            packet.resize(1 + random() % packet.size());
        if (happens(faults.damage)) {
            for (unsigned flips = 1 + random() % 4; flips > 0; --flips)
                packet[random() % packet.size()] ^= static_cast<uint8_t>(1 << random() % 8);
        }
        if (would_stop_the_end(packet))
            return;
        if (happens(faults.repeat))
            under_way.emplace(now + delay(), packet);
        under_way.emplace(now + (happens(faults.delay) ? delay() : 1000), packet);
    }
    std::vector<Bytes> delivers(long long now)
    {
        std::vector<Bytes> packets;
        while (!under_way.empty() && under_way.begin()->first <= now) {
            packets.push_back(under_way.begin()->second);
            under_way.erase(under_way.begin());
        }
        return packets;
    }
    /// When the next packet arrives; far away when none is under way.
    long long due() const
    {
        return under_way.empty() ? LLONG_MAX / 2 : under_way.begin()->first;
    }
    unsigned happens(unsigned thousandths)
    {
        return random() % 1000 < thousandths;
    }
    /// Up to 1.6 s, so that packets are overtaken by others, even of the next message.
    long long delay()
    {
        return 1000 + static_cast<long long>(random() % 5 == 0 ? random() % 1600000 : random() % 30000);
    }
    static int would_stop_the_end(const Bytes &packet)
    {
        if (packet[0] & 0x80)
            return 0;
        return packet.size() <= 6 || packet[0] > 0x0F || !(packet[0] | packet[1] | packet[2] | packet[3]);
    }

    Faults faults;
    std::mt19937 random;
    std::multimap<long long, Bytes> under_way;
};

// ---- The test: both ends, the line and the books ----

struct TwoEnds {
    TwoEnds(Faults faults, uint32_t seed, int exchanges, int is_chatty)
        : sides{Side(faults, seed + 1), Side(faults, seed + 2)},
          latest(now + (exchanges + 10LL) * exchange_usec_max)
    {
        start(sides[0], [=](int socket) { End(socket, seed + 3).ask(exchanges); });
        start(sides[1], [=](int socket) { End(socket, seed + 4).serve(is_chatty); });
    }

    /// Goes on until the asking end is done, then stops the other one.
    void run()
    {
        while (!sides[0].is_done && !testing::Test::HasFailure()) {
            for (Side &side : sides)
                listen(side);
            EXPECT_LT(now, latest) << "the asking end waits for ever";
            now += std::clamp(std::min(sides[0].line.due(), sides[1].line.due()) - now, 1000LL, 50000LL);
            if (!sides[0].is_done)
                take_turn(sides[0], sides[1].line, 0);
            take_turn(sides[1], sides[0].line, sides[0].is_done);
        }
        while (!sides[1].is_done && !testing::Test::HasFailure()) {
            listen(sides[1]);
            EXPECT_LT(now, latest) << "the serving end does not stop";
            now += 50000;
            take_turn(sides[1], sides[0].line, 1);
        }
        for (Side &side : sides)
            finish(side);
    }

    struct Side {
        Side(Faults faults, uint32_t seed) : line(faults, seed) {}
        pid_t process = 0;
        int socket = -1;
        Line line; ///< takes what this side sends
        LinkReferee books;
        Bytes message; ///< the message that it is sending, as far as its packets have come
        uint32_t message_size = 0;
        long long started = 0;
        int is_done = 0;
        int wanted = 0;
        // Counts of what happened.
        int sent = 0, succeeded = 0, failed = 0, handed_on = 0, transmissions = 0, messages = 0;
    };
    Side sides[2];
    template <typename Body> void start(Side &side, Body body)
    {
        int ends[2];
        ASSERT_EQ(real_socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
        side.process = real_fork();
        if (side.process == 0) {
            // One that spins without asking for its turn ends, and with it the test's wait for its record.
            const struct rlimit processor_seconds = {60, 60};
            setrlimit(RLIMIT_CPU, &processor_seconds);
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            real_close(ends[0]);
            body(ends[1]);
            real__exit(0);
        }
        real_close(ends[1]);
        side.socket = ends[0];
    }

    /// Takes note of everything the end does until it asks for its turn or is done.
    void listen(Side &side)
    {
        while (!side.is_done && !testing::Test::HasFailure()) {
            Bytes record(2000);
            const ssize_t size = real_read(side.socket, record.data(), record.size());
            if (size <= 0) {
                side.is_done = 1;
                return;
            }
            const Bytes data(record.begin() + 1, record.begin() + size);
            switch (record[0]) {
            case 'T':
                check_confirms(side);
                return;
            case 'P':
                side.line.takes(data, now);
                note_packet(side, data);
                break;
            case 'S':
                side.wanted = data[0];
                side.started = now;
                side.sent++;
                side.books.starts(side.wanted);
                break;
            case 'H':
                check_handed_on(side, data);
                break;
            case 'R':
                check_result(side, data);
                break;
            default:
                FAIL() << "unknown record " << hex_of(record);
            }
        }
    }

    /// Puts the end's packets together as it sends them, and judges their form.
    static void note_packet(Side &side, const Bytes &packet)
    {
        if (packet[0] < 0x80) {
            ASSERT_EQ(side.message.size(), side.message_size) << "a message was not sent to its end";
            side.message.assign(packet.begin() + 6, packet.end());
            side.message_size = static_cast<uint32_t>(packet[2] << 8 | packet[3]);
        } else {
            ASSERT_EQ(packet[0], 0x80);
            side.message.insert(side.message.end(), packet.begin() + 1, packet.end());
        }
        ASSERT_LE(side.message.size(), side.message_size);
        if (side.message.size() < side.message_size) {
            ASSERT_EQ(packet.size(), 35U) << "a packet in the middle is not full";
            return;
        }
        side.messages++;
        if (LinkReferee::is_sequenced(side.message[0]))
            side.transmissions++;
        side.books.sends(side.message);
    }

    static void check_confirms(Side &side)
    {
        ASSERT_EQ(side.books.confirms_sent, side.books.to_confirm);
        side.books.confirms_sent.clear();
        side.books.to_confirm.clear();
    }

    static void check_handed_on(Side &side, const Bytes &message)
    {
        ASSERT_FALSE(side.books.to_hand_on.empty()) << "handed on without reason: " << hex_of(message);
        ASSERT_EQ(hex_of(message), hex_of(side.books.to_hand_on.front()));
        side.books.to_hand_on.pop_front();
        side.handed_on++;
    }

    void check_result(Side &side, const Bytes &data)
    {
        const int is_confirmed = side.books.confirmed;
        const Bytes reply = side.books.reply;
        ASSERT_EQ(data[0], side.books.ends());
        (data[0] ? side.succeeded : side.failed)++;
        if (!data[0]) {
            ASSERT_GE(now - side.started, is_confirmed ? 15000000 : 3000000);
        }
        if (data[0] && side.wanted) {
            ASSERT_EQ(hex_of(Bytes(data.begin() + 1, data.end())), hex_of(reply.data() + 16, 8));
            uint32_t id = 0;
            uint64_t size = 0;
            memcpy(&id, reply.data() + 12, 4);
            memcpy(&size, reply.data() + 16, 8);
            ASSERT_EQ(size, id * 1000003ULL);
        }
    }

    void take_turn(Side &side, Line &from, int stop) const
    {
        if (side.is_done)
            return;
        ASSERT_TRUE(side.books.to_hand_on.empty()) << "lost: " << hex_of(side.books.to_hand_on.front());
        side.books.polls();
        for (const Bytes &packet : from.delivers(now)) {
            tell(side, 'P', packet.data(), packet.size());
            side.books.receives(packet);
        }
        const long long turn[2] = {now, stop};
        tell(side, 'T', turn, sizeof turn);
    }
    static void tell(const Side &side, char kind, const void *data, size_t size)
    {
        Bytes record(1 + size);
        record[0] = static_cast<uint8_t>(kind);
        memcpy(record.data() + 1, data, size);
        ASSERT_EQ(::send(side.socket, record.data(), record.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(record.size()));
    }

    static void finish(Side &side)
    {
        // In a failing run, nothing says that the end is going to end.
        if (testing::Test::HasFailure() && side.process > 0)
            kill(side.process, SIGKILL);
        real_close(side.socket);
        int status = 0;
        ASSERT_EQ(real_waitpid(side.process, &status, 0), side.process);
        EXPECT_TRUE(WIFEXITED(status)) << "an end crashed";
        EXPECT_EQ(WEXITSTATUS(status), 0) << "99: an end stopped on a failed check";
    }

    /// An exchange waits 15 s for its reply at most, and 3 s for its confirm.
    static constexpr long long exchange_usec_max = 60000000;
    long long now = 1000000000;
    long long latest; ///< when the run must be over
};
