// The program behind ./run update: a cabinet in update mode, qel-host as its host, and an updater that
// travels from one to the other and takes the loader's place.

#include "interrupt.h"
#include "target_option.h"
#include "view.h"

#include "cabinet/images.h"
#include "cabinet/lcd.h"

#include <CLI/CLI.hpp>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

struct Options {
    std::string updater = SAMPLE_UPDATER;
    int mode = 3;
    double seconds = 10;
    std::string lcd_screenshot;
    std::string record;
    std::string target = targets.front();
    bool plain = false;
};

const double banner_seconds_max = 60;
const double start_seconds_max = 20;

Options parse(int argc, char **argv)
{
    Options options;
    CLI::App app("Starts the cabinet in update mode, sends it an updater over the host link and shows it\n"
                 "running in the loader's place. Exit code: 0 when it ran, else 1.",
                 "./run update");
    app.add_option("FILE", options.updater,
                   "the updater: static, or a script for /bin/sh (default: a small sample)")
        ->check(CLI::ExistingFile);
    app.add_option("--mode", options.mode, "mode byte of the board: 2 is silent, 3 keeps the console")
        ->check(CLI::IsMember({2, 3}))
        ->capture_default_str();
    app.add_option("--seconds", options.seconds, "go on this long after the updater has started")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    add_target(app, options.target);
    app.add_option("--lcd-screenshot", options.lcd_screenshot, lcd_screenshot_help);
    app.add_option("--record", options.record, "record the link to this pcapng file");
    app.add_flag("--plain", options.plain, plain_help);
    app.footer("The link takes about 2 kB a second: an updater of 100 kB is under way for 45 seconds.");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        exit(app.exit(error) == 0 ? 0 : 2);
    }
    return options;
}

CabinetSetup prepare(const Options &options, const Parts &parts, const std::string &folder)
{
    CabinetSetup setup;
    setup.kernel = parts.kernel_folder + "/vmlinux";
    setup.ram_disk = folder + "/ram_disk";
    setup.internal_disk = folder + "/internal_disk";
    setup.host_link = folder + "/link";
    setup.board.mode = options.mode;
    setup.tell_stops = true;
    setup.seconds_max = 1e9;
    make_ram_disk(setup.ram_disk, parts, ram_disk_list(parts));
    make_blank_disk(setup.internal_disk);
    return setup;
}

/// qel-host at work: its process, and the end of the pipe that both its outputs go to.
struct Host {
    pid_t process;
    int output;
    std::string line; ///< what it has printed of a line that has not ended
};

Host start_host(const Options &options, const std::string &socket)
{
    std::vector<std::string> words = {QEL_HOST, "update", "--socket", socket};
    if (!options.record.empty())
        words.insert(words.end(), {"--record", options.record});
    words.push_back(options.updater);
    std::vector<char *> arguments;
    for (std::string &word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);

    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        throw std::runtime_error("no pipe for qel-host");
    pid_t process = fork();
    if (process == 0) {
        dup2(ends[1], STDOUT_FILENO);
        dup2(ends[1], STDERR_FILENO);
        execv(QEL_HOST, arguments.data());
        _exit(127);
    }
    close(ends[1]);
    if (process < 0)
        throw std::runtime_error("qel-host cannot be started");
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    return {process, ends[0], ""};
}

/// Shows the lines that qel-host has printed. Returns false when it has ended.
bool show_host(View &view, const Cabinet &cabinet, Host &host)
{
    char bytes[1000];
    ssize_t count;
    while ((count = read(host.output, bytes, sizeof bytes)) > 0)
        host.line.append(bytes, static_cast<size_t>(count));
    for (size_t end; (end = host.line.find('\n')) != std::string::npos; host.line.erase(0, end + 1))
        show_line(view, uptime(cabinet), "host", host.line.substr(0, end));
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
    for (const Event &event : cabinet.events)
        if (event.kind == Event::lcd_row && event.text == text)
            return true;
    return false;
}

/// The exchange from the banner to the running updater.
bool update(const Options &options, const CabinetSetup &setup, View &view)
{
    Cabinet cabinet;
    cabinet.on_event = [&](const Event &event) { show_event(view, event); };
    if (!options.plain)
        open_panel(view, "Simulated cabinet, " + options.target + ".  Ctrl-C ends the update.", options.mode);
    power_on(cabinet, setup);
    auto banner = [&] { return display_shows(cabinet, "TOLBRIN Update..."); };
    if (!show_until(view, cabinet, banner, banner_seconds_max))
        throw std::runtime_error("the loader did not enter its update mode");

    Host host = start_host(options, setup.host_link);
    auto host_ended = [&] { return !show_host(view, cabinet, host); };
    if (!show_until(view, cabinet, host_ended, 1e9))
        kill(host.process, SIGTERM);
    int status = 0;
    waitpid(host.process, &status, 0);
    close(host.output);
    if (interrupted() || status != 0)
        throw std::runtime_error("qel-host did not deliver the updater");

    auto started = [&] { return display_shows(cabinet, "Starting updater..."); };
    if (!show_until(view, cabinet, started, start_seconds_max))
        throw std::runtime_error("the loader did not start the updater");
    show_until(
        view, cabinet, [] { return false; }, options.seconds);
    std::string words = look_inside(cabinet, "tr '\\0' ' ' </proc/1/cmdline");
    close_panel(view);
    if (!options.lcd_screenshot.empty())
        write_png(draw_lcd(lcd_dots(cabinet.board)), options.lcd_screenshot);
    show_line(view, uptime(cabinet), "machine", "process 1 is now: " + words);
    // An updater may have become another program.
    std::string program = look_inside(cabinet, "readlink /proc/1/exe");
    return !program.empty() && !program.ends_with("/qel_application_loader\n");
}

} // namespace

int main(int argc, char **argv)
{
    Options options = parse(argc, argv);
    catch_interrupts();
    try {
        Parts parts = find_parts(options.target);
        ScratchFolder scratch;
        View view;
        printf("preparing the cabinet: RAM disk, blank internal disk ...\n");
        fflush(stdout);
        return update(options, prepare(options, parts, scratch.path), view) ? 0 : 1;
    } catch (const std::exception &error) {
        fprintf(stderr, "error: %s\n", error.what());
        return 1;
    }
}
