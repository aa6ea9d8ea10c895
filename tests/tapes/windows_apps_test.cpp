// Installing Windows applications: nearly everything that fails is left aside and gone on with.

#include "tapes/golden.h"

#include "qel_utility/qel_filesystem.h"

namespace
{

/// Works on these files (folders end with a slash), and what is then below a folder.
Scenario on_files(const char *name, const std::vector<std::string> &files, const std::function<void()> &work,
                  const std::string &folder, const std::vector<std::string> &may_end)
{
    const auto run = [=](Ground &ground) {
        for (const std::string &file : files)
            file.back() == '/' ? ground.disk.make_folder(file) : ground.disk.make_file(file);
        work();
        std::string text = folder + ":";
        for (const std::string &entry : ground.disk.tree(folder))
            text += " " + entry;
        return text;
    };
    return {name, run, may_end};
}

const Scenario unpacking =
    on_files("UnpackArchives", {"/storage/archives/app.pkg", "/qel_home/.wine/reg_keys/"},
             [] { qel_install_windows_apps(); }, "/storage",
             {"/storage: archives/", "/storage: archives/ archives/app.pkg",
              "/storage: archives/ archives/app.pkg win_apps/"});

const Scenario linking = on_files("InstallWinAppFiles", {"/app/reg_keys/s.reg", "/prefix/"},
                                  [] { qel_install_win_app_files("/app", "/prefix"); }, "/prefix",
                                  {"/prefix:", "/prefix: reg_keys/"});

/// One application with a registry file, no archives.
const Scenario whole =
    on_files("InstallWindowsApps", {"/storage/win_apps/app/reg_keys/s.reg", "/qel_home/.wine/reg_keys/"},
             [] { qel_install_windows_apps(); }, "/qel_home/.wine", {"/qel_home/.wine: reg_keys/"});

void import(Ground &ground)
{
    ground.disk.make_file("/keys/s.reg");
    qel_import_reg_files("/keys");
}

const std::vector<Scenario> importing = {
    {"ImportRegFiles", import},
    {"WineImportReg", [] { qel_wine_import_reg("/keys/s.reg"); }},
};

} // namespace

INSTANTIATE_TAPES(unpacking, {unpacking});
INSTANTIATE_TAPES(linking, {linking});
INSTANTIATE_TAPES(importing, importing);
INSTANTIATE_TAPES(windows_apps, {whole});
