/// The other end of a system-message connection, played by the test, on a clock that only polls move.
///
///     ScriptedPeer peer;
///     peer.on_send = [&](int n, const Bytes &message) { peer.delivers(500, confirm_of(message)); };
///     EXPECT_EQ(qel_sysmsg_request(&peer.con, message), 1);
///     EXPECT_THAT(peer.sent, ElementsAre(shown("0 ms: 16 00 00 00 0C 00 00 00 ## 00 00 00")));
///
/// Times are milliseconds since the peer was made. Each poll first lets `poll_ms` pass and then delivers
/// what is due.
#pragma once

#include "support/fake_kernel.h"
#include "support/link_model.h"

#include "qel_tolbrin/qel_sysmsg.h"

#include <gtest/gtest.h>
#include <string.h>

#include <functional>
#include <map>

/// Messages in comparable form. Where the text has "##" stands the number of a sequenced message.
inline std::string shown(const std::string &text)
{
    const size_t colon = text.find(": ");
    const std::string time = colon == std::string::npos ? "" : text.substr(0, colon + 2);
    const std::string message = colon == std::string::npos ? text : text.substr(colon + 2);
    const size_t number = message.find("##");
    if (number == std::string::npos)
        return time + hex(message);
    return time + hex(message.substr(0, number)) + " ## " + hex(message.substr(number + 2));
}

/// The message as text, its number, if it has one, as "##".
inline std::string shown(const Bytes &message)
{
    if (!qel_sysmsg_has_sequence(qel_sysmsg_get32(message.data(), 0)))
        return hex_of(message);
    EXPECT_GT(message.size(), 8U);
    EXPECT_NE(message.at(8), 0);
    return hex_of(message.data(), 8) + " ## " + hex_of(message.data() + 9, message.size() - 9);
}

struct ScriptedPeer {
    ScriptedPeer()
    {
        starts_at(1000);
    }

    /// Sets the clock: the time in seconds at which the test's 0 ms lies.
    void starts_at(time_t seconds, long microseconds = 0)
    {
        kernel.set_time(seconds, microseconds);
        start_usec = kernel.clock_usec;
    }
    long now_ms() const
    {
        return static_cast<long>((kernel.clock_usec - start_usec) / 1000);
    }

    /// Lets a message arrive in the first poll that ends at `ms` or later.
    void delivers_at(long ms, const Bytes &message)
    {
        due.emplace(ms, message);
    }
    /// The same, counted from now.
    void delivers(long after_ms, const Bytes &message)
    {
        delivers_at(now_ms() + after_ms, message);
    }

    /// Confirms every sequenced message in the next poll.
    void confirms()
    {
        on_send = [this](int, const Bytes &message) {
            if (qel_sysmsg_has_sequence(message.at(0)))
                delivers(0, confirm_of(message));
        };
    }
    /// Confirms, and answers with `reply` in the same poll.
    void answers(const Bytes &reply)
    {
        on_send = [this, reply](int, const Bytes &message) {
            if (!qel_sysmsg_has_sequence(message.at(0)))
                return;
            delivers(0, confirm_of(message));
            delivers(0, reply);
        };
    }
    void answers(const std::string &reply)
    {
        answers(bytes_of(reply));
    }

    /// Hands a message to the core, from a block of exactly its size.
    void receive(const Bytes &message)
    {
        auto *block = static_cast<uint8_t *>(real_malloc(message.size()));
        memcpy(block, message.data(), message.size());
        qel_sysmsg_receive(&con, block, static_cast<int>(message.size()));
        free(block);
    }
    void receive(const std::string &message)
    {
        receive(bytes_of(message));
    }

    FakeKernel kernel;
    qel_sysmsg_con con = {handle, take, this, poll, this};
    std::vector<std::string> sent;    ///< what the core sent, "1000 ms: ..."
    std::vector<std::string> handled; ///< what the handler got, in hex
    std::vector<Bytes> transmissions; ///< what the core sent, as it stands
    /// Called for every transmission, with its number from 1.
    std::function<void(int n, const Bytes &message)> on_send;
    /// Called for everything the handler gets.
    std::function<void(const Bytes &message)> on_handle;
    /// Called in every poll, after the deliveries.
    std::function<void()> on_poll;
    long poll_ms = 1;
    int polls = 0;
    static int take(void *peer, const void *message, int len)
    {
        auto *self = static_cast<ScriptedPeer *>(peer);
        const auto *bytes = static_cast<const uint8_t *>(message);
        self->transmissions.emplace_back(bytes, bytes + len);
        const Bytes &last = self->transmissions.back();
        self->sent.push_back(std::to_string(self->now_ms()) + " ms: " + shown(last));
        if (self->on_send)
            self->on_send(static_cast<int>(self->sent.size()), Bytes(last));
        return 0; // which the core does not look at
    }
    static int poll(void *peer)
    {
        auto *self = static_cast<ScriptedPeer *>(peer);
        self->polls++;
        self->kernel.advance_usec(self->poll_ms * 1000);
        while (!self->due.empty() && self->due.begin()->first <= self->now_ms()) {
            const Bytes message = self->due.begin()->second;
            self->due.erase(self->due.begin());
            self->receive(message);
        }
        if (self->on_poll)
            self->on_poll();
        return 0;
    }
    static void handle(qel_sysmsg_con *connection, const void *message)
    {
        auto *self = static_cast<ScriptedPeer *>(connection->poll_ctx);
        EXPECT_EQ(connection, &self->con);
        const uint32_t size = qel_sysmsg_get32(message, 4);
        self->handled.push_back(hex_of(message, size));
        const auto *bytes = static_cast<const uint8_t *>(message);
        if (self->on_handle)
            self->on_handle(Bytes(bytes, bytes + size));
    }

    long long start_usec = 0;
    std::multimap<long, Bytes> due;
};
