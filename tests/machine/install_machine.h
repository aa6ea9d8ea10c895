// A cabinet that is about to be installed: a blank disk, and a factory stick's files.
#pragma once

#include "machine_test.h"

#include "factory/stick.h"

/// A machine with a blank internal disk that is to install. Its tools are the real ones, behind scripts that
/// say how they were called: a tool may end before anybody has seen its name from outside.
struct InstallMachine : Machine {
    std::vector<FileAt> stick; ///< the system image, a stand-in for the kernel, and no archive, to begin with

    explicit InstallMachine(const std::string &target = tested_target());
};

/// Puts an archive on the stick whose one file is the recorder as qel_application_1.
void add_archive(InstallMachine &machine);

/// Puts a whole factory stick in, from which the machine starts by itself; the archive holds the recorder as
/// qel_application_1. Returns what is on the stick.
Delivery take_factory_stick(InstallMachine &machine);

/// Takes the loader that reports at which check it stops.
void take_telling_loader(Machine &machine);

/// Lets a tool do no more than say how it was called and run a line of shell.
void replace_tool(Machine &machine, const std::string &tool, const std::string &line);

/// Makes the stick, unless `stick` is empty, and switches the power on.
void start_install(InstallMachine &machine);

/// Switches the power on, and then plugs the stick in, which brings no more than so many bytes in a second.
void start_install_from_slow_stick(InstallMachine &machine, int bytes_per_second);

/// Waits for the stop of the telling loader and returns it, "UNIT:LINE TEXT"; empty when there was none, or
/// when the loader did not stand still after it.
std::string wait_for_stop(Machine &machine);

/// The tools started so far, in order, as they were called: "/bin/mkdosfs /dev/disk/hdc1".
std::vector<std::string> tools_of(const InstallMachine &machine);

/// The faults that the disk checker finds.
std::vector<std::string> disk_faults(const InstallMachine &machine);

/// What stands for a kernel.
std::string kernel_stand_in(const InstallMachine &machine);

bool shows(const Machine &machine, const std::string &text);
