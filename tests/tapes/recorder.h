// Writes a tape while the product runs.
#pragma once

#include "tapes/tape.h"

struct Recorder {
    /// One that `goes_on` knows what the one before it knew by name.
    Recorder(Ground &where, const std::string &leave_at, size_t max, bool goes_on);
    Recorder(const Recorder &) = delete;
    Recorder &operator=(const Recorder &) = delete;

    long now_ms() const;
    /// The tape, with what was printed, which is known in the end only.
    std::vector<Event> tape(const std::string &printed) const;

    std::function<void()> on_first_call;
    bool ran_away = false;

    /// A call and how much had been printed, and had left the process, when it was made.
    struct Entry {
        Event event;
        size_t printed, flushed;
    };
    void begins();
    void ends(const FakeKernel::Made &made);
    std::string spelled(const FakeKernel::Made &made, const std::string &record);
    const std::string &named(const FakeKernel::Made &made);
    std::string packet_of(const uint8_t *bytes, size_t size);
    std::string content_of(const std::string &file, const void *data, size_t size);
    void learn_names(const FakeKernel::Made &made, const std::string &record);

    Ground &ground;
    std::string until;
    size_t calls_max;
    size_t calls = 0;
    long long start_usec;
    std::vector<Entry> entries;
    std::map<std::string, int> counts;
    inline static std::map<int, std::string> files;
    std::map<const void *, std::string> streams;
    std::vector<uint8_t> numbers; ///< of messages, in order of appearance
    int pairs = 0;
};
