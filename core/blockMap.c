/*
 * blockMap.c - the paged block bitmap behind every per-block set of the
 * driver: a backup's block map and cache map, and each change-tracking
 * session's map.
 *
 * The bitmap is spread over order-0 pages that may live in high memory, so
 * every bit operation maps its page with kmap() only for its own duration.
 * Bit operations may sleep (on the map's semaphore): never call them with
 * a spin lock held or interrupts disabled.
 *
 * newBlockMap() and closeBlockMap() take no lock: a map is built before it
 * is published and closed after its users are gone, which the owner of
 * the map guarantees.
 */
#include <linux/kernel.h>
#include <linux/mm.h>
#include <linux/gfp.h>
#include <linux/highmem.h>
#include <linux/vmalloc.h>
#include <linux/string.h>
#include <linux/sched.h>
#include <linux/spinlock.h>
#include <linux/semaphore.h>
#include <asm/atomic.h>
#include <asm/bitops.h>
#include <asm/uaccess.h>

#include "blockMap.h"
#include "users.h"

/*
 * Build bmap (which must be empty) for size blocks.  The bits come from
 * the user bitmap at data when it is given, otherwise all clear when
 * zeroFill is exactly 1 and all set for any other value.  Only the bytes
 * in use are written; the tail of the last page is never read, since
 * every bit operation checks the block against size first.
 *
 * Returns 0 and the page count in *numPagesAlloc, 2 for a size that gives
 * no byte (record untouched), 5 out of memory, 6 when the user bitmap
 * cannot be read.  On failure nothing stays allocated.  May sleep.
 */
int newBlockMap(BlockMap *bmap, u32 size, void __user *data, int zeroFill,
		int *numPagesAlloc)
{
	u32 bytesInMap, numPages, i, count;
	char __user *src = NULL;
	unsigned long notCopied;
	void *addr;
	int result;
	int freed;

	bytesInMap = (size + 7) / 8;
	if (!bytesInMap) {
		printk(KERN_ERR "%s: block size size=%u invalid\n",
		       "newBlockMap", size);
		return 2;
	}

	memset(bmap, 0, sizeof(*bmap));
	numPages = (bytesInMap + KIV_PAGE_SIZE - 1) / KIV_PAGE_SIZE;
	bmap->map = vmalloc(numPages * sizeof(struct page *));
	if (!bmap->map) {
		printk(KERN_ERR "%s: failed allocating (%d) bytes of memory "
		       "for block map page array\n", "newBlockMap",
		       (int)(numPages * sizeof(struct page *)));
		return 5;
	}
	memset(bmap->map, 0, numPages * sizeof(struct page *));
	bmap->size = size;
	bmap->numBytes = bytesInMap;

	for (i = 0; i < numPages; i++) {
		count = KIV_PAGE_SIZE;
		if (i == numPages - 1 && (bytesInMap % KIV_PAGE_SIZE))
			count = bytesInMap % KIV_PAGE_SIZE;

		bmap->map[i] = alloc_pages(GFP_HIGHUSER, 0);
		if (!bmap->map[i]) {
			printk(KERN_ERR "%s: failed allocating page number "
			       "(%d) for block map\n", "newBlockMap", (int)i);
			result = 5;
			goto fail;
		}

		notCopied = 0;
		addr = kmap(bmap->map[i]);
		if (!data) {
			memset(addr, zeroFill == 1 ? 0x00 : 0xFF, count);
		} else {
			src = (char __user *)data + i * KIV_PAGE_SIZE;
			notCopied = copy_from_user(addr, src, count);
		}
		kunmap(bmap->map[i]);

		if (notCopied) {
			/*
			 * "copy to user space" although the copy is from
			 * user space, and the requested count printed as
			 * bytesCopied: the line reads as it always has.
			 */
			printk(KERN_ERR "%s: copy to user space failed data=%p "
			       "bytesCopied=%d bytesInMap=%d\n", "newBlockMap",
			       src, (int)count, (int)bytesInMap);
			result = 6;
			goto fail;
		}
	}

	/* Only a fully built map gets usable locks. */
	sema_init(&bmap->sem, 1);
	spin_lock_init(&bmap->usersLock);
	atomic_set(&bmap->users, 1);
	*numPagesAlloc = numPages;
	return 0;

fail:
	/* Same words for a failed copy: one message for "map not built". */
	printk(KERN_ERR "%s: Out of Memory Error.%s", "newBlockMap", "\n");
	closeBlockMap(bmap, &freed);
	return result;
}

/*
 * Free the pages and the page array of bmap and mark it empty (size 0, map
 * NULL).  *numPagesFreed receives the page count computed from size, also
 * counting slots that were never filled; it is not written for a map that
 * was not built.  The caller makes sure no bit operation is inside.
 */
void closeBlockMap(BlockMap *bmap, int *numPagesFreed)
{
	u32 numPages, i;

	if (!bmap->map)
		return;

	numPages = numPagesInBlockMap(bmap->size);
	for (i = 0; i < numPages; i++) {
		if (bmap->map[i]) {
			__free_pages(bmap->map[i], 0);
			bmap->map[i] = NULL;
		}
	}
	vfree(bmap->map);
	bmap->map = NULL;
	bmap->size = 0;
	*numPagesFreed = numPages;
}

/* Count a bit operation in; excluded while a waiter holds usersLock. */
static void enterBlockMap(BlockMap *bm)
{
	kivUsersEnter(&bm->users, &bm->usersLock);
}

static void exitBlockMap(BlockMap *bm)
{
	kivUsersExit(&bm->users);
}

enum blockOp { BLOCK_SET, BLOCK_CLEAR, BLOCK_TEST };

/*
 * The one shape of every bit operation: count in as a user, check the
 * block against size (a closed map has size 0, so its null page array is
 * never touched), then work on the block's bit under sem with its page
 * mapped, and count out.  outOfRange is the result for a block outside the
 * map.  Set and clear are atomic bit instructions; the test is a plain
 * read.  May sleep: never call with interrupts off or a spin lock held.
 */
static int blockMapOp(BlockMap *bm, u32 blockNum, enum blockOp op,
		      int outOfRange)
{
	struct page *page;
	void *addr;
	int result = 0;

	enterBlockMap(bm);
	if (blockNum >= bm->size) {
		result = outOfRange;
		goto out;
	}
	down(&bm->sem);
	page = bm->map[blockNum >> KIV_BLOCK_PAGE_SHIFT];
	addr = kmap(page);
	switch (op) {
	case BLOCK_SET:
		set_bit(blockNum & KIV_BLOCK_BIT_MASK, addr);
		break;
	case BLOCK_CLEAR:
		clear_bit(blockNum & KIV_BLOCK_BIT_MASK, addr);
		break;
	case BLOCK_TEST:
		result = test_bit(blockNum & KIV_BLOCK_BIT_MASK, addr) ? -1 : 0;
		break;
	}
	kunmap(page);
	up(&bm->sem);
out:
	exitBlockMap(bm);
	return result;
}

/*
 * Set block blockNum.  Returns 0, or for a block outside the map the block
 * number itself: callers only test it for non-zero, and block 0 of an
 * unbuilt map thus reads as success, as it always has.  May sleep.
 */
int setBlock(BlockMap *bm, u32 blockNum)
{
	return blockMapOp(bm, blockNum, BLOCK_SET, (int)blockNum);
}

/* Clear block blockNum.  Returns 0, or 1 outside the map.  May sleep. */
int unSetBlock(BlockMap *bm, u32 blockNum)
{
	return blockMapOp(bm, blockNum, BLOCK_CLEAR, 1);
}

/*
 * Test block blockNum: -1 (all bits set) when it is in the map, 0 when it
 * is not or lies outside the map.  May sleep.
 */
int blockInMap(BlockMap *bm, u32 blockNum)
{
	return blockMapOp(bm, blockNum, BLOCK_TEST, 0);
}

/*
 * Wait until no bit operation is inside bm, and return holding
 * bm->usersLock with the interrupt state saved in *flags: no new
 * operation gets in until the caller releases it.  Polls by yielding, with
 * no time limit.  The caller's critical section must not sleep.
 */
void waitForBlockMapUsers(BlockMap *bm, unsigned long *flags)
{
	kivUsersWait(&bm->users, &bm->usersLock, flags);
}

/*
 * The same for a second map while the first one's exclusive wait is held
 * (the snapshot's hand-over: the backup's map, then the session's).  All
 * maps' locks share one validator class, so the inner one is marked.
 */
void waitForBlockMapUsersNested(BlockMap *bm, unsigned long *flags)
{
	kivUsersWaitNested(&bm->users, &bm->usersLock, flags,
			   SINGLE_DEPTH_NESTING);
}
