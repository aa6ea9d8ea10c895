// The cabinet's side: an application that asks the host for its text, and whether it has a file.
//
//   qel_application_asks                 on the cabinet: asks on the board's link every 10 seconds
//   qel_application_asks SOCKET [PATH]   anywhere: asks once for PATH at a socket

#include "link.h"

#include <stdio.h>
#include <unistd.h>

/// Gets what nobody waits for; nothing of it is for us.
static void ignore(qel_sysmsg_con *, const void *) {}

/// Returns 1 when the host answered both questions.
static int ask(qel_sysmsg_con *connection, const char *path)
{
    const char *text = qel_sysmsg_get_text(connection);
    printf("the host says: %s\n", text ? text : "nothing");
    uint32_t exists = 0;
    int answered = qel_sysmsg_tolbrin_path_exists(connection, path, &exists);
    printf("the host has %s: %s\n", path, !answered ? "no answer" : exists ? "yes" : "no");
    fflush(stdout);
    return text && answered;
}

int main(int argc, char **argv)
{
    const char *path = argc > 2 ? argv[2] : "/etc/hostname";
    ExampleLink link = open_example_link(argc > 1 ? argv[1] : "/dev/qellpc_host_comms", false, ignore);
    if (argc > 1)
        return ask(link.connection, path) ? 0 : 1;
    for (;;) {
        ask(link.connection, path);
        sleep(10);
    }
}
