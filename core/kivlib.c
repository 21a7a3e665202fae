/*
 * kivlib.c - module load and unload, and the control device's file
 * operations.
 *
 * The control device is character major 120, "corvalin".  Every open file
 * gets its own Backup record (kiv-2.6.h) in file->private_data; commands
 * (dispatch.c) act on the record of the file they are issued on, and the
 * record is closed and freed when the file is released.  Every open file
 * holds a module reference, so the module cannot go while a backup is
 * open.
 */
#include <linux/module.h>
#include <linux/init.h>
#include <linux/kernel.h>
#include <linux/fs.h>
#include <linux/errno.h>
#include <linux/poll.h>
#include <linux/slab.h>
#include <linux/string.h>
#include <linux/spinlock.h>
#include <linux/rwsem.h>
#include <linux/semaphore.h>
#include <asm/atomic.h>

#include "kivlib.h"

MODULE_DESCRIPTION("corvalin block-device backup driver: point-in-time "
		   "snapshots and changed-block tracking");
MODULE_LICENSE("GPL");

/* Only these entries: no llseek, unlocked_ioctl, compat_ioctl or flush. */
struct file_operations kivFileOps = {
	.read = kivRead,
	.write = kivWrite,
	.poll = kivPoll,
	.ioctl = kivIOCTL,
	.mmap = kivMMAP,
	.open = kivOpen,
	.release = kivRelease,
};

int __init kivInit(void)
{
	int result;

	sema_init(&signalThread, 1);

	result = kivModRegister(KIV_MAJOR, KIV_DEVICE_NAME, &kivFileOps);
	if (!result) {
		atomic_set(&initDone, 1);
	} else {
		/*
		 * Both are already zero from load; resetting them here only
		 * on failure keeps the state the same either way.
		 */
		spin_lock_init(&busyLock);
		memset(amList, 0, sizeof(amList));
	}

	printk(KERN_INFO "%s: corvalin version %d.%d.%d build %d %s\n",
	       "kivInit", KIV_VERSION_MAJOR, KIV_VERSION_MINOR,
	       KIV_VERSION_MINOR2, KIV_BUILD,
	       atomic_read(&initDone) == 1 ? "loaded" : "load FAILED");
	return result;
}

void __exit kivExit(void)
{
	doModuleUnload();
	printk(KERN_INFO "%s: corvalin version %d.%d.%d build %d exiting\n",
	       "kivExit", KIV_VERSION_MAJOR, KIV_VERSION_MINOR,
	       KIV_VERSION_MINOR2, KIV_BUILD);
}

module_init(kivInit);
module_exit(kivExit);

/*
 * Close every change-tracking session, give every queue still hooked its
 * real function back (also those no session holds any more) and
 * unregister the control device.  No backup can be open here: each open
 * file pins the module.  initDone stays 1.
 */
int kivUnload(void)
{
	if (kivCheckModUse())
		return -1;
	closeAllAMS();
	unsetAllQueues();
	unregister_chrdev(KIV_MAJOR, KIV_DEVICE_NAME);
	printk(KERN_INFO "%s: corvalin version %d.%d.%d build %d "
	       "ready to be unloaded\n", "kivUnload", KIV_VERSION_MAJOR,
	       KIV_VERSION_MINOR, KIV_VERSION_MINOR2, KIV_BUILD);
	return 0;
}

/*
 * The UNLOAD command: end all change tracking.  The device stays
 * registered and the caller's Backup is left alone.
 */
int kivShutdown(void)
{
	if (kivCheckModUse())
		return -1;
	closeAllAMS();
	return 0;
}

void doModuleUnload(void)
{
	kivUnload();
}

/*
 * Give the new file a fresh, idle Backup.  Opening does not claim the
 * backup slot; START_BACKUP does.  Process context, may sleep.
 *
 * The driver's own result codes (1 before registration, 5 without
 * memory, 3 when the module is going away) cannot be returned here:
 * 2.6.27's __dentry_open hands a positive result to ERR_PTR, which
 * IS_ERR does not take for an error, and do_sys_open then uses "file" 5
 * and oopses.  Open fails with the kernel's errors instead: -ENXIO (what
 * an open of an unregistered device gets), -ENOMEM, -ENODEV.  Nor can a
 * failed open leave its record with the file: the kernel never releases
 * a file whose open failed, so the record is freed here.
 */
int kivOpen(struct inode *inode, struct file *file)
{
	Backup *b;

	if (atomic_read(&initDone) != 1)
		return -ENXIO;

	b = kzalloc(sizeof(*b), GFP_KERNEL);
	if (!b)
		return -ENOMEM;

	sema_init(&b->bSem, 1);
	mutex_init(&b->vmLock);
	setBackupState(b, BU_STATE_IDLE);
	init_rwsem(&b->cacheUsers);
	init_rwsem(&b->writers);
	spin_lock_init(&b->mrLock);
	atomic_set(&b->mrInQueue, 0);
	atomic_set(&b->ioctlCount, 0);
	atomic_set(&b->totalAllocPages, 0);
	atomic_set(&b->curAllocPages, 0);
	atomic_set(&b->totalAllocBRs, 0);
	atomic_set(&b->curAllocBRs, 0);
	atomic_set(&b->totalAllocCPs, 0);
	atomic_set(&b->curAllocCPs, 0);
	atomic_set(&b->peakAllocCPs, 0);
	atomic_set(&b->totalCBs, 0);
	atomic_set(&b->curCBs, 0);
	atomic_set(&b->totalReadBlocks, 0);
	atomic_set(&b->totalReadCBs, 0);
	atomic_set(&b->totalCleanedCBs, 0);

	if (kivModGet()) {
		kfree(b);
		return -ENODEV;
	}
	file->private_data = b;
	return 0;
}

/*
 * End whatever the file's backup was doing and free its record.  The
 * record is detached first so that nothing reaches it through the file
 * while it is closed.  Process context, may sleep.
 */
int kivRelease(struct inode *inode, struct file *file)
{
	Backup *b = file->private_data;

	if (!b)
		return 2;
	file->private_data = NULL;
	closeBackup(b);
	kivModPut();
	return 0;
}

/* All data moves through commands and the mapped buffer: end of file. */
ssize_t kivRead(struct file *file, char __user *buf, size_t count,
		loff_t *pos)
{
	return 0;
}

/* Nothing is ever written through write(). */
ssize_t kivWrite(struct file *file, const char __user *buf, size_t count,
		 loff_t *pos)
{
	return 0;
}

/* No events. */
unsigned int kivPoll(struct file *file, struct poll_table_struct *wait)
{
	return 0;
}
