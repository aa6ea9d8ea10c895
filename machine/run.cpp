// The program behind ./run: builds the images of a cabinet, switches it on and shows what it does.

#include "interrupt.h"
#include "target_option.h"
#include "terminal.h"
#include "view.h"

#include "cabinet/images.h"
#include "cabinet/lcd.h"
#include "cabinet/screen.h"

#include "recording.h"

#include <CLI/CLI.hpp>

#include <filesystem>

namespace fs = std::filesystem;

namespace
{

struct Options {
    int mode = 1;
    std::string stick;
    std::string application;
    double seconds = 0; ///< 0: until Ctrl-C
    bool shell = false;
    std::string screenshot;
    std::string lcd_screenshot;
    std::string link;
    std::string record;
    std::string target = targets.front();
    bool plain = false;
};

const char *const application_prefix = "qel_application_";
const double picture_seconds_max = 120;

Options parse(int argc, char **argv)
{
    Options options;
    CLI::App app("Starts the simulated cabinet with the loader as its first program and shows what it does.\n"
                 "Ends after --seconds, or with Ctrl-C. Exit code: 0 when the application ran, else 1.",
                 "./run");
    app.add_option("--mode", options.mode,
                   "mode byte of the board: 1 keeps the console, 2 enters the update mode, 3 does both")
        ->check(CLI::Range(0, 255))
        ->capture_default_str();
    app.add_option("--stick", options.stick, "folder whose files are on a USB stick in the cabinet")
        ->check(CLI::ExistingDirectory);
    app.add_option("--application", options.application,
                   "program to put on /storage in place of the sample application; static, a script for\n"
                   "/bin/sh, or using no other libraries than the sample (libX11)")
        ->check(CLI::ExistingFile);
    app.add_option("--seconds", options.seconds, "end this long after the loader has started")
        ->check(CLI::PositiveNumber);
    add_target(app, options.target);
    app.add_flag("--shell", options.shell, "a shell beside the loader on this terminal; Ctrl-] ends");
    app.add_option(
        "--screenshot", options.screenshot,
        "write what the cabinet's screen shows as a PNG file; ends then, if --seconds is not given");
    app.add_option("--lcd-screenshot", options.lcd_screenshot, lcd_screenshot_help);
    app.add_option("--link", options.link,
                   "make a UNIX socket at this path for the host's end of the host link");
    app.add_option("--record", options.record, "record the host link to this pcapng file");
    app.add_flag("--plain", options.plain, plain_help);
    app.footer(
        "Lines show: seconds since power-on, where a line comes from, and the line. h8 = command that\n"
        "the board's microcontroller received, lcd = the board's display, start and end = programs that\n"
        "the loader runs, stop = a failed check.");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        exit(app.exit(error) == 0 ? 0 : 2);
    }
    return options;
}

std::string name_on_storage(const std::string &application)
{
    std::string name = fs::path(application).filename();
    return name.starts_with(application_prefix) ? name : application_prefix + name;
}

/// Builds all images into `folder`.
CabinetSetup prepare(const Options &options, const Parts &parts, const std::string &folder)
{
    CabinetSetup setup;
    setup.kernel = parts.kernel_folder + "/vmlinux";
    setup.ram_disk = folder + "/ram_disk";
    setup.internal_disk = folder + "/internal_disk";
    setup.host_link = options.link;
    setup.terminal = options.shell;
    setup.board.mode = options.mode;
    setup.tell_stops = true;
    setup.seconds_max = options.seconds > 0          ? options.seconds + 60
                        : options.screenshot.empty() ? 1e9
                                                     : picture_seconds_max + 60;
    printf("preparing the cabinet: RAM disk, system image, internal disk ...\n");
    fflush(stdout);
    make_ram_disk(setup.ram_disk, parts, ram_disk_list(parts));
    std::string application = options.application.empty() ? parts.sample_application : options.application;
    make_internal_disk(setup.internal_disk, usual_system_image(parts),
                       {{name_on_storage(application), application}});
    if (!options.stick.empty()) {
        setup.stick = folder + "/stick";
        make_stick(setup.stick, files_of_folder(options.stick));
        setup.wait_for.push_back("/sys/block/sda/sda1");
    }
    return setup;
}

/// Takes the picture once the application has drawn; true when it is written.
bool take_picture(Cabinet &cabinet, const std::string &path)
{
    if (count_starts(cabinet, "/storage/") == 0 || !shows_something(grab_screen(cabinet)))
        return false;
    pump_for(cabinet, 1);
    Picture picture = grab_screen(cabinet);
    if (!shows_something(picture))
        return false;
    write_png(picture, path);
    return true;
}

bool is_over(const Options &options, const Cabinet &cabinet, double loader_started_at, bool picture_taken)
{
    if (interrupted())
        return true;
    if (options.seconds > 0)
        return loader_started_at >= 0 && uptime(cabinet) >= loader_started_at + options.seconds;
    return !options.screenshot.empty() && (picture_taken || uptime(cabinet) >= picture_seconds_max);
}

/// Adds a host-comms record to a recording; as everywhere, outbound is what the host sends.
void record_link(FILE *recording, const Event &event)
{
    if (event.kind != Event::link_from_loader && event.kind != Event::link_to_loader)
        return;
    Direction direction = event.kind == Event::link_to_loader ? Direction::outbound : Direction::inbound;
    std::vector<uint8_t> bytes(event.text.begin(), event.text.end());
    if (!recording_add(recording, recording_now_us(), direction, bytes))
        throw std::runtime_error("the recording cannot be written; is the disk full?");
}

FILE *create_recording(const std::string &path)
{
    FILE *recording = path.empty() ? nullptr : recording_create(path.c_str());
    if (recording == nullptr && !path.empty())
        throw std::runtime_error("cannot write " + path + "; name another file for --record");
    return recording;
}

/// Runs the cabinet to its end; true when all that was asked for happened.
bool run(const Options &options, const CabinetSetup &setup, View &view)
{
    Cabinet cabinet;
    Terminal terminal;
    bool picture_taken = false;
    double next_picture = 0, loader_started_at = -1;
    FILE *recording = create_recording(options.record);
    cabinet.on_event = [&](const Event &event) {
        show_event(view, event);
        if (recording != nullptr)
            record_link(recording, event);
        if (event.kind == Event::loader_started)
            loader_started_at = event.seconds;
        if (event.kind == Event::terminal)
            show_on_terminal(event.text);
    };
    if (!options.shell && !options.plain)
        open_panel(view, "Simulated cabinet, " + options.target + ".  Ctrl-C switches it off.", options.mode);
    power_on(cabinet, setup);
    if (options.shell)
        take_terminal(terminal);
    while (!is_over(options, cabinet, loader_started_at, picture_taken) && !terminal.ended) {
        pump(cabinet, 0.1);
        show_waiting(view, cabinet);
        if (options.shell)
            pass_keys(terminal, cabinet);
        if (!options.screenshot.empty() && !picture_taken && uptime(cabinet) >= next_picture) {
            picture_taken = take_picture(cabinet, options.screenshot);
            next_picture = uptime(cabinet) + 1;
        }
    }
    give_terminal_back(terminal);
    close_panel(view);
    if (!options.lcd_screenshot.empty())
        write_png(draw_lcd(lcd_dots(cabinet.board)), options.lcd_screenshot);
    if (recording != nullptr)
        fclose(recording);
    int runs = count_starts(cabinet, "/storage/");
    show_line(view, uptime(cabinet), "machine",
              "off; the application was started " + (runs == 1 ? "once" : std::to_string(runs) + " times"));
    if (!options.screenshot.empty())
        printf(picture_taken ? "the screen is in %s\n"
                             : "error: nothing appeared on the screen; %s not written\n",
               options.screenshot.c_str());
    return runs > 0 && (picture_taken || options.screenshot.empty());
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
        if (options.shell) {
            std::string log = parts.work_folder + "/run.log";
            view.out = fopen(log.c_str(), "w");
            if (view.out == nullptr)
                throw std::runtime_error("cannot write " + log);
            printf("the view of the cabinet goes to %s; Ctrl-] switches the cabinet off\n", log.c_str());
        }
        return run(options, prepare(options, parts, scratch.path), view) ? 0 : 1;
    } catch (const std::exception &error) {
        fprintf(stderr, "error: %s\n", error.what());
        return 1;
    }
}
