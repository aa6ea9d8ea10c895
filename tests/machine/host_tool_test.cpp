// qel-host against the real loader in update mode, over the cabinet's link.

#include "machine_test.h"

#include <stdlib.h>

#include <fstream>
#include <iterator>

namespace
{

const std::string lasting_updater = "#!/bin/sh\nexec /bin/busybox sleep 1000\n";

/// It says notify_12 on the link a second after it has taken the loader's place.
const std::string speaking_updater =
    "#!/bin/sh\n/bin/busybox sleep 1\n"
    "/bin/busybox printf '\\000\\000\\000\\010\\165\\115\\014\\000\\000\\000\\010\\000\\000\\000' "
    ">/dev/qellpc_host_comms\n"
    "exec /bin/busybox sleep 1000\n";

std::string content_of(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void start_in_update_mode(Machine &machine)
{
    machine.setup.board.mode = 3;
    machine.setup.host_link = machine.folder.path + "/link";
    start(machine);
    auto waits = [&] {
        for (const Event &event : machine.cabinet.events)
            if (event.kind == Event::link_from_loader)
                return true;
        return false;
    };
    ASSERT_TRUE(wait_until(machine.cabinet, waits, patience));
}

/// Runs qel-host against the machine. Returns the line of its result, with its exit code before it.
std::string host(Machine &machine, const std::string &words)
{
    std::string out = machine.folder.path + "/out", code = machine.folder.path + "/code";
    std::string command = "rm -f " + code + "; { " MACHINE_TEST_HOST " " + words +
                          " --json --no-pacing --socket " + machine.setup.host_link + " >" + out +
                          "; echo $? >" + code + "; } &";
    EXPECT_EQ(system(command.c_str()), 0);
    EXPECT_TRUE(wait_until(
        machine.cabinet, [&] { return content_of(code).ends_with("\n"); }, patience));
    return content_of(code) + content_of(out);
}

bool has(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

} // namespace

TEST(HostTool, SeesALoaderFallSilentThatHasTakenAnUpdater)
{
    Machine machine;
    start_in_update_mode(machine);
    std::string result = host(machine, "update " + file_with(machine, "updater", lasting_updater));
    EXPECT_TRUE(result.starts_with("0\n") && has(result, "\"proof\":\"silent\"")) << result;
}

TEST(HostTool, HasTheMessagesOfTwoProcessesInARowConfirmed)
{
    Machine machine;
    start_in_update_mode(machine);
    for (const char *words : {"post post_21 7", "post post_21 7", "test-pattern --sequenced"}) {
        std::string result = host(machine, words);
        EXPECT_TRUE(result.starts_with("0\n") && has(result, "\"proof\":\"confirmed\"")) << words << result;
    }
}

TEST(HostTool, TakesTheMessageOfAnUpdaterThatSpeaksAsProof)
{
    Machine machine;
    start_in_update_mode(machine);
    std::string result = host(machine, "update --expect notify_12 --watch 30 " +
                                           file_with(machine, "updater", speaking_updater));
    EXPECT_TRUE(result.starts_with("0\n") && has(result, "\"proof\":\"message\"")) << result;
}

TEST(HostTool, FindsNoUpdaterInOneThatSaysNothing)
{
    Machine machine;
    start_in_update_mode(machine);
    std::string result = host(machine, "update --expect notify_12 --watch 2 " +
                                           file_with(machine, "updater", lasting_updater));
    EXPECT_TRUE(result.starts_with("1\n") && has(result, "\"code\":\"no_updater\"")) << result;
}
