// Processes write into files of a scratch folder.

#include "support.h"

#include "common/child.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "../support/bytes.h"

std::string content_of(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void put_file(const std::string &path, const std::string &content)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    write_file(path, content);
}

std::string bytes(const std::string &notation)
{
    const Bytes result = bytes_of(notation);
    return {result.begin(), result.end()};
}

Process::Process(const std::vector<std::string> &words)
{
    const int flags = O_WRONLY | O_CREAT | O_CLOEXEC;
    const Descriptor in = {open("/dev/null", O_RDONLY | O_CLOEXEC)},
                     out = {open(files.at("out").c_str(), flags, 0600)},
                     err = {open(files.at("err").c_str(), flags, 0600)};
    process = start_child({.words = words, .input = in.number, .output = out.number, .errors = err.number});
}

Process::~Process()
{
    if (process == -1)
        return;
    kill(process, SIGKILL);
    wait_for_child(process);
}

Finished Process::end(double seconds)
{
    int status = 0;
    for (double waited = 0; waitpid(process, &status, WNOHANG) == 0; waited += 0.002) {
        usleep(2000);
        if (waited < seconds)
            continue;
        kill(process, SIGKILL);
        wait_for_child(process);
        status = -1;
        break;
    }
    process = -1;
    int code = status == -1 ? -1000 : WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    return {code, content_of(files.at("out")), content_of(files.at("err"))};
}

std::vector<std::string> host_words(std::vector<std::string> words)
{
    words.insert(words.begin(), QEL_HOST);
    return words;
}

Finished host(const std::vector<std::string> &words, double seconds)
{
    return Process(host_words(words)).end(seconds);
}
