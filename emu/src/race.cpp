// The race-window mode (emu/race.hpp): a yield or a short sleep right
// after the calls that let a waiter run, so that a completion racing its
// waiter (a reference dropped after the unlock that lets the waiter free
// the object, a field read after complete()) is caught by ASan or TSan.
//
// Each call site has its own sequence of decisions: decision n of site s
// is a hash of (seed, s, n), so a seed replays the same delays at every
// site in the order the site is reached.  Where the threads arrive in the
// same order, the same interleaving follows; a failing seed reproduces its
// failure most of the time, not every time.
//
// The windows open after the woken task was made runnable and after every
// lock of the call was released: the sleeping task gets the processor
// while the waker is still between the call and its next statement.
#include <random>

#include "core.hpp"
#include "checks.hpp"
#include "emu/race.hpp"

namespace {

struct Mode {
	std::atomic<std::uint64_t> seed{0};
	std::atomic<std::uint64_t> taken{0};
	std::once_flag from_env;
	std::mutex m;   // counters
	std::unordered_map<std::uint64_t, std::uint64_t> reached;
};

Mode &mode()
{
	static auto *m = new Mode;   // lives until exit
	return *m;
}

std::uint64_t mix(std::uint64_t x)
{
	// splitmix64's finaliser
	x += 0x9E3779B97F4A7C15ULL;
	x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ULL;
	x = (x ^ (x >> 27)) * 0x94D049BB133111EBULL;
	return x ^ (x >> 31);
}

std::uint64_t hash_text(const char *s)
{
	std::uint64_t h = 0xcbf29ce484222325ULL;   // FNV-1a
	for (; s && *s; s++)
		h = (h ^ static_cast<unsigned char>(*s)) * 0x100000001b3ULL;
	return h;
}

std::uint64_t fresh_seed()
{
	std::random_device rd;
	std::uint64_t s = (static_cast<std::uint64_t>(rd()) << 32) ^ rd();
	return s ? s : 1;
}

// EMU_RACE_WINDOWS=<seed>|random|0|off; unset: EMU_RACE_WINDOWS_AUTO=1
// means random.
void read_env()
{
	std::uint64_t seed = 0;
	const char *v = std::getenv("EMU_RACE_WINDOWS");
	const char *autov = std::getenv("EMU_RACE_WINDOWS_AUTO");
	if (v && *v) {
		if (std::strcmp(v, "random") == 0)
			seed = fresh_seed();
		else if (std::strcmp(v, "off") != 0)
			seed = std::strtoull(v, nullptr, 0);
	} else if (autov && std::strcmp(autov, "1") == 0) {
		seed = fresh_seed();
	}
	mode().seed.store(seed);
}

std::uint64_t current_seed()
{
	Mode &m = mode();
	std::call_once(m.from_env, read_env);
	return m.seed.load(std::memory_order_relaxed);
}

}  // namespace

namespace emu {

std::uint64_t race_windows_seed()
{
	return current_seed();
}

void race_windows_set(std::uint64_t seed)
{
	Mode &m = mode();
	std::call_once(m.from_env, [] {});
	{
		// Every call site's sequence starts afresh.
		Invisible inv;
		std::lock_guard lk(m.m);
		m.reached.clear();
	}
	m.seed.store(seed);
}

std::uint64_t race_windows_taken()
{
	return mode().taken.load();
}

void race_window(const char *where, Site caller)
{
	const std::uint64_t seed = current_seed();
	if (!seed)
		return;
	Mode &m = mode();
	const std::uint64_t site = hash_text(where) ^
		mix(hash_text(caller.file) + static_cast<unsigned>(caller.line));
	std::uint64_t n;
	{
		Invisible inv;
		std::lock_guard lk(m.m);
		n = m.reached[site]++;
	}
	const std::uint64_t r = mix(seed ^ mix(site ^ mix(n)));
	// Half of the windows stay shut; of the rest, five in eight yield
	// and three sleep between 20 and 500 microseconds.
	switch (r & 15) {
	case 0: case 1: case 2: case 3: case 4:
		m.taken.fetch_add(1, std::memory_order_relaxed);
		std::this_thread::yield();
		break;
	case 5: case 6: case 7:
		m.taken.fetch_add(1, std::memory_order_relaxed);
		std::this_thread::sleep_for(std::chrono::microseconds(
			20 + (r >> 8) % 481));
		break;
	default:
		break;
	}
}

}  // namespace emu
