// One process of this program for each link, all together. Each prints its own result; only whole lines of it
// go on from here.

#include "call.h"
#include "common/child.h"
#include "common/files.h"
#include "common/interrupt.h"
#include "errors.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

namespace
{

const int look_every_ms = 50;

struct Runner {
    Place place;
    pid_t process = 0;
    int output = -1;       ///< what it prints, or -1 when it has ended
    std::string text = {}; ///< of that, a line that has not ended
    int exit = 0;
};

/// The words of the call without its links.
std::vector<std::string> common_words(const std::vector<std::string> &words)
{
    std::vector<std::string> kept;
    for (size_t i = 0; i < words.size(); ++i) {
        const std::string &word = words[i];
        if (word == "--") {
            kept.insert(kept.end(), words.begin() + static_cast<ptrdiff_t>(i), words.end());
            break;
        }
        if (word == "--device" || word == "--socket")
            ++i;
        else if (!word.starts_with("--device=") && !word.starts_with("--socket="))
            kept.push_back(word);
    }
    return kept;
}

/// Standard input to its end, for all of them.
std::string whole_input()
{
    std::string text;
    for (;;) {
        pollfd input = {STDIN_FILENO, POLLIN, 0};
        if (interrupted())
            throw Failure(fault::interrupted, "interrupted");
        if (poll(&input, 1, look_every_ms) != 1)
            continue;
        char bytes[4096];
        ssize_t n = read(STDIN_FILENO, bytes, sizeof bytes);
        if (n == 0 || (n < 0 && errno != EINTR && errno != EAGAIN))
            return text;
        text.append(bytes, static_cast<size_t>(std::max<ssize_t>(n, 0)));
    }
}

void start(Runner &runner, const std::vector<std::string> &words, const std::string &input)
{
    const Descriptor in = {memfd_create("input", MFD_CLOEXEC)};
    int ends[2];
    if (in.number < 0 || pipe2(ends, O_CLOEXEC) != 0)
        throw std::runtime_error("no pipe for a process; close some programs and try again");
    write_file(path_of(in), input);
    const Descriptor out = {ends[1]};
    std::vector<std::string> all = {"/proc/self/exe", "--one-of-several", "--" + runner.place.kind,
                                    runner.place.path};
    all.insert(all.end(), words.begin(), words.end());
    // A group of its own: what ends it comes from here alone.
    runner.process = start_child({.words = all,
                                  .input = in.number,
                                  .output = out.number,
                                  .errors = -1,
                                  .inherited = {},
                                  .own_group = true});
    runner.output = ends[0];
}

/// Prints what a process that was killed cannot.
void print_lost(const Runner &runner, const std::string &command)
{
    output.link = name_of(runner.place);
    Ended ended = failed(command, std::runtime_error("a process of qel-host has ended without a result; "
                                                     "report this as a fault of qel-host"));
    ended.link = output.link;
    print_error(ended.text);
    print_result(ended);
    output.link.clear();
}

/// Takes what a process prints, and prints its lines as they are whole.
void take(Runner &runner, const Command &command)
{
    char bytes[4096];
    ssize_t n = read(runner.output, bytes, sizeof bytes);
    if (n > 0) {
        runner.text.append(bytes, static_cast<size_t>(n));
        if (size_t end = runner.text.rfind('\n'); end != std::string::npos) {
            print_line(runner.text.substr(0, end));
            runner.text.erase(0, end + 1);
        }
    }
    if (n > 0 || (n < 0 && errno == EINTR))
        return;
    close(runner.output);
    runner.output = -1;
    int status = wait_for_child(runner.process);
    runner.exit = WIFEXITED(status) ? WEXITSTATUS(status) : fault::internal.exit;
    if (!WIFEXITED(status))
        print_lost(runner, command.name);
}

void take_all(std::vector<Runner> &runners, const Command &command)
{
    bool asked_to_end = false;
    auto runs = [](const Runner &runner) { return runner.output >= 0; };
    while (std::ranges::any_of(runners, runs)) {
        std::vector<pollfd> outputs;
        for (const Runner &runner : runners)
            outputs.push_back({runner.output, POLLIN, 0}); // negative ones are left out
        poll(outputs.data(), outputs.size(), look_every_ms);
        for (size_t i = 0; i < runners.size(); ++i)
            if (runs(runners[i]) && outputs[i].revents != 0)
                take(runners[i], command);
        if (!interrupted() || std::exchange(asked_to_end, true))
            continue;
        for (const Runner &runner : runners)
            if (runs(runner))
                kill(runner.process, SIGTERM);
    }
}

} // namespace

int run_on_several(const Call &call)
{
    std::string input = call.command.reads_input ? whole_input() : "";
    std::vector<std::string> words = common_words(call.words);
    std::vector<Runner> runners;
    for (const Place &place : call.link.places)
        start(runners.emplace_back(Runner{.place = place}), words, input);
    take_all(runners, call.command);
    auto failed_one = std::ranges::find_if(runners, [](const Runner &runner) { return runner.exit != 0; });
    return failed_one == runners.end() ? 0 : failed_one->exit;
}
