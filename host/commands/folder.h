// A folder that is shown to the other end as its root: "/a/b" means FOLDER/a/b. No path leads out of it: ".."
// is refused, and symbolic links are not followed, whatever is in the folder.
//
// Problems come back as text, "" without one.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

struct Folder {
    std::string path;
    int descriptor = -1;
};

/// A file that is being received. It is NAME.part, next to its place, until it is whole.
struct IncomingFile {
    std::string path; ///< as the other end gave it; "" when no file is being received
    std::string name; ///< its last part
    int folder = -1;  ///< where it goes
    int file = -1;
    uint64_t bytes = 0;
};

/// Opens an existing folder; throws Failure when it cannot.
Folder folder_open(const std::string &path);

bool folder_has(const Folder &folder, const std::string &path);

/// The size of a regular file; 0 for anything else, or when it is not there.
uint64_t folder_file_size(const Folder &folder, const std::string &path);

/// The files in a folder whose names are decimal numbers from 1 on, in order.
std::vector<uint64_t> folder_numbers(const Folder &folder, const std::string &path);

// ---- Receiving files ----

/// Begins the file `path`, making the folders that lead to it. One that was not ended is discarded.
std::string incoming_begin(IncomingFile &incoming, const Folder &folder, const std::string &path);

/// Adds to it. After a problem the file is discarded.
std::string incoming_add(IncomingFile &incoming, const std::string &bytes);

/// Puts it in its place, with this mode.
std::string incoming_end(IncomingFile &incoming, unsigned mode);

/// Discards what has come of it.
void incoming_drop(IncomingFile &incoming);
