// The product's variables, as they were before any test ran.

#include "support/product_reset.h"

#include <stddef.h>

#include <vector>

namespace
{

// The linker's; a program without the sections has neither.
extern "C" char bss_begin[] __asm__("__start_product_bss") __attribute__((weak));
extern "C" char bss_end[] __asm__("__stop_product_bss") __attribute__((weak));
extern "C" char data_begin[] __asm__("__start_product_data") __attribute__((weak));
extern "C" char data_end[] __asm__("__stop_product_data") __attribute__((weak));

/// Copies also what lies between the variables, at which the sanitizer would object. Volatile, or the
/// compiler would make it a memcpy, at which it objects as well.
__attribute__((no_sanitize("address", "undefined"))) void copy_bytes(volatile char *to,
                                                                     const volatile char *from, size_t count)
{
    for (size_t i = 0; i < count; ++i)
        to[i] = from[i];
}

struct Section {
    Section(char *section_begin, const char *section_end)
        : begin(section_begin), bytes(static_cast<size_t>(section_end - section_begin))
    {
        copy_bytes(bytes.data(), begin, bytes.size());
    }
    char *begin;
    std::vector<char> bytes;
};

const Section sections[] = {{bss_begin, bss_end}, {data_begin, data_end}};

} // namespace

bool reset_product()
{
    for (const Section &section : sections)
        copy_bytes(section.begin, section.bytes.data(), section.bytes.size());
    return !sections[0].bytes.empty();
}
