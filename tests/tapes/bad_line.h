// A line that loses, damages, repeats, delays and cuts packets, and an end of the link that is played by the
// model.
//
// The line spares the product what would stop it by design: a first packet of 6 bytes or less, and lengths of
// 0 or of more than the memory holds. The CRC has 16 bits: one damaged message in 65536 gets through.
#pragma once

#include "support/link_model.h"

#include <limits.h>

#include <deque>
#include <map>
#include <random>

/// Bytes that an answer gives for each unit of the id in its query.
constexpr uint64_t bytes_for_each_id = 1000003;

// ---- The line ----

/// How likely a packet meets each fate, in thousandths.
struct Fates {
    unsigned drop, damage, repeat, delay, cut;
};

struct Line {
    Fates fates;
    std::mt19937 random;
    std::multimap<long long, Bytes> under_way = {};

    bool happens(unsigned thousandths)
    {
        return random() % 1000 < thousandths;
    }
    /// Up to 1.6 s, so that packets are overtaken by others, even of the next message.
    long long delay()
    {
        return 1000 + static_cast<long long>(random() % 5 == 0 ? random() % 1600000 : random() % 30000);
    }
    void takes(Bytes packet, long long now)
    {
        if (happens(fates.drop))
            return;
        if (happens(fates.cut))
            packet.resize(1 + random() % packet.size());
        if (happens(fates.damage)) {
            for (unsigned flips = 1 + random() % 4; flips > 0; --flips)
                packet[random() % packet.size()] ^= static_cast<uint8_t>(1 << random() % 8);
        }
        if (packet[0] < 0x80 && (packet.size() <= 6 || packet[0] > 0x0F || word(packet, 0) == 0))
            return;
        if (happens(fates.repeat))
            under_way.emplace(now + delay(), packet);
        under_way.emplace(now + (happens(fates.delay) ? delay() : 1000), packet);
    }
    /// When the next packet arrives; far away when none is under way.
    long long due() const
    {
        return under_way.empty() ? LLONG_MAX : under_way.begin()->first;
    }
    Bytes delivers()
    {
        return under_way.extract(under_way.begin()).mapped();
    }
};

// ---- The host ----

/// An end that is played by the model: it confirms, answers queries, and asks now and then.
struct PlayedEnd {
    Line line; ///< takes what this end sends
    bool asks;
    PacketModel packets = {};
    MessageModel messages = {};
    Bytes request = {}; ///< being sent
    int transmissions = 0;
    long long repeat_at = 0;
    uint8_t number = 0;
    std::deque<Bytes> to_send = {};

    void sends(const Bytes &message, long long now)
    {
        for (const Bytes &packet : packets_of(message))
            line.takes(packet, now);
    }
    void receives(Bytes packet, long long now)
    {
        const size_t size = packet.size();
        packet.resize(35);
        packets.take(packet, size);
        for (; !packets.delivered.empty(); packets.delivered.pop_front())
            messages.receive(packets.delivered.front());
        for (; !messages.to_confirm.empty(); messages.to_confirm.pop_front())
            sends(messages.to_confirm.front(), now);
        for (; !messages.to_hand_on.empty(); messages.to_hand_on.pop_front())
            answers(messages.to_hand_on.front());
    }
    void answers(const Bytes &message)
    {
        if (message[0] != 43)
            return;
        Bytes answer = numbered(44, 0, 24);
        put_word(answer, 12, word(message, 12));
        const uint64_t size = word(message, 12) * bytes_for_each_id;
        put_word(answer, 16, static_cast<uint32_t>(size));
        put_word(answer, 20, static_cast<uint32_t>(size >> 32));
        to_send.push_back(answer);
    }
    /// What it does of its own accord: a request three times, a second each, or until it is confirmed.
    void goes_on(long long now)
    {
        if (!request.empty() && messages.awaited && now < repeat_at)
            return;
        if (request.empty() || !messages.awaited || transmissions == 3)
            begins_another();
        if (request.empty())
            return;
        ++transmissions;
        repeat_at = now + 1000000;
        sends(request, now);
    }
    void begins_another()
    {
        messages.awaited = 0;
        request.clear();
        if (to_send.empty() && asks && line.random() % 20 == 0) {
            to_send.push_back(numbered(43, 0, 24));
            put_word(to_send.back(), 12, static_cast<uint32_t>(line.random() | 1));
        }
        if (to_send.empty())
            return;
        request = to_send.front();
        to_send.pop_front();
        number = static_cast<uint8_t>(number % 255 + 1);
        request[8] = messages.awaited = number;
        transmissions = 0;
    }
};
