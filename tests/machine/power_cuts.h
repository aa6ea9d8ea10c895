// Power cuts: the disks that they leave are made from the log of one whole run, so that a cut can be put
// after any write without a run of its own.
#pragma once

#include "install_machine.h"

#include "machine/drive/write_log.h"

#include <map>
#include <random>
#include <set>

/// How much of the last writes a disk has when the power goes.
enum class CutKind {
    clean, ///< all writes up to the cut
    torn,  ///< the same, but of the last write, which has several sectors, only some: the first ones
    lost,  ///< any of those that the disk's cache may still have held: a disk writes its cache as it likes
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

// ---- What a start comes to ----

/// How a start ended, and what more was seen.
struct Outcome {
    std::string ending; ///< in the words of docs/failures.md; or "unknown" when none of these came
    std::string more;
};

/// The first cells of the table under this heading of docs/failures.md, without marks of code.
std::set<std::string> documented(const std::string &heading);

/// Waits until a start has come to one of these endings:
///
///   "the application"                 one of the recorder's runs is done
///   "exec failed, again and again"    for the third time
///   "a crash, again and again"        a signal has ended a run for the third time
///   "KCW1964"                         the loader has stopped for good with this code
///   "a halt"                          the processor is halted, or turns in a circle in a boot sector, and no
///                                     interrupt can free it
///   "a restart"                       the machine has reset itself
///   anything else                     the last line of BIOS, boot loader or kernel is this, without blanks
///                                     and dots at its end
Outcome outcome_of_start(Machine &machine, const std::set<std::string> &endings);

/// On a busy computer the simulated timer may come too late for the kernel's check of it: the kernel gives up
/// before it has looked at any disk. That says nothing about the disk.
bool timer_was_late(const std::runtime_error &error);

/// Does a start, and does it again when the timer was late. `start` makes its own machine.
template <typename Start> auto start_in_time(Start start) -> decltype(start())
{
    for (int tries_left = 3;; --tries_left) {
        try {
            return start();
        } catch (const std::runtime_error &error) {
            if (tries_left == 1 || !timer_was_late(error))
                throw;
            printf("  the simulated timer was late; started again\n");
        }
    }
}

/// Outcomes and how often each was seen.
struct Outcomes {
    std::map<std::string, size_t> counts;
};

/// Notes the outcome of a cut, and prints it.
void note_outcome(Outcomes &outcomes, const std::string &cut, const std::string &outcome,
                  const std::string &more = "");

void print_outcomes(const Outcomes &outcomes, const std::string &title);
