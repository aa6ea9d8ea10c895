/// What both sides of a sandbox agree on: the test, outside, which prepares the cabinet and reads the
/// transcript, and the stand-in kernel and the helper programs, inside.
///
/// The test prepares, in the sandbox's root, a folder that the product never looks at:
///
///     /machine/sys/block, /machine/sys/class    cover the host's own in /sys
///     /machine/proc/devices, /machine/proc/bus  cover the host's own in /proc
///     /machine/TYPE/MAJOR:MINOR/                the content of a file system of that type on that device;
///                                               without the folder the mount fails
///     /machine/raw/MAJOR:MINOR                  the bytes of a block device, for those who open it
///     /machine/programs/NAME                    what the helper program NAME does, a line for each run
///     /machine/programs/NAME.runs               a byte for each run so far
///
/// What happens inside goes out through one descriptor, which is also the console: console text as it is,
/// and records, which begin with a mark and the process and end with a line break.
#pragma once

constexpr int transcript_descriptor = 100;
/// Where the board's host-comms device leads: a socket that keeps packets apart.
constexpr int host_descriptor = 101;
constexpr char record_mark = '\x1e';

/// The environment of PID 1 holds the rest.
constexpr const char *mode_setting = "SANDBOX_MODE";   ///< the board's mode byte, decimal
constexpr const char *major_setting = "SANDBOX_MAJOR"; ///< the board driver's major number
constexpr const char *fail_setting = "SANDBOX_FAIL";   ///< calls to fail: "fork 2 11, chdir 1 13"
