/// The file-system library: checked path handling, file and folder operations, directory trees, child
/// processes and links, mounts and device nodes.
///
/// How it fails: a programming fault (null pointer, wrong path, impossible size) and a system call that
/// must not fail stop the program through an assertion or a fatal error (qel_log.h); the number given with
/// each function is the line that the stop reports, always of the unit qel_utility/qel_filesystem.
/// Ordinary run-time outcomes are results: 1 or 0 for tests and composite operations, 0 or -1 with
/// errno for thin wrappers. Progress lines are printed with printf and not flushed.
#pragma once

#include "qel_utility/qel_filesystem/paths.h"        // IWYU pragma: export
#include "qel_utility/qel_filesystem/files.h"        // IWYU pragma: export
#include "qel_utility/qel_filesystem/diagnostics.h"  // IWYU pragma: export
#include "qel_utility/qel_filesystem/trees.h"        // IWYU pragma: export
#include "qel_utility/qel_filesystem/processes.h"    // IWYU pragma: export
#include "qel_utility/qel_filesystem/mounts.h"       // IWYU pragma: export
#include "qel_utility/qel_filesystem/device_nodes.h" // IWYU pragma: export
#include "qel_utility/qel_filesystem/windows_apps.h" // IWYU pragma: export
