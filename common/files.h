// Files: read and written whole, made once and kept, and scratch folders. What fails is thrown as
// std::runtime_error with path and reason.
#pragma once

#include <functional>
#include <string>

/// An open file, closed wherever its scope is left.
struct Descriptor {
    int number;
    ~Descriptor();
};

/// The name under which an open file can be opened again.
std::string path_of(const Descriptor &descriptor);

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &bytes);

/// Copies the whole of `source` into the existing file `path` from byte `offset` on.
void write_file_at(const std::string &path, const std::string &source, unsigned long long offset);

/// Throws "FILE: not found; ADVICE" unless the file is there.
void require_file(const std::string &path, const std::string &advice);

/// A text that changes whenever the file does.
std::string stamp_of(const std::string &path);

/// Makes `file` by `make`, unless it is there and was made with the same `key`. Other processes that want it
/// wait.
void make_unless_same(const std::string &file, const std::string &key, const std::function<void()> &make);

/// A new empty folder below the system's temporary folder, removed at the end with all that is in it.
struct ScratchFolder {
    std::string path;
    ScratchFolder();
    ~ScratchFolder();
    ScratchFolder(const ScratchFolder &) = delete;
    ScratchFolder &operator=(const ScratchFolder &) = delete;

    /// The path of `name` in it.
    std::string at(const std::string &name) const;
};
