// Spin locks, reader/writer spin locks, and the registry of held locks.
//
// A spin lock is a host mutex (ThreadSanitizer sees every acquisition and
// release) plus the owner task and the site that took it.  Every lock that
// a task holds - spin and rw locks, mutexes, reader/writer semaphores, the
// big kernel lock - is also in the held-lock registry, which answers "does
// this memory contain a held lock?" (kfree of a locked structure) and
// "is anything still held?" (end of a test).
#include <pthread.h>

#include <map>
#include <sstream>

#include "core.hpp"
#include "lockdep.hpp"

static_assert(sizeof(pthread_mutex_t) <= sizeof(struct emu_raw_lock),
	      "struct emu_raw_lock too small for the host's mutex");
static_assert(sizeof(pthread_rwlock_t) <= sizeof(struct emu_raw_rwlock),
	      "struct emu_raw_rwlock too small for the host's rwlock");

namespace {

struct Held {
	emu::LockKind kind;
	const task_struct *owner;
	pid_t pid;
	std::string comm;
	emu::Site site;
};

std::mutex g_held_mutex;
std::multimap<std::uintptr_t, Held> &held_map()
{
	static auto *m = new std::multimap<std::uintptr_t, Held>;
	return *m;
}

std::string describe(std::uintptr_t addr, const Held &h)
{
	std::ostringstream os;
	os << emu::lock_kind_name(h.kind) << " " << reinterpret_cast<void *>(addr)
	   << " taken at " << emu::to_string(h.site) << " by pid " << h.pid
	   << " (" << h.comm << ")";
	return os.str();
}

pthread_mutex_t *raw(spinlock_t *l)
{
	return reinterpret_cast<pthread_mutex_t *>(&l->raw);
}

pthread_rwlock_t *raw(rwlock_t *l)
{
	return reinterpret_cast<pthread_rwlock_t *>(&l->raw);
}

}  // namespace

namespace emu {

const char *lock_kind_name(LockKind kind)
{
	switch (kind) {
	case LockKind::Spin: return "spin lock";
	case LockKind::RwRead: return "rwlock (read)";
	case LockKind::RwWrite: return "rwlock (write)";
	case LockKind::RwsemRead: return "rw_semaphore (read)";
	case LockKind::RwsemWrite: return "rw_semaphore (write)";
	case LockKind::Mutex: return "mutex";
	case LockKind::Bkl: return "big kernel lock";
	}
	return "lock";
}

void held_add(const void *lock, LockKind kind, Site s)
{
	emu_task *t = cur();
	Invisible inv;
	std::lock_guard lk(g_held_mutex);
	held_map().emplace(reinterpret_cast<std::uintptr_t>(lock),
			   Held{kind, &t->task, t->task.pid, t->task.comm,
				Site{short_path(s.file), s.line}});
}

bool held_remove(const void *lock, LockKind kind)
{
	const task_struct *me = &cur()->task;
	lockdep::note_progress();
	Invisible inv;
	std::lock_guard lk(g_held_mutex);
	auto range = held_map().equal_range(reinterpret_cast<std::uintptr_t>(lock));
	auto any = held_map().end();
	for (auto it = range.first; it != range.second; ++it) {
		if (it->second.kind != kind)
			continue;
		if (it->second.owner == me) {
			held_map().erase(it);
			return true;
		}
		if (any == held_map().end())
			any = it;
	}
	// A reader/writer semaphore may be released by another task.
	if (any != held_map().end() &&
	    (kind == LockKind::RwsemRead || kind == LockKind::RwsemWrite)) {
		held_map().erase(any);
		return true;
	}
	return false;
}

bool held_by_current(const void *lock, LockKind kind)
{
	const task_struct *me = &cur()->task;
	Invisible inv;
	std::lock_guard lk(g_held_mutex);
	auto range = held_map().equal_range(reinterpret_cast<std::uintptr_t>(lock));
	for (auto it = range.first; it != range.second; ++it)
		if (it->second.kind == kind && it->second.owner == me)
			return true;
	return false;
}

void check_no_held_lock_in(const void *p, std::size_t len, Site s)
{
	if (!p || !len)
		return;
	std::string found;
	{
		Invisible inv;
		std::lock_guard lk(g_held_mutex);
		auto lo = reinterpret_cast<std::uintptr_t>(p);
		auto it = held_map().lower_bound(lo);
		if (it != held_map().end() && it->first < lo + len)
			found = describe(it->first, it->second);
	}
	if (!found.empty())
		violation(s, "freeing memory that contains a held " + found);
}

std::vector<std::string> held_locks()
{
	Invisible inv;
	std::lock_guard lk(g_held_mutex);
	std::vector<std::string> out;
	for (auto &[addr, h] : held_map())
		out.push_back(describe(addr, h));
	return out;
}

}  // namespace emu

using emu::cur;
using emu::LockKind;

// ---- spin locks -------------------------------------------------------------------

static void check_spin_magic(spinlock_t *lock, const char *file, int line)
{
	if (!lock)
		emu::violation(emu::site(file, line), "spin lock is NULL");
	// All-zero memory is an unlocked spin lock on 2.6.27 x86 (its ticket
	// lock is 0 when free); anything else that lacks the magic is
	// memory that was never initialised as a lock.
	if (lock->magic != SPINLOCK_MAGIC && lock->magic != 0)
		emu::violation(emu::site(file, line),
			       "spin lock used before spin_lock_init "
			       "(bad magic)");
}

// The lock has just been taken by `t`: its owner and site, for recursion
// checks and the held-lock registry.
static void spin_taken(spinlock_t *lock, emu_task *t, const char *file,
		       int line)
{
	__atomic_store_n(&lock->owner, &t->task, __ATOMIC_RELAXED);
	lock->file = file;
	lock->line = line;
	t->spin_depth++;
	emu::held_add(lock, LockKind::Spin, emu::site(file, line));
}

// Takes the host mutex; a task that has to wait for it is blocked for the
// hang watchdog.
static void spin_wait(spinlock_t *lock, const char *file, int line)
{
	if (pthread_mutex_trylock(raw(lock)) == 0)
		return;
	emu::lockdep::Blocked blocked(
		emu::site(file, line),
		emu::lockdep::describe_lock("spin lock", lock, &lock->dep));
	pthread_mutex_lock(raw(lock));
}

static void spin_lock_common(spinlock_t *lock, int subclass, bool validate,
			     const char *file, int line)
{
	emu_task *t = cur();
	emu::locked_instruction();
	check_spin_magic(lock, file, line);
	if (__atomic_load_n(&lock->owner, __ATOMIC_RELAXED) == &t->task)
		emu::violation(emu::site(file, line),
			       std::string("spin lock recursion: already taken "
					   "by this task at ") +
			       emu::short_path(lock->file) + ":" +
			       std::to_string(lock->line));
	if (validate)
		emu::lockdep::acquire(lock, &lock->dep, emu::lockdep::Type::Spin,
				      emu::lockdep::Exclusive, false, subclass,
				      emu::site(file, line));
	spin_wait(lock, file, line);
	spin_taken(lock, t, file, line);
}

static void spin_unlock_common(spinlock_t *lock, bool validate,
			       const char *file, int line)
{
	emu_task *t = cur();
	check_spin_magic(lock, file, line);
	if (__atomic_load_n(&lock->owner, __ATOMIC_RELAXED) != &t->task)
		emu::violation(emu::site(file, line),
			       "spin_unlock of a spin lock this task does not "
			       "hold");
	if (validate)
		emu::lockdep::release(lock, emu::site(file, line));
	emu::held_remove(lock, LockKind::Spin);
	t->spin_depth--;
	__atomic_store_n(&lock->owner, nullptr, __ATOMIC_RELAXED);
	pthread_mutex_unlock(raw(lock));
}

namespace emu {

// The runtime's own spin locks inside its sleeping locks (a semaphore's
// lock, an rw_semaphore's or a mutex's wait_lock) are implementation
// details, always taken with interrupts saved and never around another
// lock: not validated.
void raw_spin_lock(spinlock_t *lock, const char *file, int line)
{
	spin_lock_common(lock, 0, false, file, line);
}

void raw_spin_unlock(spinlock_t *lock, const char *file, int line)
{
	spin_unlock_common(lock, false, file, line);
}

}  // namespace emu

#if defined(__SANITIZE_THREAD__)
extern "C" {
void __tsan_acquire(void *addr);
void __tsan_release(void *addr);
}
#endif

namespace emu {

// Every store made before a full barrier (mb) on one CPU is visible after
// the next locked instruction of another (x86).  ThreadSanitizer knows
// neither, so both meet on one synchronisation object.
#if defined(__SANITIZE_THREAD__)
static char barrier_sync;
#endif

void locked_instruction()
{
#if defined(__SANITIZE_THREAD__)
	__tsan_acquire(&barrier_sync);
#endif
}

}  // namespace emu

extern "C" void emu_full_barrier(void)
{
#if defined(__SANITIZE_THREAD__)
	__tsan_release(&emu::barrier_sync);
#else
	__asm__ __volatile__("mfence" : : : "memory");
#endif
}

namespace {

// spin_lock_init/rwlock_init: the lock is clean memory with its magic; a
// lock this task still holds must not be initialised over.  With a name:
// its validator class is the initialisation site's.
template <typename Lock>
void lock_init(Lock *lock, unsigned magic, emu::lockdep::Type type,
	       const char *name, emu::Site at)
{
	emu::check_no_held_lock_in(lock, sizeof(*lock), at);
	std::memset(lock, 0, sizeof(*lock));
	lock->magic = magic;
	if (name)
		emu::lockdep::init_key(&lock->dep, type, name, at.file,
				       at.line);
}

}  // namespace

extern "C" void emu_spin_lock_init(spinlock_t *lock)
{
	lock_init(lock, SPINLOCK_MAGIC, emu::lockdep::Type::Spin, nullptr,
		  emu::Site{"spin_lock_init", 0});
}

extern "C" void emu_spin_lock_init_key(spinlock_t *lock, const char *name,
				       const char *file, int line)
{
	lock_init(lock, SPINLOCK_MAGIC, emu::lockdep::Type::Spin, name,
		  emu::site(file, line));
}

extern "C" void emu_spin_lock(spinlock_t *lock, const char *file, int line)
{
	spin_lock_common(lock, 0, true, file, line);
}

extern "C" void emu_spin_lock_nested(spinlock_t *lock, int subclass,
				     const char *file, int line)
{
	spin_lock_common(lock, subclass, true, file, line);
}

extern "C" int emu_spin_trylock(spinlock_t *lock, const char *file, int line)
{
	emu_task *t = cur();
	check_spin_magic(lock, file, line);
	if (pthread_mutex_trylock(raw(lock)) != 0)
		return 0;
	emu::lockdep::acquire(lock, &lock->dep, emu::lockdep::Type::Spin,
			      emu::lockdep::Exclusive, true, 0,
			      emu::site(file, line));
	spin_taken(lock, t, file, line);
	return 1;
}

extern "C" void emu_spin_unlock(spinlock_t *lock, const char *file, int line)
{
	spin_unlock_common(lock, true, file, line);
}

extern "C" int emu_spin_is_locked(spinlock_t *lock)
{
	return __atomic_load_n(&lock->owner, __ATOMIC_RELAXED) != nullptr;
}

extern "C" void emu_spin_unlock_wait(spinlock_t *lock, const char *file,
				     int line)
{
	check_spin_magic(lock, file, line);
	while (emu_spin_is_locked(lock))
		std::this_thread::yield();
}

// ---- reader/writer spin locks ----------------------------------------------------

static void check_rw_magic(rwlock_t *lock, const char *file, int line)
{
	if (!lock || (lock->magic != RWLOCK_MAGIC && lock->magic != 0))
		emu::violation(emu::site(file, line),
			       "rwlock used before rwlock_init (bad magic)");
}

static void rw_validate(rwlock_t *lock, LockKind kind, bool trylock,
			const char *file, int line)
{
	emu::lockdep::acquire(lock, &lock->dep, emu::lockdep::Type::Rwlock,
			      kind == LockKind::RwWrite ? emu::lockdep::Exclusive
			      : emu::lockdep::Recursive, trylock, 0,
			      emu::site(file, line));
}

// Takes the host rwlock; waiting for it is blocking for the watchdog.
static void rw_wait(rwlock_t *lock, bool write, const char *file, int line)
{
	auto *r = raw(lock);
	if ((write ? pthread_rwlock_trywrlock(r) : pthread_rwlock_tryrdlock(r))
	    == 0)
		return;
	emu::lockdep::Blocked blocked(
		emu::site(file, line),
		emu::lockdep::describe_lock(write ? "rwlock (write)"
					    : "rwlock (read)", lock,
					    &lock->dep));
	if (write)
		pthread_rwlock_wrlock(r);
	else
		pthread_rwlock_rdlock(r);
}

// The host rwlock has just been taken for reading or writing (`kind`).
static void rw_taken(rwlock_t *lock, LockKind kind, const char *file, int line)
{
	if (kind == LockKind::RwWrite)
		__atomic_store_n(&lock->writer, 1, __ATOMIC_RELAXED);
	cur()->spin_depth++;
	emu::held_add(lock, kind, emu::site(file, line));
}

static void rw_release(rwlock_t *lock, LockKind kind, const char *file,
		       int line)
{
	bool write = kind == LockKind::RwWrite;
	check_rw_magic(lock, file, line);
	if (!emu::held_remove(lock, kind))
		emu::violation(emu::site(file, line),
			       std::string(write ? "write" : "read") +
			       "_unlock of an rwlock this task does not hold "
			       "for " + (write ? "writing" : "reading"));
	emu::lockdep::release(lock, emu::site(file, line));
	if (write)
		__atomic_store_n(&lock->writer, 0, __ATOMIC_RELAXED);
	cur()->spin_depth--;
	pthread_rwlock_unlock(raw(lock));
}

extern "C" void emu_rwlock_init(rwlock_t *lock)
{
	lock_init(lock, RWLOCK_MAGIC, emu::lockdep::Type::Rwlock, nullptr,
		  emu::Site{"rwlock_init", 0});
}

extern "C" void emu_rwlock_init_key(rwlock_t *lock, const char *name,
				    const char *file, int line)
{
	lock_init(lock, RWLOCK_MAGIC, emu::lockdep::Type::Rwlock, name,
		  emu::site(file, line));
}

// read_lock/write_lock: a task that already holds the lock for writing
// (or, for write_lock, at all) would wait for itself.
static void rw_lock_common(rwlock_t *lock, bool write, const char *file,
			   int line)
{
	check_rw_magic(lock, file, line);
	if (emu::held_by_current(lock, LockKind::RwWrite) ||
	    (write && emu::held_by_current(lock, LockKind::RwRead)))
		emu::violation(emu::site(file, line),
			       write ? "write_lock of an rwlock this task "
				       "already holds (deadlock)"
				     : "read_lock of an rwlock this task holds "
				       "for writing (deadlock)");
	const LockKind kind = write ? LockKind::RwWrite : LockKind::RwRead;
	rw_validate(lock, kind, false, file, line);
	rw_wait(lock, write, file, line);
	rw_taken(lock, kind, file, line);
}

static int rw_trylock_common(rwlock_t *lock, bool write, const char *file,
			     int line)
{
	check_rw_magic(lock, file, line);
	if ((write ? pthread_rwlock_trywrlock(raw(lock))
		   : pthread_rwlock_tryrdlock(raw(lock))) != 0)
		return 0;
	const LockKind kind = write ? LockKind::RwWrite : LockKind::RwRead;
	rw_validate(lock, kind, true, file, line);
	rw_taken(lock, kind, file, line);
	return 1;
}

extern "C" void emu_read_lock(rwlock_t *lock, const char *file, int line)
{
	rw_lock_common(lock, false, file, line);
}

extern "C" int emu_read_trylock(rwlock_t *lock, const char *file, int line)
{
	return rw_trylock_common(lock, false, file, line);
}

extern "C" void emu_read_unlock(rwlock_t *lock, const char *file, int line)
{
	rw_release(lock, LockKind::RwRead, file, line);
}

extern "C" void emu_write_lock(rwlock_t *lock, const char *file, int line)
{
	rw_lock_common(lock, true, file, line);
}

extern "C" int emu_write_trylock(rwlock_t *lock, const char *file, int line)
{
	return rw_trylock_common(lock, true, file, line);
}

extern "C" void emu_write_unlock(rwlock_t *lock, const char *file, int line)
{
	rw_release(lock, LockKind::RwWrite, file, line);
}
