// The device nodes against a kernel that publishes anything: /proc/devices, the entries of /sys/block and
// /sys/class/sound, and their files `dev`. The nodes made, or the stop, must be those of the model.

#include "fuzz/fuzz.h"
#include "fuzz/rules.h"
#include "support/fake_kernel.h"

#include "qel_utility/qel_filesystem/device_nodes.h"

#include <errno.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <list>
#include <map>
#include <set>
#include <vector>

namespace
{

constexpr const char *unit = "qel_utility/qel_filesystem";

// ---- The model's reading of numbers ----

/// Reads as %d does, at `at`: blanks, a sign, digits. Returns 0 when there is no number.
bool read_number(const std::string &text, size_t &at, int &number)
{
    at = text.find_first_not_of(" \t\n\v\f\r", at);
    if (at == std::string::npos)
        return false;
    const bool is_negative = text[at] == '-';
    if (text[at] == '-' || text[at] == '+')
        ++at;
    const size_t first = at;
    __extension__ __int128 value = 0;
    for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at)
        value = std::min<__int128>(value * 10 + (text[at] - '0'), __int128{1} << 64);
    if (at == first)
        return false;
    // A long is read, and what does not fit becomes its nearest end; an int keeps the low bits.
    value = is_negative ? std::max<__int128>(-value, INT64_MIN) : std::min<__int128>(value, INT64_MAX);
    number = static_cast<int>(static_cast<int64_t>(value));
    return true;
}

/// The major number that /proc/devices gives, 0 for none.
int major_in(const std::string &devices)
{
    int major = 0;
    for (size_t at = 0; at < devices.size();) {
        const size_t end = std::min(devices.find('\n', at), devices.size() - 1) + 1;
        const size_t size = std::min<size_t>(end - at, 999);             // longer lines come in pieces
        const std::string line = std::string(devices, at, size).c_str(); // up to a NUL
        size_t number_at = 0;
        if (line.find("qellpc") != std::string::npos)
            read_number(line, number_at, major);
        at += size;
    }
    return major;
}

bool read_pair(const std::string &text, int &major, int &minor)
{
    size_t at = 0;
    return read_number(text, at, major) && at < text.size() && text[at] == ':' &&
           read_number(text, ++at, minor);
}

// ---- The kernel ----

/// Files and folders that exist only in the calls of the product.
struct Kernel {
    FakeKernel calls;
    std::map<std::string, std::string> files;
    std::map<std::string, std::vector<std::string>> folders;
    std::vector<std::string> made; ///< "PATH TYPE MAJOR:MINOR"

    Kernel()
    {
        calls.keeps_books = false;
        calls.on_mkdir = [](auto...) { return 0; };
        calls.on_mknod = [this](const char *path, mode_t mode, dev_t device) {
            made.push_back(path + std::string(S_ISBLK(mode) ? " b " : " c ") + std::to_string(major(device)) +
                           ":" + std::to_string(minor(device)));
            files[path];
            return 0;
        };
        calls.on_fopen = [this](const char *path, const char *) { return open_file(files.at(path)); };
        calls.on_fclose = [this](FILE *file) {
            streams.erase(file);
            return real_fclose(file);
        };
        calls.on_stat = [this](const char *path, struct stat *) { return found(files.count(path)); };
        calls.on_access = [this](const char *path, int) { return found(files.count(path)); };
        calls.on_opendir = [this](const char *path) { return reinterpret_cast<DIR *>(open_folder(path)); };
        calls.on_readdir = [](DIR *dir) { return reinterpret_cast<OpenFolder *>(dir)->next(); };
        calls.on_closedir = [](DIR *) { return 0; };
    }
    /// Closes what a stop has left open.
    ~Kernel()
    {
        for (FILE *file : streams)
            real_fclose(file);
    }
    Kernel(const Kernel &) = delete;
    Kernel &operator=(const Kernel &) = delete;

    static int found(size_t count)
    {
        errno = ENOENT;
        return count ? 0 : -1;
    }

    struct OpenFolder {
        std::vector<std::string> names;
        size_t given = 0;
        struct dirent entry = {};
        struct dirent *next()
        {
            if (given == names.size())
                return nullptr;
            strcpy(entry.d_name, names[given++].c_str());
            return &entry;
        }
    };
    OpenFolder *open_folder(const std::string &path)
    {
        errno = ENOENT;
        if (!folders.count(path))
            return nullptr;
        open_folders.push_back(OpenFolder{folders[path]});
        return &open_folders.back();
    }
    std::list<OpenFolder> open_folders;

    FILE *open_file(std::string &content)
    {
        FILE *file =
            content.empty() ? fmemopen(nullptr, 1, "r") : fmemopen(content.data(), content.size(), "r");
        streams.insert(file);
        return file;
    }
    std::set<FILE *> streams;
};

// ---- The nodes that must come of it ----

/// Why the model stops.
struct StopAt {
    int line;
};

std::string node_text(const std::string &path, char type, int major_number, int minor_number)
{
    return path + " " + type + " " + std::to_string(static_cast<unsigned>(major_number)) + ":" +
           std::to_string(static_cast<unsigned>(minor_number));
}

/// Goes by what the kernel publishes before the product has made anything.
struct Model {
    explicit Model(Kernel &before) : files(before.files), folders(before.folders) {}
    const std::map<std::string, std::string> &files;
    std::map<std::string, std::vector<std::string>> &folders;
    std::set<std::string> nodes;
    std::vector<std::string> made;

    /// Returns whether there is a node now.
    bool make_node(const std::string &folder, const std::string &name, const std::string &to, char type)
    {
        if (!std::all_of(name.begin(), name.end(), is_allowed))
            throw StopAt{415};
        const auto dev = files.find(folder + "/" + name + "/dev");
        if (dev == files.end())
            return false;
        int major_number = 0, minor_number = 0;
        if (!read_pair(dev->second, major_number, minor_number))
            throw StopAt{1937};
        if (nodes.insert(to + "/" + name).second)
            made.push_back(node_text(to + "/" + name, type, major_number, minor_number));
        return true;
    }

    void make_sound()
    {
        for (const std::string &name : folders["/sys/class/sound"])
            if (!name.starts_with("."))
                make_node("/sys/class/sound", name, "/dev/snd", 'c');
    }

    /// Returns whether a partition got a node that it had not.
    bool make_disks(const std::string &prefix)
    {
        bool is_new = false;
        for (const std::string &disk : folders["/sys/block"]) {
            if (!disk.starts_with(prefix))
                continue;
            make_node("/sys/block", disk, "/dev/disk", 'b');
            for (const std::string &part : folders["/sys/block/" + disk])
                if (part.starts_with(disk) && !nodes.count("/dev/disk/" + part))
                    is_new = make_node("/sys/block/" + disk, part, "/dev/disk", 'b') || is_new;
        }
        return is_new;
    }
};

std::string text_of(const std::vector<std::string> &lines)
{
    std::string text;
    for (const std::string &line : lines)
        text += line + "\n";
    return text;
}

/// Compares the nodes, all or those up to the stop, and the result if there is one, of a call with the
/// model's.
template <typename Call, typename Expect> void compare(Kernel &kernel, Call call, Expect expect)
{
    Model model(kernel);
    int expected_line = 0, expected_result = 0, result = 0;
    const auto result_of = [](int &value, auto work, auto &...arguments) {
        if constexpr (std::is_void_v<decltype(work(arguments...))>)
            work(arguments...);
        else
            value = work(arguments...);
    };
    try {
        result_of(expected_result, expect, model);
    } catch (const StopAt &stop) {
        expected_line = stop.line;
    }
    const RunEnd end = run([&] { result_of(result, call); });
    REQUIRE(end.line == expected_line, "the stop", end.text + " " + std::to_string(end.line),
            std::to_string(expected_line));
    REQUIRE(!end.stopped || end.unit == unit, "its unit", end.unit);
    REQUIRE(kernel.made == model.made, "the nodes", text_of(kernel.made), text_of(model.made));
    REQUIRE(end.stopped || result == expected_result, "the result", std::to_string(result),
            std::to_string(expected_result));
}

// ---- The board's nodes ----

void check_board(FuzzedDataProvider &input)
{
    Kernel kernel;
    const std::string devices = kernel.files["/proc/devices"] = input.ConsumeRemainingBytesAsString();
    compare(kernel, qel_make_lpc_nodes, [&](Model &model) {
        const int expected = major_in(devices);
        if (!expected)
            throw StopAt{2321};
        int minor_number = 0;
        for (const char *name : {"firmware", "midi", "lcd", "command", "button", "test", "console",
                                 "host_comms", "reserved1", "reserved2"})
            model.made.push_back(
                node_text(std::string("/dev/qellpc_") + name, 'c', expected, minor_number++));
    });
}

// ---- Nodes from sysfs ----

/// A name as the kernel could give one: no slash, not empty.
std::string name_of(FuzzedDataProvider &input, const std::string &beginning)
{
    std::string name = beginning + text_of(input, 250 - beginning.size());
    for (char &c : name)
        c = c == '/' ? '!' : c;
    return name.empty() ? "x" : name;
}

void add_entry(FuzzedDataProvider &input, Kernel &kernel, const std::string &folder, const std::string &name)
{
    kernel.folders[folder].push_back(name);
    if (input.ConsumeBool())
        kernel.files[folder + "/" + name + "/dev"] = input.ConsumeRandomLengthString(40);
}

void check_sound(FuzzedDataProvider &input)
{
    Kernel kernel;
    kernel.folders["/sys/class/sound"];
    while (input.remaining_bytes() > 0)
        add_entry(input, kernel, "/sys/class/sound", name_of(input, ""));
    compare(kernel, qel_make_sound_nodes, [](Model &model) { model.make_sound(); });
}

void check_disks(FuzzedDataProvider &input)
{
    Kernel kernel;
    kernel.folders["/sys/block"];
    for (int disks = 0; input.remaining_bytes() > 0 && disks < 5; ++disks) {
        const std::string disk = name_of(input, input.ConsumeBool() ? "sd" : "");
        add_entry(input, kernel, "/sys/block", disk);
        kernel.folders["/sys/block/" + disk];
        for (int parts = input.ConsumeIntegralInRange(0, 3); parts > 0; parts--)
            add_entry(input, kernel, "/sys/block/" + disk,
                      name_of(input, input.ConsumeBool() ? disk.substr(0, 200) : ""));
    }
    compare(
        kernel, [] { return qel_make_disk_nodes("sd"); },
        [](Model &model) { return model.make_disks("sd"); });
}

void check_one(FuzzedDataProvider &input)
{
    Kernel kernel;
    kernel.files["/sys/block/sda/dev"] = input.ConsumeRemainingBytesAsString();
    compare(
        kernel, [] { return qel_make_node_from_sysfs("/sys/block/sda", "/dev/disk", S_IFBLK); },
        [](Model &model) { return model.make_node("/sys/block", "sda", "/dev/disk", 'b'); });
}

} // namespace

const int input_bytes_max = 1200; // a line of /proc/devices is read up to 999 bytes at a time

void work_on(FuzzedDataProvider &input)
{
    constexpr void (*checks[])(FuzzedDataProvider &) = {check_board, check_sound, check_disks, check_one};
    checks[input.ConsumeIntegralInRange(0, 3)](input);
}
