// The program behind ./run: its command line, and what its two commands share.

#include "app.h"

#include "common/files.h"
#include "common/interrupt.h"
#include "common/version.h"
#include "images/ram_disk.h"
#include "machine/drive/lcd.h"

#include <CLI/CLI.hpp>

#include <string.h>

#include <limits>

namespace
{

const char *const usage =
#include "usage.txt"
    ;

void add_options(CLI::App &app, Options &options, bool is_update)
{
    auto *mode = app.add_option("--mode", options.mode);
    auto *seconds = app.add_option("--seconds", options.seconds);
    app.add_option("--target", options.target)->check(CLI::IsMember(targets));
    app.add_option("--lcd-screenshot", options.lcd_screenshot);
    app.add_option("--record", options.record);
    app.add_flag("--plain", options.plain);
    app.add_flag("--print-qemu", options.print_qemu);
    app.add_option("--memory", options.memory_mb)->check(CLI::Range(32, 2048));
    app.add_option("--kernel", options.kernel)->check(CLI::ExistingFile);
    if (is_update) {
        options.mode = 3;
        options.seconds = 10;
        mode->check(CLI::IsMember({2, 3}));
        seconds->check(CLI::NonNegativeNumber);
        app.add_option("FILE", options.updater)->check(CLI::ExistingFile);
        return;
    }
    mode->check(CLI::Range(0, UINT8_MAX));
    seconds->check(CLI::PositiveNumber);
    app.add_option("--stick", options.stick)->check(CLI::ExistingDirectory);
    auto *application = app.add_option("--application", options.application)->check(CLI::ExistingFile);
    auto *system = app.add_option("--system-image", options.system_image)->check(CLI::ExistingPath);
    auto *storage = app.add_option("--storage", options.storage)->check(CLI::ExistingPath);
    auto *disk = app.add_option("--disk", options.disk)->check(CLI::ExistingFile);
    disk->excludes(application, system, storage);
    app.add_flag("--disk-in-place", options.disk_in_place)->needs(disk);
    app.add_flag("--shell", options.shell);
    app.add_option("--screenshot", options.screenshot);
    app.add_option("--link", options.link);
}

/// Words as a shell takes them.
std::string quoted(const std::vector<std::string> &words)
{
    std::string text;
    for (const std::string &word : words)
        text += (text.empty() ? "" : " ") + (word.find(' ') == word.npos ? word : "'" + word + "'");
    return text;
}

} // namespace

CabinetSetup common_setup(const Options &options, const Parts &parts, const std::string &folder)
{
    CabinetSetup setup;
    setup.hardware = parts.target.hardware;
    setup.kernel = options.kernel.empty() ? parts.kernel : options.kernel;
    setup.memory_mb = options.memory_mb;
    setup.ram_disk = folder + "/ram_disk";
    setup.internal_disk = folder + "/internal_disk";
    setup.board.mode = options.mode;
    setup.report_stops = true;
    setup.seconds_max = std::numeric_limits<double>::infinity();
    make_ram_disk(setup.ram_disk, parts, ram_disk_list(parts));
    return setup;
}

void start(Cabinet &cabinet, const CabinetSetup &setup, const Options &options, View &view,
           const std::string &how_to_end)
{
    if (!options.shell && !options.plain)
        open_panel(view, "Simulated cabinet, " + options.target + ".  " + how_to_end, options.mode);
    power_on(cabinet, setup);
}

void finish(const Cabinet &cabinet, const Options &options, View &view)
{
    close_panel(view);
    if (!options.lcd_screenshot.empty())
        write_png(draw_lcd(lcd_dots(cabinet.board)), options.lcd_screenshot);
    if (options.print_qemu)
        printf("%s\n", quoted(cabinet.qemu_command).c_str());
}

int main(int argc, char **argv)
{
    const bool is_update = argc > 1 && strcmp(argv[1], "update") == 0;
    Options options;
    CLI::App app("", is_update ? "./run update" : "./run");
    app.formatter_fn([](const CLI::App *, const std::string &, CLI::AppFormatMode) { return usage; });
    app.set_version_flag("--version", version_line("./run"));
    add_options(app, options, is_update);
    try {
        app.parse(argc - is_update, argv + is_update);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    catch_interrupts();
    try {
        Parts parts = find_parts(options.target);
        ScratchFolder scratch;
        return (is_update ? update : run)(options, parts, scratch.path) ? 0 : 1;
    } catch (const std::exception &error) {
        fprintf(stderr, "error: %s\n", error.what());
        return 1;
    }
}
