// Tasks and scheduling: `current`, sleeping and waking, signals, kernel
// threads (kernel_thread, daemonize, complete_and_exit).
//
// Every host thread that runs kernel code has an emu_task.  A task sleeps
// in schedule() on its own condition variable until wake_up_process() (or
// a signal, for TASK_INTERRUPTIBLE) makes it runnable; the task's state and
// signal sets are guarded by its mutex, which every waker takes.
#include <sstream>

#include "core.hpp"
#include "checks.hpp"

namespace {

std::atomic<int> g_next_pid{100};

struct TaskRegistry {
	std::mutex m;
	std::condition_variable cv;          // a kernel thread finished
	std::vector<emu_task *> all;         // every task ever made
	std::vector<emu_task *> kthreads;    // kernel threads not yet reaped
};

TaskRegistry &tasks()
{
	static TaskRegistry *r = new TaskRegistry;   // lives until exit
	return *r;
}

thread_local emu_task *t_current = nullptr;

// The implicit task of a thread that never entered a TaskScope.
struct ImplicitTask {
	emu_task *task = nullptr;
	~ImplicitTask()
	{
		if (task) {
			std::lock_guard lk(task->m);
			task->task.state = TASK_DEAD;
		}
	}
};
thread_local ImplicitTask t_implicit;

unsigned long long sigbit(int sig)
{
	return (sig >= 1 && sig <= 64) ? 1ULL << (sig - 1) : 0;
}

bool pending_locked(emu_task *t)
{
	return (t->sig_pending & ~t->sig_blocked) != 0;
}

}  // namespace

namespace emu {

emu_task *new_task(const char *comm)
{
	auto *t = new emu_task;   // never freed: wakers may hold pointers
	t->task.state = TASK_RUNNING;
	t->task.lock_depth = -1;
	t->task.pid = g_next_pid.fetch_add(1);
	t->task.tgid = t->task.pid;
	std::snprintf(t->task.comm, sizeof(t->task.comm), "%s", comm);
	t->task.emu = t;
	{
		Invisible inv;
		std::lock_guard lk(tasks().m);
		tasks().all.push_back(t);
	}
	return t;
}

void set_current(emu_task *t)
{
	t_current = t;
}

emu_task *cur()
{
	if (t_current)
		return t_current;
	if (!t_implicit.task)
		t_implicit.task = new_task("emu-test");
	t_current = t_implicit.task;
	return t_current;
}

emu_task *task_of(task_struct *t)
{
	return t ? t->emu : nullptr;
}

task_struct *current_task()
{
	return &cur()->task;
}

TaskScope::TaskScope(const char *comm, bool counted) : counted_(counted)
{
	if (t_current && t_current != t_implicit.task)
		violation(Site{__FILE__, __LINE__}, "nested TaskScope");
	emu_task *t = new_task(comm);
	t->counted = counted;
	if (counted)
		account_add(Obj::Thread, t, 0, Site{__FILE__, __LINE__},
			    std::string("thread ") + comm);
	t_current = t;
	task_ = &t->task;
}

TaskScope::~TaskScope()
{
	emu_task *t = task_->emu;
	{
		std::lock_guard lk(t->m);
		t->task.state = TASK_DEAD;
	}
	if (counted_)
		account_remove(Obj::Thread, t);
	t_current = nullptr;
}

std::vector<emu_task *> all_tasks()
{
	Invisible inv;
	std::lock_guard lk(tasks().m);
	return tasks().all;
}

std::vector<std::string> running_threads(std::chrono::milliseconds timeout)
{
	TaskRegistry &r = tasks();
	std::unique_lock lk(r.m);
	auto all_done = [&] {
		for (auto *t : r.kthreads)
			if (!t->finished.load())
				return false;
		return true;
	};
	r.cv.wait_for(lk, timeout, all_done);
	std::vector<std::string> out;
	std::vector<emu_task *> left;
	for (auto *t : r.kthreads) {
		if (t->finished.load())
			continue;
		left.push_back(t);
		out.push_back(std::string(t->task.comm) + " (pid " +
			      std::to_string(t->task.pid) + ", started at " +
			      to_string(t->started_at) + ")");
	}
	r.kthreads = left;
	return out;
}

}  // namespace emu

using emu::cur;

// ---- `current`, states, schedule ------------------------------------------

extern "C" struct task_struct *get_current(void)
{
	return &cur()->task;
}

extern "C" void emu_set_current_state(long state)
{
	emu_task *t = cur();
	std::lock_guard lk(t->m);
	t->task.state = state;
}

namespace {

// The body of schedule() for a task that is not runnable: sleep until
// woken.  Returns with the task TASK_RUNNING.
void sleep_until_woken(emu_task *t, emu::Site site)
{
	std::unique_lock lk(t->m);
	long state = t->task.state;
	if (state == TASK_RUNNING)
		return;
	if ((state & (TASK_INTERRUPTIBLE | TASK_WAKEKILL)) &&
	    ((state & TASK_INTERRUPTIBLE) ? pending_locked(t)
	     : (t->sig_pending & sigbit(SIGKILL)) != 0)) {
		t->task.state = TASK_RUNNING;
		return;
	}
	int depth = emu::bkl_release_for_sleep();
	{
		emu::lockdep::Blocked blocked(site, "a wake-up in schedule()");
		t->cv.wait(lk, [&] { return t->task.state == TASK_RUNNING; });
		lk.unlock();
	}
	emu::bkl_reacquire_after_sleep(depth);
}

}  // namespace

extern "C" void emu_schedule(const char *file, int line)
{
	emu_task *t = cur();
	emu::check_may_sleep(emu::site(file, line), "schedule");
	emu::schedule_enables_irqs();
	bool running;
	{
		std::lock_guard lk(t->m);
		running = t->task.state == TASK_RUNNING;
	}
	if (running) {
		emu::yield_cpu();
		return;
	}
	sleep_until_woken(t, emu::site(file, line));
}

extern "C" signed long emu_schedule_timeout(signed long timeout,
					    const char *file, int line)
{
	emu_task *t = cur();
	emu::check_may_sleep(emu::site(file, line), "schedule_timeout");
	emu::schedule_enables_irqs();
	if (timeout == MAX_SCHEDULE_TIMEOUT) {
		emu_schedule(file, line);
		return timeout;
	}
	auto deadline = std::chrono::steady_clock::now() +
		std::chrono::milliseconds(timeout * 1000 / HZ);
	std::unique_lock lk(t->m);
	long state = t->task.state;
	if (state == TASK_RUNNING) {
		lk.unlock();
		emu::yield_cpu();
		return timeout;
	}
	if ((state & TASK_INTERRUPTIBLE) && pending_locked(t)) {
		t->task.state = TASK_RUNNING;
		return timeout;
	}
	int depth = emu::bkl_release_for_sleep();
	bool woken = t->cv.wait_until(lk, deadline, [&] {
		return t->task.state == TASK_RUNNING;
	});
	t->task.state = TASK_RUNNING;
	lk.unlock();
	emu::bkl_reacquire_after_sleep(depth);
	if (!woken)
		return 0;
	auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
		deadline - std::chrono::steady_clock::now()).count();
	return left > 0 ? left * HZ / 1000 + 1 : 1;
}

namespace emu {

void yield_cpu()
{
	int depth = bkl_release_for_sleep();
	std::this_thread::yield();
	bkl_reacquire_after_sleep(depth);
}

}  // namespace emu

extern "C" void yield(void)
{
	emu_task *t = cur();
	emu::check_may_sleep(emu::Site{__FILE__, __LINE__}, "yield");
	emu::schedule_enables_irqs();
	emu_set_current_state(TASK_RUNNING);
	(void)t;
	emu::yield_cpu();
}

extern "C" void emu_cpu_relax(void)
{
	std::this_thread::yield();
}

namespace {

// try_to_wake_up(): wake `t` if its state is in `mode`.
int try_to_wake_up(emu_task *t, long mode)
{
	emu::lockdep::note_progress();
	std::lock_guard lk(t->m);
	if (!(t->task.state & mode))
		return 0;
	t->task.state = TASK_RUNNING;
	t->cv.notify_all();
	return 1;
}

}  // namespace

namespace emu {
int wake_task(task_struct *p, long mode)
{
	return try_to_wake_up(p->emu, mode);
}
}  // namespace emu

extern "C" int wake_up_process(struct task_struct *tsk)
{
	return try_to_wake_up(tsk->emu, TASK_ALL);
}

// ---- signals -------------------------------------------------------------------------

extern "C" int signal_pending(struct task_struct *p)
{
	emu_task *t = p->emu;
	std::lock_guard lk(t->m);
	return pending_locked(t);
}

extern "C" int fatal_signal_pending(struct task_struct *p)
{
	emu_task *t = p->emu;
	std::lock_guard lk(t->m);
	return (t->sig_pending & sigbit(SIGKILL)) != 0 && pending_locked(t);
}

extern "C" void flush_signals(struct task_struct *p)
{
	emu_task *t = p->emu;
	std::lock_guard lk(t->m);
	t->sig_pending = 0;
}

// send_sig(): make the signal pending and wake the task if it sleeps
// interruptibly (or killably, for SIGKILL) and does not block it.
extern "C" int send_sig(int sig, struct task_struct *p, int priv)
{
	(void)priv;
	emu_task *t = p->emu;
	if (!sigbit(sig))
		return -EINVAL;
	std::lock_guard lk(t->m);
	t->sig_pending |= sigbit(sig);
	if (!(t->sig_blocked & sigbit(sig))) {
		long mode = TASK_INTERRUPTIBLE |
			(sig == SIGKILL ? TASK_WAKEKILL : 0);
		if (t->task.state & mode) {
			t->task.state = TASK_RUNNING;
			t->cv.notify_all();
		}
	}
	return 0;
}

extern "C" int allow_signal(int sig)
{
	if (!sigbit(sig))
		return -EINVAL;
	emu_task *t = cur();
	std::lock_guard lk(t->m);
	t->sig_blocked &= ~sigbit(sig);
	return 0;
}

extern "C" int disallow_signal(int sig)
{
	if (!sigbit(sig))
		return -EINVAL;
	emu_task *t = cur();
	std::lock_guard lk(t->m);
	t->sig_blocked |= sigbit(sig);
	t->sig_pending &= ~sigbit(sig);
	return 0;
}

extern "C" struct task_struct *find_task_by_pid(pid_t nr)
{
	emu::Invisible inv;
	std::lock_guard lk(tasks().m);
	for (auto *t : tasks().all)
		if (t->task.pid == nr && t->task.state != TASK_DEAD)
			return &t->task;
	return nullptr;
}

// ---- kernel threads ------------------------------------------------------------

// daemonize(): detach from user space (drop the address space), block every
// signal, and take the given name, as 2.6.27 does.
extern "C" void daemonize(const char *name, ...)
{
	emu_task *t = cur();
	va_list ap;
	va_start(ap, name);
	char comm[TASK_COMM_LEN];
	emu_vsnprintf(comm, sizeof(comm), name, ap);
	va_end(ap);
	std::memcpy(t->task.comm, comm, sizeof(comm));
	t->task.mm = nullptr;
	t->task.active_mm = nullptr;
	t->mm_ref.reset();
	std::lock_guard lk(t->m);
	t->sig_blocked = ~0ULL;
	t->sig_pending = 0;
}

namespace {

struct ThreadStart {
	int (*fn)(void *);
	void *arg;
	emu_task *task;
};

void thread_exit_checks(emu_task *t)
{
	emu::Site s = t->started_at;
	if (t->spin_depth)
		emu::violation(s, std::string("kernel thread ") + t->task.comm +
			       " exited holding a spin lock");
	if (t->task.lock_depth >= 0)
		emu::violation(s, std::string("kernel thread ") + t->task.comm +
			       " exited holding the big kernel lock");
}

void thread_main(ThreadStart start)
{
	emu_task *t = start.task;
	emu::set_current(t);
	// complete_and_exit()/do_exit() jump back here; the body is C and
	// has no destructors to skip.
	if (setjmp(t->exit_jmp) == 0)
		t->task.exit_code = start.fn(start.arg);
	emu::module_thread_exiting(t);   // returned: in the kernel's code now
	thread_exit_checks(t);
	t->mm_ref.reset();
	{
		std::lock_guard lk(t->m);
		t->task.state = TASK_DEAD;
	}
	emu::account_remove(emu::Obj::Thread, t);
	emu::set_current(nullptr);
	TaskRegistry &r = tasks();
	{
		std::lock_guard lk(r.m);
		t->finished.store(true);
	}
	r.cv.notify_all();
}

}  // namespace

// kernel_thread(): a new task sharing the creator's address space until it
// calls daemonize(); its name is the creator's until then, as after fork.
extern "C" int emu_kernel_thread(int (*fn)(void *), void *arg,
				 unsigned long flags, const char *file,
				 int line)
{
	(void)flags;
	if (emu::inject_failure(emu::Alloc::Thread))
		return -ENOMEM;
	emu_task *parent = cur();
	emu_task *t = emu::new_task(parent->task.comm);
	t->kthread = true;
	t->counted = true;
	t->started_at = emu::site(file, line);
	t->task.mm = parent->task.mm;
	t->task.active_mm = parent->task.mm;
	t->mm_ref = parent->mm_ref;
	emu::account_add(emu::Obj::Thread, t, 0, t->started_at,
			 std::string("kernel thread (pid ") +
			 std::to_string(t->task.pid) + ")");
	{
		std::lock_guard lk(tasks().m);
		tasks().kthreads.push_back(t);
	}
	emu::module_thread_started(t, reinterpret_cast<const void *>(fn));
	std::thread(thread_main, ThreadStart{fn, arg, t}).detach();
	return t->task.pid;
}

extern "C" void emu_do_exit(long code)
{
	emu_task *t = cur();
	if (!t->kthread)
		emu::violation(emu::Site{__FILE__, __LINE__},
			       "do_exit from a task that is not a kernel "
			       "thread");
	t->task.exit_code = static_cast<int>(code);
	emu::module_thread_exiting(t);
	std::longjmp(t->exit_jmp, 1);
}

extern "C" void emu_complete_and_exit(struct completion *comp, long code)
{
	emu::module_thread_exiting(cur());   // the rest runs in the kernel
	if (comp)
		complete(comp);
	emu_do_exit(code);
}
