// Ctrl-C, SIGTERM and a closed terminal as something that a loop can ask about, so that work ends in order.
#pragma once

/// From now on each of them makes interrupted() true, and ends a wait for input with EINTR. With an exit code
/// of 0 or more, a second one ends the process with it at once; else it changes nothing.
void catch_interrupts(int exit_code_of_second = -1);

bool interrupted();
