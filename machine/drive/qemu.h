// QEMU as a process: its command line, and the sockets that it inherits.
#pragma once

#include "machine/drive/cabinet.h"

/// Starts QEMU with one socket per port and leaves the cabinet's ends in its ports.
void start_qemu(Cabinet &cabinet, const CabinetSetup &setup);
