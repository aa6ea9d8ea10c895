// What is measured inside one process, with Google Benchmark: the CRC compared with its usual forms, and the
// packet link with the least that can move a message. The product's code is compiled for size, as it ships,
// the peers for speed.

#include "qel_tolbrin/qel_comms.h"

#include <benchmark/benchmark.h>
#include <boost/crc.hpp>
#include <string.h>

#include <array>
#include <random>
#include <vector>

static std::vector<uint8_t> random_bytes(size_t size)
{
    std::mt19937 random(size);
    std::vector<uint8_t> bytes(size);
    for (uint8_t &byte : bytes)
        byte = static_cast<uint8_t>(random());
    return bytes;
}

// ---- CRC ----

static constexpr std::array<uint16_t, 256> make_table()
{
    std::array<uint16_t, 256> table{};
    for (unsigned byte = 0; byte < 256; byte++) {
        unsigned value = byte << 8;
        for (int bit = 0; bit < 8; bit++)
            value = value << 1 ^ (value & 0x8000 ? 0x1021 : 0);
        table[byte] = static_cast<uint16_t>(value);
    }
    return table;
}

static const std::array<uint16_t, 256> table = make_table();

static uint16_t crc_of_product(const uint8_t *bytes, size_t size)
{
    return qel_crc16(bytes, static_cast<int>(size));
}

/// The definition with a table: every byte is shifted in below, then two of zeros.
static uint16_t crc_by_table(const uint8_t *bytes, size_t size)
{
    unsigned crc = 0xFFFF;
    for (size_t i = 0; i < size; i++)
        crc = (crc << 8 & 0xFF00) ^ bytes[i] ^ table[crc >> 8];
    for (int i = 0; i < 2; i++)
        crc = (crc << 8 & 0xFF00) ^ table[crc >> 8];
    return static_cast<uint16_t>(crc);
}

/// The form that is usual in kernels: the byte joins at the top, the zeros are in the start value.
static uint16_t crc_as_in_kernels(const uint8_t *bytes, size_t size)
{
    uint16_t crc = 0x1D0F;
    while (size--)
        crc = static_cast<uint16_t>(crc << 8 ^ table[(crc >> 8 ^ *bytes++) & 0xFF]);
    return crc;
}

static uint16_t crc_of_boost(const uint8_t *bytes, size_t size)
{
    boost::crc_optimal<16, 0x1021, 0x1D0F, 0, false, false> crc;
    crc.process_bytes(bytes, size);
    return crc.checksum();
}

using Crc = uint16_t (*)(const uint8_t *bytes, size_t size);

static void crc(benchmark::State &state, Crc function)
{
    const std::vector<uint8_t> bytes = random_bytes(static_cast<size_t>(state.range(0)));
    if (function(bytes.data(), bytes.size()) != crc_by_table(bytes.data(), bytes.size()))
        state.SkipWithError("another CRC");
    for (auto _ : state)
        benchmark::DoNotOptimize(function(bytes.data(), bytes.size()));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

#define CRC(name, function) BENCHMARK_CAPTURE(crc, name, function)->Arg(29)->Arg(65536)->Arg(1048576)
CRC(product, crc_of_product);
CRC(table, crc_by_table);
CRC(boost, crc_of_boost);
CRC(kernel, crc_as_in_kernels);

// ---- The packet link ----

static constexpr int packet_bytes = 35;
static constexpr int message_bytes = 1024 * 1024;

/// Both ends of a link that loses nothing: what is sent is received at once.
struct Loop {
    qel_comms *comms;
    uint8_t packet[packet_bytes];
    int delivered;
};

static void *begin(void *loop)
{
    return static_cast<Loop *>(loop)->packet;
}

static int end(void *loop, void *packet, int length, int)
{
    return qel_comms_receive_packet(static_cast<Loop *>(loop)->comms, packet, length);
}

static void deliver(void *loop, const void *, int length)
{
    static_cast<Loop *>(loop)->delivered = length;
}

static void link_of_product(benchmark::State &state)
{
    const std::vector<uint8_t> message = random_bytes(message_bytes);
    static Loop loop;
    if (!loop.comms)
        loop.comms = qel_comms_create(packet_bytes, begin, end, &loop, nullptr, nullptr);
    qel_comms_set_receiver(loop.comms, deliver, &loop);
    for (auto _ : state) {
        loop.delivered = 0;
        qel_comms_send(loop.comms, message.data(), message_bytes);
        if (loop.delivered != message_bytes)
            state.SkipWithError("not delivered");
    }
}
BENCHMARK(link_of_product)->Name("link/product");

/// Puts the next bytes after the header of a packet and takes them out at the other end.
static void move(uint8_t *packet, int header, const uint8_t *&from, uint8_t *&to, int &left)
{
    const int count = std::min(packet_bytes - header, left);
    memcpy(packet + header, from, static_cast<size_t>(count));
    from += count;
    benchmark::ClobberMemory();
    memcpy(to, packet + header, static_cast<size_t>(count));
    to += count;
    left -= count;
}

static void link_minimal(benchmark::State &state)
{
    const std::vector<uint8_t> message = random_bytes(message_bytes);
    std::vector<uint8_t> received(message_bytes);
    uint8_t packet[packet_bytes];
    for (auto _ : state) {
        const uint8_t *from = message.data();
        uint8_t *to = received.data();
        int left = message_bytes;
        const uint16_t crc = qel_crc16(from, message_bytes);
        packet[4] = static_cast<uint8_t>(crc >> 8);
        packet[5] = static_cast<uint8_t>(crc);
        move(packet, 6, from, to, left);
        while (left > 0) {
            packet[0] = 0x80;
            move(packet, 1, from, to, left);
        }
        if (qel_crc16(received.data(), message_bytes) != crc)
            state.SkipWithError("another CRC");
    }
}
BENCHMARK(link_minimal)->Name("link/minimal");
