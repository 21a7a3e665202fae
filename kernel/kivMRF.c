/*
 * kivMRF.c - copy-before-write interception of the running backup.
 *
 * From the snapshot on, kivMRF is the make_request function of the backed-
 * up partition's queue (and so of every partition of that disk).  A
 * request touching a block whose old contents the backup still needs is
 * not passed on: it is queued as a MakeRequest for "kbackupd"
 * (cacheThread.c), which copies the old contents into the block cache and
 * then sends the request on.  Everything else goes straight to the real
 * make_request function.
 *
 * Runs in the context of whoever submits the bio, on any processor, many
 * at once.  It may sleep (the readers' side of the semaphores, the bitmap
 * semaphores) but never allocates with anything but GFP_NOIO: it is on the
 * I/O path.
 *
 * Lock order: activeSessionUsers (read; writers is only tried under it,
 * never waited for), then the backup's writers (read), then the maps'
 * own locks, with mrLock last.
 */
#include <linux/kernel.h>
#include <linux/kdev_t.h>
#include <linux/bio.h>
#include <linux/blkdev.h>
#include <linux/sched.h>
#include <linux/slab.h>
#include <linux/spinlock.h>
#include <linux/rwsem.h>
#include <linux/semaphore.h>
#include <asm/atomic.h>

#include "kivlib.h"

/*
 * 1 when block n's old contents must be copied before it is written: in
 * states 4 and 5 every block not yet handed to the cache; in state 6 only
 * the blocks the backup still has to read.
 */
int doWeCacheBlock(Backup *b, u32 n)
{
	if (b->state == BU_STATE_MAP_LOADED && !blockInMap(&b->blockMap, n))
		return 0;
	return !blockInMap(&b->cacheMap, n);
}

/*
 * Append mr to b's queue of held requests and give kbackupd one count of
 * signalThread for it.  Any context that may take a spin lock.
 */
void addMRToQueue(Backup *b, MakeRequest *mr)
{
	unsigned long flags;

	spin_lock_irqsave(&b->mrLock, flags);
	if (!b->mrHead) {
		b->mrHead = mr;
		b->mrTail = mr;
	} else {
		b->mrTail->next = mr;
		b->mrTail = mr;
	}
	atomic_inc(&b->mrInQueue);
	spin_unlock_irqrestore(&b->mrLock, flags);
	up(&signalThread);
}

/*
 * Take the oldest held request off b's queue, or NULL.  mrInQueue still
 * counts it: only the thread's processMR, once the request went on,
 * takes it off the count, so the close's drain waits for it.
 */
MakeRequest *getTopMR(Backup *b)
{
	MakeRequest *mr;
	unsigned long flags;

	spin_lock_irqsave(&b->mrLock, flags);
	mr = b->mrHead;
	if (mr) {
		if (mr == b->mrTail)
			b->mrTail = NULL;
		b->mrHead = mr->next;
		mr->next = NULL;
	}
	spin_unlock_irqrestore(&b->mrLock, flags);
	return mr;
}

void closeMR(MakeRequest *mr)
{
	kfree(mr);
}

/*
 * Queue bio for kbackupd: 1 when queued, -1 when no MakeRequest could be
 * had.  Without one the backup cannot keep its point in time: it goes to
 * state 13, the partition's change map is invalidated and the request
 * passes through uncopied.  Caller holds b's writers (read).
 */
static int newMR(Backup *b, struct request_queue *q, struct bio *bio,
		 u32 startBN, u32 endBN)
{
	MakeRequest *mr;

	mr = kzalloc(sizeof(*mr), GFP_NOIO);
	if (!mr) {
		setBackupState(b, BU_STATE_QUEUE_ERROR);
		errorAMS(b);
		return -1;
	}
	mr->q = q;
	mr->bio = bio;
	/* The request's own first block, not the first one needing a copy. */
	mr->startBN = startBN;
	mr->endBN = endBN;
	mr->next = NULL;
	addMRToQueue(b, mr);
	return 1;
}

/*
 * Record a write for change tracking and decide whether bio must wait for
 * kbackupd: 1 queued (it now belongs to the thread), 0 pass it on, -1 it
 * should have been held but could not.
 *
 * Reads (direction 0) and read-ahead writes (3) that touch a block
 * needing a copy are held too, so they stay ordered behind the writes to
 * that block; only the thread decides to copy, and only for writes.
 */
static int cacheMRFBlock(struct request_queue *q, struct bio *bio, int minor)
{
	Backup *b;
	u32 startBN, endBN;
	u64 n;
	int cached = 0;
	int write = (bio->bi_rw & 3) == 1;

	/* Read-ahead may fail at will and is never held nor recorded. */
	if ((bio->bi_rw & 3) == 2)
		return 0;

	/*
	 * The read side of writers keeps the state from moving to 4 or 6
	 * and the backup from closing while we decide and queue.  It is
	 * only tried while activeSessionUsers is held: a close frees the
	 * record right after it releases writers, so sleeping on a record's
	 * writers outside activeSessionUsers could wake up on freed memory,
	 * and sleeping on it inside would deadlock with the close (which
	 * holds writers while it takes activeSessionUsers).  While writers
	 * is held for writing (snapshot, map load, close) we yield and look
	 * again; after a close activeSession no longer names the record.
	 */
	for (;;) {
		down_read(&activeSessionUsers);
		b = activeSession;
		if (b && (MAJOR(b->diskInfo.kdev) !=
			  MAJOR(bio->bi_bdev->bd_dev) ||
			  MINOR(b->diskInfo.kdev) != (unsigned int)minor))
			b = NULL;
		if (!b) {
			up_read(&activeSessionUsers);
			/* Not the backup's partition: only tracked. */
			if (write)
				updateAM(bio, minor);
			return 0;
		}
		if (down_read_trylock(&b->writers)) {
			up_read(&activeSessionUsers);
			break;
		}
		up_read(&activeSessionUsers);
		schedule();
	}

	/*
	 * Recorded under writers, on the same side of the frozen instant as
	 * the copy decision: the snapshot exchanges the maps with writers
	 * held for writing.  A write recorded in the map handed to this
	 * backup was decided before the instant and reaches the disk before
	 * it (the snapshot waits for it); one decided after it is held and
	 * copied, and is in the map the next backup gets.  Recorded before
	 * it is queued: from then on the bio belongs to kbackupd, which may
	 * already have sent it on (and the block layer freed it).
	 */
	if (write)
		updateAM(bio, minor);

	if (b->state != BU_STATE_SNAPSHOT &&
	    b->state != BU_STATE_LOADING_MAP &&
	    b->state != BU_STATE_MAP_LOADED)
		goto out;

	BIOToBlockNumbers(&b->diskInfo, bio, &startBN, &endBN);
	/* endBN may lie below startBN (a zero-length request): no block. */
	for (n = startBN; n <= endBN; n++) {
		if (doWeCacheBlock(b, (u32)n)) {
			cached = newMR(b, q, bio, startBN, endBN);
			break;
		}
	}
out:
	up_read(&b->writers);
	return cached;
}

/*
 * make_request function of the backed-up disk's queue while a backup
 * runs.  Returns 0 when the request was held for kbackupd, otherwise
 * whatever the real function returns.  Writes are recorded for change
 * tracking whether or not they are held (cacheMRFBlock).
 */
int kivMRF(struct request_queue *q, struct bio *bio)
{
	make_request_fn *realMRF;
	int minor, cached;

	set_current_state(TASK_RUNNING);
	minor = BIOToMinor(bio);

	cached = cacheMRFBlock(q, bio, minor);
	if (cached == 1)
		return 0;

	realMRF = getRealMRF(q);
	if (!realMRF) {
		printk(KERN_CRIT "%s: request intercepted for unknown device "
		       "major=%d minor=%d\n", "kivMRF",
		       (int)MAJOR(bio->bi_bdev->bd_dev), minor);
		BUG();
	}
	return realMRF(q, bio);
}
