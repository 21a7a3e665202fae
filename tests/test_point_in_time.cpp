// Point in time, proven on seeded workloads: while file-system writes, raw
// writes to the backed-up partition and to its neighbour on the same disk
// (multi-block and unaligned bios) and reads (read-ahead too) go on, a
// backup program starts a backup, snapshots and reads the whole partition
// in runs of random length and order through READ_BLOCKS and its mapping,
// with libcorvalin's emulated transport.  The image must equal the
// partition's content at the frozen instant, byte for byte.
//
// The frozen instant is caught from inside: a helper task holds the
// backup's writers semaphore for reading while SNAPSHOT runs, so the
// command stops between the freeze and the hand-over, with the file
// system frozen and the interception not yet armed.  Raw writers pause
// around the command (nothing freezes raw I/O: for them the point in time
// is any moment of the command).  Once the command waits for the
// semaphore and the disk is idle, the partition's content is the image.
//
// Seeds: PointInTime.Seeds* run 1000 seeds in ranges of 50 (both
// completion modes, both block sizes, state 4 and state 6 reads);
// PointInTimeConcurrency.* runs a few under ThreadSanitizer too.  A
// failing seed is printed; CORVALIN_SEED=<seed> runs only that seed in
// every case.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "corvalin.hpp"
#include "corvalin_emu.hpp"
#include "test_driver_util.hpp"
#include "test_pit_util.hpp"

namespace {

constexpr std::uint64_t kP1Start = 63;        // odd: not page aligned
constexpr std::uint64_t kP1Sectors = 1024;
constexpr std::uint64_t kP2Sectors = 512;

using pit::Gate;
using pit::raw_io;

// One seed, start to end.  Returns "" or what went wrong.
std::string run_seed(std::uint64_t seed)
{
	const bool stats = std::getenv("CORVALIN_PIT_STATS") != nullptr;
	const auto t0 = std::chrono::steady_clock::now();
	auto lap = [&](const char *what) {
		if (stats)
			std::printf("  %s at %lld ms\n", what,
				    static_cast<long long>(
					    std::chrono::duration_cast<
						    std::chrono::milliseconds>(
						    std::chrono::steady_clock::
							    now() -
						    t0)
						    .count()));
	};
	std::mt19937_64 rng(seed);
	const unsigned bs = (seed & 1) ? 1024 : 4096;
	const bool bio_mode = (seed & 2) != 0;
	const bool load_map = (seed & 4) != 0;
	std::ostringstream err;

	if (emu::module_load() != 0)
		return "module load failed";
	emu::mknod(CV_DEVICE_PATH, KIV_MAJOR, 0);
	lap("loaded");

	emu::DiskConfig c = test::disk_config(
		8, 0, 16, kP1Start + kP1Sectors + kP2Sectors + 16, "sda");
	c.completion = bio_mode ? emu::Completion::Bio
				: emu::Completion::Request;
	c.threads = 2;
	auto disk = std::make_unique<emu::Disk>(c);
	disk->set_reorder(emu::Reorder::Random, seed);
	if (rng() % 2)
		disk->set_latency(std::chrono::microseconds(0),
				  std::chrono::microseconds(20));
	if (disk->add_partition(1, kP1Start, kP1Sectors) ||
	    disk->add_partition(2, kP1Start + kP1Sectors, kP2Sectors))
		return "partitions";
	{
		std::vector<std::byte> init((kP1Sectors + kP2Sectors) * 512);
		for (auto &b : init)
			b = static_cast<std::byte>(rng());
		disk->write(kP1Start, init);
	}
	lap("disk");
	auto fs1 = std::make_unique<emu::FileSystem>(*disk, 1, bs);
	auto fs2 = std::make_unique<emu::FileSystem>(*disk, 2, 1024);
	const std::uint32_t blocks =
		static_cast<std::uint32_t>(kP1Sectors * 512 / bs);
	struct block_device *p1 = fs1->bdev();
	struct block_device *p2 = fs2->bdev();

	auto process = std::make_unique<emu::Process>();
	std::vector<std::uint8_t> image(std::size_t(blocks) * bs);
	{
		corvalin::EmuTransport transport(*process);
		corvalin::Device dev;
		if (dev.open(transport.get()) != corvalin::Result::Ok)
			return "open";
		Backup *b = test::backup_of(*process, dev.fd());

		// The workload, seeded per thread.
		std::atomic<bool> stop{false};
		std::atomic<unsigned> ops{0};
		Gate raw_gate;
		std::vector<std::thread> workers;
		workers.emplace_back([&, s = rng()] {
			std::mt19937_64 r(s);
			std::vector<std::byte> data(bs);
			while (!stop) {
				for (auto &x : data)
					x = static_cast<std::byte>(r());
				fs1->write_block(r() % blocks, data);
				if (r() % 4 == 0)
					fs1->sync();
				ops++;
			}
			fs1->sync();
		});
		auto raw = [&](struct block_device *bdev, std::uint64_t len,
			       bool writes, std::uint64_t s) {
			std::mt19937_64 r(s);
			while (!stop) {
				raw_gate.enter();
				unsigned n = 1 + r() % 16;
				std::uint64_t at = r() % (len - n + 1);
				unsigned long rw = WRITE;
				if (!writes)
					rw = (r() % 2) ? READ
						       : (1UL << BIO_RW_AHEAD);
				raw_io(bdev, rw, at, n, r);
				raw_gate.leave();
				ops++;
			}
		};
		workers.emplace_back(raw, p1, kP1Sectors, true, rng());
		workers.emplace_back(raw, p2, kP2Sectors, true, rng());
		workers.emplace_back(raw, p1, kP1Sectors, false, rng());
		workers.emplace_back([&, s = rng()] {
			std::mt19937_64 r(s);
			std::vector<std::byte> data(1024);
			while (!stop) {
				for (auto &x : data)
					x = static_cast<std::byte>(r());
				fs2->write_block(r() % fs2->blocks(), data);
				if (r() % 3 == 0)
					fs2->sync();
				ops++;
			}
			fs2->sync();
		});
		auto finish = [&] {
			stop = true;
			for (auto &t : workers)
				t.join();
			workers.clear();
		};

		lap("opened");
		if (dev.start_backup(8, 1, blocks, 1u << 20) !=
		    corvalin::Result::Ok) {
			finish();
			return "START_BACKUP failed";
		}
		lap("started");
		const unsigned warm = 10 + static_cast<unsigned>(rng() % 40);
		while (ops < warm)
			std::this_thread::yield();

		// The frozen instant.
		std::atomic<int> phase{0};
		std::atomic<bool> snap_done{false};
		std::thread holder([&] {
			process->run_as([&] {
				down_read(&b->writers);
				phase = 1;
				while (phase != 2)
					std::this_thread::yield();
				// SNAPSHOT froze and waits for the writers
				// (or ended early, refused).
				while (!snap_done &&
				       down_read_trylock(&b->writers)) {
					up_read(&b->writers);
					std::this_thread::yield();
				}
				disk->drain();
				std::vector<std::byte> now(image.size());
				disk->read(kP1Start, now);
				std::memcpy(image.data(), now.data(), now.size());
				up_read(&b->writers);
			});
		});
		while (phase != 1)
			std::this_thread::yield();
		corvalin::Result snap;
		raw_gate.close();
		std::thread snapper([&] {
			snap = dev.snapshot(nullptr, 0);
			snap_done = true;
		});
		phase = 2;
		snapper.join();
		holder.join();
		raw_gate.open();
		if (snap != corvalin::Result::Ok || b->state != BU_STATE_SNAPSHOT) {
			finish();
			err << "SNAPSHOT: " << corvalin::to_int(snap)
			    << " state " << b->state;
			return err.str();
		}

		lap("snapshotted");
		if (load_map) {
			// As a full map load leaves the backup: state 6 with
			// every block still to read.
			process->run_as([&] {
				int pages = 0;
				down_write(&b->writers);
				if (newBlockMap(&b->blockMap, blocks, nullptr, 2,
						&pages) == 0) {
					atomic_add(pages, &b->totalAllocPages);
					atomic_add(pages, &b->curAllocPages);
					setBackupState(b, BU_STATE_MAP_LOADED);
				}
				up_write(&b->writers);
				cleanUpCache(b);
			});
		}

		corvalin::Mapping m;
		const std::uint32_t per_map =
			static_cast<std::uint32_t>(b->maxVMPages) * 4096 / bs;
		if (dev.map(static_cast<std::uint32_t>(b->maxVMPages) * 4096,
			    m) != corvalin::Result::Ok) {
			finish();
			return "mmap";
		}
		// Runs of random length, in random order.
		std::vector<std::pair<std::uint32_t, std::uint32_t>> runs;
		for (std::uint32_t at = 0; at < blocks;) {
			std::uint32_t n = 1 + static_cast<std::uint32_t>(
				rng() % std::min<std::uint32_t>(per_map, 40));
			n = std::min(n, blocks - at);
			runs.emplace_back(at, n);
			at += n;
		}
		std::shuffle(runs.begin(), runs.end(), rng);
		std::vector<std::byte> got;
		for (auto [at, n] : runs) {
			auto r = dev.read_blocks(at, n, m.address());
			if (r != corvalin::Result::Ok) {
				err << "READ_BLOCKS " << at << "+" << n << ": "
				    << corvalin::to_int(r);
				break;
			}
			got.resize(std::size_t(n) * bs);
			if (m.read(0, got) != corvalin::Result::Ok) {
				err << "reading the mapping failed";
				break;
			}
			for (std::uint32_t i = 0; i < n && err.str().empty();
			     i++) {
				if (std::memcmp(got.data() + std::size_t(i) * bs,
						image.data() +
							std::size_t(at + i) * bs,
						bs))
					err << "block " << at + i
					    << " differs from the frozen "
					    << "instant (bs " << bs << ")";
			}
			if (!err.str().empty())
				break;
		}
		lap("read");
		finish();
		lap("stopped");
		if (stats)
			std::printf("seed %llu: bs %u %s%s ops %u cached %d "
				    "held reads from disk %d\n",
				    static_cast<unsigned long long>(seed), bs,
				    bio_mode ? "bio" : "request",
				    load_map ? " state 6" : "", ops.load(),
				    atomic_read(&b->totalCBs),
				    atomic_read(&b->totalReadBlocks));
		m = corvalin::Mapping();
		dev.close();
	}
	lap("closed");
	process.reset();
	if (emu::module_unload() != 0 && err.str().empty())
		err << "module unload failed";
	lap("unloaded");
	fs2.reset();
	fs1.reset();
	lap("unmounted");
	disk.reset();
	if (err.str().empty()) {
		auto problems = emu::test_problems();
		if (!problems.empty())
			err << "left behind: " << problems.front();
	}
	lap("gone");
	emu::log_clear();
	return err.str();
}

void run_seeds(std::uint64_t first, unsigned count)
{
	pit::run_seeds(first, count, run_seed);
}

#define SEED_RANGE(from) \
	PIT_SEED_RANGE_TEST(PointInTime, run_seeds, from, 50)

SEED_RANGE(0)
SEED_RANGE(50)
SEED_RANGE(100)
SEED_RANGE(150)
SEED_RANGE(200)
SEED_RANGE(250)
SEED_RANGE(300)
SEED_RANGE(350)
SEED_RANGE(400)
SEED_RANGE(450)
SEED_RANGE(500)
SEED_RANGE(550)
SEED_RANGE(600)
SEED_RANGE(650)
SEED_RANGE(700)
SEED_RANGE(750)
SEED_RANGE(800)
SEED_RANGE(850)
SEED_RANGE(900)
SEED_RANGE(950)

// A few of the same seeds for ThreadSanitizer (label concurrency).
TEST(PointInTimeConcurrency, EightSeedsUnderRaces)
{
	run_seeds(5000, 8);
}

}  // namespace
