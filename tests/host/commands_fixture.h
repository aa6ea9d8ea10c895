/// A qel-host that serves, and commands towards it, for the tests of the commands.
#pragma once

#include <gmock/gmock.h>

#include <filesystem>
#include <memory>

#include "support.h"

/// Another qel-host that serves ROOT, and commands towards it.
struct Commands : testing::Test {
    ScratchFolder scratch;
    std::string socket = scratch.at("socket");
    std::string root = scratch.at("root");
    std::unique_ptr<Process> server;

    Commands()
    {
        std::filesystem::create_directory(root);
    }

    void serve(const std::vector<std::string> &options = {})
    {
        std::vector<std::string> words = {"serve", root, "--listen", socket, "--no-pacing"};
        words.insert(words.end(), options.begin(), options.end());
        server = std::make_unique<Process>(host_words(words));
        ASSERT_TRUE(server->says("serving"));
    }

    Ended run(std::vector<std::string> words)
    {
        words.insert(words.end(), {"--socket", socket, "--no-pacing"});
        return host(words);
    }

    /// What a query prints.
    std::string answer(std::vector<std::string> words)
    {
        words.insert(words.begin(), "query");
        Ended ended = run(words);
        EXPECT_EQ(ended.code, 0) << ended.err;
        return ended.out;
    }
};
