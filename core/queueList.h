/*
 * queueList.h - registry of the request queues the driver has hooked.
 *
 * queueListHead lists one QueueList per hooked queue, in order of first
 * hooking; each holds the queue's real make_request_fn, saved once before
 * the first hook, and the DevList of partitions watched through it.
 *
 * Guard: queueListUsers rests at 1.  Readers count themselves in under
 * queueListUsersLock (enterQueueListUsers) and out without it
 * (exitQueueListUsers); they never sleep inside.  A writer takes the lock
 * once no reader is inside (waitForQueueListUsers) and keeps it, with
 * interrupts off, across its change.
 */
#ifndef _KIV_QUEUELIST_H
#define _KIV_QUEUELIST_H

#include <linux/types.h>
#include <linux/blkdev.h>

#include "kiv-2.6.h"

void enterQueueListUsers(void);
void exitQueueListUsers(void);
void waitForQueueListUsers(unsigned long *flags);
QueueList *findQueueNode(struct request_queue *q);

void addQueueToList(struct request_queue *q, dev_t kdev);
int addDevToList(QueueList *queueList, dev_t kdev, DevList *node);
int isInQueueList(struct request_queue *q, dev_t kdev);
int isInDevList(QueueList *queueList, dev_t kdev);
make_request_fn *getRealMRF(struct request_queue *q);
void unsetAllQueues(void);

#endif /* _KIV_QUEUELIST_H */
