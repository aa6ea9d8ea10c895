// A fresh product for each input, its heap, and how findings are reported.

#include "fuzz/fuzz.h"
#include "support/fake_kernel.h"
#include "support/product_reset.h"
#include "support/stops.h"

#include "qel_tolbrin/qel_comms.h"

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

namespace
{

/// The first call, before anything has happened, takes note of the product's variables.
void restore_variables()
{
    static const uint16_t crc_tables_are_made = qel_crc16("", 0);
    static const std::vector<char> state_at_start = product_state();
    require_same("the CRC of nothing", crc_tables_are_made, 0x1D0F);
    REQUIRE(!state_at_start.empty(), "no variables of the product");
    restore_product(state_at_start);
}

} // namespace

// ---- The product's heap; product_state.h leads it here ----

void *product_malloc(size_t size);
void *product_calloc(size_t count, size_t size);
void *product_realloc(void *block, size_t size);
void product_free(void *block);

size_t heap_block_bytes_min = 1;

namespace
{

std::vector<void *> blocks; ///< few at a time
bool is_running;            ///< what is had outside `run` stays

void *keep(void *block)
{
    if (is_running)
        blocks.push_back(block);
    return block;
}

void forget(void *block)
{
    const auto kept = std::find(blocks.rbegin(), blocks.rend(), block);
    if (kept == blocks.rend())
        return;
    *kept = blocks.back();
    blocks.pop_back();
}

size_t at_least(size_t size)
{
    return std::max(size, heap_block_bytes_min);
}

} // namespace

void *product_malloc(size_t size)
{
    return size > heap_block_bytes_max ? nullptr : keep(real_malloc(at_least(size)));
}

void *product_calloc(size_t count, size_t size)
{
    return count * size > heap_block_bytes_max ? nullptr : keep(real_calloc(1, at_least(count * size)));
}

void *product_realloc(void *block, size_t size)
{
    if (size > heap_block_bytes_max)
        return nullptr;
    forget(block);
    return keep(real_realloc(block, at_least(size)));
}

void product_free(void *block)
{
    forget(block);
    real_free(block);
}

// ---- Running ----

std::string expected_stop;
const char *expected_unit = "";

RunEnd run(const std::function<void()> &statement)
{
    restore_variables();
    RunEnd end;
    is_running = true;
    try {
        statement();
    } catch (const Stop &stop) {
        end = {true, stop.unit, stop.line, stop.text};
    }
    is_running = false;
    for (void *block : blocks)
        real_free(block);
    blocks.clear();
    return end;
}

void run_to_end(const std::function<void()> &statement)
{
    expected_stop.clear();
    const RunEnd end = run(statement);
    REQUIRE(end.text == expected_stop, "the stop", end.unit + " " + end.text, expected_stop);
    REQUIRE(!end.stopped || end.unit == expected_unit, "its unit", end.unit, expected_unit);
}

// ---- Findings ----

namespace
{

int findings = STDERR_FILENO;

}

void report(const char *what, const std::string &found, const std::string &expected)
{
    dprintf(findings, "FINDING: %s\n   found: %s\nexpected: %s\n", what, found.c_str(), expected.c_str());
    abort();
}

// ---- The fuzzer ----

/// What the product prints is no part of the findings, and there is much of it. The fuzzer's own thread,
/// which would watch the memory, sleeps by the fake kernel's clock as everybody here does, so it must not
/// run; what the product holds for life is freed after each input, and no leak. Weighing the corpus by how
/// rare its features are costs a fifth of the executions.
extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    static std::vector<char *> words(*argv, *argv + *argc);
    static char no_memory_watch[] = "-rss_limit_mb=0", no_output[] = "-close_fd_mask=3",
                even[] = "-entropic=0";
    static std::string max_len = "-max_len=" + std::to_string(input_bytes_max);
    words.insert(words.begin() + 1, {no_memory_watch, no_output, even, max_len.data()});
    *argc = static_cast<int>(words.size());
    words.push_back(nullptr);
    *argv = words.data();
    findings = dup(STDERR_FILENO);
    setenv("TZ", "UTC0", 1); // or each time stamp looks for the file of the time zone
    restore_variables();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider input(data, size);
    work_on(input);
    return 0;
}

/// What the product has in hand when it stops is no leak. Freed blocks wait in a quarantine that holds those
/// of one input; a larger one costs more cache than the product does. The stacks of allocations cost as
/// much: to see them in the report of a finding, run its input with ASAN_OPTIONS=malloc_context_size=30.
extern "C" const char *__asan_default_options()
{
    return "detect_leaks=0:quarantine_size_mb=1:thread_local_quarantine_size_kb=64:malloc_context_size=0";
}

extern "C" const char *__ubsan_default_options()
{
    return "print_stacktrace=1";
}
