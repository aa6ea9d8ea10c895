// Trees of files to be removed, copied and searched.
#pragma once

#include <string>

/// Makes `folders` folders with `files` files of 1000 bytes each; with 0 folders the files are in the top
/// one.
void make_tree(const std::string &path, int folders, int files);
/// The like of what Wine makes of a new prefix: 1,150 files of many sizes in 80 folders, some links.
void make_wine_prefix(const std::string &path);
/// Makes one file of so many bytes.
void make_file(const std::string &path, size_t bytes);
/// Lets the file system settle, so that nothing is written for the last contender while the next one runs.
void settle(const std::string &path);
