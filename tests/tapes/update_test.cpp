// The update mode: what its wait shows and sends, second by second, and what it takes from the host.

#include "tapes/golden.h"
#include "tapes/host.h"

#include "qel_application_loader/update_mode.h"

#include <errno.h>

namespace
{

const Bytes connect_message = message_of(5, "78 56 34 12");

/// The image does not fit into the packet that brings the rest.
const Bytes updater_message = message_of(10, "20 00 00 00 '0123456789abcdefghijklmnopqrstuv'");

/// Looks at where a stick would be, before each poll.
void stick_comes_at(Ground &ground, int look)
{
    ground.kernel.on_access = [&ground, look](auto...) {
        errno = ENOENT;
        return ground.kernel.count("access") < look ? -1 : 0;
    };
}

/// One poll, which takes a second and may find a message; then the stick is there.
void one_second(Ground &ground, const Bytes &message)
{
    ground.kernel.watches_memory = 1;
    Host host(ground);
    host.finds(1000);
    host.finds(0, message);
    stick_comes_at(ground, 3);
    qel_run_update_mode();
}

/// What the wait finds, until it is left.
Scenario session(const char *name, const std::vector<Host::Look> &messages)
{
    const auto wait = [=](Ground &ground) {
        Host host(ground);
        for (const Host::Look &look : messages)
            host.finds(look.ms, look.packet);
        ground.kernel.on_access = [&](auto...) { return host.looks.empty() ? throw LeftProduct() : -1; };
        qel_run_update_mode();
    };
    return cut({name, wait, {"exit 1", "left"}}, "access *");
}

const char *const keeps = "the link keeps its buffers, and that a host has connected";

const std::vector<Scenario> updates = {
    {"UpdateMode", [](Ground &ground) { one_second(ground, {}); }},
    cut({"UpdateModeWithAPeer", [](Ground &ground) { one_second(ground, connect_message); }, {}, keeps},
        "access *"),
    cut({"StickFromTheStart",
         [](Ground &ground) {
             Host host(ground);
             stick_comes_at(ground, 1);
             qel_run_update_mode();
         }},
        "access *"),
    cut({"UpdaterWinsOverAStick",
         [](Ground &ground) {
             ground.disk.make_folder("/tmp");
             ground.fork_gives_child();
             Host host(ground);
             host.finds(100, updater_message);
             stick_comes_at(ground, 2);
             qel_run_update_mode();
         },
         {"exit 1", "done"}},
        "access *"),
};

const std::vector<Scenario> sessions = {
    session("SilentHost", {{400, {}}, {599, {}}, {1, {}}, {1000, {}}, {1000, {}}}),
    session("ConnectSilenceReconnect", {{200, connect_message},
                                        {800, {}},
                                        {1000, {}},
                                        {1000, {}},
                                        {1000, {}},
                                        {200, connect_message},
                                        {800, {}}}),
};

const std::vector<Scenario> seconds = {
    session("ConnectedEverySecond", {{500, connect_message}, {1000, connect_message}, {1000, {}}}),
    session("ClockSetBack", {{1000, {}}, {-3000, {}}, {100, {}}}),
    session("ClockAnHourOn", {{3600000, {}}, {100, {}}, {1000, {}}}),
};

} // namespace

INSTANTIATE_TAPES(updates, updates);
INSTANTIATE_TAPES(update_sessions, sessions);
INSTANTIATE_TAPES(update_seconds, seconds);
