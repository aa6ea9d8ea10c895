// What failing calls lead to in the operations on whole trees. A folder that cannot be read on counts as
// one that ends there.

#include "tapes/golden.h"

#include "qel_utility/qel_filesystem.h"

#include <errno.h>
#include <string.h>

namespace
{

/// A result and all that is below a folder: "1: file sub/ sub/other".
std::string left_in(const Ground &ground, const std::string &folder, int result)
{
    std::string text = std::to_string(result) + ":";
    if (ground.disk.has(folder)) {
        for (const std::string &entry : ground.disk.tree(folder))
            text += " " + entry;
    }
    return text;
}

// ---- Search ----

std::string find_application(Ground &ground)
{
    ground.disk.make_file("/storage/games/app_2");
    ground.disk.make_file("/storage/app_1");
    char folder[1000] = "", name[1000] = "";
    qel_find_file_with_prefix("/storage", "app_", folder, name);
    return std::string(folder) + " " + name;
}

const std::vector<Scenario> searches = {
    {"FindFileWithPrefix", find_application, {" ", "/storage app_1"}},
};

// ---- Removing ----

std::string remove_contents(Ground &ground)
{
    ground.disk.make_file("/a/file");
    ground.disk.make_file("/a/sub/other");
    const int result = qel_rmdircontents("/a");
    return left_in(ground, "/a", result);
}

std::string remove_tree(Ground &ground)
{
    ground.disk.make_file("/top/a/file");
    const int result = qel_rmdirtree("/top/a");
    return left_in(ground, "/top", result);
}

std::string remove_file(Ground &ground)
{
    ground.disk.make_file("/top/a");
    const int result = qel_rmdirtree("/top/a");
    return left_in(ground, "/top", result);
}

std::string remove_nothing(Ground &)
{
    return std::to_string(qel_rmdirtree("/a"));
}

#define REMOVING_A     "removing contents of \"/a\"\n"
#define REMOVING_A_SUB "removing contents of \"/a/sub\"\n"

const std::vector<Scenario> removals = {
    {"RmdirContents",
     remove_contents,
     {"0: file", "0: file sub/ sub/other", "0: sub/", "0: sub/ sub/other", "1: file sub/ sub/other",
      "1: sub/ sub/other"}},
    {"RmdirTree", remove_tree, {"0: a/", "0: a/ a/file", "1: a/"}},
    {"RmdirTreeOfAFile", remove_file, {"0: a", "1: a"}},
    {"RmdirTreeOfNothing", remove_nothing, {"0"}},
};

// ---- Walking ----

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

const std::vector<Scenario> walks = {
    {"RecurseFilesInFolder", walk, {"visited: ", "visited: /src/file to /dst/file "}},
};

// ---- Copying ----

std::string copy_worker(Ground &ground)
{
    ground.disk.make_file("/a/file", "7 bytes");
    ground.disk.make_folder("/b");
    const int result = _qel_cpdirtree("/a", "/b", 0);
    return left_in(ground, "/b", result);
}

std::string copy_tree(Ground &ground)
{
    ground.disk.make_file("/a/src/file", "7 bytes");
    const int result = qel_cpdirtree("/a/src", "/b");
    return left_in(ground, "/b", result);
}

std::string copy_tree_by_rules(Ground &ground)
{
    const qel_copy_foo rule = {0, "file"};
    ground.disk.make_file("/a/src/file", "7 bytes");
    const int result = qel_cpdirtree_with_foo("/a/src", "/b", &rule, 1);
    return left_in(ground, "/b", result);
}

std::string copy_contents(Ground &ground)
{
    ground.disk.make_file("/a/file", "7 bytes");
    const int result = qel_cpdircontents("/a", "/b/dst");
    return left_in(ground, "/b", result);
}

std::string merge_contents(Ground &ground)
{
    ground.disk.make_file("/a/file", "7 bytes");
    ground.disk.make_file("/b/dst/old", "stays");
    const int result = qel_mergedircontents("/a", "/b/dst");
    return left_in(ground, "/b", result);
}

std::string copy_folder_in_folder(Ground &ground)
{
    const qel_copy_foo rule = {1, "*.tmp"};
    ground.disk.make_folder("/a/sub");
    ground.disk.make_file("/a/x.tmp");
    const int result = _qel_cpdirtree_with_foo("/a", "/b", 0, &rule, 1);
    return left_in(ground, "/b", result);
}

#define COPYING_TREE                                                                                         \
    "copying dir tree \"/a/src\" to inside of folder \"/b\"...\nremoving dir tree \"/b/src\"\n"
#define COPYING_CONTENTS "copying contents of \"/a\" to inside of folder \"/b/dst\"...\n"
#define REMOVING_DST     "removing dir tree \"/b/dst\"\n"

/// What is not done to a file that cannot be opened in its new place.
const std::vector<std::string> without_target = {"read 4096", "write 7", "close #2", "chmod */file 0777 #4"};

const std::vector<Scenario> workers = {
    {"CopyWorker", copy_worker, {"0:", "0: file", "1:"}},
    {"CopyWorkerInASubfolder", copy_folder_in_folder, {"0:", "0: sub/", "1:"}},
};

const std::vector<Scenario> tree_copies = {
    {"CopyTree", copy_tree, {"0:", "0: src/", "0: src/ src/file", "1: src/"}},
    {"CopyTreeByRules", copy_tree_by_rules, {"0:", "0: src/", "0: src/ src/file", "1: src/"}},
};

const std::vector<Scenario> content_copies = {
    {"CopyContents", copy_contents, {"0:", "0: dst/", "0: dst/ dst/file", "1: dst/"}},
    {"MergeContents", merge_contents, {"0: dst/ dst/file dst/old", "0: dst/ dst/old", "1: dst/ dst/old"}},
};

} // namespace

INSTANTIATE_TAPES(searches, searches);
INSTANTIATE_TAPES(removals, removals);
INSTANTIATE_TAPES(walks, walks);
INSTANTIATE_TAPES(copy_workers, workers);
INSTANTIATE_TAPES(copy_trees, tree_copies);
INSTANTIATE_TAPES(copy_contents, content_copies);
