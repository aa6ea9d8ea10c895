// The null program: the application and the X server of a start that is timed. It tells through descriptor 9
// that it runs, and ends; as the X server it stays.

#include <string.h>
#include <unistd.h>

int main(int, char **argv)
{
    if (strstr(argv[0], "Xfake"))
        pause();
    return write(9, "!", 1) != 1;
}
