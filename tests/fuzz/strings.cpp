// The string functions against a model in terms of std::string.

#include "fuzz/fuzz.h"
#include "fuzz/rules.h"

#include "qel_utility/qel_string.h"

#include <algorithm>

namespace
{

const std::string whitespace = " \t\n\v\f\r";

std::string trimmed(const std::string &s)
{
    const size_t first = s.find_first_not_of(whitespace);
    return first == std::string::npos ? "" : s.substr(first, s.find_last_not_of(whitespace) + 1 - first);
}

std::string collapsed(const std::string &s)
{
    std::string result;
    for (size_t at = 0; at < s.size();) {
        const size_t run_end = std::min(s.find_first_not_of(whitespace, at), s.size());
        result += run_end > at ? std::string(" ") : s.substr(at, 1);
        at = std::max(run_end, at + 1);
    }
    return result;
}

/// The product's change of a text must be the model's.
void check_change(const char *name, void (*change)(char *), const std::string &before,
                  const std::string &expected)
{
    const Text text(before);
    change(text.get());
    REQUIRE(text.get() == expected, name, text.get(), expected);
}

void check_whitespace(const std::string &s)
{
    const size_t first = std::min(s.find_first_not_of(whitespace), s.size());
    check_change("trim_left", qel_str_trim_left, s, s.substr(first));
    check_change("trim_right", qel_str_trim_right, s, s.substr(0, s.find_last_not_of(whitespace) + 1));
    check_change("trim", qel_str_trim, s, trimmed(s));
    check_change("collapse_spaces", qel_str_collapse_spaces, s, collapsed(s));
    check_change("normalize_spaces", qel_str_normalize_spaces, s, collapsed(trimmed(s)));
    const Text text(s);
    REQUIRE(qel_str_is_blank(text.get()) == (trimmed(s).empty() ? 1 : 0), "is_blank", s);
}

void check_replace(const std::string &source, const std::string &pattern, const std::string &replacement,
                   size_t dst_size)
{
    std::string expected = source;
    for (size_t at = 0; (at = expected.find(pattern, at)) != std::string::npos; at += replacement.size())
        expected.replace(at, pattern.size(), replacement);
    const size_t needed = expected.size() + 1;
    expected.resize(dst_size);

    const Text src(source), looked_for(pattern), inserted(replacement), dst(dst_size);
    memset(dst.get(), 'x', dst_size);
    const int result =
        qel_str_replace(src.get(), dst.get(), static_cast<int>(dst_size), looked_for.get(), inserted.get());
    require_same("size that replace needs", static_cast<uint64_t>(result), needed);
    REQUIRE(std::string(dst.get(), dst_size) == expected, "replace", std::string(dst.get(), dst_size),
            expected);
}

void check_filename(const std::string &s)
{
    const bool expected =
        !s.empty() && s.find('/') == std::string::npos && std::all_of(s.begin(), s.end(), is_allowed);
    const Text name(s);
    REQUIRE(qel_filename_is_valid(name.get()) == static_cast<int>(expected), "filename_is_valid", s);
}

} // namespace

const int input_bytes_max = 256; // the texts have 112 bytes at most

void work_on(FuzzedDataProvider &input)
{
    const std::string pattern = text_of(input, 4), replacement = text_of(input, 8);
    const size_t dst_size = input.ConsumeIntegralInRange<size_t>(1, 80);
    const std::string s = text_of(input, 100);
    run_to_end([&] {
        check_whitespace(s);
        check_filename(s);
        for (const char c : s)
            check_filename(std::string(1, c));
        if (!pattern.empty())
            check_replace(s, pattern, replacement, dst_size);
    });
}
