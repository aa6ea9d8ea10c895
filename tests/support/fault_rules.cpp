// The vocabulary of the fault sweeps: what can be done to a call, and what it can lead to.

#include "support/fault_run.h"

#include <errno.h>

#include <algorithm>
#include <set>
#include <sstream>
#include <stdexcept>

// ---- What can be broken ----
//
// One fault is done to a run, and the kernel is itself again afterwards. The call that fails has no effect
// but that what is given back is gone (close, fclose, closedir); one that falls short does what it says it
// did.
//
// Not in the table are calls that no wrapper reaches. fscanf reads inside libc: that a file of numbers which
// cannot be read stops is a test of its own (NodeFromSysfs). What is printed goes to standard output, whose
// writes are inside libc as well: the product decides nothing by what a print gives, so a console that takes
// nothing changes nothing else, and that is a test of its own, too (StartUp).

const std::vector<KernelCall> &kernel_calls()
{
    static const std::vector<KernelCall> calls = {
        {"mount",
         {EACCES, EBUSY, EINVAL, EIO, ELOOP, EMFILE, ENAMETOOLONG, ENODEV, ENOENT, ENOMEM, ENOTBLK, ENOTDIR,
          ENXIO, EPERM, EROFS},
         0},
        {"umount", {EACCES, EBUSY, EINVAL, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENXIO, EPERM}, 0},
        {"mknod",
         {EACCES, EDQUOT, EEXIST, EINVAL, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOSPC, ENOTDIR, EPERM,
          EROFS},
         0},
        {"mkdir",
         {EACCES, EDQUOT, EEXIST, EINVAL, EIO, ELOOP, EMLINK, ENAMETOOLONG, ENOENT, ENOMEM, ENOSPC, ENOTDIR,
          EPERM, EROFS},
         0},
        {"rmdir",
         {EACCES, EBUSY, EINVAL, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, ENOTEMPTY, EPERM, EROFS},
         0},
        {"unlink",
         {EACCES, EBUSY, EIO, EISDIR, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EPERM, EROFS},
         0},
        {"chmod", {EACCES, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EPERM, EROFS}, 0},
        {"symlink",
         {EACCES, EDQUOT, EEXIST, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOSPC, ENOTDIR, EPERM, EROFS},
         0},
        {"chdir", {EACCES, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR}, 0},
        {"getcwd", {EACCES, ENAMETOOLONG, ENOENT, ENOMEM, ERANGE}, 0},
        {"access", {EACCES, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR}, 0},
        {"stat", {EACCES, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EOVERFLOW}, 0},
        {"statfs", {EACCES, EINTR, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOSYS, ENOTDIR, EOVERFLOW}, 0},
        {"open",
         {EACCES, EBUSY,  EDQUOT, EINTR,  EINVAL,  EIO,   EISDIR,    ELOOP, EMFILE, ENAMETOOLONG, ENFILE,
          ENODEV, ENOENT, ENOMEM, ENOSPC, ENOTDIR, ENXIO, EOVERFLOW, EPERM, EROFS,  ETXTBSY},
         0},
        {"read", {EAGAIN, EBADF, ECONNRESET, EINTR, EINVAL, EIO, EISDIR}, 1},
        {"write", {EAGAIN, EBADF, EDQUOT, EFBIG, EINTR, EINVAL, EIO, ENOSPC, ENOTTY, EPERM, EPIPE}, 1},
        {"close", {EBADF, EDQUOT, EINTR, EIO, ENOSPC}, 0},
        {"dup2", {EBADF, EBUSY, EINTR, EMFILE}, 0},
        {"opendir", {EACCES, EIO, ELOOP, EMFILE, ENAMETOOLONG, ENFILE, ENOENT, ENOMEM, ENOTDIR}, 0},
        {"readdir", {EBADF, EIO, ENOENT, EOVERFLOW}, 0},
        {"closedir", {EBADF, EIO}, 0},
        // For reading only.
        {"fopen",
         {EACCES, EINTR, EIO, ELOOP, EMFILE, ENAMETOOLONG, ENFILE, ENODEV, ENOENT, ENOMEM, ENOTDIR, ENXIO,
          EOVERFLOW, EPERM},
         0},
        {"fread", {EAGAIN, EINTR, EIO, EISDIR, ENOMEM}, 1},
        {"fwrite", {EDQUOT, EFBIG, EINTR, EIO, ENOMEM, ENOSPC}, 1},
        {"fgets", {EINTR, EIO, EISDIR, ENOMEM}, 0},
        {"fclose", {EBADF, EDQUOT, EINTR, EIO, ENOSPC}, 0},
        {"socketpair", {EAFNOSUPPORT, EMFILE, ENFILE, ENOBUFS, ENOMEM, EOPNOTSUPP, EPROTONOSUPPORT}, 0},
        {"shutdown", {EBADF, ENOTCONN, ENOTSOCK}, 0},
        {"fork", {EAGAIN, ENOMEM, ENOSYS}, 0},
        {"execve",
         {E2BIG, EACCES, EAGAIN, EINVAL, EIO, EISDIR, ELIBBAD, ELOOP, EMFILE, ENAMETOOLONG, ENFILE, ENOENT,
          ENOEXEC, ENOMEM, ENOTDIR, EPERM, ETXTBSY},
         0},
        {"waitpid", {ECHILD, EINTR}, 0},
        // A sleep that a signal ends has not slept at all: as much as one can.
        {"sleep", {EINTR}, 0},
        {"usleep", {EINTR}, 0},
        // A year beyond those of an int.
        {"localtime", {EOVERFLOW}, 0},
        {"malloc", {ENOMEM}, 0},
        {"calloc", {ENOMEM}, 0},
        {"realloc", {ENOMEM}, 0},
    };
    return calls;
}

const std::vector<int> &errors_of(const std::string &name)
{
    for (const KernelCall &call : kernel_calls()) {
        if (call.name == name)
            return call.errors;
    }
    throw std::runtime_error("the fault table has no " + name);
}

const std::vector<UnbrokenCall> &unbroken_calls()
{
    static const std::vector<UnbrokenCall> calls = {
        {"sync", "has no result"},
        {"exit", "does not return"},
        {"free", "has no result"},
        {"_exit", "does not return"},
        {"time", "fails for a bad pointer only, and is given none"},
        {"gettimeofday", "fails for a bad pointer only, and is given one to a variable"},
        {"_Z15qel_assert_failPKcS0_i", "is the product's own: what a stop is"},
    };
    return calls;
}

/// The name that a symbol shares with its other spelling.
static std::string name_of_symbol(const std::string &symbol)
{
    return symbol.size() > 2 && symbol.substr(symbol.size() - 2) == "64" ? symbol.substr(0, symbol.size() - 2)
                                                                         : symbol;
}

std::string gaps(const std::string &wrapped, const std::vector<KernelCall> &table,
                 const std::vector<UnbrokenCall> &exceptions)
{
    std::set<std::string> names, in_table, excepted;
    std::istringstream symbols(wrapped);
    for (std::string symbol; symbols >> symbol;)
        names.insert(name_of_symbol(symbol));
    std::string found;
    for (const KernelCall &call : table) {
        if (!in_table.insert(call.name).second)
            found += std::string(call.name) + " stands twice in the table\n";
    }
    for (const UnbrokenCall &call : exceptions) {
        if (!excepted.insert(call.symbol).second || in_table.count(call.symbol))
            found += std::string(call.symbol) + " is a needless exception\n";
    }
    for (const std::string &name : names) {
        if (!in_table.count(name) && !excepted.count(name))
            found += name + " is wrapped, and is never broken\n";
    }
    in_table.merge(excepted);
    for (const std::string &name : in_table) {
        if (!names.count(name))
            found += name + " is not wrapped\n";
    }
    return found;
}

// ---- Faults and outcomes ----

bool any_fault(const Fault &)
{
    return true;
}

bool any_error(const Fault &fault)
{
    return fault.error != 0;
}

bool falls_short(const Fault &fault)
{
    return fault.error == 0;
}

bool error_or_nothing(const Fault &fault)
{
    return fault.error != 0 || fault.size_max == 0;
}

bool moves_a_part(const Fault &fault)
{
    return fault.error == 0 && fault.size_max > 0;
}

Faults moves(size_t size)
{
    return [size](const Fault &fault) { return fault.error == 0 && fault.size_max == size; };
}

Faults error(std::vector<int> errors)
{
    return [errors](const Fault &fault) {
        return std::find(errors.begin(), errors.end(), fault.error) != errors.end();
    };
}

Faults error_but(std::vector<int> errors)
{
    return [errors](const Fault &fault) { return fault.error != 0 && !error(errors)(fault); };
}

static Outcome following(Outcome outcome, decltype(Outcome::follows) what)
{
    outcome.follows = what;
    return outcome;
}

Outcome Outcome::then(std::vector<std::string> following_calls) const
{
    Outcome outcome = following(*this, listed);
    outcome.calls = std::move(following_calls);
    return outcome;
}

Outcome Outcome::goes_on() const
{
    return following(*this, all);
}

Outcome Outcome::goes_on_without(std::vector<std::string> missing) const
{
    Outcome outcome = following(*this, all);
    outcome.left_out = std::move(missing);
    return outcome;
}

Outcome Outcome::goes_on_after(std::vector<std::string> inserted) const
{
    Outcome outcome = following(*this, all);
    outcome.calls = std::move(inserted);
    return outcome;
}

Outcome Outcome::prints(const std::string &text) const
{
    Outcome outcome = *this;
    outcome.printed = text;
    return outcome;
}

Outcome Outcome::also_prints(const std::string &text) const
{
    Outcome outcome = *this;
    outcome.added = text;
    return outcome;
}

Outcome Outcome::leaves_open(const std::string &what) const
{
    Outcome outcome = *this;
    outcome.left_open = what;
    return outcome;
}

Outcome Outcome::unprinted(const std::string &text) const
{
    Outcome outcome = *this;
    outcome.not_printed = text;
    return outcome;
}

Outcome ignored()
{
    return Outcome().goes_on();
}

Outcome gives(const std::string &result)
{
    Outcome outcome;
    outcome.result = result;
    return outcome;
}

Outcome crashes()
{
    return gives(crashed);
}

Outcome stops(const std::string &text, const std::string &unit, int line)
{
    Outcome outcome;
    outcome.stop = text;
    outcome.unit = unit;
    outcome.line = line;
    return outcome;
}

std::vector<Rule> rules_of(const std::vector<std::vector<Rule>> &lists)
{
    std::vector<Rule> all;
    for (const std::vector<Rule> &list : lists)
        all.insert(all.end(), list.begin(), list.end());
    return all;
}
