// The start-up steps from the kernel's file systems to the machine's own. They run once, in main's order.

#include "qel_application_loader/start_up.h"
#include "qel_utility/qel_filesystem.h"
#include "qel_utility/qel_log.h"

#include <fcntl.h>
#include <string.h>
#include <sys/mount.h>
#include <unistd.h>

int qel_install_requested(int argc, char **argv)
{
    int install_mode = 0;
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "qelinstall") == 0)
            install_mode = 1;
    }
    return install_mode;
}

void qel_mount_kernel_file_systems(void)
{
    qel_print("mount: /sys /proc\n");
    qel_mount("sysfs", "sysfs", "/sys", 0, nullptr);
    qel_mount("proc", "proc", "/proc", 0, nullptr);
    qel_mount("usbfs", "none", "/proc/bus/usb", 0, nullptr);
}

void qel_make_board_nodes(void)
{
    qel_print("dev: ");
    qel_make_lpc_nodes();
    qel_print("\n");
}

int qel_console_requested(int mode)
{
    if (!(mode & qel_mode_console))
        return 0;
    qel_print("Want console...\n");
    return 1;
}

void qel_silence_standard_streams(void)
{
    int null_device = open("/dev/null", O_RDWR | O_NOCTTY);
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; stream++) {
        if (null_device != stream)
            dup2(null_device, stream);
    }
    if (null_device > STDERR_FILENO)
        close(null_device);
}

void qel_wait_for_external_media(void)
{
    qel_print("Waiting for external media");
    while (access("/sys/block/sda/sda1", R_OK)) {
        qel_print(".");
        sleep(1);
    }
    qel_print("\n");
}

void qel_make_sound_and_disk_nodes(void)
{
    qel_print("dev: ");
    qel_make_sound_nodes();
    qel_make_disk_nodes("hd");
    qel_make_disk_nodes("sd");
    qel_print("\n");
}

void qel_mount_external_media(void)
{
    qel_print("mount:");
    qel_mount_usb_disks("sd");
    qel_print("\n");
}

void qel_mount_system(void)
{
    qel_print("mount: /usr");
    qel_mount("cramfs", "/dev/disk/hdc2", "/usr", MS_RDONLY, nullptr);
    qel_print(" /storage\n");
    qel_mount_storage();
}

void qel_link_home(void)
{
    qel_symlink("/tmp", "/qel_home");
}
