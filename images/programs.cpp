// Programs and libraries by their names; objdump shows what a program needs, whatever machine it is for.

#include "programs.h"

#include "common/child.h"

#include <filesystem>
#include <regex>
#include <stdexcept>

namespace fs = std::filesystem;

namespace
{

/// The first of these folders of the target's Debian that has the file; empty when there is none.
std::string find_file(const Parts &parts, const std::vector<std::string> &folders, const std::string &name)
{
    for (const std::string &folder : folders)
        if (fs::exists(parts.programs + folder + "/" + name))
            return parts.programs + folder + "/" + name;
    return "";
}

/// The values of one kind of line in what objdump shows.
std::set<std::string> values_of(const std::string &headers, const std::string &kind)
{
    const std::regex line("\n  " + kind + " +([^\n]+)");
    std::set<std::string> values;
    for (std::sregex_iterator match(headers.begin(), headers.end(), line), none; match != none; ++match)
        values.insert((*match)[1]);
    return values;
}

} // namespace

std::string find_program(const Parts &parts, const std::string &name)
{
    const std::string program = find_file(parts, {"/usr/sbin", "/usr/bin", "/sbin", "/bin"}, name);
    if (program.empty())
        throw std::runtime_error(name + ": not found; run machine/set_up.sh " + parts.target.name);
    return program;
}

std::set<std::string> needed_libraries(const Parts &parts, const std::vector<std::string> &programs)
{
    std::vector<std::string> folders = {"/lib/" + parts.target.libraries,
                                        "/usr/lib/" + parts.target.libraries};
    std::set<std::string> libraries, missing;
    for (std::vector<std::string> next = programs; !next.empty();) {
        next.insert(next.begin(), {"objdump", "-p"});
        const std::string headers = run_tool(next);
        next.clear();
        for (const std::string &folder : values_of(headers, "RUNPATH"))
            folders.push_back(folder);
        for (const std::string &name : values_of(headers, "NEEDED")) {
            if (name == fs::path(parts.target.dynamic_loader).filename())
                continue;
            const std::string library = find_file(parts, folders, name);
            if (library.empty())
                missing.insert(name);
            else if (libraries.insert(library).second)
                next.push_back(library);
        }
    }
    if (missing.empty())
        return libraries;
    std::string names;
    for (const std::string &name : missing)
        names += " " + name;
    throw std::runtime_error(programs.front() + ": libraries are missing for " + parts.target.name + ":" +
                             names +
                             "; install the Debian packages that have them, or link the program statically");
}
