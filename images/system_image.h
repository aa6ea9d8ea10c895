// The system image: what the cabinet has below /usr, packed as cramfs.
#pragma once

#include "images/parts.h"
#include "images/stage.h"

#include <string>
#include <vector>

/// Writes a cramfs with these files; `place` is relative to /usr. Throws when it outgrows its partition.
void make_system_image(const std::string &image, const std::vector<FileAt> &files);

/// The same from a whole folder, which is what /usr will be. Throws also when a file is too large for a
/// cramfs.
void pack_system_image(const std::string &image, const std::string &folder);

/// The path of the usual system image: Debian's Xvfb behind Xfake, with its libraries and keyboard tables,
/// and the libraries of the sample application. It is made anew only when one of its files has changed.
std::string usual_system_image(const Parts &parts);

/// Throws std::runtime_error, with what to do, unless the file is a whole cramfs that fits its partition.
void check_system_image(const std::string &image);

/// The path of the system image that `named` stands for: an image as it is, a folder to pack, empty for the
/// usual one. The shared libraries that `application`, if it is not empty, needs besides are added and listed
/// on standard output; throws when something else is missing. Nothing can be added to an image, and an
/// application is not checked against one. New images are made in `folder`.
std::string system_image_for(const Parts &parts, const std::string &named, const std::string &application,
                             const std::string &folder);
