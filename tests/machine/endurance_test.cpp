// Many restarts on the machine: what may not grow in the loader, and what does. QEL_MACHINE_RESTARTS sets
// their number for longer runs.

#include "machine_test.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <sstream>

namespace
{

int restarts_wanted()
{
    const char *text = getenv("QEL_MACHINE_RESTARTS");
    return text == nullptr ? 100 : std::stoi(text);
}

const char *const staying = "/bin/busybox sleep 100000";

/// An application that notes its run, leaves a Wine prefix, and does `deed`; then it ends, unless it is told
/// to stay.
std::string application_that(Machine &machine, const std::string &deed)
{
    return file_with(machine, "application",
                     "#!/bin/sh\necho run >/cabinet/note\nmkdir -p /qel_home/.wine/drive_c\n" + deed +
                         "\n[ ! -e /cabinet/stay ] || exec " + staying + "\n");
}

int runs_of(const Machine &machine)
{
    return static_cast<int>(
        std::count_if(machine.cabinet.events.begin(), machine.cabinet.events.end(),
                      [](const Event &event) { return event.kind == Event::note && event.text == "run"; }));
}

/// Pumps until the application has been run so many times.
bool wait_for_runs(Machine &machine, int runs)
{
    return wait_until(
        machine.cabinet, [&] { return runs_of(machine) >= runs; }, patience + runs);
}

/// The loader while the application stays.
struct State {
    int runs;
    std::string descriptors;
    std::string memory;
    std::vector<std::string> children; ///< "NAME STATE", in the order of names
};

/// Lets the next run stay and looks at the loader.
State state_of(Machine &machine)
{
    const int stays = count_starts(machine.cabinet, staying);
    look_inside(machine.cabinet, "touch /cabinet/stay");
    EXPECT_TRUE(wait_for_start(machine, staying, stays + 1));
    State state;
    state.runs = runs_of(machine);
    state.descriptors =
        look_inside(machine.cabinet, "cd /proc/1/fd && for f in *; do echo $f $(readlink $f); done");
    state.memory = look_inside(machine.cabinet, "grep -E 'RssAnon|VmData|VmStk' /proc/1/status");
    std::istringstream children(look_inside(
        machine.cabinet, "cat /proc/[0-9]*/status | awk '/^Name/ {name = $2} /^State/ {state = $2} "
                         "/^PPid/ && $2 == 1 {print name, state}' | sort"));
    for (std::string child; std::getline(children, child);)
        state.children.push_back(child);
    return state;
}

/// Ends the run that stays, and lets further ones end by themselves.
void go_on(Machine &machine)
{
    int run = 0;
    for (const Event &event : machine.cabinet.events)
        if (event.kind == Event::program_started && event.text == staying)
            run = event.number;
    look_inside(machine.cabinet, "rm /cabinet/stay; kill -9 " + std::to_string(run));
}

long zombies(const State &state, const std::string &name)
{
    return std::count(state.children.begin(), state.children.end(), name + " Z");
}

} // namespace

TEST(CabinetEndurance, ManyRestartsLeaveDescriptorsMemoryAndChildrenAsTheyWere)
{
    // The heap takes its last step after about 100 runs: musl then keeps a page that it has given back and
    // taken again many times.
    const int first_runs = 150, restarts = restarts_wanted();
    Machine machine;
    machine.setup.seconds_max = 120 + restarts;
    machine.storage = {{"qel_application_1", application_that(machine, "")}};
    start(machine);
    // The X server is never waited for: when it ends, it stays as the one zombie.
    ASSERT_TRUE(wait_for_recorder(machine, "Xfake"));
    look_inside(machine.cabinet, "kill -9 $(pidof Xfake)");
    ASSERT_TRUE(wait_for_runs(machine, first_runs));
    const State before = state_of(machine);
    const double begin = uptime(machine.cabinet);
    go_on(machine);
    ASSERT_TRUE(wait_for_runs(machine, before.runs + restarts));
    const double seconds = uptime(machine.cabinet) - begin;
    const State after = state_of(machine);

    EXPECT_EQ(after.descriptors, before.descriptors);
    EXPECT_EQ(after.memory, before.memory);
    EXPECT_EQ(after.children, before.children);
    EXPECT_EQ(zombies(after, "Xfake"), 1);
    printf("%d restarts in %.0f s; %s%zu children:", after.runs - before.runs, seconds, after.memory.c_str(),
           after.children.size());
    for (const std::string &child : after.children)
        printf(" [%s]", child.c_str());
    printf("\n");
}

TEST(CabinetEndurance, EveryOrphanOfTheApplicationStaysAsAZombie)
{
    const int orphans_of_a_run = 3;
    Machine machine;
    // Each sleep outlives the shell that started it, so process 1 becomes its parent.
    machine.storage = {
        {"qel_application_1", application_that(machine, "for i in 1 2 3; do (sleep 0 &) ; done; sleep 0.1")}};
    start(machine);
    ASSERT_TRUE(wait_for_runs(machine, 3));
    const State before = state_of(machine);
    go_on(machine);
    ASSERT_TRUE(wait_for_runs(machine, before.runs + 10))
        << runs_of(machine) << machine.cabinet.console << look_inside(machine.cabinet, "ps");
    const State after = state_of(machine);

    EXPECT_EQ(zombies(before, "sleep"), before.runs * orphans_of_a_run);
    EXPECT_EQ(zombies(after, "sleep"), after.runs * orphans_of_a_run);
    // They cost process numbers, nothing in the loader.
    EXPECT_EQ(after.descriptors, before.descriptors);
    EXPECT_EQ(after.memory, before.memory);
    printf("%d runs, %ld zombies; %s", after.runs, zombies(after, "sleep"), after.memory.c_str());
}

TEST(CabinetEndurance, WithoutFreeProcessNumbersTheApplicationIsStartedStillButCanStartNothing)
{
    Machine machine;
    machine.storage = {{"qel_application_1",
                        application_that(machine, "for i in $(seq 20); do (sleep 0 &) ; done; sleep 0.1")}};
    start(machine);
    ASSERT_TRUE(wait_for_runs(machine, 1));
    // Usually there are 32768 or more.
    look_inside(machine.cabinet, "echo 400 >/proc/sys/kernel/pid_max");
    ASSERT_TRUE(wait_for_console(machine.cabinet, "can't fork", patience));
    // The number of the run that ended is free again when the loader starts the next one.
    EXPECT_TRUE(wait_for_runs(machine, runs_of(machine) + 3));
}
