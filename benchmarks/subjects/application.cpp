// The null program: the application and the X server of a start that is timed. It sends a beat through
// descriptor 9 and ends; a lasting one stays. As the X server it stays and sends nothing; as a tool in /bin
// it does nothing.

#include <string.h>
#include <unistd.h>

int main(int, char **argv)
{
    if (strncmp(argv[0], "/bin/", 5) == 0)
        return 0;
    if (strstr(argv[0], "/xorg/"))
        pause();
    if (write(9, "!", 1) != 1)
        return 1;
    if (strstr(argv[0], "lasting"))
        pause();
}
