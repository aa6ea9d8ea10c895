// Every fault of every call.

#include "tapes/sweep.h"
#include "support/stops.h"
#include "tapes/faults.h"

#include <fcntl.h>
#include <fnmatch.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace
{

using Lines = std::vector<std::string>;

Lines texts_of(const Run &run, size_t first = 0)
{
    Lines texts;
    for (size_t i = first; i < run.events.size(); ++i)
        texts.push_back(run.events[i].text);
    return texts;
}

// ---- Differences ----

/// The lines in words; of many, the first and the last.
std::string listed(const Lines &lines, size_t from, size_t to)
{
    if (to - from > 3)
        return lines[from] + "; .. " + std::to_string(to - from - 2) + " more ..; " + lines[to - 1];
    std::string text;
    for (size_t i = from; i < to; ++i)
        text += (i == from ? "" : "; ") + lines[i];
    return text;
}

/// For each pair of places, the length of the longest common subsequence from there on.
std::vector<std::vector<size_t>> common_lengths(const Lines &a, const Lines &b)
{
    std::vector<std::vector<size_t>> length(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = a.size(); i-- > 0;) {
        for (size_t j = b.size(); j-- > 0;)
            length[i][j] =
                a[i] == b[j] ? length[i + 1][j + 1] + 1 : std::max(length[i + 1][j], length[i][j + 1]);
    }
    return length;
}

std::string change(const Lines &usual, size_t i, size_t i_end, const Lines &found, size_t j, size_t j_end)
{
    if (j + 1 == j_end && j_end == found.size() && found[j].rfind("stops ", 0) == 0)
        return found[j];
    if (j == j_end)
        return "without " + listed(usual, i, i_end);
    if (i == i_end)
        return (j_end == found.size() ? "then " : "first ") + listed(found, j, j_end);
    if (i_end == usual.size() && j_end == found.size())
        return "then " + listed(found, j, j_end);
    return listed(found, j, j_end) + " for " + listed(usual, i, i_end);
}

} // namespace

std::string difference(const Lines &usual, const Lines &found)
{
    if (usual == found)
        return "same";
    const auto length = common_lengths(usual, found);
    std::string text;
    size_t i = 0, j = 0;
    while (i < usual.size() || j < found.size()) {
        if (i < usual.size() && j < found.size() && usual[i] == found[j]) {
            ++i;
            ++j;
            continue;
        }
        const size_t i_start = i, j_start = j;
        while ((i < usual.size() || j < found.size()) &&
               !(i < usual.size() && j < found.size() && usual[i] == found[j])) {
            if (j == found.size() || (i < usual.size() && length[i + 1][j] >= length[i][j + 1]))
                ++i;
            else
                ++j;
        }
        const std::string place = i_start > 0 && j_start > 0 ? "after " + usual[i_start - 1] + ": " : "";
        text += (text.empty() ? "" : "\n") + place + change(usual, i_start, i, found, j_start, j);
    }
    return text;
}

namespace
{

// ---- Rules for every outcome ----

/// The rows of docs/failures.md, in which all stops stand.
const Lines &rows_of_failures()
{
    static const Lines rows = [] {
        Lines all;
        std::ifstream file(QEL_TAPES_FOLDER "/../../docs/failures.md");
        for (std::string line; std::getline(file, line);)
            all.push_back(line);
        return all;
    }();
    return rows;
}

bool is_listed_stop(const Run &run)
{
    return std::any_of(rows_of_failures().begin(), rows_of_failures().end(), [&](const std::string &row) {
        return row.find("`" + run.stop_place + "`") != std::string::npos &&
               row.find("`" + run.stop_text + "`") != std::string::npos;
    });
}

bool may_end_so(const Scenario &scenario, const Run &clean, const Run &run)
{
    if (!run.stop_text.empty())
        return is_listed_stop(run);
    const auto fits = [&](const std::string &end) {
        return fnmatch(("ends " + end).c_str(), run.end.c_str(), 0) == 0;
    };
    return run.end == clean.end || std::any_of(scenario.may_end.begin(), scenario.may_end.end(), fits);
}

bool holds_sound_content(const std::string &path, const std::string &content, const Run &clean,
                         const Run &run)
{
    const auto before = run.files_before.find(path), after = clean.files.find(path);
    return (before != run.files_before.end() && before->second == content) ||
           (after != clean.files.end() && after->second.rfind(content, 0) == 0);
}

std::string complaints_about_files(const Run &clean, const Run &run)
{
    std::string complaints;
    for (const auto &[path, content] : run.files) {
        const bool is_device = path.rfind("/dev/qellpc_", 0) == 0 || path == "/dev/null";
        if (!is_device && !holds_sound_content(path, content, clean, run))
            complaints += path + " holds neither the old nor the new content\n";
    }
    // What is there in the end without a fault, and was there before, does not go.
    for (const auto &[path, content] : clean.files) {
        if (run.files_before.count(path) && run.files_before.at(path) == content && !run.files.count(path))
            complaints += path + " is gone\n";
    }
    return complaints;
}

std::string complaints_about(const Scenario &scenario, const Run &clean, const Run &run, size_t at)
{
    std::string complaints = run.complaints;
    if (!may_end_so(scenario, clean, run))
        complaints += "nobody declares that it " + run.end + "\n";
    for (size_t i = 0; i < at; ++i) {
        if (i >= run.events.size() || run.events[i].text != clean.events[i].text)
            complaints += "before the fault: not " + clean.events[i].text + "\n";
    }
    if (run.stop_text.empty() && !run.left_open.empty() && run.left_open != clean.left_open &&
        run.left_open != scenario.may_leave_open)
        complaints += "stays open: " + run.left_open + "\n";
    if (run.is_over && run.end == clean.end && run.heap_blocks > clean.heap_blocks)
        complaints += "blocks of the heap are not given back\n";
    return complaints + complaints_about_files(clean, run);
}

// ---- One fault ----

/// The runs with which others are compared: the first, and the same again.
struct Usual {
    Run first, again;
};

/// What comes of one fault of the call number `at` of the clean run, in words.
std::string outcome_of(const Scenario &scenario, const Usual &usual, size_t at, const Fault &fault,
                       std::string &complaints)
{
    const Event &call = usual.first.events[at];
    const Injection injection = {call.call, call.n, fault.error, fault.size_max};
    const size_t calls_max = 3 * usual.first.events.size() + 50;
    const Traces traces;
    const Run run = run_tape(scenario, &injection, false, calls_max);
    std::string wrong = complaints_about(scenario, usual.first, run, at);
    std::string outcome = difference(texts_of(usual.first, at + 1), texts_of(run, at + 1));
    if (run.is_over && usual.first.is_over) {
        const Run again = run_tape(scenario, nullptr, true, calls_max);
        wrong += again.complaints;
        const std::string change = difference(texts_of(usual.again), texts_of(again));
        if (change != "same") {
            outcome += "\nagain: " + change;
            if (scenario.remembers.empty())
                wrong += "the same again is not as without the fault: " + change + "\n";
        }
    }
    if (!wrong.empty())
        complaints += "-- " + call.text + ", " + spelled(fault) + ":\n" + wrong;
    return outcome;
}

// ---- All faults of a call ----

std::string joined(const Lines &words)
{
    std::string text;
    for (const std::string &word : words)
        text += (text.empty() ? "" : " ") + word;
    return text;
}

/// The outcomes of a call's faults, those with the same one under one head.
Lines outcome_lines(const std::vector<std::pair<std::string, Fault>> &outcomes)
{
    size_t errors = 0;
    for (const auto &[outcome, fault] : outcomes)
        errors += fault.error != 0;
    std::vector<std::pair<std::string, std::vector<Fault>>> groups;
    for (const auto &[outcome, fault] : outcomes) {
        const auto group = std::find_if(groups.begin(), groups.end(),
                                        [text = outcome](const auto &known) { return known.first == text; });
        if (group == groups.end())
            groups.push_back({outcome, {fault}});
        else
            group->second.push_back(fault);
    }
    Lines lines;
    for (const auto &[outcome, faults] : groups) {
        Lines words;
        const auto error_count = static_cast<size_t>(
            std::count_if(faults.begin(), faults.end(), [](const Fault &fault) { return fault.error != 0; }));
        if (faults.size() == outcomes.size())
            words = {"any"};
        else if (error_count == errors && errors > 1)
            words = {"any error"};
        else if (error_count > 3)
            words = {"any other error"};
        for (const Fault &fault : faults) {
            if (faults.size() != outcomes.size() && (!fault.error || words.empty() || words[0][0] == 'E'))
                words.push_back(spelled(fault));
        }
        lines.push_back(joined(words) + ": " + outcome);
    }
    // "any other error" comes after the others.
    std::stable_partition(lines.begin(), lines.end(),
                          [](const std::string &line) { return line.rfind("any other error", 0) != 0; });
    return lines;
}

std::string line_of(const Event &event)
{
    std::string ms = std::to_string(event.ms);
    return std::string(ms.size() < 7 ? 7 - ms.size() : 0, ' ') + ms + "  " + event.text;
}

/// Puts the outcomes below their call, or behind it when there is one, and room for it.
void add_outcomes(Lines &lines, const Lines &outcomes)
{
    const std::string indent(14, ' ');
    if (outcomes.size() == 1 && lines.back().size() + outcomes[0].size() < 118 &&
        outcomes[0].find('\n') == std::string::npos) {
        lines.back() += "   | " + outcomes[0];
        return;
    }
    for (const std::string &outcome : outcomes) {
        std::istringstream parts(outcome);
        std::string first = indent;
        for (std::string part; std::getline(parts, part); first = indent + "    ")
            lines.push_back(first + part);
    }
}

Usual usual_runs(const Scenario &scenario)
{
    const Traces traces;
    Usual usual;
    usual.first = run_tape(scenario);
    if (usual.first.is_over)
        usual.again = run_tape(scenario, nullptr, true);
    return usual;
}

size_t first_of(const Scenario &scenario, const std::vector<Event> &events)
{
    const auto is_it = [&](const Event &event) {
        return scenario.from.empty() || fnmatch(scenario.from.c_str(), event.text.c_str(), 0) == 0;
    };
    return static_cast<size_t>(std::find_if(events.begin(), events.end(), is_it) - events.begin());
}

} // namespace

Swept sweep(const Scenario &scenario)
{
    Swept swept;
    const Usual usual = usual_runs(scenario);
    swept.complaints = usual.first.complaints + usual.again.complaints;
    const size_t first = first_of(scenario, usual.first.events);
    if (first == usual.first.events.size())
        swept.complaints += "it never comes to " + scenario.from + "\n";
    for (size_t at = first; at < usual.first.events.size(); ++at) {
        const Event &event = usual.first.events[at];
        swept.lines.push_back(line_of(event));
        std::vector<std::pair<std::string, Fault>> outcomes;
        for (const Fault &fault : faults_of(event.call, event.moved))
            outcomes.emplace_back(outcome_of(scenario, usual, at, fault, swept.complaints), fault);
        add_outcomes(swept.lines, outcome_lines(outcomes));
        swept.calls += !outcomes.empty();
        swept.faults += static_cast<int>(outcomes.size());
    }
    if (usual.first.is_over) {
        const std::string change = difference(texts_of(usual.first), texts_of(usual.again));
        if (change != "same") {
            add_outcomes(swept.lines, {"again: " + change});
            if (scenario.remembers.empty())
                swept.complaints += "the same again: " + change + "\n";
        }
    }
    return swept;
}
