// The commands that announce and send: connect, update, send-file, test-pattern.

#include "commands.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <map>

#include "arguments.h"
#include "describe.h"
#include "errors.h"
#include "progress.h"

namespace
{

/// Announcements under way: value carried, and when it was sent.
using SentAt = std::map<uint32_t, double>;

struct RoundTrips {
    unsigned sent = 0;
    unsigned answered = 0;
    double sum = 0, shortest = 1e9, longest = 0;
};

void print_answer(RoundTrips &trips, SentAt &sent_at, uint32_t value)
{
    auto sent = sent_at.find(value);
    if (sent == sent_at.end()) {
        printf("answer to %u, which was not asked\n", value);
        return;
    }
    double trip = seconds_now() - sent->second;
    sent_at.erase(sent);
    trips.answered++;
    trips.sum += trip;
    trips.shortest = std::min(trips.shortest, trip);
    trips.longest = std::max(trips.longest, trip);
    printf("answer to %u after %.2f ms\n", value, trip * 1000);
}

void announce_until_the_end(Link &link, double seconds, RoundTrips &trips, SentAt &sent_at)
{
    double end = seconds_now() + seconds;
    while (seconds == 0 || seconds_now() < end) {
        uint32_t value = ++trips.sent;
        sent_at[value] = seconds_now();
        qel_sysmsg_connect(link.con, value);
        double next = sent_at[value] + 1;
        link_poll_for(link, (seconds == 0 ? next : std::min(next, end)) - seconds_now());
    }
}

} // namespace

// ---- connect ----

int command_connect(Link &link, const ConnectOptions &options)
{
    RoundTrips trips;
    SentAt sent_at;
    link.on_message = [&](std::span<const uint8_t> message) {
        uint32_t type = qel_sysmsg_get32(message.data(), 0);
        if (type == qel_sysmsg_type_connect_answer)
            print_answer(trips, sent_at, qel_sysmsg_get32(message.data(), 8));
        else
            printf("%s\n", describe_message(message).c_str());
    };
    try {
        announce_until_the_end(link, options.seconds, trips, sent_at);
    } catch (const CommandError &end) {
        if (end.code != exit_interrupted)
            throw;
    }
    printf("announced %u times, answered %u times", trips.sent, trips.answered);
    if (trips.answered > 0)
        printf(", round trip %.2f / %.2f / %.2f ms (shortest / mean / longest)", trips.shortest * 1000,
               trips.sum / trips.answered * 1000, trips.longest * 1000);
    printf("\n");
    if (trips.answered == 0)
        throw LinkError(
            "the other end did not answer; is it in update mode, or another qel-host that serves?");
    return exit_done;
}

// ---- update ----

namespace
{

/// Announces the host with `value` and the values that follow, once a second for `seconds`, until one of
/// them is answered or the peer is gone. Returns whether one was answered.
bool loader_answers(Link &link, double seconds, uint32_t value)
{
    bool answered = false;
    link.on_message = [&](std::span<const uint8_t> message) {
        answered |= qel_sysmsg_get32(message.data(), 0) == qel_sysmsg_type_connect_answer &&
                    qel_sysmsg_get32(message.data(), 8) >= value;
    };
    auto settled = [&] { return answered || !link.transport.gone.empty(); };
    double end = seconds_now() + seconds;
    for (uint32_t next = value; !settled() && seconds_now() < end; next++) {
        qel_sysmsg_connect(link.con, next);
        link_poll_for(link, std::min(1.0, end - seconds_now()), settled);
        if (was_interrupted())
            throw CommandError(exit_interrupted, "interrupted");
    }
    link.on_message = nullptr; // it would refer to what ends here
    return answered;
}

void send_updater(Link &link, const std::vector<uint8_t> &image)
{
    Progress progress = progress_start("updater", image.size() + 12);
    link.on_progress = [&](uint64_t done, uint64_t) { progress_show(progress, done); };
    qel_sysmsg_send_updater(link.con, image.data(), static_cast<int>(image.size()));
    link.on_progress = nullptr;
    double seconds = seconds_now() - progress.started_at;
    printf("updater sent: %zu bytes in %.1f s, %s\n", image.size(), seconds,
           rate_text(image.size(), seconds).c_str());
}

} // namespace

int command_update(Link &link, const UpdateOptions &options)
{
    const uint32_t first_value_before = 1, first_value_after = 1u << 31;
    std::vector<uint8_t> image = file_content(options.file);
    if (options.announce) {
        printf("waiting for the loader\n");
        if (!loader_answers(link, options.wait_s, first_value_before))
            throw LinkError(
                "no loader answered; switch the cabinet to update mode and on, wait for \"TOLBRIN "
                "Update...\" on its display, and try again");
        printf("the loader answers\n");
    }
    send_updater(link, image);
    if (options.watch_s == 0)
        return exit_done;

    // The loader that took it is replaced and silent; one that still answers has dropped it. A peer that
    // hangs up instead has taken it too.
    link.outlives_peer = true;
    if (loader_answers(link, options.watch_s, first_value_after))
        throw LinkError("the loader still answers, so it did not get the updater whole; try again");
    printf("%s: the updater has taken its place\n",
           link.transport.gone.empty() ? "the loader is silent" : "the loader has gone");
    return exit_done;
}

// ---- send-file ----

namespace
{

void require_confirm(int confirmed, const std::string &what)
{
    if (confirmed == 0)
        throw LinkError(what +
                        " was not confirmed; the file is not whole at the other end: try again, on a bad "
                        "link with a smaller --chunk");
}

/// Sends the open file in pieces. The library's own way to send a file does not look at the confirms of the
/// pieces; a person who sends one wants to know.
uint64_t send_pieces(Link &link, FILE *file, size_t chunk_bytes, Progress &progress)
{
    std::vector<uint8_t> chunk(chunk_bytes);
    uint64_t sent = 0;
    size_t n;
    link.on_progress = [&](uint64_t done, uint64_t all) {
        progress_show(progress,
                      sent + static_cast<uint64_t>(static_cast<double>(n) * static_cast<double>(done) /
                                                   static_cast<double>(all)));
    };
    while ((n = fread(chunk.data(), 1, chunk.size(), file)) > 0) {
        require_confirm(qel_sysmsg_file_data(link.con, chunk.data(), static_cast<int>(n)),
                        "the piece at byte " + std::to_string(sent));
        sent += n;
    }
    link.on_progress = nullptr;
    return sent;
}

} // namespace

int command_send_file(Link &link, const SendFileOptions &options)
{
    FILE *file = fopen(options.local.c_str(), "rbe");
    if (file == nullptr)
        throw FileError("file " + options.local + ": " + strerror(errno) + "; name one that you may read");
    fseek(file, 0, SEEK_END);
    Progress progress = progress_start(options.local, static_cast<uint64_t>(std::max(0L, ftell(file))));
    rewind(file);
    int chunk_bytes = options.chunk_bytes == 0 ? qel_sysmsg_chunk_size() : options.chunk_bytes;
    require_confirm(qel_sysmsg_file_begin(link.con, options.remote.c_str()), "the file's name");
    uint64_t sent = send_pieces(link, file, static_cast<size_t>(chunk_bytes), progress);
    bool failed = ferror(file) != 0;
    fclose(file);
    if (failed)
        throw FileError("file " + options.local + ": cannot be read to its end");
    require_confirm(qel_sysmsg_file_end(link.con), "the end of the file");
    printf("sent %s: %llu bytes, %s\n", options.local.c_str(), static_cast<unsigned long long>(sent),
           rate_text(sent, seconds_now() - progress.started_at).c_str());
    return exit_done;
}

// ---- test-pattern ----

int command_test_pattern(Link &link, const TestPatternOptions &options)
{
    int confirmed = 0;
    for (int i = 0; i < options.count; i++) {
        if (options.sequenced)
            confirmed += qel_sysmsg_test_pattern_sequenced(link.con);
        else
            qel_sysmsg_test_pattern(link.con);
    }
    if (!options.sequenced) {
        printf("test patterns: %d sent\n", options.count);
        return exit_done;
    }
    printf("test patterns: %d sent, %d confirmed\n", options.count, confirmed);
    if (confirmed < options.count)
        throw LinkError("not every test pattern was confirmed; see the link's counts");
    return exit_done;
}
