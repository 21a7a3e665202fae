/*
 * shim-2.6.h - the few kernel-version dependent operations of the
 * corvalin driver: module references, character-device registration and
 * request-queue locking.  The core calls these and never touches module
 * or queue internals itself.
 */
#ifndef _SHIM_26_H
#define _SHIM_26_H

#include <linux/fs.h>
#include <linux/blkdev.h>

int kivModRegister(int major, char *name, struct file_operations *fops);
int kivModGet(void);
void kivModPut(void);
int kivCheckModUse(void);

struct request_queue *kivGetRequestQueue(struct block_device *bdev);
void kivLockRequestQueue(struct request_queue *q, unsigned long *flags);
void kivUnlockRequestQueue(struct request_queue *q, unsigned long flags);

#endif /* _SHIM_26_H */
