// The host link's socket: living ones are left alone, those left behind are replaced.

#include "common/files.h"
#include "common/link_socket.h"

#include <errno.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include <stdexcept>

using testing::HasSubstr;
using testing::ThrowsMessage;

namespace
{

TEST(LinkSocket, ASecondListenerIsRefusedAndTheFirstIsNotDisturbed)
{
    ScratchFolder scratch;
    std::string path = scratch.path + "/link";
    const Descriptor first = {listen_link(path)};
    EXPECT_THAT([&] { listen_link(path); },
                ThrowsMessage<std::runtime_error>(HasSubstr("Address already in use")));
    pollfd knock = {first.number, POLLIN, 0};
    EXPECT_EQ(poll(&knock, 1, 0), 0) << "nobody has connected";
    const Descriptor peer = {connect_link(path)};
    EXPECT_GE(peer.number, 0);
    EXPECT_EQ(poll(&knock, 1, 0), 1);
}

TEST(LinkSocket, OneLeftBehindIsReplaced)
{
    ScratchFolder scratch;
    std::string path = scratch.path + "/link";
    close(listen_link(path));
    EXPECT_EQ(connect_link(path), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    const Descriptor second = {listen_link(path)};
    const Descriptor peer = {connect_link(path)};
    EXPECT_GE(peer.number, 0);
}

TEST(LinkSocket, AnotherFileOfThatNameStays)
{
    ScratchFolder scratch;
    std::string path = scratch.path + "/file";
    write_file(path, "text");
    EXPECT_THAT([&] { listen_link(path); }, ThrowsMessage<std::runtime_error>(HasSubstr(path)));
    EXPECT_EQ(read_file(path), "text");
}

TEST(LinkSocket, ALongNameIsRefused)
{
    EXPECT_THAT([] { connect_link("/" + std::string(107, 'x')); },
                ThrowsMessage<std::runtime_error>(HasSubstr("1 to 107 characters")));
    EXPECT_THAT([] { listen_link(""); }, ThrowsMessage<std::runtime_error>(HasSubstr("1 to 107 characters")));
}

} // namespace
