// What the backup benchmarks share (bench_backup_*.cpp): the emulated
// machine of a backup (the module loaded, /dev/corvalin, one disk with the
// partition under test, a file system mounted on it, one backup program
// as an emu::Process), a backup driven through libcorvalin as a backup
// program drives it, the close's statistics read back from the kernel log,
// and small timing and formatting helpers.
//
// Nothing here asserts a time: the programs print figures, their ratios
// and the targets they are held to.
#pragma once

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include <sys/resource.h>

#include "corvalin.hpp"
#include "corvalin_emu.hpp"
#include "emu/block.hpp"
#include "emu/emu.hpp"

namespace bb {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr unsigned kMajor = 8;
constexpr std::uint64_t kP1Start = 2048;  // sectors (1 MiB, aligned)

[[noreturn]] inline void die(const char *what)
{
	std::fprintf(stderr, "%s\n", what);
	std::exit(1);
}

inline double seconds_since(Clock::time_point t0)
{
	return std::chrono::duration<double>(Clock::now() - t0).count();
}

// Context switches of the whole program (every thread: the program's
// own, the disk's completion threads, kbackupd) so far.  The emulated
// kernel's sleeps and wake-ups are the host's, so this counts them.
inline long context_switches()
{
	struct rusage ru {};
	getrusage(RUSAGE_SELF, &ru);
	return ru.ru_nvcsw + ru.ru_nivcsw;
}

inline double median(std::vector<double> v)
{
	if (v.empty())
		return 0;
	std::sort(v.begin(), v.end());
	const std::size_t n = v.size();
	return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

inline double vmin(const std::vector<double> &v)
{
	return v.empty() ? 0 : *std::min_element(v.begin(), v.end());
}

inline double vmax(const std::vector<double> &v)
{
	return v.empty() ? 0 : *std::max_element(v.begin(), v.end());
}

inline const char *verdict(bool met)
{
	return met ? "met" : "MISSED";
}

// Byte k of block n as the disk holds it before a benchmark writes: never
// all zero, different for every block.
inline std::uint8_t pattern(std::uint32_t n, std::uint32_t k)
{
	return static_cast<std::uint8_t>(((n * 131u + k * 7u) % 251u) + 1u);
}

// A cheap checksum both read paths compute over what they deliver, so
// that neither can skip the data (and both pay the same for it).
inline std::uint64_t checksum(std::span<const std::byte> data)
{
	std::uint64_t s = 0;
	for (std::size_t i = 0; i + 8 <= data.size(); i += 8) {
		std::uint64_t w;
		std::memcpy(&w, data.data() + i, 8);
		s = s * 31 + w;
	}
	return s;
}

struct MachineConfig {
	std::uint64_t p1_sectors = 131072;  // 64 MiB
	unsigned block_size = 4096;
	unsigned threads = 2;               // the disk's completion threads
	std::chrono::microseconds latency{0};
	bool fill = true;                   // write pattern() over partition 1
};

// The machine of one benchmark: module, node, disk sda with partition 1
// under test, a file system on it, and the backup program's process.
// Torn down in the order the kernel needs: the program's files, the
// module (which hands the queue back), the file system, the disk.
class Machine {
public:
	explicit Machine(const MachineConfig &c) : cfg(c)
	{
		if (emu::module_load() != 0)
			die("bench: module load failed");
		emu::mknod(CV_DEVICE_PATH, KIV_MAJOR, 0);
		emu::DiskConfig d;
		d.major = kMajor;
		d.first_minor = 0;
		d.minors = 16;
		d.sectors = kP1Start + c.p1_sectors;
		d.name = "sda";
		d.threads = c.threads;
		disk = std::make_unique<emu::Disk>(d);
		if (disk->add_partition(1, kP1Start, c.p1_sectors) != 0)
			die("bench: add_partition failed");
		blocks = static_cast<std::uint32_t>(c.p1_sectors * 512 /
						    c.block_size);
		if (c.fill) {
			std::vector<std::uint8_t> v(c.block_size);
			for (std::uint32_t n = 0; n < blocks; n++) {
				for (unsigned k = 0; k < c.block_size; k++)
					v[k] = pattern(n, k);
				disk->write(kP1Start + std::uint64_t(n) *
							       (c.block_size / 512),
					    std::as_bytes(std::span(v)));
			}
		}
		fs = std::make_unique<emu::FileSystem>(*disk, 1, c.block_size);
		disk->set_latency(c.latency, c.latency);
		proc = std::make_unique<emu::Process>();
		transport = std::make_unique<corvalin::EmuTransport>(*proc);
		emu::log_clear();
	}
	~Machine()
	{
		transport.reset();
		proc.reset();
		if (emu::module_unload() != 0)
			std::fprintf(stderr, "bench: module unload failed\n");
		fs.reset();
		disk.reset();
	}
	Machine(const Machine &) = delete;
	Machine &operator=(const Machine &) = delete;

	const cv_transport *tp() const { return transport->get(); }

	MachineConfig cfg;
	std::unique_ptr<emu::Disk> disk;
	std::unique_ptr<emu::FileSystem> fs;
	std::unique_ptr<emu::Process> proc;
	std::unique_ptr<corvalin::EmuTransport> transport;
	std::uint32_t blocks = 0;
};

// Writes blocks 0 to count - 1 of partition 1 with `fill` through the file
// system and syncs; the seconds it took.
inline double timed_block_writes(Machine &m, unsigned char fill,
				 std::uint32_t count)
{
	std::vector<std::byte> data(m.cfg.block_size, std::byte{fill});
	const auto t0 = Clock::now();
	for (std::uint32_t n = 0; n < count; n++)
		if (m.fs->write_block(n, data) != 0)
			die("bench: write_block failed");
	if (m.fs->sync() != 0)
		die("bench: sync failed");
	return seconds_since(t0);
}

// What the close of a backup printed about it (printStats), by field.
struct CloseStats {
	bool found = false;
	double time_to_freeze = 0;   // seconds
	double time_frozen = 0;      // seconds
	long peak_cached = 0;
	long total_cached = 0;
};

inline CloseStats parse_close_stats(const std::vector<std::string> &lines)
{
	CloseStats s;
	auto value = [&](const std::string &l, const char *key, double &out) {
		const std::string k = std::string("<6>printStats: ") + key;
		if (l.compare(0, k.size(), k) == 0) {
			out = std::strtod(l.c_str() + k.size(), nullptr);
			return true;
		}
		return false;
	};
	for (const std::string &l : lines) {
		double v = 0;
		if (value(l, "time to freeze in seconds: ", v)) {
			s.time_to_freeze = v;
		} else if (value(l, "time frozen in seconds: ", v)) {
			s.time_frozen = v;
			s.found = true;
		} else if (value(l, "peak cached blocks: ", v)) {
			s.peak_cached = static_cast<long>(v);
		} else if (value(l, "total cached blocks: ", v)) {
			s.total_cached = static_cast<long>(v);
		}
	}
	return s;
}

// One backup of partition 1 through libcorvalin, as a backup program
// runs a first full backup: open, START_BACKUP of every block, one
// read-buffer mapping of the largest size the driver allows, SNAPSHOT
// (which starts change tracking of the partition: a session and its map);
// READ_BLOCKS runs; close, which hands the queue over to change tracking
// (kivAMRF).  A benchmark repetition builds a fresh Machine, so that every
// repetition starts from a disk with its own make_request function.
//
// (Not NO_START_AUTOMAP: the close of a backup without a tracking session
// gives the queue its own function back through unsetQueueMRFAMS, which
// returns with interrupts disabled, and the close then sleeps; 2.6.27
// warns once and goes on, and the emulation of this tree stops the
// program there instead.)
class Backup {
public:
	explicit Backup(Machine &m, std::uint32_t max_cache = 0)
	{
		using corvalin::Result;
		if (dev.open(m.tp()) != Result::Ok)
			die("bench: open /dev/corvalin failed");
		const std::uint32_t cache = max_cache ? max_cache : m.blocks;
		if (dev.start_backup(kMajor, 1, m.blocks, cache) != Result::Ok)
			die("bench: START_BACKUP failed");
		// 256 pages is the most a mapping may have for 4 KiB blocks,
		// fewer for smaller blocks (blockSize * 256 / 4096).
		const std::uint32_t pages = m.cfg.block_size * 256 / 4096;
		if (dev.map(pages * 4096, map) != Result::Ok)
			die("bench: mmap of the read buffer failed");
		run_blocks = pages * 4096 / m.cfg.block_size;
	}
	~Backup() { close(); }
	Backup(const Backup &) = delete;
	Backup &operator=(const Backup &) = delete;

	void snapshot()
	{
		if (dev.snapshot(nullptr, 0) != corvalin::Result::Ok)
			die("bench: SNAPSHOT failed");
		::State st{};
		if (dev.state(st) != corvalin::Result::Ok || st.state != 4)
			die("bench: the backup is not in state 4 after SNAPSHOT");
	}

	// Closes (unmap, close) and returns what the close printed.
	CloseStats close()
	{
		if (!dev.is_open())
			return {};
		(void)map.unmap();
		emu::log_clear();
		(void)dev.close();
		return parse_close_stats(emu::log_strings());
	}

	corvalin::Device dev;
	corvalin::Mapping map;
	std::uint32_t run_blocks = 0;
};

inline void print_header(const char *name, const char *what)
{
	std::printf("== %s: %s\n", name, what);
}

}  // namespace bb
