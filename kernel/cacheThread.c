/*
 * cacheThread.c - "kbackupd", the one kernel thread that serves the
 * requests the interception (kivMRF.c) held back: for each held write it
 * reads the old contents of every block still needing a copy straight
 * from the device (through the real make_request function, so the read
 * is not intercepted), stores them in the block cache, then sends the
 * write on and marks its blocks as handled.
 *
 * The thread exists from a backup's start (startWorkQueue) to its close
 * (killWorkQueue, backup.c).  It takes cacheUsers (read) and the bucket
 * semaphores through saveBlock, never writers or bSem, so a close holding
 * both can drain it.  Everything it allocates is GFP_NOIO: it serves
 * writes that someone may be waiting for to free memory.
 */
#include <linux/kernel.h>
#include <linux/kdev_t.h>
#include <linux/mm.h>
#include <linux/bio.h>
#include <linux/blkdev.h>
#include <linux/buffer_head.h>
#include <linux/sched.h>
#include <linux/signal.h>
#include <linux/rwsem.h>
#include <linux/semaphore.h>
#include <linux/completion.h>
#include <linux/mutex.h>
#include <linux/errno.h>
#include <asm/atomic.h>
#include <asm/bitops.h>
#include <asm/processor.h>

#include "kivlib.h"

/*
 * The record whose START_BACKUP created the running thread.  Its close
 * stops the thread before it frees the record, so it is valid for as long
 * as the thread runs.  Written before the thread starts, read only by it.
 */
static Backup *cacheThreadBackup;

/*
 * Serialises the starts of "kbackupd".  Two starts can run at once: any
 * file's close frees the backup slot, also while another record's start
 * is under way.
 */
static DEFINE_MUTEX(cacheThreadStartLock);

/*
 * Start "kbackupd" for b.  The starter takes signalThread's resting count
 * (the exiting thread gives it back), so the count afterwards is the
 * number of held requests.  Returns 0 once the thread runs, or a negative
 * error: kernel_thread's, after which signalThread stays taken and
 * backup_cachePID negative, and neither the close nor a later start gives
 * it back -- a later start waits for it for good; this is the system's
 * behaviour.
 *
 * There is one thread and one set of globals for it.  While the thread of
 * an earlier backup still runs (its record was not closed yet, although
 * another file's close freed the backup slot), a second thread would
 * overwrite the first one's pid, owner and completions: the first close
 * would then stop the wrong thread or wait for good, and the other thread
 * would outlive the module.  Such a start fails as a failed thread
 * creation does, with the same message, -EBUSY and nothing taken.
 * Process context (START_BACKUP), may sleep.
 */
int startWorkQueue(Backup *b)
{
	int result = 0;

	mutex_lock(&cacheThreadStartLock);
	if (backup_cachePID > 0) {
		printk(KERN_ERR "%s: error starting cache thread%s",
		       "startWorkQueue", "\n");
		result = -EBUSY;
		goto out;
	}
	down(&signalThread);
	cacheThreadBackup = b;
	atomic_set(&backup_cacheThreadContinue, 1);
	backup_cachePID = kernel_thread(backup_cache, NULL, 0);
	if (backup_cachePID < 0) {
		printk(KERN_ERR "%s: error starting cache thread%s",
		       "startWorkQueue", "\n");
		result = backup_cachePID;
		goto out;
	}
	b->startedCacheThread = 1;
	wait_for_completion(&backup_cacheThreadStartCompleted);
out:
	mutex_unlock(&cacheThreadStartLock);
	return result;
}

/*
 * Copy block n's old contents into b's cache: read it through the real
 * make_request function into a page of its own, wait, and hand it to
 * saveBlock.  Any failure moves the backup to an error state (8 for the
 * read, 10 for memory, set by saveBlock for the cache) and invalidates
 * the partition's change map; the caller still sends the write on.
 */
void cacheBlock(Backup *b, MakeRequest *mr, u32 n)
{
	struct page *page;
	struct buffer_head *bh;
	struct bio *bio;

	down_read(&b->cacheUsers);
	if (b->state > BU_STATE_MAP_LOADED)
		goto out;

	page = alloc_pages(GFP_NOIO, 0);
	if (!page) {
		setBackupState(b, BU_STATE_CACHE_ERROR);
		errorAMS(b);
		goto out;
	}
	atomic_inc(&b->totalAllocPages);
	atomic_inc(&b->curAllocPages);

	/* Both come back as soon as some I/O finishes: wait for them. */
	while (!(bh = alloc_buffer_head(GFP_NOIO)))
		schedule();
	while (!(bio = bio_alloc(GFP_NOIO, 1)))
		schedule();
	atomic_inc(&b->curAllocBRs);
	atomic_inc(&b->totalAllocBRs);

	initBH(b, bh, page, 0, n);
	initBIO(b, bio, bh);
	callRealMRF(b, bio);
	wait_on_buffer(bh);

	if (!test_bit(BIO_UPTODATE, &bio->bi_flags)) {
		setBackupState(b, BU_STATE_READ_ERROR);
		printk(KERN_ERR "%s: Block read error blockNum=%u MAJOR=%d "
		       "MINOR=%d\n", "cacheBlock", n,
		       (int)MAJOR(b->diskInfo.kdev),
		       (int)MINOR(b->diskInfo.kdev));
		errorAMS(b);
	} else if (saveBlock(b, page_address(page), n)) {
		printk(KERN_ERR "%s: Error caching blockNum=%u MAJOR=%d "
		       "MINOR=%d\n", "cacheBlock", n,
		       (int)MAJOR(b->diskInfo.kdev),
		       (int)MINOR(b->diskInfo.kdev));
		errorAMS(b);
	}

	/*
	 * The completion gave back initBH's reference before it unlocked the
	 * buffer head, so nothing but us knows it now: free it as it is.
	 * The bio still holds its allocation reference, dropped here.
	 */
	bio_put(bio);
	free_buffer_head(bh);
	atomic_dec(&b->curAllocBRs);
	__free_pages(page, 0);
	atomic_dec(&b->curAllocPages);
out:
	up_read(&b->cacheUsers);
}

/*
 * Serve one held request and free it.  A write first has every block that
 * still needs a copy copied, one at a time; then the request goes on;
 * then its blocks are marked in the cache map -- also those whose copy
 * failed, so they are never tried again.  Marking only after the request
 * went on keeps a later write to the same block queued behind this one.
 * Reads are forwarded without a copy.
 */
void processMR(Backup *b, MakeRequest *mr)
{
	unsigned long dir = mr->bio->bi_rw & 3;
	u64 n;

	if (dir == 1) {
		for (n = mr->startBN; n <= mr->endBN; n++) {
			if (doWeCacheBlock(b, (u32)n))
				cacheBlock(b, mr, (u32)n);
		}
	}

	/* From here on the bio is the block layer's: do not touch it. */
	callRealMRF(b, mr->bio);

	if (dir == 1) {
		for (n = mr->startBN; n <= mr->endBN; n++) {
			if (doWeCacheBlock(b, (u32)n))
				setBlock(&b->cacheMap, (u32)n);
		}
	}

	atomic_dec(&b->mrInQueue);
	closeMR(mr);
}

/*
 * Body of "kbackupd".  One count of signalThread per held request; the
 * stop (killWorkQueue) clears the run flag and raises it once more.
 * SIGKILL is allowed, so down_interruptible may return early; the
 * thread then simply waits again.
 *
 * The running backup is read without its lock: its close drains this
 * thread's work (waitForMRs) and stops the thread before it lets go of
 * the record.  A request is served for the record it was taken from, not
 * for activeSession read again, which another file's close may have
 * cleared meanwhile.
 */
int backup_cache(void *data)
{
	MakeRequest *mr;
	Backup *b;

	daemonize("kbackupd");
	allow_signal(SIGKILL);
	printk(KERN_INFO "%s: kbackupd thread started%s", "backup_cache",
	       "\n");
	complete(&backup_cacheThreadStartCompleted);

	/*
	 * The run flag is tested only after a count was taken: the stop
	 * clears it before raising signalThread, so the thread always takes
	 * the stop's count before it leaves, and the count it gives back on
	 * the way out leaves signalThread at 1, its resting value.  (Testing
	 * the flag before waiting too would let a thread leave without the
	 * stop's count and leave signalThread at 2.)
	 */
	for (;;) {
		/*
		 * A signal ends the wait early without a count: flush it (or
		 * every later wait would end at once and the thread spin)
		 * and wait again.
		 */
		if (down_interruptible(&signalThread)) {
			flush_signals(current);
			continue;
		}
		if (atomic_read(&backup_cacheThreadContinue) != 1)
			break;
		/*
		 * Any file's close clears activeSession (the system's rule),
		 * also while requests of the running backup are held: they
		 * are still served, for the record that started the thread,
		 * or they would wait for good and its close with them.
		 */
		b = activeSession;
		if (!b)
			b = cacheThreadBackup;
		if (!b || b->state <= BU_STATE_STARTED)
			continue;
		mr = getTopMR(b);
		if (!mr)
			continue;
		processMR(b, mr);
	}

	up(&signalThread);
	/* The name without its leading letter, as it has always read. */
	printk(KERN_INFO "%s: backupd thread exiting%s", "backup_cache",
	       "\n");
	complete_and_exit(&backup_cacheThreadExited, 0);
	return 0;
}
