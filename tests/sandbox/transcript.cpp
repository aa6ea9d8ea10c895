// Takes the stream from a sandbox apart into console text and records.

#include "sandbox/transcript.h"
#include "sandbox/settings.h"

#include <algorithm>
#include <iterator>
#include <sstream>

int begins_with(const std::string &line, const std::string &beginning)
{
    return line.compare(0, beginning.size(), beginning) == 0;
}

// ---- Taking it apart ----

static std::string quotation(const std::string &text)
{
    std::string quoted_text = "\"";
    for (const char character : text) {
        if (character == '\n')
            quoted_text += "\\n";
        else if (character == '"' || character == '\\')
            quoted_text += std::string("\\") + character;
        else
            quoted_text += character;
    }
    return quoted_text + '"';
}

void Transcript::end_console_line()
{
    if (!console_line.empty())
        first_process.push_back("console " + quotation(console_line));
    console_line.clear();
}

void Transcript::take_record(const std::string &record)
{
    const size_t blank = record.find(' ');
    const pid_t pid = std::stoi(record.substr(0, blank));
    if (pid == 1)
        end_console_line();
    (pid == 1 ? first_process : others[pid]).push_back(record.substr(blank + 1));
}

void Transcript::take(const std::string &bytes)
{
    for (const char byte : bytes) {
        if (byte == record_mark) {
            in_record = 1;
        } else if (!in_record) {
            console_line += byte;
            if (byte == '\n')
                end_console_line();
        } else if (byte != '\n') {
            open_record += byte;
        } else {
            take_record(open_record);
            open_record.clear();
            in_record = 0;
        }
    }
}

// ---- Looking ----

std::vector<std::string> Transcript::lines(const std::string &beginning) const
{
    std::vector<std::string> wanted;
    std::copy_if(first_process.begin(), first_process.end(), std::back_inserter(wanted),
                 [&](const std::string &line) { return begins_with(line, beginning); });
    return wanted;
}

std::vector<std::string> Transcript::of(pid_t pid) const
{
    const auto found = others.find(pid);
    return found == others.end() ? std::vector<std::string>() : found->second;
}

std::vector<pid_t> Transcript::processes_with(const std::string &beginning) const
{
    std::vector<pid_t> wanted;
    for (const auto &[pid, lines] : others) {
        if (std::any_of(lines.begin(), lines.end(),
                        [&](const std::string &line) { return begins_with(line, beginning); }))
            wanted.push_back(pid);
    }
    return wanted;
}

std::string Transcript::text() const
{
    std::ostringstream all;
    for (const std::string &line : first_process)
        all << line << '\n';
    if (!console_line.empty())
        all << "console " << quotation(console_line) << " (no end yet)\n";
    for (const auto &[pid, lines] : others) {
        all << "-- process " << pid << '\n';
        for (const std::string &line : lines)
            all << line << '\n';
    }
    return all.str();
}

std::vector<std::string> expected_lines(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream input(text);
    for (std::string line; std::getline(input, line);) {
        if (!line.empty() && line.front() != '#')
            lines.push_back(line);
    }
    return lines;
}
