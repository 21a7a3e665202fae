/*
 * dispatch.c - the command dispatcher of the control device and the small
 * handlers that need no other subsystem.
 *
 * kivIOCTL is entered through the kernel's locked ioctl entry, which
 * serialises commands only until a handler sleeps; handlers serialise on
 * their record's bSem.  Every handler returns the driver's own small
 * result codes (corvalin.h), passed to user space unchanged.
 */
#include <linux/kernel.h>
#include <linux/fs.h>
#include <linux/kdev_t.h>
#include <linux/string.h>
#include <linux/semaphore.h>
#include <asm/atomic.h>
#include <asm/uaccess.h>

#include "kivlib.h"

static int putVersion(void __user *argp, int version)
{
	if (copy_to_user(argp, &version, sizeof(version))) {
		printk(KERN_ERR "%s: copy to user space %s\n", "kivIOCTL",
		       "failed");
		return 7;
	}
	return 0;
}

/*
 * Decode one command: copy its argument record in (6 on a fault, without
 * a message), call its handler with the record's fields and return the
 * handler's result.  The whole 32-bit code is compared, so a known number
 * with another size or direction is an unknown command.  Every command
 * that gets past the record lookup is counted, unknown ones included.
 */
int kivIOCTL(struct inode *inode, struct file *file, unsigned int cmd,
	     unsigned long arg)
{
	void __user *argp = (void __user *)arg;
	Backup *b;
	union {
		struct GetBlockSize getBlockSize;
		struct StartBackup startBackup;
		struct SnapShot snapShot;
		struct GetState getState;
		struct GetAutoMapState getAutoMapState;
		struct LoadBlockMap loadBlockMap;
		struct GetAutoMap getAutoMap;
		struct DirtyBlock dirtyBlock;
		struct ReadBlocks readBlocks;
	} rec;
	struct UserBlockMap userBM;
	u32 __user *blockNumPtr;

	if (atomic_read(&initDone) != 1)
		return 1;
	b = file->private_data;
	if (!b)
		return 2;
	atomic_inc(&b->ioctlCount);

	switch (cmd) {
	case KIV_IOC_GET_BLOCK_SIZE:
		if (copy_from_user(&rec.getBlockSize, argp,
				   sizeof(rec.getBlockSize)))
			return 6;
		return ioctlGetBlockSize(b,
				KIV_MKDEV(rec.getBlockSize.major,
					  rec.getBlockSize.minor),
				kivUserPtr(rec.getBlockSize.bs),
				rec.getBlockSize.len);

	case KIV_IOC_START_BACKUP:
		if (copy_from_user(&rec.startBackup, argp,
				   sizeof(rec.startBackup)))
			return 6;
		return ioctlStartBackup(b,
				KIV_MKDEV(rec.startBackup.major,
					  rec.startBackup.minor),
				rec.startBackup.totalBlocks,
				rec.startBackup.maxCacheBlocks);

	case KIV_IOC_SNAPSHOT:
		if (copy_from_user(&rec.snapShot, argp, sizeof(rec.snapShot)))
			return 6;
		return ioctlSnapShot(b, kivUserPtr(rec.snapShot.amsKey),
				     rec.snapShot.len);

	case KIV_IOC_GET_STATE:
		if (copy_from_user(&rec.getState, argp, sizeof(rec.getState)))
			return 6;
		return ioctlGetState(b, kivUserPtr(rec.getState.s),
				     rec.getState.len);

	case KIV_IOC_GET_AUTOMAP_STATE:
		if (copy_from_user(&rec.getAutoMapState, argp,
				   sizeof(rec.getAutoMapState)))
			return 6;
		return ioctlGetAutoMapState(b,
				kivUserPtr(rec.getAutoMapState.ams),
				rec.getAutoMapState.len);

	case KIV_IOC_NO_LOAD_FROM_AUTOMAP:
		return ioctlNoLoadFromAutoMap(b);

	case KIV_IOC_NO_START_AUTOMAP:
		return ioctlNoStartAutoMap(b);

	case KIV_IOC_LOAD_BLOCK_MAP:
		/* The outer len is not consulted: bm always has 8 bytes. */
		if (copy_from_user(&rec.loadBlockMap, argp,
				   sizeof(rec.loadBlockMap)))
			return 6;
		if (copy_from_user(&userBM, kivUserPtr(rec.loadBlockMap.bm),
				   sizeof(userBM)))
			return 6;
		return ioctlLoadBlockMap(b, &userBM);

	case KIV_IOC_GET_AUTOMAP:
		if (copy_from_user(&rec.getAutoMap, argp,
				   sizeof(rec.getAutoMap)))
			return 6;
		if (copy_from_user(&userBM, kivUserPtr(rec.getAutoMap.bm),
				   sizeof(userBM)))
			return 6;
		return ioctlGetAutoMap(b, &userBM);

	case KIV_IOC_GET_DIRTY_BLOCK:
		if (copy_from_user(&rec.dirtyBlock, argp,
				   sizeof(rec.dirtyBlock)))
			return 6;
		blockNumPtr = kivUserPtr(rec.dirtyBlock.blockNum);
		return ioctlGetDirtyBlock(b, blockNumPtr);

	case KIV_IOC_READ_BLOCKS:
		if (copy_from_user(&rec.readBlocks, argp,
				   sizeof(rec.readBlocks)))
			return 6;
		return ioctlReadBlocks(b, rec.readBlocks.startBlockNum,
				       rec.readBlocks.numBlocks,
				       (unsigned long)rec.readBlocks.data);

	case KIV_IOC_GET_VERSION_MAJOR:
		return putVersion(argp, KIV_VERSION_MAJOR);

	case KIV_IOC_GET_VERSION_MINOR:
		return putVersion(argp, KIV_VERSION_MINOR);

	case KIV_IOC_SYNC:
		return ioctlSync(b);

	case KIV_IOC_UNLOAD:
		return kivShutdown();

	case KIV_IOC_COMMAND_16:
		return 3;

	default:
		printk(KERN_ERR "%s: ioctl command not found%s", "kivIOCTL",
		       "\n");
		return 4;
	}
}

/*
 * GET_STATE: device, state, block size and read-buffer size of the file's
 * backup, cut to len bytes (a short length is no error).  All zero before
 * a backup starts.
 */
int ioctlGetState(Backup *b, void __user *userState, u32 len)
{
	struct State s;
	u32 n;

	memset(&s, 0, sizeof(s));
	down(&b->bSem);
	s.major = MAJOR(b->diskInfo.kdev);
	s.minor = MINOR(b->diskInfo.kdev);
	s.state = b->state;
	s.blockSize = b->diskInfo.blockSize;
	s.mmapSize = b->maxVMPages * KIV_PAGE_SIZE;
	up(&b->bSem);

	n = len < sizeof(s) ? len : (u32)sizeof(s);
	if (copy_to_user(userState, &s, n)) {
		printk(KERN_ERR "%s: copy to user space %s\n", "ioctlGetState",
		       "failed");
		return 7;
	}
	return 0;
}

/* The next snapshot on this file will not take over the change map. */
int ioctlNoLoadFromAutoMap(Backup *b)
{
	down(&b->bSem);
	b->noLoadFromAutoMap = 1;
	up(&b->bSem);
	return 0;
}

/* The next snapshot on this file ends change tracking of its partition. */
int ioctlNoStartAutoMap(Backup *b)
{
	down(&b->bSem);
	b->noStartAutoMap = 1;
	up(&b->bSem);
	return 0;
}
