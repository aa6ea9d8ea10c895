// Files that the loader can run in its own place.
#pragma once

#include "fields.h"

#include <string>

/// Throws Failure unless the file fits a message and is a program for a cabinet: ELF, an executable or PIE,
/// for i386 or x86-64, that needs no interpreter; or a script. With `any_form` only its size counts.
void check_updater(const std::string &path, bool any_form);

/// The message that carries the file.
Message updater_message(const std::string &path);
