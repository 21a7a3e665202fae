// The lock validator and the hang watchdog: the runtime's hook points.
//
// The lock primitives (locks.cpp, semaphores.cpp) and the context code
// (context.cpp) call these; nothing else needs to.  The rules are those of
// 2.6.27's lockdep (kernel/lockdep.c), see lockdep.cpp.  Include after
// core.hpp.
#pragma once

#include <string>

#include "core.hpp"

namespace emu::lockdep {

// What kind of lock a class is made of (for its name in reports and for
// the rules that differ: semaphores may turn out to be signals, and only
// spin and rw locks can be taken in interrupt context).
enum class Type { Spin, Rwlock, Mutex, Rwsem, Sem };

// How a lock is taken: exclusively, for reading (rw_semaphore: a second
// down_read of the same class is a recursion), or for recursive reading
// (rwlock_t readers may nest).
enum Read { Exclusive = 0, Shared = 1, Recursive = 2 };

// Off with EMU_LOCKDEP=0 in the environment (benchmarks); on otherwise.
// EMU_LOCKDEP=graph also prints the classes and dependencies at exit.
bool enabled();

// A lock was initialised at `file:line` under the expression `name`:
// records the key and resolves its class.  `name` null: a runtime lock
// without a site, classed at its first acquisition.  `flags` are the
// key's EMU_LOCK_KEY_* flags; every field of the key is written, so a lock
// in memory that held anything before (a stack slot, a kmalloc) starts
// from a known key.
void init_key(emu_lock_key *key, Type type, const char *name,
	      const char *file, int line, int flags = 0);

// About to take `lock` (before blocking on it; for a trylock, after it
// succeeded).  Checks recursion, lock order and interrupt safety (fatal
// with a lockdep-style report), then pushes it on the task's stack.
void acquire(const void *lock, emu_lock_key *key, Type type, Read read,
	     bool trylock, int subclass, Site site);

// Took `lock` for reading after `downgrade_write`: the held entry turns
// shared.
void downgrade(const void *lock);

// `lock` released (by the current task, or - a semaphore or rw_semaphore
// handed back by another task - by anyone).  Counts as progress.
void release(const void *lock, Site site);

// up() of a semaphore: a release when the task holds it, otherwise the
// semaphore's class becomes a signal.
void sem_up(const void *sem, emu_lock_key *key, Site site);

// Interrupt state changes of the current task.
void irqsave_enter(Site site);                  // local_irq_save
void irqsave_exit();                            // local_irq_restore
// Interrupts turned on: by local_irq_enable (`in_region_is_bug`: fatal
// inside an irqsave region) or by the local_irq_restore closing one.
void irqs_enabled(Site site, bool in_region_is_bug);
void softirqs_enabled(Site site);               // bottom halves back on

// The locks `t` holds, one line each (for the watchdog's report).
std::string held_by(const emu_task *t);

// Describes a lock for a wait ("mutex &bdev->bd_mutex 0x..."), with its
// class when known.
std::string describe_lock(const char *kind, const void *lock,
			  const emu_lock_key *key);

// A system call returns to user space: semaphores still held by the task
// are hand-overs (signals), never ordered again.
void syscall_exit();

}  // namespace emu::lockdep
