// The null program: the application and the X server of a start that is timed. It tells through descriptor 9
// that it runs, and ends; a lasting one stays. As the X server it stays and tells nothing.

#include <string.h>
#include <unistd.h>

int main(int, char **argv)
{
    if (strstr(argv[0], "/xorg/"))
        pause();
    if (write(9, "!", 1) != 1)
        return 1;
    if (strstr(argv[0], "lasting"))
        pause();
}
