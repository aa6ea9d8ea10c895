// Power cuts: the disks that they leave are made from the log of one whole run, so that a cut can be put
// after any write without a run of its own.
#pragma once

#include "install_machine.h"

#include "cabinet/write_log.h"

#include <map>
#include <random>

/// How much of the last writes a disk has when the power goes.
enum class CutKind {
    clean, ///< all writes up to the cut
    torn,  ///< the same, but the last write only up to one of its sectors
    lost,  ///< all up to the last flush, and any of those after it: a disk writes its cache as it likes
};

struct Cut {
    size_t entries; ///< of the log, before the cut
    CutKind kind;
};

/// How many cuts are wanted, from the environment; else `usual`.
size_t cuts_wanted(const char *variable, size_t usual);

/// Where chance begins, from QEL_POWER_SEED; else 1.
std::mt19937 power_cut_chance();

/// Cuts spread over the whole log, of kinds that chance chooses.
std::vector<Cut> choose_cuts(const WriteLog &log, size_t count, std::mt19937 &chance);

/// What a cut leaves of a disk that was `before` when the log began.
void make_cut_disk(const std::string &disk, const std::string &before, const WriteLog &log, const Cut &cut,
                   std::mt19937 &chance);

std::string describe(const Cut &cut, const WriteLog &log);

/// Waits until it is clear what a start from a disk has come to, and says it: "runs qel_application_1",
/// "stops mounting /usr", "does not start: Missing operating system." ...
std::string outcome_of_start(Machine &machine);

/// Outcomes and how often each was seen.
struct Outcomes {
    std::map<std::string, size_t> counts;
};

/// Notes the outcome of a cut, and prints it.
void note_outcome(Outcomes &outcomes, const std::string &cut, const std::string &outcome);

void print_outcomes(const Outcomes &outcomes, const std::string &title);
