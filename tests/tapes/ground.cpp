// The world of one run of a tape.

#include "tapes/ground.h"
#include "support/scratch_disk.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>

#include <algorithm>

namespace
{

/// Gives something back that is in `open`, or else takes note of that.
template <typename Stream, typename GiveBack>
int give_back(Stream *stream, std::set<Stream *> &open, const char *what, Ground &ground, GiveBack *back)
{
    if (open.erase(stream))
        return back(stream);
    ground.closed_twice += what;
    errno = EBADF;
    return EOF;
}

template <typename Stream> Stream *noted(Stream *stream, std::set<Stream *> &open)
{
    if (stream)
        open.insert(stream);
    return stream;
}

void watch_descriptors(Ground &ground)
{
    FakeKernel &kernel = ground.kernel;
    kernel.on_close = [&ground](int file) {
        Ground::board.erase(file);
        const int result = real_close(file);
        // -1 is what the product has of an open that failed.
        if (result == -1 && file != -1)
            ground.closed_twice += " a descriptor";
        return result;
    };
    kernel.on_opendir = [&ground](const char *path) {
        return noted(real_opendir(ground.kernel.at(path).c_str()), ground.folders);
    };
    kernel.on_closedir = [&ground](DIR *folder) {
        ground.listings.erase(folder);
        return give_back(folder, ground.folders, " a folder", ground, real_closedir);
    };
    kernel.on_fopen = [&ground](const char *path, const char *mode) {
        return noted(real_fopen(ground.kernel.at(path).c_str(), mode), ground.streams);
    };
    kernel.on_fclose = [&ground](FILE *stream) {
        return give_back(stream, ground.streams, " a stream", ground, real_fclose);
    };
}

/// All entries of a folder but "." and ".." and hidden ones, backwards, so that the next is the last.
std::vector<struct dirent> entries_of(DIR *folder)
{
    std::vector<struct dirent> entries;
    while (const struct dirent *entry = real_readdir(folder)) {
        if (entry->d_name[0] != '.')
            entries.push_back(*entry);
    }
    std::sort(entries.begin(), entries.end(),
              [](const auto &a, const auto &b) { return strcmp(a.d_name, b.d_name) > 0; });
    return entries;
}

} // namespace

Ground::Ground()
{
    kernel.throws_at_exit = true;
    kernel.set_time(1000);
    kernel.on_mount = [](auto...) { return 0; };
    kernel.on_umount = [](auto...) { return 0; };
    kernel.on_sync = [] {};
    kernel.on_dup2 = [](int, int to) { return to; };
    make_nodes_as_files(kernel, disk);
    // What a link leads to lies on the scratch disk as well.
    kernel.on_symlink = [this](const char *content, const char *path) {
        return real_symlink(kernel.at(content).c_str(), kernel.at(path).c_str());
    };
    kernel.on_readdir = [this](DIR * folder) -> struct dirent *
    {
        const auto [listing, is_new] = listings.try_emplace(folder);
        if (is_new) {
            listing->second = entries_of(folder);
            listing->second.insert(listing->second.begin(), dirent{});
        } else {
            listing->second.pop_back();
        }
        return listing->second.size() > 1 ? &listing->second.back() : nullptr;
    };
    watch_descriptors(*this);
    kernel.on_fork = [] { return child; };
    kernel.on_waitpid = [this](pid_t process, int *status, int) {
        const auto [who, how] = ended.empty() ? std::pair(process, 0) : ended.front();
        if (!ended.empty())
            ended.pop_front();
        if (who > 0)
            *status = how;
        errno = ECHILD;
        return who;
    };
}

Ground::~Ground()
{
    for (DIR *folder : folders)
        real_closedir(folder);
    for (FILE *stream : streams)
        real_fclose(stream);
}

void Ground::fork_gives_child(int n)
{
    kernel.on_fork = [this, n] { return n == 0 || kernel.count("fork") == n ? 0 : child; };
    kernel.on_execve = [](const char *path, auto...) -> int { throw Became(path); };
}

void Ground::play_board(const std::string &reply, size_t reply_size)
{
    disk.make_folder("/dev");
    kernel.on_open = [this](const char *path, int flags, mode_t mode) {
        const bool is_board = strncmp(path, "/dev/qellpc_", 12) == 0;
        const int file = real_open(kernel.at(path).c_str(), is_board ? flags | O_CREAT : flags, mode);
        is_board ? void(board.insert(file)) : void(board.erase(file));
        return file;
    };
    kernel.on_write = [this](int file, const void *bytes, size_t size) {
        return is_board(file) ? static_cast<ssize_t>(size) : real_write(file, bytes, size);
    };
    kernel.on_read = [=, this](int file, void *bytes, size_t size) {
        if (!is_board(file))
            return real_read(file, bytes, size);
        const size_t count = std::min(size, reply_size);
        memset(bytes, 0, count);
        memcpy(bytes, reply.data(), std::min(count, reply.size()));
        return static_cast<ssize_t>(count);
    };
}
