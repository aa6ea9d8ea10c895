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

std::vector<Cut> choose_cuts(const WriteLog &log, size_t count, std::mt19937 &chance)
{
    const CutKind kinds[] = {CutKind::clean, CutKind::torn, CutKind::lost};
    // All kinds in turn, from a chosen one on.
    const size_t first = chance() % 3;
    std::vector<Cut> cuts;
    for (size_t i = 0; i < count; ++i) {
        // Somewhere in the piece of the log that is this cut's.
        size_t begin = log.entries.size() * i / count, end = log.entries.size() * (i + 1) / count;
        cuts.push_back({begin + 1 + chance() % std::max<size_t>(end - begin, 1), kinds[(first + i) % 3]});
    }
    return cuts;
}

void make_cut_disk(const std::string &disk, const std::string &before, const WriteLog &log, const Cut &cut,
                   std::mt19937 &chance)
{
    const unsigned long long sector = 512;
    run_tool({"cp", "--sparse=always", before, disk});
    if (cut.kind == CutKind::clean) {
        write_again(disk, log, 0, cut.entries);
    } else if (cut.kind == CutKind::torn) {
        size_t last = cut.entries - 1;
        write_again(disk, log, 0, last);
        unsigned long long sectors = log.entries[last].size / sector;
        write_again(disk, log, last, sectors == 0 ? 0 : chance() % sectors * sector);
    } else {
        size_t safe = last_flush_end(log, cut.entries);
        write_again(disk, log, 0, safe);
        for (size_t entry = safe; entry < cut.entries; ++entry)
            if (chance() % 2 == 0)
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

// ---- What a start comes to ----

namespace
{

/// What is said last by BIOS, boot program, boot loader and kernel.
const char *const early_ends[] = {"No bootable device",
                                  "press any key to try again",
                                  "Missing operating system",
                                  "Operating system load error",
                                  "boot:",
                                  "System halted",
                                  "Kernel panic"};

bool contains(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

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

/// The last lines of that.
std::string last_words(const Machine &machine)
{
    std::istringstream text(early_text(machine));
    std::string before, last;
    for (std::string line; std::getline(text, line);)
        if (line.find_first_not_of(" ") != std::string::npos) {
            before = last;
            last = line.substr(0, line.find_last_not_of(" .") + 1);
        }
    return before + " / " + last;
}

/// The machine gave up before there was a loader, or it waits for somebody at a keyboard.
bool ended_early(const Machine &machine)
{
    const std::string text = early_text(machine);
    return std::any_of(std::begin(early_ends), std::end(early_ends),
                       [&](const char *end) { return contains(text, end); });
}

/// The application that runs or fails again and again, in words; empty when there is none yet.
std::string application_outcome(const Machine &machine)
{
    std::map<std::string, int> deaths;
    std::map<int, std::string> programs;
    for (const Event &event : machine.cabinet.events) {
        if (event.kind == Event::note && event.text.starts_with("qel_application_") &&
            event.text.ends_with(" done"))
            return "runs " + event.text.substr(0, event.text.find(' '));
        if (event.kind == Event::program_started && event.text.starts_with("/storage/"))
            programs[event.number] = event.text.substr(9);
        if (event.kind == Event::program_ended && programs.contains(event.number) &&
            ++deaths[programs[event.number] + " that ends by " + event.text] == 3)
            return "starts " + programs[event.number] + " that ends by " + event.text + " again and again";
    }
    const std::string failed = "exec failed: ";
    size_t at = machine.cabinet.console.find(failed);
    if (at == std::string::npos)
        return "";
    at += failed.size();
    return "cannot start " + machine.cabinet.console.substr(at, machine.cabinet.console.find('\n', at) - at);
}

/// Where a loader without an application stands.
std::string where_it_stands(Machine &machine)
{
    const std::string &console = machine.cabinet.console;
    if (!console.starts_with("QEL Loader..."))
        return "hangs after: " + last_words(machine);
    if (console.ends_with("mount: /usr"))
        return "stops mounting /usr";
    if (!console.ends_with("mount: /usr /storage\n"))
        return "stands still after: " + console.substr(console.rfind('\n', console.size() - 2) + 1);
    bool mounted = contains(look_inside(machine.cabinet, "/bin/busybox cat /proc/mounts"), " /storage vfat ");
    return mounted ? "stops without an application" : "stops mounting /storage";
}

} // namespace

std::string outcome_of_start(Machine &machine)
{
    const double long_silence = 30; // whoever is at work says something sooner
    std::string outcome;
    size_t said = 0;
    double last = uptime(machine.cabinet);
    auto clear = [&] {
        outcome = application_outcome(machine);
        if (outcome.empty() && ended_early(machine))
            outcome = "does not start: " + last_words(machine);
        size_t says =
            machine.cabinet.console.size() + machine.cabinet.events.size() + early_text(machine).size();
        if (says != said)
            last = uptime(machine.cabinet);
        said = says;
        return !outcome.empty() || uptime(machine.cabinet) > last + long_silence;
    };
    wait_until(machine.cabinet, clear, 2 * patience);
    return outcome.empty() ? where_it_stands(machine) : outcome;
}

// ---- The table ----

void note_outcome(Outcomes &outcomes, const std::string &cut, const std::string &outcome)
{
    ++outcomes.counts[outcome];
    printf("  %-28s %s\n", cut.c_str(), outcome.c_str());
    fflush(stdout);
}

void print_outcomes(const Outcomes &outcomes, const std::string &title)
{
    printf("%s\n", title.c_str());
    for (const auto &[outcome, count] : outcomes.counts)
        printf("  %5zu  %s\n", count, outcome.c_str());
    fflush(stdout);
}
