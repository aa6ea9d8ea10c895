// The whole stack of the update mode, from the device to the handler, and a host that sends anything:
// records of 1 to 64 bytes as they are, messages in proper packets, and such with a lost or damaged packet.
// Only the stops that a peer can cause may happen; an updater is written as its message says, and tried.

#include "fuzz/fuzz.h"
#include "support/fake_kernel.h"
#include "support/link_referee.h"

#include "qel_application_loader/update_mode.h"
#include "qel_tolbrin/qel_sysmsg.h"

#include <errno.h>

#include <deque>

namespace
{

enum { link_file = 500, lcd_file = 501, updater_file = 502 };

/// The board's devices, and a clock that goes on with each look for a stick.
struct Board {
    explicit Board(FuzzedDataProvider &fuzz_input) : input(fuzz_input)
    {
        kernel.set_time(1000);
        kernel.on_open = [](const char *path, int, mode_t) {
            const std::string name = path;
            return name == "/tmp/updater" ? updater_file : name == "/dev/qellpc_lcd" ? lcd_file : link_file;
        };
        kernel.on_close = [](int) { return 0; };
        kernel.on_access = [this](const char *, int) { return look_for_stick(); };
        kernel.on_read = [this](int, void *bytes, size_t size) { return read_record(bytes, size); };
        kernel.on_write = [this](int file, const void *bytes, size_t size) {
            return take(file, static_cast<const uint8_t *>(bytes), size);
        };
        kernel.on_execve = [this](auto...) -> int {
            require(wrote_updater, "an updater that was not written");
            throw LeftProduct();
        };
    }

    FuzzedDataProvider &input;
    FakeKernel kernel;
    std::deque<Bytes> records; ///< under way to the loader
    bool wrote_updater = false;

    int look_for_stick()
    {
        kernel.forget_calls();
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
        const unsigned crc = LinkReferee::crc16(message);
        const auto size = static_cast<uint8_t>(message.size());
        Bytes packet = {0, 0, 0, size, static_cast<uint8_t>(crc >> 8), static_cast<uint8_t>(crc)};
        const uint8_t fault = input.ConsumeIntegral<uint8_t>();
        for (const uint8_t byte : message) {
            if (packet.size() == 35) {
                records.push_back(packet);
                packet = {0x80};
            }
            packet.push_back(byte);
        }
        records.push_back(packet);
        if (fault < 16)
            records[fault % records.size()][0] ^= 0x80;
        else if (fault < 32)
            records.erase(records.begin() + static_cast<long>(fault % records.size()));
    }

    ssize_t read_record(void *bytes, size_t size)
    {
        require(size == 64, "room for a record", std::to_string(size));
        if (records.empty()) {
            errno = EAGAIN;
            return -1;
        }
        const Bytes record = records.front();
        records.pop_front();
        std::copy(record.begin(), record.end(), static_cast<uint8_t *>(bytes));
        return static_cast<ssize_t>(record.size());
    }

    ssize_t take(int file, const uint8_t *bytes, size_t size)
    {
        // What an updater's length claims may not be there; the kernel would look before it reads.
        wrote_updater = wrote_updater || file == updater_file;
        if (file == link_file) {
            const Bytes packet(bytes, bytes + size);
            require(size > 6 && size <= 35, "the size of a packet", hex_of(packet));
            require(packet[0] == 0 || packet[0] == 0x80, "the start of a packet", hex_of(packet));
        }
        if (file == lcd_file)
            require(bytes[size - 1] == '\0' && bytes[0] >= '0' && bytes[0] <= '2', "a row of the display",
                    hex_of(bytes, size));
        return static_cast<ssize_t>(size);
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const Outcome outcome = run([&] {
        Board board(input);
        try {
            qel_run_update_mode();
        } catch (const LeftProduct &) {
            // the updater has taken over
        }
    });
    require_documented(outcome, outcome.unit.c_str(),
                       {"len > 6", "len <= comms->packet_size_max", "buf", "len == sysmsg->msg_size",
                        "sysmsg->msg_size >= sizeof(struct qel_sysmsg_confirmed)", "confirmed->sequence"});
    return 0;
}
