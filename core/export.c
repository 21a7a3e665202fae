/*
 * export.c - change-tracking results for user space: the session's state
 * and key, the change map handed to the backup, and a block still held
 * in the block cache.
 */
#include <linux/kernel.h>

#include "kivlib.h"

int ioctlGetAutoMapState(Backup *b, void __user *userAMS, u32 amsLen)
{
	/* pending: report the partition's session state, map size and key */
	return 3;
}

int ioctlGetAutoMap(Backup *b, struct UserBlockMap *userBM)
{
	/* pending: copy the handed-over change map out, then release it */
	return 3;
}

int ioctlGetDirtyBlock(Backup *b, u32 __user *userBlockNumPtr)
{
	/* pending: report the head block of the first non-empty bucket */
	return 3;
}
