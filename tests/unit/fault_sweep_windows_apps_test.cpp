// What failing calls lead to in installing Windows applications: nearly everything is left aside and gone on
// with.

#include "support/fault_product_rules.h"

#include "qel_utility/qel_filesystem.h"

#include <errno.h>

namespace
{

std::string tree_of(const Ground &ground, const std::string &folder)
{
    std::string text = folder + ":";
    if (ground.disk.has(folder)) {
        for (const std::string &entry : ground.disk.tree(folder))
            text += " " + entry;
    }
    return text;
}

/// Starting a tool must work; how it ends does not matter. `output` is all that is printed when the end of
/// the tool cannot be learned.
std::vector<Rule> tool_rules(const std::string &output)
{
    return {{"socketpair *", any_fault, stops("!err", filesystem_unit, 1686)},
            {"fork", any_fault, stops("pid != -1", filesystem_unit, 1696)},
            {"shutdown 2", any_fault, ignored()},
            {"waitpid 4711 0", error({EINTR}), ignored().goes_on_after({"waitpid 4711 0"})},
            {"waitpid 4711 0", any_fault, ignored().prints(output)},
            {"close", any_fault, ignored()}};
}

#define SCANNING   "Scanning for Windows applications...\n"
#define INSTALLING "Installing Windows application files and registry keys...\n"
#define FINISHED   "...Finished installing Windows applications.\n"
#define WINE_EXIT  "exit 0: /usr/wine/bin/wine\n"

// ---- Unpacking ----

std::string unpack(Ground &ground)
{
    ground.disk.make_file("/storage/archives/app.pkg");
    ground.disk.make_folder("/qel_home/.wine/reg_keys");
    qel_install_windows_apps();
    return tree_of(ground, "/storage");
}

#define UNPACKING   "Installing new windows application - app.pkg\n"
#define NO_ARCHIVES "/storage: archives/ archives/app.pkg"

const std::vector<Scenario> unpacking = {
    {"UnpackArchives", "/storage: archives/ win_apps/", unpack,
     rules_of({tool_rules(SCANNING UNPACKING "exit 0: /bin/miniunz\nDone.\n" INSTALLING FINISHED),
               {{"opendir /storage/archives", any_fault,
                 gives(NO_ARCHIVES).then({"opendir /storage/win_apps"}).unprinted(UNPACKING "Done.\n")},
                {"readdir #1", any_fault,
                 gives(NO_ARCHIVES)
                     .then({"closedir", "opendir /storage/win_apps"})
                     .unprinted(UNPACKING "Done.\n")},
                {"mkdir /storage/win_apps 0755", error({EEXIST}),
                 gives("/storage: archives/")
                     .goes_on_without(
                         {"readdir #3", "readdir #4", "closedir #2", "closedir #3", "opendir /qel_home/*"})},
                {"mkdir /storage/win_apps 0755", any_fault, stops(not_eexist, filesystem_unit, 2217)},
                {"chmod /storage/archives/app.pkg 0777", any_fault, ignored()},
                {"unlink /storage/archives/app.pkg", any_fault,
                 gives("/storage: archives/ archives/app.pkg win_apps/").goes_on()},
                // Without applications there are no registry files to import.
                {"opendir /storage/win_apps", any_fault, ignored().then({})},
                {"opendir /qel_home/.wine/reg_keys", any_fault, ignored().then({"closedir"})},
                {"readdir", any_fault, ignored()},
                {"closedir", any_fault, ignored()}}})},
};

// ---- Linking ----

std::string link_files(Ground &ground)
{
    ground.disk.make_file("/app/reg_keys/s.reg");
    ground.disk.make_folder("/prefix");
    qel_install_win_app_files("/app", "/prefix");
    return tree_of(ground, "/prefix");
}

#define IN_FOLDER "Installing windows app file:\n    source: /app/reg_keys\n    link: /prefix/reg_keys\n"
#define OF_FILE                                                                                              \
    "Installing windows app file:\n    source: /app/reg_keys/s.reg\n    link: /prefix/reg_keys/s.reg\n"
#define LINKED "/app/reg_keys/s.reg -> /prefix/reg_keys/s.reg\n"

const std::vector<Scenario> linking = {
    {"InstallWinAppFiles", "/prefix: reg_keys/ reg_keys/s.reg", link_files,
     rules_of({{{"opendir /app", any_fault, gives("/prefix:").prints("")},
                {"readdir #1", any_fault, gives("/prefix:").then({"closedir"}).prints("")},
                {"opendir /app/reg_keys", any_fault,
                 gives("/prefix:").then({"readdir", "closedir"}).prints(IN_FOLDER)},
                {"readdir #2", any_fault,
                 gives("/prefix:").then({"closedir", "readdir", "closedir"}).prints(IN_FOLDER)},
                // Passes for missing, and cannot be made; the link is tried all the same, and made.
                {"stat /prefix", any_fault,
                 stops(not_eexist, filesystem_unit, 1892)
                     .then({"mkdir /prefix 0755", "unlink *", "symlink *"})
                     .prints(IN_FOLDER OF_FILE "couldn't create folder: /prefix\n" LINKED
                                               "symlink error : ENOENT\nerror code : 2\n")},
                {"stat /prefix/reg_keys", any_fault, ignored()},
                {"mkdir /prefix/reg_keys 0755", any_fault,
                 stops(not_eexist, filesystem_unit, 1892)
                     .then({"unlink *", "symlink *"})
                     .prints(IN_FOLDER OF_FILE "couldn't create folder: /prefix/reg_keys\n" LINKED
                                               "symlink error : ENOENT\nerror code : 2\n")},
                {"unlink *", any_fault, ignored()},
                {"readdir", any_fault, ignored()},
                {"closedir", any_fault, ignored()}},
               symlink_rules(gives("/prefix: reg_keys/").goes_on())})},
};

// ---- Registry files ----

std::string import(Ground &ground)
{
    ground.disk.make_file("/keys/s.reg");
    qel_import_reg_files("/keys");
    return "tried";
}

std::string import_one(Ground &)
{
    qel_wine_import_reg("/keys/s.reg");
    return "tried";
}

#define IMPORTING "Attemping to import registry file: /keys/s.reg\n"

const std::vector<Scenario> importing = {
    {"ImportRegFiles", "tried", import,
     rules_of({tool_rules(IMPORTING WINE_EXIT),
               {{"opendir /keys", any_fault, gives("tried").prints("")},
                {"readdir #1", any_fault, gives("tried").then({"closedir"}).prints("")},
                {"readdir #2", any_fault, ignored()},
                {"closedir", any_fault, ignored()}}})},
    {"WineImportReg", "tried", import_one, tool_rules(IMPORTING WINE_EXIT)},
};

// ---- The whole ----

/// One application with a registry file, no archives.
std::string install_apps(Ground &ground)
{
    ground.disk.make_file("/storage/win_apps/app/reg_keys/s.reg");
    ground.disk.make_folder("/qel_home/.wine/reg_keys");
    qel_install_windows_apps();
    return tree_of(ground, "/qel_home/.wine");
}

#define NO_LINK "/qel_home/.wine: reg_keys/"
#define START   SCANNING INSTALLING
#define APP_FOLDER                                                                                           \
    "Installing windows app file:\n    source: /storage/win_apps/app/reg_keys\n    link: "                   \
    "/qel_home/.wine/reg_keys\n"
#define APP_FILE                                                                                             \
    "Installing windows app file:\n    source: /storage/win_apps/app/reg_keys/s.reg\n    link: "             \
    "/qel_home/.wine/reg_keys/s.reg\n"
#define APP_LINKED   "/storage/win_apps/app/reg_keys/s.reg -> /qel_home/.wine/reg_keys/s.reg\n"
#define KEY_IMPORTED "Attemping to import registry file: /qel_home/.wine/reg_keys/s.reg\n"

/// The rest of a walk that ends before its file, with `ends` open folders to be read to their ends; the
/// outermost stays open until the empty reg_keys has been read.
std::vector<std::string> nothing_linked(int ends)
{
    std::vector<std::string> calls;
    for (int i = 1; i < ends; i++)
        calls.insert(calls.end(), {"readdir", "closedir"});
    if (ends > 0)
        calls.push_back("readdir");
    calls.insert(calls.end(), {"opendir /qel_home/.wine/reg_keys", "readdir", "closedir", "closedir"});
    return calls;
}

/// The same after a folder that is closed because it could not be read on.
std::vector<std::string> closed_and(const std::vector<std::string> &calls)
{
    std::vector<std::string> all = {"closedir"};
    all.insert(all.end(), calls.begin(), calls.end());
    return all;
}

/// A folder that cannot be looked at passes for missing, and cannot be made: the folders below it are not
/// looked at, but the link is made all the same.
Rule hidden_folder(const std::string &folder)
{
    return {"stat " + folder, any_fault,
            ignored()
                .goes_on_without({"stat *"})
                .goes_on_after({"mkdir " + folder + " 0755"})
                .prints(START APP_FOLDER APP_FILE "couldn't create folder: " + folder +
                        "\n" APP_LINKED KEY_IMPORTED FINISHED)};
}

const std::vector<Scenario> wholes = {
    {"InstallWindowsApps", NO_LINK " reg_keys/s.reg", install_apps,
     rules_of(
         {tool_rules(START APP_FOLDER APP_FILE APP_LINKED KEY_IMPORTED WINE_EXIT FINISHED),
          {
              // There are none in the first place.
              {"opendir /storage/archives", any_fault, ignored()},
              {"opendir /storage/win_apps", any_fault, gives(NO_LINK).prints(START FINISHED)},
              {"opendir /storage/win_apps/app", any_fault,
               gives(NO_LINK).then(nothing_linked(1)).prints(START FINISHED)},
              {"opendir /storage/win_apps/app/reg_keys", any_fault,
               gives(NO_LINK).then(nothing_linked(2)).prints(START APP_FOLDER FINISHED)},
              {"opendir /qel_home/.wine/reg_keys", any_fault,
               ignored().then({"closedir"}).unprinted(KEY_IMPORTED)},
              // The applications, the application, its folder; then their ends, but for the first; the
              // imports.
              {"readdir #1", any_fault, gives(NO_LINK).then(nothing_linked(0)).prints(START FINISHED)},
              {"readdir #2", any_fault,
               gives(NO_LINK).then(closed_and(nothing_linked(1))).prints(START FINISHED)},
              {"readdir #3", any_fault,
               gives(NO_LINK).then(closed_and(nothing_linked(2))).prints(START APP_FOLDER FINISHED)},
              {"readdir #7", any_fault, ignored().then({"closedir", "closedir"}).unprinted(KEY_IMPORTED)},
              {"readdir", any_fault, ignored()},
              {"closedir", any_fault, ignored()},
              hidden_folder("/qel_home"),
              hidden_folder("/qel_home/.wine"),
              hidden_folder("/qel_home/.wine/reg_keys"),
              {"unlink *", any_fault, ignored()},
          },
          symlink_rules(gives(NO_LINK).then(nothing_linked(3)).unprinted(KEY_IMPORTED))})},
};

} // namespace

INSTANTIATE_SWEEP(Unpacking, unpacking);
INSTANTIATE_SWEEP(Linking, linking);
INSTANTIATE_SWEEP(Importing, importing);
INSTANTIATE_SWEEP(WindowsApps, wholes);
