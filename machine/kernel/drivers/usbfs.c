/*
 * The "usbfs" file system of the cabinet's own kernel, which newer kernels no longer have: a name to
 * mount, an empty root, and the folder /proc/bus/usb to mount it on. Nothing reads what is in it.
 */
#include <linux/fs.h>
#include <linux/fs_context.h>
#include <linux/init.h>
#include <linux/proc_fs.h>

static int usbfs_fill(struct super_block *sb, struct fs_context *fc)
{
	static const struct tree_descr no_files[] = { { "" } };

	return simple_fill_super(sb, 0x9fa2, no_files);
}

static int usbfs_get_tree(struct fs_context *fc)
{
	return get_tree_single(fc, usbfs_fill);
}

static const struct fs_context_operations usbfs_context_ops = {
	.get_tree = usbfs_get_tree,
};

static int usbfs_init_context(struct fs_context *fc)
{
	fc->ops = &usbfs_context_ops;
	return 0;
}

static struct file_system_type usbfs_type = {
	.name = "usbfs",
	.init_fs_context = usbfs_init_context,
	.kill_sb = kill_litter_super,
};

static int __init usbfs_init(void)
{
	if (!proc_mkdir("bus/usb", NULL))
		return -ENOMEM;
	return register_filesystem(&usbfs_type);
}
fs_initcall(usbfs_init);
