// qel-factory, the tool of the production line: makes what a cabinet is made from, and checks what became
// of it. Here are its commands and options; the other files of this folder do the work.

#include "common/files.h"
#include "common/version.h"
#include "factory/boot_file.h"
#include "factory/disk_check.h"
#include "factory/stick.h"
#include "factory/try_install.h"
#include "images/system_image.h"

#include <CLI/CLI.hpp>

#include <filesystem>

namespace fs = std::filesystem;

namespace
{

struct Options {
    int (*command)(Options &options) = nullptr;
    std::string output;
    std::string folder;
    std::string stick;
    Delivery delivery;
    DiskCheck check;
    std::string target = targets.front();
    ScratchFolder scratch;
};

void show_progress(const std::string &step)
{
    printf("%s ...\n", step.c_str());
    fflush(stdout);
}

// ---- What each command does ----

/// Pieces that were not named are those of this source tree.
void complete(Options &options)
{
    Delivery &delivery = options.delivery;
    bool no_application = delivery.storage.empty() && delivery.application.empty();
    const bool has_system = !delivery.system_image.empty() && !fs::is_directory(delivery.system_image);
    if (!delivery.kernel.empty() && has_system && !no_application)
        return;
    Parts parts = find_parts(options.target);
    if (delivery.kernel.empty()) {
        show_progress("making the boot file (half a minute when something has changed)");
        delivery.kernel = usual_boot_file(parts);
    }
    if (!has_system) {
        show_progress("making the system image");
        delivery.system_image =
            system_image_for(parts, delivery.system_image, delivery.application, options.scratch.path);
    }
    if (no_application)
        delivery.storage = usual_storage(parts);
}

void print_size_of(const std::string &file)
{
    printf("%s: %.1f MB\n", file.c_str(), static_cast<double>(fs::file_size(file)) / 1024 / 1024);
}

int make_stick_image(Options &options)
{
    complete(options);
    make_factory_stick(options.output, options.delivery, show_progress);
    print_size_of(options.output);
    printf("Copy it to a stick, which loses all it held:\n"
           "    dd if=%s of=/dev/sdX bs=4M conv=fsync\n"
           "WARNING: a cabinet that is started from this stick wipes its internal disk without asking.\n",
           options.output.c_str());
    return 0;
}

int make_disk_image(Options &options)
{
    complete(options);
    make_installed_disk(options.output, options.delivery, show_progress);
    print_size_of(options.output);
    return 0;
}

int make_kernel(Options &options)
{
    show_progress("making the boot file (half a minute when something has changed)");
    fs::copy_file(usual_boot_file(find_parts(options.target)), options.output,
                  fs::copy_options::overwrite_existing);
    print_size_of(options.output);
    return 0;
}

int make_system(Options &options)
{
    show_progress("packing the system image");
    if (options.folder.empty())
        fs::copy_file(usual_system_image(find_parts(options.target)), options.output,
                      fs::copy_options::overwrite_existing);
    else
        pack_system_image(options.output, options.folder);
    print_size_of(options.output);
    return 0;
}

int check(Options &options)
{
    std::vector<Finding> findings = check_disk(options.check);
    long faults = 0;
    for (const Finding &finding : findings) {
        printf("%-6s %s\n", finding.good ? "ok" : "FAULT", finding.text.c_str());
        faults += !finding.good;
    }
    if (all_good(findings))
        printf("%s is a well installed cabinet disk\n", options.check.disk.c_str());
    else
        printf("%s is not: %ld fault%s\n", options.check.disk.c_str(), faults, faults == 1 ? "" : "s");
    return all_good(findings) ? 0 : 1;
}

int try_it(Options &options)
{
    if (options.stick.empty())
        complete(options);
    return try_install(find_target(options.target).hardware, options.stick, options.delivery, show_progress)
               ? 0
               : 1;
}

// ---- Options ----

void add_target(CLI::App &command, Options &options)
{
    command.add_option("--target", options.target, "the machine that this source tree's pieces are for")
        ->check(CLI::IsMember(targets))
        ->capture_default_str();
}

void add_delivery(CLI::App &command, Options &options)
{
    command.add_option("--kernel", options.delivery.kernel,
                       "boot file, kernel and RAM disk in one (default: the one of this source tree)");
    add_target(command, options);
    command.add_option("--system-image", options.delivery.system_image,
                       "what /usr is to hold: a cramfs or a folder (default: that of this source tree);\n"
                       "but for a cramfs, libraries that the application needs are added");
    command.add_option("--storage", options.delivery.storage,
                       "what /storage is to hold: a folder, or a storage.zip made of one");
    command.add_option("--application", options.delivery.application,
                       "program to put on the stick in addition to the storage archive; the first start\n"
                       "copies it. Without --storage and --application: the sample application");
    command
        .add_option_function<unsigned>(
            "--disk-size",
            [&options](unsigned megabytes) { options.delivery.disk_bytes = megabytes * mebibyte; },
            "size of the cabinet's internal disk in MB")
        ->check(CLI::Range(1, 1 << 20))
        ->default_str("128");
}

void add_output(CLI::App &command, Options &options, const std::string &what)
{
    command.add_option("OUTPUT", options.output, what + " to write")->required();
}

void add_commands(CLI::App &app, Options &options)
{
    CLI::App *stick = app.add_subcommand(
        "make-stick", "make the image of a bootable factory stick, after trying out all that is on it");
    stick->callback([&] { options.command = make_stick_image; });
    add_output(*stick, options, "image");
    add_delivery(*stick, options);
    stick->footer("A cabinet that is started from such a stick wipes its internal disk without asking.");

    CLI::App *disk = app.add_subcommand("make-disk", "make the image of an internal disk as installed");
    disk->callback([&] { options.command = make_disk_image; });
    add_output(*disk, options, "image");
    add_delivery(*disk, options);

    CLI::App *kernel =
        app.add_subcommand("make-kernel", "make the boot file \"vmlinux\" of this source tree");
    kernel->callback([&] { options.command = make_kernel; });
    add_output(*kernel, options, "file");
    add_target(*kernel, options);

    CLI::App *system = app.add_subcommand("make-system-image", "make the system image \"qel_usr.cramfs\"");
    system->callback([&] { options.command = make_system; });
    add_output(*system, options, "file");
    add_target(*system, options);
    system
        ->add_option("FOLDER", options.folder,
                     "what /usr is to hold (default: what this source tree puts there)")
        ->check(CLI::ExistingDirectory);

    CLI::App *disk_check =
        app.add_subcommand("check-disk", "judge whether a disk is well installed; only reads it");
    disk_check->callback([&] { options.command = check; });
    disk_check->add_option("DISK", options.check.disk, "image or device")->required();
    disk_check->add_option("--kernel", options.check.kernel, "the boot file that must be on it")
        ->check(CLI::ExistingFile);
    disk_check
        ->add_option("--system-image", options.check.system_image, "the system image that must be on it")
        ->check(CLI::ExistingFile);
    disk_check->footer("Exit code: 0 when it is, 1 when it is not, 2 for a wrong call.");

    CLI::App *install = app.add_subcommand(
        "install", "install a simulated cabinet from a factory stick, check its disk, and start it");
    install->callback([&] { options.command = try_it; });
    install->add_option("--stick", options.stick, "image of the stick (default: a new one is made)")
        ->check(CLI::ExistingFile);
    add_delivery(*install, options);
}

} // namespace

int main(int argc, char **argv)
{
    Options options;
    CLI::App app("Makes factory sticks for cabinets and checks the disks that were installed from them.",
                 "qel-factory");
    app.set_version_flag("--version", version_line("qel-factory"));
    app.require_subcommand(1);
    add_commands(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    try {
        return options.command(options);
    } catch (const std::exception &error) {
        fflush(stdout);
        fprintf(stderr, "error: %s\n", error.what());
        return 1;
    }
}
