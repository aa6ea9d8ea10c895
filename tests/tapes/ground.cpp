// The world of one run of a tape.

#include "tapes/ground.h"
#include "support/scratch_disk.h"

#include <errno.h>
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
    kernel.on_waitpid = [](pid_t process, int *status, int) {
        *status = 0;
        return process;
    };
}

Ground::~Ground()
{
    for (DIR *folder : folders)
        real_closedir(folder);
    for (FILE *stream : streams)
        real_fclose(stream);
}

void Ground::fork_gives_child()
{
    kernel.on_fork = [] { return 0; };
    kernel.on_execve = [](const char *path, auto...) -> int { throw Became(path); };
}

void Ground::play_board(const std::string &reply, size_t reply_size)
{
    for (const char *device : {"/dev/qellpc_command", "/dev/qellpc_lcd", "/dev/qellpc_host_comms"})
        disk.make_file(device);
    kernel.on_write = [](int, const void *, size_t size) { return static_cast<ssize_t>(size); };
    kernel.on_read = [=](int, void *bytes, size_t size) {
        const size_t count = std::min(size, reply_size);
        memset(bytes, 0, count);
        memcpy(bytes, reply.data(), std::min(count, reply.size()));
        return static_cast<ssize_t>(count);
    };
}
