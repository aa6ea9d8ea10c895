// The tool file says what an application is; what it needs follows from that.

#include "application.h"

#include "common/child.h"
#include "common/files.h"
#include "images/programs.h"

#include <filesystem>
#include <fstream>
#include <regex>
#include <stdexcept>

namespace fs = std::filesystem;

namespace
{

using SystemHas = std::function<bool(const std::string &place)>;

const char *const advice_on_system = "name a system image that has it with --system-image";

bool cabinet_has(const std::string &path, const SystemHas &system_has)
{
    return path == "/bin/sh" || path == "/bin/busybox" ||
           (path.starts_with("/usr/") && system_has(path.substr(5)));
}

void check_script(const std::string &application, const SystemHas &system_has)
{
    std::string line;
    std::getline(std::ifstream(application), line);
    std::smatch interpreter;
    if (!std::regex_search(line, interpreter, std::regex("^#! *([^ ]+)")))
        throw std::runtime_error(application + ": neither a program nor a script that begins with #!");
    const std::string name = interpreter[1];
    if (!cabinet_has(name, system_has))
        throw std::runtime_error(application + ": a script for " + name +
                                 ", which the cabinet has not got; write it for /bin/sh" +
                                 (name.starts_with("/usr/") ? std::string(", or ") + advice_on_system : ""));
}

/// The loader starts such a file with Wine, whatever is in it.
bool is_for_wine(const std::string &application)
{
    return fs::path(application).filename().string().find(".exe.so") != std::string::npos;
}

std::set<std::string> check_program(const Parts &parts, const std::string &application,
                                    const std::string &kind, const SystemHas &system_has)
{
    if (kind.find(parts.target.machine) == std::string::npos)
        throw std::runtime_error(application + ": does not run on the cabinet for " + parts.target.name +
                                 ": " + kind.substr(0, kind.find(", version")) + "; see --target");
    std::smatch interpreter;
    if (!std::regex_search(kind, interpreter, std::regex("interpreter ([^,]+)")))
        return {};
    if (interpreter[1] != parts.target.dynamic_loader)
        throw std::runtime_error(application + ": needs " + std::string(interpreter[1]) +
                                 ", which the cabinet has not got; link it statically");
    std::set<std::string> libraries;
    for (const std::string &library : needed_libraries(parts, {application})) {
        const std::string name = fs::path(library).filename();
        if (!system_has("xorg/lib/" + name) && !system_has("lib/" + name))
            libraries.insert(library);
    }
    return libraries;
}

} // namespace

std::set<std::string> libraries_to_add(const Parts &parts, const std::string &application,
                                       const SystemHas &system_has)
{
    require_file(application, "name an application with --application");
    if (is_for_wine(application)) {
        if (!system_has("wine/bin/wine"))
            throw std::runtime_error(application + ": needs Wine (/usr/wine/bin/wine); " + advice_on_system);
        return {};
    }
    const std::string kind = run_tool({"file", "--brief", "--dereference", application});
    if (kind.starts_with("ELF"))
        return check_program(parts, application, kind, system_has);
    if (kind.starts_with("PE32"))
        throw std::runtime_error(application + ": a Windows program; the loader starts one with Wine only if "
                                               "its name holds \".exe.so\": rename it");
    check_script(application, system_has);
    return {};
}
