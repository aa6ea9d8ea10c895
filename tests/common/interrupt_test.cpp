// Signals as a flag; in children, because a process cannot take its handlers back.

#include "common/interrupt.h"

#include <signal.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include <initializer_list>

namespace
{

TEST(Interrupts, EachSignalSetsTheFlag)
{
    for (int signal : {SIGINT, SIGTERM, SIGHUP})
        EXPECT_EXIT(
            {
                catch_interrupts();
                bool before = interrupted();
                raise(signal);
                _exit(!before && interrupted() ? 0 : 1);
            },
            testing::ExitedWithCode(0), "");
}

TEST(Interrupts, ASecondSignalEndsTheProcessWithTheCodeAskedFor)
{
    EXPECT_EXIT(
        {
            catch_interrupts(5);
            raise(SIGINT);
            raise(SIGTERM);
            _exit(0);
        },
        testing::ExitedWithCode(5), "");
}

TEST(Interrupts, ASecondSignalChangesNothingWithoutACode)
{
    EXPECT_EXIT(
        {
            catch_interrupts();
            raise(SIGINT);
            raise(SIGINT);
            _exit(7);
        },
        testing::ExitedWithCode(7), "");
}

} // namespace
