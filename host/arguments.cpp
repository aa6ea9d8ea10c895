// Words, one at a time.

#include "arguments.h"

#include "errors.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

const uint64_t message_bytes_max = 0x7FFFFFFF;

[[noreturn]] void bad_file(const std::string &path, const std::string &reason)
{
    throw Failure(fault::bad_file, "file " + path + ": " + reason);
}

std::string to_text(const CatalogueMessage &message, const CatalogueField &field, const std::string &word)
{
    uint32_t most = text_max(message, field);
    if (word.size() > most)
        wrong_call(std::string(field.name) + " has " + std::to_string(word.size()) + " bytes, and " +
                   message.name + " takes at most " + std::to_string(most) + ": shorten it");
    return word;
}

std::string to_field_bytes(const CatalogueMessage &message, const CatalogueField &field,
                           const std::string &word)
{
    std::string bytes = to_bytes(word);
    uint64_t most =
        (message.size_max == 0 ? message_bytes_max : message.size_max) - field.offset - field.size;
    if (field.kind == FieldKind::record && bytes.size() != field.size)
        wrong_call(std::string(field.name) + " has " + std::to_string(field.size) + " bytes, \"" + word +
                   "\" has " + std::to_string(bytes.size()));
    if (field.kind == FieldKind::block && bytes.size() > most)
        wrong_call(std::string(field.name) + " takes at most " + std::to_string(most) + " bytes: send less");
    return bytes;
}

FieldValue to_list(const CatalogueMessage &message, const CatalogueField &field,
                   const std::vector<std::string> &words)
{
    if (field.kind == FieldKind::texts) {
        if (words.size() > texts_max)
            wrong_call(std::string(field.name) + " are at most " + std::to_string(texts_max));
        for (const std::string &word : words)
            to_text(message, field, word);
        return words;
    }
    std::vector<uint64_t> numbers;
    for (const std::string &word : words)
        numbers.push_back(to_number(word, UINT32_MAX));
    uint64_t wanted = field.kind == FieldKind::counters ? (message.size - field.offset - field.size) / 4 : 0;
    if (wanted != 0 && numbers.size() != wanted)
        wrong_call(std::string(message.name) + " takes " + std::to_string(wanted) + " " + field.name +
                   "; \"test-pattern\" sends them");
    return numbers;
}

} // namespace

void wrong_call(const std::string &text)
{
    throw Failure(fault::wrong_call, text + " (--help shows how)");
}

uint64_t to_number(const std::string &word, uint64_t most)
{
    bool is_hex = word.size() > 2 && word[0] == '0' && (word[1] | 0x20) == 'x';
    std::string digits = is_hex ? word.substr(2) : word;
    bool is_number = !digits.empty();
    is_number = is_number && digits.find_first_not_of(is_hex ? "0123456789abcdefABCDEF" : "0123456789") ==
                                 std::string::npos;
    errno = 0;
    unsigned long long value = strtoull(digits.c_str(), nullptr, is_hex ? 16 : 10);
    if (!is_number || errno != 0 || value > most)
        wrong_call("\"" + word + "\" is not a number from 0 to " + std::to_string(most));
    return value;
}

std::string to_bytes(const std::string &word)
{
    if (word.starts_with('@')) {
        LocalFile file = open_file(word.substr(1));
        if (file.size > message_bytes_max - 16)
            bad_file(file.path, "too long for one message");
        return read_piece(file, 0, file.size);
    }
    std::string digits, bytes;
    for (char character : word)
        if (character != ' ' && character != ':')
            digits += character;
    if (digits.size() % 2 != 0 || digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        wrong_call("\"" + word + "\" is neither pairs of hexadecimal digits, as 00ff10, nor @FILE");
    for (size_t i = 0; i < digits.size(); i += 2)
        bytes += static_cast<char>(strtoul(digits.substr(i, 2).c_str(), nullptr, 16));
    return bytes;
}

const CatalogueMessage *to_message(const std::string &word, uint32_t &type)
{
    const CatalogueMessage *named = catalogue_find(word);
    if (named == nullptr && (word.empty() || isdigit(static_cast<unsigned char>(word[0])) == 0))
        wrong_call("there is no message \"" + word + "\"; \"qel-host catalogue\" lists them");
    type = named != nullptr ? named->type : static_cast<uint32_t>(to_number(word, UINT32_MAX));
    return catalogue_find(type);
}

FieldValue to_field(const CatalogueMessage &message, const CatalogueField &field,
                    const std::vector<std::string> &words)
{
    switch (field.kind) {
    case FieldKind::texts:
    case FieldKind::counters:
    case FieldKind::ids:
        return to_list(message, field, words);
    case FieldKind::value8:
        return to_number(words[0], UINT8_MAX);
    case FieldKind::value32:
    case FieldKind::count:
        return to_number(words[0], UINT32_MAX);
    case FieldKind::value64:
        return to_number(words[0], UINT64_MAX);
    case FieldKind::record:
    case FieldKind::block:
        return to_field_bytes(message, field, words[0]);
    default:
        return to_text(message, field, words[0]);
    }
}

LocalFile open_file(const std::string &path)
{
    int file = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (file < 0)
        bad_file(path, strerror(errno) + std::string("; name one that you may read"));
    struct stat entry = {};
    fstat(file, &entry);
    if (!S_ISREG(entry.st_mode)) {
        close(file);
        bad_file(path, "not a regular file; name one that is");
    }
    return {{file}, static_cast<uint64_t>(entry.st_size), path};
}

std::string read_piece(const LocalFile &file, uint64_t offset, size_t count)
{
    std::string bytes(count, 0);
    size_t done = 0;
    while (done < count) {
        ssize_t n =
            pread(file.descriptor.number, &bytes[done], count - done, static_cast<off_t>(offset + done));
        if (n < 0 && errno != EINTR)
            bad_file(file.path, strerror(errno) + std::string("; it cannot be read to its end"));
        if (n == 0)
            break;
        done += n < 0 ? 0 : static_cast<size_t>(n);
    }
    bytes.resize(done);
    return bytes;
}
