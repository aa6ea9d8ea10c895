// qel-host trace: recordings as text, and what it makes of files that are not recordings.

#include <gmock/gmock.h>

#include "support.h"
#include "trouble.h"

using testing::HasSubstr;

TEST(Trace, PrintsPacketsMessagesVerdictsAndTroubleAsExpected)
{
    ScratchFolder scratch;
    record_trouble(scratch.at("r.pcapng"));
    Finished trace = host({"trace", scratch.at("r.pcapng")});
    EXPECT_EQ(trace.code, 0) << trace.err;
    EXPECT_EQ(trace.out, content_of(EXPECTED_FOLDER "/trace.txt"));
}

TEST(Trace, PrintsMessagesAndTroubleAloneWhenAsked)
{
    ScratchFolder scratch;
    record_trouble(scratch.at("r.pcapng"));
    Finished trace = host({"trace", "--messages", scratch.at("r.pcapng")});
    EXPECT_EQ(trace.code, 0) << trace.err;
    EXPECT_EQ(trace.out, content_of(EXPECTED_FOLDER "/trace_messages.txt"));
}

TEST(Trace, PrintsABrokenRecordingAsFarAsItGoes)
{
    ScratchFolder scratch;
    record_trouble(scratch.at("whole"));
    std::string whole = content_of(scratch.at("whole"));
    put_file(scratch.at("cut"), whole.substr(0, whole.size() - 10));
    Finished trace = host({"trace", scratch.at("cut")});
    EXPECT_EQ(trace.code, 3);
    EXPECT_THAT(trace.out, HasSubstr("connect_answer (38), 12 bytes: value=42 (CRC right)"));
    EXPECT_EQ(trace.err,
              "error: file " + scratch.at("cut") +
                  ": the recording is broken: cut off in the middle of a block (at byte 1304); what "
                  "came before is shown, record it anew for the rest\n");
}

TEST(Trace, SaysWhichFileIsNotARecording)
{
    ScratchFolder scratch;
    put_file(scratch.at("text"), "hello");
    Finished trace = host({"trace", scratch.at("text")});
    EXPECT_EQ(trace.code, 3);
    EXPECT_THAT(trace.err, HasSubstr("the recording is broken: not a pcapng file (at byte 0)"));
}
