// The whole stack of the update mode, from the device to the handler, and a host that sends anything:
// records of 1 to 64 bytes as they are, messages in proper packets, and such with a lost or damaged packet.
// Stops must come where the rules of packets and messages say, and no others; what is to be confirmed or
// answered is, and nothing else; an updater is written as its message says, and tried, and nothing else is.

#include "fuzz/fuzz.h"
#include "fuzz/rules.h"
#include "support/fake_kernel.h"

#include "qel_application_loader/update_mode.h"
#include "qel_tolbrin/qel_sysmsg.h"

#include <errno.h>
#include <fcntl.h>

#include <deque>

namespace
{

enum { link_file = 500, lcd_file = 501, updater_file = 502 };

/// The board's devices, and a clock that goes on with each look for a stick.
struct Board {
    Board(FuzzedDataProvider &fuzz_input, Bytes &expected_updater)
        : input(fuzz_input), updater(expected_updater)
    {
        kernel.keeps_books = false;
        kernel.set_time(1000);
        kernel.on_open = [](const char *path, int flags, mode_t mode) {
            const std::string name = path;
            const bool is_updater = name == "/tmp/updater";
            REQUIRE(!is_updater || (flags == (O_WRONLY | O_CREAT) && mode == 0755), "how it is opened");
            return is_updater ? updater_file : name == "/dev/qellpc_lcd" ? lcd_file : link_file;
        };
        kernel.on_close = [](int) { return 0; };
        kernel.on_access = [this](const char *, int) { return look_for_stick(); };
        kernel.on_read = [this](int, void *bytes, size_t size) { return read_record(bytes, size); };
        kernel.on_write = [this](int file, const void *bytes, size_t size) {
            return take(file, static_cast<const uint8_t *>(bytes), size);
        };
        kernel.on_execve = [this](const char *path, auto...) -> int {
            REQUIRE(wrote_updater, "an updater that was not written");
            REQUIRE(path == std::string("/tmp/updater"), "what is executed", path);
            throw LeftProduct();
        };
    }

    FuzzedDataProvider &input;
    Bytes &updater; ///< the message that the records so far have led to, or nothing
    FakeKernel kernel;
    PacketModel packets{35, heap_block_bytes_max};
    MessageModel messages;
    Bytes buffer = Bytes(64);  ///< that of the transport, which is empty when it begins to read
    std::deque<Bytes> records; ///< under way to the loader
    std::deque<Bytes> answers; ///< that it must give, or their beginnings where nobody knows the rest
    bool wrote_updater = false;

    int look_for_stick()
    {
        kernel.advance_usec(300000);
        if (input.remaining_bytes() == 0)
            return 0;
        input.ConsumeBool()
            ? add_message()
            : records.push_back(input.ConsumeBytes<uint8_t>(input.ConsumeIntegralInRange<size_t>(1, 64)));
        errno = ENOENT;
        return -1;
    }

    void add_message()
    {
        Bytes message(input.ConsumeIntegralInRange<size_t>(1, 200));
        const Bytes body = input.ConsumeBytes<uint8_t>(message.size());
        std::copy(body.begin(), body.end(), message.begin());
        if (message.size() >= 8 && input.ConsumeIntegral<uint8_t>() > 8) {
            qel_sysmsg_put32(message.data(), 0, input.PickValueInArray<uint32_t>({5, 5, 10, 15, 22, 30}));
            qel_sysmsg_put32(message.data(), 4, static_cast<uint32_t>(message.size()));
        }
        const uint8_t fault = input.ConsumeIntegral<uint8_t>();
        for (const Bytes &packet : packets_of(message))
            records.push_back(packet);
        if (fault < 16)
            records[fault % records.size()][0] ^= 0x80;
        else if (fault < 32)
            records.erase(records.begin() + static_cast<long>(fault % records.size()));
    }

    ssize_t read_record(void *bytes, size_t size)
    {
        REQUIRE(size == 64, "room for a record", std::to_string(size));
        REQUIRE(expected_stop.empty(), "no stop", "", expected_stop);
        REQUIRE(updater.empty(), "not tried", "", hex_of(updater));
        REQUIRE(answers.empty(), "not answered", "", answers.empty() ? "" : hex_of(answers.front()));
        if (records.empty()) {
            buffer.assign(64, 0);
            errno = EAGAIN;
            return -1;
        }
        const Bytes record = records.front();
        records.pop_front();
        std::copy(record.begin(), record.end(), static_cast<uint8_t *>(bytes));
        expect(record);
        return static_cast<ssize_t>(record.size());
    }

    void expect(const Bytes &record)
    {
        if (record.empty()) { // ends the reading
            buffer.assign(64, 0);
            return;
        }
        std::copy(record.begin(), record.end(), buffer.begin());
        expected_unit = "qel_tolbrin/qel_comms";
        expected_stop = packets.take(buffer, record.size());
        if (packets.delivered.empty())
            return;
        expected_unit = "qel_tolbrin/qel_sysmsg";
        expected_stop = messages.receive(packets.delivered.front());
        packets.delivered.clear();
        answers.swap(messages.to_confirm);
        if (!messages.to_hand_on.empty())
            expect_handling(messages.to_hand_on.front());
        messages.to_hand_on.clear();
    }

    /// A connect that ends before its value is answered with what lies in memory.
    void expect_handling(const Bytes &message)
    {
        const uint32_t type = word(message, 0);
        if (type == 10)
            updater = message;
        if (type != 5)
            return;
        answers.push_back({38, 0, 0, 0, 12, 0, 0, 0});
        if (message.size() >= 12)
            answers.back().insert(answers.back().end(), message.begin() + 8, message.begin() + 12);
    }

    /// What the loader sends fits one packet: its notices and its answers.
    void take_packet(const Bytes &packet)
    {
        REQUIRE(packet.size() > 6 && packet.size() <= 35, "the size of a packet", hex_of(packet));
        const Bytes message(packet.begin() + 6, packet.end());
        REQUIRE(packet == packets_of(message).front(), "a packet", hex_of(packet));
        if (message == Bytes({11, 0, 0, 0, 8, 0, 0, 0}))
            return;
        REQUIRE(!answers.empty(), "no answer", hex_of(message));
        const Bytes &answer = answers.front();
        REQUIRE(message.size() == 12 && std::equal(answer.begin(), answer.end(), message.begin()),
                "an answer", hex_of(message), hex_of(answer));
        answers.pop_front();
    }

    /// As many bytes as the message says; of those, the ones that it has. One that ends before its length
    /// says what lies in memory.
    void take_updater(const uint8_t *bytes, size_t size)
    {
        const Bytes &message = updater;
        REQUIRE(!message.empty() && !wrote_updater, "an updater without a message", std::to_string(size));
        wrote_updater = true;
        if (message.size() < 12)
            return;
        REQUIRE(size == word(message, 8), "its length", std::to_string(size), hex_of(message));
        const size_t count = std::min(size, message.size() - 12);
        REQUIRE(std::equal(bytes, bytes + count, message.begin() + 12), "its bytes", hex_of(bytes, count),
                hex_of(message));
    }

    ssize_t take(int file, const uint8_t *bytes, size_t size)
    {
        if (file == updater_file)
            take_updater(bytes, size);
        if (file == link_file)
            take_packet(Bytes(bytes, bytes + size));
        if (file == lcd_file)
            REQUIRE(bytes[size - 1] == '\0' && bytes[0] >= '0' && bytes[0] <= '2', "a row of the display",
                    hex_of(bytes, size));
        return static_cast<ssize_t>(size);
    }
};

} // namespace

const int input_bytes_max = 512; // a message has 200 bytes at most

void work_on(FuzzedDataProvider &input)
{
    heap_block_bytes_min = 12; // the handler reads a message's value also where the message ends before it
    Bytes updater;
    bool has_left = false;
    run_to_end([&] {
        Board board(input, updater);
        try {
            qel_run_update_mode();
        } catch (const LeftProduct &) {
            has_left = true; // the updater has taken over
        }
    });
    REQUIRE(has_left == !updater.empty(), "the updater's turn", "", hex_of(updater));
}
