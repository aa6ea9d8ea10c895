// What can be done to a call: every error that a real kernel could plausibly give to the way in which the
// product makes it, and transfers that fall short.
#pragma once

#include <stddef.h>

#include <string>
#include <vector>

/// A call that the product can make, under the name that all its spellings share.
struct KernelCall {
    const char *name;
    std::vector<int> errors;
    bool can_fall_short;
};
const std::vector<KernelCall> &kernel_calls();

/// A symbol that the linker wraps and that is not broken, with the reason.
struct UnbrokenCall {
    const char *symbol;
    const char *reason;
};
const std::vector<UnbrokenCall> &unbroken_calls();

/// What is wrong with a table and a list of exceptions for the symbols that are wrapped, separated by blanks:
/// a line for each symbol that neither knows or both know, and for each that is in them and not wrapped.
std::string gaps(const std::string &wrapped, const std::vector<KernelCall> &table,
                 const std::vector<UnbrokenCall> &exceptions);

/// What is done to one call: an error, or, with error 0, a limit to what it moves.
struct Fault {
    int error;
    size_t size_max;
};

/// Everything that can be done to a call of this name that moved so much (-1 when it is no transfer): a
/// transfer falls short of what it moved, not of what was asked for.
std::vector<Fault> faults_of(const std::string &name, long moved);
/// "EIO" or "moves 1".
std::string spelled(const Fault &fault);
