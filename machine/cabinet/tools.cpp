// Small helpers of the host side: files, scratch folders, and other programs run to their end.

#include "tools.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>

namespace
{

/// Debian keeps some of the file-system tools out of an ordinary user's PATH.
std::string tool_path()
{
    const char *path = getenv("PATH");
    return std::string(path == nullptr ? "/usr/bin:/bin" : path) + ":/usr/sbin:/sbin";
}

/// In the child: `input` as standard input, the file `output` for all that is printed.
[[noreturn]] void become_tool(const std::vector<std::string> &command, const std::string &input,
                              const std::string &output)
{
    int in = open(input.c_str(), O_RDONLY);
    int out = open(output.c_str(), O_WRONLY);
    dup2(in, 0);
    dup2(out, 1);
    dup2(out, 2);
    std::vector<char *> arguments;
    for (const std::string &word : command)
        arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    setenv("PATH", tool_path().c_str(), 1);
    execvp(arguments[0], arguments.data());
    dprintf(2, "%s: %s\n", arguments[0], strerror(errno));
    _exit(127);
}

/// What to do when the temporary folder is full: the tool's own message may not have fitted either.
std::string advice_on_space()
{
    const unsigned long long enough = 1024ULL * 1024;
    std::filesystem::path folder = std::filesystem::temp_directory_path();
    return std::filesystem::space(folder).available >= enough
               ? ""
               : folder.string() + " is full; make room there, or name another folder in TMPDIR";
}

} // namespace

std::string run_tool(const std::vector<std::string> &command, const std::string &input)
{
    ScratchFolder scratch;
    std::string input_file = scratch.path + "/input", output_file = scratch.path + "/output";
    write_file(input_file, input);
    write_file(output_file, "");
    pid_t child = fork();
    if (child == 0)
        become_tool(command, input_file, output_file);
    int status = 0;
    waitpid(child, &status, 0);
    std::string output = read_file(output_file);
    if (status != 0)
        throw std::runtime_error("the tool " + command[0] + " failed:\n" + output + advice_on_space());
    return output;
}

std::set<std::string> libraries_of(const std::string &program)
{
    std::string listing = run_tool({"ldd", program});
    std::regex library("=> (/[^ ]+) ");
    std::set<std::string> found;
    for (std::sregex_iterator match(listing.begin(), listing.end(), library), none; match != none; ++match)
        found.insert((*match)[1]);
    return found;
}

std::string find_tool(const std::string &name)
{
    std::istringstream folders(tool_path());
    for (std::string folder; std::getline(folders, folder, ':');)
        if (access((folder + "/" + name).c_str(), X_OK) == 0)
            return folder + "/" + name;
    throw std::runtime_error(name + ": not found; run machine/set_up.sh");
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

/// Closed wherever its scope is left.
struct Descriptor {
    int number;
    ~Descriptor()
    {
        close(number);
    }
};

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
