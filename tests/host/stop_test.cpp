// What a failed check of the link's libraries does in qel-host.

#include <gmock/gmock.h>

#include "qel_tolbrin/qel_comms.h"

TEST(StopDeathTest, SaysWhichCheckFailedAndEndsInsteadOfParking)
{
    EXPECT_EXIT(
        qel_comms_send(nullptr, nullptr, 1), testing::ExitedWithCode(4),
        "error: a check of the link's libraries failed: \"data\" at qel_tolbrin/qel_comms:[0-9]+; report "
        "this as a fault of this program, with a recording");
}
