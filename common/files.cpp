// Files read and written whole files, a key file and a lock for what is made once, and scratch folders.

#include "files.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

Descriptor::~Descriptor()
{
    if (number >= 0)
        close(number);
}

std::string path_of(const Descriptor &descriptor)
{
    return "/proc/self/fd/" + std::to_string(descriptor.number);
}

std::string read_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw std::runtime_error(path + ": " + strerror(errno));
    std::stringstream bytes;
    bytes << file.rdbuf();
    return bytes.str();
}

void write_file(const std::string &path, const std::string &bytes)
{
    std::ofstream file(path, std::ios::binary);
    file << bytes;
    if (!file.flush())
        throw std::runtime_error(path + ": " + strerror(errno));
}

void write_file_at(const std::string &path, const std::string &source, unsigned long long offset)
{
    std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
    file.seekp(static_cast<std::streamoff>(offset));
    file << read_file(source);
    if (!file.flush())
        throw std::runtime_error(path + ": " + strerror(errno));
}

void require_file(const std::string &path, const std::string &advice)
{
    if (!std::filesystem::exists(path))
        throw std::runtime_error(path + ": not found; " + advice);
}

std::string stamp_of(const std::string &path)
{
    auto changed = std::filesystem::last_write_time(path).time_since_epoch().count();
    return std::to_string(changed) + " " + std::to_string(std::filesystem::file_size(path));
}

void make_unless_same(const std::string &file, const std::string &key, const std::function<void()> &make)
{
    std::string key_file = file + ".key";
    const Descriptor lock = {open((file + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644)};
    if (lock.number < 0 || flock(lock.number, LOCK_EX) != 0)
        throw std::runtime_error(file + ".lock: " + strerror(errno) + "; make its folder writable for you");
    if (!std::filesystem::exists(file) || !std::filesystem::exists(key_file) || read_file(key_file) != key) {
        std::filesystem::remove(key_file);
        make();
        write_file(key_file, key);
    }
}

ScratchFolder::ScratchFolder()
{
    std::error_code error;
    path = std::filesystem::temp_directory_path(error) / "qel-XXXXXX";
    if (error)
        throw std::runtime_error("the folder that TMPDIR names: " + error.message());
    if (mkdtemp(path.data()) == nullptr)
        throw std::runtime_error(path + ": " + strerror(errno));
}

ScratchFolder::~ScratchFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

std::string ScratchFolder::at(const std::string &name) const
{
    return path + "/" + name;
}
