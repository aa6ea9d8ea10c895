// qel-host: a trace compared with tshark's, an update with a plain copy of its records.

#include "contests.h"

#include "../places.h"
#include "../process.h"
#include "../trees.h"

#include "common/child.h"
#include "common/clock.h"
#include "common/files.h"

#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <thread>

namespace
{

const std::string host = BENCH_PROJECT "/build/tools/host/qel-host";
const size_t packet_bytes = 35;
const size_t updater_bytes = 20000000;

/// Seconds of a command of qel-host that talks to another one.
double time_with_peer(Command command)
{
    const std::string folder = scratch("served"), socket = scratch("link");
    std::filesystem::create_directories(folder);
    const Descriptor nowhere = {memfd_create("nowhere", MFD_CLOEXEC)};
    const pid_t peer =
        start_child({.words = {host, "serve", folder, "--listen", socket, "--no-pacing", "--once"},
                     .output = nowhere.number,
                     .errors = nowhere.number});
    for (const char *word : {"--socket", socket.c_str(), "--no-pacing", "--unverified-ok"})
        command.push_back(word);
    const double seconds = time_command(command);
    wait_for_child(peer);
    return seconds;
}

/// 10,870 test patterns of 92 packets each, made once.
std::string recording()
{
    std::string file = scratch("recording.pcapng");
    if (!std::filesystem::exists(file))
        time_with_peer({host, "test-pattern", "--count", "10870", "--record", file});
    return file;
}

double time_update()
{
    make_file(scratch("updater"), updater_bytes);
    return time_with_peer({host, "update", scratch("updater"), "--force", "--watch", "0"}) * 1e3;
}

double time_copy_of_records()
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
        throw std::runtime_error("no socket pair");
    const Descriptor to = {ends[0]}, from = {ends[1]};
    const size_t records = updater_bytes / (packet_bytes - 1);
    const double start = seconds_now();
    std::thread reader([&] {
        char record[packet_bytes];
        for (size_t i = 0; i < records; ++i)
            if (read(from.number, record, sizeof record) != sizeof record)
                return;
    });
    const char record[packet_bytes] = {};
    bool sent = true;
    for (size_t i = 0; sent && i < records; ++i)
        sent = write(to.number, record, sizeof record) == sizeof record;
    reader.join();
    if (!sent)
        throw std::runtime_error("the socket pair takes no record");
    return (seconds_now() - start) * 1e3;
}

} // namespace

void add_host_contests(std::vector<Contest> &contests)
{
    contests.push_back({"trace of 1,000,000 records",
                        "s",
                        {{"product",
                          [] {
                              return time_command({host, "trace", recording()});
                          }},
                         {"tshark -T fields",
                          [] {
                              return time_command(
                                  {"tshark", "-X",
                                   ("lua_script:" BENCH_PROJECT "/host/wireshark/qel_link.lua"), "-r",
                                   recording(), "-T", "fields", "-e", "frame.number", "-e", "qel.message"});
                          },
                          0.2}},
                        {},
                        1,
                        true});
    contests.push_back({"update of 20 MB without pacing",
                        "ms",
                        {{"product", time_update},
                         {"plain copy of its records", time_copy_of_records, {}, "no CRC, no answers"}},
                        {},
                        3});
}
