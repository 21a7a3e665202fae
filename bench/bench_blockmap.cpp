// bench_blockmap: the paged block bitmap (core/blockMap.c) in the emulated
// kernel, next to a plain std::vector<bool> doing the same work.
//
//   map_set / map_test    setBlock / blockInMap on a map of kBlocks blocks,
//                         blocks visited in a scattered order (every call
//                         lands on some other page: a kmap each time).
//   ref_set / ref_test    the same visits on a std::vector<bool>.
//   *@2                   the same with two threads on one map; the
//                         reference then guards its vector with a
//                         std::mutex, as the map's semaphore serialises its
//                         bit operations.
//
// Then the memory of maps of a few sizes, read from the emulated kernel's
// accounting: the bitmap lives in order-0 pages, and the only contiguous
// allocation is the page-handle array (one pointer per 32768 blocks).
//
// Printed at the end: the ratios map/reference, and whether the emulated
// kernel is clean (nothing leaked, no lock held).  Nothing asserts a time.
#include <barrier>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "emu/emu.hpp"

#include "bench_support.hpp"

// The kernel's headers declare their own C linkage; the driver's do not.
#include <linux/types.h>
#include <linux/mm.h>
#include <linux/highmem.h>
#include <linux/spinlock.h>
#include <linux/semaphore.h>
#include <asm/atomic.h>

extern "C" {
#include "blockMap.h"
}

namespace {

constexpr std::uint32_t kBlocks = 8000000;
// Odd and not a multiple of 5, hence coprime with kBlocks (2^9 * 5^6): a
// walk by kStride visits every block once per kBlocks steps, and
// consecutive blocks are about 163 pages apart.
constexpr std::uint32_t kStride = 5349383;

std::uint32_t next_block(std::uint32_t b)
{
	b += kStride;
	return b >= kBlocks ? b - kBlocks : b;
}

// Where thread t of a case starts its walk.
std::uint32_t first_block(int t)
{
	return static_cast<std::uint32_t>(t) * (kBlocks / 2 + 1);
}

// The map under test and its reference, built once for the whole run.
struct World {
	World()
	{
		int pages = 0;
		if (newBlockMap(&bm, kBlocks, nullptr, 1, &pages) != 0) {
			std::fprintf(stderr, "bench_blockmap: newBlockMap failed\n");
			std::exit(1);
		}
		ref.assign(kBlocks, false);
	}
	~World()
	{
		int freed = 0;
		closeBlockMap(&bm, &freed);
	}
	World(const World &) = delete;
	World &operator=(const World &) = delete;

	::BlockMap bm{};
	std::vector<bool> ref;
	std::mutex ref_lock;
};

World *world;

// One case: `n` operations of one kind by one thread starting at `start`.
// Returns false if the driver reported a block outside the map.  The
// `sink` keeps the test results alive.
using CaseFn = bool (*)(std::uint32_t start, long n, long &sink);

bool map_set(std::uint32_t b, long n, long &)
{
	int bad = 0;
	for (long i = 0; i < n; i++, b = next_block(b))
		bad |= setBlock(&world->bm, b);
	return bad == 0;
}

bool map_test(std::uint32_t b, long n, long &sink)
{
	for (long i = 0; i < n; i++, b = next_block(b))
		sink += blockInMap(&world->bm, b);
	return true;
}

bool ref_set(std::uint32_t b, long n, long &)
{
	for (long i = 0; i < n; i++, b = next_block(b))
		world->ref[b] = true;
	return true;
}

bool ref_test(std::uint32_t b, long n, long &sink)
{
	for (long i = 0; i < n; i++, b = next_block(b))
		sink -= world->ref[b];
	return true;
}

bool ref_locked_set(std::uint32_t b, long n, long &)
{
	for (long i = 0; i < n; i++, b = next_block(b)) {
		std::lock_guard<std::mutex> g(world->ref_lock);
		world->ref[b] = true;
	}
	return true;
}

bool ref_locked_test(std::uint32_t b, long n, long &sink)
{
	for (long i = 0; i < n; i++, b = next_block(b)) {
		std::lock_guard<std::mutex> g(world->ref_lock);
		sink -= world->ref[b];
	}
	return true;
}

struct Case {
	const char *name;
	CaseFn fn;
	int threads;
};

constexpr Case cases[] = {
	{"map_set", map_set, 1},
	{"ref_set", ref_set, 1},
	{"map_test", map_test, 1},
	{"ref_test", ref_test, 1},
	{"map_set@2", map_set, 2},
	{"ref_set@2", ref_locked_set, 2},
	{"map_test@2", map_test, 2},
	{"ref_test@2", ref_locked_test, 2},
};

// ns: nanoseconds of wall time per operation (all threads together).
void print_ratios(const std::map<std::string, double> &ns)
{
	auto ratio = [&](const char *what, const std::string &a,
			 const std::string &b) {
		if (ns.count(a) && ns.count(b) && ns.at(b) > 0)
			std::printf("ratio %-42s %8.2f\n", what,
				    ns.at(a) / ns.at(b));
	};
	ratio("setBlock / vector<bool>:", "map_set", "ref_set");
	ratio("blockInMap / vector<bool>:", "map_test", "ref_test");
	ratio("setBlock / locked vector<bool>, 2 thr:", "map_set@2",
	      "ref_set@2");
	ratio("blockInMap / locked vector<bool>, 2 thr:", "map_test@2",
	      "ref_test@2");
	ratio("setBlock 2 threads / 1 thread:", "map_set@2", "map_set");
	ratio("blockInMap 2 threads / 1 thread:", "map_test@2", "map_test");
}

#ifdef CORVALIN_HAVE_GBENCH

void run_case(benchmark::State &state, CaseFn fn)
{
	// One iteration is one operation, through the same indirect call for
	// the map and the reference alike.
	std::uint32_t b = first_block(state.thread_index());
	long sink = 0;
	bool ok = true;
	for (auto _ : state) {
		ok &= fn(b, 1, sink);
		b = next_block(b);
	}
	benchmark::DoNotOptimize(sink);
	if (!ok)
		state.SkipWithError("block outside the map");
}

int run_timing(int argc, char **argv)
{
	for (const Case &c : cases) {
		std::string name = c.name;
		name = "BM_" + name.substr(0, name.find('@'));
		benchmark::RegisterBenchmark(name.c_str(), run_case, c.fn)
		    ->Threads(c.threads)
		    ->UseRealTime()
		    ->MinTime(0.3);
	}
	// With threads, Google Benchmark reports the wall time per iteration
	// of all threads together, which is what the ratios compare.
	return bench::run_with_ratios(
	    argc, argv,
	    [](const benchmark::BenchmarkReporter::Run &r) {
		    std::string name = r.benchmark_name().substr(3);
		    const bool two = name.find("threads:2") != std::string::npos;
		    name = name.substr(0, name.find('/'));
		    return two ? name + "@2" : name;
	    },
	    print_ratios);
}

#else

int run_timing(int, char **)
{
	constexpr long per_thread = 2000000;
	std::map<std::string, double> ns;
	for (const Case &c : cases) {
		std::vector<long> sinks(c.threads, 0);
		std::vector<char> ok(c.threads, 1);
		std::barrier start(c.threads + 1);
		std::vector<std::jthread> threads;
		for (int t = 0; t < c.threads; t++)
			threads.emplace_back([&, t] {
				start.arrive_and_wait();
				ok[t] = c.fn(first_block(t), per_thread,
					     sinks[t]);
			});
		start.arrive_and_wait();
		const auto t0 = std::chrono::steady_clock::now();
		threads.clear();  // joins
		const auto t1 = std::chrono::steady_clock::now();
		for (int t = 0; t < c.threads; t++)
			if (!ok[t]) {
				std::fprintf(stderr, "%s: block outside the "
					     "map\n", c.name);
				return 1;
			}
		ns[c.name] = std::chrono::duration<double, std::nano>(t1 - t0)
				 .count() / (per_thread * c.threads);
		std::printf("%-12s %8.1f ns per operation (%d thread%s)\n",
			    c.name, ns[c.name], c.threads,
			    c.threads > 1 ? "s" : "");
	}
	print_ratios(ns);
	return 0;
}

#endif

// Builds a map of each size and reports what the emulated kernel handed
// out for it.  The bitmap pages are order-0 (alloc_pages(..., 0)), so the
// largest contiguous piece is the greater of one page and the vmalloc'ed
// handle array.  Returns false if a map did not build or close cleanly.
bool report_memory()
{
	constexpr std::uint32_t sizes[] = {1, 32768, 32769, 1u << 20,
					   1u << 25};
	bool clean = true;

	std::printf("\nmemory per map (order-0 bitmap pages of %d bytes; "
		    "handle %zu bytes here, 4 on 32-bit)\n",
		    KIV_PAGE_SIZE, sizeof(struct page *));
	std::printf("%10s %8s %8s %12s %8s %10s %12s %14s\n", "blocks",
		    "pages", "+pages", "handles B", "32-bit B", "vmallocs",
		    "kmalloc B", "largest cont B");
	for (const std::uint32_t size : sizes) {
		const emu::Usage before = emu::usage();
		::BlockMap bm{};
		int pages = 0;
		if (newBlockMap(&bm, size, nullptr, 1, &pages) != 0) {
			std::printf("%10u newBlockMap failed\n", size);
			clean = false;
			continue;
		}
		const emu::Usage after = emu::usage();
		const long handles = after.vmalloc_bytes - before.vmalloc_bytes;
		const long largest = handles > KIV_PAGE_SIZE ? handles
							     : KIV_PAGE_SIZE;
		std::printf("%10u %8d %8ld %12ld %8ld %10ld %12ld %14ld\n",
			    size, pages, after.pages - before.pages, handles,
			    static_cast<long>(pages) * 4,
			    after.vmalloc_objects - before.vmalloc_objects,
			    after.kmalloc_bytes - before.kmalloc_bytes,
			    largest);
		int freed = 0;
		closeBlockMap(&bm, &freed);
		if (freed != pages || !(emu::usage() == before)) {
			std::printf("%10u not released cleanly (freed %d)\n",
				    size, freed);
			clean = false;
		}
	}
	return clean;
}

}  // namespace

int main(int argc, char **argv)
{
	int r;
	{
		World w;
		world = &w;
		r = run_timing(argc, argv);
		world = nullptr;
	}
	if (!report_memory())
		r = 1;

	const auto problems = emu::test_problems();
	std::printf("\nemulated kernel at exit: %s\n",
		    problems.empty() ? "clean (nothing leaked, no lock held)"
				     : "NOT clean");
	for (const auto &p : problems)
		std::printf("    %s\n", p.c_str());
	return problems.empty() ? r : 1;
}
