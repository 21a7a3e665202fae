/*
 * blocker.c - a module of the boot test that only occupies character major
 * 120, so that loading corvalin afterwards meets a taken major and takes
 * its registration-failure path.
 *
 * It registers a file-operations table with no operations and prints
 * nothing: the boot test compares the kernel log of the scenario with the
 * emulated run, where the major is taken by a bare registration.
 */
#include <linux/module.h>
#include <linux/init.h>
#include <linux/fs.h>

#define BLOCKER_MAJOR	120
#define BLOCKER_NAME	"blocker"

static const struct file_operations blockerFileOps = {
	.owner = THIS_MODULE,
};

static int __init blockerInit(void)
{
	return register_chrdev(BLOCKER_MAJOR, BLOCKER_NAME, &blockerFileOps);
}

static void __exit blockerExit(void)
{
	unregister_chrdev(BLOCKER_MAJOR, BLOCKER_NAME);
}

module_init(blockerInit);
module_exit(blockerExit);

MODULE_DESCRIPTION("corvalin boot test: holds character major 120");
MODULE_LICENSE("GPL");
