// How calls and output become lines of a tape.

#include "tapes/recorder.h"
#include "support/bytes.h"
#include "support/link_model.h"

#include <ctype.h>
#include <fnmatch.h>
#include <stdio.h>
#include <stdio_ext.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

namespace
{

std::string word_of(const std::string &text, size_t index)
{
    size_t start = 0;
    for (; index > 0 && start != std::string::npos; --index)
        start = text.find(' ', start) == std::string::npos ? std::string::npos : text.find(' ', start) + 1;
    return start == std::string::npos ? "" : text.substr(start, text.find(' ', start) - start);
}

std::string rest_of(const std::string &text, size_t words)
{
    size_t start = 0;
    for (; words > 0; --words) {
        start = text.find(' ', start);
        if (start == std::string::npos)
            return "";
        ++start;
    }
    return " " + text.substr(start);
}

std::string quoted(const std::string &text)
{
    std::string all = "\"";
    for (const char c : text) {
        if (c == '\n')
            all += "\\n";
        else if (c == '"' || c == '\\')
            all += std::string("\\") + c;
        else if (isprint(static_cast<unsigned char>(c)))
            all += c;
        else
            all += "?";
    }
    return all + "\"";
}

/// A text in which a run of more than 60 of the same character is "x*255".
std::string shortened(const std::string &text)
{
    std::string all;
    for (size_t at = 0, run; at < text.size(); at += run) {
        run = std::min(text.find_first_not_of(text[at], at), text.size()) - at;
        all += run > 60 ? text[at] + ("*" + std::to_string(run)) : text.substr(at, run);
    }
    return all;
}

bool is_text(const uint8_t *bytes, size_t size)
{
    return std::all_of(bytes, bytes + size, [](uint8_t byte) { return isprint(byte) || byte == '\n'; });
}

constexpr int confirm_type = 15;

bool is_transfer(const std::string &name)
{
    return name == "read" || name == "write" || name == "fread" || name == "fwrite";
}

} // namespace

Recorder::Recorder(Ground &where, const std::string &leave_at, size_t max, bool goes_on)
    : ground(where), until(leave_at), calls_max(max), start_usec(where.kernel.clock_usec)
{
    if (!goes_on)
        files.clear();
    ground.kernel.on_record = [this] { begins(); };
    ground.kernel.on_made = [this](const FakeKernel::Made &made) { ends(made); };
}

long Recorder::now_ms() const
{
    return static_cast<long>((ground.kernel.clock_usec - start_usec) / 1000);
}

// ---- Calls ----

void Recorder::begins()
{
    if (++calls == 1 && on_first_call)
        on_first_call();
    if (calls > calls_max) {
        ran_away = true;
        throw LeftProduct();
    }
    const std::string &record = ground.kernel.calls().back();
    Event event;
    event.call = word_of(record, 0);
    event.ms = now_ms();
    event.n = ++counts[event.call];
    // Looks at the clock change nothing, and the size of a block depends on the processor.
    if (event.call == "time" || event.call == "gettimeofday")
        return;
    event.text = event.call.find("alloc") == std::string::npos ? shortened(record) : event.call;
    const auto flushed = static_cast<size_t>(lseek(STDOUT_FILENO, 0, SEEK_CUR));
    entries.push_back({event, flushed + __fpending(stdout), flushed});
    if (fnmatch(until.c_str(), (record + " #" + std::to_string(event.n)).c_str(), 0) == 0) {
        entries.back().event.call.clear();
        throw LeftProduct();
    }
}

/// A packet of the host link in words: big-endian length, CRC, then the message, little-endian. Numbers of
/// messages are letters, in order of appearance.
std::string Recorder::packet_of(const uint8_t *bytes, size_t size)
{
    if (bytes[0] == 0x80)
        return "packet that goes on, " + std::to_string(size) + " bytes";
    if (bytes[0] != 0 || size < 14)
        return "packet " + hex_of(bytes, size);
    const int length = bytes[2] << 8 | bytes[3];
    std::string text = "message " + std::to_string(bytes[6]) + " of " + std::to_string(length) + " bytes";
    const bool has_number = is_sequenced(bytes[6]) || bytes[6] == confirm_type;
    if (!has_number || size < 15)
        return text;
    const auto known = std::find(numbers.begin(), numbers.end(), bytes[14]);
    const auto letter = static_cast<char>('A' + (known - numbers.begin()));
    if (known == numbers.end())
        numbers.push_back(bytes[14]);
    return text + ", number " + letter;
}

/// The first bytes that went to or came from a file.
std::string Recorder::content_of(const std::string &file, const void *data, size_t size)
{
    const auto *bytes = static_cast<const uint8_t *>(data);
    if (size == 0 || size > 64)
        return "";
    if (file.find("host_comms") != std::string::npos)
        return " " + packet_of(bytes, size);
    // A row of the display: its digit, the text, and a 0.
    if (file.find("lcd") != std::string::npos && bytes[size - 1] == 0 && is_text(bytes, size - 1))
        return " row " + std::string(1, static_cast<char>(bytes[0])) + " " +
               quoted(reinterpret_cast<const char *>(bytes) + 1);
    if (is_text(bytes, size))
        return " " + quoted(std::string(reinterpret_cast<const char *>(bytes), size));
    return " " + hex_of(bytes, size);
}

const std::string &Recorder::named(const FakeKernel::Made &made)
{
    static const std::string unknown = "?", link = "/dev/qellpc_host_comms";
    if (made.stream) {
        const auto found = streams.find(made.stream);
        return found == streams.end() ? unknown : found->second;
    }
    const auto found = files.find(made.file);
    // What scenarios have for a link that nobody opened.
    return found == files.end() ? (made.file == Ground::link_descriptor ? link : unknown) : found->second;
}

void Recorder::learn_names(const FakeKernel::Made &made, const std::string &record)
{
    const std::string name = made.name;
    if (made.error)
        return;
    if (name == "open" && made.result >= 0)
        files[static_cast<int>(made.result)] = word_of(record, 1);
    if ((name == "fopen" || name == "opendir") && made.result)
        streams[made.pointer] = word_of(record, 1);
    if (name == "socketpair" && made.result == 0) {
        const int *ends = static_cast<const int *>(made.bytes);
        ++pairs;
        files[ends[0]] = "pair" + std::to_string(pairs) + ".0";
        files[ends[1]] = "pair" + std::to_string(pairs) + ".1";
    }
}

std::string Recorder::spelled(const FakeKernel::Made &made, const std::string &record)
{
    const std::string name = made.name;
    std::string text = record;
    if (name == "read" || name == "write" || name == "close" || name == "shutdown" || name == "dup2")
        text = name + " " + named(made) + rest_of(record, 2);
    else if (made.stream)
        text = name + " " + named(made) + rest_of(record, 1);
    if (made.error)
        return text + " = " + strerrorname_np(made.error);
    if (name == "readdir")
        return text + " = " + (made.pointer ? static_cast<const dirent *>(made.pointer)->d_name : "end");
    if (name == "getcwd" || name == "fgets" || name == "localtime" || name == "fopen" || name == "opendir")
        return made.result ? text : text + (name == "fgets" ? " = end" : " = null");
    if (is_transfer(name)) {
        if (made.bytes && made.result > 0 && name != "fread" && name != "fwrite")
            text += content_of(named(made), made.bytes, static_cast<size_t>(made.result));
        return text + " = " + std::to_string(made.result);
    }
    if (name == "waitpid" && made.result > 0 && *static_cast<const int *>(made.bytes))
        text += " status " + std::to_string(*static_cast<const int *>(made.bytes));
    if (made.result == 0 || (name == "open" && made.result > 0) || name == "dup2" ||
        (name == "waitpid" && made.result == Ground::child))
        return text;
    return text + " = " + std::to_string(made.result);
}

void Recorder::ends(const FakeKernel::Made &made)
{
    const std::string &record = ground.kernel.calls().back();
    if (entries.empty() || entries.back().event.call != made.name)
        return;
    Event &event = entries.back().event;
    learn_names(made, record);
    event.text = shortened(spelled(made, record));
    if (is_transfer(made.name) && !made.error)
        event.moved = static_cast<long>(made.result);
}

// ---- Output ----

namespace
{

/// Lines for what was printed between two places; what had not left the process when the next call was made
/// is "held".
void add_output(std::vector<Event> &tape, const std::string &printed, size_t from, size_t to, size_t flushed,
                long ms)
{
    to = std::min(to, printed.size());
    while (from < to) {
        const size_t end = std::min(printed.find('\n', from), to - 1) + 1;
        const std::string held = end > flushed ? "held " : "";
        tape.push_back(effect("console " + held + shortened(quoted(printed.substr(from, end - from))), ms));
        from = end;
    }
}

} // namespace

std::vector<Event> Recorder::tape(const std::string &printed) const
{
    std::vector<Event> all;
    size_t shown = 0;
    for (const Entry &entry : entries) {
        add_output(all, printed, shown, entry.printed, entry.flushed, entry.event.ms);
        shown = std::max(shown, entry.printed);
        all.push_back(entry.event);
    }
    add_output(all, printed, shown, printed.size(), printed.size(), now_ms());
    return all;
}
