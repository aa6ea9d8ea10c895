// A recording of a link on which everything goes wrong once, after a few messages that are right. The CRCs
// were computed elsewhere.

#include "trouble.h"

#include <stdexcept>

#include "recording.h"
#include "support.h"

namespace
{

struct Record {
    uint64_t time_us;
    Direction direction;
    const char *hex;
};

/// The first packet of a message in three.
const char *const get_item_size_begins = "00 00 00 40 f3 b4 27 00 00 00 40 00 00 00 02 00 00 00 01 00 00 00 "
                                         "6e 61 6d 65 00 00 00 00 00 00 00 00 00";

const Record records[] = {
    // connect and its answer, a notice
    {1700000000000000, Direction::outbound, "00 00 00 0c e9 99 05 00 00 00 0c 00 00 00 2a 00 00 00"},
    {1700000000000312, Direction::inbound, "00 00 00 0c 82 a6 26 00 00 00 0c 00 00 00 2a 00 00 00"},
    {1700000001000312, Direction::inbound, "00 00 00 08 b2 55 0b 00 00 00 08 00 00 00"},
    // a query in three packets, a notice from the other end in between, its confirm
    {1700000001015312, Direction::outbound, get_item_size_begins},
    {1700000001022312, Direction::inbound, "00 00 00 08 b2 55 0b 00 00 00 08 00 00 00"},
    {1700000001030312, Direction::outbound,
     "80 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 03 00 00 00 00 00 00 00 00 00 00 00 00 00 "
     "00"},
    {1700000001045312, Direction::outbound, "80 00"},
    {1700000001045812, Direction::inbound, "00 00 00 0c 46 56 0f 00 00 00 0c 00 00 00 02 00 00 00"},
    // a wrong CRC; a continuation of nothing; a message that is not complete when the next begins
    {1700000001045912, Direction::inbound, "00 00 00 08 b2 54 0b 00 00 00 08 00 00 00"},
    {1700000001046012, Direction::inbound, "80 61"},
    {1700000001046112, Direction::inbound, get_item_size_begins},
    {1700000001046212, Direction::inbound, "00 00 00 08 b2 55 0b 00 00 00 08 00 00 00"},
    // a message of 2 GiB; a first packet without a message; a packet that is too long
    {1700000001046312, Direction::inbound, "7f ff ff ff 00 00 61"},
    {1700000001046412, Direction::outbound, "00 00 00 05 00 00"},
    {1700000001046512, Direction::inbound,
     "80 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 "
     "00 00 00 "
     "00 00 00"},
    // a type that nobody knows, from nobody knows where; a message of the wrong size; one that is cut off
    {1700000001046612, Direction::unknown, "00 00 00 09 01 1e 4d 00 00 00 09 00 00 00 61"},
    {1700000001046712, Direction::inbound, "00 00 00 08 2c 44 05 00 00 00 08 00 00 00"},
    {1700000001046812, Direction::outbound, get_item_size_begins},
    // and another one, which a first packet without a message ends
    {1700000001046912, Direction::inbound, get_item_size_begins},
    {1700000001047012, Direction::inbound, "00 00 00 05 00 00"},
};

} // namespace

void record_trouble(const std::string &path)
{
    FILE *file = recording_create(path.c_str());
    if (file == nullptr)
        throw std::runtime_error("cannot write " + path);
    for (const Record &record : records) {
        std::string packet = bytes(record.hex);
        recording_add(file, record.time_us, record.direction,
                      {reinterpret_cast<const uint8_t *>(packet.data()), packet.size()});
    }
    fclose(file);
}
