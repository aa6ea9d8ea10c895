// Finds the pieces of a cabinet in the source tree's build folders, whose places CMake compiles in.

#include "parts.h"

#include "tools.h"

#include <stdlib.h>

#include <filesystem>

Parts find_parts()
{
    const char *other_loader = getenv("QEL_LOADER");
    std::string source = CABINET_SOURCE_FOLDER, build = source + "/build";
    Parts parts;
    parts.loader =
        other_loader != nullptr ? other_loader : build + "/product/src/qel_application_loader.stripped";
    parts.work_folder = build + "/machine";
    parts.kernel_folder = parts.work_folder + "/kernel";
    parts.installer_scripts = source + "/machine/inside/tools";
    parts.first_program = CABINET_INSIDE_FOLDER "/cabinet_init";
    parts.xfake = CABINET_INSIDE_FOLDER "/Xfake";
    parts.sample_application = CABINET_INSIDE_FOLDER "/qel_application_sample";

    require_file(parts.loader, "run machine/set_up.sh, or name another loader in QEL_LOADER");
    require_file(parts.kernel_folder + "/vmlinux", "run machine/set_up.sh");
    for (const std::string &program : {parts.first_program, parts.xfake, parts.sample_application})
        require_file(program, "build the tools: cmake --preset test && cmake --build --preset test");
    return parts;
}
