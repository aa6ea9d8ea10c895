// ./run update: a cabinet in update mode, qel-host as its host, and an updater that travels from one to the
// other and takes the loader's place.

#include "app.h"

#include "common/child.h"
#include "common/files.h"
#include "common/interrupt.h"
#include "images/disks.h"

#include <nlohmann/json.hpp>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <limits>
#include <stdexcept>

namespace
{

const double banner_seconds_max = 60;
const double start_seconds_max = 20;
const double no_limit = std::numeric_limits<double>::infinity();

/// Exit code of qel-host: sent, but nothing can show that it arrived. The cabinet can.
const int unverified = 6;

/// qel-host at work: its process, and the end of the pipe that both its outputs go to.
struct Host {
    Descriptor output;
    pid_t process;
    std::string line; ///< what it has printed of a line that has not ended
};

Host start_host(const Options &options, const Parts &parts, const std::string &socket)
{
    std::vector<std::string> words = {parts.build_folder + "/host/qel-host", "--json", "update", "--socket",
                                      socket};
    if (!options.record.empty())
        words.insert(words.end(), {"--record", options.record});
    words.push_back(options.updater.empty() ? parts.source_folder + "/machine/app/sample_updater.sh"
                                            : options.updater);
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        throw std::runtime_error(std::string("no pipe for qel-host: ") + strerror(errno));
    const Descriptor input = {ends[1]};
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    pid_t process = -1;
    try {
        process = start_child({.words = words, .output = ends[1], .errors = ends[1], .own_group = true});
    } catch (...) {
        close(ends[0]);
        throw;
    }
    return {{ends[0]}, process, ""};
}

/// The result of qel-host in words: what proves that the loader has taken the updater, or the error's code,
/// whose message qel-host has printed, and the loader's last sign of life.
std::string describe_result(const nlohmann::json &line)
{
    const nlohmann::json &error = line.at("error"), &result = line.at("result");
    std::string text = error.is_null() ? "proof: " + line.at("proof").get<std::string>()
                                       : "error: " + error.at("code").get<std::string>();
    if (result.is_object() && !result.at("last_sign_s").is_null())
        text +=
            "; the loader's last sign of life came " + result["last_sign_s"].dump() + " s before the watch";
    return text;
}

/// Shows the lines that qel-host has printed: notes and progress as they are, the result in words.
/// Returns false when qel-host has ended.
bool show_host(View &view, const Cabinet &cabinet, Host &host)
{
    char bytes[1000];
    ssize_t count;
    while ((count = read(host.output.number, bytes, sizeof bytes)) > 0)
        host.line.append(bytes, static_cast<size_t>(count));
    for (size_t end; (end = host.line.find('\n')) != std::string::npos; host.line.erase(0, end + 1)) {
        std::string line = host.line.substr(0, end);
        auto object = nlohmann::json::parse(line, nullptr, false);
        if (!object.is_object())
            show_line(view, uptime(cabinet), "host", line);
        else if (object.contains("command"))
            show_line(view, uptime(cabinet), "host", describe_result(object));
    }
    return count != 0;
}

/// Lets the machine go on until `condition` holds, for at most `seconds`.
bool show_until(View &view, Cabinet &cabinet, const std::function<bool()> &condition, double seconds)
{
    const double end = uptime(cabinet) + seconds;
    while (!condition()) {
        if (interrupted() || uptime(cabinet) >= end)
            return false;
        pump(cabinet, 0.1);
        show_waiting(view, cabinet);
    }
    return true;
}

bool display_shows(const Cabinet &cabinet, const std::string &text)
{
    return std::any_of(cabinet.events.begin(), cabinet.events.end(), [&](const Event &event) {
        return event.kind == Event::lcd_row && event.text == text;
    });
}

/// Runs qel-host to its end.
void send_updater(const Options &options, const Parts &parts, const std::string &socket, Cabinet &cabinet,
                  View &view)
{
    Host host = start_host(options, parts, socket);
    auto host_ended = [&] { return !show_host(view, cabinet, host); };
    if (!show_until(view, cabinet, host_ended, no_limit))
        kill(host.process, SIGTERM);
    int status = wait_for_child(host.process);
    if (interrupted())
        throw std::runtime_error("interrupted");
    if (status != 0 && !(WIFEXITED(status) && WEXITSTATUS(status) == unverified))
        throw std::runtime_error("qel-host did not deliver the updater");
}

} // namespace

bool update(const Options &options, const Parts &parts, const std::string &folder)
{
    printf("preparing the cabinet: RAM disk, blank internal disk ...\n");
    fflush(stdout);
    CabinetSetup setup = common_setup(options, parts, folder);
    setup.host_link = folder + "/link";
    make_blank_disk(setup.internal_disk);

    View view;
    Cabinet cabinet;
    cabinet.on_event = [&](const Event &event) { show_event(view, event); };
    start(cabinet, setup, options, view, "Ctrl-C ends the update.");
    auto banner = [&] { return display_shows(cabinet, "TOLBRIN Update..."); };
    if (!show_until(view, cabinet, banner, banner_seconds_max))
        throw std::runtime_error("the loader did not enter its update mode");
    send_updater(options, parts, setup.host_link, cabinet, view);
    auto started = [&] { return display_shows(cabinet, "Starting updater..."); };
    if (!show_until(view, cabinet, started, start_seconds_max))
        throw std::runtime_error("the loader did not start the updater");
    show_until(
        view, cabinet, [] { return false; }, options.seconds);
    std::string words = look_inside(cabinet, "tr '\\0' ' ' </proc/1/cmdline");
    finish(cabinet, options, view);
    show_line(view, uptime(cabinet), "machine", "process 1 is now: " + words);
    // An updater may have become another program.
    std::string program = look_inside(cabinet, "readlink /proc/1/exe");
    return !program.empty() && !program.ends_with("/qel_application_loader\n");
}
