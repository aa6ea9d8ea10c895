// The device nodes against a kernel that publishes anything: /proc/devices, the entries of /sys/block and
// /sys/class/sound, and their files `dev`. The nodes made, or the stop, must be those of the model.

#include "fuzz/fuzz.h"
#include "support/fake_kernel.h"

#include "qel_utility/qel_filesystem/device_nodes.h"

#include <errno.h>
#include <sys/sysmacros.h>

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
        at++;
    const size_t first = at;
    __extension__ __int128 value = 0;
    for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; at++)
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

// ---- The board's nodes ----

void check_board(FuzzedDataProvider &input)
{
    const std::string devices = input.ConsumeRemainingBytesAsString();
    std::vector<std::string> made;
    const Outcome outcome = run([&] {
        Kernel kernel;
        kernel.files["/proc/devices"] = devices;
        qel_make_lpc_nodes();
        made = kernel.made;
    });
    const int expected = major_in(devices);
    require(outcome.line == (expected ? 0 : 2321), "the stop", std::to_string(outcome.line));
    if (!expected)
        return;
    require(made.size() == 10, "ten nodes");
    const dev_t device = makedev(static_cast<unsigned>(expected), 9);
    const std::string last =
        "/dev/qellpc_reserved2 c " + std::to_string(major(device)) + ":" + std::to_string(minor(device));
    require(made.back() == last, "the last node", made.back(), last);
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
    const Outcome outcome = run([&] {
        Kernel kernel;
        kernel.folders["/sys/class/sound"];
        while (input.remaining_bytes() > 0)
            add_entry(input, kernel, "/sys/class/sound", name_of(input, ""));
        qel_make_sound_nodes();
    });
    require_documented(outcome, unit, {"num_matches == 2", "0"}); // a name that breaks the rules for paths
}

void check_disks(FuzzedDataProvider &input)
{
    const Outcome outcome = run([&] {
        Kernel kernel;
        kernel.folders["/sys/block"];
        for (int disks = 0; input.remaining_bytes() > 0 && disks < 5; disks++) {
            const std::string disk = name_of(input, input.ConsumeBool() ? "sd" : "");
            add_entry(input, kernel, "/sys/block", disk);
            kernel.folders["/sys/block/" + disk];
            for (int parts = input.ConsumeIntegralInRange(0, 3); parts > 0; parts--)
                add_entry(input, kernel, "/sys/block/" + disk,
                          name_of(input, input.ConsumeBool() ? disk.substr(0, 200) : ""));
        }
        qel_make_disk_nodes("sd");
        for (const std::string &node : kernel.made)
            require(node.starts_with("/dev/disk/sd"), "a node of another disk", node);
    });
    require_documented(outcome, unit, {"num_matches == 2", "0"});
}

void check_one(FuzzedDataProvider &input)
{
    const std::string dev = input.ConsumeRemainingBytesAsString();
    int major_number = 0, minor_number = 0;
    const bool is_pair = read_pair(dev, major_number, minor_number);
    std::vector<std::string> made;
    const Outcome outcome = run([&] {
        Kernel kernel;
        kernel.files["/sys/block/sda/dev"] = dev;
        require(qel_make_node_from_sysfs("/sys/block/sda", "/dev/disk", S_IFBLK) == 1, "made");
        made = kernel.made;
    });
    require(outcome.line == (is_pair ? 0 : 1937), "the stop", std::to_string(outcome.line));
    if (!is_pair)
        return;
    const dev_t device = makedev(static_cast<unsigned>(major_number), static_cast<unsigned>(minor_number));
    const std::string node =
        "/dev/disk/sda b " + std::to_string(major(device)) + ":" + std::to_string(minor(device));
    require(made == std::vector<std::string>{node}, "the node", made.empty() ? "" : made[0], node);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider input(data, size);
    switch (input.ConsumeIntegralInRange(0, 3)) {
    case 0:
        check_board(input);
        break;
    case 1:
        check_sound(input);
        break;
    case 2:
        check_disks(input);
        break;
    default:
        check_one(input);
    }
    return 0;
}
