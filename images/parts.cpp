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

std::string loader_for(const std::string &target, const std::string &source)
{
    const char *other_loader = getenv("QEL_LOADER");
    if (other_loader != nullptr)
        return other_loader;
    std::string preset = target == "x86-64" ? "product" : "product-" + target;
    return source + "/build/" + preset + "/src/qel_application_loader.stripped";
}

} // namespace

Parts find_parts(const std::string &target)
{
    Parts parts;
    parts.target = target;
    parts.source_folder = folder_with("machine/set_up.sh");
    parts.build_folder = folder_with("CMakeCache.txt");
    parts.loader = loader_for(target, parts.source_folder);
    parts.work_folder = parts.source_folder + "/build/machine";
    parts.kernel_folder = parts.work_folder + "/kernel";
    parts.installer_scripts = parts.source_folder + "/machine/inside/tools";
    parts.first_program = parts.build_folder + "/machine/cabinet_init";
    parts.xfake = parts.build_folder + "/machine/Xfake";
    parts.sample_application = parts.build_folder + "/machine/qel_application_sample";

    require_file(parts.loader, "run machine/set_up.sh " + target + ", or name another loader in QEL_LOADER");
    require_file(parts.kernel_folder + "/vmlinux", "run machine/set_up.sh");
    for (const std::string &program : {parts.first_program, parts.xfake, parts.sample_application})
        require_file(program, "build the tools: cmake --preset tools && cmake --build --preset tools");
    return parts;
}
