// Puts the stack together. What passes between the layers is looked at here, which gives the counts; what a
// peer might send to stop the libraries is dropped here, with a line that says so.

#include "link.h"

#include <math.h>
#include <signal.h>
#include <stdio.h>
#include <time.h>

#include <algorithm>

#include "catalogue.h"
#include "describe.h"
#include "errors.h"

namespace
{

const uint32_t message_bytes_max = 256 << 20; // far beyond any updater that fits the cabinet's memory
const int library_wait_ms = 5;                // a poll of the libraries waits so long for input
const uint32_t sequence_offset = 8;

/// The link of this process: the message handler of the library is not given a context of ours.
Link *the_link;

volatile sig_atomic_t interrupted;

void interrupt(int)
{
    interrupted = 1;
}

void refuse(Link &link, const std::string &what)
{
    link.counts.refused++;
    fprintf(stderr, "ignored: %s\n", what.c_str());
}

// ---- Down: messages to packets ----

void *begin_packet(void *context)
{
    return transport_begin_record(static_cast<Link *>(context)->transport);
}

/// Ends the command where it stands when there is nobody to talk to, or on behalf of the user.
void check_end(const Link &link)
{
    if (link.outlives_peer)
        return;
    if (interrupted)
        throw CommandError(exit_interrupted, "interrupted");
    if (!link.transport.gone.empty())
        throw LinkError(link.transport.gone);
}

int end_packet(void *context, void *packet, int len, int)
{
    auto &link = *static_cast<Link *>(context);
    bool is_first = (static_cast<const uint8_t *>(packet)[0] & 0x80) == 0;
    transport_end_record(link.transport, len);
    link.message_sent += static_cast<uint64_t>(len - (is_first ? 6 : 1));
    if (link.on_progress)
        link.on_progress(link.message_sent, link.message_bytes);
    if (!link.receiving)
        check_end(link);
    return len;
}

/// Between the message layer and the packet link: counts what goes out.
int send_message(void *context, const void *message, int len)
{
    auto &link = *static_cast<Link *>(context);
    uint32_t type = qel_sysmsg_get32(message, 0);
    uint8_t sequence = len > static_cast<int>(sequence_offset)
                           ? static_cast<const uint8_t *>(message)[sequence_offset]
                           : uint8_t{0};
    if (type == qel_sysmsg_type_confirmed) {
        link.reached = true;
        if (sequence == link.last_confirmed)
            link.counts.duplicates++;
        link.last_confirmed = sequence;
    }
    if (qel_sysmsg_has_sequence(type) && sequence == link.last_sent) {
        link.counts.resent++;
    } else {
        link.counts.messages_sent++;
        if (qel_sysmsg_has_sequence(type))
            link.last_sent = sequence;
    }
    link.message_bytes = static_cast<uint64_t>(len);
    link.message_sent = 0;
    return qel_comms_send(link.reassembly.comms, message, len);
}

// ---- Up: records to messages ----

void receive_record(Link &link, std::span<const uint8_t> record)
{
    PacketReport report = reassembly_take(link.reassembly, record);
    if (report.outcome == PacketOutcome::crc_wrong)
        link.counts.crc_wrong++;
    if (report.interrupts)
        link.counts.incomplete++;
    if (report.outcome == PacketOutcome::refused)
        refuse(link, std::string("a packet: ") + report.reason + ": " + hex_bytes(record));
}

/// What the message layer accepts came through to the handler, caused a confirm, or was a confirm.
void receive_message(Link &link, std::span<const uint8_t> message)
{
    link.counts.messages_received++;
    if (!catalogue_check(message).empty())
        return refuse(link, "a message: " + describe_message(message));
    uint32_t type = qel_sysmsg_get32(message.data(), 0);
    if (type == link.reply_type && message.size() > link.reply_bytes_max)
        return refuse(link, "an answer too long to take: " + describe_message(message));
    link.reached = false;
    qel_sysmsg_receive(link.con, message.data(), static_cast<int>(message.size()));
    if (qel_sysmsg_has_sequence(type) && !link.reached)
        link.counts.unseen++;
}

void handle_message(qel_sysmsg_con *, const void *message)
{
    Link &link = *the_link;
    if (link.on_message)
        link.on_message({static_cast<const uint8_t *>(message), qel_sysmsg_get32(message, 4)});
}

/// A peer that answers and hangs up at once has answered: its going counts when nothing more comes.
bool take_in(Link &link, int wait_ms)
{
    link.receiving = true;
    bool anything = transport_poll(link.transport, wait_ms);
    link.receiving = false;
    if (!anything || interrupted)
        check_end(link);
    return anything;
}

int poll_transport(void *context)
{
    return take_in(*static_cast<Link *>(context), library_wait_ms);
}

} // namespace

void link_start(Link &link)
{
    the_link = &link;
    qel_comms *comms =
        qel_comms_create(packet_bytes_max, begin_packet, end_packet, &link, poll_transport, &link);
    link.con = qel_sysmsg_create(handle_message, send_message, &link, qel_comms_poll, comms);
    link.reassembly.message_bytes_max = message_bytes_max;
    link.reassembly.on_message = [&link](std::span<const uint8_t> message) {
        receive_message(link, message);
    };
    link.transport.on_record = [&link](std::span<const uint8_t> record) { receive_record(link, record); };
    reassembly_start(link.reassembly, comms);
}

void link_poll(Link &link, int wait_ms)
{
    take_in(link, wait_ms);
}

bool link_poll_for(Link &link, double seconds, const std::function<bool()> &enough)
{
    double end = seconds_now() + seconds;
    for (;;) {
        if (enough && enough())
            return true;
        double left = end - seconds_now();
        if (left <= 0 || (link.outlives_peer && interrupted))
            return false;
        link_poll(link, static_cast<int>(ceil(std::min(left, 0.1) * 1000)));
    }
}

void link_forget_peer(Link &link)
{
    qel_sysmsg_forget_sequence();
    link.last_confirmed = 0;
    reassembly_start(link.reassembly, link.reassembly.comms);
}

void link_print_counts(const Link &link)
{
    const LinkCounts &counts = link.counts;
    fprintf(stderr,
            "link: packets %llu sent, %llu received; messages %llu sent, %llu received; %llu resent; "
            "dropped: %llu by CRC, %llu incomplete, %llu duplicates, %llu unseen, %llu refused\n",
            static_cast<unsigned long long>(link.transport.records_sent),
            static_cast<unsigned long long>(link.transport.records_received),
            static_cast<unsigned long long>(counts.messages_sent),
            static_cast<unsigned long long>(counts.messages_received),
            static_cast<unsigned long long>(counts.resent), static_cast<unsigned long long>(counts.crc_wrong),
            static_cast<unsigned long long>(counts.incomplete),
            static_cast<unsigned long long>(counts.duplicates),
            static_cast<unsigned long long>(counts.unseen), static_cast<unsigned long long>(counts.refused));
}

void catch_interrupts()
{
    struct sigaction action = {};
    action.sa_handler = interrupt;
    action.sa_flags = static_cast<int>(SA_RESETHAND); // a second one ends the program, whatever it waits for
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

bool was_interrupted()
{
    return interrupted != 0;
}

double seconds_now()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}
