// Judges the events of a cabinet. A run may become one program after another, as with Wine.

#include "outcome.h"

#include <algorithm>
#include <map>

namespace
{

/// Begins a run of the application in `alive`, since when by process; false when the event begins none.
bool begins_run(std::map<int, double> &alive, const Event &event)
{
    // In the words of an application, or of Wine or a shell for it.
    return event.kind == Event::program_started && event.text.find("/storage/") != std::string::npos &&
           alive.emplace(event.number, event.seconds).second;
}

} // namespace

int application_starts(const Cabinet &cabinet)
{
    std::map<int, double> alive;
    int starts = 0;
    for (const Event &event : cabinet.events) {
        if (event.kind == Event::program_ended)
            alive.erase(event.number);
        else if (begins_run(alive, event))
            ++starts;
    }
    return starts;
}

std::string why_it_did_not_run(const Cabinet &cabinet, double now)
{
    std::map<int, double> alive;
    std::string last_end;
    double longest = 0;
    for (const Event &event : cabinet.events) {
        if (event.kind == Event::program_ended && alive.contains(event.number)) {
            longest = std::max(longest, event.seconds - alive[event.number]);
            last_end = event.text;
            alive.erase(event.number);
        } else {
            begins_run(alive, event);
        }
    }
    for (const auto &[process, since] : alive)
        longest = std::max(longest, now - since);
    if (longest > 1 || (last_end.empty() && !alive.empty()))
        return "";
    std::string why = last_end.empty()
                          ? "the application was never started"
                          : "no run of the application lasted longer than a second; the last one ended "
                            "with " +
                                last_end;
    for (const char *reason : {"error while loading shared libraries: ", "exec failed: ", "wine failed: "}) {
        const size_t at = cabinet.console.rfind(reason);
        if (at != std::string::npos)
            return why + ": " + cabinet.console.substr(at, cabinet.console.find('\n', at) - at);
    }
    return why;
}
