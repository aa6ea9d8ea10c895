// What a failed check of the link's libraries does in this program. In the product it parks the process
// forever, as the first process of the machine must not end; a tool that a person or a script waits for has
// to say what happened and end. The linker takes this definition in place of the libraries' own, which stands
// alone in its archive member for that purpose. Nothing that a peer sends should lead here.

#include "output.h"

#include "qel_utility/qel_log.h"

#include <unistd.h>

void qel_assert_fail(const char *expression, const char *file, int line)
{
    std::string text = "a check of the link's libraries failed: \"" + std::string(expression) + "\" at " +
                       file + ":" + std::to_string(line) +
                       "; report this as a fault of this program, with a recording (--record) "
                       "if you can";
    print_error(text);
    try {
        print_result({.fault = fault::internal, .text = text});
    } catch (const Failure &) {
        // There is nobody left to say it to.
    }
    _exit(fault::internal.exit);
}
