/*
 * rwsem.h - reader/writer semaphores.
 *
 * DUPLICATED from 2.6.27 (lib/rwsem-spinlock.c; x86's own implementation
 * has the same queueing rules): `activity` is the number of readers, -1
 * while a writer holds it; waiters queue in FIFO order.  A reader is
 * admitted at once only if no one waits, so a waiting writer blocks new
 * readers; releasing wakes the writer at the head of the queue, or every
 * reader at the head up to the first writer.
 * CUSTOMISED: the runtime also checks the callers: up_read without the
 * read side held by the task, up_write/downgrade_write without the write
 * side, use before init_rwsem - each is fatal; the sleeping forms call
 * might_sleep().
 * The runtime's lock validator checks their order and recursion (see
 * linux/spinlock.h); the initialisers record their site in `dep` for it.
 */
#ifndef _LINUX_RWSEM_H
#define _LINUX_RWSEM_H

#include <linux/types.h>
#include <linux/kernel.h>
#include <linux/list.h>
#include <linux/spinlock.h>
#include <linux/emu_runtime.h>
#include <asm/system.h>
#include <asm/atomic.h>

struct rw_semaphore {
	__s32			activity;
	spinlock_t		wait_lock;
	struct list_head	wait_list;
	struct emu_lock_key	dep;	/* lock validator class */
};

#define __RWSEM_INITIALIZER(name) \
{ 0, __SPIN_LOCK_UNLOCKED(name.wait_lock), LIST_HEAD_INIT((name).wait_list), \
  EMU_LOCK_KEY_INIT(name) }

#define DECLARE_RWSEM(name) \
	struct rw_semaphore name = __RWSEM_INITIALIZER(name)

EMU_BEGIN_DECLS
void emu_init_rwsem(struct rw_semaphore *sem);
void emu_init_rwsem_key(struct rw_semaphore *sem, const char *name,
			EMU_SITE_PARAMS);
void emu_down_read(struct rw_semaphore *sem, EMU_SITE_PARAMS);
void emu_down_read_nested(struct rw_semaphore *sem, int subclass,
			  EMU_SITE_PARAMS);
void emu_down_write_nested(struct rw_semaphore *sem, int subclass,
			   EMU_SITE_PARAMS);
int emu_down_read_trylock(struct rw_semaphore *sem, EMU_SITE_PARAMS);
void emu_down_write(struct rw_semaphore *sem, EMU_SITE_PARAMS);
int emu_down_write_trylock(struct rw_semaphore *sem, EMU_SITE_PARAMS);
void emu_up_read(struct rw_semaphore *sem, EMU_SITE_PARAMS);
void emu_up_write(struct rw_semaphore *sem, EMU_SITE_PARAMS);
void emu_downgrade_write(struct rw_semaphore *sem, EMU_SITE_PARAMS);
int emu_rwsem_is_locked(struct rw_semaphore *sem);
EMU_END_DECLS

#define init_rwsem(sem)		emu_init_rwsem_key((sem), #sem, EMU_SITE)
#define down_read(sem)		emu_down_read((sem), EMU_SITE)
#define down_read_trylock(sem)	emu_down_read_trylock((sem), EMU_SITE)
#define down_write(sem)		emu_down_write((sem), EMU_SITE)
#define down_write_trylock(sem)	emu_down_write_trylock((sem), EMU_SITE)
#define up_read(sem)		emu_up_read((sem), EMU_SITE)
#define up_write(sem)		emu_up_write((sem), EMU_SITE)
#define downgrade_write(sem)	emu_downgrade_write((sem), EMU_SITE)
#define rwsem_is_locked(sem)	emu_rwsem_is_locked(sem)
#define down_read_nested(sem, subclass) \
	emu_down_read_nested((sem), (subclass), EMU_SITE)
#define down_write_nested(sem, subclass) \
	emu_down_write_nested((sem), (subclass), EMU_SITE)

#endif /* _LINUX_RWSEM_H */
