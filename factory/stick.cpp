// Factory sticks. A stick is one vfat partition after a boot record, with syslinux on it, whose
// configuration differs from the installed one by the word "qelinstall" only.

#include "stick.h"

#include "common/child.h"
#include "common/files.h"
#include "images/disks.h"
#include "images/partitions.h"
#include "images/system_image.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>

namespace fs = std::filesystem;

namespace
{

const unsigned long long stick_slack_bytes = 8 * mebibyte; ///< boot loader, tables, and room for changes

[[noreturn]] void refuse(const std::string &text)
{
    throw std::runtime_error(text);
}

std::string megabytes(unsigned long long bytes)
{
    char text[32];
    snprintf(text, sizeof text, "%.1f MB", static_cast<double>(bytes) / static_cast<double>(mebibyte));
    return text;
}

/// Takes a step that fails when something does not fit, and then says `advice` and what the tool said.
void try_step(const std::string &advice, const std::function<void()> &step)
{
    try {
        step();
    } catch (const std::runtime_error &error) {
        refuse(advice + "\n" + error.what());
    }
}

/// Makes partition 1 start the kernel on it. When a file does not fit, the tool prints so, but exits
/// with 0.
void make_bootable(const std::string &image)
{
    std::string complaint = run_tool(
        {"syslinux", "--offset", std::to_string(find_partition(image, 1).offset), "--install", image});
    if (!complaint.empty())
        refuse("the tool syslinux failed:\n" + complaint);
}

// ---- The pieces by themselves ----

void check_kernel(const Delivery &delivery)
{
    require_file(delivery.kernel, "name the boot file with --kernel; qel-factory make-kernel makes one");
    DiskReader file(delivery.kernel);
    if (read_bytes(file, kernel_mark_at, 4) != kernel_mark)
        refuse(delivery.kernel +
               ": not a kernel that the boot loader can start; --kernel wants the boot file "
               "(bzImage) with the RAM disk inside, as qel-factory make-kernel makes it");
}

// ---- Storage ----

/// The archive of the delivery's storage, made from a folder if need be.
std::string storage_archive(const Delivery &delivery, const std::string &scratch)
{
    const std::string &storage = delivery.storage;
    require_file(storage, "name a folder or an archive with --storage");
    if (!fs::is_directory(storage))
        return storage;
    std::string archive = scratch + "/storage.zip";
    try_step(storage + ": cannot be packed; is the folder empty?", [&] {
        run_tool({"sh", "-c", "cd \"$0\" && exec zip -q -r \"$1\" .", storage, archive});
    });
    return archive;
}

bool is_application(const std::string &path)
{
    return fs::path(path).filename().string().starts_with(application_prefix);
}

/// The loader takes the greatest name, and a folder for an application too.
void check_folders(const std::string &storage)
{
    for (const auto &entry : fs::recursive_directory_iterator(storage))
        if (entry.is_directory() && is_application(entry.path()))
            refuse("the storage archive holds a folder " + entry.path().filename().string() +
                   ", which the loader would take for an application; rename it");
}

void check_application(const Delivery &delivery, const std::vector<FileAt> &storage)
{
    if (!delivery.application.empty()) {
        require_file(delivery.application, "name an application with --application");
        if (!is_application(delivery.application))
            refuse(delivery.application + ": the loader only takes files whose names begin with "
                                          "qel_application_; rename it");
    } else if (std::none_of(storage.begin(), storage.end(),
                            [](const FileAt &file) { return is_application(file.place); })) {
        refuse("there is no application: the loader wants a file whose name begins with qel_application_ in "
               "the storage archive; add it there, or name one with --application");
    }
}

unsigned long long bytes_of(const std::vector<FileAt> &files)
{
    unsigned long long sum = 0;
    for (const FileAt &file : files)
        sum += fs::file_size(file.source);
    return sum;
}

/// All of the delivery that can be tried without a disk, and what comes out of it.
struct Prepared {
    std::string archive; ///< empty when the delivery has none
    std::vector<FileAt> storage;
};

Prepared prepare(const Delivery &delivery, const std::string &scratch, const Progress &progress)
{
    Prepared prepared;
    progress("looking at the kernel and the system image");
    check_kernel(delivery);
    check_system_image(delivery.system_image);
    if (!delivery.storage.empty()) {
        progress("unpacking the storage archive");
        prepared.archive = storage_archive(delivery, scratch);
        std::string folder = unpack(prepared.archive, scratch);
        check_folders(folder);
        prepared.storage = files_of_folder(folder);
    }
    check_application(delivery, prepared.storage);
    return prepared;
}

// ---- Disks ----

void fill_boot_partition(const std::string &image, const Delivery &delivery, const std::string &scratch)
{
    std::string configuration = scratch + "/syslinux.cfg";
    write_file(configuration, std::string(boot_line) + "\n");
    try_step(delivery.kernel + ": " + megabytes(fs::file_size(delivery.kernel)) +
                 " do not fit the 8 MB boot partition, which holds the boot loader and its own tables too; "
                 "make the RAM disk smaller",
             [&] {
                 make_vfat(image, 1, {{"vmlinux", delivery.kernel}, {"syslinux.cfg", configuration}});
                 make_bootable(image);
             });
}

void fill_storage_partition(const std::string &image, const Delivery &delivery,
                            const std::vector<FileAt> &files)
{
    std::string partition = "the storage partition of a disk of " + megabytes(delivery.disk_bytes) +
                            " would have " + megabytes(find_partition(image, 3).size);
    try_step(partition + ", which is too much or too little for FAT16; see --disk-size",
             [&] { make_vfat(image, 3, {}); });
    try_step(partition + ", which does not hold the " + megabytes(bytes_of(files)) +
                 " of the unpacked storage; leave something out, or name the disk's size with --disk-size",
             [&] { make_vfat(image, 3, files); });
}

/// What the installer does, and then the first start, which brings the stick's application.
void install(const std::string &image, const Delivery &delivery, const Prepared &prepared,
             const std::string &scratch, const Progress &progress)
{
    progress("installing onto a disk of " + megabytes(delivery.disk_bytes));
    make_blank_disk(image, delivery.disk_bytes);
    try_step("a disk of " + megabytes(delivery.disk_bytes) + " is too small; see --disk-size",
             [&] { make_partitions(image); });
    fill_boot_partition(image, delivery, scratch);
    write_file_at(image, delivery.system_image, find_partition(image, 2).offset);
    std::vector<FileAt> storage = prepared.storage;
    if (!delivery.application.empty())
        storage.push_back({fs::path(delivery.application).filename(), delivery.application});
    fill_storage_partition(image, delivery, storage);
}

/// The stick's partition: the files and a boot loader that starts the kernel in install mode.
void write_stick(const std::string &image, const Delivery &delivery, const Prepared &prepared,
                 const std::string &scratch)
{
    std::string configuration = scratch + "/install.cfg";
    write_file(configuration, std::string(boot_line) + " qelinstall\n");
    std::vector<FileAt> files = {{"syslinux.cfg", configuration},
                                 {"vmlinux", delivery.kernel},
                                 {"qel_usr.cramfs", delivery.system_image}};
    if (!prepared.archive.empty())
        files.push_back({"storage.zip", prepared.archive});
    if (!delivery.application.empty())
        files.push_back({fs::path(delivery.application).filename(), delivery.application});
    make_stick(image, files, (bytes_of(files) / mebibyte + 1) * mebibyte + stick_slack_bytes);
    write_boot_program(image);
    make_bootable(image);
}

/// A file that nobody sees before it is complete.
void write_whole(const std::string &path, const std::function<void(const std::string &)> &write)
{
    if (fs::exists(path) && !fs::is_regular_file(path))
        refuse(path + ": not a file; make an image, and copy that to the stick");
    std::string part = path + ".part";
    try {
        write(part);
    } catch (...) {
        fs::remove(part);
        throw;
    }
    fs::rename(part, path);
}

} // namespace

void make_installed_disk(const std::string &image, const Delivery &delivery, const Progress &progress)
{
    ScratchFolder scratch;
    Prepared prepared = prepare(delivery, scratch.path, progress);
    write_whole(image,
                [&](const std::string &part) { install(part, delivery, prepared, scratch.path, progress); });
}

void make_factory_stick(const std::string &image, const Delivery &delivery, const Progress &progress)
{
    ScratchFolder scratch;
    Prepared prepared = prepare(delivery, scratch.path, progress);
    install(scratch.path + "/trial", delivery, prepared, scratch.path, progress);
    progress("writing the stick");
    write_whole(image, [&](const std::string &part) { write_stick(part, delivery, prepared, scratch.path); });
}
