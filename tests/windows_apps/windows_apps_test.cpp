// Windows applications with the real tools: archives made by zip and unpacked by miniunz, registry files
// imported by Wine.

#include "windows_apps/storage_room.h"

#include "qel_utility/qel_filesystem.h"

#include <gmock/gmock.h>
#include <sys/mount.h>

#include <filesystem>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class WindowsAppsInTheRoom : public testing::Test
{
  protected:
    WindowsAppsInTheRoom()
    {
        room.disk.make_file("/game/game/drive_c/game/game.exe", "program");
        room.disk.make_file("/game/game/drive_c/shared/game.dll", "library");
        room.disk.make_file("/game/game/read me.txt", "text");
        room.disk.make_folder("/storage/archives");
    }

    void install()
    {
        EXPECT_EQ(room.run([] { qel_install_windows_apps(); }), StorageRoom::ended) << room.output;
    }

    StorageRoom room;
    Scratch &disk = room.disk;
};

using RealArchive = WindowsAppsInTheRoom;
using RealWine = WindowsAppsInTheRoom;

// ---- Archives ----

TEST_F(RealArchive, IsUnpackedLinkedAndRemoved)
{
    room.zip("/game", "/storage/archives/game.pkg");
    install();

    EXPECT_THAT(disk.tree("/storage"),
                ElementsAre("archives/", "win_apps/", "win_apps/game/", "win_apps/game/drive_c/",
                            "win_apps/game/drive_c/game/", "win_apps/game/drive_c/game/game.exe",
                            "win_apps/game/drive_c/shared/", "win_apps/game/drive_c/shared/game.dll",
                            "win_apps/game/read me.txt"));
    EXPECT_EQ(disk.content("/storage/win_apps/game/drive_c/game/game.exe"), "program");
    EXPECT_THAT(disk.tree("/tmp/.wine"),
                ElementsAre("drive_c/", "drive_c/game/", "drive_c/game/game.exe", "drive_c/shared/",
                            "drive_c/shared/game.dll", "read me.txt"));
    EXPECT_EQ(disk.link_content("/tmp/.wine/drive_c/game/game.exe"),
              "/storage/win_apps/game/drive_c/game/game.exe");
    EXPECT_EQ(disk.link_content("/tmp/.wine/read me.txt"), "/storage/win_apps/game/read me.txt");
}

TEST_F(RealArchive, CalledZipOrWithoutADotIsLeftInPlace)
{
    for (const char *name : {"app.zip", "APP.ZIP", "app"})
        room.zip("/game", std::string("/storage/archives/") + name);
    install();
    EXPECT_THAT(disk.names("/storage/archives"), UnorderedElementsAre("app.zip", "APP.ZIP", "app"));
    EXPECT_FALSE(disk.has("/storage/win_apps"));
    EXPECT_EQ(room.output, "Scanning for Windows applications...\n"
                           "Installing Windows application files and registry keys...\n"
                           "...Finished installing Windows applications.\n");
}

TEST_F(RealArchive, ThatIsNoneIsRemovedAllTheSame)
{
    disk.make_file("/storage/archives/broken.pkg", "this is no archive");
    install();
    EXPECT_THAT(disk.names("/storage/archives"), IsEmpty());
    EXPECT_THAT(disk.names("/storage/win_apps"), IsEmpty());
    EXPECT_THAT(room.output, HasSubstr("broken.pkg"));
}

TEST_F(RealArchive, OverwritesAnOlderVersionWithoutAsking)
{
    disk.make_file("/storage/win_apps/game/drive_c/game/game.exe", "an older program");
    room.zip("/game", "/storage/archives/game.pkg");
    install();
    EXPECT_EQ(disk.content("/storage/win_apps/game/drive_c/game/game.exe"), "program");
}

TEST_F(RealArchive, OfSeveralApplicationsFillOneFolderOfThePrefix)
{
    disk.make_file("/editor/editor/drive_c/shared/editor.dll", "another library");
    room.zip("/game", "/storage/archives/game.pkg");
    room.zip("/editor", "/storage/archives/editor.app");
    install();
    EXPECT_THAT(disk.names("/storage/win_apps"), UnorderedElementsAre("game", "editor"));
    EXPECT_THAT(disk.names("/tmp/.wine/drive_c/shared"), UnorderedElementsAre("game.dll", "editor.dll"));
    EXPECT_FALSE(disk.is_link("/tmp/.wine/drive_c/shared"));
    EXPECT_EQ(disk.link_content("/tmp/.wine/drive_c/shared/editor.dll"),
              "/storage/win_apps/editor/drive_c/shared/editor.dll");
}

TEST_F(RealArchive, IsNotNeededToLinkWhatIsUnpackedAlready)
{
    std::filesystem::remove(disk.at("/storage/archives"));
    disk.make_file("/storage/win_apps/game/file");
    install();
    EXPECT_EQ(disk.link_content("/tmp/.wine/file"), "/storage/win_apps/game/file");
}

TEST_F(RealArchive, OnAStorageThatIsMountedReadOnlyStopsTheProgram)
{
    room.zip("/game", "/storage/archives/game.pkg");
    const std::string result = room.run([] {
        mount("/storage", "/storage", nullptr, MS_BIND, nullptr);
        mount(nullptr, "/storage", nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr);
        qel_install_windows_apps();
    });
    EXPECT_EQ(result, "stopped at qel_utility/qel_filesystem:2217") << room.output;
    EXPECT_THAT(disk.names("/storage/archives"), ElementsAre("game.pkg"));
}

// ---- Wine ----

TEST_F(RealWine, HasTheKeysOfARegistryFileThatWasImportedThroughItsLink)
{
    disk.make_file("/game/game/reg_keys/settings.reg", "REGEDIT4\r\n\r\n"
                                                       "[HKEY_CURRENT_USER\\Software\\Cabinet Game]\r\n"
                                                       "\"greeting\"=\"hello\"\r\n");
    room.zip("/game", "/storage/archives/game.pkg");
    const std::string result = room.run([] {
        qel_install_windows_apps();
        // Wine keeps the registry in memory; its server writes it at its end.
        const char *const end_wine[] = {"/usr/lib/wine/wineserver64", "-k", nullptr};
        qel_exec_wait(end_wine[0], end_wine, qel_loader_env, nullptr);
    });
    EXPECT_EQ(result, StorageRoom::ended) << room.output;

    EXPECT_THAT(room.output,
                HasSubstr("Attemping to import registry file: /qel_home/.wine/reg_keys/settings.reg\n"));
    EXPECT_EQ(disk.link_content("/tmp/.wine/reg_keys/settings.reg"),
              "/storage/win_apps/game/reg_keys/settings.reg");
    ASSERT_TRUE(disk.has("/tmp/.wine/user.reg")) << room.output;
    EXPECT_THAT(disk.content("/tmp/.wine/user.reg"), HasSubstr("[Software\\\\Cabinet Game]"));
    EXPECT_THAT(disk.content("/tmp/.wine/user.reg"), HasSubstr("\n\"greeting\"=\"hello\"\n"));
}
