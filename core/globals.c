/*
 * globals.c - definitions of the module-wide state declared in globals.h.
 */
#include "globals.h"

atomic_t initDone = ATOMIC_INIT(0);
atomic_t busy = ATOMIC_INIT(0);
DEFINE_SPINLOCK(busyLock);
atomic_t shutting_down = ATOMIC_INIT(0);
atomic_t shutdown_ready = ATOMIC_INIT(0);

LIST_HEAD(queueListHead);
atomic_t queueListUsers = ATOMIC_INIT(1);
DEFINE_SPINLOCK(queueListUsersLock);

AutoMapSession *amList[KIV_AM_MAJORS][KIV_AM_MINORS];
atomic_t amListUsers = ATOMIC_INIT(1);
DEFINE_SPINLOCK(amListUsersLock);
atomic_t curAllocAMPages = ATOMIC_INIT(0);

Backup *activeSession;
DECLARE_RWSEM(activeSessionUsers);

struct semaphore signalThread;
pid_t backup_cachePID;
atomic_t backup_cacheThreadContinue = ATOMIC_INIT(1);
DECLARE_COMPLETION(backup_cacheThreadStartCompleted);
DECLARE_COMPLETION(backup_cacheThreadExited);
