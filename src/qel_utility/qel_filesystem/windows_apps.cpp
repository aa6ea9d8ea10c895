// Windows applications: archives to folders, folders to links in the Wine prefix, registry files to Wine.

#include "qel_utility/qel_filesystem/windows_apps.h"
#include "qel_utility/qel_filesystem/files.h"
#include "qel_utility/qel_filesystem/internal.h"
#include "qel_utility/qel_filesystem/processes.h"

#include <stdio.h>
#include <string.h>
#include <strings.h>

#define ARCHIVES    "/storage/archives"
#define WIN_APPS    "/storage/win_apps"
#define WINE_PREFIX "/qel_home/.wine"

/// What is done with an entry of a folder.
typedef void _visit_function(const char *path, const char *name, int is_folder, const char *context);

/// Calls `visit(path, name, is_folder, context)` for each entry of an open folder but "." and "..".
static void _visit_entries(DIR *dir, const char *folder, _visit_function *visit, const char *context)
{
    const struct dirent *entry;
    while ((entry = _qel_next_entry(dir))) {
        char path[tree_path_bytes];
        _qel_join_path(path, sizeof path, folder, entry->d_name);
        visit(path, entry->d_name, entry->d_type == DT_DIR, context);
    }
}

/// The same for a folder by its path. One that cannot be opened has no entries.
static void _for_each_entry(const char *folder, _visit_function *visit, const char *context)
{
    DIR *dir = opendir(folder);
    if (!dir)
        return;
    _visit_entries(dir, folder, visit, context);
    closedir(dir);
}

// ---- Unpacking ----

static void _unpack_archive(const char *path, const char *name, int, const char *)
{
    const char *extension = strrchr(name, '.');
    if (!extension || strcasecmp(extension, ".zip") == 0)
        return;
    printf("Installing new windows application - %s\n", name);
    _qel_mkdir_if_missing(WIN_APPS, 2217);
    const char *const argv[] = {"/bin/miniunz", path, "-o", "-d", WIN_APPS, nullptr};
    qel_exec_wait(argv[0], argv, nullptr, nullptr);
    qel_unlink(path);
    puts("Done.");
}

// ---- Linking ----

static void _link_app_entry(const char *path, const char *name, int is_folder, const char *link_folder)
{
    char link[tree_path_bytes];
    _qel_join_path(link, sizeof link, link_folder, name);
    printf("Installing windows app file:\n    source: %s\n    link: %s\n", path, link);
    if (is_folder) {
        qel_install_win_app_files(path, link);
        return;
    }
    qel_create_parent_folder_and_parents(link);
    qel_symlink(path, link);
}

void qel_install_win_app_files(const char *source_folder, const char *link_folder)
{
    _for_each_entry(source_folder, _link_app_entry, link_folder);
}

/// Files directly in the applications' folder belong to none.
static void _install_app(const char *path, const char *, int is_folder, const char *prefix)
{
    if (is_folder)
        qel_install_win_app_files(path, prefix);
}

// ---- Registry files ----

static void _import_reg_entry(const char *path, const char *name, int is_folder, const char *)
{
    if (strstr(name, ".reg"))
        qel_wine_import_reg(path);
    if (is_folder)
        qel_import_reg_files(path);
}

void qel_import_reg_files(const char *folder)
{
    _for_each_entry(folder, _import_reg_entry, nullptr);
}

void qel_wine_import_reg(const char *file)
{
    printf("Attemping to import registry file: %s\n", file);
    const char *const argv[] = {QEL_WINE, "regedit.exe", "/S", file, nullptr};
    qel_exec_wait(argv[0], argv, qel_loader_env, nullptr);
}

// ---- The whole ----

int qel_install_windows_apps(void)
{
    puts("Scanning for Windows applications...");
    _for_each_entry(ARCHIVES, _unpack_archive, nullptr);

    puts("Installing Windows application files and registry keys...");
    DIR *win_apps = opendir(WIN_APPS);
    if (win_apps) {
        _visit_entries(win_apps, WIN_APPS, _install_app, WINE_PREFIX);
        qel_import_reg_files(WINE_PREFIX "/reg_keys");
        closedir(win_apps);
    }
    return puts("...Finished installing Windows applications.");
}
