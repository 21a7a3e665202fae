// The emulated machine one fuzz input runs on, made afresh for every
// input and checked when it is taken down.
//
//   sda (8:0), 4096 sectors, a DOS label in sector 0 naming
//     sda1  sectors 63..2110    a file system (block size from the input)
//     sda2  sectors 2111..3134  a file system of 1024-byte blocks
//     sda3  sectors 3135..3646  nothing mounted
//   sdb (8:16), 2048 sectors, a file system of 4096-byte blocks on the
//     whole disk (no partitions)
//
// Two processes, each with a scratch area of user memory (records,
// answers, bitmaps, an inaccessible page and a read-only page), hold up to
// kMaxSlots open files of /dev/corvalin and their read-buffer mappings.  A
// writer thread keeps changing the disks (file-system writes and raw bios)
// while it runs.
//
// Everything the input does is recorded as one line per operation; a
// finding prints those lines and the kernel log, then aborts, so that
// libFuzzer keeps the input as a crash.
#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <string>
#include <thread>
#include <vector>

#include "emu/block.hpp"
#include "emu/emu.hpp"

struct block_device;

namespace fuzz {

// ---- the machine's geometry ------------------------------------------------

constexpr std::uint64_t kSdaSectors = 4096;
constexpr std::uint64_t kSdbSectors = 2048;

struct Part {
	std::uint32_t start;
	std::uint32_t sectors;  // 0: no such partition
};

// The DOS labels an input may write to sda before a re-read: as made,
// sda2 grown over sda3, sda2 shrunk, sda1 alone.  sda1 never changes.
constexpr int kLabels = 4;
extern const Part kLabel[kLabels][3];

// The mounts: 0 sda1, 1 sda2, 2 sdb (whole disk).
constexpr int kMounts = 3;

// ---- user memory -----------------------------------------------------------

constexpr std::uint32_t kPage = 4096;
constexpr std::uint32_t kScratchPages = 8;
// Offsets in a process's scratch area.  The argument record and the
// UserBlockMap record have one copy per lane (0: the fuzzing thread,
// 1: the thread of an asynchronous operation).
constexpr std::uint32_t kRec[2] = {0, 128};
constexpr std::uint32_t kUbm[2] = {64, 192};
constexpr std::uint32_t kAnswer = 256;        // State, BlockSize, AutoMapState
constexpr std::uint32_t kAnswerKey = 256 + 20;   // the key of an AutoMapState
constexpr std::uint32_t kSavedKey = 512;
constexpr std::uint32_t kOut = 1024;          // GET_DIRTY_BLOCK, versions
constexpr std::uint32_t kStateAns[2] = {1536, 1600};  // GET_STATE for mmap
constexpr std::uint32_t kPitRec = 2048;
constexpr std::uint32_t kPitUbm = 2112;
constexpr std::uint32_t kPitAns = 2304;
constexpr std::uint32_t kPitOut = 2432;
constexpr std::uint32_t kBitmap = 1 * kPage;     // pages 1-3
constexpr std::uint32_t kBitmapBytes = 3 * kPage;
constexpr std::uint32_t kPitBitmap = 4 * kPage;  // pages 4-5
constexpr std::uint32_t kPitBitmapBytes = 2 * kPage;
constexpr std::uint32_t kGuard = 6 * kPage;      // PROT_NONE
constexpr std::uint32_t kReadOnly = 7 * kPage;   // PROT_READ

constexpr int kProcs = 2;
constexpr int kMaxSlots = 6;

// A read-buffer mapping as it was made (a partial munmap leaves pieces:
// the whole original range is unmapped before the file is closed).
struct MapRec {
	int proc;
	int slot;
	std::uint32_t addr;
	std::uint32_t len;
};

// One open file of the control device.
struct Slot {
	bool open = false;
	int proc = 0;
	int fd = -1;
	// From the last successful START_BACKUP on it.
	bool started = false;
	int mount = -1;             // the mount it backs up, -1: none of ours
	std::uint32_t total = 0;    // totalBlocks given
	unsigned bs = 0;            // block size of the device then
	std::uint32_t cursor = 0;   // next block of the default READ_BLOCKS
};

// ---- findings --------------------------------------------------------------

// Records one line of the input's history (printed with a finding; echoed
// to stderr when CORVALIN_FUZZ_TRACE is set).
void trace(const std::string &line);
void trace_reset();
// Prints what went wrong, the history and the kernel log; aborts.
[[noreturn]] void finding(const std::string &what);

// ---- raw block I/O ---------------------------------------------------------

// One bio of `sectors` sectors at `sector` of bdev (partition-relative for
// a partition), filled with bytes from `seed`, submitted and waited for.
// rw: 0 write, 1 read, 2 read-ahead.  kRawNoMemory when the bio or a page
// could not be had (nothing was submitted), kRawFailed when it ended not
// up to date.
constexpr int kRawOk = 0, kRawNoMemory = 1, kRawFailed = 2;
int raw_io(struct block_device *bdev, int rw, std::uint64_t sector,
	   unsigned sectors, std::uint64_t seed);

// Lets raw I/O of the writer through, or holds it back and waits until
// none is under way (around the frozen instant of a checked backup).
class Gate {
public:
	void enter();
	void leave();
	void close();
	void open();

private:
	std::mutex m_;
	std::condition_variable cv_;
	bool closed_ = false;
	int active_ = 0;
};

// ---- the machine -----------------------------------------------------------

struct Config {
	unsigned sda1_bs = 1024;
	bool bio_completion = false;
	bool hardirq = false;
	bool journal = false;
	bool writer = false;
	bool race_windows = false;
	bool prologue = false;
	std::uint8_t seed = 0;
};

class World {
public:
	explicit World(const Config &config);
	// Takes the machine down and checks it (see finish()).
	~World();
	World(const World &) = delete;
	World &operator=(const World &) = delete;

	// End of the input: the asynchronous operation joined, the writer
	// stopped, every mapping unmapped and every file closed, the
	// partitions as made and mounted, the module unloaded, file systems
	// and disks gone; then nothing may be left in the emulated kernel
	// (allocations, locks, threads) and no kernel warning but the one
	// the driver is known to print.
	void finish();

	const Config cfg;
	std::unique_ptr<emu::Disk> sda, sdb;

	// Mounts; fs_lock is held shared by whoever uses a file system
	// and exclusively to mount or unmount.
	std::shared_mutex fs_lock;
	std::array<std::unique_ptr<emu::FileSystem>, kMounts> fs;
	std::array<unsigned, kMounts> fs_bs{};
	bool mount(int m, unsigned bs);   // false when impossible
	void umount(int m);
	bool partition_exists(int m) const;
	// Blocks of mount m, 0 when not mounted.  Caller holds fs_lock.
	std::uint32_t blocks_of(int m) const;

	// The label in sector 0 and the one the partitions were last read
	// from.
	int label_on_disk = 0;
	int label_live = 0;
	void write_label(int v);
	// BLKRRPART on /dev/sda from process 0; its result.
	long reread_partitions();

	std::array<std::unique_ptr<emu::Process>, kProcs> procs;
	std::array<emu::uaddr, kProcs> scratch{};

	// Bookkeeping of files and mappings, shared with the asynchronous
	// operation's thread; never held across a system call.
	std::mutex book;
	std::array<Slot, kMaxSlots> slots;
	std::vector<MapRec> maps;

	bool loaded = false;
	// sda fails chosen sectors (from then on requests may fail).
	std::atomic<bool> disk_failures{false};
	// A START_BACKUP failed to start its thread: the driver then keeps
	// the thread's semaphore for good and every later start would wait
	// on it for ever (kernel/cacheThread.c says so), until a reload.
	bool thread_start_wedged = false;

	// Opens /dev/corvalin in process p for slot s; the descriptor or the
	// error.  Checks the result against the module's state.
	int open_slot(int s, int p, bool fault_armed);
	// Unmaps every mapping the slot's file made, then closes it.
	void close_slot(int s);
	int open_files();

	// The writer thread.
	void writer_start();
	void writer_stop();
	bool writer_running() const { return writer_.joinable(); }
	// Holds the writer between two of its operations (fault injection
	// must reach the driver's allocations, not the writer's).
	void writer_pause();
	void writer_resume();
	Gate raw_gate;

	// Mount m's block device, and sda's whole disk through an sda mount.
	// Caller holds fs_lock.
	struct block_device *bdev_of(int m) const;
	struct block_device *sda_whole() const;

private:
	void writer_loop(std::uint64_t seed);
	void restore_partitions();

	std::thread writer_;
	std::atomic<bool> writer_stop_{false};
	std::mutex pause_m_;
	std::condition_variable pause_cv_;
	bool pause_req_ = false;
	bool paused_ = false;
	bool finished_ = false;
};

}  // namespace fuzz
