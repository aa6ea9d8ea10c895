// Processes, sockets and files for the tests of the host tier.

#include "support.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
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

std::string noise(size_t size, unsigned long seed)
{
    std::mt19937 random(seed);
    std::string result;
    for (size_t i = 0; i < size; i++)
        result += static_cast<char>(random() & 0xFF);
    return result;
}

std::string bytes(const std::string &hex)
{
    std::string result;
    for (size_t i = 0; i < hex.size();) {
        if (hex[i] == ' ') {
            i++;
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

bool Process::says(const std::string &text, double seconds) const
{
    for (double waited = 0; out().find(text) == std::string::npos; waited += 0.002) {
        if (waited >= seconds)
            return false;
        usleep(2000);
    }
    return true;
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

// ---- Peers ----

ScriptedPeer::ScriptedPeer(const std::string &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        listen(listener, 1) != 0)
        throw std::runtime_error(path + ": " + strerror(errno));
}

ScriptedPeer::~ScriptedPeer()
{
    hang_up();
    close(listener);
}

void ScriptedPeer::accept()
{
    pollfd ready = {listener, POLLIN, 0};
    if (poll(&ready, 1, 10000) != 1)
        throw std::runtime_error("nobody connects");
    connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
}

void ScriptedPeer::send(const std::string &record)
{
    ::send(connection, record.data(), record.size(), MSG_NOSIGNAL);
}

std::string ScriptedPeer::receive()
{
    char record[100];
    pollfd ready = {connection, POLLIN, 0};
    if (poll(&ready, 1, 5000) != 1)
        return "";
    ssize_t n = recv(connection, record, sizeof record, 0);
    return {record, static_cast<size_t>(n > 0 ? n : 0)};
}

void ScriptedPeer::hang_up()
{
    if (connection != -1)
        close(connection);
    connection = -1;
}
