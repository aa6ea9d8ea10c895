// What failing calls lead to in installing Windows applications: nearly everything is left aside and gone on
// with.

#include "tapes/golden.h"

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
    {"UnpackArchives",
     unpack,
     {"/storage: archives/", "/storage: archives/ archives/app.pkg",
      "/storage: archives/ archives/app.pkg win_apps/"}},
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
    {"InstallWinAppFiles", link_files, {"/prefix:", "/prefix: reg_keys/"}},
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
    {"ImportRegFiles", import},
    {"WineImportReg", import_one},
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

const std::vector<Scenario> wholes = {
    {"InstallWindowsApps", install_apps, {"/qel_home/.wine: reg_keys/"}},
};

} // namespace

INSTANTIATE_TAPES(unpacking, unpacking);
INSTANTIATE_TAPES(linking, linking);
INSTANTIATE_TAPES(importing, importing);
INSTANTIATE_TAPES(windows_apps, wholes);
