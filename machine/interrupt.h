// Ctrl-C, SIGTERM and a closed terminal as something that a loop can ask about, so that a machine is switched
// off in order.
#pragma once

/// From now on all of them only make interrupted() true.
void catch_interrupts();

bool interrupted();
