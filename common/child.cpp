// One fork for all: the child reports through a pipe, closed by a successful exec, why it could not become
// the program. So a failed start is an exception here, never a process number that is not one.

#include "child.h"

#include "files.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>
#include <stdexcept>

namespace
{

[[noreturn]] void become(const ChildSetup &setup, const std::string &program, pid_t parent, int report)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent)
        _exit(1);
    if (setup.own_group)
        setpgid(0, 0);
    const int streams[] = {setup.input, setup.output, setup.errors};
    for (int stream = 0; stream < 3; ++stream)
        if (streams[stream] >= 0)
            dup2(streams[stream], stream);
    for (int descriptor : setup.inherited)
        fcntl(descriptor, F_SETFD, 0);
    std::vector<char *> arguments;
    for (const std::string &word : setup.words)
        arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    execv(program.c_str(), arguments.data());
    int error = errno;
    if (write(report, &error, sizeof error) < 0)
        _exit(126);
    _exit(127);
}

/// What to do when the temporary folder is full, which a tool may not be able to say itself.
std::string advice_on_space()
{
    const unsigned long long enough = 1024ULL * 1024;
    std::filesystem::path folder = std::filesystem::temp_directory_path();
    return std::filesystem::space(folder).available >= enough
               ? ""
               : folder.string() + " is full; make room there, or name another folder in TMPDIR";
}

} // namespace

pid_t start_child(const ChildSetup &setup)
{
    std::string program = find_tool(setup.words.at(0));
    int report[2];
    if (pipe2(report, O_CLOEXEC) != 0)
        throw std::runtime_error(program + ": no pipe: " + strerror(errno));
    const Descriptor reading = {report[0]};
    pid_t parent = getpid(), child = fork();
    if (child == 0)
        become(setup, program, parent, report[1]);
    int error = errno;
    close(report[1]);
    if (child < 0)
        throw std::runtime_error(program + ": no process: " + strerror(error));
    ssize_t got;
    while ((got = read(reading.number, &error, sizeof error)) < 0 && errno == EINTR)
        ;
    if (got > 0) {
        wait_for_child(child);
        throw std::runtime_error(program + ": cannot be started: " + strerror(error));
    }
    return child;
}

int wait_for_child(pid_t child)
{
    int status = 0;
    while (waitpid(child, &status, 0) < 0)
        if (errno != EINTR)
            throw std::runtime_error("process " + std::to_string(child) + ": " + strerror(errno));
    return status;
}

std::string run_tool(const std::vector<std::string> &words, const std::string &input)
{
    const Descriptor in = {memfd_create("input", MFD_CLOEXEC)}, out = {memfd_create("output", MFD_CLOEXEC)};
    if (in.number < 0 || out.number < 0)
        throw std::runtime_error(words.at(0) + ": no memory for its input and output: " + strerror(errno));
    write_file(path_of(in), input);
    int status = wait_for_child(
        start_child({.words = words, .input = in.number, .output = out.number, .errors = out.number}));
    std::string output = read_file(path_of(out));
    if (status != 0)
        throw std::runtime_error("the tool " + words[0] + " failed:\n" + output + advice_on_space());
    return output;
}

std::string find_tool(const std::string &name)
{
    if (name.find('/') != std::string::npos)
        return name;
    const char *path = getenv("PATH");
    std::istringstream folders(std::string(path == nullptr ? "/usr/bin:/bin" : path) + ":/usr/sbin:/sbin");
    for (std::string folder; std::getline(folders, folder, ':');)
        if (access((folder + "/" + name).c_str(), X_OK) == 0)
            return folder + "/" + name;
    throw std::runtime_error(name + ": not found; run machine/set_up.sh");
}
