// Internal API of the emulated kernel's runtime, shared by its parts
// (scheduler, locks, allocators, block layer, file systems, processes).
//
// Not for tests or tools: they use the public headers in emu/src/emu/.
// Everything here is C++ and is called from the runtime's own sources, never
// from the driver (the driver reaches the runtime only through the C
// functions declared in emu/include).
//
// The pieces:
//   - call sites and fatal violations of kernel rules;
//   - failure injection: every allocator asks inject_failure(kind) once per
//     call, before it allocates anything;
//   - accounting: every object handed out is registered with account_add()
//     and unregistered with account_remove(), so usage() and leaks() see it;
//   - tasks: every host thread that runs kernel code has a task_struct
//     (`current`); a thread the runtime starts for itself (a disk's
//     completion thread, a file-system writer) makes itself a kernel context
//     with a TaskScope;
//   - context: might_sleep() in every call that may sleep; a blocking wait
//     releases the big kernel lock while it sleeps (Sleeping, wait_until());
//     spin lock / interrupt state of the current task.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>

#include "emu/check.hpp"
#include "emu/fault.hpp"
#include "emu/memory.hpp"

struct task_struct;

namespace emu {

// ---- call sites and violations ------------------------------------------

// Where a kernel interface was called from: the driver's headers capture
// __FILE__/__LINE__ in the macros that wrap the runtime's C entry points.
struct Site {
	const char *file = "?";
	int line = 0;
};
std::string to_string(Site site);

// A kernel rule was broken: prints "EMU VIOLATION: <what> at <file>:<line>"
// to stderr and aborts.  Tests expect it with EXPECT_DEATH.
[[noreturn]] void violation(Site site, const std::string &what);

// ---- failure injection ----------------------------------------------------

// Counts one call of an allocator of that kind (alloc_calls) and tells
// whether this call must fail (fail_nth / fail_after).  Ask exactly once per
// call, before allocating anything, and on `true` allocate nothing and
// return what the kernel's allocator returns on failure.
bool inject_failure(Alloc kind);

// ---- accounting -----------------------------------------------------------

enum class Obj {
	Kmalloc,     // bytes = requested size
	Vmalloc,     // bytes = requested size
	Page,        // bytes = 4096 << order; counts 1 << order pages
	SlabCache,
	SlabObject,
	Bio,
	BufferHead,
	Thread,      // a kernel thread not yet exited
	Count_
};

// Registers a live object, keyed by its address (a key must be unique per
// kind).  `what` describes it for leaks() ("bio", "kmalloc 64 bytes", ...;
// empty: a default text for the kind).  Thread-safe.
void account_add(Obj kind, const void *key, long bytes, Site site,
		 const std::string &what = {});
// Unregisters it.  Returns false when no such object is registered (double
// free, or a pointer the allocator never handed out); the caller decides how
// to report that (usually violation()).
bool account_remove(Obj kind, const void *key);
// Whether the object is currently registered.
bool account_contains(Obj kind, const void *key);

// ---- held locks ------------------------------------------------------------

// Fatal if a lock that some task holds lies within [p, p + len): freeing
// memory that contains a held lock.  Every free of memory that may contain
// locks calls it.
void check_no_held_lock_in(const void *p, std::size_t len, Site site);

// ---- tasks ------------------------------------------------------------------

// Makes the calling host thread a kernel context for the scope's lifetime:
// a fresh task_struct (new pid, comm = `comm`, no mm) becomes `current`.
// With `counted`, the task counts in Usage::threads until the scope ends
// (kernel threads do; a runtime's helper threads that a test object owns
// and joins need not).  Must not nest on one thread.
class TaskScope {
public:
	explicit TaskScope(const char *comm, bool counted = false);
	~TaskScope();
	TaskScope(const TaskScope &) = delete;
	TaskScope &operator=(const TaskScope &) = delete;
	task_struct *task() const { return task_; }

private:
	task_struct *task_;
	bool counted_;
};

// The calling thread's task.  A thread that never entered a TaskScope (the
// test's main thread) gets a task of its own on first use, which lives as
// long as the thread.
task_struct *current_task();

// ---- context checks and sleeping --------------------------------------------

// Every call that may sleep calls this first: fatal when the current task
// holds a spin lock or is atomic; with interrupts disabled only, 2.6.27's
// warning (warnings.cpp) and the task goes on.
void might_sleep(Site site);

int spin_locks_held();     // spin locks held by the current task
bool irqs_off();           // the current task disabled interrupts
bool bkl_held();           // the current task holds the big kernel lock

// The current task is about to block.  As 2.6.27's schedule() does, a task
// holding the big kernel lock releases it for the time it sleeps and retakes
// it when it runs again (at any nesting depth).  Construct it only when the
// task really blocks, and make sure the runtime's own mutex is released
// before the destructor runs (retaking the BKL may block):
//
//	std::optional<emu::Sleeping> sleeping;   // declared before the lock
//	std::unique_lock lk(m);
//	if (!ready) {
//		sleeping.emplace();
//		cv.wait(lk, [&] { return ready; });
//	}
//	// lk unlocks first, then `sleeping` retakes the BKL
class Sleeping {
public:
	Sleeping();
	~Sleeping();
	Sleeping(const Sleeping &) = delete;
	Sleeping &operator=(const Sleeping &) = delete;

private:
	int depth_;
};

// schedule() returns with interrupts enabled (warnings.cpp).
void schedule_enables_irqs();

// ---- hang watchdog (hang.cpp) ------------------------------------------------
namespace lockdep {

// Something happened that can unblock a task: a lock released, a task
// woken, a completion, a bio ended.
void note_progress();

// The current task is blocked in an emulated wait for the scope's lifetime
// (what the hang watchdog looks for); `what` says what it waits for.
// Scopes nest (the outermost one describes the wait).
class Blocked {
public:
	Blocked(Site site, std::string what);
	~Blocked();
	Blocked(const Blocked &) = delete;
	Blocked &operator=(const Blocked &) = delete;
};

}  // namespace lockdep

// Waits on `cv` until pred() holds, releasing the BKL while blocked (and,
// as schedule() does, enabling interrupts if it blocks).  Returns
// with `lk` locked, pred() true and the BKL (if the task held it) retaken.
// Does not call might_sleep: the caller did.  The task is blocked for the
// hang watchdog meanwhile (`what`: what it waits for).
template <class Pred>
void wait_until(std::unique_lock<std::mutex> &lk, std::condition_variable &cv,
		Pred pred, const char *what = "a runtime wait")
{
	if (pred())
		return;
	lockdep::Blocked blocked(Site{}, what);
	while (!pred()) {
		schedule_enables_irqs();
		if (!bkl_held()) {
			cv.wait(lk, pred);
			return;
		}
		{
			Sleeping sleeping;
			cv.wait(lk, pred);
			lk.unlock();
		}
		lk.lock();
	}
}

// Runs the scope in softirq context, as 2.6.27 runs block-I/O completion
// (bio_endio from the block softirq): in_interrupt() is true and sleeping
// is fatal.  A disk's completion thread wraps each bio_endio in one.
class SoftirqContext {
public:
	SoftirqContext();
	~SoftirqContext();
	SoftirqContext(const SoftirqContext &) = delete;
	SoftirqContext &operator=(const SoftirqContext &) = delete;
};

// Runs the scope in hard-interrupt context, as an interrupt handler runs
// (an IDE-style request completion): in_irq() is true, interrupts are
// disabled, sleeping is fatal, and the lock validator records every lock
// taken as taken in hard-interrupt context.
class HardirqContext {
public:
	HardirqContext();
	~HardirqContext();
	HardirqContext(const HardirqContext &) = delete;
	HardirqContext &operator=(const HardirqContext &) = delete;

private:
	bool irqs_were_off_;
};

// A real yield of the processor (what schedule() does for a running task);
// releases and retakes the BKL around it.
void yield_cpu();

}  // namespace emu
