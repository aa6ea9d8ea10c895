// The machines that the loader is built for, and what differs between the cabinets that simulate them.
#pragma once

#include <string>
#include <vector>

/// What QEMU makes a cabinet of. The devices are in the words of its option -device.
struct Hardware {
    std::string qemu; ///< the program
    std::string processor;
    std::string disk;             ///< the internal disk
    std::vector<std::string> usb; ///< controllers; sticks go to the bus "usb.0"
};

struct Target {
    std::string name;
    std::string preset; ///< builds its loader
    Hardware hardware;
    std::string kernel; ///< the kernel file that QEMU loads
    /// Where the Debian programs come from that run inside: below build/machine; empty: this computer's.
    std::string programs;
    std::string libraries;      ///< the folder of that Debian's libraries, below /lib and /usr/lib
    std::string dynamic_loader; ///< what those programs name as their interpreter
    std::string machine;        ///< how the tool file names the machine of a program
};

inline const std::vector<Target> all_targets = {
    {.name = "x86-64",
     .preset = "product",
     // RDRAND, so that no program waits until the kernel has gathered random bytes.
     .hardware = {.qemu = "qemu-system-x86_64",
                  .processor = "qemu64,+rdrand",
                  .disk = "virtio-blk-pci",
                  .usb = {"qemu-xhci,id=usb"}},
     .kernel = "vmlinux",
     .programs = "",
     .libraries = "x86_64-linux-gnu",
     .dynamic_loader = "/lib64/ld-linux-x86-64.so.2",
     .machine = "x86-64"},
    {.name = "i586",
     .preset = "product-i586",
     // Debian's 32-bit programs want a processor of the family 6; the loader is content with an i586.
     .hardware = {.qemu = "qemu-system-i386",
                  .processor = "pentium2",
                  .disk = "ide-hd,bus=ide.1,unit=0",
                  .usb = {"usb-ehci,id=usb", "piix3-usb-uhci,id=usb1"}},
     .kernel = "bzImage",
     .programs = "i386",
     .libraries = "i386-linux-gnu",
     .dynamic_loader = "/lib/ld-linux.so.2",
     .machine = "Intel 80386"},
};

/// Their names; the first one's cabinet, unless another is named.
inline const std::vector<std::string> targets = [] {
    std::vector<std::string> names;
    for (const Target &target : all_targets)
        names.push_back(target.name);
    return names;
}();

/// The target of this name, which is one of `targets`.
inline const Target &find_target(const std::string &name)
{
    for (const Target &target : all_targets)
        if (target.name == name)
            return target;
    return all_targets.front();
}
