// The simulated cabinet: a machine in QEMU with a board, an internal disk, USB sticks and a screen, driven
// from one thread. Nothing is received while nobody waits: whoever drives a cabinet calls pump() or one of
// the functions that wait, and these pass on what the machine says.
//
// Every failure of the machinery (QEMU missing, ended early, time limit passed) is a std::runtime_error.
// What the loader does or does not do is never an error here.
#pragma once

#include "common/files.h"
#include "common/target.h"
#include "machine/drive/board.h"

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

/// What a cabinet is built from. Empty file names leave the piece out.
///
/// The host link is a SOCK_SEQPACKET socket: one send is one record of at most 64 bytes towards the loader,
/// one receive one record from it, just as on the board driver's own node. One peer at a time; without one
/// the loader's records are only noted as events.
struct CabinetSetup {
    Hardware hardware = all_targets.front().hardware;
    std::string kernel;        ///< loaded by QEMU; empty: the machine starts from its disks through the BIOS
    std::string ram_disk;      ///< with `kernel` only; laid over the RAM disk inside the kernel
    std::string kernel_words;  ///< added to the boot line ("qellpc.absent=1"), with `kernel` only
    std::string loader_words;  ///< the loader's arguments ("qelinstall"), with `kernel` only
    std::string internal_disk; ///< raw image of hdc; written to
    bool internal_disk_read_only = false;
    std::string write_log; ///< file that gets every write to the internal disk (write_log.h); empty: none
    std::string stick;     ///< raw image of a USB stick that is present at power-on; written to
    bool start_from_stick = false;     ///< BIOS start: the stick comes before the internal disk
    bool old_kernel = false;           ///< i586: without the system calls that Linux has got since 2.6.20
    std::vector<std::string> wait_for; ///< paths in the machine that must exist before the loader starts
    Board board;
    bool terminal = false;     ///< a shell on its own terminal
    bool report_stops = false; ///< look once a second for programs that a failed check has stopped
    std::string host_link;     ///< path for a UNIX socket of host-comms records
    std::string clock;         ///< the machine's time at power-on in UTC ("2024-03-05T07:08:09"); empty: now
    unsigned memory_mb = 256;
    double seconds_max = 120; ///< after that the machine is ended and every call throws
};

/// Something that happened in or around the machine.
struct Event {
    enum Kind {
        console,          ///< bytes the loader or its children wrote to the console, as they came
        loader_started,   ///< process 1 is about to become the loader
        program_started,  ///< a child of process 1 became a program: `number` its process, `text` its words
        program_ended,    ///< `number` its process, `text` "exit N" or "signal N"
        program_stopped,  ///< a failed check has stopped process `number`: `text` its code, "KCW1964"
        command,          ///< a whole H8 command, in `text`
        lcd_row,          ///< row `number` now shows `text`
        link_from_loader, ///< a host-comms record, in `text`
        link_to_loader,   ///< the same, from the peer of the host link
        other_record,     ///< a record of another minor, which is `number`
        note,             ///< a line that a program in the machine wrote to /cabinet/note
        terminal,         ///< bytes of the shell's terminal
    };
    Kind kind;
    double seconds; ///< since power-on
    int number;
    std::string text;
};

struct Cabinet {
    Board board;
    std::string console;                         ///< everything on the console so far
    std::vector<Event> events;                   ///< everything so far, console and terminal bytes included
    std::function<void(const Event &)> on_event; ///< called for each event as it comes; may be empty

    // The machinery, for the cabinet's own source files.
    pid_t qemu = -1;
    std::vector<std::string> qemu_command;
    std::chrono::steady_clock::time_point power_on;
    double seconds_max = 0;
    bool monitor_ready = false;
    ScratchFolder scratch; ///< kernel.log is what BIOS and kernel say
    struct Port {
        int descriptor = -1;
        std::string in;
        std::string out;
    };
    Port console_port, board_port, service_port, terminal_port, monitor_port;
    int link_listener = -1, link_peer = -1;
    std::string link_path;
    int answer_status = 0;       ///< of the last "run" answer
    long answer_bytes_left = -1; ///< of an answer under way; -1: none is
    std::string answer;

    Cabinet() = default;
    ~Cabinet();
    Cabinet(const Cabinet &) = delete;
    Cabinet &operator=(const Cabinet &) = delete;
};

/// Switches the power on. The machine ends with `cabinet`, with power_off(), or with this process.
void power_on(Cabinet &cabinet, const CabinetSetup &setup);

/// Pulls the plug and waits until the machine is gone; its disks keep what was written.
void power_off(Cabinet &cabinet);

/// Seconds since power-on.
double uptime(const Cabinet &cabinet);

/// Passes on what has come, waiting for at most `seconds`; returns as soon as anything came.
void pump(Cabinet &cabinet, double seconds);

/// Pumps until `condition` holds; false when it does not within `seconds`.
bool wait_until(Cabinet &cabinet, const std::function<bool()> &condition, double seconds);

/// Pumps until the console shows `text`.
bool wait_for_console(Cabinet &cabinet, const std::string &text, double seconds);

/// Pumps for this long, whatever comes.
void pump_for(Cabinet &cabinet, double seconds);

/// Runs a command in the machine's shell, beside the loader, and returns what it prints; `status`, if
/// given, receives its exit status.
std::string look_inside(Cabinet &cabinet, const std::string &command, int *status = nullptr);

/// Sends one record to the loader as the board would, on one of the ten minors.
void send_record(Cabinet &cabinet, int minor, const std::string &record);

/// Types on the shell's terminal.
void type(Cabinet &cabinet, const std::string &keys);

/// How often a program whose words contain `words` has been started.
int count_starts(const Cabinet &cabinet, const std::string &words);

/// The first program_stopped of the events; nullptr before that.
const Event *first_stop(const Cabinet &cabinet);
