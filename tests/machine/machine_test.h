// A cabinet for the tests: small images made for each test, so that it starts within seconds, and a
// recorder (recorder.cpp) in the place of the X server.
#pragma once

#include "common/child.h"
#include "common/files.h"
#include "images/disks.h"
#include "images/partitions.h"
#include "images/ram_disk.h"
#include "images/system_image.h"
#include "machine/drive/cabinet.h"
#include "machine/drive/monitor.h"

#include <gtest/gtest.h>

/// Long enough on a busy computer; a test that passes never waits for it.
const double patience = 60;

/// What QEL_TEST_TARGET names, x86-64 without it.
std::string tested_target();

struct Machine {
    Parts parts;
    std::string recorder; ///< as a file of this computer
    ScratchFolder folder;
    CabinetSetup setup;
    std::vector<std::string> ram_disk = ram_disk_list(parts);
    std::vector<FileAt> system;  ///< below /usr; the recorder as Xfake to begin with
    std::vector<FileAt> storage; ///< empty to begin with
    Cabinet cabinet;

    explicit Machine(const std::string &target = tested_target());
};

/// Makes the internal disk, unless the setup names one.
void make_disk(Machine &machine);

/// Makes the RAM disk and the internal disk, and switches the power on.
void start(Machine &machine);

/// Pulls the plug, and starts again with the same disk in `next`, with no stick.
void start_again(Machine &next, Machine &before);

/// Puts a stick with these files in before power-on; the loader starts once the kernel has found it.
void insert_stick(Machine &machine, const std::vector<FileAt> &files);

/// Plugs a stick with these files, which brings no more than so many bytes in a second, into a machine that
/// is on and whose loader waits for it (expect_stick).
void plug_in_slow_stick(Machine &machine, const std::vector<FileAt> &files, int bytes_per_second);

/// Lets that stick bring what it can from now on.
void speed_stick_up(Machine &machine);

/// Pumps until process 1 has written something to a file that it still has open.
bool wait_until_written(Machine &machine, const std::string &file);

/// Lets the loader start only when there is a stick.
void expect_stick(Machine &machine);

/// A new file in the machine's scratch folder that holds `text`.
std::string file_with(Machine &machine, const std::string &name, const std::string &text);

/// The lines that the recorder wrote under this name, its name left out.
std::vector<std::string> notes_of(const Machine &machine, const std::string &name);

/// Pumps until the recorder has written all its lines under this name `times` times.
bool wait_for_recorder(Machine &machine, const std::string &name, int times = 1);

/// Pumps until a child of process 1 with these words has been started `times` times.
bool wait_for_start(Machine &machine, const std::string &words, int times = 1);

/// The process of the child of process 1 that was started last.
int last_started(const Machine &machine);

/// What mtools lists as plain names in the storage partition of the internal disk.
std::vector<std::string> storage_names(const Machine &machine);

/// A file of the internal disk's storage partition.
std::string storage_file(const Machine &machine, const std::string &name);

// ---- The loader as it stands ----

/// Pumps until the loader has stopped and then does nothing but sleep, seen by its next three sleeps: nothing
/// on the console, no program started, no record to the board. Returns the stop's code; empty when it is not
/// so.
std::string wait_until_parked(Machine &machine);

/// Pumps until process 1 waits, inside the kernel, for a record on its descriptor 3.
bool wait_until_it_reads(Machine &machine);
