/*
 * smp_lock.h - the big kernel lock.
 *
 * DUPLICATED in semantics from 2.6.27 (lib/kernel_lock.c): one recursive
 * lock for the whole kernel, counted per task in current->lock_depth (-1
 * when not held).  A task that sleeps in schedule() while holding it
 * releases it and retakes it before it runs again, so the lock serialises
 * its holders only until one of them sleeps.  unlock_kernel() without the
 * lock is fatal.  The emulated ioctl() system call takes it around
 * fops->ioctl, as 2.6.27's vfs_ioctl does.
 */
#ifndef __LINUX_SMPLOCK_H
#define __LINUX_SMPLOCK_H

#include <linux/sched.h>
#include <linux/emu_runtime.h>

EMU_BEGIN_DECLS
void emu_lock_kernel(EMU_SITE_PARAMS);
void emu_unlock_kernel(EMU_SITE_PARAMS);
EMU_END_DECLS

#define kernel_locked()		(current->lock_depth >= 0)
#define lock_kernel()		emu_lock_kernel(EMU_SITE)
#define unlock_kernel()		emu_unlock_kernel(EMU_SITE)

#endif /* __LINUX_SMPLOCK_H */
