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

/// An application that notes its run, leaves a Wine prefix, and does `deed`; then it ends. Only the runs of
/// these numbers, counted from 1, stay.
std::string application_that(Machine &machine, const std::string &deed, const std::vector<int> &stays = {})
{
    std::string numbers = " ";
    for (int run : stays)
        numbers += std::to_string(run) + " ";
    return file_with(machine, "application",
                     "#!/bin/sh\n"
                     "runs=0; [ ! -e /cabinet/runs ] || read runs </cabinet/runs\n"
                     "runs=$((runs + 1)); echo $runs >/cabinet/runs\n"
                     "echo run >/cabinet/note\n"
                     "mkdir -p /qel_home/.wine/drive_c\n" +
                         deed + "\ncase '" + numbers + "' in *\" $runs \"*) exec " + staying + " ;; esac\n");
}

/// Leaves so many programs behind, and waits until each is a zombie of process 1. A program ends only when it
/// has process 1 for its parent, for a shell may wait for its own.
std::string leave_orphans(int count)
{
    return "for i in $(seq " + std::to_string(count) +
           "); do\n"
           "    orphan=$(/bin/sh -c 'until grep -q \"^PPid:.1$\" /proc/$$/status; do :; done' >/dev/null & "
           "echo $!)\n"
           "    until grep -q '^State:.Z' /proc/$orphan/status; do :; done\n"
           "done";
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

/// The loader while a run stays.
struct State {
    std::string descriptors;
    std::string memory;
    std::vector<std::string> children; ///< "NAME STATE", in the order of names
    std::string temporary;             ///< what is in /tmp
};

/// Waits for the run that stays, the first or a later one, and looks at the loader.
State state_at_stay(Machine &machine, int stay)
{
    EXPECT_TRUE(wait_for_start(machine, staying, stay));
    State state;
    state.descriptors =
        look_inside(machine.cabinet, "cd /proc/1/fd && for f in *; do echo $f $(readlink $f); done");
    state.memory = look_inside(machine.cabinet, "grep -E 'RssAnon|VmData|VmStk' /proc/1/status");
    std::istringstream children(look_inside(
        machine.cabinet, "cat /proc/[0-9]*/status | awk '/^Name/ {name = $2} /^State/ {state = $2} "
                         "/^PPid/ && $2 == 1 {print name, state}' | sort"));
    for (std::string child; std::getline(children, child);)
        state.children.push_back(child);
    state.temporary = look_inside(machine.cabinet, "find /tmp | sort");
    return state;
}

/// Ends the run that stays.
void go_on(Machine &machine)
{
    look_inside(machine.cabinet, "kill -9 " + std::to_string(last_started(machine)));
}

long zombies(const State &state, const std::string &name)
{
    return std::count(state.children.begin(), state.children.end(), name + " Z");
}

} // namespace

TEST(CabinetEndurance, ManyRestartsLeaveDescriptorsMemoryChildrenAndFilesAsTheyWere)
{
    // The heap takes its last step after about 100 runs: musl then keeps a page that it has given back and
    // taken again many times.
    const int first_stay = 150, restarts = restarts_wanted(), second_stay = first_stay + restarts;
    Machine machine;
    machine.setup.seconds_max = patience * 4 + restarts;
    machine.storage = {{"qel_application_1", application_that(machine, "", {first_stay, second_stay})}};
    start(machine);
    // The X server is never waited for: when it ends, it stays as the one zombie.
    ASSERT_TRUE(wait_for_recorder(machine, "Xfake"));
    look_inside(machine.cabinet, "kill -9 $(pidof Xfake)");
    ASSERT_TRUE(wait_for_runs(machine, first_stay));
    const State before = state_at_stay(machine, 1);
    const double begin = uptime(machine.cabinet);
    go_on(machine);
    ASSERT_TRUE(wait_for_runs(machine, second_stay));
    const double seconds = uptime(machine.cabinet) - begin;
    const State after = state_at_stay(machine, 2);

    EXPECT_EQ(after.descriptors, before.descriptors);
    EXPECT_EQ(after.memory, before.memory);
    EXPECT_EQ(after.children, before.children);
    EXPECT_EQ(after.temporary, before.temporary);
    EXPECT_EQ(zombies(after, "Xfake"), 1);
    printf("%d restarts in %.0f s; %s%zu children:", restarts, seconds, after.memory.c_str(),
           after.children.size());
    for (const std::string &child : after.children)
        printf(" [%s]", child.c_str());
    printf("\n");
}

TEST(CabinetEndurance, EveryOrphanOfTheApplicationStaysAsAZombie)
{
    const int orphans_of_a_run = 3, first_stay = 3, second_stay = 13;
    Machine machine;
    machine.storage = {{"qel_application_1", application_that(machine, leave_orphans(orphans_of_a_run),
                                                              {first_stay, second_stay})}};
    start(machine);
    ASSERT_TRUE(wait_for_runs(machine, first_stay));
    const State before = state_at_stay(machine, 1);
    go_on(machine);
    ASSERT_TRUE(wait_for_runs(machine, second_stay))
        << runs_of(machine) << machine.cabinet.console << look_inside(machine.cabinet, "ps");
    const State after = state_at_stay(machine, 2);

    EXPECT_EQ(zombies(before, "sh"), first_stay * orphans_of_a_run);
    EXPECT_EQ(zombies(after, "sh"), second_stay * orphans_of_a_run);
    // They cost process numbers, nothing in the loader.
    EXPECT_EQ(after.descriptors, before.descriptors);
    EXPECT_EQ(after.memory, before.memory);
    printf("%d runs, %ld zombies; %s", second_stay, zombies(after, "sh"), after.memory.c_str());
}

TEST(CabinetEndurance, WithoutFreeProcessNumbersTheApplicationIsStartedStillButCanStartNothing)
{
    Machine machine;
    machine.storage = {
        {"qel_application_1", application_that(machine, "for i in $(seq 20); do (sleep 0 &) ; done")}};
    start(machine);
    ASSERT_TRUE(wait_for_runs(machine, 1));
    // Usually there are 32768 or more.
    look_inside(machine.cabinet, "echo 400 >/proc/sys/kernel/pid_max");
    ASSERT_TRUE(wait_for_console(machine.cabinet, "can't fork", patience));
    // The number of the run that ended is free again when the loader starts the next one.
    EXPECT_TRUE(wait_for_runs(machine, runs_of(machine) + 3));
}
