// Sleeping locks: counting semaphores, reader/writer semaphores and
// mutexes, with 2.6.27's algorithms (kernel/semaphore.c,
// lib/rwsem-spinlock.c, kernel/mutex.c): a spin lock guards the count and a
// FIFO list of waiters on the waiters' stacks; a release hands the lock
// directly to the waiter at the head and wakes it with wake_up_process().
#include "core.hpp"
#include "checks.hpp"
#include "lockdep.hpp"

using emu::cur;
using emu::LockKind;
namespace ld = emu::lockdep;

namespace {

// spin_lock_irq / spin_unlock_irq on a lock's internal spin lock, charged
// to the caller's site.
struct IrqLock {
	spinlock_t *lock;
	const char *file;
	int line;
	unsigned long flags;
	IrqLock(spinlock_t *l, const char *f, int n) : lock(l), file(f), line(n)
	{
		flags = emu_local_irq_save_at(file, line);
		emu::raw_spin_lock(lock, file, line);
	}
	void unlock()
	{
		emu::raw_spin_unlock(lock, file, line);
		emu_local_irq_restore(flags, file, line);
	}
	void relock()
	{
		flags = emu_local_irq_save_at(file, line);
		emu::raw_spin_lock(lock, file, line);
	}
	IrqLock(const IrqLock &) = delete;
	IrqLock &operator=(const IrqLock &) = delete;
};

// A sleeping lock must have been initialised: its spin lock carries the
// magic and its waiter list is a list (all-zero memory is not a valid
// semaphore, rw_semaphore or mutex on 2.6.27 either).
void check_initialised(spinlock_t *inner, struct list_head *waiters,
		       const char *what, const char *init, const char *file,
		       int line)
{
	bool listed;
	{
		// A peek outside the lock, at a member that is never NULL
		// once initialised: not a synchronising access.
		emu::Invisible inv;
		listed = waiters->next != nullptr;
	}
	if (inner->magic != SPINLOCK_MAGIC || !listed)
		emu::violation(emu::site(file, line),
			       std::string(what) + " used before " + init);
}

void check_initialised(struct semaphore *sem, const char *file, int line)
{
	check_initialised(&sem->lock, &sem->wait_list, "semaphore", "sema_init",
			  file, line);
}

void check_initialised(struct rw_semaphore *sem, const char *file, int line)
{
	check_initialised(&sem->wait_lock, &sem->wait_list, "rw_semaphore",
			  "init_rwsem", file, line);
}

void check_initialised(struct mutex *lock, const char *file, int line)
{
	check_initialised(&lock->wait_lock, &lock->wait_list, "mutex",
			  "mutex_init", file, line);
}

}  // namespace

// ---- counting semaphores ----------------------------------------------------

struct semaphore_waiter {
	struct list_head list;
	struct task_struct *task;
	int up;
};

// A semaphore initialised to 1 is validated as a lock until an up() by a
// task that does not hold it shows that its class is a signal (see
// lockdep.cpp); any other count makes the class a signal at once.
extern "C" void emu_sema_init_key(struct semaphore *sem, int val,
				  const char *name, const char *file, int line)
{
	emu_spin_lock_init(&sem->lock);
	sem->count = static_cast<unsigned int>(val);
	INIT_LIST_HEAD(&sem->wait_list);
	ld::init_key(&sem->dep, ld::Type::Sem, name, file, line,
		     val == 1 ? 0 : EMU_LOCK_KEY_SIGNAL);
}

namespace {

// __down_common(): called with sem->lock held; returns with it held.
int down_common(struct semaphore *sem, long state, IrqLock &lk)
{
	struct task_struct *task = current;
	struct semaphore_waiter waiter;

	list_add_tail(&waiter.list, &sem->wait_list);
	waiter.task = task;
	waiter.up = 0;

	for (;;) {
		if ((state & TASK_INTERRUPTIBLE) && signal_pending(task))
			goto interrupted;
		if ((state & TASK_WAKEKILL) && fatal_signal_pending(task))
			goto interrupted;
		emu_set_current_state(state);
		lk.unlock();
		emu_schedule(lk.file, lk.line);
		lk.relock();
		if (waiter.up)
			return 0;
	}

interrupted:
	list_del(&waiter.list);
	emu_set_current_state(TASK_RUNNING);
	return -EINTR;
}

int down_state(struct semaphore *sem, long state, const char *what,
	       const char *file, int line)
{
	check_initialised(sem, file, line);
	emu::check_may_sleep(emu::site(file, line), what);
	ld::acquire(sem, &sem->dep, ld::Type::Sem, ld::Exclusive, false, 0,
		    emu::site(file, line));
	IrqLock lk(&sem->lock, file, line);
	int result = 0;
	if (sem->count > 0) {
		sem->count--;
	} else {
		ld::Blocked blocked(emu::site(file, line),
				    ld::describe_lock("semaphore", sem,
						      &sem->dep));
		result = down_common(sem, state, lk);
	}
	lk.unlock();
	if (result)
		ld::release(sem, emu::site(file, line));
	return result;
}

}  // namespace

extern "C" void emu_down(struct semaphore *sem, const char *file, int line)
{
	down_state(sem, TASK_UNINTERRUPTIBLE, "down", file, line);
}

extern "C" int emu_down_interruptible(struct semaphore *sem, const char *file,
				      int line)
{
	return down_state(sem, TASK_INTERRUPTIBLE, "down_interruptible", file,
			  line);
}

extern "C" int emu_down_killable(struct semaphore *sem, const char *file,
				 int line)
{
	return down_state(sem, TASK_KILLABLE, "down_killable", file, line);
}

extern "C" int emu_down_trylock(struct semaphore *sem, const char *file,
				int line)
{
	check_initialised(sem, file, line);
	IrqLock lk(&sem->lock, file, line);
	int count = static_cast<int>(sem->count) - 1;
	if (count >= 0)
		sem->count = static_cast<unsigned int>(count);
	lk.unlock();
	if (count >= 0)
		ld::acquire(sem, &sem->dep, ld::Type::Sem, ld::Exclusive, true,
			    0, emu::site(file, line));
	return count < 0;
}

extern "C" void emu_up(struct semaphore *sem, const char *file, int line)
{
	check_initialised(sem, file, line);
	ld::sem_up(sem, &sem->dep, emu::site(file, line));
	IrqLock lk(&sem->lock, file, line);
	if (list_empty(&sem->wait_list)) {
		sem->count++;
	} else {
		auto *waiter = list_first_entry(&sem->wait_list,
						struct semaphore_waiter, list);
		list_del(&waiter->list);
		waiter->up = 1;
		wake_up_process(waiter->task);
	}
	lk.unlock();
	emu::race_window("up", emu::site(file, line));
}

// ---- reader/writer semaphores --------------------------------------------------

struct rwsem_waiter {
	struct list_head list;
	struct task_struct *task;
	unsigned int flags;
};
#define RWSEM_WAITING_FOR_READ	0x00000001
#define RWSEM_WAITING_FOR_WRITE	0x00000002

extern "C" void emu_init_rwsem(struct rw_semaphore *sem)
{
	emu::check_no_held_lock_in(sem, sizeof(*sem), emu::Site{"init_rwsem", 0});
	sem->activity = 0;
	emu_spin_lock_init(&sem->wait_lock);
	INIT_LIST_HEAD(&sem->wait_list);
	ld::init_key(&sem->dep, ld::Type::Rwsem, nullptr, nullptr, 0);
}

extern "C" void emu_init_rwsem_key(struct rw_semaphore *sem, const char *name,
				   const char *file, int line)
{
	emu::check_no_held_lock_in(sem, sizeof(*sem), emu::site(file, line));
	sem->activity = 0;
	emu_spin_lock_init(&sem->wait_lock);
	INIT_LIST_HEAD(&sem->wait_list);
	ld::init_key(&sem->dep, ld::Type::Rwsem, name, file, line);
}

namespace {

void grant(struct rwsem_waiter *waiter)
{
	struct task_struct *tsk = waiter->task;

	list_del(&waiter->list);
	waiter->task = nullptr;
	wake_up_process(tsk);
}

// __rwsem_do_wake(): wake the writer at the head of the queue (if
// allowed), or every reader at the head up to the first writer.
void rwsem_do_wake(struct rw_semaphore *sem, int wakewrite)
{
	auto *waiter = list_first_entry(&sem->wait_list, struct rwsem_waiter,
					list);
	if (waiter->flags & RWSEM_WAITING_FOR_WRITE) {
		if (wakewrite) {
			sem->activity = -1;
			grant(waiter);
		}
		return;
	}
	int woken = 0;
	while (waiter->flags & RWSEM_WAITING_FOR_READ) {
		struct list_head *next = waiter->list.next;

		grant(waiter);
		woken++;
		if (list_empty(&sem->wait_list))
			break;
		waiter = list_entry(next, struct rwsem_waiter, list);
	}
	sem->activity += woken;
}

// Queue and sleep until granted; called with wait_lock held, returns with
// it released.
void rwsem_wait(struct rw_semaphore *sem, unsigned int flags, IrqLock &lk)
{
	struct rwsem_waiter waiter;

	waiter.task = current;
	waiter.flags = flags;
	list_add_tail(&waiter.list, &sem->wait_list);
	ld::Blocked blocked(emu::site(lk.file, lk.line),
			    ld::describe_lock(flags & RWSEM_WAITING_FOR_WRITE
					      ? "rw_semaphore (write)"
					      : "rw_semaphore (read)", sem,
					      &sem->dep));
	for (;;) {
		emu_set_current_state(TASK_UNINTERRUPTIBLE);
		lk.unlock();
		emu_schedule(lk.file, lk.line);
		lk.relock();
		if (!waiter.task)
			break;
	}
	lk.unlock();
	emu_set_current_state(TASK_RUNNING);
}

// The immediate grants of __down_read / __down_write and their trylock
// forms: readers share while no writer holds or waits, a writer needs the
// semaphore free with nobody queued.  wait_lock held.
bool rwsem_grant_read(struct rw_semaphore *sem)
{
	if (sem->activity < 0 || !list_empty(&sem->wait_list))
		return false;
	sem->activity++;
	return true;
}

bool rwsem_grant_write(struct rw_semaphore *sem)
{
	if (sem->activity != 0 || !list_empty(&sem->wait_list))
		return false;
	sem->activity = -1;
	return true;
}

int rwsem_trylock(struct rw_semaphore *sem, bool write, const char *file,
		  int line)
{
	check_initialised(sem, file, line);
	IrqLock lk(&sem->wait_lock, file, line);
	bool granted = write ? rwsem_grant_write(sem) : rwsem_grant_read(sem);
	lk.unlock();
	if (granted)
		ld::acquire(sem, &sem->dep, ld::Type::Rwsem,
			    write ? ld::Exclusive : ld::Shared, true, 0,
			    emu::site(file, line));
	if (granted)
		emu::held_add(sem, write ? LockKind::RwsemWrite
				: LockKind::RwsemRead, emu::site(file, line));
	return granted;
}

// __up_write (activity 0) and __downgrade_write (activity 1: the caller
// keeps it for reading): the caller must hold it for writing; waiters at
// the head are woken, a writer only when the semaphore became free.
void rwsem_release_write(struct rw_semaphore *sem, int activity,
			 const char *what, const char *file, int line)
{
	check_initialised(sem, file, line);
	IrqLock lk(&sem->wait_lock, file, line);
	if (sem->activity != -1) {
		lk.unlock();
		emu::violation(emu::site(file, line),
			       std::string(what) + " of an rw_semaphore not "
			       "held for writing");
	}
	emu::held_remove(sem, LockKind::RwsemWrite);
	if (activity) {
		emu::held_add(sem, LockKind::RwsemRead, emu::site(file, line));
		ld::downgrade(sem);
	} else {
		ld::release(sem, emu::site(file, line));
	}
	sem->activity = activity;
	if (!list_empty(&sem->wait_list))
		rwsem_do_wake(sem, activity == 0);
	lk.unlock();
}

}  // namespace

namespace {

void down_read_common(struct rw_semaphore *sem, int subclass,
		      const char *file, int line)
{
	check_initialised(sem, file, line);
	emu::check_may_sleep(emu::site(file, line), "down_read");
	if (emu::held_by_current(sem, LockKind::RwsemWrite))
		emu::violation(emu::site(file, line),
			       "down_read of an rw_semaphore this task holds "
			       "for writing (deadlock)");
	ld::acquire(sem, &sem->dep, ld::Type::Rwsem, ld::Shared, false,
		    subclass, emu::site(file, line));
	IrqLock lk(&sem->wait_lock, file, line);
	if (rwsem_grant_read(sem)) {
		lk.unlock();
	} else {
		if (emu::held_by_current(sem, LockKind::RwsemRead))
			emu::violation(emu::site(file, line),
				       "recursive down_read while a writer "
				       "waits (deadlock)");
		rwsem_wait(sem, RWSEM_WAITING_FOR_READ, lk);
	}
	emu::held_add(sem, LockKind::RwsemRead, emu::site(file, line));
}

void down_write_common(struct rw_semaphore *sem, int subclass,
		       const char *file, int line)
{
	check_initialised(sem, file, line);
	emu::check_may_sleep(emu::site(file, line), "down_write");
	if (emu::held_by_current(sem, LockKind::RwsemWrite) ||
	    emu::held_by_current(sem, LockKind::RwsemRead))
		emu::violation(emu::site(file, line),
			       "down_write of an rw_semaphore this task "
			       "already holds (deadlock)");
	ld::acquire(sem, &sem->dep, ld::Type::Rwsem, ld::Exclusive, false,
		    subclass, emu::site(file, line));
	IrqLock lk(&sem->wait_lock, file, line);
	if (rwsem_grant_write(sem))
		lk.unlock();
	else
		rwsem_wait(sem, RWSEM_WAITING_FOR_WRITE, lk);
	emu::held_add(sem, LockKind::RwsemWrite, emu::site(file, line));
}

}  // namespace

extern "C" void emu_down_read(struct rw_semaphore *sem, const char *file,
			      int line)
{
	down_read_common(sem, 0, file, line);
}

extern "C" void emu_down_read_nested(struct rw_semaphore *sem, int subclass,
				     const char *file, int line)
{
	down_read_common(sem, subclass, file, line);
}

extern "C" void emu_down_write_nested(struct rw_semaphore *sem, int subclass,
				      const char *file, int line)
{
	down_write_common(sem, subclass, file, line);
}

extern "C" int emu_down_read_trylock(struct rw_semaphore *sem,
				     const char *file, int line)
{
	return rwsem_trylock(sem, false, file, line);
}

extern "C" void emu_down_write(struct rw_semaphore *sem, const char *file,
			       int line)
{
	down_write_common(sem, 0, file, line);
}

extern "C" int emu_down_write_trylock(struct rw_semaphore *sem,
				      const char *file, int line)
{
	return rwsem_trylock(sem, true, file, line);
}

extern "C" void emu_up_read(struct rw_semaphore *sem, const char *file,
			    int line)
{
	check_initialised(sem, file, line);
	IrqLock lk(&sem->wait_lock, file, line);
	if (sem->activity <= 0) {
		lk.unlock();
		emu::violation(emu::site(file, line),
			       "up_read of an rw_semaphore not held for "
			       "reading");
	}
	emu::held_remove(sem, LockKind::RwsemRead);
	ld::release(sem, emu::site(file, line));
	if (--sem->activity == 0 && !list_empty(&sem->wait_list)) {
		// __rwsem_wake_one_writer(): only writers wait behind
		// readers that hold the semaphore.
		sem->activity = -1;
		grant(list_first_entry(&sem->wait_list, struct rwsem_waiter,
				       list));
	}
	lk.unlock();
}

extern "C" void emu_up_write(struct rw_semaphore *sem, const char *file,
			     int line)
{
	rwsem_release_write(sem, 0, "up_write", file, line);
	emu::race_window("up_write", emu::site(file, line));
}

extern "C" void emu_downgrade_write(struct rw_semaphore *sem,
				    const char *file, int line)
{
	rwsem_release_write(sem, 1, "downgrade_write", file, line);
}

extern "C" int emu_rwsem_is_locked(struct rw_semaphore *sem)
{
	IrqLock lk(&sem->wait_lock, __FILE__, __LINE__);
	int ret = sem->activity != 0;
	lk.unlock();
	return ret;
}

// ---- mutexes -------------------------------------------------------------------------

struct mutex_waiter {
	struct list_head list;
	struct task_struct *task;
	int granted;
};

extern "C" void emu_mutex_init(struct mutex *lock)
{
	emu::check_no_held_lock_in(lock, sizeof(*lock), emu::Site{"mutex_init", 0});
	atomic_set(&lock->count, 1);
	emu_spin_lock_init(&lock->wait_lock);
	INIT_LIST_HEAD(&lock->wait_list);
	lock->owner = nullptr;
	lock->file = nullptr;
	lock->line = 0;
	ld::init_key(&lock->dep, ld::Type::Mutex, nullptr, nullptr, 0);
}

extern "C" void emu_mutex_init_key(struct mutex *lock, const char *name,
				   const char *file, int line)
{
	emu_mutex_init(lock);
	ld::init_key(&lock->dep, ld::Type::Mutex, name, file, line);
}

namespace {

void mutex_taken(struct mutex *lock, const char *file, int line)
{
	__atomic_store_n(&lock->owner, current, __ATOMIC_RELAXED);
	lock->file = file;
	lock->line = line;
	emu::held_add(lock, LockKind::Mutex, emu::site(file, line));
}

int mutex_lock_common(struct mutex *lock, long state, int subclass,
		      const char *what, const char *file, int line)
{
	check_initialised(lock, file, line);
	emu::check_may_sleep(emu::site(file, line), what);
	if (__atomic_load_n(&lock->owner, __ATOMIC_RELAXED) == current)
		emu::violation(emu::site(file, line),
			       std::string("recursive ") + what +
			       ": already taken by this task at " +
			       emu::short_path(lock->file) + ":" +
			       std::to_string(lock->line));
	ld::acquire(lock, &lock->dep, ld::Type::Mutex, ld::Exclusive, false,
		    subclass, emu::site(file, line));
	IrqLock lk(&lock->wait_lock, file, line);
	if (atomic_read(&lock->count) == 1) {
		atomic_set(&lock->count, 0);
		lk.unlock();
		mutex_taken(lock, file, line);
		return 0;
	}
	struct mutex_waiter waiter;
	waiter.task = current;
	waiter.granted = 0;
	list_add_tail(&waiter.list, &lock->wait_list);
	atomic_set(&lock->count, -1);
	task_struct *owner = __atomic_load_n(&lock->owner, __ATOMIC_RELAXED);
	std::string what_for = ld::describe_lock("mutex", lock, &lock->dep);
	if (owner)
		what_for += std::string(", held by ") + owner->comm + "/" +
			std::to_string(owner->pid);
	ld::Blocked blocked(emu::site(file, line), std::move(what_for));
	for (;;) {
		if ((state & TASK_INTERRUPTIBLE) && signal_pending(current)) {
			list_del(&waiter.list);
			if (list_empty(&lock->wait_list))
				atomic_set(&lock->count, 0);
			lk.unlock();
			emu_set_current_state(TASK_RUNNING);
			ld::release(lock, emu::site(file, line));
			return -EINTR;
		}
		emu_set_current_state(state);
		lk.unlock();
		emu_schedule(file, line);
		lk.relock();
		if (waiter.granted)
			break;
	}
	lk.unlock();
	emu_set_current_state(TASK_RUNNING);
	mutex_taken(lock, file, line);
	return 0;
}

}  // namespace

extern "C" void emu_mutex_lock(struct mutex *lock, const char *file, int line)
{
	mutex_lock_common(lock, TASK_UNINTERRUPTIBLE, 0, "mutex_lock", file,
			  line);
}

extern "C" void emu_mutex_lock_nested(struct mutex *lock, int subclass,
				      const char *file, int line)
{
	mutex_lock_common(lock, TASK_UNINTERRUPTIBLE, subclass, "mutex_lock",
			  file, line);
}

extern "C" int emu_mutex_lock_interruptible(struct mutex *lock,
					    const char *file, int line)
{
	return mutex_lock_common(lock, TASK_INTERRUPTIBLE, 0,
				 "mutex_lock_interruptible", file, line);
}

extern "C" int emu_mutex_trylock(struct mutex *lock, const char *file,
				 int line)
{
	check_initialised(lock, file, line);
	IrqLock lk(&lock->wait_lock, file, line);
	int taken = atomic_read(&lock->count) == 1;
	if (taken)
		atomic_set(&lock->count, 0);
	lk.unlock();
	if (taken) {
		ld::acquire(lock, &lock->dep, ld::Type::Mutex, ld::Exclusive,
			    true, 0, emu::site(file, line));
		mutex_taken(lock, file, line);
	}
	return taken;
}

extern "C" void emu_mutex_unlock(struct mutex *lock, const char *file,
				 int line)
{
	check_initialised(lock, file, line);
	if (__atomic_load_n(&lock->owner, __ATOMIC_RELAXED) != current)
		emu::violation(emu::site(file, line),
			       "mutex_unlock of a mutex this task does not "
			       "hold");
	emu::held_remove(lock, LockKind::Mutex);
	ld::release(lock, emu::site(file, line));
	__atomic_store_n(&lock->owner, nullptr, __ATOMIC_RELAXED);
	IrqLock lk(&lock->wait_lock, file, line);
	if (list_empty(&lock->wait_list)) {
		atomic_set(&lock->count, 1);
	} else {
		// Hand the mutex to the first waiter (it stays locked).
		auto *waiter = list_first_entry(&lock->wait_list,
						struct mutex_waiter, list);
		list_del(&waiter->list);
		if (list_empty(&lock->wait_list))
			atomic_set(&lock->count, 0);
		waiter->granted = 1;
		wake_up_process(waiter->task);
	}
	lk.unlock();
}

extern "C" int emu_mutex_is_locked(struct mutex *lock)
{
	return atomic_read(&lock->count) != 1;
}
