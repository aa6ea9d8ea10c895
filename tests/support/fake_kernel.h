/// What stands between the product and the kernel in a test.
///
/// While a FakeKernel exists, every kernel-facing libc call of the product passes through it: it is
/// recorded as a readable line, and the test may move its paths into a scratch folder, answer it with a
/// function of its own, let the Nth one fail or fall short, or leave the product at it. Whatever the test
/// says nothing about is done by libc. Without a FakeKernel everything is.
///
///     Scratch disk;
///     FakeKernel kernel(disk.path());              // "/storage" is now <scratch>/storage
///     kernel.on_mount = [](auto...) { return 0; };
///     kernel.fail_nth("mkdir", 2, ENOSPC);
///     ...
///     EXPECT_THAT(kernel.calls("mount"), ElementsAre("mount /dev/disk/hdc3 /storage vfat 1 null"));
///
/// Calls of the test's own code pass through as well; the verbs of scratch.h and std::filesystem do not.
#pragma once

#include <dirent.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/types.h>
#include <sys/vfs.h>
#include <time.h>

#include <exception>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

/// Thrown through the product where a test wanted to leave it (FakeKernel::leave_at).
struct LeftProduct : std::exception {
    const char *what() const noexcept override
    {
        return "the product was left at a call";
    }
};

/// Thrown in place of _exit, which a child in the test's own process must not reach (on_fork giving 0).
struct ChildExit : std::exception {
    explicit ChildExit(int exit_status) : status(exit_status) {}
    const char *what() const noexcept override
    {
        return "the child called _exit";
    }
    int status;
};

/// Thrown in place of exit, where a test has the product in its own process (FakeKernel::throws_at_exit).
struct ProductExit : std::exception {
    explicit ProductExit(int exit_status) : status(exit_status) {}
    const char *what() const noexcept override
    {
        return "the product called exit";
    }
    int status;
};

class FakeKernel
{
  public:
    FakeKernel();
    /// Moves every absolute path below `root`, except those that already lie there.
    explicit FakeKernel(const std::string &root);
    ~FakeKernel();
    FakeKernel(const FakeKernel &) = delete;
    FakeKernel &operator=(const FakeKernel &) = delete;

    // ---- Paths ----

    /// Moves `prefix` and everything below it to `folder`. The first fitting line wins.
    void redirect(const std::string &prefix, const std::string &folder);
    /// Where libc finds `path`.
    std::string at(const char *path) const;

    // ---- Records ----

    /// Every call so far, "mkdir /storage 0755", in order.
    const std::vector<std::string> &calls() const
    {
        return records;
    }
    /// Only those whose names stand in `names` (separated by blanks).
    std::vector<std::string> calls(const std::string &names) const;
    /// How often `name` was called.
    int count(const std::string &name) const;
    void forget_calls();
    /// What the call that has this place in calls() moved: bytes or items, -1 when it is no transfer.
    long moved(size_t record) const
    {
        const auto found = transfers.find(record);
        return found == transfers.end() ? -1 : found->second;
    }
    /// Cleared, calls are answered and no more: not recorded, not counted, not made to fail. For programs
    /// that make very many.
    bool keeps_books = true;
    /// Told of every call, once it is recorded and before it is made.
    std::function<void()> on_record;
    /// A call that has come to its end, for tapes; the last record is its own.
    struct Made {
        const char *name;
        const void *stream; ///< FILE or DIR
        int file;           ///< descriptor
        const void *bytes;  ///< what was read or is to be written; of socketpair, both ends
        long long result;   ///< number, or 1 for a pointer that is not null
        const void *pointer;
        int error; ///< what the test let it fail with
    };
    std::function<void(const Made &)> on_made;
    /// 1 when a call arrived through this spelling ("open64").
    int was_reached(const std::string &symbol) const
    {
        return symbols_reached.count(symbol) > 0;
    }

    // ---- Outcomes ----

    /// Lets every call of `name` fail with `error`, without doing anything; only what a call gives back is
    /// gone even so, as with a real kernel: close, fclose and closedir.
    void fail(const std::string &name, int error);
    /// Lets the call number `n` of `name` fail, counted from 1 since construction or forget_calls().
    void fail_nth(const std::string &name, int n, int error);
    /// Lets the call number `n` of read, write, fread or fwrite move `bytes` at most (items, for streams).
    void shorten_nth(const std::string &name, int n, size_t bytes);
    /// Leaves the product at the call number `n` of `name` by throwing LeftProduct.
    void leave_at(const std::string &name, int n);
    /// Answers of the test's own, on_<name>: asked instead of libc, with the product's arguments.
#define KERNEL_CALL(result, failure, name, parameters, ...) std::function<result parameters> on_##name;
#define KERNEL_CALL_64                                      KERNEL_CALL
#define KERNEL_TRANSFER                                     KERNEL_CALL
#include "support/kernel_calls.def"
#undef KERNEL_CALL
    std::function<void()> on_sync;
    /// Set, exit leaves the product by a ProductExit.
    bool throws_at_exit = false;
    /// Asked before the clock goes on; may throw to end an endless loop.
    std::function<void(unsigned seconds)> on_sleep;
    std::function<void(unsigned microseconds)> on_usleep;

    /// Set, malloc, calloc and realloc are calls like all others: recorded, and made to fail.
    int watches_memory = 0;
    /// The blocks that were had through malloc, calloc and realloc since this object exists, and not freed.
    std::set<const void *> blocks;
    /// Asked then for the block of a calloc that does not fail, instead of libc.
    std::function<void *(size_t count, size_t size)> on_calloc;

    // ---- Clock ----

    /// From now on time stands still but for sleep and usleep, which return at once: time and
    /// gettimeofday start at this moment.
    void set_time(time_t seconds, long microseconds = 0);
    void advance_usec(long long microseconds)
    {
        clock_usec += microseconds;
    }
    /// Microseconds slept so far, on this clock.
    long long slept_usec = 0;

    // ---- For the wrappers in fake_kernel.cpp ----

    struct Turn {
        int error = 0;
        size_t size_max = SIZE_MAX;
    };
    /// Records a call and tells what is to become of it.
    Turn next(const char *symbol, const char *name, const std::string &text);
    void note_transfer(size_t record, long moved)
    {
        transfers[record] = moved;
    }
    int clock_is_virtual = 0;
    long long clock_usec = 0;

  private:
    struct Plan {
        int fail_always = 0;
        std::map<int, int> fail_nth;
        std::map<int, size_t> shorten_nth;
        int leave_at = 0;
    };
    std::vector<std::pair<std::string, std::string>> redirections;
    std::vector<std::string> records;
    std::map<size_t, long> transfers;
    std::map<std::string, int> counts;
    std::set<std::string> symbols_reached;
    std::map<std::string, Plan> plans;
    FakeKernel *outer;
};

/// libc's own functions, for test code that must not be recorded or moved: real_open(...) and so on.
#define KERNEL_CALL(result, failure, name, parameters, ...)                                                  \
    extern "C" result real_##name parameters __asm__("__real_" #name);
#undef KERNEL_CALL_64
#define KERNEL_CALL_64(result, failure, name, parameters, ...)                                               \
    extern "C" result real_##name parameters __asm__("__real_" #name "64");
#include "support/kernel_calls.def"
#undef KERNEL_CALL
#undef KERNEL_CALL_64
#undef KERNEL_TRANSFER
extern "C" void *real_malloc(size_t size) __asm__("__real_malloc");
extern "C" void *real_calloc(size_t count, size_t size) __asm__("__real_calloc");
extern "C" void *real_realloc(void *block, size_t size) __asm__("__real_realloc");
extern "C" void real_free(void *block) __asm__("__real_free");
extern "C" void real_sync() __asm__("__real_sync");
extern "C" [[noreturn]] void real_exit(int status) __asm__("__real_exit");
extern "C" [[noreturn]] void real__exit(int status) __asm__("__real__exit");
extern "C" unsigned real_sleep(unsigned seconds) __asm__("__real_sleep");
extern "C" int real_usleep(useconds_t microseconds) __asm__("__real_usleep");
extern "C" time_t real_time(time_t *result) __asm__("__real_time");
extern "C" int real_gettimeofday(struct timeval *now, void *zone) __asm__("__real_gettimeofday");
