// Turns words of the command line into values and bytes.

#include "arguments.h"

#include <ctype.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <fstream>

#include "errors.h"

namespace
{

const size_t content_bytes_max = 0x7FFFFFFF - 16;

int digit_value(char digit)
{
    if (isdigit(static_cast<unsigned char>(digit)) != 0)
        return digit - '0';
    return tolower(digit) - 'a' + 10;
}

} // namespace

uint32_t to_value(const std::string &word)
{
    char *end = nullptr;
    errno = 0;
    unsigned long long value = strtoull(word.c_str(), &end, 0);
    bool is_number = !word.empty() && isdigit(static_cast<unsigned char>(word[0])) != 0 && *end == 0;
    if (!is_number || errno != 0 || value > UINT32_MAX)
        wrong_call("\"" + word + "\" is no number from 0 to 4294967295");
    return static_cast<uint32_t>(value);
}

std::vector<uint8_t> to_bytes(const std::string &word)
{
    std::string digits;
    for (char character : word) {
        if (isxdigit(static_cast<unsigned char>(character)) != 0)
            digits += character;
        else if (character != ' ' && character != ':')
            wrong_call("\"" + word + "\" is not made of hexadecimal digits, as in 00ff10");
    }
    if (digits.empty() || digits.size() % 2 != 0)
        wrong_call("\"" + word + "\" is not made of pairs of hexadecimal digits, as in 00ff10");
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i < digits.size(); i += 2)
        bytes.push_back(static_cast<uint8_t>(digit_value(digits[i]) * 16 + digit_value(digits[i + 1])));
    return bytes;
}

std::vector<uint8_t> to_record(const std::string &word, size_t count)
{
    std::vector<uint8_t> bytes = to_bytes(word);
    if (bytes.size() != count)
        wrong_call("a record has " + std::to_string(count) + " bytes, \"" + word + "\" has " +
                   std::to_string(bytes.size()));
    return bytes;
}

std::vector<uint8_t> file_content(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (!file.is_open() || file.bad())
        throw FileError("file " + path + ": " + strerror(errno) + "; name one that you may read");
    if (bytes.empty())
        throw FileError("file " + path +
                        ": there is nothing in it, or it is no file; a message needs a byte");
    if (bytes.size() > content_bytes_max)
        throw FileError("file " + path + ": too long for one message");
    return bytes;
}

void wrong_call(const std::string &text)
{
    throw CommandError(exit_wrong_call, text + " (see --help)");
}
