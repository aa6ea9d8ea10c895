// Programs and libraries by their names; objdump shows what a program needs, whatever machine it is for.

#include "programs.h"

#include "common/child.h"

#include <filesystem>
#include <regex>
#include <stdexcept>

namespace fs = std::filesystem;

namespace
{

/// The first of these folders of the target's Debian that has the file.
std::string find_file(const Parts &parts, const std::vector<std::string> &folders, const std::string &name)
{
    for (const std::string &folder : folders)
        if (fs::exists(parts.programs + folder + "/" + name))
            return parts.programs + folder + "/" + name;
    throw std::runtime_error(name + ": not found; run machine/set_up.sh " + parts.target.name);
}

std::set<std::string> names_of_needed(const std::vector<std::string> &files)
{
    std::vector<std::string> command = {"objdump", "-p"};
    command.insert(command.end(), files.begin(), files.end());
    const std::string headers = run_tool(command);
    const std::regex needed("\n  NEEDED +([^\n]+)");
    std::set<std::string> names;
    for (std::sregex_iterator match(headers.begin(), headers.end(), needed), none; match != none; ++match)
        names.insert((*match)[1]);
    return names;
}

} // namespace

std::string find_program(const Parts &parts, const std::string &name)
{
    return find_file(parts, {"/usr/sbin", "/usr/bin", "/sbin", "/bin"}, name);
}

std::set<std::string> needed_libraries(const Parts &parts, const std::vector<std::string> &programs)
{
    const std::string &folder = parts.target.libraries;
    std::set<std::string> libraries;
    for (std::vector<std::string> next = programs; !next.empty();) {
        const std::set<std::string> names = names_of_needed(next);
        next.clear();
        for (const std::string &name : names) {
            if (name == fs::path(parts.target.dynamic_loader).filename())
                continue;
            const std::string library = find_file(parts, {"/lib/" + folder, "/usr/lib/" + folder}, name);
            if (libraries.insert(library).second)
                next.push_back(library);
        }
    }
    return libraries;
}
