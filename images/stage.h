// Files on their way into an image.
#pragma once

#include <string>
#include <vector>

/// A file to put somewhere: `place` is where it goes, `source` a file of this computer.
struct FileAt {
    std::string place;
    std::string source;
};

/// All that is in a folder.
std::vector<FileAt> files_of_folder(const std::string &folder);

/// Copies the files below `folder`, making the folders of their places. Of two in one place, the later stays.
void stage(const std::string &folder, const std::vector<FileAt> &files);

/// Unpacks an archive with the cabinet's own tool into a folder that it makes in `folder`; returns its path.
std::string unpack(const std::string &archive, const std::string &folder);
