// The factory stick: boots a cabinet, installs it without a question, and leaves a disk that boots by
// itself. Before it is written, everything that would go wrong at the line is tried out here.
#pragma once

#include "images/layout.h"

#include <functional>
#include <string>

/// What a cabinet is to be made from. Empty names leave the piece out.
struct Delivery {
    std::string kernel;       ///< the boot file, kernel and RAM disk in one
    std::string system_image; ///< a cramfs
    std::string storage;      ///< a folder, or an archive made of one, with what /storage holds
    std::string application;  ///< a program that is on the stick as well as the archive
    unsigned long long disk_bytes = 128 * mebibyte; ///< size of the internal disk that it is for
};

/// Called before each step.
using Progress = std::function<void(const std::string &step)>;

/// Writes the disk as the installer and the first start would leave it. Throws std::runtime_error, saying
/// what to do, when the delivery cannot make a cabinet: a file is missing, is not what it should be, or does
/// not fit; or there is no application.
void make_installed_disk(const std::string &image, const Delivery &delivery, const Progress &progress);

/// Tries the delivery out as make_installed_disk does, and writes the stick as an image.
void make_factory_stick(const std::string &image, const Delivery &delivery, const Progress &progress);
