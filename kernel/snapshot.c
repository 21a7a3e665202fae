/*
 * snapshot.c - the point in time of a backup: freeze the file system,
 * install the backup's interception, hand the change map over (or start
 * tracking afresh) at the frozen instant, and thaw.  Also SYNC.
 *
 * The frozen instant is guarded three ways: the file system is frozen,
 * the backup's writers semaphore is held for writing (no interception is
 * inside the backup's write path), and the exclusive waits on the session
 * and the maps drain change tracking.  Lock order: bSem -> writers -> the
 * session's usersLock -> the backup map's usersLock -> the session map's
 * usersLock.
 */
#include <linux/kernel.h>
#include <linux/kdev_t.h>
#include <linux/fs.h>
#include <linux/blkdev.h>
#include <linux/bio.h>
#include <linux/completion.h>
#include <linux/string.h>
#include <linux/random.h>
#include <linux/time.h>
#include <linux/rwsem.h>
#include <linux/semaphore.h>
#include <linux/spinlock.h>
#include <linux/buffer_head.h>
#include <asm/uaccess.h>

#include "kivlib.h"

/* end - start; nanoseconds borrowed once, nothing else normalised. */
struct timespec calcTimeDiff(struct timespec *start, struct timespec *end)
{
	struct timespec diff;

	diff.tv_sec = end->tv_sec - start->tv_sec;
	diff.tv_nsec = end->tv_nsec - start->tv_nsec;
	if (diff.tv_nsec < 0) {
		diff.tv_nsec += 1000000000;
		diff.tv_sec--;
	}
	return diff;
}

/*
 * Replace b's partition's session by a new one (the caller's shared entry
 * on the old one is given up first).  Returns 0 with *ams set, or
 * newAMS()'s code after logging.
 */
static int recreateAMS(Backup *b, AutoMapSession **ams)
{
	int result;

	exitAMSUsers(*ams);
	closeAMS(b);
	*ams = NULL;
	result = newAMS(b, ams);
	if (result) {
		printk(KERN_ERR "%s: new automap failed%s", "ioctlSnapShot",
		       "\n");
		*ams = NULL;
	}
	return result;
}

/*
 * Give back the all-clear map built for the hand-over when the snapshot
 * fails after building it (queue hook or freeze refused).  Left in place,
 * it would be built a second time over itself by a repeated SNAPSHOT and
 * its pages lost; the backup is still in state 2, so nothing else uses
 * its block map.
 */
static void dropHandOverMap(Backup *b)
{
	int numPages = 0;

	if (!b->blockMap.map)
		return;
	closeBlockMap(&b->blockMap, &numPages);
	atomic_sub(numPages, &b->curAllocPages);
}

/* Completion of the drain's barrier: wakes the snapshot. */
static void drainEndIO(struct bio *bio, int error)
{
	complete(bio->bi_private);
}

/*
 * Wait until every request queued on b's disk before this call has
 * completed: an empty barrier sent straight to the real make_request
 * function (not through our own hook, which may be waiting for the
 * caller).  With the ordered mode of a disk with a write cache (2.6.27's
 * QUEUE_ORDERED_DRAIN_FLUSH: IDE and SCSI disks as they usually run) the
 * barrier ends only once the queue ahead of it has drained.  A queue
 * without a prepare_flush_fn refuses empty barriers (generic_make_request
 * would end it with -EOPNOTSUPP), so nothing is sent there and nothing is
 * guaranteed: without a write cache, or on a device-mapper volume, a
 * write sent before the queue was hooked and still queued at the frozen
 * instant may land after the backup read its block.  Process context;
 * caller holds bSem only.
 */
static void drainQueue(Backup *b)
{
	struct request_queue *q = getRequestQueue(&b->diskInfo);
	struct completion done;
	struct bio *bio;

	if (!q || !q->prepare_flush_fn)
		return;
	/*
	 * Only through a device someone has open (a mounted file system
	 * holds it): __make_request takes the request's disk from bi_bdev.
	 * Without one the freeze that follows refuses anyway.
	 */
	if (!b->diskInfo.bdev || !b->diskInfo.bdev->bd_contains)
		return;
	bio = bio_alloc(GFP_KERNEL, 0);
	if (!bio)
		return;
	init_completion(&done);
	bio->bi_bdev = b->diskInfo.bdev;
	bio->bi_sector = b->diskInfo.partitionStart;
	bio->bi_rw = 1 << BIO_RW_BARRIER;
	bio->bi_end_io = drainEndIO;
	bio->bi_private = &done;
	callRealMRF(b, bio);
	wait_for_completion(&done);
	bio_put(bio);
}

/*
 * SNAPSHOT: fix the backup's point in time.  userKey/keyLen is the session
 * key user space read after the previous snapshot of the partition.
 * Returns 0 (also for a key mismatch, which leaves the backup in state 2),
 * 2 not in state 2 or hook/freeze refused, 6 key unreadable, or the code
 * of newAMS/newBlockMap.  Process context, holds bSem throughout, sleeps.
 */
int ioctlSnapShot(Backup *b, void __user *userKey, u32 keyLen)
{
	struct AMSessionKey key;
	struct timespec freezeTime, afterFreezeTime, thawTime;
	struct super_block *sb;
	struct block_device *bdev;
	AutoMapSession **slot;
	AutoMapSession *ams = NULL;
	unsigned long flags, bmFlags, amFlags;
	struct page **pages;
	dev_t kdev = b->diskInfo.kdev;
	int builtMap = 0;
	int numPages = 0;
	int result = 0;
	u32 len;
	int i;

	memset(&key, 0, sizeof(key));
	memset(&freezeTime, 0, sizeof(freezeTime));
	memset(&afterFreezeTime, 0, sizeof(afterFreezeTime));
	memset(&thawTime, 0, sizeof(thawTime));
	down(&b->bSem);

	if (b->state != BU_STATE_STARTED) {
		result = 2;
		goto out;
	}

	/* A shorter key is compared as its bytes followed by zeros. */
	len = keyLen < KIV_AMS_KEY_LEN ? keyLen : KIV_AMS_KEY_LEN;
	if (copy_from_user(key.key, userKey, len)) {
		printk(KERN_ERR "%s: copy from user space %s\n",
		       "ioctlSnapShot", "failed");
		result = 6;
		goto out;
	}

	enterAMListUsers();
	slot = amSlot(kdev);
	if (slot)
		ams = *slot;

	if (!ams) {
		exitAMListUsers();
		if (b->noStartAutoMap != 1) {
			result = newAMS(b, &ams);
			if (result) {
				printk(KERN_ERR "%s: new automap failed%s",
				       "ioctlSnapShot", "\n");
				goto out;
			}
			ams = getAMS(kdev);
		}
	} else {
		enterAMSUsers(ams);
		exitAMListUsers();
		if (b->noStartAutoMap == 1) {
			exitAMSUsers(ams);
			closeAMS(b);
			ams = NULL;
		} else if (ams->state != AM_STATE_IN_SYNC ||
			   b->noLoadFromAutoMap == 1) {
			result = recreateAMS(b, &ams);
			if (result)
				goto out;
			ams = getAMS(kdev);
		} else if (memcmp(ams->sessionKey.key, key.key,
				  KIV_AMS_KEY_LEN)) {
			/*
			 * Reported as success, as user space has always
			 * seen it: the caller learns of the mismatch only
			 * because the backup stays in state 2.
			 */
			printk(KERN_ERR "%s: session key mismatch%s",
			       "ioctlSnapShot", "\n");
			exitAMSUsers(ams);
			goto out;
		} else if (b->diskInfo.numBlocks != (u64)ams->map.size) {
			/*
			 * The 64-bit block count has always filled both %u
			 * (low half, then high half on this 32-bit ABI), so
			 * the line does not show the map's size.  Kept as the
			 * message has always read; the halves are passed
			 * explicitly so the format matches its arguments.
			 */
			printk(KERN_WARNING "%s: device resize detected, "
			       "device has (%u) blocks and automap has (%u), "
			       "resetting automap\n", "ioctlSnapShot",
			       (u32)b->diskInfo.numBlocks,
			       (u32)(b->diskInfo.numBlocks >> 32));
			setAMSState(ams, AM_STATE_NOT_IN_SYNC);
			result = recreateAMS(b, &ams);
			if (result)
				goto out;
			ams = getAMS(kdev);
		} else {
			/* Hand-over: the backup gets an all-clear map now. */
			result = newBlockMap(&b->blockMap, ams->map.size, NULL,
					     1, &numPages);
			if (result) {
				exitAMSUsers(ams);
				printk(KERN_ERR "%s: failed to create new "
				       "device map%s", "ioctlSnapShot", "\n");
				goto out;
			}
			builtMap = 1;
			atomic_add(numPages, &b->totalAllocPages);
			atomic_add(numPages, &b->curAllocPages);
		}
	}

	/*
	 * Every snapshot gives the session a fresh key.  The shared entry
	 * taken on the session is kept until after the frozen instant: the
	 * UNLOAD command of another file closes and frees every session, and
	 * closeAM waits for the session's users to leave, so the entry keeps
	 * the session alive across the hook, the drain and the freeze, all
	 * of which sleep.  (A new session is looked up again after it was
	 * made, with getAMS, for the same reason: NULL means it was closed
	 * already, and the backup then runs untracked.)
	 */
	if (ams) {
		memset(ams->sessionKey.key, 0xFF, KIV_AMS_KEY_LEN);
		for (i = 0; i < KIV_AMS_KEY_LEN; i++)
			get_random_bytes(&ams->sessionKey.key[i], 1);
	}

	if (setMRF(b, kivMRF)) {
		printk(KERN_ERR "%s: device major=%d minor=%d not valid\n",
		       "ioctlSnapShot", (int)MAJOR(kdev), (int)MINOR(kdev));
		if (builtMap)
			dropHandOverMap(b);
		result = 2;
		goto outAMS;
	}

	bdev = b->diskInfo.bdev;
	/*
	 * Every write to the partition from here on passes kivMRF and is
	 * counted by the session (waitForAMSWrites at the instant).  Writes
	 * sent before -- while the queue had no hook, or the partition no
	 * session -- were never counted: drain them.  Before the freeze, so
	 * that the time frozen does not include a wait for the disk.
	 */
	if (ams)
		drainQueue(b);

	/* "freez" and the error level are the message as it always read. */
	printk(KERN_ERR "%s: Going to freez: %d.%d\n", "ioctlSnapShot",
	       (int)MAJOR(bdev->bd_dev), (int)MINOR(bdev->bd_dev));

	freezeTime = current_kernel_time();
	sb = freeze_bdev(bdev);
	afterFreezeTime = current_kernel_time();

	if (!sb) {
		/*
		 * The interception stays installed and the session keeps
		 * its new key; the backup stays in state 2 and the command
		 * may be repeated (with the new key).
		 */
		thaw_bdev(bdev, NULL);
		printk(KERN_ERR "%s: freeze_bdev could not freeze the "
		       "device.%s", "ioctlSnapShot", "\n");
		if (builtMap)
			dropHandOverMap(b);
		result = 2;
		goto outAMS;
	}

	/*
	 * The frozen instant.  With writers held for writing no write to the
	 * partition is between its recording and its copy decision (kivMRF
	 * does both under the read side), and waitForAMSWrites lets every
	 * write already recorded reach the disk first: so every write that
	 * lands after this instant is in the map the session keeps, and the
	 * map handed over holds only writes this backup reads complete.
	 */
	down_write(&b->writers);
	if (ams) {
		waitForAMSWritesAsUser(ams, &flags);
		if (ams->state == AM_STATE_IN_SYNC) {
			waitForBlockMapUsers(&b->blockMap, &bmFlags);
			waitForBlockMapUsersNested(&ams->map, &amFlags);
			pages = b->blockMap.map;
			b->blockMap.map = ams->map.map;
			ams->map.map = pages;
			spin_unlock_irqrestore(&ams->map.usersLock, amFlags);
			spin_unlock_irqrestore(&b->blockMap.usersLock, bmFlags);
		} else {
			/*
			 * A new session, or a kept one that fell out of sync
			 * since it was chosen: tracking starts now, and the
			 * backup keeps whatever map it has (all clear).
			 */
			setAMSState(ams, AM_STATE_IN_SYNC);
		}
		setBackupState(b, BU_STATE_SNAPSHOT);
		spin_unlock_irqrestore(&ams->usersLock, flags);
	} else {
		setBackupState(b, BU_STATE_SNAPSHOT);
	}
	up_write(&b->writers);

	thaw_bdev(bdev, sb);
	thawTime = current_kernel_time();

	/* Frozen time counts from before the freeze call. */
	b->eTimeToFreeze = calcTimeDiff(&freezeTime, &afterFreezeTime);
	b->eTimeFrozen = calcTimeDiff(&freezeTime, &thawTime);
outAMS:
	/* From here on the session may be closed and freed at any time. */
	if (ams)
		exitAMSUsers(ams);
out:
	up(&b->bSem);
	return result;
}

/* SYNC: write back the partition's dirty buffers.  Always 0. */
int ioctlSync(Backup *b)
{
	fsync_bdev(b->diskInfo.bdev);
	return 0;
}
