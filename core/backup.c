/*
 * backup.c - start and close of a backup.
 *
 * Only one backup runs system-wide: busy (guarded by busyLock) is the
 * slot, activeSession (guarded by activeSessionUsers) names the running
 * record for the interception path.  Close tears down whatever a start
 * built, in reverse order, so a start that failed half-way is cleaned up
 * by the same close.
 */
#include <linux/kernel.h>
#include <linux/kdev_t.h>
#include <linux/mm.h>
#include <linux/slab.h>
#include <linux/vmalloc.h>
#include <linux/sched.h>
#include <linux/spinlock.h>
#include <linux/rwsem.h>
#include <linux/semaphore.h>
#include <linux/completion.h>
#include <asm/atomic.h>

#include "kivlib.h"

int ioctlStartBackup(Backup *b, dev_t kdev, u32 totalBlocks,
		     u32 maxCacheBlocks)
{
	/* pending: claim the slot, read geometry, build cache, start thread */
	return 3;
}

/* Per-record hooks of the read-request cache; nothing to do here. */
void allocateBRCache(Backup *b)
{
}

void closeBRCache(Backup *b)
{
}

/*
 * Stop intercepting the backup's queue: it goes back to change tracking
 * when a tracking session remains on it, else to its real function.
 * Caller holds bSem and writers (write).
 */
void handBackQueue(Backup *b)
{
	AutoMapSession *ams;
	struct request_queue *q;
	int inSync = 0;
	int n;

	ams = getAMS(b->diskInfo.kdev);
	if (ams) {
		inSync = ams->state == AM_STATE_IN_SYNC;
		exitAMSUsers(ams);
	}
	if (inSync) {
		if (!setMRF(b, kivAMRF))
			return;
		errorAMSDEV(b->diskInfo.kdev);
	}

	if (b->state == BU_STATE_IDLE)
		return;

	q = getRequestQueue(&b->diskInfo);
	n = countQueueAMS(q);
	if (n > 1) {
		if (!setMRF(b, kivAMRF))
			return;
		errorAMSDEV(b->diskInfo.kdev);
	}
	unsetQueueMRFAMS(q);
}

/*
 * Wait until the cache thread has finished every held request.  Polls by
 * yielding, with no time limit; gives up only if the thread is gone.
 * Caller holds writers (write), which the cache thread never takes.
 */
void waitForMRs(Backup *b)
{
	unsigned long flags;

	spin_lock_irqsave(&b->mrLock, flags);
	while (atomic_read(&b->mrInQueue) > 0 && backup_cachePID > 0) {
		spin_unlock_irqrestore(&b->mrLock, flags);
		schedule();
		spin_lock_irqsave(&b->mrLock, flags);
	}
	if (backup_cachePID <= 0)
		printk(KERN_ERR "%s: backup_cache thread died during "
		       "waitForMRs%s", "waitForMRs", "\n");
	spin_unlock_irqrestore(&b->mrLock, flags);
}

void flushWorkQueue(Backup *b)
{
	if (backup_cachePID > 0)
		waitForMRs(b);
}

/*
 * Stop "kbackupd", if this record started it.  Shutdown rule: the held
 * requests are already drained (flushWorkQueue); clearing the run flag and
 * raising signalThread wakes the thread, which leaves its loop, gives
 * signalThread back (count 1 again), signals backup_cacheThreadExited and
 * exits.  Only then is the pid cleared.
 */
void killWorkQueue(Backup *b)
{
	if (!b->startedCacheThread || backup_cachePID <= 0)
		return;
	atomic_set(&backup_cacheThreadContinue, 0);
	up(&signalThread);
	wait_for_completion(&backup_cacheThreadExited);
	backup_cachePID = 0;
}

/*
 * Free one of the backup's maps, if built; its pages leave curAllocPages.
 * Caller (the close) holds bSem and writers, so no bit operation is
 * inside.
 */
static void closeBackupMap(Backup *b, BlockMap *bm)
{
	int numPages = 0;

	if (!bm->map)
		return;
	closeBlockMap(bm, &numPages);
	atomic_sub(numPages, &b->curAllocPages);
}

void closeBUBlockMap(Backup *b)
{
	closeBackupMap(b, &b->blockMap);
}

void closeCacheMap(Backup *b)
{
	closeBackupMap(b, &b->cacheMap);
}

/* Free the block cache's buckets, their table and their kmem_cache. */
void closeBlockTable(Backup *b)
{
	int i;

	if (b->blockTable) {
		for (i = 0; i < KIV_HASH_BUCKETS; i++) {
			if (b->blockTable[i])
				kmem_cache_free(b->htCache, b->blockTable[i]);
		}
		vfree(b->blockTable);
		b->blockTable = NULL;
	}
	if (b->htCache) {
		kmem_cache_destroy(b->htCache);
		b->htCache = NULL;
	}
}

/*
 * Close the file's record: end its backup if it runs, free everything it
 * holds, print its statistics if it ever left state 0, free the slot and
 * the record.  Called only from kivRelease, after the record was detached
 * from its file.  Process context, may sleep.
 */
void closeBackup(Backup *b)
{
	struct Stats *stats;
	unsigned long flags;
	u32 savedState;

	down(&b->bSem);
	down_write(&b->writers);

	handBackQueue(b);

	savedState = b->state;
	if (b->state <= BU_STATE_MAP_LOADED)
		setBackupState(b, BU_STATE_CLOSING);

	flushWorkQueue(b);

	/*
	 * Every record's close ends the interception of the running backup,
	 * also an idle record's, just as it frees busy below.
	 */
	down_write(&activeSessionUsers);
	activeSession = NULL;
	up_write(&activeSessionUsers);

	killWorkQueue(b);
	freeAllMMPages(b);
	freeMMBRs(b);
	closeCache(b);
	closeBRCache(b);
	closeDiskInfo(b);
	closeBUBlockMap(b);
	closeCacheMap(b);
	closeBlockTable(b);

	if (savedState != BU_STATE_IDLE) {
		stats = kzalloc(sizeof(*stats), GFP_KERNEL);
		if (stats) {
			setStats(b, stats);
			printStats(stats);
			kfree(stats);
		}
		printk(KERN_INFO "%s: backup finished device major=%d "
		       "minor=%d\n", "closeBackup",
		       (int)MAJOR(b->diskInfo.kdev),
		       (int)MINOR(b->diskInfo.kdev));
	}

	/* Changes nothing after the move to 7 above; kept as it stands. */
	if (b->state <= BU_STATE_MAP_LOADED)
		setBackupState(b, BU_STATE_IDLE);

	up_write(&b->writers);
	up(&b->bSem);

	/*
	 * Any record but a refused one frees the slot, whether or not it
	 * held it: closing an idle second file frees the slot of a backup
	 * still running on another file.  This is the rule user space has
	 * always seen.
	 */
	if (b->state != BU_STATE_REFUSED) {
		spin_lock_irqsave(&busyLock, flags);
		if (atomic_read(&busy) == 1)
			atomic_set(&busy, 0);
		spin_unlock_irqrestore(&busyLock, flags);
	}

	kfree(b);
}
