// corvalin demo: the backup program at work in the emulated kernel.
//
// A machine with the corvalin module and a mounted ext2 partition
// (/dev/sda1) that a writer keeps changing.  Three backups into one
// repository run the real command line (`corvalin backup`), with the
// writer going on during each; every backup is then restored into an
// image file and compared, byte for byte, with the partition as it was at
// that backup's snapshot; `corvalin verify` and `corvalin list` end it.
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <vector>

#include "commands.hpp"
#include "emu_world.hpp"

namespace corvalin::tool {
namespace {

struct Capture {
	EmuWorld *world;
	std::vector<std::vector<std::byte>> images;  // per backup
	std::uint64_t writes_at_snapshot = 0;
};

// At START_BACKUP the writer pauses and the partition is taken as the
// reference (nothing is dirty, so the freeze adds nothing to it); from the
// snapshot on, the writer runs while the backup reads.
int capture_stage(void *ctx, int stage)
{
	auto *c = static_cast<Capture *>(ctx);
	if (stage == CVB_STAGE_STARTED) {
		c->world->pause_writer();
		c->images.push_back(c->world->partition());
	} else if (stage == CVB_STAGE_SNAPSHOT) {
		c->writes_at_snapshot = c->world->writes();
		c->world->resume_writer();
	} else if (stage == CVB_STAGE_WRITTEN) {
		std::printf("(the writer made %llu writes while the backup "
			    "read the partition)\n",
			    static_cast<unsigned long long>(
				    c->world->writes() -
				    c->writes_at_snapshot));
	}
	return 0;
}

int cli(cvb_platform &pf, std::vector<std::string> args)
{
	std::printf("\n$ corvalin");
	std::vector<char *> argv;
	for (std::string &a : args) {
		std::printf(" %s", a.c_str());
		argv.push_back(a.data());
	}
	std::printf("\n");
	std::fflush(stdout);
	return cvb_cli_main(static_cast<int>(argv.size()), argv.data(), &pf);
}

std::vector<std::byte> read_file(const std::string &path)
{
	std::ifstream f(path, std::ios::binary);
	std::vector<char> raw((std::istreambuf_iterator<char>(f)),
			      std::istreambuf_iterator<char>());
	std::vector<std::byte> out(raw.size());
	std::memcpy(out.data(), raw.data(), raw.size());
	return out;
}

// Returns whether anything failed.
bool run_machine(const EmuWorld::Config &cfg, const std::string &dir,
		 const std::string &repo)
{
	EmuWorld world(cfg);
	if (!world.error().empty()) {
		std::printf("the emulated machine did not start: %s\n",
			    world.error().c_str());
		return true;
	}
	Capture cap{&world, {}, 0};
	cvb_platform pf = world.platform(stdout, stdout);
	pf.stage_hook = capture_stage;
	pf.hook_ctx = &cap;
	bool failed = false;

	world.start_writer(7);
	for (int i = 1; i <= 3; i++) {
		// Let the writer change the partition between backups.
		const std::uint64_t until = world.writes() + 300;
		while (world.writes() < until)
			std::this_thread::sleep_for(
				std::chrono::milliseconds(1));
		if (cli(pf, {"backup", "/dev/sda1", repo}) != 0)
			failed = true;
		(void)world.new_log_lines();
	}
	world.stop_writer();
	std::printf("\n(the writer made %llu writes in all)\n",
		    static_cast<unsigned long long>(world.writes()));

	for (std::size_t n = 1; n <= cap.images.size(); n++) {
		const std::string target =
			dir + "/restore-" + std::to_string(n) + ".img";
		if (cli(pf, {"restore", repo, target, "--backup",
			     std::to_string(n)}) != 0) {
			failed = true;
			continue;
		}
		const bool same = read_file(target) == cap.images[n - 1];
		std::printf("%s %s the partition at backup %zu's snapshot, "
			    "byte for byte\n", target.c_str(),
			    same ? "equals" : "DIFFERS FROM", n);
		failed |= !same;
	}
	if (cli(pf, {"verify", repo}) != 0)
		failed = true;
	if (cli(pf, {"list", repo}) != 0)
		failed = true;
	return failed;
}

}  // namespace


int run_demo(Args args)
{
	if (args.size() > 1)
		throw UsageError("demo takes at most a directory");
	// A fresh directory for every run (under DIR when given).
	std::string parent = args.size() == 1 ? std::string(args[0]) : "/tmp";
	if (mkdir(parent.c_str(), 0700) != 0 && errno != EEXIST)
		throw std::runtime_error(parent + ": " + std::strerror(errno));
	std::string tmpl = parent + "/corvalin-demo.XXXXXX";
	if (mkdtemp(tmpl.data()) == nullptr)
		throw std::runtime_error(tmpl + ": " + std::strerror(errno));
	const std::string dir = tmpl;
	const std::string repo = dir + "/repo";

	std::printf("corvalin demo: backups of a partition in use, in the "
		    "emulated Linux 2.6.27 kernel\n"
		    "machine: /dev/sda1 (8:1), 16 MiB ext2 file system, "
		    "4 KiB blocks, mounted; a writer keeps rewriting its "
		    "files\nrepository: %s\n", repo.c_str());
	EmuWorld::Config cfg;
	cfg.block_size = 4096;
	cfg.blocks = 4096;
	cfg.per_group = 1024;
	bool failed = run_machine(cfg, dir, repo);
	// What a kernel developer would look for at the end: nothing the
	// module allocated is left, no lock is held, no thread runs.
	const auto problems = emu::test_problems();
	for (const std::string &p : problems)
		std::printf("emulated kernel not clean: %s\n", p.c_str());
	failed |= !problems.empty();
	std::printf("\n%s\n", failed ? "demo FAILED" : "demo complete");
	return failed ? 1 : 0;
}

}  // namespace corvalin::tool
