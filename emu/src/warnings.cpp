// Kernel warnings: 2.6.27's __might_sleep() for a sleep with interrupts
// disabled, the interrupt state schedule() leaves, and the record of
// warnings that tests must expect (emu/warnings.hpp).
//
// 2.6.27 with CONFIG_DEBUG_SPINLOCK_SLEEP: a function that may sleep calls
// might_sleep(); in a task that is atomic or has interrupts disabled,
// __might_sleep() prints
//
//	BUG: sleeping function called from invalid context at FILE:LINE
//	in_atomic():0, irqs_disabled():1
//
// then the held locks (nothing without lockdep), the interrupt trace
// (nothing without CONFIG_TRACE_IRQFLAGS) and dump_stack(), at most once a
// second (a static prev_jiffy, jiffies + HZ), and goes on.  The sleep
// itself goes through schedule(), which always returns with interrupts
// enabled.  So a task that sleeps with interrupts disabled is warned about
// and runs on with interrupts on; the emulation does exactly that.  With a
// spin lock held (or in interrupt context, or with preemption disabled by
// kmap_atomic) the same sleep deadlocks or corrupts on a real SMP kernel:
// that stays fatal (context.cpp).
//
// FILE:LINE: 2.6.27 names the might_sleep() line inside the sleeping
// function (kernel/mutex.c, mm/slab.c, ...); the emulation names the call
// site in its caller, the place it knows and the one worth reading.
#include <algorithm>

#include "core.hpp"
#include "checks.hpp"
#include "emu/warnings.hpp"

namespace {

struct Record {
	std::mutex m;
	std::vector<std::string> pending;
	unsigned long prev_jiffy = 0;   // __might_sleep's rate limit
};

Record &record()
{
	static auto *r = new Record;   // lives until exit
	return *r;
}

}  // namespace

namespace emu {

void record_warning(const std::string &line)
{
	Invisible inv;
	std::lock_guard lk(record().m);
	record().pending.push_back(line);
}

// The sleeping functions of the emulation that have no might_sleep() in
// 2.6.27: schedule() and what only calls it (schedule_timeout, msleep,
// yield; cond_resched checks only when a reschedule is due), and the
// semaphore's down(), which takes its lock with spin_lock_irqsave and
// sleeps in schedule().  With interrupts disabled they print nothing;
// their sleep enables interrupts.
bool has_might_sleep(const char *what)
{
	static const char *const silent[] = {
		"schedule", "schedule_timeout", "msleep", "yield",
		"cond_resched", "down", "down_interruptible", "down_killable",
	};
	for (const char *s : silent)
		if (std::strcmp(what, s) == 0)
			return false;
	return true;
}

void sleeping_with_irqs_off(Site site, const char *what)
{
	if (!has_might_sleep(what))
		return;
	{
		Invisible inv;
		std::lock_guard lk(record().m);
		unsigned long now = jiffies;
		unsigned long &prev = record().prev_jiffy;
		if (time_before(now, prev + HZ) && prev)
			return;
		prev = now;
	}
	std::string where = to_string(site);
	printk(KERN_ERR "BUG: sleeping function called from invalid"
	       " context at %s\n", where.c_str());
	printk("in_atomic():%d, irqs_disabled():%d\n", emu_in_atomic(),
	       emu_irqs_disabled());
	dump_stack();
	record_warning("<3>BUG: sleeping function called from invalid "
		       "context at " + where);
}

void schedule_enables_irqs()
{
	cur()->irqs_off = false;
}

std::vector<std::string> pending_warnings()
{
	Invisible inv;
	std::lock_guard lk(record().m);
	return record().pending;
}

void warnings_seen(const std::vector<std::string> &lines)
{
	Invisible inv;
	std::lock_guard lk(record().m);
	auto &p = record().pending;
	for (const auto &l : lines) {
		auto it = std::find(p.begin(), p.end(), l);
		if (it != p.end())
			p.erase(it);
	}
}

std::vector<std::string> take_pending_warnings()
{
	Invisible inv;
	std::lock_guard lk(record().m);
	std::vector<std::string> out;
	out.swap(record().pending);
	return out;
}

}  // namespace emu
