// The disk checker: judges whether the loader's installer has left a disk well. It only reads, and it
// relies on nothing that it can look at itself.
#pragma once

#include <string>
#include <vector>

/// What is to be checked, and with what the disk's content is compared. Empty names: not compared, but
/// still looked at for what the file says about itself.
struct DiskCheck {
    std::string disk; ///< an image or a device
    std::string kernel;
    std::string system_image;
};

/// Something that was looked at. The text begins with where it is.
struct Finding {
    bool good;
    std::string text;
};

/// Looks at everything that can still be reached; later findings are missing when an earlier fault, such as
/// a wrong partition table, leaves nothing to look at. Throws std::runtime_error when the disk or a file to
/// compare with cannot be read.
std::vector<Finding> check_disk(const DiskCheck &check);

/// True when there is no fault among them.
bool all_good(const std::vector<Finding> &findings);
