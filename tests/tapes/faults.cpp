// What can be broken, and how.

#include "tapes/faults.h"

#include <errno.h>
#include <stdint.h>
#include <string.h>

#include <set>
#include <sstream>

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
         false},
        {"umount", {EACCES, EBUSY, EINVAL, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENXIO, EPERM}, false},
        {"mknod",
         {EACCES, EDQUOT, EEXIST, EINVAL, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOSPC, ENOTDIR, EPERM,
          EROFS},
         false},
        {"mkdir",
         {EACCES, EDQUOT, EEXIST, EINVAL, EIO, ELOOP, EMLINK, ENAMETOOLONG, ENOENT, ENOMEM, ENOSPC, ENOTDIR,
          EPERM, EROFS},
         false},
        {"rmdir",
         {EACCES, EBUSY, EINVAL, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, ENOTEMPTY, EPERM, EROFS},
         false},
        {"unlink",
         {EACCES, EBUSY, EIO, EISDIR, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EPERM, EROFS},
         false},
        {"chmod", {EACCES, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EPERM, EROFS}, false},
        {"symlink",
         {EACCES, EDQUOT, EEXIST, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOSPC, ENOTDIR, EPERM, EROFS},
         false},
        {"chdir", {EACCES, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR}, false},
        {"getcwd", {EACCES, ENAMETOOLONG, ENOENT, ENOMEM, ERANGE}, false},
        {"access", {EACCES, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR}, false},
        {"stat", {EACCES, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EOVERFLOW}, false},
        {"statfs",
         {EACCES, EINTR, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOSYS, ENOTDIR, EOVERFLOW},
         false},
        {"open",
         {EACCES, EBUSY,  EDQUOT, EINTR,  EINVAL,  EIO,   EISDIR,    ELOOP, EMFILE, ENAMETOOLONG, ENFILE,
          ENODEV, ENOENT, ENOMEM, ENOSPC, ENOTDIR, ENXIO, EOVERFLOW, EPERM, EROFS,  ETXTBSY},
         false},
        {"read", {EAGAIN, EBADF, ECONNRESET, EINTR, EINVAL, EIO, EISDIR}, true},
        {"write", {EAGAIN, EBADF, EDQUOT, EFBIG, EINTR, EINVAL, EIO, ENOSPC, ENOTTY, EPERM, EPIPE}, true},
        {"close", {EBADF, EDQUOT, EINTR, EIO, ENOSPC}, false},
        {"dup2", {EBADF, EBUSY, EINTR, EMFILE}, false},
        {"opendir", {EACCES, EIO, ELOOP, EMFILE, ENAMETOOLONG, ENFILE, ENOENT, ENOMEM, ENOTDIR}, false},
        {"readdir", {EBADF, EIO, ENOENT, EOVERFLOW}, false},
        {"closedir", {EBADF, EIO}, false},
        // For reading only.
        {"fopen",
         {EACCES, EINTR, EIO, ELOOP, EMFILE, ENAMETOOLONG, ENFILE, ENODEV, ENOENT, ENOMEM, ENOTDIR, ENXIO,
          EOVERFLOW, EPERM},
         false},
        {"fread", {EAGAIN, EINTR, EIO, EISDIR, ENOMEM}, true},
        {"fwrite", {EDQUOT, EFBIG, EINTR, EIO, ENOMEM, ENOSPC}, true},
        {"fgets", {EINTR, EIO, EISDIR, ENOMEM}, false},
        {"fclose", {EBADF, EDQUOT, EINTR, EIO, ENOSPC}, false},
        {"socketpair", {EAFNOSUPPORT, EMFILE, ENFILE, ENOBUFS, ENOMEM, EOPNOTSUPP, EPROTONOSUPPORT}, false},
        {"shutdown", {EBADF, ENOTCONN, ENOTSOCK}, false},
        {"fork", {EAGAIN, ENOMEM, ENOSYS}, false},
        {"execve",
         {E2BIG, EACCES, EAGAIN, EINVAL, EIO, EISDIR, ELIBBAD, ELOOP, EMFILE, ENAMETOOLONG, ENFILE, ENOENT,
          ENOEXEC, ENOMEM, ENOTDIR, EPERM, ETXTBSY},
         false},
        {"waitpid", {ECHILD, EINTR}, false},
        // A sleep that a signal ends has not slept at all: as much as one can.
        {"sleep", {EINTR}, false},
        {"usleep", {EINTR}, false},
        // A year beyond those of an int.
        {"localtime", {EOVERFLOW}, false},
        {"malloc", {ENOMEM}, false},
        {"calloc", {ENOMEM}, false},
        {"realloc", {ENOMEM}, false},
    };
    return calls;
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
        {"qel_assert_fail", "is the product's own: what a stop is"},
    };
    return calls;
}

namespace
{

/// The name that a symbol shares with its other spelling.
std::string name_of_symbol(const std::string &symbol)
{
    return symbol.size() > 2 && symbol.substr(symbol.size() - 2) == "64" ? symbol.substr(0, symbol.size() - 2)
                                                                         : symbol;
}

} // namespace

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

// ---- The faults of a call ----

std::vector<Fault> faults_of(const std::string &name, long moved)
{
    std::vector<Fault> faults;
    for (const KernelCall &known : kernel_calls()) {
        if (known.name != name)
            continue;
        for (int number : known.errors)
            faults.push_back({number, SIZE_MAX});
        if (known.can_fall_short && moved > 0) {
            for (long size : std::set<long>{0, 1, moved - 1}) {
                if (size < moved)
                    faults.push_back({0, static_cast<size_t>(size)});
            }
        }
    }
    return faults;
}

std::string spelled(const Fault &fault)
{
    return fault.error ? strerrorname_np(fault.error) : "moves " + std::to_string(fault.size_max);
}
