/*
 * shim-2.6.c - module references, character-device registration and
 * request-queue locking for the 2.6 kernels.
 */
#include <linux/module.h>
#include <linux/fs.h>
#include <linux/blkdev.h>
#include <linux/genhd.h>
#include <linux/spinlock.h>

#include "shim-2.6.h"

/*
 * Register the control device.  The table's owner is filled in here so
 * that every open file pins this module.  Returns register_chrdev()'s
 * result unchanged (0, or a negative errno).
 */
int kivModRegister(int major, char *name, struct file_operations *fops)
{
	fops->owner = THIS_MODULE;
	return register_chrdev(major, name, fops);
}

/* Take a module reference: 0 when taken, 1 when the module is going away. */
int kivModGet(void)
{
	return try_module_get(THIS_MODULE) ? 0 : 1;
}

void kivModPut(void)
{
	module_put(THIS_MODULE);
}

/*
 * The kernel itself refuses to unload a module with open files (each holds
 * a reference), so there is nothing more to check here: always "not in
 * use".  The unload paths still ask, so that a stricter rule fits in here.
 */
int kivCheckModUse(void)
{
	return 0;
}

/* The request queue of a block device's disk, or NULL if there is none. */
struct request_queue *kivGetRequestQueue(struct block_device *bdev)
{
	if (!bdev || !bdev->bd_disk)
		return NULL;
	return bdev->bd_disk->queue;
}

/*
 * Take the queue's own spin lock, interrupts saved in *flags.  Held only
 * around one read or write of q->make_request_fn.  A queue without a lock
 * is left alone.
 */
void kivLockRequestQueue(struct request_queue *q, unsigned long *flags)
{
	if (q->queue_lock)
		spin_lock_irqsave(q->queue_lock, *flags);
}

void kivUnlockRequestQueue(struct request_queue *q, unsigned long flags)
{
	if (q->queue_lock)
		spin_unlock_irqrestore(q->queue_lock, flags);
}
