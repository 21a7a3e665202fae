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
#include <linux/string.h>
#include <asm/atomic.h>

#include "kivlib.h"

/*
 * The block cache's bucket table: always 4096 buckets from a kmem_cache
 * named after the partition, whatever the partition's size or the cache
 * limit.  Returns 0 or 5; what was built stays for closeBlockTable.
 * Process context (START_BACKUP), may sleep.
 */
int newBlockTable(Backup *b)
{
	HashTable *ht;
	int i;

	snprintf(b->htCacheName, sizeof(b->htCacheName), "kivHT%02x%02x",
		 MAJOR(b->diskInfo.kdev), MINOR(b->diskInfo.kdev));
	b->htCache = kmem_cache_create(b->htCacheName, sizeof(HashTable), 0,
				       SLAB_HWCACHE_ALIGN, NULL);
	if (!b->htCache) {
		printk(KERN_ERR "%s: kmem_cache_create failed for HashTable "
		       "structs during backup start major=%d minor=%d\n",
		       "newBlockTable", (int)MAJOR(b->diskInfo.kdev),
		       (int)MINOR(b->diskInfo.kdev));
		return 5;
	}

	b->blockTable = vmalloc(KIV_HASH_BUCKETS * sizeof(HashTable *));
	if (!b->blockTable)
		return 5;
	memset(b->blockTable, 0, KIV_HASH_BUCKETS * sizeof(HashTable *));

	for (i = 0; i < KIV_HASH_BUCKETS; i++) {
		ht = kmem_cache_alloc(b->htCache, GFP_KERNEL);
		/* On failure the earlier buckets stay for the close. */
		if (!ht)
			return 5;
		memset(ht, 0, sizeof(*ht));
		b->blockTable[i] = ht;
	}
	for (i = 0; i < KIV_HASH_BUCKETS; i++) {
		b->blockTable[i]->busy = NULL;
		sema_init(&b->blockTable[i]->sem, 1);
	}
	return 0;
}

/*
 * The cache map: one bit per block of the caller's totalBlocks, all
 * clear.  Returns 0 or newBlockMap's code (2 for size 0, 5, 6).
 */
int newCacheMap(Backup *b)
{
	u32 size = (u32)b->diskInfo.numBlocks;
	int pages = 0;
	int result;

	result = newBlockMap(&b->cacheMap, size, NULL, 1, &pages);
	if (result) {
		printk(KERN_ERR "%s: error creating cache map of size=%u\n",
		       "newCacheMap", size);
		return result;
	}
	atomic_add(pages, &b->totalAllocPages);
	atomic_add(pages, &b->curAllocPages);
	return 0;
}

/*
 * START_BACKUP: make b the running backup of partition kdev.  Claims the
 * one system-wide slot, reads the geometry, builds the block cache,
 * starts "kbackupd", builds the cache map, records the device's real
 * make_request function and allocates the read requests; state 2.  The
 * queue is hooked later, by SNAPSHOT.
 *
 * A failed step returns its code and undoes nothing: what was built stays
 * in the record and closeBackup frees it when the file is closed.  busy
 * stays 1 after any failure past the slot check, until this record's
 * close.  Returns 0, 9 (slot taken: the record moves to 12), 11 (record
 * already started), getDiskInfo's code, 5, newBlockMap's code, 1 (no real
 * function) or kernel_thread's negative error.  Process context, sleeps.
 *
 * A device whose major or minor does not fit the change-tracking table
 * (256 x 256) can be backed up; it is simply never tracked (newAMS
 * refuses it, so a SNAPSHOT of it needs NO_START_AUTOMAP).
 */
int ioctlStartBackup(Backup *b, dev_t kdev, u32 totalBlocks,
		     u32 maxCacheBlocks)
{
	unsigned long flags;
	int result;

	spin_lock_irqsave(&busyLock, flags);
	if (atomic_read(&busy) == 1) {
		spin_unlock_irqrestore(&busyLock, flags);
		/*
		 * Also for a retry on this very record: 12 keeps its close
		 * from freeing the slot, on purpose.
		 */
		setBackupState(b, BU_STATE_REFUSED);
		printk(KERN_ERR "%s: another backup operation is open can't "
		       "start backup on device major=%d minor=%d\n",
		       "ioctlStartBackup", (int)MAJOR(kdev), (int)MINOR(kdev));
		return 9;
	}
	atomic_set(&busy, 1);
	spin_unlock_irqrestore(&busyLock, flags);
	down(&b->bSem);

	if (b->state != BU_STATE_IDLE) {
		/* busy stays 1, deliberately: the record's close frees it. */
		printk(KERN_ERR "%s: tried to start backup on device major=%d "
		       "minor=%d that is already busy\n", "ioctlStartBackup",
		       (int)MAJOR(kdev), (int)MINOR(kdev));
		result = 11;
		goto out;
	}

	b->diskInfo.numBlocks = (u64)totalBlocks;
	b->maxCacheBlocks = maxCacheBlocks;

	result = getDiskInfo(&b->diskInfo, kdev);
	if (result)
		goto out;

	setBackupState(b, BU_STATE_STARTING);
	if (b->diskInfo.blockSize * KIV_MAX_VM_PAGES / KIV_PAGE_SIZE <=
	    KIV_MAX_VM_PAGES)
		b->maxVMPages = b->diskInfo.blockSize * KIV_MAX_VM_PAGES /
			KIV_PAGE_SIZE;
	else
		b->maxVMPages = KIV_MAX_VM_PAGES;

	result = newBlockTable(b);
	if (result)
		goto out;

	result = startWorkQueue(b);
	if (result)
		goto out;

	allocateBRCache(b);

	snprintf(b->cpCacheName, sizeof(b->cpCacheName), "kivCP%02x%02x",
		 MAJOR(kdev), MINOR(kdev));
	/*
	 * A CachePage with one 32-bit block slot per block of a page (the
	 * further slots are unused): 8 + 4 bytes per block on i386.
	 */
	b->cpCache = kmem_cache_create(b->cpCacheName,
				       sizeof(CachePage) - sizeof(u32) +
				       4 * b->diskInfo.blocksPerPage, 0,
				       SLAB_HWCACHE_ALIGN, NULL);
	if (b->cpCache) {
		snprintf(b->dataCacheName, sizeof(b->dataCacheName),
			 "kivDC%02x%02x", MAJOR(kdev), MINOR(kdev));
		b->dataCache = kmem_cache_create(b->dataCacheName,
						 b->diskInfo.blockSize, 0,
						 SLAB_HWCACHE_ALIGN, NULL);
	}
	if (!b->cpCache || !b->dataCache) {
		printk(KERN_ERR "%s: kmem_cache_create failed during backup "
		       "start major=%d minor=%d\n", "ioctlStartBackup",
		       (int)MAJOR(kdev), (int)MINOR(kdev));
		result = 5;
		goto out;
	}

	result = newCacheMap(b);
	if (result)
		goto out;

	b->diskInfo.realMRF = getRealMRF(getRequestQueue(&b->diskInfo));
	if (!b->diskInfo.realMRF) {
		printk(KERN_ERR "%s: error getting real MRF for major=%d "
		       "minor=%d\n", "ioctlStartBackup", (int)MAJOR(kdev),
		       (int)MINOR(kdev));
		result = 1;
		goto out;
	}

	result = allocateBlockRequests(b);
	if (result)
		goto out;

	/*
	 * Published under the write side, like the close's clearing, so
	 * that a write deciding in kivMRF sees the whole record or none.
	 */
	down_write(&activeSessionUsers);
	activeSession = b;
	up_write(&activeSessionUsers);
	setBackupState(b, BU_STATE_STARTED);
	printk(KERN_INFO "%s: backup started for device major=%d minor=%d\n",
	       "ioctlStartBackup", (int)MAJOR(kdev), (int)MINOR(kdev));
out:
	up(&b->bSem);
	return result;
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
 * requests are already drained (flushWorkQueue); the run flag is cleared
 * before signalThread is raised, so the thread, which tests the flag only
 * after taking a count, leaves its loop holding this very count, gives
 * signalThread back (count 1 again), signals backup_cacheThreadExited and
 * exits.  Only then is the pid cleared.  Caller holds bSem and writers.
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
