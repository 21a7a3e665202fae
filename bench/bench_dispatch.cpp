// bench_dispatch: the cost of one command round trip through the emulated
// process and the driver's dispatcher.
//
//   raw      Process::ioctl(GET_STATE) with the records already in place:
//            system call, BKL, dispatcher, handler, copy_to_user.
//   library  the same command through libcorvalin (records written to and
//            read back from the process's memory on every call).
//   version  GET_VERSION_MAJOR through libcorvalin (no handler, no lock).
//
// The interesting output is the ratio library/raw: what the client
// library adds to a command.
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "corvalin.hpp"
#include "corvalin_emu.hpp"
#include "emu/emu.hpp"

#include "bench_support.hpp"

namespace {

using namespace corvalin;

// The module, the node and one open file for the whole run.
struct World {
	World()
	{
		if (emu::module_load() != 0) {
			std::fprintf(stderr, "bench_dispatch: module load failed\n");
			std::exit(1);
		}
		emu::mknod(CV_DEVICE_PATH, KIV_MAJOR, 0);
		process = std::make_unique<emu::Process>();
		transport = std::make_unique<EmuTransport>(*process);
		if (dev.open(transport->get()) != Result::Ok) {
			std::fprintf(stderr, "bench_dispatch: open failed\n");
			std::exit(1);
		}
		// Records of the raw case: GetState at +0, the State at +64.
		mem = process->map_anon(4096);
		const GetState g{mem + 64, sizeof(State)};
		process->poke(mem, &g, sizeof(g));
	}
	~World()
	{
		(void)dev.close();
		transport.reset();
		process.reset();
		(void)emu::module_unload();
	}
	std::unique_ptr<emu::Process> process;
	std::unique_ptr<EmuTransport> transport;
	Device dev;
	emu::uaddr mem = 0;
};

World *world;

bool raw_get_state()
{
	return world->process->ioctl(world->dev.fd(), KIV_IOC_GET_STATE,
				     world->mem) == 0;
}

bool library_get_state()
{
	State st{};
	return world->dev.state(st) == Result::Ok;
}

bool library_version()
{
	std::uint32_t v = 0;
	return world->dev.version_major(v) == Result::Ok && v == 3;
}

struct Case {
	const char *name;
	bool (*fn)();
};

constexpr Case cases[] = {
	{"raw", raw_get_state},
	{"library", library_get_state},
	{"version", library_version},
};

void print_ratio(const std::map<std::string, double> &ns)
{
	if (ns.count("raw") && ns.count("library") && ns.at("raw") > 0)
		std::printf("ratio library/raw GET_STATE: %.2f\n",
			    ns.at("library") / ns.at("raw"));
}

#ifdef CORVALIN_HAVE_GBENCH

void run_case(benchmark::State &state, bool (*fn)())
{
	for (auto _ : state)
		if (!fn())
			state.SkipWithError("command failed");
}

int run_all(int argc, char **argv)
{
	for (const Case &c : cases)
		benchmark::RegisterBenchmark((std::string("BM_") + c.name).c_str(),
					     run_case, c.fn);
	return bench::run_with_ratios(
	    argc, argv,
	    [](const benchmark::BenchmarkReporter::Run &r) {
		    return r.benchmark_name().substr(3);
	    },
	    print_ratio);
}

#else

int run_all(int, char **)
{
	constexpr int iterations = 20000;
	std::map<std::string, double> ns;
	for (const Case &c : cases) {
		const auto t0 = std::chrono::steady_clock::now();
		for (int i = 0; i < iterations; i++)
			if (!c.fn()) {
				std::fprintf(stderr, "%s: command failed\n", c.name);
				return 1;
			}
		const auto t1 = std::chrono::steady_clock::now();
		ns[c.name] = std::chrono::duration<double, std::nano>(t1 - t0)
				 .count() / iterations;
		std::printf("%-10s %10.0f ns per command\n", c.name, ns[c.name]);
	}
	print_ratio(ns);
	return 0;
}

#endif

}  // namespace

int main(int argc, char **argv)
{
	World w;
	world = &w;
	const int r = run_all(argc, argv);
	world = nullptr;
	return r;
}
