// Power cuts, and what a start after one comes to.

#include "power_cuts.h"

#include <algorithm>
#include <filesystem>
#include <sstream>

size_t cuts_wanted(const char *variable, size_t usual)
{
    const char *text = getenv(variable);
    const size_t wanted = text == nullptr ? usual : std::stoul(text);
    if (wanted == 0)
        throw std::runtime_error(std::string(variable) + " must be 1 or more");
    return wanted;
}

std::mt19937 power_cut_chance()
{
    return std::mt19937(static_cast<unsigned>(cuts_wanted("QEL_POWER_SEED", 1)));
}

// ---- Cuts ----

static const unsigned long long sector = 512;

/// A sector is written whole or not at all. Without a write of several before the cut, the first one behind
/// it.
static size_t last_that_can_be_torn(const WriteLog &log, size_t entries)
{
    auto can_be_torn = [&](size_t end) { return log.entries[end - 1].size > sector; };
    for (size_t end = entries; end > 0; --end)
        if (can_be_torn(end))
            return end;
    for (size_t end = entries + 1; end <= log.entries.size(); ++end)
        if (can_be_torn(end))
            return end;
    throw std::runtime_error("no write of the log can be torn");
}

std::vector<Cut> choose_cuts(const WriteLog &log, size_t count, std::mt19937 &chance)
{
    const CutKind kinds[] = {CutKind::clean, CutKind::torn, CutKind::lost};
    // All kinds in turn, from a chosen one on.
    const size_t first = chance() % 3;
    std::vector<Cut> cuts;
    for (size_t i = 0; i < count; ++i) {
        // Somewhere in the piece of the log that is this cut's.
        size_t begin = log.entries.size() * i / count, end = log.entries.size() * (i + 1) / count;
        Cut cut = {begin + 1 + chance() % std::max<size_t>(end - begin, 1), kinds[(first + i) % 3]};
        if (cut.kind == CutKind::torn)
            cut.entries = last_that_can_be_torn(log, cut.entries);
        cuts.push_back(cut);
    }
    return cuts;
}

void make_cut_disk(const std::string &disk, const std::string &before, const WriteLog &log, const Cut &cut,
                   std::mt19937 &chance)
{
    run_tool({"cp", "--sparse=always", before, disk});
    if (cut.kind == CutKind::clean) {
        write_again(disk, log, 0, cut.entries);
    } else if (cut.kind == CutKind::torn) {
        size_t last = cut.entries - 1;
        write_again(disk, log, 0, last);
        write_again(disk, log, last, (1 + chance() % (log.entries[last].size / sector - 1)) * sector);
    } else {
        const std::vector<size_t> at_risk = entries_at_risk(log, cut.entries);
        for (size_t entry = 0; entry < cut.entries; ++entry)
            if (!std::binary_search(at_risk.begin(), at_risk.end(), entry) || chance() % 2 == 0)
                write_again(disk, log, entry);
    }
}

std::string describe(const Cut &cut, const WriteLog &log)
{
    const std::map<CutKind, std::string> names = {
        {CutKind::clean, "clean"}, {CutKind::torn, "torn"}, {CutKind::lost, "lost"}};
    return "after " + std::to_string(cut.entries) + " of " + std::to_string(log.entries.size()) + ", " +
           names.at(cut.kind);
}

// ---- What the document says ----

std::set<std::string> documented(const std::string &heading)
{
    std::istringstream document(read_file(MACHINE_TEST_FAILURES));
    std::string line;
    while (std::getline(document, line) && line != heading)
        ;
    std::set<std::string> cells;
    bool head = true;
    while (std::getline(document, line) && !line.starts_with("#")) {
        if (!line.starts_with("| "))
            continue;
        std::string cell = line.substr(2, line.find(" |") - 2);
        std::erase(cell, '`');
        if (!head)
            cells.insert(cell);
        head = false;
    }
    if (cells.empty())
        throw std::runtime_error("docs/failures.md has no table under: " + heading);
    return cells;
}

// ---- What a start comes to ----

namespace
{

/// What BIOS, boot loader and kernel say, without what only moves a cursor.
std::string early_text(const Machine &machine)
{
    const std::string file = machine.cabinet.scratch.path + "/kernel.log";
    std::string log = std::filesystem::exists(file) ? read_file(file) : "", text;
    for (size_t i = 0; i < log.size(); ++i) {
        if (log[i] == '\x1b')
            while (i + 1 < log.size() && isalpha(static_cast<unsigned char>(log[i])) == 0)
                ++i;
        else if (log[i] != '\r')
            text += log[i];
    }
    return text;
}

/// The last line of that which is not empty.
std::string last_line(const Machine &machine)
{
    const std::string text = early_text(machine);
    const size_t end = text.find_last_not_of(" .\n");
    if (end == std::string::npos)
        return "";
    const size_t begin = text.rfind('\n', end);
    return text.substr(begin + 1, end - begin);
}

/// The application that the loader said last that it runs.
std::string last_run(const Machine &machine)
{
    const std::string run = "run: /storage/", &console = machine.cabinet.console;
    const size_t at = console.rfind(run);
    if (at == std::string::npos)
        return "";
    return console.substr(at + run.size(), console.find('\n', at) - at - run.size());
}

/// The application that runs or fails again and again; empty when there is none yet.
Outcome application_outcome(const Machine &machine)
{
    const int again_and_again = 3;
    std::map<std::string, int> crashes;
    std::set<int> others; ///< programs that are no application
    for (const Event &event : machine.cabinet.events) {
        if (event.kind == Event::note && event.text.starts_with("qel_application_") &&
            event.text.ends_with(" done"))
            return {"the application", event.text.substr(0, event.text.find(' '))};
        if (event.kind == Event::program_started && !event.text.starts_with("/storage/"))
            others.insert(event.number);
        // A file of which only the beginning is a program ends its process before it is started.
        if (event.kind == Event::program_ended && event.text.starts_with("signal ") &&
            !others.contains(event.number) && ++crashes[event.text] == again_and_again)
            return {"a crash, again and again", last_run(machine) + ", " + event.text};
    }
    const std::string failed = "exec failed: ", &console = machine.cabinet.console;
    size_t at = 0;
    for (int times = 1; (at = console.find(failed, at)) != std::string::npos; ++times) {
        at += failed.size();
        if (times == again_and_again)
            return {"exec failed, again and again", console.substr(at, console.find('\n', at) - at)};
    }
    return {};
}

bool loader_has_started(const Machine &machine)
{
    return std::any_of(machine.cabinet.events.begin(), machine.cabinet.events.end(),
                       [](const Event &event) { return event.kind == Event::loader_started; });
}

std::string ask_monitor(Machine &machine, const std::string &line)
{
    return monitor(machine.cabinet, "human-monitor-command", {{"command-line", line}}).get<std::string>();
}

/// How often the processor was seen in a state, by its registers.
using States = std::map<std::string, int>;

/// The processor is halted, and no interrupt can come. Or it is in a boot sector, no interrupt can come, and
/// for the tenth time all registers are the same: half a boot sector may fault forever, for the BIOS only
/// returns to it.
bool is_halted_for_good(Machine &machine, States &states)
{
    const unsigned long interrupts_enabled = 0x200, boot_sector = 0x7c00, boot_sector_end = 0x7e00;
    const std::string all = ask_monitor(machine, "info registers");
    const size_t place = all.find("IP="), flags = all.find("FL=");
    if (place == std::string::npos || flags == std::string::npos ||
        (std::stoul(all.substr(flags + 3), nullptr, 16) & interrupts_enabled) != 0)
        return false;
    const unsigned long at = std::stoul(all.substr(place + 3), nullptr, 16);
    return all.find("HLT=1") != std::string::npos ||
           (at >= boot_sector && at < boot_sector_end && ++states[all] == 10);
}

/// What has become of the machine up to now; empty while nothing has.
Outcome outcome_so_far(Machine &machine, const std::set<std::string> &endings, States &states)
{
    if (Outcome outcome = application_outcome(machine); !outcome.ending.empty())
        return outcome;
    if (loader_has_started(machine)) {
        const std::string &console = machine.cabinet.console;
        if (first_stop(machine.cabinet) == nullptr)
            return {};
        return {wait_until_parked(machine), console.substr(console.rfind('\n', console.size() - 2) + 1)};
    }
    if (endings.contains(last_line(machine)))
        return {last_line(machine), ""};
    return is_halted_for_good(machine, states) ? Outcome{"a halt", last_line(machine)} : Outcome{};
}

} // namespace

bool timer_was_late(const std::runtime_error &error)
{
    return std::string(error.what()).find("IO-APIC + timer doesn't work!") != std::string::npos;
}

Outcome outcome_of_start(Machine &machine, const std::set<std::string> &endings)
{
    Outcome outcome;
    States states;
    try {
        auto over = [&] {
            outcome = outcome_so_far(machine, endings, states);
            return !outcome.ending.empty();
        };
        if (!wait_until(machine.cabinet, over, 2 * patience))
            outcome = {"unknown", last_line(machine) + "\n" + machine.cabinet.console +
                                      ask_monitor(machine, "info registers")};
    } catch (const std::runtime_error &error) {
        // QEMU is told to end where a machine would start anew.
        if (!std::string(error.what()).starts_with("the machine ended by itself") || timer_was_late(error))
            throw;
        // The kernel starts anew where process 1 ends, too, and that is nobody's right.
        outcome = {loader_has_started(machine) ? "the loader has ended" : "a restart", last_line(machine)};
    }
    return outcome;
}

// ---- The table ----

void note_outcome(Outcomes &outcomes, const std::string &cut, const std::string &outcome,
                  const std::string &more)
{
    ++outcomes.counts[outcome];
    printf("  %-28s %s%s\n", cut.c_str(), outcome.c_str(), more.empty() ? "" : (": " + more).c_str());
    fflush(stdout);
}

void print_outcomes(const Outcomes &outcomes, const std::string &title)
{
    printf("%s\n", title.c_str());
    for (const auto &[outcome, count] : outcomes.counts)
        printf("  %5zu  %s\n", count, outcome.c_str());
    fflush(stdout);
}
