// Violations, failure injection, and the accounting of every object the
// emulated kernel hands out (usage(), leaks(), test_problems()).
#include <algorithm>
#include <array>
#include <sstream>

#include "core.hpp"

#if defined(__SANITIZE_THREAD__)
extern "C" {
void AnnotateIgnoreSyncBegin(const char *file, int line);
void AnnotateIgnoreSyncEnd(const char *file, int line);
void AnnotateIgnoreReadsBegin(const char *file, int line);
void AnnotateIgnoreReadsEnd(const char *file, int line);
void AnnotateIgnoreWritesBegin(const char *file, int line);
void AnnotateIgnoreWritesEnd(const char *file, int line);
}
#endif

namespace emu {

Invisible::Invisible()
{
#if defined(__SANITIZE_THREAD__)
	AnnotateIgnoreSyncBegin(__FILE__, __LINE__);
	AnnotateIgnoreReadsBegin(__FILE__, __LINE__);
	AnnotateIgnoreWritesBegin(__FILE__, __LINE__);
#endif
}

Invisible::~Invisible()
{
#if defined(__SANITIZE_THREAD__)
	AnnotateIgnoreWritesEnd(__FILE__, __LINE__);
	AnnotateIgnoreReadsEnd(__FILE__, __LINE__);
	AnnotateIgnoreSyncEnd(__FILE__, __LINE__);
#endif
}

// ---- call sites --------------------------------------------------------------

const char *short_path(const char *file)
{
	if (!file)
		return "?";
	// This file is <root>/emu/src/account.cpp: strip <root>/.
	static const std::string root = [] {
		std::string me = __FILE__;
		auto pos = me.rfind("emu/src/");
		return pos == std::string::npos ? std::string() : me.substr(0, pos);
	}();
	if (!root.empty() && std::strncmp(file, root.c_str(), root.size()) == 0)
		return file + root.size();
	return file;
}

Site site(const char *file, int line)
{
	return Site{short_path(file), line};
}

std::string to_string(Site s)
{
	return std::string(short_path(s.file)) + ":" + std::to_string(s.line);
}

void violation(Site s, const std::string &what)
{
	std::fprintf(stderr, "EMU VIOLATION: %s at %s\n", what.c_str(),
		     to_string(s).c_str());
	std::fflush(stderr);
	std::abort();
}

// ---- failure injection -----------------------------------------------------------

namespace {

struct FaultState {
	unsigned long calls = 0;
	unsigned long nth = 0;       // absolute call index that fails, 0: none
	unsigned long after = 0;     // calls beyond this index fail
	bool after_on = false;
};

std::mutex g_fault_mutex;
std::array<FaultState, static_cast<size_t>(Alloc::Count_)> g_fault;

FaultState &fault(Alloc kind)
{
	return g_fault[static_cast<size_t>(kind)];
}

}  // namespace

bool inject_failure(Alloc kind)
{
	Invisible inv;
	std::lock_guard lk(g_fault_mutex);
	FaultState &f = fault(kind);
	unsigned long idx = ++f.calls;
	if (f.nth && idx == f.nth) {
		f.nth = 0;
		return true;
	}
	return f.after_on && idx > f.after;
}

void fail_nth(Alloc kind, unsigned n)
{
	Invisible inv;
	std::lock_guard lk(g_fault_mutex);
	FaultState &f = fault(kind);
	f.nth = n ? f.calls + n : 0;
}

void fail_after(Alloc kind, unsigned n)
{
	Invisible inv;
	std::lock_guard lk(g_fault_mutex);
	FaultState &f = fault(kind);
	f.after = f.calls + n;
	f.after_on = true;
}

void fail_clear(Alloc kind)
{
	Invisible inv;
	std::lock_guard lk(g_fault_mutex);
	FaultState &f = fault(kind);
	f.nth = 0;
	f.after_on = false;
}

void fail_reset()
{
	for (size_t i = 0; i < static_cast<size_t>(Alloc::Count_); i++)
		fail_clear(static_cast<Alloc>(i));
}

unsigned long alloc_calls(Alloc kind)
{
	Invisible inv;
	std::lock_guard lk(g_fault_mutex);
	return fault(kind).calls;
}

FailScope FailScope::nth(Alloc kind, unsigned n)
{
	fail_nth(kind, n);
	return FailScope(kind);
}

FailScope FailScope::after(Alloc kind, unsigned n)
{
	fail_after(kind, n);
	return FailScope(kind);
}

FailScope::FailScope(FailScope &&other) noexcept
	: kind_(other.kind_), active_(other.active_)
{
	other.active_ = false;
}

FailScope::~FailScope()
{
	if (active_)
		fail_clear(kind_);
}

// ---- accounting ----------------------------------------------------------------------

namespace {

struct Record {
	long bytes;
	Site site;
	std::string what;
	unsigned long seq;   // allocation order, for stable reports
};

struct Registry {
	std::mutex m;
	std::array<std::unordered_map<const void *, Record>,
		   static_cast<size_t>(Obj::Count_)> objs;
	std::array<long, static_cast<size_t>(Obj::Count_)> bytes{};
	unsigned long seq = 0;
};

Registry &reg()
{
	static Registry *r = new Registry;   // outlives every static user
	return *r;
}

const char *default_what(Obj kind)
{
	switch (kind) {
	case Obj::Kmalloc: return "kmalloc";
	case Obj::Vmalloc: return "vmalloc";
	case Obj::Page: return "pages";
	case Obj::SlabCache: return "slab cache";
	case Obj::SlabObject: return "slab object";
	case Obj::Bio: return "bio";
	case Obj::BufferHead: return "buffer_head";
	case Obj::Thread: return "kernel thread";
	case Obj::Count_: break;
	}
	return "object";
}

}  // namespace

void account_add(Obj kind, const void *key, long bytes, Site s,
		 const std::string &what)
{
	Invisible inv;
	Registry &r = reg();
	std::lock_guard lk(r.m);
	auto k = static_cast<size_t>(kind);
	auto [it, fresh] = r.objs[k].try_emplace(
		key, Record{bytes, Site{short_path(s.file), s.line},
			    what.empty() ? default_what(kind) : what, ++r.seq});
	if (!fresh) {
		std::fprintf(stderr, "EMU VIOLATION: %s %p registered twice "
			     "(first at %s) at %s\n", default_what(kind), key,
			     to_string(it->second.site).c_str(),
			     to_string(s).c_str());
		std::abort();
	}
	r.bytes[k] += bytes;
}

bool account_remove(Obj kind, const void *key)
{
	Invisible inv;
	Registry &r = reg();
	std::lock_guard lk(r.m);
	auto k = static_cast<size_t>(kind);
	auto it = r.objs[k].find(key);
	if (it == r.objs[k].end())
		return false;
	r.bytes[k] -= it->second.bytes;
	r.objs[k].erase(it);
	return true;
}

long account_bytes(Obj kind, const void *key)
{
	Invisible inv;
	Registry &r = reg();
	std::lock_guard lk(r.m);
	auto k = static_cast<size_t>(kind);
	auto it = r.objs[k].find(key);
	return it == r.objs[k].end() ? -1 : it->second.bytes;
}

bool account_contains(Obj kind, const void *key)
{
	Invisible inv;
	Registry &r = reg();
	std::lock_guard lk(r.m);
	auto k = static_cast<size_t>(kind);
	return r.objs[k].count(key) != 0;
}

Usage usage()
{
	Usage u;
	{
		Invisible inv;
		Registry &r = reg();
		std::lock_guard lk(r.m);
		auto n = [&](Obj o) {
			return static_cast<long>(
				r.objs[static_cast<size_t>(o)].size());
		};
		auto b = [&](Obj o) { return r.bytes[static_cast<size_t>(o)]; };
		u.kmalloc_objects = n(Obj::Kmalloc);
		u.kmalloc_bytes = b(Obj::Kmalloc);
		u.vmalloc_objects = n(Obj::Vmalloc);
		u.vmalloc_bytes = b(Obj::Vmalloc);
		u.pages = b(Obj::Page) / static_cast<long>(PAGE_SIZE);
		u.slab_caches = n(Obj::SlabCache);
		u.slab_objects = n(Obj::SlabObject);
		u.bios = n(Obj::Bio);
		u.buffer_heads = n(Obj::BufferHead);
		u.threads = n(Obj::Thread);
	}
	u.kmaps = kmaps_outstanding();
	return u;
}

std::vector<std::string> leaks()
{
	std::vector<std::pair<unsigned long, std::string>> found;
	{
		Invisible inv;
		Registry &r = reg();
		std::lock_guard lk(r.m);
		for (auto &objs : r.objs)
			for (auto &[key, rec] : objs)
				found.emplace_back(rec.seq, rec.what + " at " +
						   to_string(rec.site));
	}
	std::sort(found.begin(), found.end());
	std::vector<std::string> out;
	for (auto &f : found)
		out.push_back(std::move(f.second));
	for (auto &k : kmap_problems())
		out.push_back(std::move(k));
	return out;
}

std::vector<std::string> test_problems(bool module_must_be_unloaded)
{
	std::vector<std::string> out;
	// Kernel threads told to stop may still be on their way out.
	for (auto &t : running_threads(std::chrono::seconds(10)))
		out.push_back("thread still running: " + t);
	if (module_must_be_unloaded && module_is_loaded_internal())
		out.push_back("module still loaded");
	for (auto &l : leaks())
		out.push_back("leaked: " + l);
	for (auto &h : held_locks())
		out.push_back("lock held: " + h);
	emu_task *t = cur();
	if (t->irqs_off)
		out.push_back("interrupts left disabled (local_irq_save "
			      "without local_irq_restore)");
	if (t->bh_depth)
		out.push_back("bottom halves left disabled");
	if (t->preempt_depth)
		out.push_back("preemption left disabled (kmap_atomic without "
			      "kunmap_atomic?)");
	return out;
}

}  // namespace emu
