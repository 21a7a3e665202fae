// bench_incremental: what change tracking costs and saves.
//
//   read amplification  a full backup of the 64 MiB partition, then
//                       kWritten random file-system blocks rewritten (some
//                       twice), then an incremental presenting the session
//                       key: GET_AUTOMAP, LOAD_BLOCK_MAP, READ_BLOCKS of
//                       the map's runs.  Blocks read / distinct blocks
//                       written since the snapshot.  Target 1.00.
//   tracked writes      kWrites distinct blocks then sync, with no backup
//                       and no tracking, then the same after a full backup
//                       was closed (the queue's function is kivAMRF: every
//                       write sets its bits in the session map).  Ratio of
//                       throughputs tracked / untracked, median of kReps
//                       repetitions on fresh machines (each after one
//                       untimed pass over the same blocks).  Target >=
//                       0.98.
//   tracking memory     what the driver holds once a full backup is closed
//                       and only the session remains (emulation's
//                       accounting: pages, vmalloc, kmalloc), per tracked
//                       block; and for a sparse 2 TiB partition the
//                       page-handle array of the session map, its largest
//                       contiguous allocation (vmalloc).  The emulation's
//                       pointers are 8 bytes; the 32-bit kernel's are 4,
//                       so the array there is half the size printed.
#include <random>
#include <set>

#include "backup_bench.hpp"

namespace {

using bb::Clock;

constexpr int kReps = 5;
constexpr std::uint32_t kWrites = 4096;
constexpr std::uint32_t kWritten = 1000;

// A full backup of every block, closed; returns the session key.
AMSessionKey full_backup(bb::Machine &m)
{
	bb::Backup b(m);
	b.snapshot();
	AutoMapState s{};
	if (b.dev.automap_state(s) != corvalin::Result::Ok || s.state != 1)
		bb::die("bench: no session after the first snapshot");
	for (std::uint32_t at = 0; at < m.blocks; at += b.run_blocks) {
		const std::uint32_t n = std::min(b.run_blocks, m.blocks - at);
		if (b.dev.read_blocks(at, n, b.map.address()) !=
		    corvalin::Result::Ok)
			bb::die("bench: READ_BLOCKS failed");
	}
	(void)b.close();
	return s.amsKey;
}

bool bit(const std::vector<std::uint8_t> &map, std::uint32_t n)
{
	return map[n / 8] & (1u << (n % 8));
}

void read_amplification()
{
	bb::MachineConfig c;
	bb::Machine m(c);
	const AMSessionKey key = full_backup(m);

	std::mt19937 rng(42);
	std::set<std::uint32_t> written;
	std::vector<std::byte> data(c.block_size, std::byte{0x77});
	for (std::uint32_t i = 0; i < kWritten; i++) {
		const std::uint32_t n = rng() % m.blocks;
		written.insert(n);
		if (m.fs->write_block(n, data) != 0)
			bb::die("bench: write_block failed");
	}
	if (m.fs->sync() != 0)
		bb::die("bench: sync failed");

	bb::Backup b(m);
	if (b.dev.snapshot(&key) != corvalin::Result::Ok)
		bb::die("bench: SNAPSHOT failed");
	std::vector<std::uint8_t> map((m.blocks + 7) / 8);
	if (b.dev.automap(map, m.blocks) != corvalin::Result::Ok)
		bb::die("bench: GET_AUTOMAP failed (key refused?)");
	if (b.dev.load_block_map(map, m.blocks) != corvalin::Result::Ok)
		bb::die("bench: LOAD_BLOCK_MAP failed");
	std::uint32_t read = 0, runs = 0;
	const auto t0 = Clock::now();
	for (std::uint32_t at = 0; at < m.blocks;) {
		if (!bit(map, at)) {
			at++;
			continue;
		}
		std::uint32_t n = 1;
		while (at + n < m.blocks && n < b.run_blocks &&
		       bit(map, at + n))
			n++;
		if (b.dev.read_blocks(at, n, b.map.address()) !=
		    corvalin::Result::Ok)
			bb::die("bench: READ_BLOCKS failed");
		read += n;
		runs++;
		at += n;
	}
	const double t = bb::seconds_since(t0);
	(void)b.close();
	const double amp = double(read) / double(written.size());
	std::printf("read amplification: %u writes to %zu distinct blocks of "
		    "%u; the incremental read %u blocks in %u runs (%.3f s)\n",
		    kWritten, written.size(), m.blocks, read, runs, t);
	std::printf("  blocks read / blocks written: %.2f  target 1.00: %s\n",
		    amp, bb::verdict(read == written.size()));
}

double timed_writes(bb::Machine &m, unsigned char fill)
{
	return bb::timed_block_writes(m, fill, kWrites);
}

void tracked_writes(std::chrono::microseconds latency)
{
	bb::MachineConfig c;
	c.latency = latency;
	c.fill = false;
	std::vector<double> none_s, tracked_s, ratio;
	for (int rep = 0; rep < kReps; rep++) {
		bb::Machine m(c);
		// A first pass untimed: both timed passes then rewrite
		// blocks the file system already holds.
		(void)timed_writes(m, 0);
		none_s.push_back(timed_writes(m, 1));
		{
			bb::Backup b(m);
			b.snapshot();
		}
		tracked_s.push_back(timed_writes(m, 2));
		ratio.push_back(none_s.back() / tracked_s.back());
	}
	const double mib = double(kWrites) * c.block_size / (1 << 20);
	std::printf("tracked writes, disk latency %lld us: %u writes of %u "
		    "bytes then sync, %d repetitions\n",
		    static_cast<long long>(latency.count()), kWrites,
		    c.block_size, kReps);
	std::printf("  untracked  %8.1f MiB/s; tracked %8.1f MiB/s (medians)\n",
		    mib / bb::median(none_s), mib / bb::median(tracked_s));
	const double r = bb::median(ratio);
	std::printf("  ratio tracked / untracked: %.3f (min %.3f, max %.3f)  "
		    "target >= 0.98: %s\n", r, bb::vmin(ratio), bb::vmax(ratio),
		    bb::verdict(r >= 0.98));
}

void tracking_memory(std::uint64_t sectors, unsigned block_size,
		     const char *label)
{
	bb::MachineConfig c;
	c.p1_sectors = sectors;
	c.block_size = block_size;
	c.fill = false;
	bb::Machine m(c);
	const emu::Usage before = emu::usage();
	{
		bb::Backup b(m, 1024);
		b.snapshot();
	}
	const emu::Usage after = emu::usage();
	const long pages = after.pages - before.pages;
	const long vm = after.vmalloc_bytes - before.vmalloc_bytes;
	const long km = after.kmalloc_bytes - before.kmalloc_bytes;
	const double total = double(pages) * 4096 + double(vm) + double(km);
	std::printf("tracking only, %s partition of %u-byte blocks (%u "
		    "blocks):\n", label, block_size, m.blocks);
	std::printf("  held: %ld bitmap pages, %ld bytes vmalloc (page-handle "
		    "array), %ld bytes kmalloc\n", pages, vm, km);
	std::printf("  %.4f bytes per tracked block; largest contiguous "
		    "allocation %ld bytes (%ld with 4-byte pointers)\n",
		    total / m.blocks, vm, vm / 2);
}

}  // namespace

int main()
{
	bb::print_header("bench_incremental",
			 "read amplification of an incremental, tracked "
			 "writes, memory of tracking");
	read_amplification();
	tracked_writes(std::chrono::microseconds(0));
	tracked_writes(std::chrono::microseconds(50));
	constexpr std::uint64_t GiB = 2097152;  // sectors
	tracking_memory(131072, 4096, "64 MiB");
	tracking_memory(2048 * GiB, 4096, "2 TiB");
	tracking_memory(2048 * GiB, 1024, "2 TiB");
	return 0;
}
