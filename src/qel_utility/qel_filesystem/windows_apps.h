/// Installing packaged Windows applications for Wine. The start-up does not do this by itself: it removes
/// the Wine prefix before every run, so links made here do not survive one.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/// Unpacks the archives in /storage/archives into /storage/win_apps and removes them, links every file of
/// the applications there into the Wine prefix /qel_home/.wine under its own relative path, and imports
/// the registry files that are then in /qel_home/.wine/reg_keys. Prints its progress.
/// Deliberate: a file named *.zip, in upper or lower case as the caller's locale has it, does not count as an
/// archive and stays; a file with any other extension does, and is removed even if it could not be unpacked.
/// Names without a dot are left alone.
/// Stops when /storage/win_apps cannot be made (2217), and in qel_exec_wait and qel_symlink.
/// Returns the result of its last output.
int qel_install_windows_apps(void);

/// Mirrors the tree `source_folder` in `link_folder`: real folders, with a symbolic link for each file. A
/// file in a link's place is replaced. A folder that cannot be opened counts as empty.
void qel_install_win_app_files(const char *source_folder, const char *link_folder);

/// Imports every entry below `folder` whose name contains ".reg", folders included, and walks all folders.
void qel_import_reg_files(const char *folder);

/// Imports one registry file into the Wine prefix and ignores how that ended.
void qel_wine_import_reg(const char *file);

#ifdef __cplusplus
}
#endif
