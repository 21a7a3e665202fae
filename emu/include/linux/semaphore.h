/*
 * semaphore.h - counting semaphores.
 *
 * DUPLICATED from 2.6.27 (kernel/semaphore.c): the same structure (a spin
 * lock, a count and a list of waiters) and the same algorithm: down() takes
 * a unit if the count is positive, else queues at the tail and sleeps; up()
 * hands the unit directly to the first waiter (so waiters are served in
 * FIFO order and a later down() cannot overtake them) or increments the
 * count.  down_interruptible() returns -EINTR when a signal is pending for
 * the task; down_trylock() returns 0 on success and 1 when it would sleep.
 * CUSTOMISED: sema_init is done by the runtime (it also marks the
 * semaphore initialised: using one that was not is fatal), and every
 * sleeping form calls might_sleep() first.  The lock validator orders a
 * semaphore initialised to 1 as a lock for as long as every up() comes
 * from the task that took it; the first up() by a task that does not hold
 * it makes its whole class a signal (never ordered again), as are
 * semaphores initialised to any other count.
 */
#ifndef __LINUX_SEMAPHORE_H
#define __LINUX_SEMAPHORE_H

#include <linux/list.h>
#include <linux/spinlock.h>
#include <linux/emu_runtime.h>

/* Please don't access any members of this structure directly */
struct semaphore {
	spinlock_t		lock;
	unsigned int		count;
	struct list_head	wait_list;
	struct emu_lock_key	dep;	/* lock validator class */
};

#define __SEMAPHORE_INITIALIZER(name, n)				\
{									\
	.lock		= __SPIN_LOCK_UNLOCKED((name).lock),		\
	.count		= n,						\
	.wait_list	= LIST_HEAD_INIT((name).wait_list),		\
	.dep		= { #name, __FILE__, __LINE__, 0,		\
			    (n) == 1 ? 0 : EMU_LOCK_KEY_SIGNAL },	\
}

#define DECLARE_MUTEX(name)	\
	struct semaphore name = __SEMAPHORE_INITIALIZER(name, 1)

EMU_BEGIN_DECLS
void emu_sema_init_key(struct semaphore *sem, int val, const char *name,
		       EMU_SITE_PARAMS);
void emu_down(struct semaphore *sem, EMU_SITE_PARAMS);
int emu_down_interruptible(struct semaphore *sem, EMU_SITE_PARAMS);
int emu_down_killable(struct semaphore *sem, EMU_SITE_PARAMS);
int emu_down_trylock(struct semaphore *sem, EMU_SITE_PARAMS);
void emu_up(struct semaphore *sem, EMU_SITE_PARAMS);
EMU_END_DECLS

static inline int __must_check emu_checked(int ret) { return ret; }

#define sema_init(sem, val)	emu_sema_init_key((sem), (val), #sem, EMU_SITE)
#define init_MUTEX(sem)		sema_init(sem, 1)
#define init_MUTEX_LOCKED(sem)	sema_init(sem, 0)

#define down(sem)		emu_down((sem), EMU_SITE)
#define down_interruptible(sem)	emu_checked(emu_down_interruptible((sem), EMU_SITE))
#define down_killable(sem)	emu_checked(emu_down_killable((sem), EMU_SITE))
#define down_trylock(sem)	emu_checked(emu_down_trylock((sem), EMU_SITE))
#define up(sem)			emu_up((sem), EMU_SITE)

#endif /* __LINUX_SEMAPHORE_H */
