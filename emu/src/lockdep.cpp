// The lock validator, after 2.6.27's lockdep (kernel/lockdep.c).
//
// Classes.  Every lock belongs to a class: the site that initialised it
// (spin_lock_init, rwlock_init, mutex_init, init_rwsem, sema_init, or a
// static initialiser such as DEFINE_SPINLOCK or DECLARE_MUTEX), as
// lockdep's static lock_class_key per initialisation site.  A lock that is
// all-zero memory (a kzalloc'ed record: an unlocked spin lock on x86) or
// that the runtime initialised without a site is classed at the site of
// its first acquisition.  The _nested forms add a subclass.
//
// What is checked, at each acquisition (before the task blocks on the
// lock, so a deadlock is reported instead of hanging):
//   - recursion: taking a lock of a class the task already holds
//     ("possible recursive locking detected"); rwlock_t readers may nest,
//     rw_semaphore readers may not (a down_read behind which a writer
//     queues never gets in), so a recursive down_read is always reported;
//   - lock order: the graph of "held A while taking B" between classes; an
//     acquisition whose new dependency closes a cycle is reported with the
//     new dependency and the existing chain, each link with both sites
//     ("possible circular locking dependency detected").  A trylock adds no
//     dependency (it cannot wait), but a lock it took orders later ones;
//   - interrupt safety (spin and rw locks): a class taken in hard- or
//     soft-interrupt context and taken with interrupts (bottom halves)
//     enabled is reported the first time the second usage appears, with
//     both sites ("inconsistent lock state", "inconsistent {IN-HARDIRQ-W}
//     -> {HARDIRQ-ON-W} usage"), whether or not the interrupt came.
//     Turning interrupts on while holding a lock counts as taking it with
//     interrupts on, as lockdep's mark_held_locks;
//   - interrupt-safe before interrupt-unsafe: a dependency (direct or along
//     a chain) from a lock taken in interrupt context to one taken with
//     interrupts on, reported when the dependency appears ("HARDIRQ-safe
//     -> HARDIRQ-unsafe lock order detected") or when the usage that
//     completes it appears ("possible irq lock inversion dependency
//     detected");
//   - local_irq_enable (spin_unlock_irq) inside a local_irq_save
//     (spin_lock_irqsave) region (context.cpp calls irqs_enabled).
//
// Semaphores.  2.6.27 does not validate semaphores at all; here a
// semaphore initialised to 1 is ordered like a mutex for as long as it is
// used as one: every up() comes from the task that took it.  The first
// up() by a task that does not hold it (the driver's signalThread, which
// starts at 1 and wakes the cache thread; bd_mount_sem, which a freeze
// takes and the thaw, maybe another task, gives back) turns its whole class
// into a signal: its dependencies are dropped and it is never ordered
// again.  A semaphore initialised to another count is a signal from the
// start, and completions are never ordered.  A task that downs a semaphore
// it already holds is not reported: it waits for another task's up() (a
// signal), and if none comes the hang watchdog reports it.
//
// Cost: a class is an index; the already-validated (prev, next) pairs are
// a hash set, so a dependency is searched for cycles once, when it first
// appears; the usage bits are a mask tested before anything else.  The
// validator's data is guarded by its own mutex, invisible to
// ThreadSanitizer like the rest of the runtime's bookkeeping.
#include <cstdlib>
#include <deque>
#include <sstream>
#include <unordered_set>

#include "lockdep.hpp"

namespace emu::lockdep {

namespace {

enum Usage {
	InHardirq, InSoftirq, HardirqOn, SoftirqOn,
	InHardirqR, InSoftirqR, HardirqOnR, SoftirqOnR,
	Usage_
};

const char *const usage_str[Usage_] = {
	"IN-HARDIRQ-W", "IN-SOFTIRQ-W", "HARDIRQ-ON-W", "SOFTIRQ-ON-W",
	"IN-HARDIRQ-R", "IN-SOFTIRQ-R", "HARDIRQ-ON-R", "SOFTIRQ-ON-R",
};

// The usages that may not coexist with each one (lockdep's mark_lock_irq):
// a write usage in interrupt context excludes any usage with interrupts
// on, a read usage in interrupt context excludes only writers with
// interrupts on (readers share).
unsigned conflicts(Usage u)
{
	switch (u) {
	case InHardirq: return 1u << HardirqOn | 1u << HardirqOnR;
	case InSoftirq: return 1u << SoftirqOn | 1u << SoftirqOnR;
	case InHardirqR: return 1u << HardirqOn;
	case InSoftirqR: return 1u << SoftirqOn;
	case HardirqOn: return 1u << InHardirq | 1u << InHardirqR;
	case SoftirqOn: return 1u << InSoftirq | 1u << InSoftirqR;
	case HardirqOnR: return 1u << InHardirq;
	case SoftirqOnR: return 1u << InSoftirq;
	default: return 0;
	}
}

struct Class {
	std::string name;          // the initialising expression
	Site key;                  // initialisation (or first acquisition) site
	bool by_first_use = false; // classed at its first acquisition
	Type type = Type::Spin;
	int subclass = 0;
	bool signal = false;       // a semaphore used as a signal
	unsigned usage = 0;
	Site usage_site[Usage_];
	std::string usage_task[Usage_];
	std::vector<int> after;    // dependencies: held this, then took those
	std::vector<int> before;   // the reverse: held those, then took this
};

// A dependency prev -> next, where it was first seen.
struct Edge {
	Site prev_site;   // where prev was taken
	Site next_site;   // where next was taken while prev was held
	std::string task;
};

struct State {
	std::mutex m;
	std::deque<Class> classes{Class{}};   // index 0: no class
	std::unordered_map<std::string, int> by_key;
	std::unordered_map<std::uint64_t, int> subclasses;
	std::unordered_map<std::uint64_t, Edge> edges;   // the validated pairs
	std::vector<emu_task *> tasks;                   // with a stack
};

State &st()
{
	static State *s = new State;   // used until exit, by every thread
	return *s;
}

std::uint64_t pair_key(int a, int b)
{
	return static_cast<std::uint64_t>(static_cast<std::uint32_t>(a)) << 32 |
		static_cast<std::uint32_t>(b);
}

const char *type_name(Type t)
{
	switch (t) {
	case Type::Spin: return "spin lock";
	case Type::Rwlock: return "rwlock";
	case Type::Mutex: return "mutex";
	case Type::Rwsem: return "rw_semaphore";
	case Type::Sem: return "semaphore";
	}
	return "lock";
}

std::string task_name(const emu_task *t)
{
	return std::string(t->task.comm) + "/" + std::to_string(t->task.pid);
}

// "(&b->mrLock){spin lock, core/kivlib.c:132}"
std::string class_str(int c)
{
	const Class &cl = st().classes[static_cast<std::size_t>(c)];
	std::string s = "(" + (cl.name.empty() ? std::string("?") : cl.name);
	if (cl.subclass)
		s += "/" + std::to_string(cl.subclass);
	s += "){";
	s += type_name(cl.type);
	s += cl.by_first_use ? ", first taken at " : ", initialised at ";
	s += to_string(cl.key) + "}";
	return s;
}

// State lock held.
int class_for(Type type, const char *name, Site key, bool by_first_use)
{
	State &s = st();
	std::string k = to_string(key) + "|" + (name ? name : "") + "|" +
		std::to_string(static_cast<int>(type)) +
		(by_first_use ? "|first" : "");
	auto it = s.by_key.find(k);
	if (it != s.by_key.end())
		return it->second;
	Class cl;
	cl.name = name ? name : "";
	cl.key = key;
	cl.by_first_use = by_first_use;
	cl.type = type;
	s.classes.push_back(std::move(cl));
	int id = static_cast<int>(s.classes.size() - 1);
	s.by_key.emplace(std::move(k), id);
	return id;
}

// The class of a lock, registering it on first use.  State lock held.
int resolve(emu_lock_key *key, Type type, Site acquired_at)
{
	int c = __atomic_load_n(&key->cls, __ATOMIC_RELAXED);
	if (c > 0)
		return c;
	if (key->file)
		c = class_for(type, key->name, site(key->file, key->line),
			      false);
	else
		c = class_for(type, nullptr, acquired_at, true);
	if (key->flags & EMU_LOCK_KEY_SIGNAL)
		st().classes[static_cast<std::size_t>(c)].signal = true;
	__atomic_store_n(&key->cls, c, __ATOMIC_RELAXED);
	return c;
}

int subclass_of(int base, int subclass)
{
	State &s = st();
	auto k = pair_key(base, subclass);
	auto it = s.subclasses.find(k);
	if (it != s.subclasses.end())
		return it->second;
	Class cl = s.classes[static_cast<std::size_t>(base)];
	cl.subclass = subclass;
	cl.usage = 0;
	cl.after.clear();
	cl.before.clear();
	s.classes.push_back(std::move(cl));
	int id = static_cast<int>(s.classes.size() - 1);
	s.subclasses.emplace(k, id);
	return id;
}

Class &cls(int c)
{
	return st().classes[static_cast<std::size_t>(c)];
}

void register_task(emu_task *t)
{
	if (!t->ld_registered) {
		t->ld_registered = true;
		st().tasks.push_back(t);
	}
}

std::string held_list(const emu_task *t)
{
	std::ostringstream os;
	std::size_t n = 0;
	for (auto &h : t->ld_held)
		if (!cls(h.cls).signal)
			n++;
	os << n << " lock" << (n == 1 ? "" : "s") << " held by "
	   << task_name(t) << ":\n";
	int i = 0;
	for (auto &h : t->ld_held) {
		if (cls(h.cls).signal)
			continue;
		os << " #" << i++ << ": " << class_str(h.cls) << " "
		   << h.lock << (h.read ? " (read)" : "")
		   << (h.trylock ? " (trylock)" : "") << ", taken at "
		   << to_string(h.site) << "\n";
	}
	return os.str();
}

[[noreturn]] void report(const std::string &headline, const std::string &body,
			 Site s)
{
	std::string rule(headline.size() + 10, '=');
	std::string dash(headline.size() + 10, '-');
	std::fprintf(stderr, "\n%s\n[ INFO: %s ]\n%s\n%s\n", rule.c_str(),
		     headline.c_str(), dash.c_str(), body.c_str());
	std::fflush(stderr);
	violation(s, headline);
}

[[noreturn]] void report_recursive(emu_task *t, const emu_held_lock &held,
				   int c, const void *lock, Read read,
				   Site s)
{
	std::ostringstream os;
	os << task_name(t) << " is trying to acquire lock:\n " << class_str(c)
	   << " " << lock << (read ? " (read)" : "") << ", at "
	   << to_string(s) << "\n\nbut task is already holding lock:\n "
	   << class_str(held.cls) << " " << held.lock
	   << (held.read ? " (read)" : "") << ", taken at "
	   << to_string(held.site) << "\n";
	if (held.lock == lock && read == Shared && held.read == Shared)
		os << "\na second down_read of a rw_semaphore the task holds "
		      "for reading waits forever as soon as a writer queues "
		      "between the two\n";
	else if (held.lock != lock)
		os << "\nboth locks are of one class (one initialisation "
		      "site): two tasks taking them in opposite orders "
		      "deadlock\n";
	os << "\nother info that might help us debug this:\n" << held_list(t);
	report("possible recursive locking detected", os.str(), s);
}

// The classes from `from` to `to` along dependencies (both included), or
// empty when `to` cannot be reached.
std::vector<int> find_path(int from, int to)
{
	std::unordered_map<int, int> parent{{from, 0}};
	std::vector<int> queue{from};
	for (std::size_t i = 0; i < queue.size(); i++) {
		int c = queue[i];
		if (c == to) {
			std::vector<int> path;
			for (int x = to; x; x = parent[x])
				path.insert(path.begin(), x);
			return path;
		}
		for (int n : cls(c).after)
			if (parent.emplace(n, c).second)
				queue.push_back(n);
	}
	return {};
}

[[noreturn]] void report_circular(emu_task *t, const emu_held_lock &held,
				  int next, const void *lock,
				  const std::vector<int> &chain, Site s)
{
	State &state = st();
	std::ostringstream os;
	os << task_name(t) << " is trying to acquire lock:\n "
	   << class_str(next) << " " << lock << ", at " << to_string(s)
	   << "\n\nbut task is already holding lock:\n "
	   << class_str(held.cls) << " " << held.lock << ", taken at "
	   << to_string(held.site)
	   << "\n\nwhich lock already depends on the new lock.\n"
	   << "\nthe existing dependency chain is:\n";
	for (std::size_t i = 0; i + 1 < chain.size(); i++) {
		const Edge &e = state.edges.at(pair_key(chain[i], chain[i + 1]));
		os << "-> #" << i << " " << class_str(chain[i])
		   << " taken at " << to_string(e.prev_site) << ",\n      then "
		   << class_str(chain[i + 1]) << " taken at "
		   << to_string(e.next_site) << " (by " << e.task << ")\n";
	}
	os << "\nand now " << task_name(t) << " holds "
	   << class_str(held.cls) << " (taken at " << to_string(held.site)
	   << ") and takes " << class_str(next) << " at " << to_string(s)
	   << ": tasks taking these locks along the two chains deadlock\n"
	   << "\nother info that might help us debug this:\n" << held_list(t);
	report("possible circular locking dependency detected", os.str(), s);
}

// The first class reachable from `start` (itself included), along
// dependencies forwards or backwards, with a usage in `mask`; 0 if none.
int find_usage(int start, unsigned mask, bool forwards)
{
	std::unordered_set<int> seen{start};
	std::vector<int> queue{start};
	for (std::size_t i = 0; i < queue.size(); i++) {
		int c = queue[i];
		if (cls(c).usage & mask)
			return c;
		for (int n : forwards ? cls(c).after : cls(c).before)
			if (seen.insert(n).second)
				queue.push_back(n);
	}
	return 0;
}

const char *irq_name(bool hard)
{
	return hard ? "HARDIRQ" : "SOFTIRQ";
}

std::string usage_of(int c, unsigned mask)
{
	const Class &cl = cls(c);
	int u = __builtin_ctz(cl.usage & mask);
	return std::string("{") + usage_str[u] + "} state registered at " +
		to_string(cl.usage_site[u]) + " (by " + cl.usage_task[u] + ")";
}

unsigned in_irq_mask(bool hard)
{
	return hard ? (1u << InHardirq | 1u << InHardirqR)
		: (1u << InSoftirq | 1u << InSoftirqR);
}

unsigned irq_on_mask(bool hard)
{
	return 1u << (hard ? HardirqOn : SoftirqOn);
}

// lockdep's "irq-safe -> irq-unsafe": a lock taken in interrupt context
// (irq-safe) is held, directly or along a chain, while a lock is taken
// that elsewhere is taken with interrupts on (irq-unsafe).  The interrupt
// can come while another task holds the unsafe lock with interrupts on,
// and spin on the safe one held by a task that waits for the unsafe one.
[[noreturn]] void report_irq_dependency(emu_task *t, const emu_held_lock &prev,
					int next, const void *lock, bool hard,
					int safe, int unsafe, Site s)
{
	std::string irq = irq_name(hard);
	std::ostringstream os;
	os << task_name(t) << " is trying to acquire:\n " << class_str(next)
	   << " " << lock << ", at " << to_string(s)
	   << "\n\nand this task is already holding:\n "
	   << class_str(prev.cls) << " " << prev.lock << ", taken at "
	   << to_string(prev.site)
	   << "\nwhich would create a new lock dependency:\n "
	   << class_str(prev.cls) << " -> " << class_str(next)
	   << "\n\nbut this new dependency connects a " << irq
	   << "-irq-safe lock:\n " << class_str(safe) << "\n "
	   << usage_of(safe, in_irq_mask(hard)) << "\n\nto a " << irq
	   << "-irq-unsafe lock:\n " << class_str(unsafe) << "\n "
	   << usage_of(unsafe, irq_on_mask(hard))
	   << "\n\nother info that might help us debug this:\n"
	   << held_list(t);
	report(irq + "-safe -> " + irq + "-unsafe lock order detected",
	       os.str(), s);
}

// Class `c` just got usage `u`: does a dependency now lead from an
// irq-safe lock to an irq-unsafe one?
void check_inversion(emu_task *t, int c, const void *lock, Usage u, Site s)
{
	bool hard;
	bool safe_side;
	switch (u) {
	case InHardirq: case InHardirqR: hard = true; safe_side = true; break;
	case InSoftirq: case InSoftirqR: hard = false; safe_side = true; break;
	case HardirqOn: hard = true; safe_side = false; break;
	case SoftirqOn: hard = false; safe_side = false; break;
	default: return;
	}
	int other = safe_side ? find_usage(c, irq_on_mask(hard), true)
		: find_usage(c, in_irq_mask(hard), false);
	if (!other || other == c)
		return;
	std::string irq = irq_name(hard);
	std::ostringstream os;
	os << task_name(t) << " takes:\n " << class_str(c) << " " << lock
	   << ", at " << to_string(s) << ", so it becomes " << irq
	   << (safe_side ? "-irq-safe" : "-irq-unsafe") << " ({"
	   << usage_str[u] << "})\n\nbut "
	   << (safe_side ? "it already orders the " : "it is already ordered "
		   "after the ") << irq
	   << (safe_side ? "-irq-unsafe lock:\n " : "-irq-safe lock:\n ")
	   << class_str(other) << "\n "
	   << usage_of(other, safe_side ? irq_on_mask(hard)
		       : in_irq_mask(hard))
	   << "\n\nan interrupt can come while a task holds the unsafe lock "
	      "with interrupts on, and spin on the safe one held by a task "
	      "that waits for the unsafe one\n"
	   << "\nother info that might help us debug this:\n" << held_list(t);
	report("possible irq lock inversion dependency detected", os.str(), s);
}

// Records usage `u` of class `c` (taken at `s`); reports an inconsistent
// state.  State lock held.
void mark(emu_task *t, int c, const void *lock, Usage u, Site s)
{
	Class &cl = cls(c);
	if (cl.usage & (1u << u))
		return;
	unsigned bad = cl.usage & conflicts(u);
	if (bad) {
		int prev = __builtin_ctz(bad);
		std::ostringstream os;
		os << "inconsistent {" << usage_str[prev] << "} -> {"
		   << usage_str[u] << "} usage.\n"
		   << task_name(t) << " [HC" << (t->hardirq_depth > 0)
		   << ":SC" << (t->softirq_depth > 0) << ":HE"
		   << !t->irqs_off << ":SE" << (t->bh_depth == 0)
		   << "] takes:\n " << class_str(c) << " " << lock << ", at "
		   << to_string(s) << "\n{" << usage_str[prev]
		   << "} state was registered at:\n "
		   << to_string(cl.usage_site[prev]) << " (by "
		   << cl.usage_task[prev] << ")\n"
		   << "\nan interrupt taking this lock while it is held with "
		      "interrupts enabled deadlocks the processor on itself\n"
		   << "\nother info that might help us debug this:\n"
		   << held_list(t);
		report("inconsistent lock state", os.str(), s);
	}
	cl.usage |= 1u << u;
	cl.usage_site[u] = s;
	cl.usage_task[u] = task_name(t);
	check_inversion(t, c, lock, u, s);
}

void mark_usage(emu_task *t, int c, const void *lock, bool read,
		bool trylock, Site s)
{
	unsigned want = 0;
	bool hardirq = t->hardirq_depth > 0;
	bool softirq = t->softirq_depth > 0;
	bool irqs_on = !t->irqs_off;
	bool bh_on = t->bh_depth == 0;
	if (!trylock && hardirq)
		want |= 1u << (read ? InHardirqR : InHardirq);
	if (!trylock && softirq)
		want |= 1u << (read ? InSoftirqR : InSoftirq);
	if (irqs_on) {
		want |= 1u << (read ? HardirqOnR : HardirqOn);
		if (bh_on)
			want |= 1u << (read ? SoftirqOnR : SoftirqOn);
	}
	if ((cls(c).usage & want) == want)
		return;
	for (int u = 0; u < Usage_; u++)
		if (want & (1u << u))
			mark(t, c, lock, static_cast<Usage>(u), s);
}

bool irq_class(int c)
{
	Type type = cls(c).type;
	return type == Type::Spin || type == Type::Rwlock;
}

// prev (held) -> next (being taken).  State lock held.
void add_dependency(emu_task *t, const emu_held_lock &prev, int next,
		    const void *lock, Site s)
{
	State &state = st();
	auto k = pair_key(prev.cls, next);
	if (state.edges.count(k))
		return;
	auto chain = find_path(next, prev.cls);
	if (!chain.empty())
		report_circular(t, prev, next, lock, chain, s);
	for (bool hard : {true, false}) {
		int safe = find_usage(prev.cls, in_irq_mask(hard), false);
		if (!safe)
			continue;
		int unsafe = find_usage(next, irq_on_mask(hard), true);
		if (unsafe)
			report_irq_dependency(t, prev, next, lock, hard, safe,
					      unsafe, s);
	}
	state.edges.emplace(k, Edge{prev.site, s, task_name(t)});
	cls(prev.cls).after.push_back(next);
	cls(next).before.push_back(prev.cls);
}

// The class becomes a signal: forget its dependencies and held entries.
void make_signal(int c)
{
	State &state = st();
	Class &cl = cls(c);
	cl.signal = true;
	cl.after.clear();
	cl.before.clear();
	for (auto it = state.edges.begin(); it != state.edges.end();) {
		int a = static_cast<int>(it->first >> 32);
		int b = static_cast<int>(it->first & 0xffffffffu);
		if (a == c || b == c)
			it = state.edges.erase(it);
		else
			++it;
	}
	for (auto &other : state.classes) {
		std::erase(other.after, c);
		std::erase(other.before, c);
	}
	for (auto *t : state.tasks)
		std::erase_if(t->ld_held,
			      [c](const emu_held_lock &h) { return h.cls == c; });
}

bool remove_held(emu_task *t, const void *lock)
{
	for (auto it = t->ld_held.rbegin(); it != t->ld_held.rend(); ++it) {
		if (it->lock == lock) {
			t->ld_held.erase(std::next(it).base());
			return true;
		}
	}
	return false;
}

// EMU_LOCKDEP=graph: at exit, every class with its usage and the
// dependencies it orders (to see what a run validated).
void print_graph()
{
	State &state = st();
	Invisible inv;
	std::lock_guard lk(state.m);
	std::fprintf(stderr, "lock validator: %zu classes\n",
		     state.classes.size() - 1);
	for (std::size_t c = 1; c < state.classes.size(); c++) {
		const Class &cl = state.classes[c];
		std::string usage;
		for (int u = 0; u < Usage_; u++)
			if (cl.usage & (1u << u))
				usage += std::string(usage.empty() ? "" : " ") +
					usage_str[u];
		std::fprintf(stderr, "%s%s {%s}\n",
			     class_str(static_cast<int>(c)).c_str(),
			     cl.signal ? " signal" : "", usage.c_str());
		for (int n : cl.after)
			std::fprintf(stderr, "  -> %s\n", class_str(n).c_str());
	}
}

}  // namespace

bool enabled()
{
	static const bool on = [] {
		const char *v = std::getenv("EMU_LOCKDEP");
		if (v && std::strcmp(v, "graph") == 0)
			std::atexit(print_graph);
		return !(v && std::strcmp(v, "0") == 0);
	}();
	return on;
}

void init_key(emu_lock_key *key, Type type, const char *name,
	      const char *file, int line, int flags)
{
	key->flags = flags;
	key->name = name;
	key->file = file;
	key->line = line;
	key->cls = 0;
	if (!enabled() || !file)
		return;
	Invisible inv;
	std::lock_guard lk(st().m);
	resolve(key, type, Site{});
}

void acquire(const void *lock, emu_lock_key *key, Type type, Read read,
	     bool trylock, int subclass, Site s)
{
	if (!enabled())
		return;
	emu_task *t = cur();
	Invisible inv;
	std::lock_guard lk(st().m);
	int c = resolve(key, type, s);
	if (subclass)
		c = subclass_of(c, subclass);
	if (cls(c).signal)
		return;
	register_task(t);
	if (irq_class(c))
		mark_usage(t, c, lock, read != Exclusive, trylock, s);
	if (!trylock) {
		for (auto &h : t->ld_held) {
			if (h.cls != c)
				continue;
			if (read == Recursive && h.read == Recursive)
				continue;
			if (type == Type::Sem && h.lock == lock)
				continue;
			report_recursive(t, h, c, lock, read, s);
		}
		// Each held lock orders the new one (a trylock-taken one
		// too); the new one orders nothing yet.
		for (std::size_t i = 0; i < t->ld_held.size(); i++) {
			emu_held_lock h = t->ld_held[i];
			if (h.cls != c)
				add_dependency(t, h, c, lock, s);
		}
	}
	t->ld_held.push_back(emu_held_lock{lock, c, read, trylock, s});
}

void downgrade(const void *lock)
{
	if (!enabled())
		return;
	emu_task *t = cur();
	Invisible inv;
	std::lock_guard lk(st().m);
	for (auto &h : t->ld_held)
		if (h.lock == lock)
			h.read = Shared;
}

void release(const void *lock, Site s)
{
	(void)s;
	note_progress();
	if (!enabled())
		return;
	emu_task *t = cur();
	Invisible inv;
	std::lock_guard lk(st().m);
	if (remove_held(t, lock))
		return;
	// A rw_semaphore handed back by another task.
	for (auto *other : st().tasks)
		if (remove_held(other, lock))
			return;
}

void sem_up(const void *sem, emu_lock_key *key, Site s)
{
	note_progress();
	if (!enabled())
		return;
	emu_task *t = cur();
	Invisible inv;
	std::lock_guard lk(st().m);
	int c = resolve(key, Type::Sem, s);
	if (cls(c).signal)
		return;
	if (remove_held(t, sem))
		return;
	make_signal(c);
}

void irqsave_enter(Site s)
{
	emu_task *t = cur();
	if (t->irqsave_depth++ == 0)
		t->irqsave_site = s;
}

void irqsave_exit()
{
	emu_task *t = cur();
	if (t->irqsave_depth > 0)
		t->irqsave_depth--;
}

void irqs_enabled(Site s, bool in_region_is_bug)
{
	emu_task *t = cur();
	if (in_region_is_bug && t->irqsave_depth > 0 && enabled()) {
		std::ostringstream os;
		os << task_name(t) << " turns interrupts on at " << to_string(s)
		   << " (spin_unlock_irq or local_irq_enable)\n"
		   << "inside the region that local_irq_save (spin_lock_irqsave) "
		      "opened at " << to_string(t->irqsave_site) << "\n"
		   << "\nthe code that saved the flags expects interrupts to "
		      "stay off until it restores them: an interrupt can now "
		      "take a lock its caller holds\n";
		{
			Invisible inv;
			std::lock_guard lk(st().m);
			os << "\nother info that might help us debug this:\n"
			   << held_list(t);
		}
		report("interrupts enabled inside an irqsave region", os.str(),
		       s);
	}
	if (!enabled())
		return;
	// Interrupts come on with these locks held: as if taken so.
	Invisible inv;
	std::lock_guard lk(st().m);
	for (std::size_t i = 0; i < t->ld_held.size(); i++) {
		emu_held_lock h = t->ld_held[i];
		if (!irq_class(h.cls) || cls(h.cls).signal)
			continue;
		mark(t, h.cls, h.lock, h.read ? HardirqOnR : HardirqOn, s);
		if (t->bh_depth == 0)
			mark(t, h.cls, h.lock, h.read ? SoftirqOnR : SoftirqOn,
			     s);
	}
}

void softirqs_enabled(Site s)
{
	emu_task *t = cur();
	if (!enabled() || t->irqs_off)
		return;
	Invisible inv;
	std::lock_guard lk(st().m);
	for (std::size_t i = 0; i < t->ld_held.size(); i++) {
		emu_held_lock h = t->ld_held[i];
		if (irq_class(h.cls) && !cls(h.cls).signal)
			mark(t, h.cls, h.lock, h.read ? SoftirqOnR : SoftirqOn,
			     s);
	}
}

std::string describe_lock(const char *kind, const void *lock,
			  const emu_lock_key *key)
{
	std::ostringstream os;
	os << kind << " ";
	if (key && key->name)
		os << key->name << " ";
	os << lock;
	if (key && key->file)
		os << " (initialised at " << to_string(site(key->file, key->line))
		   << ")";
	return os.str();
}

// For the hang watchdog: the locks the task holds, one per line.
std::string held_by(const emu_task *t)
{
	if (!enabled())
		return {};
	Invisible inv;
	std::lock_guard lk(st().m);
	std::ostringstream os;
	for (auto &h : t->ld_held)
		if (!cls(h.cls).signal)
			os << "      holds " << class_str(h.cls) << " " << h.lock
			   << (h.read ? " (read)" : "") << ", taken at "
			   << to_string(h.site) << "\n";
	return os.str();
}

// Back to user space.  A semaphore a task still holds here is a hand-over
// between tasks, not a lock (a lock held on return to user space is what
// lockdep reports as a bug): the driver's start takes signalThread and
// the cache thread gives it back when it exits.  Its class becomes a
// signal, as an up() by another task would make it.
void syscall_exit()
{
	if (!enabled())
		return;
	emu_task *t = cur();
	Invisible inv;
	std::lock_guard lk(st().m);
	std::vector<int> sems;
	for (const auto &h : t->ld_held)
		if (cls(h.cls).type == Type::Sem && !cls(h.cls).signal)
			sems.push_back(h.cls);
	for (int c : sems)
		make_signal(c);
}

}  // namespace emu::lockdep
