// A bad link between two ends: connects to both, passes their records on, and on the way drops, damages,
// repeats, cuts and swaps some, by seed. Counts what it did.

#include <CLI/CLI.hpp>

#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <random>
#include <string>

namespace
{

struct Rates {
    unsigned drop = 0, damage = 0, repeat = 0, cut = 0, swap = 0; ///< in 10000 records
};

struct Relay {
    Rates rates;
    std::mt19937 random;
    std::string held[2]; ///< by direction: a record that waits to be overtaken
    unsigned passed = 0, dropped = 0, damaged = 0, repeated = 0, cut = 0, swapped = 0;
};

int connect_to(const std::string &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    int result = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    for (int tries = 0; tries < 500; tries++) {
        if (connect(result, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0)
            return result;
        usleep(20000);
    }
    fprintf(stderr, "error: nobody listens at %s\n", path.c_str());
    exit(3);
}

bool happens(Relay &relay, unsigned rate)
{
    return relay.random() % 10000 < rate;
}

void pass(Relay &relay, int to, const std::string &record)
{
    send(to, record.data(), record.size(), MSG_NOSIGNAL);
    relay.passed++;
}

void mistreat(Relay &relay, int direction, int to, std::string record)
{
    if (happens(relay, relay.rates.drop)) {
        relay.dropped++;
        return;
    }
    if (happens(relay, relay.rates.damage)) {
        relay.damaged++;
        record[relay.random() % record.size()] ^= static_cast<char>(1 << relay.random() % 8);
    }
    if (record.size() > 1 && happens(relay, relay.rates.cut)) {
        relay.cut++;
        record.resize(1 + relay.random() % (record.size() - 1));
    }
    if (relay.held[direction].empty() && happens(relay, relay.rates.swap)) {
        relay.swapped++;
        relay.held[direction] = record;
        return;
    }
    pass(relay, to, record);
    if (happens(relay, relay.rates.repeat)) {
        relay.repeated++;
        pass(relay, to, record);
    }
    if (!relay.held[direction].empty())
        pass(relay, to, relay.held[direction]);
    relay.held[direction].clear();
}

/// Passes records on until one end hangs up; then the other end gets what is still to come.
void run(Relay &relay, const int ends[2])
{
    for (;;) {
        pollfd inputs[2] = {{ends[0], POLLIN, 0}, {ends[1], POLLIN, 0}};
        poll(inputs, 2, -1);
        for (int i = 0; i < 2; i++) {
            char bytes[64];
            ssize_t n = inputs[i].revents == 0 ? -1 : recv(ends[i], bytes, sizeof bytes, MSG_DONTWAIT);
            if (n > 0)
                mistreat(relay, i, ends[1 - i], std::string(bytes, static_cast<size_t>(n)));
            else if (inputs[i].revents != 0 && (n == 0 || (errno != EAGAIN && errno != ECONNRESET)))
                return;
        }
    }
}

} // namespace

int main(int argc, char **argv)
{
    Relay relay;
    std::string one, other;
    unsigned seed = 1;
    CLI::App app("Passes records between two sockets, not all of them and not all of them right.");
    app.add_option("one", one)->required();
    app.add_option("other", other)->required();
    app.add_option("--seed", seed);
    app.add_option("--drop", relay.rates.drop, "in 10000 records");
    app.add_option("--damage", relay.rates.damage);
    app.add_option("--repeat", relay.rates.repeat);
    app.add_option("--cut", relay.rates.cut);
    app.add_option("--swap", relay.rates.swap);
    CLI11_PARSE(app, argc, argv);
    relay.random.seed(seed);
    int ends[2] = {connect_to(one), connect_to(other)};
    run(relay, ends);
    printf("relay: %u passed, %u dropped, %u damaged, %u repeated, %u cut, %u swapped, %d held\n",
           relay.passed, relay.dropped, relay.damaged, relay.repeated, relay.cut, relay.swapped,
           !relay.held[0].empty() + !relay.held[1].empty());
    return 0;
}
