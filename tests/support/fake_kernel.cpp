// The wrappers that the linker puts between the product and libc, and what a test can ask of them.
// The calls themselves are lines of kernel_calls.def.

#include "support/fake_kernel.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <sstream>

static FakeKernel *active;

// ---- Construction, paths ----

FakeKernel::FakeKernel() : outer(active)
{
    active = this;
}

FakeKernel::FakeKernel(const std::string &root) : FakeKernel()
{
    redirect(root, root);
    redirect("/", root);
}

FakeKernel::~FakeKernel()
{
    active = outer;
}

void FakeKernel::redirect(const std::string &prefix, const std::string &folder)
{
    redirections.emplace_back(prefix, folder);
}

std::string FakeKernel::at(const char *path) const
{
    const std::string text = path;
    for (const auto &[prefix, folder] : redirections) {
        if (prefix == "/" && text.front() == '/')
            return folder + text;
        if (text == prefix || text.rfind(prefix + "/", 0) == 0)
            return folder + text.substr(prefix.size());
    }
    return text;
}

// ---- Records and outcomes ----

static std::string name_of(const std::string &record)
{
    return record.substr(0, record.find(' '));
}

std::vector<std::string> FakeKernel::calls(const std::string &names) const
{
    const std::string padded = " " + names + " ";
    std::vector<std::string> wanted;
    std::copy_if(records.begin(), records.end(), std::back_inserter(wanted), [&](const std::string &record) {
        return padded.find(" " + name_of(record) + " ") != std::string::npos;
    });
    return wanted;
}

int FakeKernel::count(const std::string &name) const
{
    const auto found = counts.find(name);
    return found == counts.end() ? 0 : found->second;
}

void FakeKernel::forget_calls()
{
    records.clear();
    transfers.clear();
    counts.clear();
}

void FakeKernel::fail(const std::string &name, int error)
{
    plans[name].fail_always = error;
}

void FakeKernel::fail_nth(const std::string &name, int n, int error)
{
    plans[name].fail_nth[n] = error;
}

void FakeKernel::shorten_nth(const std::string &name, int n, size_t bytes)
{
    plans[name].shorten_nth[n] = bytes;
}

void FakeKernel::leave_at(const std::string &name, int n)
{
    plans[name].leave_at = n;
}

FakeKernel::Turn FakeKernel::next(const char *symbol, const char *name, const std::string &text)
{
    records.push_back(name + text);
    if (on_record)
        on_record();
    symbols_reached.insert(symbol);
    const int n = ++counts[name];

    Turn turn;
    const auto plan = plans.find(name);
    if (plan == plans.end())
        return turn;
    if (plan->second.leave_at == n)
        throw LeftProduct();
    turn.error = plan->second.fail_always;
    if (const auto error = plan->second.fail_nth.find(n); error != plan->second.fail_nth.end())
        turn.error = error->second;
    if (const auto size = plan->second.shorten_nth.find(n); size != plan->second.shorten_nth.end())
        turn.size_max = size->second;
    return turn;
}

void FakeKernel::set_time(time_t seconds, long microseconds)
{
    clock_is_virtual = 1;
    clock_usec = seconds * 1000000LL + microseconds;
}

// ---- How a record spells the arguments ----

static std::string octal(mode_t mode)
{
    std::ostringstream text;
    text << '0' << std::oct << mode;
    return text.str();
}

static std::string numbers(dev_t device)
{
    return std::to_string(major(device)) + ":" + std::to_string(minor(device));
}

static std::string open_flags(int flags)
{
    static const std::pair<int, const char *> names[] = {
        {O_CREAT, "O_CREAT"},   {O_TRUNC, "O_TRUNC"},       {O_APPEND, "O_APPEND"},
        {O_NOCTTY, "O_NOCTTY"}, {O_NONBLOCK, "O_NONBLOCK"}, {O_CLOEXEC, "O_CLOEXEC"},
        {O_EXCL, "O_EXCL"},     {O_DSYNC, "O_DSYNC"},       {O_NOFOLLOW, "O_NOFOLLOW"}};
    static const char *const access_modes[] = {"O_RDONLY", "O_WRONLY", "O_RDWR", "O_ACCMODE"};
    std::string text = access_modes[flags & O_ACCMODE];
    for (const auto &[bit, name] : names) {
        if (flags & bit)
            text += std::string("|") + name;
    }
    return text;
}

static std::string list(char *const *texts)
{
    if (!texts)
        return "null";
    std::string all = "[";
    for (; *texts; texts++)
        all += (all == "[" ? "" : " ") + std::string(*texts);
    return all + "]";
}

static void spell(std::ostringstream &text, const char *value)
{
    text << ' ' << (value ? value : "null");
}

template <typename Value> static void spell(std::ostringstream &text, const Value &value)
{
    text << ' ' << value;
}

template <typename... Values> static std::string spelled(const Values &...values)
{
    std::ostringstream text;
    (spell(text, values), ...);
    return text.str();
}

// ---- The wrappers ----

/// Stands for a moved path in the arguments for libc, until the call is over.
struct at {
    explicit at(const char *path) : text(active && path ? active->at(path) : ""), original(path) {}
    operator const char *() const
    {
        return active && original ? text.c_str() : original;
    }
    std::string text;
    const char *original;
};

/// What a call works on.
struct Handle {
    const void *stream = nullptr;
    int file = -1;
    const void *bytes = nullptr;
};

[[maybe_unused]] static Handle handle(...)
{
    return {};
}
[[maybe_unused]] static Handle handle(const FILE *stream)
{
    return {stream};
}
[[maybe_unused]] static Handle handle(const DIR *stream)
{
    return {stream};
}
[[maybe_unused]] static Handle handle(const void *bytes, size_t, size_t, const FILE *stream)
{
    return {stream, -1, bytes};
}
[[maybe_unused]] static Handle handle(const char *bytes, int, const FILE *stream)
{
    return {stream, -1, bytes};
}
[[maybe_unused]] static Handle handle(int file)
{
    return {nullptr, file};
}
[[maybe_unused]] static Handle handle(int file, int)
{
    return {nullptr, file};
}
[[maybe_unused]] static Handle handle(int file, const void *bytes, size_t)
{
    return {nullptr, file, bytes};
}
[[maybe_unused]] static Handle handle(pid_t, const int *status, int)
{
    return {nullptr, -1, status};
}
[[maybe_unused]] static Handle handle(int, int, int, const int *ends)
{
    return {nullptr, -1, ends};
}

static void made(const char *name, const Handle &on, long long result, const void *pointer, int error)
{
    if (!active->on_made)
        return;
    const int error_before = errno;
    active->on_made({name, on.stream, on.file, on.bytes, result, pointer, error});
    errno = error_before;
}

template <typename Number>
static Number made(const char *name, const Handle &on, Number result, int error = 0)
{
    if constexpr (std::is_pointer_v<Number>)
        made(name, on, result != nullptr, result, error);
    else
        made(name, on, static_cast<long long>(result), nullptr, error);
    return result;
}

/// A close that fails has closed all the same.
static int gives_back(const std::string &name)
{
    return name == "close" || name == "fclose" || name == "closedir";
}

/// Text that is not wanted is not made.
#define TURN(symbol, name, text) (active->keeps_books ? active->next(symbol, name, text) : FakeKernel::Turn())

#define WRAPPER(result, failure, symbol, name, parameters, arguments, libc_arguments, text)                  \
    extern "C" result libc_##symbol parameters __asm__("__real_" #symbol);                                   \
    extern "C" result wrap_##symbol parameters __asm__("__wrap_" #symbol);                                   \
    result wrap_##symbol parameters                                                                          \
    {                                                                                                        \
        if (active) {                                                                                        \
            const int error = TURN(#symbol, #name, spelled text).error;                                      \
            if (error) {                                                                                     \
                if (gives_back(#name))                                                                       \
                    active->on_##name ? active->on_##name arguments : libc_##symbol libc_arguments;          \
                made<result>(#name, handle arguments, failure, error);                                       \
                errno = error;                                                                               \
                return failure;                                                                              \
            }                                                                                                \
            return made<result>(#name, handle arguments,                                                     \
                                active->on_##name ? active->on_##name arguments                              \
                                                  : libc_##symbol libc_arguments);                           \
        }                                                                                                    \
        return libc_##symbol libc_arguments;                                                                 \
    }

#define KERNEL_CALL(result, failure, name, ...) WRAPPER(result, failure, name, name, __VA_ARGS__)
#define KERNEL_CALL_64(result, failure, name, ...)                                                           \
    WRAPPER(result, failure, name, name, __VA_ARGS__) WRAPPER(result, failure, name##64, name, __VA_ARGS__)
#define KERNEL_TRANSFER(result, failure, name, parameters, arguments, size_argument, text)                   \
    extern "C" result wrap_##name parameters __asm__("__wrap_" #name);                                       \
    result wrap_##name parameters                                                                            \
    {                                                                                                        \
        if (active && is_recorded arguments) {                                                               \
            const FakeKernel::Turn turn = TURN(#name, #name, spelled text);                                  \
            if (turn.error) {                                                                                \
                made<result>(#name, handle arguments, failure, turn.error);                                  \
                errno = turn.error;                                                                          \
                return failure;                                                                              \
            }                                                                                                \
            size_argument = std::min(size_argument, turn.size_max);                                          \
            const size_t record = active->calls().size() - 1;                                                \
            const result moved = active->on_##name ? active->on_##name arguments : real_##name arguments;    \
            if (active->keeps_books)                                                                         \
                active->note_transfer(record, static_cast<long>(moved));                                     \
            return made<result>(#name, handle arguments, moved);                                             \
        }                                                                                                    \
        return real_##name arguments;                                                                        \
    }

/// Prints that the compiler turned into fwrite are none of the kernel's business.
[[maybe_unused]] static int is_recorded(const void *, size_t, size_t, const FILE *file)
{
    return file != stdout && file != stderr;
}

[[maybe_unused]] static int is_recorded(int, const void *, size_t)
{
    return 1;
}

#include "support/kernel_calls.def"

extern "C" void wrap_sync() __asm__("__wrap_sync");
void wrap_sync()
{
    if (active) {
        TURN("sync", "sync", "");
        if (active->on_sync)
            return active->on_sync();
    }
    real_sync();
}

extern "C" void wrap__exit(int status) __asm__("__wrap__exit");
void wrap__exit(int status)
{
    if (active) {
        TURN("_exit", "_exit", spelled(status));
        if (active->on_fork)
            throw ChildExit(status);
    }
    real__exit(status);
}

extern "C" [[noreturn]] void wrap_exit(int status) __asm__("__wrap_exit");
void wrap_exit(int status)
{
    if (active && active->throws_at_exit)
        throw ProductExit(status);
    real_exit(status);
}

// ---- Memory ----

/// 1 when an allocation is to fail.
static int is_refused(const char *name, size_t size)
{
    if (!active || !active->watches_memory)
        return 0;
    const int error = TURN(name, name, spelled(size)).error;
    if (error)
        errno = error;
    return error != 0;
}

/// Keeps the books of the heap. A block that was freed and had again is a new one.
static void *had(void *block)
{
    if (active && block)
        active->blocks.insert(block);
    return block;
}

static void gone(const void *block)
{
    if (active)
        active->blocks.erase(block);
}

extern "C" void *wrap_malloc(size_t size) __asm__("__wrap_malloc");
void *wrap_malloc(size_t size)
{
    return is_refused("malloc", size) ? nullptr : had(real_malloc(size));
}

extern "C" void *wrap_calloc(size_t count, size_t size) __asm__("__wrap_calloc");
void *wrap_calloc(size_t count, size_t size)
{
    if (is_refused("calloc", count * size))
        return nullptr;
    const bool is_asked = active && active->watches_memory && active->on_calloc;
    return had(is_asked ? active->on_calloc(count, size) : real_calloc(count, size));
}

extern "C" void *wrap_realloc(void *block, size_t size) __asm__("__wrap_realloc");
void *wrap_realloc(void *block, size_t size)
{
    if (is_refused("realloc", size))
        return nullptr;
    gone(block);
    return had(real_realloc(block, size));
}

extern "C" void wrap_free(void *block) __asm__("__wrap_free");
void wrap_free(void *block)
{
    gone(block);
    real_free(block);
}

// ---- The clock ----

extern "C" unsigned wrap_sleep(unsigned seconds) __asm__("__wrap_sleep");
unsigned wrap_sleep(unsigned seconds)
{
    if (!active)
        return real_sleep(seconds);
    if (const int error = TURN("sleep", "sleep", spelled(seconds)).error) {
        errno = error;
        return seconds;
    }
    if (active->on_sleep)
        active->on_sleep(seconds);
    if (!active->clock_is_virtual)
        return real_sleep(seconds);
    active->clock_usec += seconds * 1000000LL;
    active->slept_usec += seconds * 1000000LL;
    return 0;
}

extern "C" int wrap_usleep(useconds_t microseconds) __asm__("__wrap_usleep");
int wrap_usleep(useconds_t microseconds)
{
    if (!active)
        return real_usleep(microseconds);
    if (const int error = TURN("usleep", "usleep", spelled(microseconds)).error) {
        errno = error;
        return -1;
    }
    if (active->on_usleep)
        active->on_usleep(microseconds);
    if (!active->clock_is_virtual)
        return real_usleep(microseconds);
    active->clock_usec += microseconds;
    active->slept_usec += microseconds;
    return 0;
}

extern "C" time_t wrap_time(time_t *result) __asm__("__wrap_time");
time_t wrap_time(time_t *result)
{
    if (active)
        TURN("time", "time", "");
    if (!active || !active->clock_is_virtual)
        return real_time(result);
    const time_t now = static_cast<time_t>(active->clock_usec / 1000000);
    if (result)
        *result = now;
    return now;
}

extern "C" int wrap_gettimeofday(struct timeval *now, void *zone) __asm__("__wrap_gettimeofday");
int wrap_gettimeofday(struct timeval *now, void *zone)
{
    if (active)
        TURN("gettimeofday", "gettimeofday", "");
    if (!active || !active->clock_is_virtual)
        return real_gettimeofday(now, zone);
    now->tv_sec = static_cast<time_t>(active->clock_usec / 1000000);
    now->tv_usec = static_cast<suseconds_t>(active->clock_usec % 1000000);
    return 0;
}
