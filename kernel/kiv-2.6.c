/*
 * kiv-2.6.c - the corvalin driver's view of the 2.6 block layer: partition
 * geometry from the kernel's device objects, hooking a queue's
 * make_request function, passing requests on to the real one, and mapping
 * a request to its partition and block range.
 *
 * Everything here runs in process context.  The geometry calls sleep
 * (finding the super block); BIOToMinor does not sleep.
 */
#include <linux/kernel.h>
#include <linux/fs.h>
#include <linux/genhd.h>
#include <linux/blkdev.h>
#include <linux/bio.h>
#include <linux/kdev_t.h>
#include <linux/mutex.h>
#include <linux/string.h>
#include <asm/bitops.h>
#include <asm/uaccess.h>

#include "kiv-2.6.h"
#include "queueList.h"
#include "shim-2.6.h"

/*
 * Fill diskInfo with the geometry of the partition kdev, which must carry
 * a mounted file system (its block size is the unit of everything).
 * Leaves numBlocks, realMRF and superBlock alone; the super block is
 * released again before returning.
 *
 * The block device reference taken by bdget() is never given back: the
 * device must stay known for as long as the driver may look at it again
 * (a backup or change-tracking session outlives this call), and the
 * driver has no point at which it knows the last use.
 *
 * Returns 0, 8 when nothing is mounted (or the device does not exist), 3
 * for a block size below one sector.  May sleep.
 */
int getDiskInfo(DiskInfo *diskInfo, dev_t kdev)
{
	struct block_device *bdev;
	struct super_block *sb;

	diskInfo->superBlock = NULL;
	diskInfo->kdev = kdev;
	bdev = bdget(kdev);
	diskInfo->bdev = bdev;

	/* get_super() copes with a NULL device: that is "not found" too. */
	sb = get_super(bdev);
	if (!sb) {
		printk(KERN_ERR "%s: device major=%d minor=%d not found, "
		       "getting super block failed\n", "getDiskInfo",
		       (int)MAJOR(kdev), (int)MINOR(kdev));
		return 8;
	}

	diskInfo->blockSize = (int)sb->s_blocksize;
	/* A zero block size is refused just below; do not divide by it. */
	diskInfo->blocksPerPage = diskInfo->blockSize ?
		KIV_PAGE_SIZE / diskInfo->blockSize : 0;
	diskInfo->sectorsPerBlock = diskInfo->blockSize >> KIV_SECTOR_SHIFT;
	if (!diskInfo->sectorsPerBlock) {
		printk(KERN_WARNING "%s: device %x has bad block size %d\n",
		       "getDiskInfo", (unsigned int)kdev, diskInfo->blockSize);
		drop_super(sb);
		return 3;
	}
	diskInfo->sectorsPerBlockShift =
		(int)__ffs((unsigned long)diskInfo->sectorsPerBlock);

	/*
	 * A whole disk starts at sector 0; so does a device that has no
	 * partition record to read a start from.
	 */
	if (bdev->bd_contains == bdev || !bdev->bd_part)
		diskInfo->partitionStart = 0;
	else
		diskInfo->partitionStart = (u64)bdev->bd_part->start_sect;

	if (bdev->bd_part)
		diskInfo->partitionLen = (u64)bdev->bd_part->nr_sects;
	else if (bdev->bd_disk)
		diskInfo->partitionLen = (u64)get_capacity(bdev->bd_disk);
	else
		printk(KERN_WARNING "%s: can't detect device %x size.\n",
		       "getDiskInfo", (unsigned int)kdev);

	diskInfo->partitionSizeKB = diskInfo->partitionLen >> 1;
	drop_super(sb);
	return 0;
}

/*
 * The minor number of the whole disk that holds partition kdev, or -1.
 * Keeps the device reference, like getDiskInfo().  Nothing in this
 * version calls it.
 */
int getDiskMinor(dev_t kdev)
{
	struct block_device *bdev;

	bdev = bdget(kdev);
	if (!bdev) {
		printk(KERN_ERR "%s: Could not get block device for MAJOR=%d, "
		       "MINOR=%d\n", "getDiskMinor",
		       (int)MAJOR(kdev), (int)MINOR(kdev));
		return -1;
	}
	if (!bdev->bd_contains) {
		printk(KERN_ERR "%s: Parent block device not valid for "
		       "MAJOR=%d, MINOR=%d\n", "getDiskMinor",
		       (int)MAJOR(kdev), (int)MINOR(kdev));
		return -1;
	}
	return (int)MINOR(bdev->bd_contains->bd_dev);
}

/* The request queue of diskInfo's block device, or NULL.  Any context. */
struct request_queue *getRequestQueue(DiskInfo *diskInfo)
{
	return kivGetRequestQueue(diskInfo->bdev);
}

/*
 * GET_BLOCK_SIZE: block size and size in KiB of any partition with a
 * mounted file system; b is not consulted, so no record lock is taken.
 * Writes one BlockSize entry, cut to bsLen bytes (a byte count, not an
 * entry count), and nothing when the geometry fails.  Process context
 * (the dispatcher), may sleep.
 */
int ioctlGetBlockSize(Backup *b, dev_t kdev, void __user *userBS, u32 bsLen)
{
	struct BlockSize bs;
	DiskInfo diskInfo;
	u32 len;
	int result;

	bs.major = MAJOR(kdev);
	bs.minor = MINOR(kdev);
	bs.blockSize = -1;
	bs.partitionSizeKB = 0;
	memset(&diskInfo, 0, sizeof(diskInfo));

	result = getDiskInfo(&diskInfo, kdev);
	if (result)
		return result;

	bs.blockSize = diskInfo.blockSize;
	bs.partitionSizeKB = (u32)diskInfo.partitionSizeKB;

	len = bsLen < sizeof(bs) ? bsLen : (u32)sizeof(bs);
	if (copy_to_user(userBS, &bs, len)) {
		printk(KERN_ERR "%s: copy to user space %s\n",
		       "ioctlGetBlockSize", "failed");
		return 7;
	}
	return 0;
}

/*
 * Give back the super block a snapshot may have kept.  Called by the
 * close with bSem and writers held.
 */
void closeDiskInfo(Backup *b)
{
	if (b->diskInfo.superBlock) {
		drop_super(b->diskInfo.superBlock);
		b->diskInfo.superBlock = NULL;
	}
}

/*
 * Install newMRF as the make_request function of the backup device's
 * queue.  The queue is registered first, so the saved real function is
 * always the one found before this driver's first hook on it.  Returns 0,
 * or 1 when the device has no queue.  Takes the registry and then the
 * queue's own lock, so it must be called with neither held; may sleep
 * (registration allocates).
 */
int setMRF(Backup *b, make_request_fn *newMRF)
{
	struct request_queue *q;
	unsigned long flags;

	q = getRequestQueue(&b->diskInfo);
	if (!q)
		return 1;
	if (!isInQueueList(q, b->diskInfo.kdev))
		addQueueToList(q, b->diskInfo.kdev);

	kivLockRequestQueue(q, &flags);
	q->make_request_fn = newMRF;
	kivUnlockRequestQueue(q, flags);
	return 0;
}

/*
 * Pass bio (a read of the backup's own, or a write released by the cache
 * thread) to the backup device's real make_request function, bypassing
 * any hook.  A non-zero answer asks for resubmission, as
 * generic_make_request's own loop does for a remapped request.  Always
 * returns 0; without a queue the request is ended with -EIO and a message.
 * Called by the cache thread and the block reader with none of the
 * driver's spin locks held.
 */
int callRealMRF(Backup *b, struct bio *bio)
{
	struct request_queue *q;

	q = kivGetRequestQueue(bio->bi_bdev);
	if (!q) {
		printk(KERN_ERR "%s: Block read error: (bdev queue is null) "
		       "MAJOR=%d MINOR=%d\n", "callRealMRF",
		       (int)MAJOR(b->diskInfo.kdev),
		       (int)MINOR(b->diskInfo.kdev));
		/*
		 * The request is not passed on, but it is ended: whoever
		 * waits on it (READ_BLOCKS holding bSem, kbackupd holding
		 * cacheUsers, the writer of a held write) would otherwise
		 * sleep for ever, and a write dropped without an answer is
		 * a write the file system believes done.  This happens once
		 * the last opener of the partition is gone (an unmount
		 * during a backup): 2.6.27's __blkdev_put then clears
		 * bd_disk on the block device the backup keeps.
		 */
		bio_endio(bio, -EIO);
		return 0;
	}
	if (b->diskInfo.realMRF(q, bio))
		generic_make_request(bio);
	return 0;
}

/*
 * The minor number of the partition that bio's first sector falls in.
 * Requests reach a hook already remapped to the whole disk, so the
 * partition is found by sector: the first partition p = 1, 2, ... that
 * holds it, else the whole disk's minor.  Does not sleep.
 *
 * The partition table is read without the disk's bd_mutex, the way the
 * block layer's own request accounting reads disk->part[].  The kernel
 * submits I/O while holding that mutex: re-reading the partition table
 * (BLKRRPART, the first open of a changed disk) reads sector 0 under it,
 * and the last close of the disk writes its dirty pages back under it.
 * Those requests come through this hook on the submitter's task, so
 * taking the mutex here would put that task to sleep on a mutex it holds
 * itself, forever.  Without it, a request racing with a re-read may see
 * the table half rebuilt and count for the whole disk, as a request
 * arriving between the delete and the add does anyway.
 */
int BIOToMinor(struct bio *bio)
{
	struct gendisk *disk = bio->bi_bdev->bd_disk;
	struct hd_struct *part;
	sector_t sector = bio->bi_sector;
	int p;

	for (p = 1; p < disk->minors; p++) {
		part = disk->part[p - 1];
		if (part && part->start_sect <= sector &&
		    sector < part->start_sect + part->nr_sects)
			return disk->first_minor + p;
	}
	return disk->first_minor;
}

/*
 * The inclusive range of diskInfo's blocks that bio covers.  A request
 * starting before the partition counts from its sector 0.  An end equal
 * to partitionLen is left as it is (only a greater one is clipped), and a
 * zero-length request ends one sector before it starts, so *endBN may be
 * below *startBN.  Does not sleep.
 */
void BIOToBlockNumbers(DiskInfo *diskInfo, struct bio *bio, u32 *startBN,
		       u32 *endBN)
{
	u64 sector = (u64)bio->bi_sector;
	u64 start, end;

	if (sector < diskInfo->partitionStart)
		start = 0;
	else
		start = sector - diskInfo->partitionStart;

	end = start + (bio->bi_size >> KIV_SECTOR_SHIFT);
	if (end)
		end--;
	if (bio->bi_size & (KIV_SECTOR_SIZE - 1))
		end++;
	if (end > diskInfo->partitionLen)
		end = diskInfo->partitionLen ? diskInfo->partitionLen - 1 : 0;

	*startBN = (u32)(start >> diskInfo->sectorsPerBlockShift);
	*endBN = (u32)(end >> diskInfo->sectorsPerBlockShift);
}
