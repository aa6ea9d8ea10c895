// A cabinet that is about to be installed: a blank disk, and a factory stick's files.
#pragma once

#include "machine_test.h"

/// A machine with a blank internal disk, told to install.
struct InstallMachine : Machine {
    std::vector<FileAt> stick; ///< the system image, a stand-in for the kernel, and no archive, to begin with

    InstallMachine();
};

/// Puts an archive on the stick whose one file is the recorder as qel_application_1.
void add_archive(InstallMachine &machine);

/// Takes the loader that tells at which check it stops.
void take_telling_loader(InstallMachine &machine);

/// Puts a script in the place of one of the installer's tools.
void replace_tool(InstallMachine &machine, const std::string &tool, const std::string &script);

/// Makes the stick, unless `stick` is empty, and switches the power on.
void start_install(InstallMachine &machine);

/// Waits for the stop of the telling loader and returns it, "UNIT:LINE TEXT"; empty when there was none, or
/// when the loader did not stand still after it.
std::string wait_for_stop(InstallMachine &machine);

/// The faults that the disk checker finds.
std::vector<std::string> disk_faults(const InstallMachine &machine);

/// What stands for a kernel.
std::string kernel_stand_in(const InstallMachine &machine);

bool shows(const InstallMachine &machine, const std::string &text);
