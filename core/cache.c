/*
 * cache.c - the block cache: old contents of blocks that were about to be
 * overwritten while a backup runs, in 4096 buckets (block n in bucket
 * n & 0xFFF), each a singly linked list of CachePage entries, newest
 * first, guarded by the bucket's semaphore.
 *
 * Lock order: cacheUsers (read for every user, write for the teardown) ->
 * a bucket's sem -> the maps' own locks.
 */
#include <linux/kernel.h>
#include <linux/slab.h>
#include <linux/rwsem.h>
#include <linux/semaphore.h>
#include <linux/string.h>
#include <asm/atomic.h>

#include "kivlib.h"

/*
 * A cache object with its data block for b, or NULL with state 10 and the
 * reason logged.  The limit is tested for equality, deliberately: a limit
 * of 0 refuses every block.  Caller holds cacheUsers (read) and the
 * bucket's sem; GFP_NOIO, since the cache thread serves held writes.
 */
static CachePage *getCacheBlock(Backup *b)
{
	CachePage *cp;
	int cur;

	if ((u32)atomic_read(&b->curAllocCPs) == b->maxCacheBlocks) {
		setBackupState(b, BU_STATE_CACHE_ERROR);
		printk(KERN_ERR "%s: configured max cache memory reached (%u "
		       "blocks) failed to allocate cache object\n",
		       "getCacheBlock", b->maxCacheBlocks);
		return NULL;
	}
	if (!b->cpCache) {
		printk(KERN_CRIT "%s: b->cpCache was destroyed before "
		       "kmem_cache_alloc!%s", "getCacheBlock", "\n");
		BUG();
	}
	cp = kmem_cache_alloc(b->cpCache, GFP_NOIO);
	if (!cp) {
		setBackupState(b, BU_STATE_CACHE_ERROR);
		printk(KERN_ERR "%s: system out of memory, failed to allocate "
		       "cache object.%s", "getCacheBlock", "\n");
		return NULL;
	}
	cp->next = NULL;
	cp->data = NULL;
	cp->blockNum = 0;
	if (!b->dataCache) {
		printk(KERN_CRIT "%s: b->dataCache was destroyed before "
		       "kmem_cache_alloc!%s", "getCacheBlock", "\n");
		BUG();
	}
	cp->data = kmem_cache_alloc(b->dataCache, GFP_NOIO);
	if (!cp->data) {
		kmem_cache_free(b->cpCache, cp);
		setBackupState(b, BU_STATE_CACHE_ERROR);
		printk(KERN_ERR "%s: system out of memory failed to allocate "
		       "block for write cache%s", "getCacheBlock", "\n");
		return NULL;
	}
	atomic_inc(&b->curAllocCPs);
	atomic_inc(&b->totalAllocCPs);
	atomic_inc(&b->curCBs);
	atomic_inc(&b->totalCBs);
	/* A plain compare-and-store: the thread is the only one adding. */
	cur = atomic_read(&b->curAllocCPs);
	if (cur > atomic_read(&b->peakAllocCPs))
		atomic_set(&b->peakAllocCPs, cur);
	return cp;
}

/* Push cp at the head of ht's list: a bucket lists newest first. */
static void addCPtoBusyList(HashTable *ht, CachePage *cp)
{
	cp->next = ht->busy;
	ht->busy = cp;
}

/*
 * Keep a copy of one block's old contents (blockSize bytes at data).
 * Returns 0 when stored or not needed (the backup will not read it, or
 * the cache map already has it), 1 when refused (limit or memory: the
 * backup is then in state 10).  Never sets the cache map: the caller does
 * once the write went on.  Caller holds cacheUsers (read).
 */
int saveBlock(Backup *b, const char *data, u32 blockNum)
{
	HashTable *ht;
	CachePage *cp;

	if (b->state == BU_STATE_MAP_LOADED &&
	    !blockInMap(&b->blockMap, blockNum))
		return 0;
	if (blockInMap(&b->cacheMap, blockNum))
		return 0;

	ht = b->blockTable[blockNum & KIV_HASH_MASK];
	down(&ht->sem);
	cp = getCacheBlock(b);
	if (cp) {
		cp->blockNum = blockNum;
		memcpy(cp->data, data, b->diskInfo.blockSize);
		addCPtoBusyList(ht, cp);
	}
	up(&ht->sem);
	return cp ? 0 : 1;
}

/*
 * The entry of the list starting at cp that holds blockNum, or NULL.  The
 * entry before it is written to *prev only when the found entry is not
 * the first.
 */
CachePage *locateBlockInList(CachePage *cp, u32 blockNum, CachePage **prev)
{
	CachePage *before = NULL;

	while (cp) {
		if (cp->blockNum == blockNum) {
			if (before)
				*prev = before;
			return cp;
		}
		before = cp;
		cp = cp->next;
	}
	return NULL;
}

/*
 * Copy blockNum's old contents to dest: blockSize bytes, or 0 when the
 * block is not cached (or the backup failed: states above 6 serve
 * nothing).  In state 6 the block has then been backed up: it leaves the
 * block map, the cache map and the cache.  In state 4 it stays and can be
 * read again.  Process context (READ_BLOCKS), may sleep.
 */
int cacheRead(Backup *b, char *dest, u32 blockNum)
{
	HashTable *ht;
	CachePage *cp, *prev = NULL;
	int result = 0;

	down_read(&b->cacheUsers);
	if (b->state > BU_STATE_MAP_LOADED) {
		up_read(&b->cacheUsers);
		return 0;
	}

	ht = b->blockTable[blockNum & KIV_HASH_MASK];
	down(&ht->sem);
	cp = locateBlockInList(ht->busy, blockNum, &prev);
	if (cp) {
		memcpy(dest, cp->data, b->diskInfo.blockSize);
		atomic_inc(&b->totalReadCBs);
		result = b->diskInfo.blockSize;
		if (b->state == BU_STATE_MAP_LOADED) {
			unSetBlock(&b->blockMap, blockNum);
			unSetBlock(&b->cacheMap, blockNum);
			if (prev)
				prev->next = cp->next;
			else
				ht->busy = cp->next;
			freeCachePage(b, cp);
		}
	}
	up(&ht->sem);
	up_read(&b->cacheUsers);
	return result;
}

/*
 * Drop every cached block that the loaded block map does not name.
 * Called by the map load once the state is 6.  Returns 0 (also, doing
 * nothing, when the backup already failed), or 3 when the state is below
 * 6.  Process context, may sleep.
 */
int cleanUpCache(Backup *b)
{
	HashTable *ht;
	CachePage *cp, *next, *kept;
	int i;

	down_read(&b->cacheUsers);
	if (b->state > BU_STATE_MAP_LOADED) {
		up_read(&b->cacheUsers);
		return 0;
	}
	if (b->state != BU_STATE_MAP_LOADED) {
		up_read(&b->cacheUsers);
		return 3;
	}

	for (i = 0; i < KIV_HASH_BUCKETS; i++) {
		ht = b->blockTable[i];
		down(&ht->sem);
		kept = NULL;
		for (cp = ht->busy; cp; cp = next) {
			next = cp->next;
			if (blockInMap(&b->blockMap, cp->blockNum)) {
				kept = cp;
				continue;
			}
			if (kept)
				kept->next = next;
			else
				ht->busy = next;
			freeCachePage(b, cp);
			atomic_inc(&b->totalCleanedCBs);
		}
		up(&ht->sem);
	}
	up_read(&b->cacheUsers);
	return 0;
}

/*
 * Release one cached block, already unlinked from its bucket: its block
 * leaves the cache map and its data and entry go back to their caches.
 * Caller holds the bucket's sem.
 */
void freeCachePage(Backup *b, CachePage *cp)
{
	unSetBlock(&b->cacheMap, cp->blockNum);
	kmem_cache_free(b->dataCache, cp->data);
	cp->data = NULL;
	kmem_cache_free(b->cpCache, cp);
	atomic_dec(&b->curAllocCPs);
	atomic_dec(&b->curCBs);
}

/* Release every entry of the list starting at cp. */
void closeList(Backup *b, CachePage *cp)
{
	CachePage *next;

	while (cp) {
		next = cp->next;
		freeCachePage(b, cp);
		cp = next;
	}
}

/*
 * Free every cached block and destroy the two object caches.  Waits, as
 * writer of cacheUsers, until no copy or lookup is under way.  The bucket
 * lists are left as they are; the table goes with closeBlockTable().
 *
 * A record whose cache was never made has nothing to free; cacheUsers is
 * released before returning so that the record is never freed with a
 * lock held.
 */
void closeCache(Backup *b)
{
	HashTable *ht;
	int i;

	down_write(&b->cacheUsers);
	if (!b->cpCache) {
		up_write(&b->cacheUsers);
		return;
	}

	for (i = 0; i < KIV_HASH_BUCKETS; i++) {
		ht = b->blockTable ? b->blockTable[i] : NULL;
		if (!ht)
			continue;
		if (down_trylock(&ht->sem)) {
			printk(KERN_ERR "%s: ht->sem contended%s", "closeCache",
			       "\n");
			down(&ht->sem);
		}
		closeList(b, ht->busy);
		up(&ht->sem);
	}

	kmem_cache_destroy(b->cpCache);
	if (b->dataCache)
		kmem_cache_destroy(b->dataCache);
	b->cpCache = NULL;
	b->dataCache = NULL;
	up_write(&b->cacheUsers);
}
