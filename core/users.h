/*
 * users.h - the users counter that guards the queue registry, the
 * change-tracking session table, each session and each block map.
 *
 * The counter rests at 1.  A shared user takes the spin lock (interrupts
 * saved and disabled), increments the counter and releases the lock; it
 * leaves by decrementing without the lock.  An exclusive user takes the
 * lock and checks that only the resting count is left; if not, it lets go
 * of the lock, yields and tries again, without time limit.  It returns
 * holding the lock, so no shared entry completes until it releases it: its
 * work must not sleep.
 */
#ifndef _KIV_USERS_H
#define _KIV_USERS_H

#include <linux/sched.h>
#include <linux/spinlock.h>
#include <asm/atomic.h>

/* Shared entry.  Does not sleep. */
static inline void kivUsersEnter(atomic_t *users, spinlock_t *lock)
{
	unsigned long flags;

	spin_lock_irqsave(lock, flags);
	atomic_inc(users);
	spin_unlock_irqrestore(lock, flags);
}

/* Shared exit, without the lock. */
static inline void kivUsersExit(atomic_t *users)
{
	atomic_dec(users);
}

/*
 * Exclusive entry: returns holding lock, with the interrupt state saved
 * in *flags and the counter at its resting 1.  Polls by yielding.  Process
 * context only; the caller releases lock with *flags when done.
 * subclass tells the lock validator that a second lock of the same kind
 * is taken inside the first (0 for the outer or only one).
 */
static inline void kivUsersWaitNested(atomic_t *users, spinlock_t *lock,
				      unsigned long *flags, int subclass)
{
	for (;;) {
		spin_lock_irqsave_nested(lock, *flags, subclass);
		if (atomic_dec_and_test(users)) {
			atomic_inc(users);
			return;
		}
		atomic_inc(users);
		spin_unlock_irqrestore(lock, *flags);
		schedule();
	}
}

static inline void kivUsersWait(atomic_t *users, spinlock_t *lock,
				unsigned long *flags)
{
	kivUsersWaitNested(users, lock, flags, 0);
}

#endif /* _KIV_USERS_H */
