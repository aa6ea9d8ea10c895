// Runs inside the cabinet as the application, as wine or as the X server, and writes down for the tests
// what it was started with: lines on /cabinet/note, each beginning with this program's own name.
//
//   NAME argument TEXT     every argument, the name included
//   NAME variable TEXT     every variable of the environment, in its order
//   NAME folder PATH       the current folder
//   NAME prefix absent     there was no /qel_home/.wine (or: present)
//   NAME done
//
// As Xfake it then stays. Otherwise it leaves a Wine prefix with files in it and ends with status 3, after
// a moment or, when "quick" is part of its name, at once.

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

namespace
{

int note_file;

void note(const std::string &line)
{
    std::string whole = line + "\n";
    [[maybe_unused]] ssize_t written = write(note_file, whole.data(), whole.size());
}

void use_wine_prefix()
{
    mkdir("/qel_home/.wine", 0755);
    mkdir("/qel_home/.wine/drive_c", 0755);
    close(open("/qel_home/.wine/drive_c/file", O_WRONLY | O_CREAT, 0644));
    close(open("/qel_home/.wine/system.reg", O_WRONLY | O_CREAT, 0644));
    [[maybe_unused]] int linked = symlink("/", "/qel_home/.wine/root");
}

} // namespace

int main(int, char **argv, char **environment)
{
    const char *slash = strrchr(argv[0], '/');
    std::string name = slash == nullptr ? argv[0] : slash + 1;
    char folder[1000] = "";
    note_file = open("/cabinet/note", O_WRONLY);
    for (char **argument = argv; *argument != nullptr; ++argument)
        note(name + " argument " + *argument);
    for (char **variable = environment; *variable != nullptr; ++variable)
        note(name + " variable " + *variable);
    if (getcwd(folder, sizeof folder) != nullptr)
        note(name + " folder " + folder);
    note(name + " prefix " + (access("/qel_home/.wine", F_OK) == 0 ? "present" : "absent"));
    note(name + " done");
    if (name == "Xfake")
        for (;;)
            pause();
    use_wine_prefix();
    if (name.find("quick") == std::string::npos)
        usleep(300 * 1000);
    return 3;
}
