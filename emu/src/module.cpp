// The one module of the program: __this_module, its reference count and
// state, and insmod/rmmod as 2.6.27's sys_init_module/sys_delete_module
// (with O_NONBLOCK) do them.
//
// rmmod frees the module's code and data.  What still runs module code
// then crashes the real kernel sooner or later, so unloading while one of
// the module's kernel threads (a thread whose body lies in the module's
// text) has not reached complete_and_exit()/do_exit(), or while a bio
// whose bi_end_io lies in the module's text is in flight, is a violation.
// After the unload the module's .data and .bss are filled with POISON_FREE
// (0x6b): a late access reads poisoned pointers, counts and lock magics,
// and crashes (under ASan with a report) or trips a lock check, instead of
// reading plausible stale values.  The next load restores them.
#include <map>
#include <set>

#include "core.hpp"
#include "checks.hpp"
#include "emu/module.hpp"

// The driver's entry points, aliases made by module_init()/module_exit().
extern "C" int emu_init_module(void) __attribute__((weak));
extern "C" void emu_cleanup_module(void) __attribute__((weak));

extern "C" {
struct module __this_module;

// The module's writable data, gathered by the build (emu/CMakeLists.txt).
extern char __start_corvalin_data[] __attribute__((weak));
extern char __stop_corvalin_data[] __attribute__((weak));
extern char __start_corvalin_bss[] __attribute__((weak));
extern char __stop_corvalin_bss[] __attribute__((weak));
extern char __start_corvalin_text[] __attribute__((weak));
extern char __stop_corvalin_text[] __attribute__((weak));
}

namespace {

struct ModuleState {
	std::mutex m;
	bool loaded = false;
	std::multimap<std::string, std::string> info;
	// The module's kernel threads not yet at complete_and_exit.
	std::set<emu_task *> threads;
};

ModuleState &mstate()
{
	static auto *s = new ModuleState;
	return *s;
}

// Byte copies that the sanitizers must not check: the sections hold the
// redzones AddressSanitizer puts between globals.
__attribute__((no_sanitize_address, no_sanitize_thread,
	       no_sanitize_undefined, __noinline__))
void raw_copy(volatile char *dst, const volatile char *src, std::size_t n)
{
	for (std::size_t i = 0; i < n; i++)
		dst[i] = src[i];
}

__attribute__((no_sanitize_address, no_sanitize_thread,
	       no_sanitize_undefined, __noinline__))
void raw_fill(volatile char *dst, char c, std::size_t n)
{
	for (std::size_t i = 0; i < n; i++)
		dst[i] = c;
}

void raw_zero(volatile char *dst, std::size_t n)
{
	raw_fill(dst, 0, n);
}

std::vector<char> &initial_data()
{
	static auto *v = new std::vector<char>;
	return *v;
}

// The initial contents of the module's data, taken before main (after
// relocation, before any of the driver's code ran).
__attribute__((constructor)) void snapshot_module_data()
{
	if (!__start_corvalin_data || !__stop_corvalin_data)
		return;
	std::size_t n = static_cast<std::size_t>(__stop_corvalin_data -
						  __start_corvalin_data);
	initial_data().resize(n);
	raw_copy(initial_data().data(), __start_corvalin_data, n);
}

// What insmod gives every load: the module's data as in its image, its
// uninitialised data zero.
void fresh_module_data()
{
	if (__start_corvalin_data && __stop_corvalin_data)
		raw_copy(__start_corvalin_data, initial_data().data(),
			 initial_data().size());
	if (__start_corvalin_bss && __stop_corvalin_bss)
		raw_zero(__start_corvalin_bss, static_cast<std::size_t>(
				 __stop_corvalin_bss - __start_corvalin_bss));
}

std::atomic<bool> g_poisoned{false};

// The module's data also holds what the build put there for the
// sanitizers (AddressSanitizer's descriptors of the module's globals,
// read again when the program exits): a program that ends with the module
// unloaded gets the data back as loaded first, before those are read.
void unpoison_at_exit()
{
	if (g_poisoned.load())
		fresh_module_data();
}

// What rmmod leaves of the module's data: freed memory.
void poison_module_data()
{
	static std::once_flag at_exit;
	std::call_once(at_exit, [] { std::atexit(unpoison_at_exit); });
	g_poisoned.store(true);
	if (__start_corvalin_data && __stop_corvalin_data)
		raw_fill(__start_corvalin_data, POISON_FREE, static_cast<
				 std::size_t>(__stop_corvalin_data -
					      __start_corvalin_data));
	if (__start_corvalin_bss && __stop_corvalin_bss)
		raw_fill(__start_corvalin_bss, POISON_FREE, static_cast<
				 std::size_t>(__stop_corvalin_bss -
					      __start_corvalin_bss));
}

// Fatal if module code may still run after the unload.
void check_nothing_of_the_module_runs()
{
	std::vector<std::string> left;
	{
		std::lock_guard lk(mstate().m);
		for (emu_task *t : mstate().threads)
			left.push_back(std::string("kernel thread ") +
				       t->task.comm + " (pid " +
				       std::to_string(t->task.pid) +
				       ", started at " +
				       emu::to_string(t->started_at) +
				       ") has not reached complete_and_exit");
	}
	for (auto &b : emu::module_bios_in_flight())
		left.push_back(b + " is in flight with its bi_end_io in the "
			       "module");
	for (auto &q : emu::queues_hooked_by_module())
		left.push_back(q + " still calls a make_request_fn in the "
			       "module");
	if (left.empty())
		return;
	std::string what = "module unloaded while its code may still run:";
	for (auto &l : left)
		what += " " + l + ";";
	emu::violation(emu::Site{"rmmod", 0}, what);
}

}  // namespace

namespace emu {

bool in_module_text(const void *addr)
{
	if (!__start_corvalin_text || !__stop_corvalin_text)
		return false;
	auto a = reinterpret_cast<std::uintptr_t>(addr);
	return a >= reinterpret_cast<std::uintptr_t>(__start_corvalin_text) &&
		a < reinterpret_cast<std::uintptr_t>(__stop_corvalin_text);
}

void module_thread_started(emu_task *t, const void *fn)
{
	if (!in_module_text(fn))
		return;
	Invisible inv;
	std::lock_guard lk(mstate().m);
	mstate().threads.insert(t);
}

void module_thread_exiting(emu_task *t)
{
	Invisible inv;
	std::lock_guard lk(mstate().m);
	mstate().threads.erase(t);
}

}  // namespace emu

extern "C" void emu_module_info(const char *tag, const char *info)
{
	std::lock_guard lk(mstate().m);
	mstate().info.emplace(tag, info);
}

extern "C" int module_is_live(struct module *mod)
{
	return mod->state != MODULE_STATE_GOING;
}

extern "C" int try_module_get(struct module *module)
{
	if (!module)
		return 1;
	emu::Invisible inv;
	std::lock_guard lk(mstate().m);
	if (module == &__this_module &&
	    (!mstate().loaded || module->state == MODULE_STATE_GOING))
		return 0;
	atomic_inc(&module->refcount);
	return 1;
}

extern "C" void __module_get(struct module *module)
{
	if (module)
		atomic_inc(&module->refcount);
}

extern "C" void module_put(struct module *module)
{
	if (!module)
		return;
	if (atomic_dec_return(&module->refcount) < 0)
		emu::violation(emu::Site{"module_put", 0},
			       "module_put without a reference");
}

extern "C" unsigned int module_refcount(struct module *mod)
{
	return static_cast<unsigned int>(atomic_read(&mod->refcount));
}

namespace emu {

bool module_is_loaded_internal()
{
	std::lock_guard lk(mstate().m);
	return mstate().loaded;
}

bool module_loaded()
{
	return module_is_loaded_internal();
}

int module_refcount()
{
	return atomic_read(&__this_module.refcount);
}

int module_load()
{
	{
		std::lock_guard lk(mstate().m);
		if (mstate().loaded)
			return -EEXIST;
		if (!emu_init_module)
			return -ENOENT;
		fresh_module_data();
		g_poisoned.store(false);
		std::snprintf(__this_module.name, sizeof(__this_module.name),
			      "%s", "corvalin");
		__this_module.state = MODULE_STATE_COMING;
		__this_module.init = emu_init_module;
		__this_module.exit = emu_cleanup_module;
		// The loader holds a reference during initialisation.
		atomic_set(&__this_module.refcount, 1);
		mstate().loaded = true;
	}
	int ret = emu_init_module();
	if (ret < 0) {
		__this_module.state = MODULE_STATE_GOING;
		module_put(&__this_module);
		std::lock_guard lk(mstate().m);
		mstate().loaded = false;
		return ret;
	}
	if (ret > 0) {
		printk(KERN_WARNING "%s: '%s'->init suspiciously returned %d, "
		       "it should follow 0/-E convention\n"
		       KERN_WARNING "%s: loading module anyway...\n",
		       "sys_init_module", __this_module.name, ret,
		       "sys_init_module");
		dump_stack();
	}
	module_put(&__this_module);
	__this_module.state = MODULE_STATE_LIVE;
	return 0;
}

void module_begin_removal()
{
	std::lock_guard lk(mstate().m);
	if (mstate().loaded)
		__this_module.state = MODULE_STATE_GOING;
}

int module_unload()
{
	{
		std::lock_guard lk(mstate().m);
		if (!mstate().loaded)
			return -ENOENT;
		if (atomic_read(&__this_module.refcount) != 0)
			return -EWOULDBLOCK;
		// An init function without an exit function pins the module.
		if (__this_module.init && !__this_module.exit)
			return -EBUSY;
		__this_module.state = MODULE_STATE_GOING;
	}
	if (emu_cleanup_module)
		emu_cleanup_module();
	check_nothing_of_the_module_runs();
	poison_module_data();
	std::lock_guard lk(mstate().m);
	mstate().loaded = false;
	return 0;
}

std::string module_info(const std::string &key)
{
	if (key == "vermagic")
		return "2.6.27 SMP mod_unload 686 ";
	std::lock_guard lk(mstate().m);
	auto it = mstate().info.find(key);
	return it == mstate().info.end() ? std::string() : it->second;
}

}  // namespace emu
