// The whole loader from its main: mode byte, update mode, silence, nodes, mounts, links, application.

#include "tapes/golden.h"

#include "qel_application_loader/start_up.h"

#include <fcntl.h>
#include <string.h>
#include <unistd.h>

/// The loader's main under another name.
int qel_loader_main(int argc, char **argv);

namespace
{

/// A cabinet with an application on /storage, and a stick if it is to install. The board answers with `mode`.
void make_cabinet(Ground &ground, int mode)
{
    const Scratch &disk = ground.disk;
    disk.make_folder("/proc/bus");
    disk.make_file("/proc/devices", "254 qellpc\n");
    for (const char *folder : {"/sys/class/sound", "/sys/block", "/dev/disk", "/disk", "/boot"})
        disk.make_folder(folder);
    disk.make_file("/dev/null");
    disk.make_file("/storage/qel_application_1");
    ground.play_board(std::string(1, static_cast<char>(mode)), 64);
    // What goes to the null device is not shown.
    ground.kernel.on_dup2 = [](int from, int to) { return to == STDOUT_FILENO ? real_dup2(from, to) : to; };
}

/// The second look at where the stick would be finds it.
void plug_stick_in(Ground &ground)
{
    for (const char *file : {"/dev/disk/sda1", "/disk/sda1/qel_usr.cramfs", "/disk/sda1/vmlinux"})
        ground.disk.make_file(file, "content");
    ground.kernel.on_access = [&ground](const char *path, int) {
        const bool is_there = strcmp(path, "/sys/block/sda/sda1") != 0 || ground.kernel.count("access") > 1;
        return is_there && strcmp(path, "/disk/sda1/storage.zip") != 0 ? 0 : -1;
    };
}

void start(Ground &ground, int mode, const char *argument)
{
    make_cabinet(ground, mode);
    // The update mode's wait sees the stick at once.
    ground.kernel.on_access = [](auto...) { return 0; };
    if (strcmp(argument, "qelinstall") == 0 && mode < 2)
        plug_stick_in(ground);
    char words[3][20] = {"loader", "", "later"};
    strcpy(words[1], argument);
    char *arguments[] = {words[0], words[1], words[2], nullptr};
    qel_loader_main(3, arguments);
}

Scenario start_up(const char *name, int mode, const char *argument, const std::string &from,
                  const std::string &until)
{
    const auto run = [=](Ground &ground) { start(ground, mode, argument); };
    // A board that says nothing leaves the filler: console and update mode.
    return {name, run, {}, "", from, until, "/dev/qellpc_command /dev/qellpc_host_comms"};
}

const Scenario whole = start_up("StartUp", 1, "", "*", "chdir /storage #2");

// Where phases begin and end.
const char *const mode_read = "read /dev/qellpc_command *", *const stick_found = "sleep 5",
                  *const nodes = "opendir /sys/class/sound *", *const link_opened = "open /dev/qellpc_lcd *";

const std::vector<Scenario> modes = {
    start_up("Mode0", 0, "", mode_read, nodes),
    start_up("Mode2UpToTheLink", 2, "", mode_read, link_opened),
    start_up("Mode2FromTheStick", 2, "", stick_found, "open /dev/null *"),
    start_up("Mode3UpToTheLink", 3, "", mode_read, link_opened),
    start_up("Mode3FromTheStick", 3, "", stick_found, nodes),
    start_up("ModeOfOtherBits", 0xFC, "", mode_read, nodes),
    {"SilenceStandardStreams",
     [](Ground &ground) {
         ground.disk.make_file("/dev/null");
         qel_silence_standard_streams();
     }},
};

const std::vector<Scenario> installing = {
    start_up("InstallInMode0", 0, "qelinstall", "close /dev/null", nodes),
    start_up("InstallInMode1", 1, "qelinstall", mode_read, nodes),
    start_up("InstallInMode1FromTheMounts", 1, "qelinstall", "console \"mount:\"", "socketpair *"),
    start_up("InstallInMode1FromItsEnd", 1, "qelinstall", "umount /boot", "unlink *"),
    start_up("InstallInMode2FromTheStick", 2, "qelinstall", "close /dev/null", nodes),
    start_up("InstallInMode3FromTheStick", 3, "qelinstall", "console \"Waiting*", nodes),
    start_up("AnotherArgument", 1, "qelinstallx", "console \"Want*", nodes),
};

} // namespace

INSTANTIATE_TAPES(start_up, {whole});
INSTANTIATE_TAPES(starts, modes);
INSTANTIATE_TAPES(install_starts, installing);

TEST(StartUp, GoesTheSameWayOnAConsoleThatTakesNothing)
{
    const auto start_unheard = [](Ground &ground) {
        const int full = real_open("/dev/full", O_WRONLY, 0);
        real_dup2(full, STDOUT_FILENO);
        real_close(full);
        return whole.piece.run(ground);
    };
    size_t heard = 0;
    const auto effects_of = [&heard](const Piece &piece) {
        const Traces traces;
        std::vector<std::string> texts;
        for (const Event &event : run_tape(cut({"StartUp", piece}, "*", whole.until)).events) {
            if (event.text.rfind("console ", 0) == 0)
                ++heard;
            else
                texts.push_back(event.text);
        }
        return texts;
    };
    const std::vector<std::string> unheard = effects_of(start_unheard);
    EXPECT_EQ(heard, 0U);
    EXPECT_EQ(unheard, effects_of(whole.piece));
    EXPECT_GT(heard, 0U);
}
