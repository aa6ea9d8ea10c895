// The root of a sandbox, its console, and what the host knows about the processes inside. The root is made
// and filled while it is mounted nowhere; PID 1 of the new namespaces moves it into its place (entry.cpp).

#include "sandbox/sandbox.h"
#include "sandbox/entry.h"
#include "sandbox/settings.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

static constexpr int look_again_ms = 50;

[[noreturn]] static void give_up(const std::string &what)
{
    throw std::runtime_error("sandbox: " + what + ": " + strerror(errno) +
                             (geteuid() == 0 ? "" : " (the sandbox tests need root)"));
}

// ---- Its files ----

/// Makes a tmpfs that is mounted nowhere; device nodes in it cannot be opened. Returns a descriptor.
static int make_root()
{
    const int settings = fsopen("tmpfs", FSOPEN_CLOEXEC);
    if (settings < 0 || fsconfig(settings, FSCONFIG_SET_STRING, "mode", "0755", 0) ||
        fsconfig(settings, FSCONFIG_CMD_CREATE, nullptr, nullptr, 0))
        give_up("no tmpfs");
    const int root = fsmount(settings, FSMOUNT_CLOEXEC, MOUNT_ATTR_NODEV);
    if (root < 0)
        give_up("no root");
    close(settings);
    return root;
}

Sandbox::Sandbox() : root(make_root())
{
    for (const char *folder : {"/bin", "/dev", "/lib", "/lib64", "/proc", "/machine"})
        make_folder(folder);
    make_file("/dev/null", "");
    // Sanitizers report into a file, since there may be no console. It lies in the root: for a folder they
    // would call mkdir, which is wrapped, before instrumented code can run. They give freed memory back at
    // once, so that growth shows; leaks are of no interest in a process that never ends, and where memory
    // runs out the product learns it.
    for (const char *options : {"ASAN_OPTIONS", "UBSAN_OPTIONS"})
        set(options, "log_path=/sanitizer:detect_leaks=0:quarantine_size_mb=0:"
                     "thread_local_quarantine_size_kb=0:allocator_may_return_null=1");
}

Sandbox::~Sandbox()
{
    end();
    report_sanitizers();
    close(root);
}

std::string Sandbox::at(const std::string &path) const
{
    return "/proc/self/fd/" + std::to_string(root) + path;
}

void Sandbox::make_folder(const std::string &path) const
{
    fs::create_directories(at(path));
}

void Sandbox::make_file(const std::string &path, const std::string &content, mode_t mode) const
{
    fs::create_directories(fs::path(at(path)).parent_path());
    std::ofstream file(at(path), std::ios::binary);
    file << content;
    file.close();
    if (!file || chmod(at(path).c_str(), mode))
        give_up(path);
}

void Sandbox::make_link(const std::string &path, const std::string &content) const
{
    fs::create_directories(fs::path(at(path)).parent_path());
    fs::create_symlink(content, at(path));
}

void Sandbox::limit(const std::string &path, size_t bytes)
{
    limited_folder = path;
    limit_options = "size=" + std::to_string(bytes);
}

void Sandbox::copy_in(const std::string &host_path, const std::string &path) const
{
    fs::create_directories(fs::path(at(path)).parent_path());
    fs::copy_file(host_path, at(path), fs::copy_options::overwrite_existing);
}

int Sandbox::has(const std::string &path) const
{
    return fs::exists(fs::symlink_status(at(path)));
}

std::string Sandbox::content(const std::string &path) const
{
    std::ifstream file(at(path), std::ios::binary);
    if (!file)
        throw std::runtime_error("sandbox: no such file: " + path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::string Sandbox::look(const std::string &path) const
{
    struct stat status;
    if (lstat(at(path).c_str(), &status))
        return "none";
    static const std::map<mode_t, char> types = {
        {S_IFDIR, 'd'}, {S_IFREG, '-'}, {S_IFLNK, 'l'}, {S_IFCHR, 'c'}, {S_IFBLK, 'b'}};
    std::string text(1, types.at(status.st_mode & S_IFMT));
    for (int bit = 8; bit >= 0; --bit)
        text += status.st_mode >> bit & 1 ? "xwr"[bit % 3] : '-';
    if (S_ISCHR(status.st_mode) || S_ISBLK(status.st_mode))
        text += " " + std::to_string(major(status.st_rdev)) + ":" + std::to_string(minor(status.st_rdev));
    if (S_ISLNK(status.st_mode))
        text += " -> " + fs::read_symlink(at(path)).string();
    return text;
}

std::vector<std::string> Sandbox::names(const std::string &path) const
{
    std::vector<std::string> entries;
    for (const auto &entry : fs::directory_iterator(at(path)))
        entries.push_back(entry.path().filename().string());
    std::sort(entries.begin(), entries.end());
    return entries;
}

// ---- Starting ----

/// Makes the console: a terminal that passes every byte as it is. Returns its inner end.
static int make_console(int *outer)
{
    int inner;
    termios settings = {};
    cfmakeraw(&settings);
    if (openpty(outer, &inner, nullptr, &settings, nullptr))
        give_up("no terminal");
    fcntl(*outer, F_SETFD, FD_CLOEXEC);
    return inner;
}

static std::vector<char *> pointers(std::vector<std::string> &texts)
{
    std::vector<char *> result;
    for (std::string &text : texts)
        result.push_back(text.data());
    result.push_back(nullptr);
    return result;
}

void Sandbox::set(const std::string &name, const std::string &value)
{
    environment[name] = value;
}

void Sandbox::start(const std::string &host_program, const std::vector<std::string> &arguments)
{
    copy_in(host_program, "/init");
    std::vector<std::string> argument_texts = arguments, environment_texts;
    for (const auto &[name, value] : environment)
        environment_texts.push_back(name + "=" + value);
    const std::vector<char *> argv = pointers(argument_texts), envp = pointers(environment_texts);
    const int inner = make_console(&console);
    first_pid = start_inside({root, inner, for_the_inside, "/init", argv.data(), envp.data(),
                              limited_folder.c_str(), limit_options.c_str()});
    if (first_pid < 0)
        give_up("no namespaces");
    close(inner);
    close(for_the_inside);
}

// ---- Watching ----

int Sandbox::take_output()
{
    pollfd wanted = {console, POLLIN, 0};
    if (poll(&wanted, 1, look_again_ms) == 0)
        return 1;
    char bytes[65536];
    const ssize_t count = read(console, bytes, sizeof bytes);
    if (count <= 0)
        return 0;
    output.take(std::string(bytes, static_cast<size_t>(count)));
    return 1;
}

void Sandbox::await(const std::string &what, const std::function<bool()> &is_there)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(patience_s);
    while (!is_there()) {
        const int goes_on = take_output();
        if (!goes_on && !is_there())
            throw std::runtime_error("everything ended before: " + what + "\n" + output.text());
        if (std::chrono::steady_clock::now() > deadline)
            throw std::runtime_error("waited in vain for: " + what + "\n" + output.text());
    }
}

void Sandbox::await_lines(const std::string &beginning, size_t count)
{
    await(std::to_string(count) + " x " + beginning, [&] { return output.lines(beginning).size() >= count; });
}

int Sandbox::await_end()
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(patience_s);
    while (take_output()) {
        if (std::chrono::steady_clock::now() > deadline)
            throw std::runtime_error("waited in vain for the end\n" + output.text());
    }
    end();
    return WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) : -1;
}

void Sandbox::end()
{
    if (first_pid > 0) {
        kill(first_pid, SIGKILL);
        waitpid(first_pid, &wait_status, 0);
        close(console);
    }
    first_pid = -1;
}

void Sandbox::report_sanitizers() const
{
    for (const std::string &name : names("/")) {
        if (begins_with(name, "sanitizer"))
            ADD_FAILURE() << content("/" + name);
    }
}

// ---- Comparing ----

static std::string joined(const std::vector<std::string> &lines)
{
    std::ostringstream text;
    std::copy(lines.begin(), lines.end(), std::ostream_iterator<std::string>(text, "\n"));
    return text.str();
}

static void keep_actual(const std::string &file, const std::string &text)
{
    fs::create_directories(SANDBOX_ACTUAL);
    std::ofstream(SANDBOX_ACTUAL "/" + file) << text;
}

testing::AssertionResult Sandbox::matches(const std::string &file)
{
    std::ifstream input(SANDBOX_EXPECTED "/" + file);
    const std::vector<std::string> expected =
        expected_lines({std::istreambuf_iterator<char>(input), std::istreambuf_iterator<char>()});
    if (expected.empty())
        return testing::AssertionFailure() << "nothing is expected in " << file;

    const auto first = [&] {
        return std::find(output.lines().begin(), output.lines().end(), expected.front());
    };
    const auto differs = [&] {
        const auto ends = std::mismatch(expected.begin(), expected.end(), first(), output.lines().end());
        return ends.first != expected.end() && ends.second != output.lines().end();
    };
    const auto is_complete = [&] {
        return static_cast<size_t>(output.lines().end() - first()) >= expected.size();
    };
    try {
        await("the lines of " + file, [&] { return differs() || is_complete(); });
    } catch (const std::runtime_error &) {
        // What came instead says more.
    }
    const auto [wanted, found] =
        std::mismatch(expected.begin(), expected.end(), first(), output.lines().end());
    if (wanted == expected.end())
        return testing::AssertionSuccess();

    keep_actual(file, output.text());
    return testing::AssertionFailure()
           << "expected/" << file << " wants, as its line " << wanted - expected.begin() + 1 << ",\n  "
           << *wanted << "\nbut the transcript (" SANDBOX_ACTUAL "/" << file << ") goes on with\n  "
           << (found == output.lines().end() ? "nothing" : *found) << "\nafter\n"
           << joined({first(), found});
}

// ---- Processes ----

/// Returns "" when the process is gone, also when it goes meanwhile.
static std::string read_proc(pid_t pid, const char *file)
{
    std::ifstream input("/proc/" + std::to_string(pid) + "/" + file);
    std::ostringstream text;
    text << input.rdbuf();
    return text.str();
}

/// Reads /proc/PID/stat: "PID (NAME) STATE PARENT ...". Returns the parent, -1 when there is no such process.
static pid_t read_stat(pid_t pid, Sandbox::Process *process)
{
    const std::string text = read_proc(pid, "stat");
    const size_t open = text.find('('), close = text.rfind(')');
    if (open == std::string::npos || close == std::string::npos)
        return -1;
    *process = {pid, text.substr(open + 1, close - open - 1), text.at(close + 2)};
    return std::stoi(text.substr(close + 4));
}

Sandbox::Process Sandbox::first_process() const
{
    Process process = {-1, "", '?'};
    read_stat(first_pid, &process);
    return process;
}

std::vector<Sandbox::Process> Sandbox::children() const
{
    std::vector<Process> found;
    for (const auto &entry : fs::directory_iterator("/proc")) {
        const std::string name = entry.path().filename().string();
        Process process;
        if (isdigit(static_cast<unsigned char>(name.front())) &&
            read_stat(std::stoi(name), &process) == first_pid)
            found.push_back(process);
    }
    return found;
}

std::map<int, std::string> Sandbox::descriptors() const
{
    std::map<int, std::string> found;
    for (const auto &entry : fs::directory_iterator("/proc/" + std::to_string(first_pid) + "/fd")) {
        const int descriptor = std::stoi(entry.path().filename().string());
        if (descriptor != transcript_descriptor && descriptor != host_descriptor)
            found[descriptor] = fs::read_symlink(entry.path()).string();
    }
    return found;
}

long Sandbox::status_kb(const std::string &name) const
{
    const std::string status_text = read_proc(first_pid, "status");
    const size_t found = status_text.find(name + ":");
    if (found == std::string::npos)
        throw std::runtime_error("sandbox: no " + name + " in:\n" + status_text);
    return std::stol(status_text.substr(found + name.size() + 1));
}

long Sandbox::anonymous_kb() const
{
    return status_kb("RssAnon");
}

void Sandbox::limit_growth(size_t bytes) const
{
    const rlim_t all = static_cast<rlim_t>(status_kb("VmSize")) * 1024 + bytes;
    const rlimit limits = {all, all};
    if (prlimit(first_pid, RLIMIT_AS, &limits, nullptr))
        give_up("limit");
}

void Sandbox::signal(pid_t pid, int number) const
{
    if (kill(pid, number))
        give_up("signal");
}
