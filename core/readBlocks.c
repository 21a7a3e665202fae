/*
 * readBlocks.c - the READ_BLOCKS command: a run of the frozen image into
 * a read-buffer mapping, each block from the cache or from the disk.
 *
 * Block startBlockNum + i always lands at byte i * blockSize of the
 * mapping.  Blocks in the cache map come from the block cache; the others
 * are read from the disk, all at once, while the cached ones are copied.
 * A block written while its disk read was in flight had its old contents
 * saved by copy-before-write, so a last pass puts the cached copy over
 * the disk data.  In state 6 every block delivered leaves the block map
 * (and the cache); in state 4 nothing is removed.
 */
#include <linux/kernel.h>
#include <linux/semaphore.h>
#include <linux/mutex.h>
#include <linux/buffer_head.h>

#include "kivlib.h"

/*
 * Copy from the cache every block of the range that was not submitted to
 * the disk; a block missing from the cache is logged and skipped.  Returns
 * the number copied.  Caller holds bSem.
 */
u32 readFromCache(Backup *b, u32 startBlockNum, u32 numBlocks,
		  BackupVMA *bvma)
{
	u32 count = 0;
	u32 i, blockNum;

	for (i = 0; i < numBlocks; i++) {
		blockNum = startBlockNum + i;
		if (isRequestSubmitted(b, i))
			continue;
		if (cacheRead(b, mmPageAddr(b, i, bvma), blockNum))
			count++;
		else
			printk(KERN_WARNING "%s: expected to read block number "
			       "(%u) from cache and block not found in "
			       "cache\n", "readFromCache", blockNum);
	}
	return count;
}

/*
 * Put the cached old contents over the disk data of every block of the
 * range that was read from disk and written meanwhile (its copy reached
 * the cache while the read was in flight).  Caller holds bSem.
 */
void readCheckCache(Backup *b, u32 startBlockNum, u32 numBlocks,
		    BackupVMA *bvma)
{
	u32 i;

	for (i = 0; i < numBlocks; i++) {
		if (isRequestSubmitted(b, i))
			cacheRead(b, mmPageAddr(b, i, bvma), startBlockNum + i);
	}
}

/*
 * Wait until every read submitted for the range has ended, without
 * looking at the results: only so that the requests can be released
 * safely.
 */
static void waitForInFlight(Backup *b, u32 numBlocks)
{
	u32 i;

	for (i = 0; i < numBlocks; i++) {
		if (isRequestSubmitted(b, i) && b->mmBIORequests[i]->bio)
			wait_on_buffer((struct buffer_head *)
				       b->mmBIORequests[i]->bio->bi_private);
	}
}

/*
 * The frozen image can be read only in states 4 and 6, and only while
 * the backup's interception still preserves it (every file's close ends
 * it, clearing activeSession).  Logs the refusal; *seen is the state
 * looked at.  Caller holds bSem.
 */
static int readableState(Backup *b, u32 *seen)
{
	u32 state = b->state;

	*seen = state;
	if ((state == BU_STATE_MAP_LOADED || state == BU_STATE_SNAPSHOT) &&
	    activeSession == b)
		return 1;
	printk(KERN_ERR "%s: state (%d) not valid\n", "ioctlReadBlocks",
	       (int)state);
	return 0;
}

/*
 * READ_BLOCKS: place blocks [startBlockNum, startBlockNum + numBlocks) of
 * the frozen image into the read buffer that starts at the user address
 * data.  Returns 0, 2 refused or inconsistent, 12 when some blocks could
 * not be read from disk (they read as zeros; the rest is delivered).
 * Process context; holds bSem throughout, and vmLock from the choice of
 * the slot on; sleeps on the disk reads.
 */
int ioctlReadBlocks(Backup *b, u32 startBlockNum, u32 numBlocks,
		    unsigned long data)
{
	BackupVMA *bvma;
	u32 end, submitted = 0, fromCache;
	u32 state;
	int result = 0;
	int r;

	down(&b->bSem);

	if (!readableState(b, &state)) {
		result = 2;
		goto out;
	}

	end = startBlockNum + numBlocks;
	if (end < startBlockNum) {
		printk(KERN_ERR "%s: invalid block read range (%u-%u)\n",
		       "ioctlReadBlocks", startBlockNum, end);
		result = 2;
		goto out;
	}

	/* The range is exclusive of end: end equal to size is accepted. */
	if (state == BU_STATE_MAP_LOADED) {
		if (!b->blockMap.map) {
			printk(KERN_ERR "%s: block map is null%s",
			       "ioctlReadBlocks", "\n");
			result = 2;
			goto out;
		}
		if (end > b->blockMap.size) {
			printk(KERN_ERR "%s: end block number out of block "
			       "map range%s", "ioctlReadBlocks", "\n");
			result = 2;
			goto out;
		}
	}

	if (!b->cacheMap.map) {
		printk(KERN_ERR "%s: cache map is null%s", "ioctlReadBlocks",
		       "\n");
		result = 2;
		goto out;
	}
	if (end > b->cacheMap.size) {
		printk(KERN_ERR "%s: block num (%u) out of range (%u)\n",
		       "ioctlReadBlocks", end, b->cacheMap.size);
		result = 2;
		goto out;
	}

	/*
	 * The slot and its pages stay put until the reads into them are
	 * over: an munmap on another thread waits for vmLock.
	 */
	mutex_lock(&b->vmLock);
	if (!checkVMA(b, data, &bvma)) {
		printk(KERN_ERR "%s: invalid data pointer%s",
		       "ioctlReadBlocks", "\n");
		result = 2;
		goto unlock;
	}

	/*
	 * In 64 bits: on a partition of more than 4 GiB a 32-bit product
	 * can wrap below the mapping's size and let the read run past the
	 * request table and the buffer's pages.
	 */
	if ((u64)numBlocks * b->diskInfo.blockSize >
	    (u64)bvma->vmPages * KIV_PAGE_SIZE) {
		printk(KERN_ERR "%s: tried to read (%u) number of blocks size "
		       "(%u) and mmap region can hold (%lu) bytes\n",
		       "ioctlReadBlocks", numBlocks,
		       (u32)b->diskInfo.blockSize,
		       (unsigned long)bvma->vmPages * KIV_PAGE_SIZE);
		result = 2;
		goto unlock;
	}

	submitted = readBlocks(b, startBlockNum, numBlocks, bvma);

	if (submitted < numBlocks) {
		fromCache = readFromCache(b, startBlockNum, numBlocks, bvma);
		if (submitted + fromCache != numBlocks) {
			printk(KERN_ERR "%s: read (%u) blocks from disk and "
			       "(%u) blocks from cache and expected to read "
			       "(%u) blocks\n", "ioctlReadBlocks", submitted,
			       fromCache, numBlocks);
			result = 2;
			/*
			 * The reads still in flight are waited for before
			 * their requests are released, so that no completion
			 * can touch a freed buffer head or bio.  Their
			 * results are not looked at: the command fails with
			 * 2 all the same, and no block leaves the block map.
			 */
			waitForInFlight(b, numBlocks);
			goto release;
		}
	}

	r = waitForSubmitted(b, startBlockNum, numBlocks);
	/*
	 * The backup may have failed while the reads were in flight (the
	 * cache limit, a read error) or lost its interception (any file's
	 * close): a write may then have reached a block after its copy
	 * stopped being taken, and the disk read may hold it.  Such a read
	 * is not of the frozen instant and is refused.
	 */
	if (!readableState(b, &state)) {
		result = 2;
		goto release;
	}
	if (r == 12) {
		printk(KERN_WARNING "%s: Received an IO error while reading "
		       "sectors for backup.  Some sectors could not be "
		       "read%s", "ioctlReadBlocks", "\n");
		result = 12;
	} else if (r) {
		result = r;
		goto release;
	}

	readCheckCache(b, startBlockNum, numBlocks, bvma);

release:
	if (submitted)
		freeSubmitted(b, numBlocks);
unlock:
	mutex_unlock(&b->vmLock);
out:
	up(&b->bSem);
	return result;
}
