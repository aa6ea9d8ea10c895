/// What the fuzz targets share. A target takes an input apart, has the product work on it inside `run`, and
/// compares what comes of it with what must come of it.
#pragma once

#include "support/bytes.h"

#include <fuzzer/FuzzedDataProvider.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <functional>
#include <memory>
#include <string>

/// Each target's: what it does with an input. Longer ones do nothing that those of this size cannot do.
void work_on(FuzzedDataProvider &input);
extern const int input_bytes_max;

/// How a run of the product ended.
struct RunEnd {
    bool stopped = false;
    std::string unit;
    int line = 0;
    std::string text;
};

/// Runs `statement` in a product whose variables are as at the start of its process. It may stop. What the
/// product holds on the heap is freed afterwards.
RunEnd run(const std::function<void()> &statement);

/// The check on which the product must stop now, and the unit that reports it; "" for none.
extern std::string expected_stop;
extern const char *expected_unit;

/// Runs `statement`, which must come to its end, or to the expected stop if there is one by then.
void run_to_end(const std::function<void()> &statement);

/// The largest block that the product gets from its heap; for more there is no memory. No input fills it.
constexpr size_t heap_block_bytes_max = 1 << 14;

/// The smallest: shorter requests get this much. A target raises it where the product may read beyond what
/// it has asked for.
extern size_t heap_block_bytes_min;

/// Ends the fuzzing with a finding.
[[noreturn]] void report(const char *what, const std::string &found = "", const std::string &expected = "");

/// REQUIRE(holds, what, found, expected): a finding unless `holds`. Only then are the texts made.
#define REQUIRE(holds, ...) ((holds) ? void() : report(__VA_ARGS__))

inline void require_same(const char *what, uint64_t found, uint64_t expected)
{
    REQUIRE(found == expected, what, std::to_string(found), std::to_string(expected));
}

/// A copy in a heap block of exactly its size, so that the sanitizer sees every byte beyond.
template <typename Element> struct Exactly {
    explicit Exactly(size_t element_count) : count(element_count), block(new Element[element_count]()) {}
    Exactly(const void *bytes, size_t byte_count) : Exactly(byte_count / sizeof(Element))
    {
        if (byte_count > 0)
            memcpy(block.get(), bytes, byte_count);
    }
    explicit Exactly(const Bytes &bytes) : Exactly(bytes.data(), bytes.size()) {}
    explicit Exactly(const std::string &text) : Exactly(text.c_str(), text.size() + 1) {}
    Element *get() const
    {
        return block.get();
    }
    size_t size() const
    {
        return count;
    }

    size_t count;
    std::unique_ptr<Element[]> block;
};

using Text = Exactly<char>;

/// Up to `max` bytes without a NUL.
inline std::string text_of(FuzzedDataProvider &input, size_t max)
{
    const std::string bytes = input.ConsumeRandomLengthString(max);
    return bytes.substr(0, bytes.find('\0'));
}
