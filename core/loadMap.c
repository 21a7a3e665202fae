/*
 * loadMap.c - loading the set of blocks the backup program will read as
 * the backup's block map, and dropping cached blocks outside it.
 */
#include <linux/kernel.h>
#include <linux/semaphore.h>
#include <linux/rwsem.h>
#include <asm/atomic.h>

#include "kivlib.h"

/*
 * Build the backup's block map of size blocks from the user bitmap at
 * data; on success its pages are counted in the backup's page counters.
 * Returns newBlockMap()'s result.  Caller holds bSem, state 5.
 */
int newBUBlockMap(Backup *b, u32 size, void __user *data)
{
	int numPages = 0;
	int result;

	/* With data given the fill argument is not looked at. */
	result = newBlockMap(&b->blockMap, size, data, 0, &numPages);
	if (result)
		return result;
	atomic_add(numPages, &b->totalAllocPages);
	atomic_add(numPages, &b->curAllocPages);
	return 0;
}

/*
 * LOAD_BLOCK_MAP: after the snapshot (state 4) make the user bitmap the
 * backup's block map and drop the cached blocks it does not name.  Only
 * once per backup.  Returns 0; 2 in another state or for a size that
 * gives no byte; 5 out of memory; 6 when the bitmap cannot be read; 3
 * when the state fell below 6 before the cache was cleaned.  The last
 * four leave the backup in state 9.  Holds bSem; may sleep.
 */
int ioctlLoadBlockMap(Backup *b, struct UserBlockMap *userBM)
{
	int result;

	down(&b->bSem);

	if (b->state != BU_STATE_SNAPSHOT) {
		printk(KERN_ERR "%s: backup error snapshot not %s\n",
		       "ioctlLoadBlockMap", "complete");
		up(&b->bSem);
		return 2;
	}

	setBackupState(b, BU_STATE_LOADING_MAP);

	/*
	 * A change map the snapshot handed over and nobody exported is
	 * still the block map: the loaded map replaces it, so it is freed
	 * (and leaves the page count) first instead of being overwritten.
	 * Nothing looks at blockMap before state 6.
	 */
	closeBUBlockMap(b);

	/*
	 * In state 5 the interception still saves every block; blockMap is
	 * not looked at until state 6, so it can be built without a lock.
	 */
	result = newBUBlockMap(b, userBM->mapLen, kivUserPtr(userBM->map));
	if (result) {
		printk(KERN_ERR "%s: error creating map of size=%u\n",
		       "ioctlLoadBlockMap", userBM->mapLen);
		setBackupState(b, BU_STATE_MAP_ERROR);
		printk(KERN_ERR "%s: backup error failed to load device map%s",
		       "ioctlLoadBlockMap", "\n");
		up(&b->bSem);
		return result;
	}

	/* No intercepted write is deciding while the state moves to 6. */
	down_write(&b->writers);
	setBackupState(b, BU_STATE_MAP_LOADED);
	up_write(&b->writers);

	result = cleanUpCache(b);
	if (result) {
		setBackupState(b, BU_STATE_MAP_ERROR);
		printk(KERN_ERR "%s: error cleaning cache%s",
		       "ioctlLoadBlockMap", "\n");
	}

	up(&b->bSem);
	return result;
}
