// Chains of a full backup and incrementals while the writers never pause,
// not even around SNAPSHOT: raw writes to the backed-up partition (what
// O_DIRECT and writes to the raw device send, which no freeze stops),
// file-system writes (which the freeze holds), and raw writes to the
// neighbouring partition of the same disk.
//
// Nothing stops the writers, so the partition's content at the frozen
// instant cannot be read off the disk; every block is stamped instead
// (its number and a sequence number, the rest a pattern of both), and an
// event clock orders the writes and the snapshots.  Writes to one block
// come from one writer, one after the other, so a block's sequence
// numbers grow with time.  Image k (the full backup patched with the
// blocks of incrementals 1..k) must hold, for every block, whole the
// contents of one write of that block, no older than the last write that
// ended before SNAPSHOT k was issued and no newer than the last write
// issued before it returned.  A write that lands after an instant but is
// missing from the next change map leaves an older block in every later
// image, below that bound.
//
// The chain starts on a tracked disk, as every chain does after its first
// backup; its first image is a full read under the writers.
//
// Replay one seed with CORVALIN_SEED=<n>.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <limits>
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

constexpr std::uint64_t kP1Start = 63;  // odd: not page aligned
constexpr std::uint64_t kP1Sectors = 256;
constexpr std::uint64_t kP2Sectors = 64;
constexpr std::uint64_t kNever = std::numeric_limits<std::uint64_t>::max();

// Byte i of block `block` as written by write `seq` (0: the initial
// contents).  The first eight bytes are the stamp.
unsigned char stamp_byte(std::uint32_t block, std::uint32_t seq, unsigned i)
{
	if (i < 4)
		return static_cast<unsigned char>(block >> (8 * i));
	if (i < 8)
		return static_cast<unsigned char>(seq >> (8 * (i - 4)));
	return static_cast<unsigned char>(block * 131u + seq * 7u + i);
}

void stamp(unsigned char *d, unsigned bs, std::uint32_t block,
	   std::uint32_t seq)
{
	for (unsigned i = 0; i < bs; i++)
		d[i] = stamp_byte(block, seq, i);
}

// The sequence number a block holds, or -1 when it is not one whole
// write of that block.
long long stamp_of(const std::byte *d, unsigned bs, std::uint32_t block)
{
	std::uint32_t b = 0, seq = 0;
	std::memcpy(&b, d, 4);
	std::memcpy(&seq, d + 4, 4);
	if (b != block)
		return -1;
	for (unsigned i = 8; i < bs; i++)
		if (static_cast<unsigned char>(d[i]) != stamp_byte(block, seq, i))
			return -1;
	return seq;
}

// When each write of a block was issued and when it ended, on one clock
// with the snapshots.
struct Write {
	std::uint32_t seq;
	std::uint64_t issued;
	std::uint64_t ended;
};

class History {
public:
	explicit History(std::uint32_t blocks) : writes_(blocks) {}
	std::uint64_t tick() { return clock_++; }
	void issue(std::uint32_t first, std::uint32_t last, std::uint32_t seq,
		   std::uint64_t at)
	{
		std::lock_guard lk(m_);
		for (std::uint32_t n = first; n <= last; n++)
			writes_[n].push_back({seq, at, kNever});
	}
	void end(std::uint32_t first, std::uint32_t last, std::uint32_t seq,
		 std::uint64_t at)
	{
		std::lock_guard lk(m_);
		for (std::uint32_t n = first; n <= last; n++)
			for (Write &w : writes_[n])
				if (w.seq == seq)
					w.ended = at;
	}
	// "" when seq is a contents block n may hold for a snapshot
	// issued at `begin` that returned at `end`.
	std::string check(std::uint32_t n, long long seq, std::uint64_t begin,
			  std::uint64_t end)
	{
		std::lock_guard lk(m_);
		std::uint32_t low = 0, high = 0;
		bool known = seq == 0;
		for (const Write &w : writes_[n]) {
			if (w.ended < begin)
				low = std::max(low, w.seq);
			if (w.issued < end)
				high = std::max(high, w.seq);
			known = known || w.seq == seq;
		}
		std::ostringstream o;
		if (seq < 0)
			o << "holds no whole write of the block";
		else if (!known)
			o << "holds write " << seq << ", never written";
		else if (seq < low)
			o << "holds write " << seq << " but write " << low
			  << " had ended before the snapshot";
		else if (seq > high)
			o << "holds write " << seq << ", issued after the "
			  << "snapshot returned (newest before: " << high
			  << ")";
		return o.str();
	}

private:
	std::atomic<std::uint64_t> clock_{1};
	std::mutex m_;
	std::vector<std::vector<Write>> writes_;
};

std::string run_chain(std::uint64_t seed)
{
	std::mt19937_64 rng(seed);
	const unsigned bs = (seed & 1) ? 1024 : 4096;
	std::ostringstream err;

	if (emu::module_load() != 0)
		return "module load failed";
	emu::mknod(CV_DEVICE_PATH, KIV_MAJOR, 0);

	auto disk = pit::seeded_disk(seed, kP1Start, kP1Sectors, kP2Sectors);
	if (!disk)
		return "partitions";
	if (seed & 8)
		disk->set_latency(std::chrono::microseconds(0),
				  std::chrono::microseconds(300));
	const std::uint32_t blocks =
		static_cast<std::uint32_t>(kP1Sectors * 512 / bs);
	const std::uint32_t spb = bs / 512;
	{
		std::vector<unsigned char> init(std::size_t(blocks) * bs);
		for (std::uint32_t n = 0; n < blocks; n++)
			stamp(init.data() + std::size_t(n) * bs, bs, n, 0);
		disk->write(kP1Start, std::as_bytes(std::span(init)));
	}
	auto fs1 = std::make_unique<emu::FileSystem>(*disk, 1, bs);
	auto fs2 = std::make_unique<emu::FileSystem>(*disk, 2, 1024);
	struct block_device *p1 = fs1->bdev();
	struct block_device *p2 = fs2->bdev();

	// Blocks [0, fs_end) belong to the file-system writer, the rest is
	// cut between two raw writers.
	const std::uint32_t fs_end = blocks / 4;
	const std::uint32_t raw_mid = fs_end + (blocks - fs_end) / 2;
	History history(blocks);
	std::atomic<bool> stop{false};
	std::atomic<std::uint32_t> next_seq{1};
	std::vector<std::thread> workers;
	auto fs_writer = [&](std::uint64_t seed_of_thread) {
		std::mt19937_64 r(seed_of_thread);
		std::vector<unsigned char> data(bs);
		while (!stop) {
			const auto n = static_cast<std::uint32_t>(r() % fs_end);
			const std::uint32_t seq = next_seq++;
			stamp(data.data(), bs, n, seq);
			history.issue(n, n, seq, history.tick());
			// Buffered: it reaches the disk at a sync, or at the
			// freeze, which writes back what was written before it.
			fs1->write_block(n, std::as_bytes(std::span(data)));
			history.end(n, n, seq, history.tick());
			if (r() % 4 == 0)
				fs1->sync();
			std::this_thread::yield();
		}
	};
	// Runs of up to four blocks of [lo, hi), each block stamped.
	auto raw_writer = [&](std::uint32_t lo, std::uint32_t hi,
			      std::uint64_t seed_of_thread) {
		std::mt19937_64 r(seed_of_thread);
		while (!stop) {
			const auto n = static_cast<std::uint32_t>(
				lo + r() % (hi - lo));
			const std::uint32_t last = std::min<std::uint32_t>(
				hi - 1, n + static_cast<std::uint32_t>(r() % 4));
			const std::uint32_t seq = next_seq++;
			history.issue(n, last, seq, history.tick());
			pit::raw_io_filled(
				p1, WRITE, std::uint64_t(n) * spb,
				(last - n + 1) * spb,
				[&](unsigned char *d, unsigned off) {
					for (unsigned k = 0; k < 4096; k += bs)
						stamp(d + k, bs,
						      n + (off + k) / bs, seq);
				});
			history.end(n, last, seq, history.tick());
			std::this_thread::yield();
		}
	};
	auto neighbour_writer = [&](std::uint64_t seed_of_thread) {
		std::mt19937_64 r(seed_of_thread);
		while (!stop) {
			const unsigned n = 1 + r() % 8;
			pit::raw_io(p2, WRITE, r() % (kP2Sectors - n + 1), n, r);
			std::this_thread::yield();
		}
	};
	auto start_writers = [&] {
		workers.emplace_back(fs_writer, rng());
		workers.emplace_back(raw_writer, fs_end, raw_mid, rng());
		workers.emplace_back(raw_writer, raw_mid, blocks, rng());
		workers.emplace_back(neighbour_writer, rng());
	};
	auto stop_writers = [&] {
		stop = true;
		for (auto &t : workers)
			t.join();
		workers.clear();
	};

	auto process = std::make_unique<emu::Process>();
	std::vector<std::byte> image(std::size_t(blocks) * bs);
	AMSessionKey key{};
	const unsigned chain = 3 + static_cast<unsigned>(rng() % 3);
	{
		corvalin::EmuTransport transport(*process);
		// The disk is tracked before the writers start, as it is
		// between the backups of a chain: every write then passes the
		// driver's hook.  (A write that entered the disk's request
		// function before the queue was first hooked, and still waits
		// there for a request when the snapshot drains the queue, is
		// the one write the driver cannot order; the first backup of
		// an untracked disk is full, and such a write can go missing
		// from the next map only.)
		{
			corvalin::Device dev;
			if (dev.open(transport.get()) != corvalin::Result::Ok ||
			    dev.start_backup(8, 1, blocks, 1u << 20) !=
				    corvalin::Result::Ok ||
			    dev.snapshot(nullptr, 0) != corvalin::Result::Ok)
				return "tracking not started";
			AutoMapState ams{};
			if (dev.automap_state(ams) != corvalin::Result::Ok)
				return "no key";
			key = ams.amsKey;
		}
		start_writers();
		for (unsigned k = 0; k < chain && err.str().empty(); k++) {
			corvalin::Device dev;
			if (dev.open(transport.get()) != corvalin::Result::Ok) {
				err << "open";
				break;
			}
			Backup *b = test::backup_of(*process, dev.fd());
			if (dev.start_backup(8, 1, blocks, 1u << 20) !=
			    corvalin::Result::Ok) {
				err << "backup " << k << ": START_BACKUP";
				break;
			}
			// Some writes between the start and the snapshot.
			const std::uint32_t from = next_seq;
			const std::uint32_t more = static_cast<std::uint32_t>(
				rng() % 8);
			while (next_seq - from < more)
				std::this_thread::yield();
			const std::uint64_t begin = history.tick();
			const corvalin::Result snap =
				dev.snapshot(&key, sizeof(key));
			const std::uint64_t end = history.tick();
			if (snap != corvalin::Result::Ok ||
			    b->state != BU_STATE_SNAPSHOT) {
				err << "backup " << k << ": SNAPSHOT "
				    << corvalin::to_int(snap) << " state "
				    << b->state;
				break;
			}
			AutoMapState ams{};
			if (dev.automap_state(ams) != corvalin::Result::Ok ||
			    ams.state != AM_STATE_IN_SYNC) {
				err << "backup " << k << ": not in sync";
				break;
			}
			key = ams.amsKey;

			// The first image is a full read (in state 4, the
			// handed-over map exported and set aside); the others
			// read the change map.
			std::vector<std::uint8_t> map((blocks + 7) / 8, 0xFF);
			if (dev.automap(map, blocks) != corvalin::Result::Ok) {
				err << "backup " << k << ": no change map";
				break;
			}
			if (k == 0) {
				std::fill(map.begin(), map.end(), 0xFF);
			} else {
				if (dev.load_block_map(map, blocks) !=
				    corvalin::Result::Ok) {
					err << "backup " << k
					    << ": change map not loaded";
					break;
				}
			}
			corvalin::Mapping m;
			const std::uint32_t per_map =
				static_cast<std::uint32_t>(b->maxVMPages) *
				4096 / bs;
			if (dev.map(static_cast<std::uint32_t>(
					    b->maxVMPages) * 4096,
				    m) != corvalin::Result::Ok) {
				err << "mmap";
				break;
			}
			// Runs of random length, as a program's buffer and
			// the map allow.
			unsigned long read = 0;
			const std::string e = pit::read_map_into(
				dev, m, map, blocks, bs, image,
				[&] {
					return 1 + static_cast<std::uint32_t>(
						       rng() % per_map);
				},
				&read);
			if (!e.empty()) {
				err << "backup " << k << ": " << e;
				break;
			}
			m = corvalin::Mapping();
			dev.close();
			for (std::uint32_t n = 0; n < blocks && err.str().empty();
			     n++) {
				const std::string e = history.check(
					n,
					stamp_of(image.data() +
							 std::size_t(n) * bs,
						 bs, n),
					begin, end);
				if (!e.empty())
					err << "image " << k << ", block " << n
					    << " (bs " << bs << "): " << e;
			}
		}
	}
	stop_writers();
	process.reset();
	if (emu::module_unload() != 0 && err.str().empty())
		err << "module unload failed";
	fs2.reset();
	fs1.reset();
	disk.reset();
	if (err.str().empty()) {
		auto problems = emu::test_problems();
		if (!problems.empty())
			err << "left behind: " << problems.front();
	}
	emu::log_clear();
	return err.str();
}

void run_chains(std::uint64_t first, unsigned count)
{
	pit::run_seeds(first, count, run_chain);
}

#define UNPAUSED_RANGE(from) \
	PIT_SEED_RANGE_TEST(ChainUnpaused, run_chains, from, 50)

UNPAUSED_RANGE(0)
UNPAUSED_RANGE(50)
UNPAUSED_RANGE(100)
UNPAUSED_RANGE(150)
UNPAUSED_RANGE(200)
UNPAUSED_RANGE(250)
UNPAUSED_RANGE(300)
UNPAUSED_RANGE(350)
UNPAUSED_RANGE(400)
UNPAUSED_RANGE(450)
UNPAUSED_RANGE(500)
UNPAUSED_RANGE(550)
UNPAUSED_RANGE(600)
UNPAUSED_RANGE(650)
UNPAUSED_RANGE(700)
UNPAUSED_RANGE(750)
UNPAUSED_RANGE(800)
UNPAUSED_RANGE(850)
UNPAUSED_RANGE(900)
UNPAUSED_RANGE(950)

// A few chains for ThreadSanitizer, with the race windows on (among them
// the window after a write is let in and before it is recorded).
TEST(ChainUnpausedConcurrency, FourChainsUnderRaces)
{
	run_chains(7000, 4);
}

}  // namespace
