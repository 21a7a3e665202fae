/*
 * kivAMRF.c - change tracking on the write path.  Between backups a
 * tracked partition's queue is hooked by kivAMRF, which records the blocks
 * of every write in the partition's session map and passes the request
 * on unchanged; during a backup kivMRF calls updateAM for the same
 * purpose.  A write is never failed or held back here.
 *
 * Both run in the context of whoever submits the bio, on any processor,
 * concurrently with each other and with a snapshot.
 */
#include <linux/kernel.h>
#include <linux/kdev_t.h>
#include <linux/bio.h>
#include <linux/blkdev.h>
#include <linux/slab.h>

#include "kivlib.h"

/*
 * A write a session counts in flight: the bio's own completion, put back
 * before it runs.
 */
struct TrackedWrite {
	bio_end_io_t *endIO;
	void *private;
	AutoMapSession *ams;
};

/*
 * Completion of a counted write, in the disk's completion context
 * (interrupts may be off): hand the bio back to its owner, then let the
 * session stop counting it.  The decrement is the last access: once the
 * count is 0 a waiting close may free the session.
 */
static void trackedWriteEndIO(struct bio *bio, int error)
{
	struct TrackedWrite *tw = bio->bi_private;
	AutoMapSession *ams = tw->ams;

	bio->bi_end_io = tw->endIO;
	bio->bi_private = tw->private;
	kfree(tw);
	if (bio->bi_end_io)
		bio->bi_end_io(bio, error);
	atomic_dec(&ams->inFlight);
}

/*
 * Count bio in ams's writes in flight until it completes.  A write can
 * sit in the disk's queue long after it was recorded, and a read sent
 * later may overtake it: the next frozen instant waits for the count, so
 * that no write recorded in the map it closes lands after it.  Without
 * the memory to count it the session can no longer vouch for its map.
 * Caller holds a shared entry on ams's users.  GFP_NOIO: on the I/O path.
 */
static void trackWrite(AutoMapSession *ams, struct bio *bio)
{
	struct TrackedWrite *tw;

	tw = kmalloc(sizeof(*tw), GFP_NOIO);
	if (!tw) {
		setAMSState(ams, AM_STATE_NOT_IN_SYNC);
		return;
	}
	tw->endIO = bio->bi_end_io;
	tw->private = bio->bi_private;
	tw->ams = ams;
	atomic_inc(&ams->inFlight);
	bio->bi_private = tw;
	bio->bi_end_io = trackedWriteEndIO;
}

/*
 * Record bio's blocks in the session of partition bioMinor of its disk,
 * if that session is in sync, and count the write in flight (also while
 * the session is out of sync: the next snapshot may set it in sync again
 * at its frozen instant).  A block beyond the map means the partition
 * grew: the session drops out of sync, and each such block of the bio is
 * reported.  Sleeps in the bit operations.
 */
void updateAM(struct bio *bio, int bioMinor)
{
	AutoMapSession *ams;
	u32 startBN, endBN, bn;
	int r;

	ams = getAMS(MKDEV(MAJOR(bio->bi_bdev->bd_dev), bioMinor));
	if (!ams)
		return;

	BIOToBlockNumbers(&ams->diskInfo, bio, &startBN, &endBN);
	if (ams->state == AM_STATE_IN_SYNC && startBN <= endBN) {
		bn = startBN;
		do {
			r = setBlock(&ams->map, bn);
			if (!r)
				continue;
			setAMSState(ams, AM_STATE_NOT_IN_SYNC);
			printk(KERN_WARNING "%s: device resize detected "
			       "(block %d in size %d) in automap update, "
			       "automap not in sync%s", "updateAM", r,
			       (int)ams->map.size, "\n");
		} while (bn++ != endBN);
	}
	trackWrite(ams, bio);
	exitAMSUsers(ams);
}

/*
 * make_request function of a tracked disk's queue between backups.
 * Writes (direction 1 exactly; read-ahead writes are not) are recorded
 * before being forwarded, whether or not they later succeed.
 */
int kivAMRF(struct request_queue *q, struct bio *bio)
{
	unsigned long rw = bio->bi_rw;
	make_request_fn *realMRF;
	int bioMinor;

	bioMinor = BIOToMinor(bio);
	if ((rw & 3) == 1)
		updateAM(bio, bioMinor);

	realMRF = getRealMRF(q);
	if (!realMRF) {
		printk(KERN_CRIT "%s: request intercepted for unknown device "
		       "major=%d realMRF=%p\n", "kivAMRF",
		       (int)MAJOR(bio->bi_bdev->bd_dev), (void *)realMRF);
		BUG();
	}
	return realMRF(q, bio);
}
