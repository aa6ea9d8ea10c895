// The host's side: answers the questions that cabinet_asks.cpp asks, until it is interrupted.
//
//   host_answers TEXT LINK            at the board's node or a socket that is there, such as ./run --link
//   host_answers TEXT LINK --listen   at a socket that it makes, for one peer

#include "link.h"

#include <stdio.h>
#include <string.h>
#include <unistd.h>

/// The question that waits for its answer. The handler runs inside a poll and must not send what is
/// sequenced, so it only takes notes; a peer asks one question at a time.
static uint32_t question;
static char asked_path[100];

static void take_note(qel_sysmsg_con *connection, const void *message)
{
    question = qel_sysmsg_get32(message, 0);
    if (question == qel_sysmsg_type_connect)
        qel_sysmsg_connect_answer(connection, message); // not sequenced: may be sent here
    if (question == qel_sysmsg_type_path_exists)
        snprintf(asked_path, sizeof asked_path, "%s", (const char *)message + 9);
}

static void answer(qel_sysmsg_con *connection, const char *text)
{
    uint32_t asked = question;
    question = 0;
    if (asked == qel_sysmsg_type_get_text)
        qel_sysmsg_reply_text(connection, text);
    if (asked == qel_sysmsg_type_path_exists)
        qel_sysmsg_reply_path_exists(connection, access(asked_path, F_OK) == 0);
}

int main(int argc, char **argv)
{
    if (argc < 3) {
        fprintf(stderr, "usage: %s TEXT LINK [--listen]\n", argv[0]);
        return 2;
    }
    bool listen = argc > 3 && strcmp(argv[3], "--listen") == 0;
    ExampleLink link = open_example_link(argv[2], listen, take_note);
    for (;;) {
        if (!qel_comms_poll(link.packets))
            usleep(1000);
        answer(link.connection, argv[1]);
    }
}
