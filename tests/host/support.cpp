// Processes, sockets and files for the tests of the host tier.

#include "support.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

// ---- Files ----

ScratchFolder::ScratchFolder()
{
    path = std::filesystem::temp_directory_path() / "qel-host-XXXXXX";
    if (mkdtemp(path.data()) == nullptr)
        throw std::runtime_error("no scratch folder: " + path);
}

ScratchFolder::~ScratchFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

std::string content_of(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void put_file(const std::string &path, const std::string &content)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

std::string bytes(const std::string &hex)
{
    std::string result;
    for (size_t i = 0; i < hex.size();) {
        if (hex[i] == ' ') {
            ++i;
            continue;
        }
        result += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
        i += 2;
    }
    return result;
}

// ---- Processes ----

Process::Process(std::vector<std::string> words)
{
    std::vector<char *> arguments;
    for (std::string &word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, files.at("out").c_str(), O_WRONLY | O_CREAT, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, files.at("err").c_str(), O_WRONLY | O_CREAT, 0600);
    int error = posix_spawnp(&process, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0)
        throw std::runtime_error("cannot start " + words[0] + ": " + strerror(error));
}

Process::~Process()
{
    if (process == -1)
        return;
    kill(process, SIGKILL);
    waitpid(process, nullptr, 0);
}

Ended Process::end(double seconds)
{
    int status = 0;
    for (double waited = 0; waitpid(process, &status, WNOHANG) == 0; waited += 0.002) {
        usleep(2000);
        if (waited < seconds)
            continue;
        kill(process, SIGKILL);
        waitpid(process, &status, 0);
        status = -1;
        break;
    }
    process = -1;
    int code = status == -1 ? -1000 : WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    return {code, out(), content_of(files.at("err"))};
}

Ended Process::stop()
{
    kill(process, SIGTERM);
    return end();
}

std::string Process::out() const
{
    return content_of(files.at("out"));
}

std::vector<std::string> host_words(std::vector<std::string> words)
{
    words.insert(words.begin(), QEL_HOST);
    return words;
}

Ended host(std::vector<std::string> words, double seconds)
{
    return Process(host_words(std::move(words))).end(seconds);
}
