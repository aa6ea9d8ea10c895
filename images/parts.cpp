// Finds the pieces of a cabinet in the source tree that this program was built in.

#include "parts.h"

#include "common/files.h"

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>

namespace fs = std::filesystem;

namespace
{

/// The nearest folder around this program that holds `mark`.
std::string folder_with(const std::string &mark)
{
    fs::path folder = fs::read_symlink("/proc/self/exe");
    while (folder.has_relative_path()) {
        folder = folder.parent_path();
        if (fs::exists(folder / mark))
            return folder;
    }
    throw std::runtime_error(
        "this program is not in the source tree that makes the pieces of a cabinet; name "
        "each piece, or run the program that ./run builds");
}

std::string loader_for(const Target &target, const std::string &source)
{
    const char *other_loader = getenv("QEL_LOADER");
    if (other_loader != nullptr)
        return other_loader;
    return source + "/build/" + target.preset + "/src/qel_application_loader.stripped";
}

} // namespace

Parts find_parts(const std::string &target)
{
    Parts parts;
    parts.target = find_target(target);
    parts.source_folder = folder_with("machine/set_up.sh");
    parts.build_folder = folder_with("CMakeCache.txt");
    parts.loader = loader_for(parts.target, parts.source_folder);
    parts.work_folder = parts.source_folder + "/build/machine";
    parts.kernel_folder = parts.work_folder + "/kernel-" + target;
    parts.kernel = parts.kernel_folder + "/" + parts.target.kernel;
    if (!parts.target.programs.empty())
        parts.programs = parts.work_folder + "/" + parts.target.programs;
    parts.installer_scripts = parts.source_folder + "/machine/inside/tools";
    const std::string inside = parts.build_folder + "/machine/" + target;
    parts.first_program = inside + "/cabinet_init";
    parts.xfake = inside + "/Xfake";
    parts.sample_application = inside + "/qel_application_sample";

    const std::string set_up = "run machine/set_up.sh " + target;
    require_file(parts.loader, set_up + ", or name another loader in QEL_LOADER");
    require_file(parts.kernel, set_up);
    for (const std::string &program : {parts.first_program, parts.xfake, parts.sample_application})
        require_file(program,
                     set_up + ", and build the tools: cmake --preset tools && cmake --build --preset tools");
    return parts;
}
