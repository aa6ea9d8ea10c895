/// Bytes as tests write and read them.
///
///     "05 00 00 00 'hi' 00*3"        hex, text between quotes, and a byte repeated
///
/// A failed comparison of two such texts shows what differs, so tests compare texts rather than bytes.
#pragma once

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;

/// Reads the notation above.
inline Bytes bytes_of(const std::string &text)
{
    Bytes bytes;
    for (size_t at = 0; at < text.size();) {
        if (text[at] == ' ') {
            at++;
        } else if (text[at] == '\'') {
            const size_t end = text.find('\'', at + 1);
            bytes.insert(bytes.end(), text.begin() + static_cast<long>(at) + 1,
                         text.begin() + static_cast<long>(end));
            at = end + 1;
        } else {
            const size_t end = std::min(text.find(' ', at), text.size());
            const std::string word = text.substr(at, end - at);
            const int repeats = word.size() > 2 && word[2] == '*' ? atoi(word.c_str() + 3) : 1;
            const auto byte = static_cast<uint8_t>(strtoul(word.substr(0, 2).c_str(), nullptr, 16));
            bytes.insert(bytes.end(), static_cast<size_t>(repeats), byte);
            at = end;
        }
    }
    return bytes;
}

/// Every byte as two hex digits, runs of more than four of the same byte as "00*5".
inline std::string hex_of(const void *start, size_t size)
{
    const auto *bytes = static_cast<const uint8_t *>(start);
    std::string text;
    for (size_t at = 0; at < size;) {
        size_t run = 1;
        while (at + run < size && bytes[at + run] == bytes[at])
            run++;
        if (run <= 4)
            run = 1;
        char word[40];
        snprintf(word, sizeof word, run == 1 ? "%s%02X" : "%s%02X*%zu", text.empty() ? "" : " ", bytes[at],
                 run);
        text += word;
        at += run;
    }
    return text;
}

inline std::string hex_of(const Bytes &bytes)
{
    return hex_of(bytes.data(), bytes.size());
}

/// The notation in the form that hex_of gives, for comparing.
inline std::string hex(const std::string &text)
{
    return hex_of(bytes_of(text));
}
