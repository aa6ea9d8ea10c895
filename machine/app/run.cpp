// ./run: builds the images of a cabinet, switches it on and shows what it does.

#include "app.h"

#include "common/child.h"
#include "common/interrupt.h"
#include "host/recording.h"
#include "images/disks.h"
#include "images/system_image.h"
#include "machine/app/terminal.h"
#include "machine/drive/screen.h"
#include "machine/view/outcome.h"

#include <filesystem>
#include <stdexcept>

namespace fs = std::filesystem;

namespace
{

const double picture_seconds_max = 120;

std::string name_on_storage(const std::string &application)
{
    std::string name = fs::path(application).filename();
    return name.starts_with(application_prefix) ? name : application_prefix + name;
}

std::vector<FileAt> storage_files(const Options &options, const Parts &parts, const std::string &folder)
{
    std::vector<FileAt> files;
    if (fs::is_directory(options.storage))
        files = files_of_folder(options.storage);
    else if (!options.storage.empty())
        files = files_of_folder(unpack(options.storage, folder));
    std::string application = options.application;
    if (application.empty() && options.storage.empty())
        application = parts.sample_application;
    if (!application.empty())
        files.push_back({name_on_storage(application), application});
    return files;
}

/// The machine starts from the disk alone, unless a kernel is named.
void take_disk(CabinetSetup &setup, const Options &options)
{
    if (options.disk_in_place)
        setup.internal_disk = options.disk;
    else
        run_tool({"cp", "--sparse=always", options.disk, setup.internal_disk});
    if (options.kernel.empty()) {
        setup.kernel.clear();
        setup.ram_disk.clear();
    }
}

CabinetSetup prepare(const Options &options, const Parts &parts, const std::string &folder)
{
    printf("preparing the cabinet: RAM disk, system image, internal disk ...\n");
    fflush(stdout);
    CabinetSetup setup = common_setup(options, parts, folder);
    setup.host_link = options.link;
    setup.terminal = options.shell;
    const double start_seconds_max = 60;
    if (options.seconds > 0)
        setup.seconds_max = options.seconds + start_seconds_max;
    else if (!options.screenshot.empty())
        setup.seconds_max = picture_seconds_max + start_seconds_max;
    if (options.disk.empty())
        make_internal_disk(setup.internal_disk,
                           system_image_for(parts, options.system_image, options.application, folder),
                           storage_files(options, parts, folder));
    else
        take_disk(setup, options);
    if (!options.stick.empty()) {
        setup.stick = folder + "/stick";
        make_stick(setup.stick, files_of_folder(options.stick));
        if (!setup.kernel.empty()) // which gets it in its boot line
            setup.wait_for.push_back("/sys/block/sda/sda1");
    }
    return setup;
}

/// Takes the picture once the application has drawn; true when it is written.
bool take_picture(Cabinet &cabinet, const std::string &path)
{
    if (application_starts(cabinet) == 0 || !shows_something(grab_screen(cabinet)))
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

/// With a shell on this terminal, the view needs another place.
void view_into_log(View &view, const std::string &log)
{
    view.out = fopen(log.c_str(), "w");
    if (view.out == nullptr)
        throw std::runtime_error("cannot write " + log);
    printf("the view of the cabinet goes to %s; Ctrl-] switches the cabinet off\n", log.c_str());
}

} // namespace

bool run(const Options &options, const Parts &parts, const std::string &folder)
{
    View view;
    if (options.shell)
        view_into_log(view, parts.work_folder + "/run.log");
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
    start(cabinet, prepare(options, parts, folder), options, view, "Ctrl-C switches it off.");
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
    finish(cabinet, options, view);
    if (recording != nullptr)
        fclose(recording);
    int runs = application_starts(cabinet);
    show_line(view, uptime(cabinet), "machine",
              "off; the application was started " + (runs == 1 ? "once" : std::to_string(runs) + " times"));
    if (!options.screenshot.empty())
        printf(picture_taken ? "the screen is in %s\n"
                             : "error: nothing appeared on the screen; %s not written\n",
               options.screenshot.c_str());
    const std::string why = why_it_did_not_run(cabinet, uptime(cabinet));
    if (!why.empty())
        printf("error: %s\n", why.c_str());
    return why.empty() && (picture_taken || options.screenshot.empty());
}
