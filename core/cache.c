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
#include <asm/atomic.h>

#include "kivlib.h"

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
