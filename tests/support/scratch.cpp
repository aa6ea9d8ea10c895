// Scratch folders. Everything here goes through libstdc++ or calls the product does not make, so that
// none of it is recorded or moved by a FakeKernel.

#include "support/scratch.h"
#include "support/fake_kernel.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace fs = std::filesystem;

Scratch::Scratch()
{
    std::string pattern = (fs::temp_directory_path() / "qel-test-XXXXXX").string();
    if (!mkdtemp(pattern.data()))
        throw std::runtime_error("no scratch folder: " + pattern);
    folder = pattern;
    maker = getpid();
}

Scratch::~Scratch()
{
    std::error_code ignored;
    if (getpid() == maker)
        fs::remove_all(folder, ignored);
}

std::string Scratch::at(const std::string &path) const
{
    return path.empty() || path.front() == '/' ? folder + path : folder + "/" + path;
}

// ---- Filling ----

void Scratch::make_folder(const std::string &path) const
{
    fs::create_directories(at(path));
}

void Scratch::make_file(const std::string &path, const std::string &content, mode_t mode) const
{
    fs::create_directories(fs::path(at(path)).parent_path());
    std::ofstream(at(path), std::ios::binary) << content;
    fs::permissions(at(path), static_cast<fs::perms>(mode));
}

void Scratch::make_link(const std::string &path, const std::string &content) const
{
    fs::create_directories(fs::path(at(path)).parent_path());
    fs::create_symlink(content, at(path));
}

void Scratch::make_socket(const std::string &path) const
{
    fs::create_directories(fs::path(at(path)).parent_path());
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::string whole = at(path);
    if (whole.size() >= sizeof address.sun_path)
        throw std::runtime_error("path too long for a socket: " + whole);
    memcpy(address.sun_path, whole.c_str(), whole.size() + 1);
    const int end = socket(AF_UNIX, SOCK_STREAM, 0);
    const int result = bind(end, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    real_close(end);
    if (result != 0)
        throw std::runtime_error("no socket: " + whole);
}

// ---- Looking ----

int Scratch::has(const std::string &path) const
{
    return fs::exists(fs::symlink_status(at(path)));
}

int Scratch::is_folder(const std::string &path) const
{
    return fs::is_directory(fs::symlink_status(at(path)));
}

int Scratch::is_link(const std::string &path) const
{
    return fs::is_symlink(fs::symlink_status(at(path)));
}

std::string Scratch::content(const std::string &path) const
{
    std::ifstream file(at(path), std::ios::binary);
    if (!file)
        throw std::runtime_error("no such file: " + at(path));
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::string Scratch::link_content(const std::string &path) const
{
    return fs::read_symlink(at(path)).string();
}

mode_t Scratch::mode(const std::string &path) const
{
    return static_cast<mode_t>(fs::status(at(path)).permissions());
}

std::vector<std::string> Scratch::tree(const std::string &path) const
{
    std::vector<std::string> entries;
    for (const auto &entry : fs::recursive_directory_iterator(at(path))) {
        const std::string name = entry.path().lexically_relative(at(path)).string();
        entries.push_back(entry.is_directory() && !entry.is_symlink() ? name + "/" : name);
    }
    std::sort(entries.begin(), entries.end());
    return entries;
}

std::vector<std::string> Scratch::names(const std::string &path) const
{
    std::vector<std::string> entries;
    for (const auto &entry : fs::directory_iterator(at(path)))
        entries.push_back(entry.path().filename().string());
    return entries;
}
