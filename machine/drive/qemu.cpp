// QEMU as a process. It emulates unless QEL_ACCEL names another accelerator: a /dev/kvm may exist and still
// hang every kernel.

#include "qemu.h"

#include "common/child.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

namespace
{

using Words = std::vector<std::string>;

void add(Words &words, const Words &more)
{
    words.insert(words.end(), more.begin(), more.end());
}

void add_boot(Words &words, const CabinetSetup &setup)
{
    if (setup.kernel.empty())
        return;
    // The clock of the kernel's shared page needs no system call.
    const std::string old_words = setup.old_kernel ? " vdso32=0 " : " ";
    add(words, {"-kernel", setup.kernel, "-append", setup.kernel_words + old_words + setup.loader_words});
    if (!setup.ram_disk.empty())
        add(words, {"-initrd", setup.ram_disk});
}

/// The geometry of an IDE disk. Left alone, QEMU guesses one from what is on the disk, and sfdisk would
/// write another partition table onto a disk that had one.
std::string geometry(const std::string &disk)
{
    const unsigned long long heads = 16, sectors = 63, sector_bytes = 512;
    unsigned long long cylinders = std::filesystem::file_size(disk) / (heads * sectors * sector_bytes);
    return ",cyls=" + std::to_string(cylinders) + ",heads=" + std::to_string(heads) +
           ",secs=" + std::to_string(sectors);
}

/// The internal disk with every write and every flush noted in a log.
void add_logged_disk(Words &words, const CabinetSetup &setup)
{
    // The log's own file need not outlive a crash of this computer.
    add(words,
        {"-blockdev", "driver=file,node-name=disk-file,cache.no-flush=on,filename=" + setup.internal_disk,
         "-blockdev", "driver=file,node-name=log-file,cache.no-flush=on,filename=" + setup.write_log,
         "-blockdev",
         "driver=blklogwrites,node-name=internal,file=disk-file,log=log-file,log-super-update-interval=1"});
}

void add_disks(Words &words, const CabinetSetup &setup)
{
    const char *drive = "if=none,format=raw,cache=unsafe,id=";
    std::string stick_first = setup.start_from_stick ? "1" : "2",
                disk_first = setup.start_from_stick ? "2" : "1";
    if (!setup.write_log.empty())
        add_logged_disk(words, setup);
    else if (!setup.internal_disk.empty())
        add(words, {"-drive", drive + ("internal,file=" + setup.internal_disk) +
                                  (setup.internal_disk_read_only ? ",readonly=on" : "")});
    if (!setup.internal_disk.empty())
        add(words, {"-device", setup.hardware.disk + ",drive=internal,bootindex=" + disk_first +
                                   geometry(setup.internal_disk)});
    for (const std::string &controller : setup.hardware.usb)
        add(words, {"-device", controller});
    if (!setup.stick.empty())
        add(words, {"-drive", drive + ("stick,file=" + setup.stick), "-device",
                    "usb-storage,id=stick,drive=stick,bus=usb.0,bootindex=" + stick_first});
}

/// QEMU's ends of the ports, closed here once it has them.
struct Ends {
    std::vector<int> descriptors = {};
    ~Ends()
    {
        for (int descriptor : descriptors)
            close(descriptor);
    }
};

/// Makes a connected pair: the cabinet keeps one end, QEMU inherits the other, whose number is returned.
int connect(Cabinet::Port &port, std::vector<int> &inherited)
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        throw std::runtime_error(std::string("socketpair: ") + strerror(errno));
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    port.descriptor = ends[0];
    inherited.push_back(ends[1]);
    return ends[1];
}

void add_port(Words &words, Cabinet::Port &port, const std::string &name, const std::string &device,
              std::vector<int> &inherited)
{
    add(words, {"-chardev", "socket,id=" + name + ",fd=" + std::to_string(connect(port, inherited)),
                "-device", device + ",chardev=" + name + ",name=" + name});
}

void add_ports(Words &words, Cabinet &cabinet, const CabinetSetup &setup, std::vector<int> &inherited)
{
    add(words, {"-device", "virtio-serial-pci"});
    if (setup.terminal)
        add_port(words, cabinet.terminal_port, "terminal", "virtconsole", inherited);
    add_port(words, cabinet.console_port, "console", "virtserialport", inherited);
    add_port(words, cabinet.board_port, "board", "virtserialport", inherited);
    add_port(words, cabinet.service_port, "service", "virtserialport", inherited);
    add(words,
        {"-chardev", "socket,id=monitor,fd=" + std::to_string(connect(cabinet.monitor_port, inherited)),
         "-mon", "chardev=monitor,mode=control"});
}

} // namespace

void start_qemu(Cabinet &cabinet, const CabinetSetup &setup)
{
    const char *accel = getenv("QEL_ACCEL");
    Words words = {setup.hardware.qemu, "-nodefaults", "-no-user-config"};
    add(words, {"-accel", accel == nullptr ? "tcg" : accel, "-cpu", setup.hardware.processor, "-m",
                std::to_string(setup.memory_mb)});
    // Without graphics, the BIOS writes to the serial line.
    add(words, {"-display", "none", "-no-reboot", "-machine", "graphics=off"});
    add(words, {"-serial", "file:" + cabinet.scratch.path + "/kernel.log"});
    Ends ends;
    add_boot(words, setup);
    add_disks(words, setup);
    add_ports(words, cabinet, setup, ends.descriptors);
    if (!setup.clock.empty())
        add(words, {"-rtc", "base=" + setup.clock + ",clock=vm"});
    cabinet.qemu_command = words;
    // Ctrl-C is for the driver, which pulls the plug itself.
    cabinet.qemu = start_child({.words = words, .inherited = ends.descriptors, .own_group = true});
}
