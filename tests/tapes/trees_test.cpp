// Whole trees. A folder that cannot be read on counts as one that ends there.

#include "tapes/golden.h"

#include "qel_utility/qel_filesystem.h"

namespace
{

/// Works on a tree that has these files, and what is then below a folder: "1: file sub/ sub/other".
Scenario on_tree(const char *name, const std::vector<std::string> &files, const std::string &folder,
                 const std::function<int()> &work, const std::vector<std::string> &may_end)
{
    const auto run = [=](Ground &ground) {
        for (const std::string &file : files)
            file.back() == '/' ? ground.disk.make_folder(file) : ground.disk.make_file(file, "7 bytes");
        std::string text = std::to_string(work()) + ":";
        for (const std::string &entry :
             ground.disk.has(folder) ? ground.disk.tree(folder) : std::vector<std::string>())
            text += " " + entry.substr(0, 20);
        return text;
    };
    return {name, run, may_end};
}

// ---- Search and walk ----

std::string find_application(Ground &ground)
{
    ground.disk.make_file("/storage/games/app_2");
    ground.disk.make_file("/storage/app_1");
    char folder[1000] = "", name[1000] = "";
    qel_find_file_with_prefix("/storage", "app_", folder, name);
    return std::string(folder) + " " + name;
}

int note(const char *source, const char *destination, void *notes)
{
    *static_cast<std::string *>(notes) += std::string(source) + " to " + destination + " ";
    return 0;
}

std::string walk(Ground &ground)
{
    ground.disk.make_file("/src/file");
    ground.disk.make_file("/src/sub/other");
    std::string notes = "visited: ";
    qel_recurse_files_in_folder("/src", "/dst", note, &notes);
    return notes;
}

// ---- Removing ----

const std::vector<Scenario> removals = {
    on_tree("RmdirContents", {"/a/file", "/a/sub/other"}, "/a", [] { return qel_rmdircontents("/a"); },
            {"0: file", "0: file sub/ sub/other", "0: sub/", "0: sub/ sub/other", "1: file sub/ sub/other",
             "1: sub/ sub/other"}),
    on_tree("RmdirTree", {"/top/a/file"}, "/top", [] { return qel_rmdirtree("/top/a"); },
            {"0: a/", "0: a/ a/file", "1: a/"}),
    on_tree("RmdirTreeOfAFile", {"/top/a"}, "/top", [] { return qel_rmdirtree("/top/a"); }, {"0: a", "1: a"}),
    on_tree("RmdirTreeOfNothing", {}, "/", [] { return qel_rmdirtree("/a"); }, {"0:"}),
};

// ---- Copying ----

const qel_copy_foo keep_file = {0, "file"}, leave_out_tmp = {1, "*.tmp"};

const std::vector<Scenario> workers = {
    on_tree("CopyWorker", {"/a/file", "/b/"}, "/b", [] { return _qel_cpdirtree("/a", "/b", 0); },
            {"0:", "0: file", "1:"}),
    on_tree("CopyWorkerInASubfolder", {"/a/sub/", "/a/x.tmp"}, "/b",
            [] { return _qel_cpdirtree_with_foo("/a", "/b", 0, &leave_out_tmp, 1); },
            {"0:", "0: sub/", "1:"}),
};

const std::vector<std::string> after_a_fault = {"0:", "0: src/", "0: src/ src/file", "1: src/"};

const std::vector<Scenario> tree_copies = {
    on_tree(
        "CopyTree", {"/a/src/file"}, "/b", [] { return qel_cpdirtree("/a/src", "/b"); }, after_a_fault),
    on_tree(
        "CopyTreeByRules", {"/a/src/file"}, "/b",
        [] { return qel_cpdirtree_with_foo("/a/src", "/b", &keep_file, 1); }, after_a_fault),
};

const std::vector<Scenario> content_copies = {
    on_tree("CopyContents", {"/a/file"}, "/b", [] { return qel_cpdircontents("/a", "/b/dst"); },
            {"0:", "0: dst/", "0: dst/ dst/file", "1: dst/"}),
    on_tree("MergeContents", {"/a/file", "/b/dst/old"}, "/b",
            [] { return qel_mergedircontents("/a", "/b/dst"); },
            {"0: dst/ dst/file dst/old", "0: dst/ dst/old", "1: dst/ dst/old"}),
};

// ---- Long paths ----

/// A copy from and to folders with names of 255 bytes; the paths of files have `bytes` bytes.
Scenario copy_long(const char *name, size_t bytes, const std::vector<std::string> &may_end)
{
    const std::string folder = "/a/" + std::string(255, 'd') + "/";
    return cut(on_tree(
                   name, {folder + std::string(bytes - folder.size(), 'f')}, "/b",
                   [] { return _qel_cpdirtree("/a", "/b", 0); }, may_end),
               "opendir /a/*");
}

const std::vector<Scenario> long_paths = {
    copy_long("CopyOfALongestPath", 511, {"0:*", "1:*"}),
    copy_long("CopyOfATooLongPath", 512, {"0:*", "1:*"}),
};

} // namespace

INSTANTIATE_TAPES(searches, {{"FindFileWithPrefix", find_application, {" ", "/storage app_1"}}});
INSTANTIATE_TAPES(removals, removals);
INSTANTIATE_TAPES(walks, {{"RecurseFilesInFolder", walk, {"visited: ", "visited: /src/file to /dst/file "}}});
INSTANTIATE_TAPES(copy_workers, workers);
INSTANTIATE_TAPES(copy_trees, tree_copies);
INSTANTIATE_TAPES(copy_contents, content_copies);
INSTANTIATE_TAPES(long_paths, long_paths);
