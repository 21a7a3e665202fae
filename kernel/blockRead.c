/*
 * blockRead.c - reading runs of blocks of the backed-up partition into
 * the read buffer, one bio and buffer_head per block, through the
 * device's real make_request function.
 *
 * A read command submits every block of its range that the cache does not
 * hold (readBlocks), copies the cached ones meanwhile, then waits for the
 * disk reads (waitForSubmitted) and releases them (freeSubmitted).  Slot i
 * of the request table belongs to block i of the range; an empty slot
 * means that block was not read from disk.
 *
 * The submitting side runs in the ioctl caller's process context and may
 * sleep.  The completion routines run wherever the block layer ends the
 * bio, possibly in hard-interrupt context: they only set bits, log, drop
 * references and unlock the buffer head.  The buffer head's lock bit (and
 * the bio's uptodate flag) is the only hand-over between the two sides.
 */
#include <linux/kernel.h>
#include <linux/errno.h>
#include <linux/string.h>
#include <linux/slab.h>
#include <linux/sched.h>
#include <linux/vmalloc.h>
#include <linux/mm.h>
#include <linux/bio.h>
#include <linux/buffer_head.h>
#include <asm/atomic.h>
#include <asm/bitops.h>

#include "kivlib.h"

/*
 * Build the read-request table: one slot per block the largest read
 * buffer can hold (maxVMPages pages of blocksPerPage blocks).  Last step
 * of a backup start.  Returns 0, or 5 without memory (the table stays
 * NULL).  Process context.
 */
int allocateBlockRequests(Backup *b)
{
	unsigned long slots;

	slots = (unsigned long)b->maxVMPages * b->diskInfo.blocksPerPage;
	b->mmBIORequests = vmalloc(slots * sizeof(BIORequest *));
	if (!b->mmBIORequests)
		return 5;
	memset(b->mmBIORequests, 0, slots * sizeof(BIORequest *));
	return 0;
}

/*
 * Prepare bh to read block blockNum of the backup's partition into page at
 * offset.  It starts locked (the waiter sleeps on that bit until the
 * completion unlocks it) and holds one reference, which the completion
 * drops.  Also used by the cache thread for its reads of old contents.
 */
void initBH(Backup *b, struct buffer_head *bh, struct page *page,
	    unsigned long offset, u32 blockNum)
{
	bh->b_blocknr = (sector_t)(u64)blockNum;
	bh->b_bdev = b->diskInfo.bdev;
	set_bh_page(bh, page, offset);
	bh->b_size = b->diskInfo.blockSize;
	bh->b_end_io = kivBHEndIO;
	bh->b_state = (1UL << BH_Lock) | (1UL << BH_Req) | (1UL << BH_Mapped);
	INIT_LIST_HEAD(&bh->b_assoc_buffers);
	get_bh(bh);
}

/*
 * Prepare a one-vector read bio for bh.  The bio goes straight to the
 * device's real make_request function, past the block layer's partition
 * remapping, so its start sector is absolute on the whole disk.  The extra
 * reference taken here is the completion's; the allocation's reference
 * stays with the submitter until it releases the request.
 */
void initBIO(Backup *b, struct bio *bio, struct buffer_head *bh)
{
	bio->bi_bdev = bh->b_bdev;
	bio->bi_sector = (sector_t)((s64)b->diskInfo.sectorsPerBlock *
				    (u64)bh->b_blocknr +
				    b->diskInfo.partitionStart);
	bio->bi_io_vec[0].bv_page = bh->b_page;
	bio->bi_io_vec[0].bv_len = bh->b_size;
	bio->bi_io_vec[0].bv_offset = bh_offset(bh);
	bio->bi_size = bh->b_size;
	bio->bi_vcnt = 1;
	bio->bi_idx = 0;
	bio->bi_private = bh;
	bio->bi_end_io = kivBIOEndIO;
	bio_get(bio);
	bio->bi_rw = 0;
}

/*
 * Submit a read for every block of [startBN, startBN + numBlocks) that is
 * not in the cache map, into its place in bvma (block i at byte
 * i * blockSize), and wait for none of them.  Returns the number of reads
 * submitted.  Caller holds bSem; process context, sleeps while buffer
 * heads or bios are short.
 *
 * A BIORequest that cannot be allocated ends the submission: the block
 * and every later one of the range are left unsubmitted, as if they were
 * expected in the cache.  The read command then finds the count short and
 * fails with 2 after releasing what was submitted, so nothing is lost and
 * the program can retry the range.  (Reading such a block as a failed
 * read would deliver zeros for data that is still on the disk.)
 */
u32 readBlocks(Backup *b, u32 startBN, u32 numBlocks, BackupVMA *bvma)
{
	BIORequest *br;
	struct buffer_head *bh;
	struct bio *bio;
	u32 bpp = b->diskInfo.blocksPerPage;
	u32 submitted = 0;
	u32 i, blockNum;

	for (i = 0; i < numBlocks; i++) {
		blockNum = startBN + i;
		if (blockInMap(&b->cacheMap, blockNum))
			continue;

		br = kmalloc(sizeof(*br), GFP_NOIO);
		b->mmBIORequests[i] = br;
		if (!br)
			break;
		memset(br, 0, sizeof(*br));

		while (!(bh = alloc_buffer_head(GFP_NOIO)))
			schedule();
		while (!(bio = bio_alloc(GFP_NOIO, 1)))
			schedule();

		br->bio = bio;
		atomic_inc(&b->curAllocBRs);
		atomic_inc(&b->totalAllocBRs);

		initBH(b, bh, bvma->mmPages[i / bpp],
		       (i % bpp) * b->diskInfo.blockSize, blockNum);
		initBIO(b, bio, bh);
		callRealMRF(b, bio);

		atomic_inc(&b->totalReadBlocks);
		submitted++;
	}
	return submitted;
}

/*
 * End of a read bio (kivBIOEndIO is its bi_end_io).  May run in hard-
 * interrupt context: no sleeping, no locks.  The bio stays alive through
 * the allocation's reference after the extra one is dropped here.
 */
void kivBIOEndIO(struct bio *bio, int err)
{
	struct buffer_head *bh = bio->bi_private;
	int uptodate;

	if (!test_bit(BIO_UPTODATE, &bio->bi_flags))
		printk(KERN_WARNING "%s: IO error, bio=%p, major=%d, "
		       "sector=%llu\n", "kivBIOEndIO", bio,
		       (int)(bio->bi_bdev->bd_dev >> 20),
		       (unsigned long long)bio->bi_sector);
	if (err == -EOPNOTSUPP) {
		set_bit(BIO_EOPNOTSUPP, &bio->bi_flags);
		set_buffer_eopnotsupp(bh);
	}
	uptodate = test_bit(BIO_UPTODATE, &bio->bi_flags) ? 1 : 0;
	bh->b_end_io(bh, uptodate);
	bio_put(bio);
}

/*
 * End of a read buffer head.  Same context as kivBIOEndIO.
 *
 * The reference is dropped before the unlock: the waiter frees the buffer
 * head as soon as it sees it unlocked, so nothing may touch it after
 * unlock_buffer().
 */
void kivBHEndIO(struct buffer_head *bh, int uptodate)
{
	if (uptodate)
		set_buffer_uptodate(bh);
	else
		printk(KERN_WARNING "%s: buffer_head I/O error bh=%p, "
		       "major=%d, minor=%d, block=%llu\n", "kivBHEndIO", bh,
		       (int)(bh->b_bdev->bd_dev >> 20),
		       (int)(bh->b_bdev->bd_dev & 0xFFFFF),
		       (unsigned long long)bh->b_blocknr);
	put_bh(bh);
	unlock_buffer(bh);
}

/*
 * Wait for every read submitted for the range.  A failed block is
 * delivered as zeros.  In state 6 every block read from disk leaves the
 * backup block map, failed or not, so a failed block is no longer
 * preserved by copy-before-write.  Returns 0, or 12 when any read failed.
 * Caller holds bSem; process context, sleeps without time limit.
 */
int waitForSubmitted(Backup *b, u32 startBN, u32 numBlocks)
{
	BIORequest *br;
	struct bio *bio;
	struct bio_vec *bv;
	int result = 0;
	u32 i;
	int j;

	for (i = 0; i < numBlocks; i++) {
		br = b->mmBIORequests[i];
		if (!br)
			continue;
		bio = br->bio;
		wait_on_buffer((struct buffer_head *)bio->bi_private);

		if (!test_bit(BIO_UPTODATE, &bio->bi_flags)) {
			for (j = 0; j < bio->bi_vcnt; j++) {
				bv = &bio->bi_io_vec[j];
				if (bv->bv_offset + bv->bv_len > KIV_PAGE_SIZE) {
					/* No line end: the message stands so. */
					printk(KERN_CRIT "%s: BIO segment "
					       "greater than page size "
					       "(offset=%d, length=%d)",
					       "waitForSubmitted",
					       (int)bv->bv_offset,
					       (int)bv->bv_len);
					BUG();
				}
				memset((char *)page_address(bv->bv_page) +
				       bv->bv_offset, 0, bv->bv_len);
			}
			result = 12;
		}

		if (b->state == BU_STATE_MAP_LOADED)
			unSetBlock(&b->blockMap, startBN + i);
	}
	return result;
}

/*
 * Release the requests of a range, read or not: buffer head, bio (its last
 * reference once the read ended) and the request; the slots become empty.
 * Every read must have completed (the caller waited).  Process context.
 */
void freeSubmitted(Backup *b, u32 numBlocks)
{
	BIORequest *br;
	struct buffer_head *bh;
	u32 i;

	for (i = 0; i < numBlocks; i++) {
		br = b->mmBIORequests[i];
		if (!br)
			continue;
		if (br->bio) {
			bh = br->bio->bi_private;
			if (bh) {
				put_bh(bh);
				free_buffer_head(bh);
				br->bio->bi_private = NULL;
			}
			bio_put(br->bio);
			br->bio = NULL;
			atomic_dec(&b->curAllocBRs);
		}
		kfree(br);
		b->mmBIORequests[i] = NULL;
	}
}

/* 1 when block i of the range being read was submitted to the disk. */
int isRequestSubmitted(Backup *b, u32 i)
{
	return b->mmBIORequests[i] != NULL;
}

/* Free the read-request table; its requests are already released. */
void freeMMBRs(Backup *b)
{
	if (b->mmBIORequests) {
		vfree(b->mmBIORequests);
		b->mmBIORequests = NULL;
	}
}
