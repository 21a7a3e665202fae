/*
 * mutex.h - sleeping mutual exclusion locks.
 *
 * DUPLICATED from 2.6.27's contract (kernel/mutex.c with
 * CONFIG_DEBUG_MUTEXES): one owner at a time, FIFO waiters, only the owner
 * may unlock, a mutex must not be locked recursively nor freed while held.
 * mutex_trylock returns 1 when taken; mutex_lock_interruptible returns
 * -EINTR on a pending signal.  CUSTOMISED: the checks are fatal with the
 * call site; the sleeping forms call might_sleep().
 * The runtime's lock validator checks their order and recursion (see
 * linux/spinlock.h); the initialisers record their site in `dep` for it.
 */
#ifndef __LINUX_MUTEX_H
#define __LINUX_MUTEX_H

#include <linux/list.h>
#include <linux/spinlock.h>
#include <linux/emu_runtime.h>
#include <asm/atomic.h>

struct task_struct;

struct mutex {
	/* 1: unlocked, 0: locked, negative: locked, possible waiters */
	atomic_t		count;
	spinlock_t		wait_lock;
	struct list_head	wait_list;
	struct task_struct	*owner;
	const char		*file;	/* where the owner took it */
	int			line;
	struct emu_lock_key	dep;	/* lock validator class */
};

#define __MUTEX_INITIALIZER(lockname) \
		{ .count = ATOMIC_INIT(1) \
		, .wait_lock = __SPIN_LOCK_UNLOCKED(lockname.wait_lock) \
		, .wait_list = LIST_HEAD_INIT(lockname.wait_list) \
		, .owner = NULL, .file = NULL, .line = 0 \
		, .dep = EMU_LOCK_KEY_INIT(lockname) }

#define DEFINE_MUTEX(mutexname) \
	struct mutex mutexname = __MUTEX_INITIALIZER(mutexname)

EMU_BEGIN_DECLS
void emu_mutex_init(struct mutex *lock);
void emu_mutex_init_key(struct mutex *lock, const char *name, EMU_SITE_PARAMS);
void emu_mutex_lock(struct mutex *lock, EMU_SITE_PARAMS);
void emu_mutex_lock_nested(struct mutex *lock, int subclass, EMU_SITE_PARAMS);
int emu_mutex_lock_interruptible(struct mutex *lock, EMU_SITE_PARAMS);
int emu_mutex_trylock(struct mutex *lock, EMU_SITE_PARAMS);
void emu_mutex_unlock(struct mutex *lock, EMU_SITE_PARAMS);
int emu_mutex_is_locked(struct mutex *lock);
EMU_END_DECLS

#define mutex_init(mutex)		emu_mutex_init_key((mutex), #mutex, EMU_SITE)
#define mutex_destroy(mutex)		do { } while (0)
#define mutex_lock(lock)		emu_mutex_lock((lock), EMU_SITE)
#define mutex_lock_nested(lock, subclass) \
	emu_mutex_lock_nested((lock), (subclass), EMU_SITE)
#define mutex_lock_interruptible(lock) \
	emu_checked_mutex(emu_mutex_lock_interruptible((lock), EMU_SITE))
#define mutex_lock_killable(lock)	mutex_lock_interruptible(lock)
#define mutex_trylock(lock)		emu_mutex_trylock((lock), EMU_SITE)
#define mutex_unlock(lock)		emu_mutex_unlock((lock), EMU_SITE)
#define mutex_is_locked(lock)		emu_mutex_is_locked(lock)

static inline int __must_check emu_checked_mutex(int ret) { return ret; }

#endif /* __LINUX_MUTEX_H */
