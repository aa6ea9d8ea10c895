// Update mode. The wait is one loop that looks at the clock and polls the transport; everything that
// arrives is handled inside that poll: transport, packet link, system messages, qel_update_handler.

#include "qel_application_loader/update_mode.h"
#include "qel_tolbrin/qel_comms.h"
#include "qel_tolbrin/qel_h8_command.h"
#include "qel_tolbrin/qel_lpc_comms.h"
#include "qel_tolbrin/qel_sysmsg.h"
#include "qel_utility/qel_filesystem.h"
#include "qel_utility/qel_log.h"

#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#define UPDATER "/tmp/updater"

enum {
    packet_bytes = 35,
    banner_row = 1,
    status_row = 2,
    silent_seconds_until_cleared = 2,
    stick_notice_s = 5,
};

/// Messages of type 5 received so far.
static uint32_t connected_count;

// ---- Messages from the host ----

[[noreturn]] static void _run_updater(const void *image, uint32_t length)
{
    int file = open(UPDATER, O_WRONLY | O_CREAT, 0755);
    write(file, image, length);
    close(file);

    qel_lcd_write_row(status_row, "Starting updater...");
    const char *const argv[] = {UPDATER, nullptr};
    execve(UPDATER, (char *const *)argv, (char *const *)qel_loader_env);
    qel_print("exec failed: %s\n", UPDATER);
    exit(1);
}

void qel_update_handler(struct qel_sysmsg_con *con, const void *message)
{
    switch (qel_sysmsg_get32(message, 0)) {
    case qel_sysmsg_type_connect:
        qel_lcd_write_row(status_row, "*Connected*");
        connected_count++;
        qel_sysmsg_connect_answer(con, message);
        break;
    case qel_sysmsg_type_updater:
        _run_updater((const char *)message + 12, qel_sysmsg_get32(message, 8));
    default:
        break;
    }
}

// ---- The link ----

/// Builds the link bottom up: transport, packets, system messages.
static struct qel_sysmsg_con *_open_link(struct qel_lpc *lpc)
{
    struct qel_comms *comms =
        qel_comms_create(packet_bytes, qel_lpc_get_tx_buf, qel_lpc_packet_send_end, lpc, qel_lpc_poll, lpc);
    qel_lpc_set_receiver(lpc, qel_comms_receive_packet, comms);

    struct qel_sysmsg_con *con =
        qel_sysmsg_create(qel_update_handler, qel_comms_send, comms, qel_comms_poll, comms);
    qel_comms_set_receiver(comms, qel_sysmsg_receive, con);
    return con;
}

// ---- The wait ----

/// What the wait knows of the last second.
struct _wait {
    time_t second;       ///< last looked at
    uint32_t count_seen; ///< connected_count at that second
    int countdown;       ///< silent seconds until "*Connected*" goes; negative when it is gone
};

/// A new second has begun.
static void _look_at_peer(struct _wait *wait, struct qel_sysmsg_con *con)
{
    if (connected_count != wait->count_seen) {
        wait->count_seen = connected_count;
        wait->countdown = silent_seconds_until_cleared - 1;
        return;
    }
    qel_sysmsg_notify_11(con);
    if (wait->countdown == 0)
        qel_lcd_write_row(status_row, "");
    if (wait->countdown >= 0)
        wait->countdown--;
}

static void _wait_for_stick(struct qel_lpc *lpc, struct qel_sysmsg_con *con)
{
    struct _wait wait = {.second = time(nullptr), .count_seen = 0, .countdown = -1};
    while (access("/sys/block/sda", R_OK)) {
        time_t second = time(nullptr);
        if (second != wait.second) {
            wait.second = second;
            _look_at_peer(&wait, con);
        }
        qel_lpc_poll(lpc);
    }
}

void qel_run_update_mode(void)
{
    struct qel_lpc *lpc = qel_lpc_open("/dev/qellpc_host_comms");
    struct qel_sysmsg_con *con = _open_link(lpc);
    qel_lcd_write_row(0, "");
    qel_lcd_write_row(banner_row, "TOLBRIN Update...");
    qel_lcd_write_row(status_row, "");

    _wait_for_stick(lpc, con);

    qel_lcd_write_row(status_row, "*Found storage device*");
    sleep(stick_notice_s);
    qel_lcd_write_row(status_row, "");
}
