/// A sandbox equipped as the cabinet: board driver, sound card, internal disk with system image and
/// storage partition, X server; a USB stick when a test plugs one in. No application.
#pragma once

#include "sandbox/sandbox.h"

/// The environment of the X server and the application, as the transcript shows it.
#define LOADER_ENV                                                                                           \
    "[HOME=/qel_home TERM=linux WINEDEBUG=fixme-all,warn-all LD_LIBRARY_PATH=/usr/xorg/lib DISPLAY=unix:0]"

struct Cabinet : Sandbox {
    Cabinet();
    ~Cabinet();

    // ---- Equipment ----

    /// The board's mode byte. 1 keeps the console.
    int mode = 1;
    /// Adds what /sys/block shows of a disk or, with the disk's name before a slash, of a partition.
    void add_block_device(const std::string &name, unsigned major, unsigned minor);
    /// Makes an empty file system on a device.
    void format(const std::string &type, unsigned major, unsigned minor);
    /// Plugs in a stick: sda, and sda1 with a vfat.
    void plug_in_stick();
    /// Gives the storage partition an empty file system with room for so many bytes.
    void limit_storage(size_t bytes);
    /// Lets the call number `n` of `name`, counted over the whole run, fail.
    void fail(const std::string &name, int n, int error);

    // ---- Places; as the test fills them, whether they are mounted or not ----

    static std::string system(const std::string &path)
    {
        return "/machine/cramfs/22:2" + path;
    }
    static std::string storage(const std::string &path)
    {
        return "/machine/vfat/22:3" + path;
    }
    static std::string stick(const std::string &path)
    {
        return "/machine/vfat/8:1" + path;
    }

    // ---- Programs ----

    /// Puts the helper program at `path`. `runs` has a line for each run; without one it stays forever.
    void add_program(const std::string &path, const std::string &runs = "");
    /// How often the helper program of that name was started.
    size_t runs(const std::string &name) const;

    /// Starts the loader. `arguments` follow its name.
    void start(const std::vector<std::string> &arguments = {});
    /// Waits until the helper program that was started as the `n`th process of the loader (from 1) has
    /// reported how it was started. Returns its report.
    std::vector<std::string> await_child(pid_t n);

    /// Sends a packet as the host at the other end of the board's link.
    void send(const std::string &packet) const;
    std::string failures;
    int host = -1;
};
