// What failing calls lead to in the operations on whole trees. A folder that cannot be read on counts as
// one that ends there.

#include "support/fault_product_rules.h"

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
    {"FindFileWithPrefix",
     "/storage/games app_2",
     find_application,
     {{"opendir *", any_fault, stops("dir", filesystem_unit, 433)},
      // app_1, games, app_2, the end of games, the end of storage.
      {"readdir #1", any_fault, gives(" ").then({"closedir"}).prints("")},
      {"readdir #2", any_fault,
       gives("/storage app_1").then({"closedir"}).prints("candidate: /storage/app_1\n")},
      {"readdir #3", any_fault,
       gives("/storage app_1")
           .then({"closedir", "readdir", "closedir"})
           .prints("candidate: /storage/app_1\n")},
      {"readdir", any_fault, ignored()},
      {"closedir", any_fault, ignored()}}},
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
     "1:",
     remove_contents,
     {// A folder that exists but cannot be opened keeps what it has.
      {"opendir /a", any_fault, gives("0: file sub/ sub/other").then({"stat /a"}).prints(REMOVING_A)},
      {"opendir /a/sub", any_fault,
       gives("0: sub/ sub/other").then({"stat /a/sub", "chmod /a/sub 0777", "rmdir /a/sub"})},
      // In the folder: file, sub, its end. In sub: other, its end.
      {"readdir #1", any_fault, gives("1: file sub/ sub/other").then({"closedir"}).prints(REMOVING_A)},
      {"readdir #2", any_fault,
       gives("1: sub/ sub/other")
           .then({"closedir", "chmod /a/file 0777", "unlink /a/file"})
           .prints(REMOVING_A)},
      {"readdir #4", any_fault,
       gives("0: sub/ sub/other").then({"closedir", "chmod /a/sub 0777", "rmdir /a/sub"})},
      {"readdir", any_fault, ignored()},
      {"closedir", any_fault, ignored()},
      {"chmod *", any_fault, ignored()},
      {"unlink /a/file", any_fault, gives("0: file").goes_on()},
      {"unlink /a/sub/other", any_fault, gives("0: sub/ sub/other").goes_on()},
      {"rmdir /a/sub", any_fault, gives("0: sub/").goes_on()}}},
    {"RmdirTree",
     "1:",
     remove_tree,
     {// What cannot be looked at is no folder.
      {"stat /top/a", any_fault,
       gives("0: a/ a/file")
           .then({"chmod /top/a 0777", "unlink /top/a"})
           .unprinted("removing contents of \"/top/a\"\n")},
      {"opendir /top/a", any_fault,
       gives("0: a/ a/file").then({"stat /top/a", "chmod /top/a 0777", "rmdir /top/a"})},
      {"readdir #1", any_fault,
       gives("0: a/ a/file").then({"closedir", "chmod /top/a 0777", "rmdir /top/a"})},
      {"readdir", any_fault, ignored()},
      {"closedir", any_fault, ignored()},
      {"chmod *", any_fault, ignored()},
      {"unlink /top/a/file", any_fault, gives("0: a/ a/file").goes_on()},
      {"rmdir /top/a", error({ENOENT}), gives("1: a/")},
      {"rmdir /top/a", any_fault, gives("0: a/")}}},
    {"RmdirTreeOfAFile",
     "1:",
     remove_file,
     {{"stat /top/a", any_fault, ignored()},
      {"chmod /top/a 0777", any_fault, ignored()},
      {"unlink /top/a", error({ENOENT}), gives("1: a")},
      {"unlink /top/a", any_fault, gives("0: a")}}},
    {"RmdirTreeOfNothing",
     "1",
     remove_nothing,
     {{"stat /a", any_fault, ignored()},
      {"chmod /a 0777", any_fault, ignored()},
      {"unlink /a", error({ENOENT}), ignored()},
      {"unlink /a", any_fault, gives("0")}}},
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
    {"RecurseFilesInFolder",
     "visited: /src/file to /dst/file /src/sub/other to /dst/sub/other ",
     walk,
     {{"opendir /src", any_fault, gives("visited: ")},
      {"opendir /src/sub", any_fault,
       gives("visited: /src/file to /dst/file ").then({"readdir", "closedir"})},
      {"readdir #1", any_fault, gives("visited: ").then({"closedir"})},
      {"readdir #2", any_fault, gives("visited: /src/file to /dst/file ").then({"closedir"})},
      {"readdir #3", any_fault,
       gives("visited: /src/file to /dst/file ").then({"closedir", "readdir", "closedir"})},
      {"readdir", any_fault, ignored()},
      {"closedir", any_fault, ignored()}}},
};

// ---- Copying ----

/// What becomes of a tree in which one file, of seven bytes, cannot be copied: the rest is.
std::vector<Rule> file_rules(const std::string &src, const std::string &dst, const std::string &without,
                             const std::string &with_part)
{
    const std::string chmod = "chmod " + dst + " 0777", open = "open " + dst + " *";
    const std::vector<Rule> rules = {
        {"stat " + src, any_fault,
         gives(without)
             .goes_on_without({chmod, "open *", "read 4096", "write 7", "close"})
             .unprinted("copy: " + src + " -> " + dst + "\n")},
        {chmod, any_fault, ignored()},
        {"open " + src + " O_RDONLY", any_fault,
         gives(without).goes_on_without({open, "read 4096", "write 7", "close", chmod})},
        {open, any_fault, gives(without).goes_on_without({"read 4096", "write 7", "close #2", chmod})},
        {"read 4096 #1", error_or_nothing, ignored().goes_on_without({"read 4096", "write 7"})},
        {"read 4096 #2", any_fault, ignored()},
        {"write 7", any_fault, gives(with_part).goes_on_without({"read 4096", chmod})},
        {"close", any_fault, ignored()}};
    return rules_of({rules, short_read_rules("read 4096 #1", 7)});
}

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

/// A folder of one file, `src`, read and ended.
std::vector<Rule> listing_rules(const std::string &src, const std::string &empty, const std::string &printed)
{
    return {{"opendir " + src, any_fault, gives("0" + empty).prints(printed)},
            {"readdir #1", any_fault, gives("1" + empty).then({"closedir"}).prints(printed)},
            {"readdir #2", any_fault, ignored()},
            {"closedir", any_fault, ignored()}};
}

#define COPYING_TREE                                                                                         \
    "copying dir tree \"/a/src\" to inside of folder \"/b\"...\nremoving dir tree \"/b/src\"\n"
#define COPYING_CONTENTS "copying contents of \"/a\" to inside of folder \"/b/dst\"...\n"
#define REMOVING_DST     "removing dir tree \"/b/dst\"\n"

/// What is not done to a file that cannot be opened in its new place.
const std::vector<std::string> without_target = {"read 4096", "write 7", "close #2", "chmod */file 0777 #4"};

const std::vector<Rule> copy_tree_rules =
    rules_of({{{"stat /b/src", any_fault, ignored()},
               {"chmod /b/src 0777", any_fault, ignored()},
               {"unlink /b/src", error({ENOENT}), ignored()},
               {"unlink /b/src", any_fault, gives("0:").prints(COPYING_TREE)},
               {"stat /b", any_fault, ignored()},
               {"mkdir /b 0755", any_fault,
                gives("0:")
                    .then({"stat /a/src", "mkdir /b/src 0755"})
                    .prints(COPYING_TREE "couldn't create folder: /b\n")},
               {"stat /a/src", any_fault, gives("0:").prints(COPYING_TREE)},
               // It is not there, so that the file in it cannot be opened.
               {"mkdir /b/src 0755", error({EEXIST}), gives("0:").goes_on_without(without_target)},
               {"mkdir /b/src 0755", any_fault, gives("0:").prints(COPYING_TREE)}},
              listing_rules("/a/src", ": src/", COPYING_TREE),
              {{"stat /b/src/file", any_fault, ignored()}, {"unlink /b/src/file", any_fault, ignored()}},
              file_rules("/a/src/file", "/b/src/file", "0: src/", "0: src/ src/file")});

const std::vector<Scenario> copies = {
    {"CopyWorker", "1: file", copy_worker,
     rules_of({{{"stat /a", any_fault, gives("0:").prints("")},
                {"mkdir /b 0755", error({EEXIST}), ignored()},
                {"mkdir /b 0755", any_fault, gives("0:").prints("")}},
               listing_rules("/a", ":", ""),
               file_rules("/a/file", "/b/file", "0:", "0: file")})},
    {"CopyWorkerInASubfolder",
     "1: sub/",
     copy_folder_in_folder,
     {{"stat /a", any_fault, gives("0:")},
      // It is not there, so that nothing can be made in it.
      {"mkdir /b 0755", error({EEXIST}),
       gives("0:").goes_on_without({"opendir /a/sub", "readdir #3", "closedir #1"})},
      {"mkdir /b 0755", any_fault, gives("0:")},
      {"opendir /a", any_fault, gives("0:")},
      {"readdir #1", any_fault, gives("1:").then({"closedir"})},
      {"stat /a/sub", any_fault, gives("0:").then({"readdir", "stat /a/x.tmp", "readdir", "closedir"})},
      {"mkdir /b/sub 0755", error({EEXIST}), gives("1:").goes_on()},
      {"mkdir /b/sub 0755", any_fault, gives("0:").then({"readdir", "stat /a/x.tmp", "readdir", "closedir"})},
      {"opendir /a/sub", any_fault,
       gives("0: sub/").then({"readdir", "stat /a/x.tmp", "readdir", "closedir"})},
      {"readdir #2", any_fault, ignored()},
      {"readdir #3", any_fault, ignored().then({"closedir"})},
      // Whether a rule leaves it out does not matter any more.
      {"stat /a/x.tmp", any_fault, gives("0: sub/").goes_on()},
      {"readdir #4", any_fault, ignored()},
      {"closedir", any_fault, ignored()}}},
    {"CopyTree", "1: src/ src/file", copy_tree, copy_tree_rules},
    {"CopyTreeByRules", "1: src/ src/file", copy_tree_by_rules, copy_tree_rules},
    {"CopyContents", "1: dst/ dst/file", copy_contents,
     rules_of({{{"stat /b/dst", any_fault, ignored()},
                {"chmod /b/dst 0777", any_fault, ignored()},
                {"unlink /b/dst", error({ENOENT}), ignored()},
                {"unlink /b/dst", any_fault, gives("0:").prints(COPYING_CONTENTS REMOVING_DST)},
                {"stat /b", any_fault, ignored()},
                {"mkdir /b 0755", any_fault,
                 gives("0:")
                     .then({"stat /a", "mkdir /b/dst 0755"})
                     .prints(COPYING_CONTENTS REMOVING_DST "couldn't create folder: /b\n")},
                {"stat /a", any_fault, gives("0:").prints(COPYING_CONTENTS REMOVING_DST)},
                {"mkdir /b/dst 0755", error({EEXIST}), gives("0:").goes_on_without(without_target)},
                {"mkdir /b/dst 0755", any_fault, gives("0:").prints(COPYING_CONTENTS REMOVING_DST)}},
               listing_rules("/a", ": dst/", COPYING_CONTENTS REMOVING_DST),
               {{"stat /b/dst/file", any_fault, ignored()}, {"unlink /b/dst/file", any_fault, ignored()}},
               file_rules("/a/file", "/b/dst/file", "0: dst/", "0: dst/ dst/file")})},
    {"MergeContents", "1: dst/ dst/file dst/old", merge_contents,
     rules_of({{// Passes for missing, and cannot be made; but that is of no interest.
                {"stat /b", any_fault,
                 ignored()
                     .goes_on_after({"mkdir /b 0755"})
                     .prints(COPYING_CONTENTS "couldn't create folder: /b\n"
                                              "copy: /a/file -> /b/dst/file\n")},
                {"stat /a", any_fault, gives("0: dst/ dst/old").prints(COPYING_CONTENTS)},
                {"mkdir /b/dst 0755", error({EEXIST}), ignored()},
                {"mkdir /b/dst 0755", any_fault, gives("0: dst/ dst/old").prints(COPYING_CONTENTS)}},
               listing_rules("/a", ": dst/ dst/old", COPYING_CONTENTS),
               file_rules("/a/file", "/b/dst/file", "0: dst/ dst/old", "0: dst/ dst/file dst/old")})},
};

} // namespace

INSTANTIATE_SWEEP(Searches, searches);
INSTANTIATE_SWEEP(Removals, removals);
INSTANTIATE_SWEEP(Walks, walks);
INSTANTIATE_SWEEP(Copies, copies);
