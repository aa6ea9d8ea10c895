// Windows applications: which archives are unpacked and removed, what is linked into the Wine prefix, and
// which registry files are imported.

#include "support/output.h"
#include "support/played_programs.h"
#include "support/scratch_disk.h"
#include "support/stops.h"

#include "qel_utility/qel_filesystem/windows_apps.h"

#include <errno.h>
#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;

static std::string unpack_run(const std::string &name)
{
    return "/bin/miniunz: /bin/miniunz /storage/archives/" + name + " -o -d /storage/win_apps | env: none";
}

static std::string import_run(const std::string &file)
{
    return "/usr/wine/bin/wine: /usr/wine/bin/wine regedit.exe /S " + file +
           " | env: HOME=/qel_home TERM=linux WINEDEBUG=fixme-all,warn-all LD_LIBRARY_PATH=/usr/xorg/lib "
           "DISPLAY=unix:0";
}

/// A cabinet with a storage and a home folder; miniunz and Wine are played and unpack nothing.
struct WindowsApps : OnScratchDisk {
    WindowsApps()
    {
        disk.make_folder("/storage");
        disk.make_folder("/qel_home");
    }

    PlayedPrograms programs{kernel};
    Output output;
};

using WindowsAppArchives = WindowsApps;
using WindowsAppLinks = WindowsApps;
using WindowsAppRegistry = WindowsApps;

// ---- The whole ----

TEST_F(WindowsApps, OfNothingAreOnlyTheMessages)
{
    EXPECT_EQ(qel_install_windows_apps(), 45); // what this libc's puts gives for the last line
    EXPECT_EQ(output.text(), "Scanning for Windows applications...\n"
                             "Installing Windows application files and registry keys...\n"
                             "...Finished installing Windows applications.\n");
    EXPECT_THAT(programs.runs(), IsEmpty());
    EXPECT_FALSE(disk.has("/storage/win_apps"));
}

TEST_F(WindowsApps, AreLinkedAndRegisteredWithoutAnArchivesFolder)
{
    disk.make_file("/storage/win_apps/game/reg_keys/settings.reg");
    qel_install_windows_apps();
    EXPECT_EQ(disk.link_content("/qel_home/.wine/reg_keys/settings.reg"),
              "/storage/win_apps/game/reg_keys/settings.reg");
    EXPECT_THAT(programs.runs(), ElementsAre(import_run("/qel_home/.wine/reg_keys/settings.reg")));
}

TEST_F(WindowsApps, WithoutTheirFolderLeaveEvenOldRegistryFilesAlone)
{
    disk.make_file("/qel_home/.wine/reg_keys/old.reg");
    qel_install_windows_apps();
    EXPECT_THAT(programs.runs(), IsEmpty());
    EXPECT_THAT(output.text(), EndsWith("...Finished installing Windows applications.\n"));
}

TEST_F(WindowsApps, WithAnEmptyFolderImportOldRegistryFiles)
{
    disk.make_folder("/storage/win_apps");
    disk.make_file("/qel_home/.wine/reg_keys/old.reg");
    qel_install_windows_apps();
    EXPECT_THAT(programs.runs(), ElementsAre(import_run("/qel_home/.wine/reg_keys/old.reg")));
}

// ---- Archives ----

TEST_F(WindowsAppArchives, CalledZipAreLeftInPlaceWhateverTheCase)
{
    for (const char *name : {"app.zip", "APP.ZIP", "App.Zip", "app.v2.zip", ".zip"})
        disk.make_file(std::string("/storage/archives/") + name);
    EXPECT_EQ(output_of([] { qel_install_windows_apps(); }).find("Installing new"), std::string::npos);
    EXPECT_THAT(programs.runs(), IsEmpty());
    EXPECT_THAT(disk.names("/storage/archives"),
                UnorderedElementsAre("app.zip", "APP.ZIP", "App.Zip", "app.v2.zip", ".zip"));
}

TEST_F(WindowsAppArchives, WithoutADotAreLeftInPlace)
{
    disk.make_file("/storage/archives/app");
    disk.make_file("/storage/archives/zip");
    qel_install_windows_apps();
    EXPECT_THAT(programs.runs(), IsEmpty());
    EXPECT_THAT(disk.names("/storage/archives"), UnorderedElementsAre("app", "zip"));
    EXPECT_FALSE(disk.has("/storage/win_apps"));
}

TEST_F(WindowsAppArchives, WithAnyOtherExtensionAreUnpackedAndRemoved)
{
    for (const char *name : {"app.pkg", "app.zip.pkg", "app.zipx", "app.", ".hidden"})
        disk.make_file(std::string("/storage/archives/") + name);
    qel_install_windows_apps();
    EXPECT_THAT(programs.runs(),
                UnorderedElementsAre(unpack_run("app.pkg"), unpack_run("app.zip.pkg"), unpack_run("app.zipx"),
                                     unpack_run("app."), unpack_run(".hidden")));
    EXPECT_THAT(disk.names("/storage/archives"), IsEmpty());
    EXPECT_TRUE(disk.is_folder("/storage/win_apps"));
}

TEST_F(WindowsAppArchives, AreRemovedEvenWhenUnpackingFails)
{
    for (int outcome : {1, -SIGKILL}) {
        disk.make_file("/storage/archives/app.pkg");
        programs.end_with("/bin/miniunz /storage/archives/app.pkg -o -d /storage/win_apps", outcome);
        EXPECT_THAT(output_of([] { qel_install_windows_apps(); }),
                    HasSubstr("Installing new windows application - app.pkg\nDone.\n"));
        EXPECT_FALSE(disk.has("/storage/archives/app.pkg")) << outcome;
    }
}

TEST_F(WindowsAppArchives, ThatAreFoldersAreTriedLikeAnyOther)
{
    disk.make_folder("/storage/archives/folder.pkg");
    qel_install_windows_apps();
    EXPECT_THAT(programs.runs(), ElementsAre(unpack_run("folder.pkg")));
    EXPECT_TRUE(disk.is_folder("/storage/archives/folder.pkg"));
}

TEST_F(WindowsAppArchives, AreUnpackedIntoAFolderThatMayExist)
{
    disk.make_file("/storage/archives/a.pkg");
    disk.make_file("/storage/archives/b.pkg");
    disk.make_folder("/storage/win_apps");
    qel_install_windows_apps();
    EXPECT_EQ(kernel.count("mkdir"), 2);
    EXPECT_THAT(programs.runs(), UnorderedElementsAre(unpack_run("a.pkg"), unpack_run("b.pkg")));
}

// ---- Links ----

TEST_F(WindowsAppLinks, AreMadeForFilesInRealFolders)
{
    disk.make_file("/storage/win_apps/game/drive_c/game/data/level");
    disk.make_file("/storage/win_apps/game/.hidden");
    qel_install_windows_apps();
    EXPECT_THAT(disk.tree("/qel_home/.wine"), ElementsAre(".hidden", "drive_c/", "drive_c/game/",
                                                          "drive_c/game/data/", "drive_c/game/data/level"));
    EXPECT_EQ(disk.link_content("/qel_home/.wine/drive_c/game/data/level"),
              "/storage/win_apps/game/drive_c/game/data/level");
    EXPECT_EQ(disk.link_content("/qel_home/.wine/.hidden"), "/storage/win_apps/game/.hidden");
}

TEST_F(WindowsAppLinks, OfSeveralApplicationsMeetInOneFolder)
{
    disk.make_file("/storage/win_apps/one/drive_c/shared/a");
    disk.make_file("/storage/win_apps/two/drive_c/shared/b");
    qel_install_windows_apps();
    EXPECT_EQ(disk.link_content("/qel_home/.wine/drive_c/shared/a"),
              "/storage/win_apps/one/drive_c/shared/a");
    EXPECT_EQ(disk.link_content("/qel_home/.wine/drive_c/shared/b"),
              "/storage/win_apps/two/drive_c/shared/b");
}

TEST_F(WindowsAppLinks, AreNotMadeForEmptyFoldersNorForFilesOutsideAnyApplication)
{
    disk.make_file("/storage/win_apps/readme.txt");
    disk.make_folder("/storage/win_apps/game/empty");
    qel_install_windows_apps();
    EXPECT_FALSE(disk.has("/qel_home/.wine"));
}

TEST_F(WindowsAppLinks, AreMadeForLinksToFoldersAsForFiles)
{
    disk.make_file("/storage/win_apps/game/real/file");
    disk.make_link("/storage/win_apps/game/alias", "real");
    qel_install_windows_apps();
    EXPECT_THAT(disk.tree("/qel_home/.wine"), ElementsAre("alias", "real/", "real/file"));
    EXPECT_EQ(disk.link_content("/qel_home/.wine/alias"), "/storage/win_apps/game/alias");
}

TEST_F(WindowsAppLinks, ReplaceAnOlderLinkOrFile)
{
    disk.make_file("/storage/win_apps/game/a");
    disk.make_file("/storage/win_apps/game/b");
    disk.make_link("/qel_home/.wine/a", "/old");
    disk.make_file("/qel_home/.wine/b", "old");
    qel_install_windows_apps();
    EXPECT_EQ(disk.link_content("/qel_home/.wine/a"), "/storage/win_apps/game/a");
    EXPECT_EQ(disk.link_content("/qel_home/.wine/b"), "/storage/win_apps/game/b");
}

TEST_F(WindowsAppLinks, LeaveAFolderInTheirPlaceAndGoOn)
{
    disk.make_file("/storage/win_apps/game/a");
    disk.make_folder("/qel_home/.wine/a");
    qel_install_windows_apps();
    EXPECT_TRUE(disk.is_folder("/qel_home/.wine/a"));
    EXPECT_THAT(output.text(), EndsWith("/storage/win_apps/game/a -> /qel_home/.wine/a\n"
                                        "symlink error : EEXIST\n"
                                        "error code : 17\n"
                                        "...Finished installing Windows applications.\n"));
}

TEST_F(WindowsAppLinks, MirrorAnyTree)
{
    disk.make_file("/from/folder/file");
    qel_install_win_app_files("/from", "/to");
    EXPECT_EQ(output.text(), "Installing windows app file:\n"
                             "    source: /from/folder\n"
                             "    link: /to/folder\n"
                             "Installing windows app file:\n"
                             "    source: /from/folder/file\n"
                             "    link: /to/folder/file\n"
                             "/from/folder/file -> /to/folder/file\n");
    EXPECT_EQ(disk.link_content("/to/folder/file"), "/from/folder/file");
}

TEST_F(WindowsAppLinks, OfAFolderThatCannotBeOpenedAreNone)
{
    qel_install_win_app_files("/missing", "/to");
    EXPECT_EQ(output.text(), "");
}

TEST_F(WindowsAppLinks, NameTheFirst511BytesOfALongerPath)
{
    const std::string folder = "/" + std::string(200, 'a') + "/" + std::string(200, 'b');
    disk.make_file(folder + "/" + std::string(150, 'c'));
    qel_install_win_app_files(folder.c_str(), "/to");
    const std::string cut = folder + "/" + std::string(511 - 403, 'c');
    EXPECT_EQ(disk.link_content("/to/" + std::string(150, 'c')), cut);
}

// ---- Registry files ----

TEST_F(WindowsAppRegistry, FilesAreThoseWithDotRegAnywhereInTheirNames)
{
    for (const char *name : {"a.reg", "b.reg.old", "c.register", ".reg", "D.REG", "reg", "e.txt"})
        disk.make_file(std::string("/keys/") + name);
    qel_import_reg_files("/keys");
    EXPECT_THAT(programs.runs(),
                UnorderedElementsAre(import_run("/keys/a.reg"), import_run("/keys/b.reg.old"),
                                     import_run("/keys/c.register"), import_run("/keys/.reg")));
}

TEST_F(WindowsAppRegistry, FilesAreFoundInFoldersToo)
{
    disk.make_file("/keys/folder/inner/a.reg");
    qel_import_reg_files("/keys");
    EXPECT_THAT(programs.runs(), ElementsAre(import_run("/keys/folder/inner/a.reg")));
}

TEST_F(WindowsAppRegistry, FolderWithDotRegInItsNameIsBothImportedAndWalked)
{
    disk.make_file("/keys/all.reg/a.reg");
    qel_import_reg_files("/keys");
    EXPECT_THAT(programs.runs(), ElementsAre(import_run("/keys/all.reg"), import_run("/keys/all.reg/a.reg")));
}

TEST_F(WindowsAppRegistry, FolderThatIsMissingHoldsNone)
{
    qel_import_reg_files("/keys");
    EXPECT_EQ(output.text(), "");
    EXPECT_THAT(programs.runs(), IsEmpty());
}

TEST_F(WindowsAppRegistry, ImportIsNotJudged)
{
    for (int outcome : {1, -SIGKILL}) {
        programs.end_with("/usr/wine/bin/wine regedit.exe /S /keys/a.reg", outcome);
        EXPECT_EQ(output_of([] { qel_wine_import_reg("/keys/a.reg"); }),
                  "Attemping to import registry file: /keys/a.reg\n");
    }
    EXPECT_THAT(programs.runs(), ElementsAre(import_run("/keys/a.reg"), import_run("/keys/a.reg")));
}
