// A flag that the signal handler sets.

#include "interrupt.h"

#include <signal.h>
#include <unistd.h>

#include <initializer_list>

namespace
{

volatile sig_atomic_t caught = 0;
volatile sig_atomic_t second_exit_code = -1;

void catch_signal(int)
{
    if (caught != 0 && second_exit_code >= 0)
        _exit(second_exit_code);
    caught = 1;
}

} // namespace

void catch_interrupts(int exit_code_of_second)
{
    second_exit_code = exit_code_of_second;
    struct sigaction action = {};
    action.sa_handler = catch_signal; // without SA_RESTART
    for (int signal : {SIGINT, SIGTERM, SIGHUP})
        sigaction(signal, &action, nullptr);
}

bool interrupted()
{
    return caught != 0;
}
