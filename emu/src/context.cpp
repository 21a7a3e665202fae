// Execution context of a task: interrupt state, bottom halves, preemption,
// the big kernel lock, and the checks that a task may sleep.
#include "core.hpp"
#include "checks.hpp"
#include "lockdep.hpp"

namespace {

// The big kernel lock.  Recursive per task (task_struct.lock_depth, -1
// when not held); released while its holder sleeps.
std::mutex g_bkl;

}  // namespace

namespace emu {

int spin_locks_held()
{
	return cur()->spin_depth;
}

bool irqs_off()
{
	return cur()->irqs_off;
}

bool bkl_held()
{
	return cur()->task.lock_depth >= 0;
}

int bkl_release_for_sleep()
{
	emu_task *t = cur();
	int depth = t->task.lock_depth;
	if (depth >= 0) {
		held_remove(&g_bkl, LockKind::Bkl);
		g_bkl.unlock();
	}
	return depth;
}

void bkl_reacquire_after_sleep(int depth)
{
	if (depth >= 0) {
		g_bkl.lock();
		held_add(&g_bkl, LockKind::Bkl, Site{"(reacquired after sleep)", 0});
	}
}

Sleeping::Sleeping() : depth_(bkl_release_for_sleep())
{
}

Sleeping::~Sleeping()
{
	bkl_reacquire_after_sleep(depth_);
}

SoftirqContext::SoftirqContext()
{
	emu_task *t = cur();
	t->bh_depth++;
	t->softirq_depth++;
}

SoftirqContext::~SoftirqContext()
{
	emu_task *t = cur();
	t->softirq_depth--;
	t->bh_depth--;
}

HardirqContext::HardirqContext() : irqs_were_off_(cur()->irqs_off)
{
	emu_task *t = cur();
	t->hardirq_depth++;
	t->irqs_off = true;
}

HardirqContext::~HardirqContext()
{
	emu_task *t = cur();
	t->hardirq_depth--;
	t->irqs_off = irqs_were_off_;
}

void run_in_interrupt(Interrupt kind, const std::function<void()> &fn)
{
	if (kind == Interrupt::Hard) {
		HardirqContext hardirq;
		fn();
	} else {
		SoftirqContext softirq;
		fn();
	}
}

void check_may_sleep(Site s, const char *what)
{
	emu_task *t = cur();
	std::string why;
	if (t->irqs_off && !t->spin_depth && !t->hardirq_depth &&
	    !t->bh_depth && !t->preempt_depth)
		return sleeping_with_irqs_off(s, what);   // warns, goes on
	if (t->spin_depth)
		why = "with a spin lock held";
	else if (t->irqs_off)
		why = "with interrupts disabled";
	else if (t->hardirq_depth || t->bh_depth)
		why = "in interrupt context";
	else if (t->preempt_depth)
		why = "with preemption disabled (kmap_atomic or "
		      "preempt_disable)";
	else
		return;
	std::string msg = std::string("sleeping function ") + what +
		" called " + why;
	auto held = held_locks();
	std::string mine = std::string("pid ") + std::to_string(t->task.pid);
	for (auto &h : held)
		if (h.find(mine) != std::string::npos)
			msg += "; holding " + h;
	violation(s, msg);
}

void check_may_sleep_unannotated(Site s, const char *what)
{
	emu_task *t = cur();
	if (t->irqs_off && !t->spin_depth && !t->hardirq_depth &&
	    !t->bh_depth && !t->preempt_depth)
		return;
	check_may_sleep(s, what);
}

void might_sleep(Site s)
{
	check_may_sleep(s, "might_sleep");
}

}  // namespace emu

using emu::cur;

extern "C" void emu_might_sleep(const char *file, int line)
{
	emu::check_may_sleep(emu::site(file, line), "(might_sleep)");
}

extern "C" int emu_cond_resched(const char *file, int line)
{
	emu::check_may_sleep(emu::site(file, line), "cond_resched");
	emu::yield_cpu();
	return 1;
}

// ---- interrupts ---------------------------------------------------------------

// local_irq_save opens an irqsave region, closed by local_irq_restore;
// the lock validator reports interrupts turned on inside one, and marks
// the locks held when interrupts come back on (lockdep.cpp).
extern "C" unsigned long emu_local_irq_save_at(const char *file, int line)
{
	emu_task *t = cur();
	unsigned long flags = t->irqs_off ? 0 : X86_EFLAGS_IF;
	t->irqs_off = true;
	emu::lockdep::irqsave_enter(emu::site(file, line));
	return flags;
}

extern "C" unsigned long emu_local_irq_save(void)
{
	return emu_local_irq_save_at("(local_irq_save)", 0);
}

extern "C" void emu_local_irq_restore(unsigned long flags, const char *file,
				      int line)
{
	emu_task *t = cur();
	bool was_off = t->irqs_off;
	t->irqs_off = !(flags & X86_EFLAGS_IF);
	emu::lockdep::irqsave_exit();
	if (was_off && !t->irqs_off)
		emu::lockdep::irqs_enabled(emu::site(file, line), false);
}

extern "C" void emu_local_irq_disable(void)
{
	cur()->irqs_off = true;
}

extern "C" void emu_local_irq_enable(const char *file, int line)
{
	emu_task *t = cur();
	emu::lockdep::irqs_enabled(emu::site(file, line), true);
	t->irqs_off = false;
}

extern "C" int emu_irqs_disabled(void)
{
	return cur()->irqs_off;
}

extern "C" void emu_local_bh_disable(void)
{
	cur()->bh_depth++;
}

extern "C" void emu_local_bh_enable(const char *file, int line)
{
	emu_task *t = cur();
	if (t->bh_depth <= 0)
		emu::violation(emu::site(file, line),
			       "local_bh_enable without local_bh_disable");
	if (--t->bh_depth == 0)
		emu::lockdep::softirqs_enabled(emu::site(file, line));
}

extern "C" void emu_preempt_disable(void)
{
	cur()->preempt_depth++;
}

extern "C" void emu_preempt_enable(const char *file, int line)
{
	emu_task *t = cur();
	if (t->preempt_depth <= 0)
		emu::violation(emu::site(file, line),
			       "preempt_enable without preempt_disable");
	t->preempt_depth--;
}

extern "C" int emu_in_irq(void)
{
	return cur()->hardirq_depth > 0;
}

extern "C" int emu_in_softirq(void)
{
	return cur()->bh_depth > 0;
}

extern "C" int emu_in_atomic(void)
{
	emu_task *t = cur();
	return t->spin_depth || t->bh_depth || t->hardirq_depth ||
		t->preempt_depth;
}

// ---- the big kernel lock ---------------------------------------------------------

extern "C" void emu_lock_kernel(const char *file, int line)
{
	emu_task *t = cur();
	if (t->task.lock_depth < 0) {
		g_bkl.lock();
		emu::held_add(&g_bkl, emu::LockKind::Bkl, emu::site(file, line));
	}
	t->task.lock_depth++;
}

extern "C" void emu_unlock_kernel(const char *file, int line)
{
	emu_task *t = cur();
	if (t->task.lock_depth < 0)
		emu::violation(emu::site(file, line),
			       "unlock_kernel without lock_kernel");
	if (--t->task.lock_depth < 0) {
		emu::held_remove(&g_bkl, emu::LockKind::Bkl);
		g_bkl.unlock();
	}
}
