/*
 * spinlock.h - spin locks and reader/writer spin locks.
 *
 * CUSTOMISED: 2.6.27's interface and rules (CONFIG_SMP,
 * CONFIG_DEBUG_SPINLOCK); the lock is a host mutex, which ThreadSanitizer
 * understands, and a waiter blocks instead of spinning (nothing observable
 * differs: a spin lock is never held across a sleep).  Every operation is
 * checked: using a lock that was never initialised (no spin_lock_init,
 * DEFINE_SPINLOCK or SPIN_LOCK_UNLOCKED, and not all-zero memory either,
 * which is an unlocked lock on 2.6.27 x86 as in kzalloc'ed records),
 * taking a lock
 * the task already holds (it would deadlock), releasing a lock the task
 * does not hold - each is fatal with the call site.  A task that holds a
 * spin lock must not sleep (see might_sleep in linux/kernel.h).
 * spin_lock_irqsave saves the task's interrupt state in `flags` exactly as
 * x86 saves EFLAGS, and spin_unlock_irqrestore restores it.
 *
 * Every lock is also checked by the runtime's lock validator (lockdep's
 * rules: classes by initialisation site, lock order, interrupt safety);
 * the initialisers record their site in `dep` for it.
 *
 * rwlock_t is the kernel's reader/writer spin lock: readers may share it,
 * and, as in 2.6.27, a new reader is admitted while a writer waits.
 */
#ifndef __LINUX_SPINLOCK_H
#define __LINUX_SPINLOCK_H

#include <linux/compiler.h>
#include <linux/stddef.h>
#include <linux/types.h>
#include <linux/kernel.h>
#include <linux/irqflags.h>
#include <linux/emu_runtime.h>
#include <linux/lockdep.h>
#include <asm/system.h>
#include <asm/atomic.h>

struct task_struct;

#define SPINLOCK_MAGIC		0xdead4ead
#define RWLOCK_MAGIC		0xdeaf1eed

typedef struct {
	struct emu_raw_lock raw;
	unsigned int magic;
	struct task_struct *owner;	/* read and written atomically */
	const char *file;		/* where the owner took it */
	int line;
	struct emu_lock_key dep;	/* lock validator class */
} spinlock_t;

/* Storage for a host reader/writer lock; all-zero bytes are unlocked. */
struct emu_raw_rwlock {
	unsigned long long opaque[8];
};

typedef struct {
	struct emu_raw_rwlock raw;
	unsigned int magic;
	int writer;			/* held for writing */
	struct emu_lock_key dep;	/* lock validator class */
} rwlock_t;

#define __SPIN_LOCK_UNLOCKED(lockname)					\
	{ .raw = { { 0 } }, .magic = SPINLOCK_MAGIC, .owner = NULL,	\
	  .file = NULL, .line = 0, .dep = EMU_LOCK_KEY_INIT(lockname) }
#define SPIN_LOCK_UNLOCKED	(spinlock_t) __SPIN_LOCK_UNLOCKED(old_style_spin_init)
#define DEFINE_SPINLOCK(x)	spinlock_t x = __SPIN_LOCK_UNLOCKED(x)

#define __RW_LOCK_UNLOCKED(lockname)					\
	{ .raw = { { 0 } }, .magic = RWLOCK_MAGIC, .writer = 0,		\
	  .dep = EMU_LOCK_KEY_INIT(lockname) }
#define RW_LOCK_UNLOCKED	(rwlock_t) __RW_LOCK_UNLOCKED(old_style_rw_init)
#define DEFINE_RWLOCK(x)	rwlock_t x = __RW_LOCK_UNLOCKED(x)

EMU_BEGIN_DECLS
void emu_spin_lock_init(spinlock_t *lock);
void emu_spin_lock_init_key(spinlock_t *lock, const char *name,
			    EMU_SITE_PARAMS);
void emu_spin_lock(spinlock_t *lock, EMU_SITE_PARAMS);
void emu_spin_lock_nested(spinlock_t *lock, int subclass, EMU_SITE_PARAMS);
int emu_spin_trylock(spinlock_t *lock, EMU_SITE_PARAMS);
void emu_spin_unlock(spinlock_t *lock, EMU_SITE_PARAMS);
int emu_spin_is_locked(spinlock_t *lock);
void emu_spin_unlock_wait(spinlock_t *lock, EMU_SITE_PARAMS);

void emu_rwlock_init(rwlock_t *lock);
void emu_rwlock_init_key(rwlock_t *lock, const char *name, EMU_SITE_PARAMS);
void emu_read_lock(rwlock_t *lock, EMU_SITE_PARAMS);
int emu_read_trylock(rwlock_t *lock, EMU_SITE_PARAMS);
void emu_read_unlock(rwlock_t *lock, EMU_SITE_PARAMS);
void emu_write_lock(rwlock_t *lock, EMU_SITE_PARAMS);
int emu_write_trylock(rwlock_t *lock, EMU_SITE_PARAMS);
void emu_write_unlock(rwlock_t *lock, EMU_SITE_PARAMS);

void emu_local_bh_disable(void);
void emu_local_bh_enable(EMU_SITE_PARAMS);
EMU_END_DECLS

#define spin_lock_init(lock)	emu_spin_lock_init_key((lock), #lock, EMU_SITE)
#define spin_lock(lock)		emu_spin_lock((lock), EMU_SITE)
#define spin_lock_nested(lock, subclass) \
	emu_spin_lock_nested((lock), (subclass), EMU_SITE)
#define spin_trylock(lock)	emu_spin_trylock((lock), EMU_SITE)
#define spin_unlock(lock)	emu_spin_unlock((lock), EMU_SITE)
#define spin_is_locked(lock)	emu_spin_is_locked(lock)
#define spin_unlock_wait(lock)	emu_spin_unlock_wait((lock), EMU_SITE)
#define assert_spin_locked(lock) BUG_ON(!spin_is_locked(lock))

#define spin_lock_irqsave(lock, flags)			\
	do {						\
		local_irq_save(flags);			\
		spin_lock(lock);			\
	} while (0)
#define spin_lock_irqsave_nested(lock, flags, subclass)	\
	do {						\
		local_irq_save(flags);			\
		spin_lock_nested(lock, subclass);	\
	} while (0)
#define spin_unlock_irqrestore(lock, flags)		\
	do {						\
		spin_unlock(lock);			\
		local_irq_restore(flags);		\
	} while (0)
#define spin_lock_irq(lock)				\
	do {						\
		local_irq_disable();			\
		spin_lock(lock);			\
	} while (0)
#define spin_unlock_irq(lock)				\
	do {						\
		spin_unlock(lock);			\
		local_irq_enable();			\
	} while (0)
#define spin_lock_bh(lock)				\
	do {						\
		emu_local_bh_disable();			\
		spin_lock(lock);			\
	} while (0)
#define spin_unlock_bh(lock)				\
	do {						\
		spin_unlock(lock);			\
		emu_local_bh_enable(EMU_SITE);		\
	} while (0)
#define spin_trylock_irqsave(lock, flags)		\
({							\
	local_irq_save(flags);				\
	spin_trylock(lock) ?				\
	1 : ({ local_irq_restore(flags); 0; });		\
})

#define rwlock_init(lock)	emu_rwlock_init_key((lock), #lock, EMU_SITE)
#define read_lock(lock)		emu_read_lock((lock), EMU_SITE)
#define read_trylock(lock)	emu_read_trylock((lock), EMU_SITE)
#define read_unlock(lock)	emu_read_unlock((lock), EMU_SITE)
#define write_lock(lock)	emu_write_lock((lock), EMU_SITE)
#define write_trylock(lock)	emu_write_trylock((lock), EMU_SITE)
#define write_unlock(lock)	emu_write_unlock((lock), EMU_SITE)

#define read_lock_irqsave(lock, flags)			\
	do { local_irq_save(flags); read_lock(lock); } while (0)
#define read_unlock_irqrestore(lock, flags)		\
	do { read_unlock(lock); local_irq_restore(flags); } while (0)
#define write_lock_irqsave(lock, flags)			\
	do { local_irq_save(flags); write_lock(lock); } while (0)
#define write_unlock_irqrestore(lock, flags)		\
	do { write_unlock(lock); local_irq_restore(flags); } while (0)
#define read_lock_irq(lock)				\
	do { local_irq_disable(); read_lock(lock); } while (0)
#define read_unlock_irq(lock)				\
	do { read_unlock(lock); local_irq_enable(); } while (0)
#define write_lock_irq(lock)				\
	do { local_irq_disable(); write_lock(lock); } while (0)
#define write_unlock_irq(lock)				\
	do { write_unlock(lock); local_irq_enable(); } while (0)
#define read_lock_bh(lock)				\
	do { emu_local_bh_disable(); read_lock(lock); } while (0)
#define read_unlock_bh(lock)				\
	do { read_unlock(lock); emu_local_bh_enable(EMU_SITE); } while (0)
#define write_lock_bh(lock)				\
	do { emu_local_bh_disable(); write_lock(lock); } while (0)
#define write_unlock_bh(lock)				\
	do { write_unlock(lock); emu_local_bh_enable(EMU_SITE); } while (0)

/*
 * atomic_dec_and_lock - lock on reaching reference count zero: returns 1
 * holding the lock if the count dropped to zero, 0 (not holding it)
 * otherwise.
 */
static inline int atomic_dec_and_lock(atomic_t *atomic, spinlock_t *lock)
{
	/* Subtract 1 from counter unless that drops it to 0 */
	if (atomic_add_unless(atomic, -1, 1))
		return 0;
	spin_lock(lock);
	if (atomic_dec_and_test(atomic))
		return 1;
	spin_unlock(lock);
	return 0;
}

#endif /* __LINUX_SPINLOCK_H */
