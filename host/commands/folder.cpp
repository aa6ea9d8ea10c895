// Walks paths part by part from the folder's descriptor, so that a path can never lead elsewhere.

#include "commands/folder.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "errors.h"

namespace
{

const char *const unfinished = ".part";

std::string error_text(int error)
{
    return strerror(error);
}

/// The parts of a path; empty ones and "." do not count. `problem` is set when a part is "..", or the path
/// is too long.
std::vector<std::string> parts_of(const std::string &path, std::string &problem)
{
    std::vector<std::string> parts;
    if (path.size() >= PATH_MAX) {
        problem = "too long";
        return parts;
    }
    for (size_t begin = 0; begin < path.size();) {
        size_t end = std::min(path.find('/', begin), path.size());
        std::string part = path.substr(begin, end - begin);
        begin = end + 1;
        if (part == "..")
            problem = "\"..\" is refused";
        if (!part.empty() && part != ".")
            parts.push_back(part);
    }
    return parts;
}

/// Opens the folder that holds the last of `parts`, and makes what is missing on the way if asked to.
/// Returns a descriptor, or -1 with errno.
int open_parent(const Folder &folder, const std::vector<std::string> &parts, bool make)
{
    int here = fcntl(folder.descriptor, F_DUPFD_CLOEXEC, 0);
    for (size_t i = 0; here != -1 && i + 1 < parts.size(); ++i) {
        if (make)
            mkdirat(here, parts[i].c_str(), 0777);
        int next = openat(here, parts[i].c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        int error = errno;
        close(here);
        errno = error;
        here = next;
    }
    return here;
}

/// What is known of the entry `path`; false when it is not there or the path is refused.
bool look_at(const Folder &folder, const std::string &path, struct stat &entry)
{
    std::string problem;
    std::vector<std::string> parts = parts_of(path, problem);
    if (!problem.empty())
        return false;
    int parent = open_parent(folder, parts, false);
    if (parent == -1)
        return false;
    const char *name = parts.empty() ? "." : parts.back().c_str();
    bool found = fstatat(parent, name, &entry, AT_SYMLINK_NOFOLLOW) == 0;
    close(parent);
    return found;
}

/// The number that a name spells, 0 when it spells none.
uint32_t number_of(const std::string &name)
{
    unsigned long long number = strtoull(name.c_str(), nullptr, 10);
    return number <= UINT32_MAX && std::to_string(number) == name ? static_cast<uint32_t>(number) : 0;
}

} // namespace

Folder folder_open(const std::string &path)
{
    int descriptor = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor == -1)
        throw Failure(fault::bad_file,
                      "folder " + path + ": " + error_text(errno) + "; name an existing one");
    return {path, descriptor};
}

bool folder_has(const Folder &folder, const std::string &path)
{
    struct stat entry = {};
    return look_at(folder, path, entry);
}

uint64_t folder_file_size(const Folder &folder, const std::string &path)
{
    struct stat entry = {};
    return look_at(folder, path, entry) && S_ISREG(entry.st_mode) ? static_cast<uint64_t>(entry.st_size) : 0;
}

std::vector<uint64_t> folder_numbers(const Folder &folder, const std::string &path)
{
    std::vector<uint64_t> numbers;
    int descriptor = openat(folder.descriptor, path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    DIR *names = descriptor == -1 ? nullptr : fdopendir(descriptor);
    if (names == nullptr)
        return numbers;
    for (dirent *entry; (entry = readdir(names)) != nullptr;) {
        if (number_of(entry->d_name) != 0)
            numbers.push_back(number_of(entry->d_name));
    }
    closedir(names);
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

// ---- Receiving files ----

std::string incoming_begin(IncomingFile &incoming, const Folder &folder, const std::string &path)
{
    incoming_drop(incoming);
    std::string problem;
    std::vector<std::string> parts = parts_of(path, problem);
    if (parts.empty() && problem.empty())
        problem = "no name";
    if (!problem.empty())
        return problem;
    int parent = open_parent(folder, parts, true);
    if (parent == -1)
        return error_text(errno);

    // A new entry of its own: what stands there under that name, a link for instance, is not written to.
    std::string name = parts.back() + unfinished;
    unlinkat(parent, name.c_str(), 0);
    int file = openat(parent, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (file == -1) {
        problem = error_text(errno);
        close(parent);
        return problem;
    }
    incoming = {path, parts.back(), parent, file, 0};
    return "";
}

std::string incoming_add(IncomingFile &incoming, const std::string &bytes)
{
    if (incoming.file == -1)
        return "no file has begun";
    for (size_t done = 0; done < bytes.size();) {
        ssize_t n = write(incoming.file, bytes.data() + done, bytes.size() - done);
        if (n == -1 && errno == EINTR)
            continue;
        if (n == -1) {
            std::string problem = error_text(errno);
            incoming_drop(incoming);
            return problem;
        }
        done += static_cast<size_t>(n);
    }
    incoming.bytes += bytes.size();
    return "";
}

std::string incoming_end(IncomingFile &incoming, unsigned mode)
{
    if (incoming.file == -1)
        return "no file has begun";
    bool placed =
        fchmod(incoming.file, mode) == 0 && renameat(incoming.folder, (incoming.name + unfinished).c_str(),
                                                     incoming.folder, incoming.name.c_str()) == 0;
    std::string problem = placed ? "" : error_text(errno);
    if (placed) {
        close(incoming.file);
        close(incoming.folder);
        incoming = {};
    }
    incoming_drop(incoming);
    return problem;
}

void incoming_drop(IncomingFile &incoming)
{
    if (incoming.file == -1)
        return;
    unlinkat(incoming.folder, (incoming.name + unfinished).c_str(), 0);
    close(incoming.file);
    close(incoming.folder);
    incoming = {};
}
