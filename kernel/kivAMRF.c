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

#include "kivlib.h"

/*
 * Record bio's blocks in the session of partition bioMinor of its disk,
 * if that session is in sync.  A block beyond the map means the partition
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
