// Finds the pieces of a cabinet in the source tree's build folders, whose places CMake compiles in.

#include "parts.h"

#include "tools.h"

#include <stdlib.h>

#include <filesystem>

namespace
{

std::string loader_for(const std::string &target, const std::string &build)
{
    const char *other_loader = getenv("QEL_LOADER");
    if (other_loader != nullptr)
        return other_loader;
    std::string preset = target == "x86-64" ? "product" : "product-" + target;
    return build + "/" + preset + "/src/qel_application_loader.stripped";
}

} // namespace

Parts find_parts(const std::string &target)
{
    std::string source = CABINET_SOURCE_FOLDER, build = source + "/build";
    Parts parts;
    parts.target = target;
    parts.loader = loader_for(target, build);
    parts.work_folder = build + "/machine";
    parts.kernel_folder = parts.work_folder + "/kernel";
    parts.installer_scripts = source + "/machine/inside/tools";
    parts.first_program = CABINET_INSIDE_FOLDER "/cabinet_init";
    parts.xfake = CABINET_INSIDE_FOLDER "/Xfake";
    parts.sample_application = CABINET_INSIDE_FOLDER "/qel_application_sample";

    require_file(parts.loader, "run machine/set_up.sh " + target + ", or name another loader in QEL_LOADER");
    require_file(parts.kernel_folder + "/vmlinux", "run machine/set_up.sh");
    for (const std::string &program : {parts.first_program, parts.xfake, parts.sample_application})
        require_file(program, "build the tools: cmake --preset tools && cmake --build --preset tools");
    return parts;
}
