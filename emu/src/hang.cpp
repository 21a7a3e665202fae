// The hang watchdog: a deadlock fails the test with a description of
// every task instead of a silent CTest timeout (2.6.27's hung task
// detector, "INFO: task ... blocked for more than N seconds.").
//
// Progress is a global counter, bumped by every lock release (spin and rw
// locks, mutexes, rw_semaphores, semaphore ups), every wake-up, every
// completion and bio end, and every task leaving a wait.  A task is
// blocked while it waits in an emulated wait: schedule() asleep (the
// sleeping locks, wait queues, completions), a runtime wait such as a
// buffer-head or freeze wait, a contended spin lock.  A hang is at least
// one blocked task and no progress for the timeout (20 s by default,
// EMU_HANG_TIMEOUT=<seconds>, or emu::set_hang_timeout()): a test that is
// idle, or busy without waiting, is never reported.  The watchdog is a
// host thread of its own, started the first time a task blocks.
#include <unistd.h>

#include <algorithm>
#include <sstream>

#include "lockdep.hpp"

namespace emu {

namespace {

std::atomic<unsigned long> g_progress{0};
std::atomic<int> g_blocked{0};
std::atomic<long> g_timeout_ms{-1};
std::atomic<pid_t> g_watchdog_pid{0};

struct HangState {
	std::mutex m;   // the tasks' blocked fields; starting the watchdog
};

HangState &hs()
{
	static HangState *s = new HangState;   // used by a detached thread
	return *s;
}

long timeout_ms()
{
	long ms = g_timeout_ms.load();
	if (ms >= 0)
		return ms;
	ms = 20000;
	if (const char *v = std::getenv("EMU_HANG_TIMEOUT"))
		ms = std::atol(v) * 1000;
	long unset = -1;
	g_timeout_ms.compare_exchange_strong(unset, ms);
	return g_timeout_ms.load();
}

const char *state_str(long state)
{
	if (state == TASK_RUNNING)
		return "running";
	if (state & TASK_DEAD)
		return "dead";
	if (state & TASK_INTERRUPTIBLE)
		return "sleeping (interruptible)";
	if (state & TASK_UNINTERRUPTIBLE)
		return "sleeping (uninterruptible)";
	return "stopped";
}

[[noreturn]] void report_hang(long waited_ms)
{
	Invisible inv;
	std::ostringstream os;
	Site first{};
	int blocked = 0;
	{
		std::lock_guard lk(hs().m);
		for (emu_task *t : all_tasks()) {
			if (t->blocked && !first.line) {
				first = t->blocked_site;
			}
			if (t->blocked)
				os << "INFO: task " << t->task.comm << ":"
				   << t->task.pid << " blocked for more than "
				   << waited_ms / 1000 << " seconds.\n";
		}
		os << "\nevery task:\n";
		for (emu_task *t : all_tasks()) {
			long state = t->task.state;
			if ((state & TASK_DEAD) || t->finished.load())
				continue;
			os << "  " << t->task.comm << "/" << t->task.pid
			   << ": ";
			if (t->blocked) {
				blocked++;
				os << "blocked waiting for " << t->blocked_what;
				if (t->blocked_site.line)
					os << " at " << to_string(t->blocked_site);
			} else {
				os << state_str(state);
			}
			os << "\n" << lockdep::held_by(t);
			if (t->task.lock_depth >= 0)
				os << "      holds the big kernel lock\n";
		}
	}
	std::fprintf(stderr, "\n%s", os.str().c_str());
	std::fflush(stderr);
	violation(first, "hang: no emulated task made progress for " +
		  std::to_string(waited_ms / 1000) + " s with " +
		  std::to_string(blocked) + " task(s) blocked");
}

void watchdog()
{
	unsigned long last = g_progress.load();
	auto since = std::chrono::steady_clock::now();
	for (;;) {
		long limit = timeout_ms();
		auto poll = std::chrono::milliseconds(
			std::clamp(limit / 8, 10L, 500L));
		std::this_thread::sleep_for(poll);
		auto now = std::chrono::steady_clock::now();
		unsigned long p = g_progress.load();
		if (p != last || g_blocked.load() == 0) {
			last = p;
			since = now;
			continue;
		}
		auto waited = std::chrono::duration_cast<
			std::chrono::milliseconds>(now - since).count();
		if (waited >= limit)
			report_hang(waited);
	}
}

void start_watchdog()
{
	pid_t me = getpid();
	if (g_watchdog_pid.load() == me)
		return;
	Invisible inv;
	std::lock_guard lk(hs().m);
	if (g_watchdog_pid.load() == me)
		return;
	std::thread(watchdog).detach();
	g_watchdog_pid.store(me);
}

}  // namespace

void set_hang_timeout(std::chrono::milliseconds timeout)
{
	g_timeout_ms.store(static_cast<long>(timeout.count()));
}

namespace lockdep {

void note_progress()
{
	g_progress.fetch_add(1, std::memory_order_relaxed);
}

Blocked::Blocked(Site site, std::string what)
{
	emu_task *t = cur();
	{
		Invisible inv;
		std::lock_guard lk(hs().m);
		if (t->blocked++ == 0) {
			t->blocked_site = site;
			t->blocked_what = std::move(what);
			g_blocked.fetch_add(1, std::memory_order_relaxed);
		}
	}
	start_watchdog();
}

Blocked::~Blocked()
{
	emu_task *t = cur();
	{
		Invisible inv;
		std::lock_guard lk(hs().m);
		if (--t->blocked == 0)
			g_blocked.fetch_sub(1, std::memory_order_relaxed);
	}
	note_progress();
}

}  // namespace lockdep

}  // namespace emu
