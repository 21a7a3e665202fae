/*
 * export.c - change-tracking results for user space: the session's state
 * and key, the change map handed to the backup, and a block still held
 * in the block cache.
 */
#include <linux/kernel.h>
#include <linux/kdev_t.h>
#include <linux/string.h>
#include <linux/highmem.h>
#include <linux/semaphore.h>
#include <linux/rwsem.h>
#include <asm/atomic.h>
#include <asm/uaccess.h>

#include "kivlib.h"
#include "users.h"

/*
 * GET_AUTOMAP_STATE: the session of the backup's partition (its state,
 * the dimensions of its map and its current key), or an all-zero record
 * when the partition has none.  Works in any backup state.  At most
 * sizeof(struct AutoMapState) bytes are copied, fewer when amsLen is
 * shorter.  Returns 0, or 7 when the record cannot be written.
 */
int ioctlGetAutoMapState(Backup *b, void __user *userAMS, u32 amsLen)
{
	struct AutoMapState ams;
	AutoMapSession **slot;
	AutoMapSession *s;
	u32 n;

	memset(&ams, 0, sizeof(ams));
	down(&b->bSem);

	/* A device outside the session table has no session: all zero. */
	slot = amSlot(b->diskInfo.kdev);
	enterAMListUsers();
	s = slot ? *slot : NULL;
	if (s) {
		/* The session's users entry keeps it alive past the list. */
		enterAMSUsers(s);
		exitAMListUsers();
		ams.major = MAJOR(s->diskInfo.kdev);
		ams.minor = MINOR(s->diskInfo.kdev);
		ams.state = s->state;
		ams.mapLen = s->map.size;
		ams.mapSize = s->map.numBytes;
		memcpy(&ams.amsKey, &s->sessionKey, sizeof(ams.amsKey));
		exitAMSUsers(s);
	} else {
		exitAMListUsers();
	}

	up(&b->bSem);

	n = amsLen < sizeof(ams) ? amsLen : (u32)sizeof(ams);
	if (copy_to_user(userAMS, &ams, n)) {
		printk(KERN_ERR "%s: copy to user space %s\n",
		       "ioctlGetAutoMapState", "failed");
		return 7;
	}
	return 0;
}

/*
 * GET_AUTOMAP: copy the change map that the snapshot handed to the
 * backup out to the user bitmap, page by page, then release it.  Only in
 * state 4.  Returns 0; 2 in another state, with no map or a map of
 * another size; 7 when the user bitmap cannot be written (the map is
 * kept, so the export may be retried).  Holds bSem throughout; may sleep.
 */
int ioctlGetAutoMap(Backup *b, struct UserBlockMap *userBM)
{
	BlockMap *bm = &b->blockMap;
	u32 bytesInMap, numPages, i, count;
	char __user *dest;
	void *addr;
	unsigned long notCopied;
	int numFreed;

	down(&b->bSem);

	if (b->state != BU_STATE_SNAPSHOT) {
		printk(KERN_ERR "%s: backup error map not loaded %s",
		       "ioctlGetAutoMap", "\n");
		up(&b->bSem);
		return 2;
	}

	/* Shared with the writers' bit tests; the pages stay while inside. */
	kivUsersEnter(&bm->users, &bm->usersLock);

	if (!bm->map) {
		printk(KERN_ERR "%s: backup error automap is NULL %s",
		       "ioctlGetAutoMap", "\n");
		kivUsersExit(&bm->users);
		up(&b->bSem);
		return 2;
	}

	if (bm->size != userBM->mapLen) {
		printk(KERN_ERR "%s: backup error map size mismatch kernel "
		       "map size=%u user map size=%u\n", "ioctlGetAutoMap",
		       bm->size, userBM->mapLen);
		kivUsersExit(&bm->users);
		up(&b->bSem);
		return 2;
	}

	bytesInMap = bm->numBytes;
	numPages = (bytesInMap + KIV_PAGE_SIZE - 1) / KIV_PAGE_SIZE;
	dest = kivUserPtr(userBM->map);
	for (i = 0; i < numPages; i++) {
		count = KIV_PAGE_SIZE;
		if (i == numPages - 1 && (bytesInMap % KIV_PAGE_SIZE))
			count = bytesInMap % KIV_PAGE_SIZE;

		addr = kmap(bm->map[i]);
		notCopied = copy_to_user(dest, addr, count);
		kunmap(bm->map[i]);

		if (notCopied) {
			printk(KERN_ERR "%s: copy to user space failed "
			       "data=%p bytesCopied=%d bytesInMap=%d\n",
			       "ioctlGetAutoMap", dest, (int)count,
			       (int)bytesInMap);
			kivUsersExit(&bm->users);
			up(&b->bSem);
			return 7;
		}
		dest += KIV_PAGE_SIZE;
	}

	kivUsersExit(&bm->users);

	/*
	 * The export consumes the map.  bSem is held, and in state 4 the
	 * interception no longer tests this map (that starts in state 6), so
	 * nothing else can be inside it.  totalAllocPages keeps counting the
	 * pages: it is the total ever allocated.
	 */
	if (bm->map) {
		closeBlockMap(bm, &numFreed);
		atomic_sub((int)numPages, &b->curAllocPages);
	}

	up(&b->bSem);
	return 0;
}

/*
 * The head of the lowest-numbered non-empty bucket of the block cache, or
 * 0xFFFFFFFF when the cache is empty.  This is not the lowest cached
 * block: the caller only needs some block that is still cached, and the
 * first one found is the cheapest, so it is kept that way.  Caller holds
 * cacheUsers for reading; takes one bucket semaphore at a time.
 */
static u32 anyDirtyBlock(Backup *b)
{
	HashTable *ht;
	u32 blockNum = 0xFFFFFFFF;
	int i;

	for (i = 0; i < KIV_HASH_BUCKETS; i++) {
		ht = b->blockTable[i];
		down(&ht->sem);
		if (ht->busy) {
			blockNum = ht->busy->blockNum;
			up(&ht->sem);
			break;
		}
		up(&ht->sem);
	}
	return blockNum;
}

/*
 * GET_DIRTY_BLOCK: store a block whose old contents the cache still
 * holds, or 0xFFFFFFFF for none.  Only in state 6 with a block map.
 * Returns 0, 2 in another state (nothing written, nothing logged), or
 * put_user's own negative error when the number cannot be stored.
 */
int ioctlGetDirtyBlock(Backup *b, u32 __user *userBlockNumPtr)
{
	u32 blockNum;

	/*
	 * A first look without bSem, kept as it always was: it only lets a
	 * caller in the wrong state out early, and the state is looked at
	 * again under cacheUsers below before the cache is walked.
	 */
	if (!b->blockMap.map || b->state != BU_STATE_MAP_LOADED)
		return 2;

	blockNum = 0xFFFFFFFF;
	down(&b->bSem);
	if (atomic_read(&b->curCBs) != 0) {
		down_read(&b->cacheUsers);
		if (b->state <= BU_STATE_MAP_LOADED)
			blockNum = anyDirtyBlock(b);
		up_read(&b->cacheUsers);
	}
	up(&b->bSem);

	/*
	 * put_user's result is returned as it is, -EFAULT included: the one
	 * command that hands user space a negative code rather than one of
	 * the driver's own, which programs already rely on.
	 */
	return put_user(blockNum, userBlockNumPtr);
}
