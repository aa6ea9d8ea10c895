// Where the pieces of a cabinet are that other builds make: the loader, the kernel and the programs that
// run inside the machine.
#pragma once

#include "common/target.h"

struct Parts {
    Target target;
    std::string source_folder; ///< the source tree
    std::string
        build_folder;   ///< where CMake has built the programs that run inside the machine, and this one
    std::string loader; ///< the stripped static loader
    std::string kernel_folder; ///< holds vmlinux, bzImage and gen_init_cpio (machine/kernel/build.sh)
    std::string kernel;        ///< the file there that QEMU loads
    std::string programs;      ///< the folder that stands for / of the Debian whose programs run inside
    std::string first_program; ///< /init of the RAM disk
    std::string xfake;
    std::string sample_application;
    std::string installer_scripts; ///< folder of the scripts sfdisk, mkdosfs and syslinux
    std::string work_folder;       ///< where images that can be used again are kept
};

/// The parts of this source tree, with the loader for `target`; QEL_LOADER in the environment names another
/// loader. Throws std::runtime_error when one is missing, with the command that makes it.
Parts find_parts(const std::string &target = targets.front());
