// The attendant reports to the outside what happens in the machine, and looks into it on demand. It is a
// child of process 1 that the loader never waits for. Lines to the outside on the port "service":
//
//   loader                       process 1 is about to become the loader (written by the first program)
//   start PID PROGRAM ARG...     a child of process 1 became this program
//   end PID exit N               that child ended with status N ...
//   end PID signal N             ... or by a signal
//   stop PID CODE                a failed check has stopped process 1 or a child of it
//   note TEXT                    a program in the machine wrote this line to /cabinet/note
//   output STATUS BYTES          the answer to "run", followed by that many bytes
//
// Lines from the outside:
//
//   run COMMAND                  runs COMMAND with busybox' shell and sends back what it prints
//   report stops                   from now on "stop" is reported

#include "inside.h"
#include "stops.h"

#include <fcntl.h>
#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/netlink.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <set>
#include <sstream>

namespace
{

const char *const note_path = "/cabinet/note";

void say(int port, const std::string &line)
{
    std::string whole = line + "\n";
    if (!write_all(port, whole.data(), whole.size()))
        _exit(0);
}

// ---- What the loader starts ----

/// Asks the kernel to report every process that is made, becomes another program, or ends.
int subscribe_to_processes()
{
    int netlink = socket(PF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_CONNECTOR);
    sockaddr_nl own = {};
    own.nl_family = AF_NETLINK;
    own.nl_groups = CN_IDX_PROC;
    if (netlink < 0 || bind(netlink, reinterpret_cast<sockaddr *>(&own), sizeof own) != 0)
        fail("listening to the kernel's process events");

    alignas(nlmsghdr) char request[NLMSG_LENGTH(sizeof(cn_msg) + sizeof(proc_cn_mcast_op))] = {};
    auto *head = reinterpret_cast<nlmsghdr *>(request);
    head->nlmsg_len = sizeof request;
    head->nlmsg_type = NLMSG_DONE;
    cn_msg message = {};
    message.id = {CN_IDX_PROC, CN_VAL_PROC};
    message.len = sizeof(proc_cn_mcast_op);
    const proc_cn_mcast_op wish = PROC_CN_MCAST_LISTEN;
    memcpy(request + NLMSG_HDRLEN, &message, sizeof message);
    memcpy(request + NLMSG_HDRLEN + sizeof message, &wish, sizeof wish);
    if (send(netlink, request, sizeof request, 0) != static_cast<ssize_t>(sizeof request))
        fail("asking for the kernel's process events");
    return netlink;
}

std::string command_line(int process)
{
    std::ifstream file("/proc/" + std::to_string(process) + "/cmdline");
    std::stringstream text;
    text << file.rdbuf();
    std::string words = text.str();
    while (!words.empty() && words.back() == '\0')
        words.pop_back();
    for (char &byte : words)
        if (byte == '\0' || byte == '\n')
            byte = ' ';
    return words.empty() ? "?" : words;
}

void report_end(int port, int process, unsigned status)
{
    int code = static_cast<int>(status);
    char line[64];
    if (WIFSIGNALED(code))
        snprintf(line, sizeof line, "end %d signal %d", process, WTERMSIG(code));
    else
        snprintf(line, sizeof line, "end %d exit %d", process, WEXITSTATUS(code));
    say(port, line);
}

void handle_process_event(int port, const proc_event &event, std::set<int> &children)
{
    if (event.what == proc_event::PROC_EVENT_FORK) {
        if (event.event_data.fork.parent_tgid == 1)
            children.insert(event.event_data.fork.child_tgid);
    } else if (event.what == proc_event::PROC_EVENT_EXEC) {
        int process = event.event_data.exec.process_tgid;
        if (children.contains(process))
            say(port, "start " + std::to_string(process) + " " + command_line(process));
    } else if (event.what == proc_event::PROC_EVENT_EXIT) {
        int process = event.event_data.exit.process_tgid;
        if (event.event_data.exit.process_pid == process && children.erase(process) > 0)
            report_end(port, process, event.event_data.exit.exit_code);
    }
}

void take_process_event(int port, int netlink, std::set<int> &children)
{
    const size_t event_at = NLMSG_HDRLEN + sizeof(cn_msg);
    char message[event_at + sizeof(proc_event)];
    if (recv(netlink, message, sizeof message, 0) < static_cast<ssize_t>(sizeof message))
        return;
    proc_event event;
    memcpy(&event, message + event_at, sizeof event);
    handle_process_event(port, event, children);
}

// ---- What the outside asks for ----

void run_command(int port, const std::string &command)
{
    std::string output;
    FILE *pipe = popen(("exec 2>&1; " + command).c_str(), "r");
    char bytes[4096];
    size_t got = 0;
    while (pipe != nullptr && (got = fread(bytes, 1, sizeof bytes, pipe)) > 0)
        output.append(bytes, got);
    int status = pipe == nullptr ? -1 : pclose(pipe);
    say(port, "output " + std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : 255) + " " +
                  std::to_string(output.size()));
    if (!write_all(port, output.data(), output.size()))
        _exit(0);
}

void take_wish(int port, StopWatch &stops)
{
    std::string line;
    if (!read_line(port, line))
        _exit(0);
    if (line.starts_with("run "))
        run_command(port, line.substr(4));
    else if (line == "report stops")
        begin_to_watch(stops);
}

void report_stops(int port, StopWatch &stops, const std::set<int> &children)
{
    for (const auto &[process, code] : new_stops(stops, children))
        say(port, "stop " + std::to_string(process) + " " + code);
}

/// Programs write whole lines, which a pipe keeps together.
void take_notes(int port, int notes)
{
    char bytes[4096];
    ssize_t got = read(notes, bytes, sizeof bytes);
    std::istringstream text(std::string(bytes, got > 0 ? static_cast<size_t>(got) : 0));
    std::string line;
    while (std::getline(text, line))
        say(port, "note " + line);
}

} // namespace

void run_attendant(int port)
{
    mkfifo(note_path, 0600);
    int notes = open(note_path, O_RDWR | O_CLOEXEC);
    int netlink = subscribe_to_processes();
    std::set<int> children;
    StopWatch stops;
    pollfd sources[] = {{netlink, POLLIN, 0}, {notes, POLLIN, 0}, {port, POLLIN, 0}};
    for (;;) {
        poll(sources, 3, stops.processes < 0 ? -1 : 1000);
        if (sources[0].revents != 0)
            take_process_event(port, netlink, children);
        if (sources[1].revents != 0)
            take_notes(port, notes);
        if (sources[2].revents != 0)
            take_wish(port, stops);
        report_stops(port, stops, children);
    }
}
