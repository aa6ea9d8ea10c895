// Processes write into files of a scratch folder.

#include "support.h"

#include "common/child.h"

#include <fcntl.h>
#include <sys/wait.h>

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

Finished run(const std::vector<std::string> &words)
{
    const ScratchFolder files;
    const int flags = O_WRONLY | O_CREAT | O_CLOEXEC;
    const Descriptor in = {open("/dev/null", O_RDONLY | O_CLOEXEC)},
                     out = {open(files.at("out").c_str(), flags, 0600)},
                     err = {open(files.at("err").c_str(), flags, 0600)};
    const int status = wait_for_child(
        start_child({.words = words, .input = in.number, .output = out.number, .errors = err.number}));
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    return {code, content_of(files.at("out")), content_of(files.at("err"))};
}

Finished host(std::vector<std::string> words)
{
    words.insert(words.begin(), QEL_HOST);
    return run(words);
}
