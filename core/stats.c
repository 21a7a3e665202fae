/*
 * stats.c - a backup's counters gathered into the Stats record (stats.h)
 * and printed when the backup is closed.
 *
 * The counters are atomic and read one at a time, so a Stats is not a
 * consistent snapshot across counters; device, state and geometry are
 * consistent with each other when the caller holds bSem.
 */
#include <linux/kernel.h>
#include <linux/kdev_t.h>
#include <linux/slab.h>
#include <linux/string.h>
#include <linux/semaphore.h>
#include <asm/atomic.h>
#include <asm/uaccess.h>

#include "kivlib.h"

/*
 * Fill a zeroed Stats from b.  The version fields stay zero: the version
 * is reported by its own commands.  Caller holds bSem or owns b alone.
 */
void setStats(Backup *b, struct Stats *stats)
{
	stats->major = MAJOR(b->diskInfo.kdev);
	stats->minor = MINOR(b->diskInfo.kdev);
	stats->state = b->state;
	stats->partitionStart = (u32)b->diskInfo.partitionStart;
	stats->blockSize = b->diskInfo.blockSize;
	stats->blocksPerPage = (s32)b->diskInfo.blocksPerPage;
	stats->partitionSizeKB = (u32)b->diskInfo.partitionSizeKB;
	stats->numBlocks = (u32)b->diskInfo.numBlocks;
	stats->maxVMPages = b->maxVMPages;
	stats->vmPages = getVMAPageCount(b);
	stats->maxCacheBlocks = b->maxCacheBlocks;
	stats->curAllocAMPages = atomic_read(&curAllocAMPages);
	stats->totalAllocPages = atomic_read(&b->totalAllocPages);
	stats->curAllocPages = atomic_read(&b->curAllocPages);
	stats->totalAllocBRs = atomic_read(&b->totalAllocBRs);
	stats->curAllocBRs = atomic_read(&b->curAllocBRs);
	stats->totalAllocCPs = atomic_read(&b->totalAllocCPs);
	stats->curAllocCPs = atomic_read(&b->curAllocCPs);
	stats->peakAllocCPs = atomic_read(&b->peakAllocCPs);
	stats->totalCBs = atomic_read(&b->totalCBs);
	stats->curCBs = atomic_read(&b->curCBs);
	stats->totalReadBlocks = atomic_read(&b->totalReadBlocks);
	stats->totalReadCBs = atomic_read(&b->totalReadCBs);
	stats->totalCleanedCBs = atomic_read(&b->totalCleanedCBs);
	stats->ioctlCount = atomic_read(&b->ioctlCount);
	stats->eTimeToFreeze.tv_sec = (s32)b->eTimeToFreeze.tv_sec;
	stats->eTimeToFreeze.tv_nsec = (s32)b->eTimeToFreeze.tv_nsec;
	stats->eTimeFrozen.tv_sec = (s32)b->eTimeFrozen.tv_sec;
	stats->eTimeFrozen.tv_nsec = (s32)b->eTimeFrozen.tv_nsec;
}

/* Log s, one line per counter, in the order operators know. */
void printStats(struct Stats *s)
{
	const char *fn = "printStats";

	printk(KERN_INFO "%s: device: major(%u) minor(%u)\n", fn,
	       s->major, s->minor);
	printk(KERN_INFO "%s: state: %u\n", fn, s->state);
	printk(KERN_INFO "%s: block size: %i\n", fn, s->blockSize);
	printk(KERN_INFO "%s: partition size (KB): %u\n", fn,
	       s->partitionSizeKB);
	printk(KERN_INFO "%s: file system size (blocks): %u\n", fn,
	       s->numBlocks);
	printk(KERN_INFO "%s: pages allocated for write journal: %d\n", fn,
	       s->curAllocAMPages);
	printk(KERN_INFO "%s: max cache size in blocks: %i\n", fn,
	       (int)s->maxCacheBlocks);
	printk(KERN_INFO "%s: total pages allocated: %d\n", fn,
	       s->totalAllocPages);
	printk(KERN_INFO "%s: current pages allocated: %d\n", fn,
	       s->curAllocPages);
	printk(KERN_INFO "%s: total Block Requests allocated: %d\n", fn,
	       s->totalAllocBRs);
	printk(KERN_INFO "%s: current Block Requests allocated: %d\n", fn,
	       s->curAllocBRs);
	printk(KERN_INFO "%s: total cached blocks: %d\n", fn,
	       s->totalAllocCPs);
	printk(KERN_INFO "%s: current cached blocks: %d\n", fn,
	       s->curAllocCPs);
	printk(KERN_INFO "%s: peak cached blocks: %d\n", fn, s->peakAllocCPs);
	printk(KERN_INFO "%s: total block cache data structures: %d\n", fn,
	       s->totalCBs);
	printk(KERN_INFO "%s: current block cache data structures: %d\n", fn,
	       s->curCBs);
	printk(KERN_INFO "%s: total reads from disk: %d\n", fn,
	       s->totalReadBlocks);
	printk(KERN_INFO "%s: total reads from cache: %d\n", fn,
	       s->totalReadCBs);
	printk(KERN_INFO "%s: blocks cleaned from cache: %d\n", fn,
	       s->totalCleanedCBs);
	printk(KERN_INFO "%s: partition start (sector): %u\n", fn,
	       s->partitionStart);
	printk(KERN_INFO "%s: blocks per page: %i\n", fn, s->blocksPerPage);
	printk(KERN_INFO "%s: max buffer size in pages: %i\n", fn,
	       s->maxVMPages);
	printk(KERN_INFO "%s: buffer pages allocated: %i\n", fn, s->vmPages);
	printk(KERN_INFO "%s: commands processed: %d\n", fn, s->ioctlCount);
	printk(KERN_INFO "%s: time to freeze in seconds: %d.%09d\n", fn,
	       s->eTimeToFreeze.tv_sec, s->eTimeToFreeze.tv_nsec);
	printk(KERN_INFO "%s: time frozen in seconds: %d.%09d\n", fn,
	       s->eTimeFrozen.tv_sec, s->eTimeFrozen.tv_nsec);
}

/*
 * Copy b's statistics, cut to statsLen bytes, to userStats.  No command
 * code leads here in this version.  Returns 0, 5 or 7.
 */
int ioctlGetStats(Backup *b, void __user *userStats, u32 statsLen)
{
	struct Stats *stats;
	u32 n;
	int result = 0;

	stats = kmalloc(sizeof(*stats), GFP_KERNEL);
	if (!stats)
		return 5;
	memset(stats, 0, sizeof(*stats));
	down(&b->bSem);
	setStats(b, stats);
	up(&b->bSem);

	n = statsLen < sizeof(*stats) ? statsLen : (u32)sizeof(*stats);
	if (copy_to_user(userStats, stats, n)) {
		printk(KERN_ERR "%s: copy to user space %s\n", "ioctlGetStats",
		       "failed");
		result = 7;
	}
	kfree(stats);
	return result;
}
