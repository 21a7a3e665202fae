/*
 * snapshot.c - the point in time of a backup: freeze the file system,
 * install the backup's interception, hand the change map over (or start
 * tracking afresh) at the frozen instant, and thaw.  Also SYNC.
 */
#include <linux/kernel.h>
#include <linux/fs.h>

#include "kivlib.h"

int ioctlSnapShot(Backup *b, void __user *userKey, u32 keyLen)
{
	/* pending: freeze, hook kivMRF, hand over the change map, thaw */
	return 3;
}

int ioctlSync(Backup *b)
{
	/* pending: flush the backup device's dirty buffers (fsync_bdev) */
	return 3;
}
