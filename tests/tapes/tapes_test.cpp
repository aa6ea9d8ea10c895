// Every tape is as its golden, with every fault of every call; and the proof that such a test can fail.

#include "tapes/faults.h"
#include "tapes/golden.h"
#include "tapes/sweep.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <stdio.h>
#include <stdlib.h>

namespace
{

/// For tools/tape.py, which asks for it by this variable.
void show(const std::string &name, const std::vector<std::string> &lines)
{
    if (!getenv("QEL_SHOW_TAPES"))
        return;
    printf("== %s\n", name.c_str());
    for (const std::string &line : lines)
        printf("%s\n", line.c_str());
    puts("== end");
}

std::string first_difference(const std::vector<std::string> &golden, const std::vector<std::string> &found)
{
    size_t at = 0;
    while (at < golden.size() && at < found.size() && golden[at] == found[at])
        ++at;
    return "line " + std::to_string(at + 1) +
           "\n  golden: " + (at < golden.size() ? golden[at] : "(has ended)") +
           "\n  found:  " + (at < found.size() ? found[at] : "(has ended)");
}

} // namespace

TEST_P(Tape, IsAsTheGoldenWithEveryFaultOfEveryCall)
{
    const std::string name = GetParam().file + "." + GetParam().scenario.name;
    const Swept swept = sweep(GetParam().scenario);
    show(name, swept.lines);
    // For ./check, which adds these up.
    fprintf(stderr, "sweep: %d faults in %d calls\n", swept.faults, swept.calls);
    EXPECT_EQ(swept.complaints, "");
    const std::vector<std::string> golden = golden_of(GetParam().file, GetParam().scenario.name);
    EXPECT_TRUE(golden == swept.lines)
        << first_difference(golden, swept.lines) << "\nAfter reading it: tools/tape.py accept " << name;
}

TEST(Goldens, BelongToATestEachAndAreJustified)
{
    std::set<std::string> names;
    for (const auto &[name, scenario] : all_tapes())
        names.insert(name);
    EXPECT_GT(names.size(), 150U);
    EXPECT_EQ(complaints_about_goldens(QEL_TAPES_FOLDER, names), "");
}
