/*
 * autoMap.c - the change-tracking session table: one AutoMapSession per
 * tracked partition in amList, indexed by major * 256 + minor.
 *
 * The table (amListUsers) and each session (users) are guarded by the
 * users counter of users.h, as the queue registry is.
 *
 * Lock order: the queue registry before amList before a session's lock;
 * a request queue's own lock innermost.
 */
#include <linux/kernel.h>
#include <linux/kdev_t.h>
#include <linux/list.h>
#include <linux/slab.h>
#include <linux/sched.h>
#include <linux/spinlock.h>
#include <asm/atomic.h>

#include "kivlib.h"
#include "users.h"

/*
 * The table slot of kdev, or NULL when its major or minor lies outside
 * the 256 x 256 table: such a device is never tracked.
 */
AutoMapSession **amSlot(dev_t kdev)
{
	if (MAJOR(kdev) >= KIV_AM_MAJORS || MINOR(kdev) >= KIV_AM_MINORS)
		return NULL;
	return &amList[MAJOR(kdev)][MINOR(kdev)];
}

void enterAMListUsers(void)
{
	kivUsersEnter(&amListUsers, &amListUsersLock);
}

void exitAMListUsers(void)
{
	kivUsersExit(&amListUsers);
}

/* Returns holding amListUsersLock with no shared user inside. */
void waitForAMListUsers(unsigned long *flags)
{
	kivUsersWait(&amListUsers, &amListUsersLock, flags);
}

void enterAMSUsers(AutoMapSession *ams)
{
	kivUsersEnter(&ams->users, &ams->usersLock);
}

void exitAMSUsers(AutoMapSession *ams)
{
	kivUsersExit(&ams->users);
}

/* Returns holding ams->usersLock with no shared user inside. */
void waitForAMSUsers(AutoMapSession *ams, unsigned long *flags)
{
	kivUsersWait(&ams->users, &ams->usersLock, flags);
}

/*
 * Returns holding ams->usersLock with no shared user inside and none of
 * the writes the session counted still in flight.  Users that enter
 * after it returns wait on the lock, so none can start a write that
 * would be counted here.  Polls, with no time limit: each write in flight
 * completes on its own.  Process context.
 */
void waitForAMSWrites(AutoMapSession *ams, unsigned long *flags)
{
	for (;;) {
		waitForAMSUsers(ams, flags);
		if (!atomic_read(&ams->inFlight))
			return;
		spin_unlock_irqrestore(&ams->usersLock, *flags);
		schedule();
	}
}

/*
 * As waitForAMSWrites, for a caller that is itself a shared user of ams
 * (its one entry keeps the session from being closed and freed under it):
 * returns holding ams->usersLock with no other shared user inside and no
 * counted write in flight.  The caller still leaves with exitAMSUsers,
 * after releasing the lock.  Polls, with no time limit.  Process context.
 */
void waitForAMSWritesAsUser(AutoMapSession *ams, unsigned long *flags)
{
	for (;;) {
		spin_lock_irqsave(&ams->usersLock, *flags);
		/* The resting count, and our own entry. */
		if (atomic_read(&ams->users) == 2 &&
		    !atomic_read(&ams->inFlight))
			return;
		spin_unlock_irqrestore(&ams->usersLock, *flags);
		schedule();
	}
}

/*
 * Look up kdev's session for use: returns it with a shared entry on its
 * users taken (the caller calls exitAMSUsers), or NULL.  Does not sleep.
 */
AutoMapSession *getAMS(dev_t kdev)
{
	AutoMapSession **slot = amSlot(kdev);
	AutoMapSession *ams = NULL;

	if (!slot)
		return NULL;
	enterAMListUsers();
	ams = *slot;
	if (ams)
		enterAMSUsers(ams);
	exitAMListUsers();
	return ams;
}

/*
 * Create a session for b's partition: a copy of b's geometry and an
 * all-clear map of diskInfo.numBlocks blocks, not in sync, key all zero.
 * It replaces whatever the slot held (callers close the old one first).
 * Returns 0, 5 without memory, or newBlockMap()'s code.  May sleep.
 *
 * A device whose major or minor does not fit the 256 x 256 table has no
 * slot: it is refused with 2 before anything is allocated, so there is
 * never a session that no slot holds (nobody could find, invalidate or
 * close it).  Such a partition can still be backed up, untracked.
 */
int newAMS(Backup *b, AutoMapSession **amSession)
{
	AutoMapSession *ams;
	AutoMapSession **slot;
	unsigned long flags;
	int numPages = 0;
	int result;

	slot = amSlot(b->diskInfo.kdev);
	if (!slot)
		return 2;

	ams = kzalloc(sizeof(*ams), GFP_KERNEL);
	if (!ams)
		return 5;
	ams->diskInfo = b->diskInfo;
	setAMSState(ams, AM_STATE_NOT_IN_SYNC);

	if (!ams->diskInfo.blockSize) {
		printk(KERN_CRIT "%s: Blocksize set to 0 when making automap%s",
		       "newAMS", "\n");
		BUG();
	}

	result = newBlockMap(&ams->map, (u32)ams->diskInfo.numBlocks, NULL, 1,
			     &numPages);
	if (result) {
		printk(KERN_ERR "%s: failed to create new device map%s",
		       "newAMS", "\n");
		/* Never registered, so nobody else can reach it. */
		kfree(ams);
		return result;
	}
	atomic_add(numPages, &curAllocAMPages);
	atomic_set(&ams->users, 1);
	atomic_set(&ams->inFlight, 0);
	spin_lock_init(&ams->usersLock);

	*amSession = ams;
	waitForAMListUsers(&flags);
	*slot = ams;
	spin_unlock_irqrestore(&amListUsersLock, flags);
	return 0;
}

/*
 * Give back partition diskInfo's place on its queue: drop its DevList
 * node and, when it was the queue's last watched partition, the queue's
 * node too, restoring the saved real make_request function.
 */
void unSetMRFDEV(DiskInfo *diskInfo)
{
	struct request_queue *q;
	QueueList *found;
	DevList *dev, *tmp;
	make_request_fn *realMRF = NULL;
	unsigned long flags, qflags;

	q = getRequestQueue(diskInfo);
	if (!q) {
		printk(KERN_WARNING "%s: Unable to get request queue for "
		       "MAJOR=%d, MINOR=%d while unsetting MRF.", "unSetMRFDEV",
		       (int)MAJOR(diskInfo->kdev), (int)MINOR(diskInfo->kdev));
		return;
	}

	waitForQueueListUsers(&flags);
	found = findQueueNode(q);
	if (found) {
		list_for_each_entry_safe(dev, tmp, &found->devList, list) {
			if (dev->kdev == diskInfo->kdev) {
				list_del(&dev->list);
				kfree(dev);
			}
		}
		if (list_empty(&found->devList)) {
			realMRF = found->realMRF;
			list_del(&found->list);
			kfree(found);
		}
	}
	kivLockRequestQueue(q, &qflags);
	if (realMRF && q->make_request_fn != realMRF)
		q->make_request_fn = realMRF;
	kivUnlockRequestQueue(q, qflags);
	spin_unlock_irqrestore(&queueListUsersLock, flags);
}

void unSetMRFAMS(AutoMapSession *ams)
{
	unSetMRFDEV(&ams->diskInfo);
}

/*
 * Close a session already taken out of the table: unhook its partition,
 * drain its users and the writes it still counts in flight (their
 * completions reach the record), free its map and the record.  May sleep.
 */
void closeAM(AutoMapSession *ams)
{
	unsigned long flags;
	int numPages = 0;

	unSetMRFAMS(ams);
	waitForAMSWrites(ams, &flags);
	spin_unlock_irqrestore(&ams->usersLock, flags);
	closeBlockMap(&ams->map, &numPages);
	atomic_sub(numPages, &curAllocAMPages);
	kfree(ams);
}

/* Close b's partition's session: 0 when one was closed, 2 when none. */
int closeAMS(Backup *b)
{
	AutoMapSession **slot = amSlot(b->diskInfo.kdev);
	AutoMapSession *ams = NULL;
	unsigned long flags;

	if (slot) {
		waitForAMListUsers(&flags);
		ams = *slot;
		*slot = NULL;
		spin_unlock_irqrestore(&amListUsersLock, flags);
	}
	if (!ams)
		return 2;
	closeAM(ams);
	return 0;
}

/*
 * Close every session, in slot order.  The table is locked once per slot,
 * so the write path gets in between slots.  May sleep.
 */
void closeAllAMS(void)
{
	AutoMapSession *ams;
	unsigned long flags;
	int major, minor;

	for (major = 0; major < KIV_AM_MAJORS; major++) {
		for (minor = 0; minor < KIV_AM_MINORS; minor++) {
			waitForAMListUsers(&flags);
			ams = amList[major][minor];
			amList[major][minor] = NULL;
			spin_unlock_irqrestore(&amListUsersLock, flags);
			if (ams)
				closeAM(ams);
		}
	}
}

/*
 * Mark every session on the queue that watches kdev as not in sync.  No
 * hook is changed.  Does not sleep.
 */
void errorAMSDEV(dev_t kdev)
{
	QueueList *ql;
	DevList *dev;
	AutoMapSession **slot;

	enterQueueListUsers();
	list_for_each_entry(ql, &queueListHead, list) {
		if (!isInDevList(ql, kdev))
			continue;
		enterAMListUsers();
		list_for_each_entry(dev, &ql->devList, list) {
			slot = amSlot(dev->kdev);
			if (slot && *slot)
				setAMSState(*slot, AM_STATE_NOT_IN_SYNC);
		}
		exitAMListUsers();
		break;
	}
	exitQueueListUsers();
}

/*
 * The backup on b's device has failed: its partition's change map can no
 * longer be trusted, and its interception gives way to change tracking
 * (if another partition of the disk is tracked) or to the real function.
 * Called from the write path and the cache thread; may sleep.
 */
void errorAMS(Backup *b)
{
	AutoMapSession **slot = amSlot(b->diskInfo.kdev);
	unsigned long flags;
	int found = 0;
	int count;

	enterAMListUsers();
	if (slot && *slot) {
		setAMSState(*slot, AM_STATE_NOT_IN_SYNC);
		found = 1;
	}
	exitAMListUsers();

	count = countQueueAMS(getRequestQueue(&b->diskInfo));
	if (count > found) {
		if (!setMRF(b, kivAMRF))
			return;
		errorAMSDEV(b->diskInfo.kdev);
	}
	/*
	 * unsetQueueMRFAMS returns with interrupts off.  On the close path
	 * that is how it has always been; here the caller is a writer in
	 * its make_request function or kbackupd between two blocks, both
	 * with interrupts on and about to sleep, so they get back the
	 * interrupt state they came with.
	 */
	local_save_flags(flags);
	unsetQueueMRFAMS(getRequestQueue(&b->diskInfo));
	local_irq_restore(flags);
}

/*
 * Number of sessions, in any state, of the partitions watched through q.
 * The registry walk leaves its cursor on the last node visited, so a
 * queue that is not registered is counted as the last registered one;
 * this is how the count has always behaved and callers rely on nothing
 * else.  Does not sleep.
 */
int countQueueAMS(struct request_queue *q)
{
	QueueList *ql = NULL, *node;
	DevList *dev;
	AutoMapSession **slot;
	int count = 0;

	if (!q) {
		printk(KERN_ERR "%s: Could not count ams sessions for request "
		       "queue because queue was null.%s", "countQueueAMS",
		       "\n");
		return 0;
	}

	enterQueueListUsers();
	list_for_each_entry(node, &queueListHead, list) {
		ql = node;
		if (node->rQueue == q)
			break;
	}
	if (ql) {
		enterAMListUsers();
		list_for_each_entry(dev, &ql->devList, list) {
			slot = amSlot(dev->kdev);
			if (slot && *slot)
				count++;
		}
		exitAMListUsers();
	}
	exitQueueListUsers();
	return count;
}

/*
 * Take q's interception away completely: every partition watched through
 * it loses its place (its session, if any, drops out of sync but stays in
 * the table), and the queue gets its real function back.
 *
 * The saved interrupt state of the registry lock is overwritten by the
 * one saved when amListUsersLock is taken (one variable serves both) and
 * is the one restored at the end; kept as it has always been.
 */
void unsetQueueMRFAMS(struct request_queue *q)
{
	QueueList *found;
	DevList *dev, *tmp;
	AutoMapSession **slot;
	unsigned long flags, qflags;

	if (!q) {
		printk(KERN_ERR "%s: Could not unset MRFS for request queue "
		       "because queue was null.%s", "unsetQueueMRFAMS", "\n");
		return;
	}

	waitForQueueListUsers(&flags);
	found = findQueueNode(q);
	if (!found) {
		spin_unlock_irqrestore(&queueListUsersLock, flags);
		return;
	}

	spin_lock_irqsave(&amListUsersLock, flags);
	atomic_inc(&amListUsers);
	spin_unlock_irqrestore(&amListUsersLock, flags);
	list_for_each_entry_safe(dev, tmp, &found->devList, list) {
		slot = amSlot(dev->kdev);
		if (slot && *slot)
			setAMSState(*slot, AM_STATE_NOT_IN_SYNC);
		list_del(&dev->list);
		kfree(dev);
	}
	exitAMListUsers();

	if (!found->realMRF) {
		printk(KERN_CRIT "%s: Could not find real make request fn for "
		       "queue.%s", "unsetQueueMRFAMS", "\n");
		BUG();
	}
	kivLockRequestQueue(q, &qflags);
	q->make_request_fn = found->realMRF;
	kivUnlockRequestQueue(q, qflags);
	list_del(&found->list);
	kfree(found);
	spin_unlock_irqrestore(&queueListUsersLock, flags);
}
