// What a sequence does and shows, in one order: the calls of a FakeKernel, and between them what has left
// the process. A text that is printed but not yet flushed stands where it is flushed at last.
//
//     Transcript transcript(kernel, "mount sync");
//     qel_remount_storage_ro();
//     EXPECT_THAT(transcript.lines(), ElementsAre("mount /dev/disk/hdc3 /storage vfat 33 null", "sync"));
//
// A text reads "> dev: " in the lines. With `unflushed` set, a text stands where it is printed.
#pragma once

#include "support/fake_kernel.h"
#include "support/output.h"

#include <string>
#include <vector>

struct Transcript {
    /// `names` are the calls to be listed, separated by blanks.
    Transcript(FakeKernel &watched, const std::string &names) : kernel(watched), wanted(" " + names + " ")
    {
        kernel.on_record = [this] {
            take_output();
            const std::string &record = kernel.calls().back();
            if (wanted.find(" " + record.substr(0, record.find(' ')) + " ") != std::string::npos)
                all.push_back(record);
        };
    }
    ~Transcript()
    {
        kernel.on_record = nullptr;
    }

    /// Everything so far.
    std::vector<std::string> lines()
    {
        take_output();
        return all;
    }
    /// For what the test itself sees, such as a row of the display.
    void add(const std::string &line)
    {
        take_output();
        all.push_back(line);
    }

    void take_output()
    {
        const std::string text = unflushed ? output.text() : output.flushed();
        if (text.size() > taken)
            all.push_back("> " + text.substr(taken));
        taken = text.size();
    }

    bool unflushed = false;
    FakeKernel &kernel;
    std::string wanted;
    Output output;
    size_t taken = 0;
    std::vector<std::string> all;
};
