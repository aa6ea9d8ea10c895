// The path functions against a model in terms of components. Where the model says so, a call must stop, at
// the line that it says.

#include "fuzz/fuzz.h"
#include "fuzz/rules.h"

#include "qel_utility/qel_filesystem/paths.h"

#include <algorithm>
#include <vector>

namespace
{

constexpr const char *unit = "qel_utility/qel_filesystem";

// ---- The model ----

size_t root_of(const std::string &s, int flavour)
{
    if (flavour == 0)
        return s.starts_with("/") ? 1 : 0;
    const bool is_letter = !s.empty() && ((s[0] >= 'a' && s[0] <= 'z') || (s[0] >= 'A' && s[0] <= 'Z'));
    if (is_letter && s.compare(1, 2, ":/") == 0)
        return 3;
    return s.starts_with("//") ? 2 : 0;
}

std::vector<std::string> components_of(const std::string &s)
{
    std::vector<std::string> components = {""};
    for (const char c : s) {
        if (c == '/')
            components.push_back("");
        else
            components.back() += c;
    }
    return components;
}

bool is_root(const std::string &s, int flavour)
{
    return !s.empty() && root_of(s, flavour) == s.size();
}

/// Components of allowed characters behind the root, none of them empty; but a slash that is no root may
/// come first.
bool is_valid(const std::string &s, int flavour = 0)
{
    if (s.empty() || is_root(s, flavour))
        return !s.empty();
    const size_t root = root_of(s, flavour);
    const std::vector<std::string> components = components_of(s.substr(root));
    for (size_t i = 0; i < components.size(); ++i) {
        const bool may_be_empty = i == 0 && root == 0 && components.size() > 1;
        if ((components[i].empty() && !may_be_empty) ||
            !std::all_of(components[i].begin(), components[i].end(), is_allowed))
            return false;
    }
    return true;
}

bool is_absolute(const std::string &s, int flavour = 0)
{
    return root_of(s, flavour) > 0 && is_valid(s, flavour);
}

std::string normalized(std::string s)
{
    std::replace(s.begin(), s.end(), '\\', '/');
    if (s != "/" && s.ends_with('/'))
        s.pop_back();
    for (size_t at; (at = s.find("//", 1)) != std::string::npos;)
        s.erase(at + 1, 1);
    if (s.size() > 1 && s[1] == ':' && s[0] >= 'a' && s[0] <= 'z')
        s[0] = static_cast<char>(s[0] - 'a' + 'A');
    return s;
}

std::string made_valid(const std::string &s)
{
    const std::string whitespace = " \t\n\v\f\r";
    std::string result;
    for (const char c : s) {
        const bool is_space = whitespace.find(c) != std::string::npos;
        if (is_space ? !result.empty() && result.back() != ' ' : true)
            result += is_space ? ' ' : is_allowed(c) && c != '/' ? c : '_';
    }
    if (result.ends_with(' '))
        result.pop_back();
    return result;
}

/// What fits a buffer of `size` bytes with its NUL.
std::string cut(const std::string &s, size_t size)
{
    return s.substr(0, size - 1);
}

// ---- Comparing ----

/// Runs a call that must stop at `line`, or not when that is 0. Returns whether it came through.
bool comes_through(const char *what, int line, const std::function<void()> &call)
{
    const RunEnd end = run(call);
    REQUIRE(end.line == line && (!end.stopped || end.unit == unit), what,
            end.unit + ":" + std::to_string(end.line), std::to_string(line));
    return !end.stopped;
}

void check_tests(const std::string &s)
{
    const Text path(s);
    for (const int flavour : {0, 1}) {
        REQUIRE(_qel_path_root_len(path.get(), flavour) == static_cast<int>(root_of(s, flavour)), "root", s);
        REQUIRE(_qel_path_is_root_dir(path.get(), flavour) == is_root(s, flavour), "is_root_dir", s);
        REQUIRE(_qel_path_is_valid(path.get(), flavour) == is_valid(s, flavour), "is_valid", s);
        REQUIRE(_qel_path_is_absolute(path.get(), flavour) == is_absolute(s, flavour), "is_absolute", s);
    }
    REQUIRE(qel_path_is_root_dir(path.get()) == is_root(s, 0), "qel_path_is_root_dir", s);
    REQUIRE(qel_unix_path_is_root_dir(path.get()) == is_root(s, 0), "qel_unix_path_is_root_dir", s);
    REQUIRE(qel_dos_path_is_root_dir(path.get()) == is_root(s, 1), "qel_dos_path_is_root_dir", s);
    REQUIRE(qel_path_is_valid(path.get()) == is_valid(s), "qel_path_is_valid", s);
    REQUIRE(qel_path_is_absolute(path.get()) == is_absolute(s), "qel_path_is_absolute", s);
    REQUIRE(qel_unix_path_is_absolute(path.get()) == is_absolute(s), "qel_unix_path_is_absolute", s);
    REQUIRE(qel_dos_path_is_absolute(path.get()) == is_absolute(s, 1), "qel_dos_path_is_absolute", s);
}

/// A change in place: stops at `line`, or makes `expected` of the text.
template <typename Change>
void check_change(const char *what, Change change, const std::string &s, int line,
                  const std::string &expected)
{
    const Text text(s);
    if (comes_through(what, line, [&] { change(text.get()); }))
        REQUIRE(text.get() == expected, what, text.get(), expected);
}

void check_changes(const std::string &s)
{
    const std::string normal = normalized(s);
    check_change("normalize", qel_path_normalize, s, 0, normal);
    check_change("normalize_strict", qel_path_normalize_strict, s,
                 is_valid(normal, 0) || is_valid(normal, 1) ? 0 : 299, normal);
    std::string slashes = s, backslashes = s;
    std::replace(slashes.begin(), slashes.end(), '\\', '/');
    std::replace(backslashes.begin(), backslashes.end(), '/', '\\');
    check_change("to_dos", qel_path_to_dos, s, is_valid(slashes, 1) ? 0 : 254, backslashes);
    check_change("make_valid", qel_filename_make_valid, s, 0, made_valid(s));
    if (s.find('/') == std::string::npos)
        return; // the caller sees to that
    const std::string stripped = s.ends_with('/') ? s.substr(0, s.size() - 1) : s;
    check_change("strip_trailing_slash", qel_strip_trailing_slash, s, is_valid(stripped) ? 0 : 1072,
                 stripped);
}

/// A composer with a buffer of `size` bytes: stops at `line`, or returns `result` and writes `expected`.
void check_composer(const char *what, size_t size, int line, size_t result, const std::string &expected,
                    const std::function<int(char *dst, int size)> &compose)
{
    const Text dst(size);
    int found = 0;
    if (!comes_through(what, line, [&] { found = compose(dst.get(), static_cast<int>(size)); }))
        return;
    REQUIRE(found == static_cast<int>(result), what, std::to_string(found), std::to_string(result));
    REQUIRE(dst.get() == expected, what, dst.get(), expected);
}

void check_parent(const std::string &s, size_t size)
{
    const Text path(s);
    const size_t slash = s.rfind('/');
    int line = 0;
    if (!is_valid(s))
        line = 1128;
    else if (s == "/")
        line = 1131;
    else if (slash == std::string::npos)
        line = 1134;
    else if (size < slash + 2)
        line = 1137;
    check_composer("parent_dir", size, line, 0, slash == 0 ? "/" : s.substr(0, slash), [&](char *dst, int n) {
        qel_parent_dir(path.get(), dst, n);
        return 0;
    });
}

void check_child(const std::string &s, const std::string &other, size_t size)
{
    const Text path(s), child(other);
    const std::string whole = (s == "/" ? "" : s) + "/" + other;
    const int line = !is_absolute(s) ? 1150 : !is_valid(other) ? 1151 : other[0] == '/' ? 1152 : 0;
    check_composer("child_path", size, line, whole.size(), cut(whole, size),
                   [&](char *dst, int n) { return qel_child_path(path.get(), child.get(), dst, n); });
}

void check_sibling(const std::string &s, const std::string &other, size_t size)
{
    const Text path(s), sibling(other);
    const std::string copy = cut(s, size);
    const size_t slash = copy.rfind('/');
    int line = 0;
    if (s == "/")
        line = 1165;
    else if (!is_absolute(s))
        line = 1166;
    else if (!is_valid(other))
        line = 1167;
    else if (other[0] == '/')
        line = 1168;
    else if (slash == std::string::npos)
        line = 1173;
    // Where the copy was cut right behind a slash, nothing fits.
    const std::string expected = line ? "" : cut(copy.substr(0, slash + 1) + other, size);
    check_composer("sibling_path", size, line, other.size(), expected,
                   [&](char *dst, int n) { return qel_sibling_path(path.get(), sibling.get(), dst, n); });
}

void check_filename_part(const std::string &s, size_t size)
{
    const Text path(s);
    const size_t slash = s.rfind('/');
    const int line = !is_valid(s) ? 1182 : s == "/" ? 1185 : slash == std::string::npos ? 1188 : 0;
    const std::string name = line ? "" : s.substr(slash + 1);
    check_composer("filename_part", size, line, name.size(), cut(name, size),
                   [&](char *dst, int n) { return qel_filename_part(path.get(), dst, n); });
}

/// The buffer holds the path, so it is never shorter than that.
void check_extension(const std::string &s, const std::string &ext, size_t room)
{
    const Text extension(ext);
    const size_t size = s.size() + room;
    const int line = !ext.starts_with('.') ? 1197 : !is_valid(s) ? 1198 : 0;
    const std::string name = components_of(s).back();
    const size_t end = name.find('.') == std::string::npos ? s.size() : s.rfind('.');
    check_composer("put_extension", size, line, ext.size(), cut(s.substr(0, end) + ext, size),
                   [&](char *dst, int n) {
                       memcpy(dst, s.c_str(), s.size() + 1);
                       return qel_path_put_extension(extension.get(), dst, n);
                   });
}

} // namespace

const int input_bytes_max = 256; // the paths have 130 bytes at most

void work_on(FuzzedDataProvider &input)
{
    const size_t dst_size = input.ConsumeIntegralInRange<size_t>(1, 100);
    const std::string other = text_of(input, 30), path = text_of(input, 100);
    check_tests(path);
    check_changes(path);
    check_parent(path, dst_size);
    check_child(path, other, dst_size);
    check_sibling(path, other, dst_size);
    check_filename_part(path, dst_size);
    check_extension(path, other, dst_size);
}
