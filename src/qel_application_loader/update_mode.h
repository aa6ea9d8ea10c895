/// The update mode: waits for an updater from the host, or for a USB disk.
#pragma once

struct qel_sysmsg_con;

/// Opens the host link on /dev/qellpc_host_comms, shows the update banner on the display, and waits without
/// sleeping. Once a second it announces itself to the peer, unless the peer sent type 5 during that second.
/// Row 2 shows "*Connected*" from the peer's first type 5 until two whole seconds have passed without one.
/// An updater that arrives takes the program's place: then this never returns. Otherwise it returns 5
/// seconds after /sys/block/sda has appeared, without a time limit. The link stays open, unpolled.
/// Stops where the link's operations do, never because the peer is silent.
void qel_run_update_mode(void);

/// The link's message handler. Type 5: shows "*Connected*" and answers with type 38. Type 10: writes the
/// updater to /tmp/updater and executes it in place of the program; when that fails, prints
/// "exec failed: /tmp/updater" and exits with status 1. Everything else is ignored.
/// Deliberate: the message's length field is the number of bytes to write; the file is not truncated first,
/// and neither its opening nor the write is checked. Nor is either message's own length: for a short one,
/// the memory after it is read.
void qel_update_handler(struct qel_sysmsg_con *con, const void *message);
