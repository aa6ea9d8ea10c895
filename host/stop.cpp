// What a failed check of the link's libraries does in this program. In the product it parks the process
// for ever, as the first process of the machine must not end; a tool that a person or a script waits for
// has to say what happened and end. The linker takes this definition in place of the libraries' own, which
// stands alone in its archive member for that purpose. Nothing that a peer sends should lead here: it is
// checked before (link.h).

#include <stdio.h>
#include <unistd.h>

#include "errors.h"
#include "qel_utility/qel_log.h"

void qel_assert_fail(const char *expression, const char *file, int line)
{
    fflush(stdout);
    fprintf(stderr,
            "error: a check of the link's libraries failed: \"%s\" at %s:%d. With --device, see whether the "
            "device is still there; if it is, report this as a fault of this program, with a recording "
            "(--record) if you can.\n",
            expression, file, line);
    _exit(exit_stopped);
}
