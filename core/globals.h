/*
 * globals.h - module-wide state of the corvalin driver.
 *
 * Defined, with their static initial values, in globals.c.  Values that
 * must hold before the first entry point runs are set at definition, not
 * by code: the registry and session-table user counts rest at 1, the cache
 * thread's run flag starts at 1.  Only signalThread is set up by kivInit.
 */
#ifndef _KIV_GLOBALS_H
#define _KIV_GLOBALS_H

#include <linux/types.h>
#include <linux/list.h>
#include <linux/spinlock.h>
#include <linux/rwsem.h>
#include <linux/semaphore.h>
#include <linux/completion.h>
#include <asm/atomic.h>

#include "kiv-2.6.h"

#define KIV_AM_MAJORS		256
#define KIV_AM_MINORS		256

/* Control device (module lifecycle). */
extern atomic_t initDone;		/* 1 once the device is registered */
extern atomic_t busy;			/* 1 while the backup slot is taken */
extern spinlock_t busyLock;		/* guards the test-and-set of busy */
/*
 * Part of the module's declared state since the beginning, but nothing
 * reads or changes them: unload is guarded by the module references that
 * open files hold.  Kept, inert, at 0.
 */
extern atomic_t shutting_down;
extern atomic_t shutdown_ready;

/* Registry of hooked request queues (queueList.c). */
extern struct list_head queueListHead;
extern atomic_t queueListUsers;		/* 1 at rest */
extern spinlock_t queueListUsersLock;

/* Change-tracking sessions, row = major, column = minor. */
extern AutoMapSession *amList[KIV_AM_MAJORS][KIV_AM_MINORS];
extern atomic_t amListUsers;		/* 1 at rest */
extern spinlock_t amListUsersLock;
extern atomic_t curAllocAMPages;	/* bitmap pages of all sessions */

/* The running backup. */
extern Backup *activeSession;
extern struct rw_semaphore activeSessionUsers;

/* The cache thread "kbackupd". */
extern struct semaphore signalThread;	/* one count per held request */
extern pid_t backup_cachePID;		/* 0 none, < 0 failed start */
extern atomic_t backup_cacheThreadContinue;
extern struct completion backup_cacheThreadStartCompleted;
extern struct completion backup_cacheThreadExited;

#endif /* _KIV_GLOBALS_H */
