// The first user-space program of the machine: from kernel start to a running application, which it
// keeps running. It never returns.

#include "qel_application_loader/application.h"
#include "qel_application_loader/installer.h"
#include "qel_application_loader/start_up.h"
#include "qel_application_loader/update_mode.h"
#include "qel_tolbrin/qel_h8_command.h"
#include "qel_utility/qel_log.h"

int main(int argc, char **argv)
{
    int install_mode = qel_install_requested(argc, argv);
    qel_print("QEL Loader...\n");

    qel_mount_kernel_file_systems();
    qel_make_board_nodes();

    int mode = qel_h8_get_mode();
    int want_console = qel_console_requested(mode);
    if (mode & qel_mode_update)
        qel_run_update_mode();
    if (!want_console)
        qel_silence_standard_streams();

    if (install_mode)
        qel_wait_for_external_media();
    qel_make_sound_and_disk_nodes();
    qel_mount_external_media();
    if (install_mode)
        qel_install();

    qel_mount_system();
    qel_link_home();

    struct qel_application application;
    qel_find_application(&application);
    qel_start_x_server();
    qel_run_application_for_ever(&application);
}
