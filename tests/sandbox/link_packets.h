/// Packets of the host link as they travel: length and CRC, big-endian, then the message, little-endian.
#pragma once

#include <string>

/// A host connects, with the number 12345678.
inline const std::string connect_packet("\x00\x00\x00\x0c\x66\x86"
                                        "\x05\x00\x00\x00\x0c\x00\x00\x00\x78\x56\x34\x12",
                                        18);
/// The loader's answer to it, as the transcript shows it.
inline constexpr char answer_line[] =
    "write /dev/qellpc_host_comms \"\\x00\\x00\\x00\\x0c\\x0d\\xb9&\\x00\\x00\\x00"
    "\\x0c\\x00\\x00\\x00xV4\\x12\"";
/// An updater: a script for the program /bin/updater.
inline const std::string script_updater_packet("\x00\x00\x00\x1b\xfe\xee"
                                               "\x0a\x00\x00\x00\x1b\x00\x00\x00\x0f\x00\x00\x00"
                                               "#!/bin/updater\n",
                                               33);
