// The rules that several sweeps share.

#include "support/fault_product_rules.h"

#include <errno.h>

#include <map>
#include <set>

std::vector<Rule> mkdir_rules(const std::string &path, int line)
{
    return {{"mkdir " + path + " 0755", error({EEXIST}), ignored()},
            {"mkdir " + path + " 0755", any_fault, stops(not_eexist, filesystem_unit, line)}};
}

std::vector<Rule> mount_rules(const std::string &folder)
{
    return rules_of({mkdir_rules(folder, 1959),
                     {{"mount * " + folder + " *", any_fault, stops("!err", filesystem_unit, 1964)}}});
}

std::vector<Rule> symlink_rules(const Outcome &if_exists)
{
    // The errors that have a name of their own in the output; all others have only their number.
    static const std::map<int, std::string> names = {
        {EEXIST, "EEXIST"}, {EROFS, "EROFS"},     {ENOSPC, "ENOSPC"},
        {EIO, "EIO"},       {EACCES, "EACCES"},   {ENAMETOOLONG, "ENAMETOOLONG"},
        {ENOENT, "ENOENT"}, {ENOTDIR, "ENOTDIR"}, {ELOOP, "ELOOP"},
    };
    const auto told = [](const Outcome &outcome, int number) {
        const auto name = names.find(number);
        return outcome.also_prints((name == names.end() ? "" : "symlink error : " + name->second + "\n") +
                                   "error code : " + std::to_string(number) + "\n");
    };
    std::vector<Rule> rules = {{"symlink *", error({EEXIST}), told(if_exists, EEXIST)}};
    for (int number : errors_of("symlink")) {
        if (number != EEXIST)
            rules.push_back(
                {"symlink *", error({number}), told(stops(not_eexist, filesystem_unit, 1892), number)});
    }
    return rules;
}

std::vector<Rule> short_read_rules(const std::string &read, size_t size)
{
    std::vector<Rule> rules;
    for (size_t part : std::set<size_t>{1, size - 1}) {
        rules.push_back({read, moves(part),
                         ignored()
                             .goes_on_after({"write " + std::to_string(part), "read 4096",
                                             "write " + std::to_string(size - part)})
                             .goes_on_without({"write " + std::to_string(size)})});
    }
    return rules;
}
