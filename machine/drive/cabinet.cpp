// Drives a cabinet: passes on what the machine says, answers for the board, and waits. What the machine
// says arrives on ports: the console's bytes; the board's frames (a minor byte, a length byte, the
// record); and the lines of the attendant (listed in machine/inside/attendant.cpp).

#include "cabinet.h"

#include "ports.h"
#include "qemu.h"

#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <sstream>
#include <stdexcept>

namespace
{

const size_t frame_head_bytes = 2;

void report(Cabinet &cabinet, Event::Kind kind, const std::string &text, int number = 0)
{
    cabinet.events.push_back({kind, uptime(cabinet), number, text});
    if (cabinet.on_event)
        cabinet.on_event(Event(cabinet.events.back()));
}

// ---- Board ----

void take_board_record(Cabinet &cabinet, int minor, const std::string &record)
{
    if (minor == minor_command) {
        std::string command;
        std::optional<std::string> answer;
        if (!take_command_record(cabinet.board, record, command, answer))
            return;
        report(cabinet, Event::command, command);
        if (answer)
            send_record(cabinet, minor_command, *answer);
    } else if (minor == minor_lcd) {
        int row = take_lcd_record(cabinet.board, record);
        if (row >= 0)
            report(cabinet, Event::lcd_row, cabinet.board.lcd[static_cast<size_t>(row)], row);
    } else if (minor == minor_host_comms) {
        report(cabinet, Event::link_from_loader, record);
        send_to_link_peer(cabinet, record);
    } else {
        report(cabinet, Event::other_record, record, minor);
    }
}

void take_board_bytes(Cabinet &cabinet)
{
    std::string &in = cabinet.board_port.in;
    while (in.size() >= frame_head_bytes) {
        size_t length = static_cast<unsigned char>(in[1]);
        if (in.size() < frame_head_bytes + length)
            return;
        int minor = static_cast<unsigned char>(in[0]);
        std::string record = in.substr(frame_head_bytes, length);
        in.erase(0, frame_head_bytes + length);
        take_board_record(cabinet, minor, record);
    }
}

// ---- Attendant ----

/// "PID REST": the number and the rest of the line.
void report_process(Cabinet &cabinet, Event::Kind kind, const std::string &words)
{
    size_t blank = words.find(' ');
    report(cabinet, kind, words.substr(blank + 1), std::stoi(words));
}

void take_service_line(Cabinet &cabinet, const std::string &line)
{
    if (line == "loader") {
        report(cabinet, Event::loader_started, "");
    } else if (line.starts_with("start ")) {
        report_process(cabinet, Event::program_started, line.substr(6));
    } else if (line.starts_with("end ")) {
        report_process(cabinet, Event::program_ended, line.substr(4));
    } else if (line.starts_with("stop ")) {
        report_process(cabinet, Event::program_stopped, line.substr(5));
    } else if (line.starts_with("note ")) {
        report(cabinet, Event::note, line.substr(5));
    } else if (line.starts_with("output ")) {
        std::istringstream(line.substr(7)) >> cabinet.answer_status >> cabinet.answer_bytes_left;
    }
}

/// Takes bytes of an answer; false when none is under way or it waits for more.
bool take_answer_bytes(Cabinet &cabinet)
{
    std::string &in = cabinet.service_port.in;
    if (cabinet.answer_bytes_left <= 0)
        return false;
    size_t taken = std::min(in.size(), static_cast<size_t>(cabinet.answer_bytes_left));
    cabinet.answer += in.substr(0, taken);
    cabinet.answer_bytes_left -= static_cast<long>(taken);
    in.erase(0, taken);
    return taken > 0;
}

void take_service_bytes(Cabinet &cabinet)
{
    std::string &in = cabinet.service_port.in;
    for (;;) {
        if (take_answer_bytes(cabinet))
            continue;
        size_t end = in.find('\n');
        if (end == std::string::npos || cabinet.answer_bytes_left > 0)
            return;
        std::string line = in.substr(0, end);
        in.erase(0, end + 1);
        take_service_line(cabinet, line);
    }
}

// ---- All ports ----

void take_all(Cabinet &cabinet)
{
    if (!cabinet.console_port.in.empty()) {
        std::string bytes = std::move(cabinet.console_port.in);
        cabinet.console_port.in.clear();
        cabinet.console += bytes;
        report(cabinet, Event::console, bytes);
    }
    if (!cabinet.terminal_port.in.empty()) {
        std::string bytes = std::move(cabinet.terminal_port.in);
        cabinet.terminal_port.in.clear();
        report(cabinet, Event::terminal, bytes);
    }
    take_board_bytes(cabinet);
    take_service_bytes(cabinet);
    for (const std::string &record : take_link_records(cabinet)) {
        report(cabinet, Event::link_to_loader, record);
        send_record(cabinet, minor_host_comms, record);
    }
}

void check_alive(Cabinet &cabinet)
{
    int status = 0;
    if (cabinet.qemu < 0)
        throw std::runtime_error("the machine is off");
    if (waitpid(cabinet.qemu, &status, WNOHANG) == cabinet.qemu) {
        cabinet.qemu = -1;
        throw std::runtime_error("the machine ended by itself; its kernel said:\n" +
                                 read_file(cabinet.scratch.path + "/kernel.log"));
    }
    if (uptime(cabinet) > cabinet.seconds_max) {
        power_off(cabinet);
        throw std::runtime_error("the machine's time limit has passed");
    }
}

} // namespace

Cabinet::~Cabinet()
{
    power_off(*this);
}

void power_on(Cabinet &cabinet, const CabinetSetup &setup)
{
    cabinet.board = setup.board;
    cabinet.seconds_max = setup.seconds_max;
    cabinet.power_on = std::chrono::steady_clock::now();
    if (!setup.host_link.empty())
        open_link(cabinet, setup.host_link);
    start_qemu(cabinet, setup);
    for (const std::string &path : setup.wait_for)
        cabinet.service_port.out += "wait " + path + "\n";
    if (setup.old_kernel)
        cabinet.service_port.out += "old kernel\n";
    cabinet.service_port.out += "go\n";
    if (setup.report_stops)
        cabinet.service_port.out += "report stops\n";
}

void power_off(Cabinet &cabinet)
{
    if (cabinet.qemu > 0) {
        kill(cabinet.qemu, SIGKILL);
        waitpid(cabinet.qemu, nullptr, 0);
        cabinet.qemu = -1;
    }
    close_ports(cabinet);
}

double uptime(const Cabinet &cabinet)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - cabinet.power_on).count();
}

void pump(Cabinet &cabinet, double seconds)
{
    check_alive(cabinet);
    move_bytes(cabinet, seconds);
    take_all(cabinet);
}

bool wait_until(Cabinet &cabinet, const std::function<bool()> &condition, double seconds)
{
    double end = uptime(cabinet) + seconds;
    while (!condition()) {
        double left = end - uptime(cabinet);
        if (left <= 0)
            return false;
        pump(cabinet, std::min(left, 0.5));
    }
    return true;
}

bool wait_for_console(Cabinet &cabinet, const std::string &text, double seconds)
{
    return wait_until(
        cabinet, [&] { return cabinet.console.find(text) != std::string::npos; }, seconds);
}

void pump_for(Cabinet &cabinet, double seconds)
{
    wait_until(
        cabinet, [] { return false; }, seconds);
}

std::string look_inside(Cabinet &cabinet, const std::string &command, int *status)
{
    cabinet.answer.clear();
    cabinet.answer_bytes_left = -1;
    cabinet.service_port.out += "run " + command + "\n";
    if (!wait_until(
            cabinet, [&] { return cabinet.answer_bytes_left == 0; }, 60))
        throw std::runtime_error("no answer from inside the machine to: " + command);
    if (status != nullptr)
        *status = cabinet.answer_status;
    return cabinet.answer;
}

void send_record(Cabinet &cabinet, int minor, const std::string &record)
{
    cabinet.board_port.out += static_cast<char>(minor);
    cabinet.board_port.out += static_cast<char>(record.size());
    cabinet.board_port.out += record;
}

void type(Cabinet &cabinet, const std::string &keys)
{
    cabinet.terminal_port.out += keys;
}

int count_starts(const Cabinet &cabinet, const std::string &words)
{
    return static_cast<int>(
        std::count_if(cabinet.events.begin(), cabinet.events.end(), [&](const Event &event) {
            return event.kind == Event::program_started && event.text.find(words) != std::string::npos;
        }));
}

const Event *first_stop(const Cabinet &cabinet)
{
    auto stop = std::find_if(cabinet.events.begin(), cabinet.events.end(),
                             [](const Event &event) { return event.kind == Event::program_stopped; });
    return stop == cabinet.events.end() ? nullptr : &*stop;
}
