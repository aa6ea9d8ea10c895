/// The update mode: waits for an updater from the host, or for a USB disk.
#pragma once

struct qel_sysmsg_con;

/// Opens the host link on /dev/qellpc_host_comms, shows the update banner on the display, and waits without
/// sleeping. Once a second it announces itself to the peer, unless the peer said type 5 during that second.
/// Row 2 shows "*Connected*" from the peer's first type 5 until two whole seconds have passed without one.
/// An updater that arrives takes the program's place: then this never returns. It returns 5 seconds after
/// /sys/block/sda has appeared; there is no other end and no time limit. The link stays open, unpolled.
/// Stops as the link's operations do, not for what the peer fails to do.
void qel_run_update_mode(void);

/// The link's message handler. Type 5: shows "*Connected*" and answers with type 38. Type 10: writes the
/// updater to /tmp/updater and executes it in place of the program; when that fails, prints
/// "exec failed: /tmp/updater" and exits with status 1. Everything else is ignored.
/// Deliberate: the number of bytes to write is the message's length field as it stands, the file is not
/// truncated first, and neither its opening nor the write is checked. Nor is either message's own length:
/// one cut short is read as it lies in memory.
void qel_update_handler(struct qel_sysmsg_con *con, const void *message);
