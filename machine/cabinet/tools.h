// Small helpers of the host side: files, scratch folders, and other programs run to their end.
#pragma once

#include <functional>
#include <set>
#include <string>
#include <vector>

/// Runs a program found through PATH and returns what it prints, errors included. Throws
/// std::runtime_error with that text when it cannot be started or does not end with 0.
std::string run_tool(const std::vector<std::string> &command, const std::string &input = "");

/// The shared libraries that a program of this computer needs, as paths; the dynamic loader is not one.
std::set<std::string> libraries_of(const std::string &program);

/// Where a program of this computer is, looked for in PATH and where Debian keeps root's tools.
std::string find_tool(const std::string &name);

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &bytes);

/// Copies the whole of `source` into the existing file `path` from byte `offset` on.
void write_file_at(const std::string &path, const std::string &source, unsigned long long offset);

/// Throws std::runtime_error "FILE: not found; ADVICE" unless the file is there.
void require_file(const std::string &path, const std::string &advice);

/// A text that changes whenever the file does.
std::string stamp_of(const std::string &path);

/// Makes `file` by `make`, unless it is there and was made with the same `key`. Whoever wants it meanwhile
/// waits.
void make_unless_same(const std::string &file, const std::string &key, const std::function<void()> &make);

/// A new empty folder below the system's temporary folder, removed with all that is in it at the end.
struct ScratchFolder {
    std::string path;
    ScratchFolder();
    ~ScratchFolder();
    ScratchFolder(const ScratchFolder &) = delete;
    ScratchFolder &operator=(const ScratchFolder &) = delete;
};
