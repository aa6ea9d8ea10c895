/// A folder of a test's own, gone when the test is over (not when a process forked in it is), and the verbs
/// to fill it and look into it. Paths are relative to the folder; a leading slash is welcome, so that with
/// FakeKernel(scratch.path()) the test and the product speak of the same "/storage/file". Links are never
/// followed out of it.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

struct Scratch {
    Scratch();
    ~Scratch();

    const std::string &path() const
    {
        return folder;
    }
    /// Where `path` of the scratch folder lies for everybody else.
    std::string at(const std::string &path) const;

    // ---- Filling; parents are made as needed ----

    void make_folder(const std::string &path) const;
    void make_file(const std::string &path, const std::string &content = "", mode_t mode = 0644) const;
    void make_link(const std::string &path, const std::string &content) const;
    void make_socket(const std::string &path) const;

    // ---- Looking ----

    /// 1 when there is an entry, a dangling link included.
    int has(const std::string &path) const;
    int is_folder(const std::string &path) const;
    int is_link(const std::string &path) const;
    std::string content(const std::string &path) const;
    std::string link_content(const std::string &path) const;
    /// Permission bits.
    mode_t mode(const std::string &path) const;
    /// Everything below `path`, relative to it, sorted, folders with a slash at the end.
    std::vector<std::string> tree(const std::string &path) const;
    /// The names in the folder, in directory order.
    std::vector<std::string> names(const std::string &path) const;
    std::string folder;
    pid_t maker;
};
