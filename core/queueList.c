/*
 * queueList.c - registry of hooked request queues and their real
 * make_request functions.  See queueList.h for the locking rules.
 *
 * Nodes are added here and removed only when change tracking lets go of a
 * queue (autoMap.c), which also puts the saved real function back.
 */
#include <linux/kernel.h>
#include <linux/list.h>
#include <linux/slab.h>
#include <linux/sched.h>
#include <linux/spinlock.h>
#include <asm/atomic.h>

#include "globals.h"
#include "queueList.h"
#include "shim-2.6.h"
#include "users.h"

/* Shared entry: counts a reader in.  Does not sleep. */
void enterQueueListUsers(void)
{
	kivUsersEnter(&queueListUsers, &queueListUsersLock);
}

/* Shared exit, without the lock. */
void exitQueueListUsers(void)
{
	kivUsersExit(&queueListUsers);
}

/*
 * Exclusive entry: returns holding queueListUsersLock (interrupt state in
 * *flags) with no reader inside.  Polls by yielding, without time limit;
 * the caller releases the lock when its change is done.
 */
void waitForQueueListUsers(unsigned long *flags)
{
	kivUsersWait(&queueListUsers, &queueListUsersLock, flags);
}

/*
 * The registry node of q, or NULL.  Caller is inside the registry, as a
 * reader or exclusively.
 */
QueueList *findQueueNode(struct request_queue *q)
{
	QueueList *node;

	list_for_each_entry(node, &queueListHead, list) {
		if (node->rQueue == q)
			return node;
	}
	return NULL;
}

/*
 * Link node for kdev at the tail of queueList's device list.  Returns 1
 * when linked, 0 when the queue node is absent or kdev is already there
 * (the caller then still owns node).  Caller holds the registry
 * exclusively.
 */
int addDevToList(QueueList *queueList, dev_t kdev, DevList *node)
{
	if (!queueList)
		return 0;
	if (isInDevList(queueList, kdev))
		return 0;
	node->kdev = kdev;
	list_add_tail(&node->list, &queueList->devList);
	return 1;
}

/* 1 when kdev is on queueList's device list.  Takes no lock. */
int isInDevList(QueueList *queueList, dev_t kdev)
{
	DevList *dev;

	list_for_each_entry(dev, &queueList->devList, list) {
		if (dev->kdev == kdev)
			return 1;
	}
	return 0;
}

/*
 * Register kdev as watched through q, creating q's node (and saving its
 * current make_request_fn as the real one) on first use.  Both nodes are
 * allocated before the registry is locked, retrying after a yield until
 * memory comes, so registration never fails.  May sleep.
 */
void addQueueToList(struct request_queue *q, dev_t kdev)
{
	QueueList *ql, *node;
	DevList *dl;
	unsigned long flags, qflags;
	int qlLinked = 0, dlLinked = 0;

	if (!q) {
		printk(KERN_ERR "%s: Could not add queue to list (null).%s",
		       "addQueueToList", "\n");
		return;
	}

	while (!(ql = kzalloc(sizeof(*ql), GFP_NOIO)))
		schedule();
	while (!(dl = kzalloc(sizeof(*dl), GFP_NOIO)))
		schedule();

	waitForQueueListUsers(&flags);
	node = findQueueNode(q);
	if (node) {
		/* Already hooked: its saved function stays. */
		dlLinked = addDevToList(node, kdev, dl);
		goto out;
	}

	ql->rQueue = q;
	kivLockRequestQueue(q, &qflags);
	ql->realMRF = q->make_request_fn;
	kivUnlockRequestQueue(q, qflags);
	INIT_LIST_HEAD(&ql->devList);
	dlLinked = addDevToList(ql, kdev, dl);
	list_add_tail(&ql->list, &queueListHead);
	qlLinked = 1;
out:
	spin_unlock_irqrestore(&queueListUsersLock, flags);
	if (!qlLinked)
		kfree(ql);
	if (!dlLinked)
		kfree(dl);
}

/*
 * 1 when q is registered and kdev is on its device list.  Does not sleep;
 * callable from a make_request function.
 */
int isInQueueList(struct request_queue *q, dev_t kdev)
{
	QueueList *node;
	int found = 0;

	if (!q)
		return 0;

	enterQueueListUsers();
	node = findQueueNode(q);
	if (node)
		found = isInDevList(node, kdev);
	exitQueueListUsers();
	return found;
}

/*
 * The real make_request function of q: the one saved when q was first
 * hooked, or, for a queue never hooked, its current one.  A registered
 * queue without a saved function yields NULL, which the interception
 * treats as fatal.  Does not sleep.
 */
make_request_fn *getRealMRF(struct request_queue *q)
{
	QueueList *node;
	make_request_fn *mrf = NULL;
	unsigned long qflags;
	int registered = 0;

	if (!q) {
		printk(KERN_WARNING "%s: Can't get MRF on NULL queue.%s",
		       "getRealMRF", "\n");
		return NULL;
	}

	enterQueueListUsers();
	list_for_each_entry(node, &queueListHead, list) {
		if (node->rQueue != q)
			continue;
		registered = 1;
		if (node->realMRF) {
			mrf = node->realMRF;
			break;
		}
	}
	exitQueueListUsers();

	if (!registered) {
		/* An unhooked queue's current function is its real one. */
		kivLockRequestQueue(q, &qflags);
		mrf = q->make_request_fn;
		kivUnlockRequestQueue(q, qflags);
	}
	return mrf;
}

/*
 * Give every queue still in the registry its real make_request function
 * back and empty the registry.  A queue can stay hooked with no session
 * left on it (a backup of an untracked partition, closed while other
 * partitions of the disk were tracked, then the tracking ended; or a
 * session whose queue could not be found when it was closed): once the
 * module is gone such a queue would call into freed code.  Module exit
 * only, after every session was closed.  Process context.
 */
void unsetAllQueues(void)
{
	QueueList *node, *ntmp;
	DevList *dev, *dtmp;
	unsigned long flags, qflags;

	waitForQueueListUsers(&flags);
	list_for_each_entry_safe(node, ntmp, &queueListHead, list) {
		list_for_each_entry_safe(dev, dtmp, &node->devList, list) {
			list_del(&dev->list);
			kfree(dev);
		}
		if (node->realMRF) {
			kivLockRequestQueue(node->rQueue, &qflags);
			node->rQueue->make_request_fn = node->realMRF;
			kivUnlockRequestQueue(node->rQueue, qflags);
		}
		list_del(&node->list);
		kfree(node);
	}
	spin_unlock_irqrestore(&queueListUsersLock, flags);
}
