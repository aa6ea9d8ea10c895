// Stands as /usr/xorg/bin/Xfake in the system image and becomes Debian's Xvfb. The cabinet's X server
// knows the option "-kb", which Xvfb does not; and the picture goes to a file that the outside can fetch.

#include <string.h>
#include <unistd.h>

#include <vector>

int main(int argc, char **argv)
{
    const char *server = "/usr/xorg/bin/Xvfb";
    std::vector<const char *> arguments = {server, ":0"};
    for (int i = 1; i < argc; ++i)
        if (strcmp(argv[i], "-kb") != 0)
            arguments.push_back(argv[i]);
    for (const char *own : {"-screen", "0", "800x600x24", "-fbdir", "/tmp", "-noreset", "-extension", "GLX"})
        arguments.push_back(own);
    arguments.push_back(nullptr);
    execv(server, const_cast<char **>(arguments.data()));
    return 1;
}
