/// What the fuzz targets share. A target takes an input apart, has the product work on it inside `run`, and
/// compares what comes of it with what must come of it.
#pragma once

#include "support/bytes.h"

#include <fuzzer/FuzzedDataProvider.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <functional>
#include <initializer_list>
#include <memory>
#include <string>

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

/// The largest block that the product gets from its heap; for more there is no memory.
constexpr size_t heap_block_bytes_max = 1 << 20;

/// The smallest: shorter requests get this much. A target raises it where the product may read beyond what
/// it has asked for.
extern size_t heap_block_bytes_min;

/// Ends the fuzzing with a finding unless `holds`.
void require(bool holds, const char *what, const std::string &found = "", const std::string &expected = "");

/// A stop must be on one of these checks of `unit`, or there must be none.
void require_documented(const RunEnd &outcome, const char *unit, std::initializer_list<const char *> texts);

/// A copy in a heap block of exactly its size, so that the sanitizer sees every byte beyond.
template <typename Element> class Exactly
{
  public:
    explicit Exactly(size_t element_count) : count(element_count), block(new Element[element_count]()) {}
    Exactly(const void *bytes, size_t byte_count) : Exactly(byte_count / sizeof(Element))
    {
        if (byte_count > 0)
            memcpy(block.get(), bytes, byte_count);
    }
    explicit Exactly(const std::string &text) : Exactly(text.c_str(), text.size() + 1) {}

    Element *get() const
    {
        return block.get();
    }
    size_t size() const
    {
        return count;
    }

  private:
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
