// Connecting and listening. Whether somebody listens is found out without a connection, which the listener
// would take for its peer: a socket of another kind is refused with EPROTOTYPE by a living one, with
// ECONNREFUSED by one left behind.

#include "link_socket.h"

#include "files.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

namespace
{

sockaddr_un address_of(const std::string &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path)
        throw std::runtime_error("socket \"" + path + "\": the path must have 1 to " +
                                 std::to_string(sizeof address.sun_path - 1) + " characters; choose another");
    memcpy(address.sun_path, path.data(), path.size());
    return address;
}

int new_socket(int kind)
{
    int result = socket(AF_UNIX, kind | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (result < 0)
        throw std::runtime_error(std::string("no socket: ") + strerror(errno));
    return result;
}

bool is_left_behind(const std::string &path)
{
    sockaddr_un address = address_of(path);
    const Descriptor probe = {new_socket(SOCK_DGRAM)};
    return std::filesystem::is_socket(std::filesystem::symlink_status(path)) &&
           connect(probe.number, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 &&
           errno == ECONNREFUSED;
}

} // namespace

int connect_link(const std::string &path)
{
    sockaddr_un address = address_of(path);
    int connection = new_socket(SOCK_SEQPACKET);
    if (connect(connection, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0)
        return connection;
    int error = errno;
    close(connection);
    errno = error;
    return -1;
}

int listen_link(const std::string &path)
{
    sockaddr_un address = address_of(path);
    // Two that find the same socket left behind must not replace each other's.
    std::string folder = std::filesystem::path(path).parent_path();
    const Descriptor lock = {open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (lock.number < 0 || flock(lock.number, LOCK_EX) != 0)
        throw std::runtime_error(path + ": its folder: " + strerror(errno));
    if (is_left_behind(path))
        unlink(path.c_str());
    int listener = new_socket(SOCK_SEQPACKET);
    if (bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        listen(listener, 1) != 0) {
        std::string reason = strerror(errno);
        close(listener);
        throw std::runtime_error(path + ": " + reason +
                                 "; choose a name for the socket that nothing else has");
    }
    return listener;
}
