// The product's variables, as they were before any test ran.

#include "support/product_reset.h"

#include <stddef.h>

namespace
{

// The linker's; a program without the sections has neither.
extern "C" char bss_begin[] __asm__("__start_product_bss") __attribute__((weak));
extern "C" char bss_end[] __asm__("__stop_product_bss") __attribute__((weak));
extern "C" char data_begin[] __asm__("__start_product_data") __attribute__((weak));
extern "C" char data_end[] __asm__("__stop_product_data") __attribute__((weak));

/// Copies also what lies between the variables, at which the sanitizer would object in any other way.
void copy_bytes(char *to, const char *from, size_t count)
{
    asm volatile("rep movsb" : "+D"(to), "+S"(from), "+c"(count) : : "memory");
}

struct Section {
    char *begin;
    const char *end;
};

const Section sections[] = {{bss_begin, bss_end}, {data_begin, data_end}};

size_t size_of(const Section &section)
{
    return static_cast<size_t>(section.end - section.begin);
}

} // namespace

std::vector<char> product_state()
{
    std::vector<char> state(size_of(sections[0]) + size_of(sections[1]));
    char *to = state.data();
    for (const Section &section : sections) {
        copy_bytes(to, section.begin, size_of(section));
        to += size_of(section);
    }
    return state;
}

void restore_product(const std::vector<char> &state)
{
    const char *from = state.data();
    for (const Section &section : sections) {
        copy_bytes(section.begin, from, size_of(section));
        from += size_of(section);
    }
}

namespace
{

const std::vector<char> state_at_start = product_state();

} // namespace

bool reset_product()
{
    restore_product(state_at_start);
    return !state_at_start.empty();
}
