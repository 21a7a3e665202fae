// Shared internals of the runtime's core (tasks, locks, memory, log):
// what its sources need from each other beyond runtime.hpp.  Include after
// kernel_api.hpp.
#pragma once

#include "kernel_api.hpp"
#include "runtime.hpp"

// One lock on a task's validator stack (lockdep.cpp): guarded by the
// validator's own mutex.
struct emu_held_lock {
	const void *lock;
	int cls;             // validator class
	int read;            // 0 exclusive, 1 read (rwsem), 2 recursive read
	bool trylock;
	emu::Site site;      // where it was taken
};

// The runtime's part of a task (task_struct.emu).  Only the task's own
// thread touches the context counters; `m` guards the scheduling state
// (task.state, the signal sets) against wakers on other threads.
struct emu_task {
	struct task_struct task {};
	std::mutex m;
	std::condition_variable cv;

	// Context of the task, written by its own thread only.
	int spin_depth = 0;        // spin/rw locks held
	bool irqs_off = false;     // local interrupts disabled
	int bh_depth = 0;          // local_bh_disable / softirq context
	int preempt_depth = 0;     // preempt_disable / kmap_atomic
	int hardirq_depth = 0;
	int softirq_depth = 0;     // running a softirq (part of bh_depth)
	int irqsave_depth = 0;     // open local_irq_save regions
	emu::Site irqsave_site;    // where the outermost one was opened

	// The lock validator's view (lockdep.cpp), guarded by its mutex:
	// locks held in acquisition order, and what the task is blocked on
	// (for the hang watchdog).
	std::vector<emu_held_lock> ld_held;
	bool ld_registered = false;
	int blocked = 0;
	emu::Site blocked_site;
	std::string blocked_what;

	// Signals, guarded by `m`.
	unsigned long long sig_pending = 0;
	unsigned long long sig_blocked = 0;

	// Kernel threads: where complete_and_exit/do_exit return to.
	bool kthread = false;
	std::jmp_buf exit_jmp;
	emu::Site started_at;
	std::shared_ptr<void> mm_ref;   // keeps a borrowed mm alive
	bool counted = false;
	std::atomic<bool> finished{false};
};

namespace emu {

// The calling thread's task (created on first use).
emu_task *cur();
emu_task *task_of(task_struct *t);

// Make a new task (pid, comm) and register it; it lives until program exit.
emu_task *new_task(const char *comm);
void set_current(emu_task *t);

// Root-relative form of a source path ("core/kivlib.c").
const char *short_path(const char *file);
Site site(const char *file, int line);

// ThreadSanitizer: the runtime's own bookkeeping (accounting, the log, the
// held-lock registry) must not create happens-before edges between the
// tasks that use it, or it would hide the races it exists to expose.  Its
// mutexes and data are made invisible to ThreadSanitizer for that scope.
class Invisible {
public:
	Invisible();
	~Invisible();
	Invisible(const Invisible &) = delete;
	Invisible &operator=(const Invisible &) = delete;
};

// ---- held locks (locks.cpp) ---------------------------------------------
enum class LockKind { Spin, RwRead, RwWrite, RwsemRead, RwsemWrite, Mutex,
		      Bkl };
void held_add(const void *lock, LockKind kind, Site site);
// Removes the current task's entry for the lock (for RwsemRead any
// reader's entry if the task has none).  False when there is none.
bool held_remove(const void *lock, LockKind kind);
bool held_by_current(const void *lock, LockKind kind);
const char *lock_kind_name(LockKind kind);
// A spin lock taken and released without the lock validator (the
// runtime's own locks inside its sleeping locks).
void raw_spin_lock(spinlock_t *lock, const char *file, int line);
void raw_spin_unlock(spinlock_t *lock, const char *file, int line);

// ---- the big kernel lock (context.cpp) -----------------------------------
// Around a sleep: release it if held (returns the depth to restore), and
// retake it.
int bkl_release_for_sleep();
void bkl_reacquire_after_sleep(int depth);

// Fatal unless the current task may sleep ("scheduling while atomic").
void check_may_sleep(Site site, const char *what);

// A locked instruction (taking a spin lock): sees every store made before
// another CPU's last full barrier (mb).  Only ThreadSanitizer is told.
void locked_instruction();

// ---- accounting (account.cpp) ------------------------------------------------
// The size of a registered object, or -1.
long account_bytes(Obj kind, const void *key);

// ---- memory (memory.cpp) --------------------------------------------------
long kmaps_outstanding();
// The memory of a page as a user mapping sees it (no kmap needed).
unsigned char *page_data(struct page *page);
std::vector<std::string> kmap_problems();

// ---- threads (sched.cpp) ------------------------------------------------------
// Every task ever made (tasks live until program exit).
std::vector<emu_task *> all_tasks();

// Waits up to `timeout` for the kernel threads to finish; returns the
// descriptions of those still running.
std::vector<std::string> running_threads(std::chrono::milliseconds timeout);

// ---- log (printk.cpp) ----------------------------------------------------------
void log_text(const char *text);   // as printk of an already formatted text

// ---- module (module.cpp) -----------------------------------------------------
bool module_is_loaded_internal();

}  // namespace emu
