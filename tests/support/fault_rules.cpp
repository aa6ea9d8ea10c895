// The vocabulary of the fault sweeps: what can be done to a call, and what it can lead to.

#include "support/fault_sweep.h"

#include <errno.h>

#include <algorithm>

// ---- What can be broken ----

const std::vector<KernelCall> &kernel_calls()
{
    static const std::vector<KernelCall> calls = {
        {"mount",
         {EACCES, EBUSY, EINVAL, EIO, ENODEV, ENOENT, ENOMEM, ENOTBLK, ENOTDIR, ENXIO, EPERM, EROFS},
         0},
        {"umount", {EBUSY, EINVAL, ENOENT, EPERM}, 0},
        {"mknod", {EACCES, EEXIST, EIO, ENOENT, ENOMEM, ENOSPC, ENOTDIR, EPERM, EROFS}, 0},
        {"mkdir", {EACCES, EEXIST, EIO, ENOENT, ENOMEM, ENOSPC, ENOTDIR, EPERM, EROFS}, 0},
        {"rmdir", {EACCES, EBUSY, EIO, ENOENT, ENOTDIR, ENOTEMPTY, EPERM, EROFS}, 0},
        {"unlink", {EACCES, EBUSY, EIO, EISDIR, ENOENT, ENOTDIR, EPERM, EROFS}, 0},
        {"chmod", {EACCES, EIO, ENOENT, EPERM, EROFS}, 0},
        {"symlink", {EACCES, EEXIST, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOSPC, ENOTDIR, EPERM, EROFS}, 0},
        {"chdir", {EACCES, EIO, ENOENT, ENOTDIR}, 0},
        {"getcwd", {EACCES, ENOENT, ERANGE}, 0},
        {"access", {EACCES, EIO, ENOENT, ENOTDIR, EROFS}, 0},
        {"stat", {EACCES, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOTDIR}, 0},
        {"statfs", {EACCES, EIO, ENOENT, ENOSYS}, 0},
        {"open", {EACCES, EBUSY, EIO, EISDIR, EMFILE, ENFILE, ENODEV, ENOENT, ENOSPC, ENXIO, EROFS}, 0},
        {"read", {EAGAIN, EBADF, EINTR, EIO, EISDIR}, 1},
        {"write", {EAGAIN, EBADF, EINTR, EIO, ENOSPC, ENOTTY, EPIPE}, 1},
        {"close", {EBADF, EINTR, EIO, ENOSPC}, 0},
        {"dup2", {EBADF, EBUSY, EINTR}, 0},
        {"opendir", {EACCES, EMFILE, ENFILE, ENOENT, ENOMEM, ENOTDIR}, 0},
        {"readdir", {EIO, ENOENT}, 0},
        {"closedir", {EBADF}, 0},
        {"fopen", {EACCES, EIO, EISDIR, EMFILE, ENOENT, ENOMEM, ENOSPC, EROFS}, 0},
        {"fread", {EIO, EISDIR}, 1},
        {"fwrite", {EIO, ENOSPC}, 1},
        {"fgets", {EIO, EISDIR}, 0},
        {"fclose", {EIO, ENOSPC}, 0},
        {"socketpair", {EMFILE, ENFILE, ENOMEM}, 0},
        {"shutdown", {ENOTCONN}, 0},
        {"fork", {EAGAIN, ENOMEM}, 0},
        {"execve", {E2BIG, EACCES, EIO, ENOENT, ENOEXEC, ENOMEM}, 0},
        {"waitpid", {ECHILD, EINTR}, 0},
        {"malloc", {ENOMEM}, 0},
        {"calloc", {ENOMEM}, 0},
        {"realloc", {ENOMEM}, 0},
    };
    return calls;
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

Outcome Outcome::whatever_follows() const
{
    return following(*this, anything);
}

Outcome Outcome::prints(const std::string &text) const
{
    Outcome outcome = *this;
    outcome.printed = text;
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
