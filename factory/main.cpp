// qel-factory, the tool of the production line: makes what a cabinet is made from, and checks what became
// of it. Here are its commands and options; the work is done in the files beside this one.

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
    std::string output;
    std::string folder;
    std::string stick;
    Delivery delivery;
    DiskCheck check;
    std::string target = targets.front(); ///< of the boot file
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
    if (!delivery.kernel.empty() && !delivery.system_image.empty() && !no_application)
        return;
    Parts parts = find_parts(options.target);
    if (delivery.kernel.empty()) {
        show_progress("making the boot file (half a minute when something has changed)");
        delivery.kernel = usual_boot_file(parts);
    }
    if (delivery.system_image.empty()) {
        show_progress("making the system image");
        delivery.system_image = usual_system_image(parts);
    }
    if (no_application)
        delivery.storage = usual_storage(parts);
}

void tell_file(const std::string &file)
{
    printf("%s: %.1f MB\n", file.c_str(), static_cast<double>(fs::file_size(file)) / 1024 / 1024);
}

int make_stick_image(Options &options)
{
    complete(options);
    make_factory_stick(options.output, options.delivery, show_progress);
    tell_file(options.output);
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
    tell_file(options.output);
    return 0;
}

int make_kernel(const Options &options)
{
    show_progress("making the boot file (half a minute when something has changed)");
    fs::copy_file(usual_boot_file(find_parts(options.target)), options.output,
                  fs::copy_options::overwrite_existing);
    tell_file(options.output);
    return 0;
}

int make_system(const Options &options)
{
    show_progress("packing the system image");
    if (options.folder.empty())
        fs::copy_file(usual_system_image(find_parts()), options.output, fs::copy_options::overwrite_existing);
    else
        pack_system_image(options.output, options.folder);
    tell_file(options.output);
    return 0;
}

int check(const Options &options)
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
    return try_install(options.stick, options.delivery, show_progress) ? 0 : 1;
}

// ---- Options ----

void add_target(CLI::App &command, Options &options)
{
    command.add_option("--target", options.target, "take the loader that is built for this machine")
        ->check(CLI::IsMember(targets))
        ->capture_default_str();
}

void add_delivery(CLI::App &command, Options &options)
{
    command.add_option("--kernel", options.delivery.kernel,
                       "boot file, kernel and RAM disk in one; without it that of this source tree");
    add_target(command, options);
    command.add_option("--system-image", options.delivery.system_image,
                       "cramfs for /usr; without it that of this source tree");
    command.add_option("--storage", options.delivery.storage,
                       "what /storage is to hold: a folder, or a storage.zip made of one");
    command.add_option("--application", options.delivery.application,
                       "program to put on the stick beside the storage archive; the first start takes it\n"
                       "over. With neither of both it is the sample application");
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
    add_output(*stick, options, "image");
    add_delivery(*stick, options);
    stick->footer("A cabinet that is started from such a stick wipes its internal disk without asking.");

    CLI::App *disk = app.add_subcommand("make-disk", "make the image of an internal disk as installed");
    add_output(*disk, options, "image");
    add_delivery(*disk, options);

    CLI::App *kernel =
        app.add_subcommand("make-kernel", "make the boot file \"vmlinux\" of this source tree");
    add_output(*kernel, options, "file");
    add_target(*kernel, options);

    CLI::App *system = app.add_subcommand("make-system-image", "make the system image \"qel_usr.cramfs\"");
    add_output(*system, options, "file");
    system->add_option("FOLDER", options.folder, "what /usr is to hold; without it that of this source tree")
        ->check(CLI::ExistingDirectory);

    CLI::App *disk_check = app.add_subcommand(
        "check-disk", "say whether a disk is one that the installer left well; it is only read");
    disk_check->add_option("DISK", options.check.disk, "image or device")->required();
    disk_check->add_option("--kernel", options.check.kernel, "the boot file that must be on it")
        ->check(CLI::ExistingFile);
    disk_check
        ->add_option("--system-image", options.check.system_image, "the system image that must be on it")
        ->check(CLI::ExistingFile);
    disk_check->footer("Exit code: 0 when it is, 1 when it is not, 2 for a wrong call.");

    CLI::App *install = app.add_subcommand(
        "install", "install a simulated cabinet from a factory stick, check its disk, and start it");
    install->add_option("--stick", options.stick, "image of the stick; without it a new one is made")
        ->check(CLI::ExistingFile);
    add_delivery(*install, options);
}

int run(const CLI::App &app, Options &options)
{
    std::string command = app.get_subcommands().front()->get_name();
    if (command == "make-stick")
        return make_stick_image(options);
    if (command == "make-disk")
        return make_disk_image(options);
    if (command == "make-kernel")
        return make_kernel(options);
    if (command == "make-system-image")
        return make_system(options);
    if (command == "check-disk")
        return check(options);
    return try_it(options);
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
        return run(app, options);
    } catch (const std::exception &error) {
        fflush(stdout);
        fprintf(stderr, "error: %s\n", error.what());
        return 1;
    }
}
