/// A cabinet's storage and home folder as a scratch folder, in which the product runs with the real miniunz
/// and the real Wine of this host. The folder is the root of the product's own mount and process namespaces;
/// all that it starts ends with it. Needs root.
#pragma once

#include "support/scratch.h"

#include <functional>
#include <string>

class StorageRoom
{
  public:
    /// Holds /storage, /qel_home (a link to /tmp), /bin/miniunz and /usr/wine/bin/wine.
    StorageRoom();

    static constexpr char ended[] = "ended";
    /// Runs `statement` inside and waits for it. Returns `ended` when it came to its end, "stopped at
    /// UNIT:LINE" when the product stopped, and "exit code N" when its process ended otherwise, or something
    /// is wrong with the room. What it and its children print is then in `output`.
    std::string run(const std::function<void()> &statement);

    /// Makes an archive of a folder's content with the real zip.
    void zip(const std::string &folder, const std::string &archive) const;

    Scratch disk;
    std::string output;
};
