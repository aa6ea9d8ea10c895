// Writes in pieces that a pipe takes whole, and only when it has room, so that a reader who has stopped
// reading cannot keep the program from ending when it is interrupted.

#include "output.h"

#include "common/interrupt.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

OutputSettings output;

namespace
{

const size_t piece_bytes = 4096;
const size_t gathered_bytes = 1 << 16;
const int look_every_ms = 50;

std::string gathered;
bool buffered = false;

/// Returns 0, or the error; EINTR when the user does not want to wait any longer.
int write_all(int file, const std::string &text)
{
    for (size_t done = 0; done < text.size();) {
        pollfd room = {file, POLLOUT, 0};
        if (poll(&room, 1, look_every_ms) == 0 || room.revents == 0) {
            if (interrupted())
                return EINTR;
            continue;
        }
        ssize_t n = write(file, text.data() + done, std::min(piece_bytes, text.size() - done));
        if (n < 0 && errno != EINTR && errno != EAGAIN)
            return errno;
        done += n < 0 ? 0 : static_cast<size_t>(n);
    }
    return 0;
}

std::string link_prefix()
{
    return output.link.empty() ? "" : output.link + ": ";
}

/// A row of several links.
std::string row_of(const Ended &ended)
{
    std::string outcome = ended.proof.is_string() ? ended.proof.get<std::string>() : "-";
    char seconds[30];
    snprintf(seconds, sizeof seconds, "%.1f", ended.seconds);
    std::string row = output.link + "\t" + std::to_string(ended.fault.exit) + "\t" +
                      (ended.fault.exit == 0 ? outcome : ended.fault.name) + "\t" + seconds;
    if (ended.command == "query" && ended.fault.exit == 0)
        row += "\t" + ended.answer;
    std::ranges::replace(row, '\n', ' ');
    return row;
}

const char *name_of(Way way)
{
    return way == Way::in ? "in" : way == Way::out ? "out" : "?";
}

} // namespace

void print_line(const std::string &line)
{
    gathered += line;
    gathered += '\n';
    if (!buffered || gathered.size() > gathered_bytes)
        flush_output();
}

void output_buffered(bool on)
{
    buffered = on;
}

void flush_output()
{
    std::string text;
    text.swap(gathered);
    int error = write_all(STDOUT_FILENO, text);
    if (error == EINTR)
        throw Failure(fault::interrupted, "interrupted");
    if (error != 0)
        throw Failure(fault::output, std::string("standard output: ") + strerror(error) +
                                         "; make room where it goes, or let its reader run to the end");
}

void print_json(const Json &object)
{
    print_line(object.dump(-1, ' ', false, Json::error_handler_t::replace));
}

void note(const std::string &line)
{
    note_unended(line + "\n");
}

void note_unended(const std::string &text)
{
    if (!output.quiet && output.link.empty())
        write_all(STDERR_FILENO, text);
}

void print_error(const std::string &text)
{
    write_all(STDERR_FILENO, "error: " + link_prefix() + text + "\n");
}

void show_message(Way way, ByteView message, double time)
{
    if (output.json)
        print_json({{"event", "message"},
                    {"time", time},
                    {"direction", way == Way::unknown ? Json() : Json(name_of(way))},
                    {"message", message_json(message)}});
    else
        print_line(describe_message(message));
}

void show_passing(Way way, ByteView message)
{
    if (output.verbose && output.json)
        show_message(way, message, wall_clock());
    else if (output.verbose && !output.quiet)
        write_all(STDERR_FILENO,
                  link_prefix() + (way == Way::in ? "in  " : "out ") + describe_message(message) + "\n");
}

double wall_clock()
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

void print_result(const Ended &ended)
{
    if (output.json)
        print_json(ended_json(ended));
    else if (!output.link.empty())
        print_line(row_of(ended));
    else if (!ended.answer.empty())
        print_line(ended.answer);
}

Json ended_json(const Ended &ended)
{
    Json error = ended.fault.exit == 0 ? Json() : Json{{"code", ended.fault.name}, {"message", ended.text}};
    return {{"command", ended.command.empty() ? Json() : Json(ended.command)},
            {"link", ended.link},
            {"exit", ended.fault.exit},
            {"proof", ended.proof},
            {"result", ended.result},
            {"error", error},
            {"seconds", ended.seconds},
            {"counts", ended.counts}};
}
