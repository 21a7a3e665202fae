// An emulated machine for the backup program: the emulated 2.6.27 kernel
// with the corvalin module loaded and /dev/corvalin, a disk "sda" whose
// partition 1 ("/dev/sda1", 8:1) holds a small ext2 file system (super
// block, group descriptors, block bitmaps) and is mounted, further mounted
// partitions when asked for ("/dev/sda2", 8:2, ...), a writer that keeps
// rewriting partition 1's allocated blocks, and a user process whose
// libcorvalin transport the engine uses.
//
// The demo (`corvalin demo`) and the engine's tests run the real command
// line (cvb_cli_main) or the engine against it: platform() is the CLI's
// view of this machine (device names, the driver, the lock).
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "cli.h"
#include "corvalin_emu.hpp"
#include "emu/block.hpp"
#include "emu/emu.hpp"
#include "engine.h"

namespace corvalin::tool {

class EmuWorld {
public:
	struct Config {
		unsigned block_size = 1024;     // 1024 or 4096
		std::uint32_t blocks = 8192;    // of the partition
		std::uint32_t per_group = 2048; // ext2 blocks per group
		bool ext2 = true;               // else random bytes, no fs
		std::uint64_t seed = 1;
		std::uint32_t room = 0;         // free blocks after the
						// partition, for grow_partition
		// Further partitions, /dev/sda2, /dev/sda3, ... in this
		// order after partition 1 and its room, each with a mounted
		// file system of its own.
		struct Partition {
			std::uint64_t sectors = 4096;
			unsigned block_size = 1024;
			std::uint32_t per_group = 512;
			// The small ext2 layout (whole blocks, fewer than
			// 2^32); else the partition stays zero, unwritten
			// (sparse memory: any size, also beyond what the
			// driver's 32-bit sizes describe).
			bool ext2 = true;
			std::uint64_t seed = 2;
		};
		std::vector<Partition> more;
	};

	explicit EmuWorld(const Config &c);
	~EmuWorld();
	EmuWorld(const EmuWorld &) = delete;
	EmuWorld &operator=(const EmuWorld &) = delete;

	// "" when the machine came up; else what failed.
	const std::string &error() const { return error_; }

	// The CLI's platform of this machine (out/err: the given streams).
	cvb_platform platform(FILE *out, FILE *err);
	const cv_transport *transport() const { return transport_->get(); }

	// The writer: rewrites allocated blocks (of the ext2 layout, or any
	// block without it) with seeded contents, syncing now and then.
	void start_writer(std::uint64_t seed);
	void stop_writer();
	// Stop the writer's writes (the thread waits) / let them go on.
	void pause_writer();
	void resume_writer();
	std::uint64_t writes() const { return writes_; }

	// Partition `partno`'s current contents (dirty blocks written back
	// first; call with the writer paused or stopped).
	std::vector<std::byte> partition(int partno = 1);
	// Blocks the ext2 layout allocates (all blocks of partition 1
	// without it; none of a further partition without it).
	const std::vector<bool> &allocated(int partno = 1) const
	{
		return part(partno).allocated;
	}
	// Allocated blocks that are file data (no file-system metadata).
	const std::vector<std::uint32_t> &file_blocks(int partno = 1) const
	{
		return part(partno).writable;
	}

	emu::Disk &disk() { return *disk_; }
	emu::FileSystem &fs(int partno = 1) { return *part(partno).fs; }
	emu::Process &process() { return *process_; }
	unsigned block_size(int partno = 1) const
	{
		return part(partno).block_size;
	}
	std::uint32_t blocks(int partno = 1) const
	{
		return part(partno).blocks;
	}
	// Partitions of sda (1 + Config::more.size()).
	int partitions() const { return static_cast<int>(parts_.size()); }
	// Partition `partno`'s first sector on the disk, and its size.
	std::uint64_t start_sector(int partno = 1) const
	{
		return part(partno).start;
	}
	std::uint64_t sectors(int partno = 1) const
	{
		return part(partno).sectors;
	}
	// The size of the block device `name` (/dev/sda, /dev/sdaN) as the
	// emulated kernel tells it (BLKGETSIZE64 on its node): 0 or an
	// errno.
	int device_size(const char *name, std::uint64_t *bytes);

	// Unmount and mount again the file system (no change to the
	// contents): the driver keeps tracking across it.
	void remount();
	// Unload and load the module again (tracking is lost).
	int reload_module();
	// Grow partition 1 by `extra` blocks into the room after it, as
	// an administrator does: unmount, write the new DOS label, BLKRRPART
	// on the disk, mount again.  The file system is not resized: the new
	// blocks are free and zero.  The writer must be stopped.  0, or a
	// negative errno (-ENOSPC: not that much room; -EBUSY: the disk has
	// further partitions).
	int grow_partition(std::uint32_t extra);

	// The kernel log since the last call, as "kernel: ..." lines.
	std::vector<std::string> new_log_lines();

private:
	struct Part {
		unsigned block_size = 0;
		std::uint64_t start = 0, sectors = 0;
		std::uint32_t blocks = 0;
		std::unique_ptr<emu::FileSystem> fs;
		std::vector<bool> allocated;
		std::vector<std::uint32_t> writable;  // file blocks
	};

	const Part &part(int partno) const { return parts_.at(partno - 1); }
	Part &part(int partno) { return parts_.at(partno - 1); }
	void writer_loop(std::uint64_t seed);
	static int resolve_cb(void *ctx, const char *name,
			      std::uint32_t *major, std::uint32_t *minor);
	static int device_size_cb(void *ctx, const char *name,
				  std::uint64_t *bytes);
	static int take_lock_cb(void *ctx);
	static void release_lock_cb(void *ctx);

	Config cfg_;
	std::string error_;
	bool loaded_ = false;
	std::unique_ptr<emu::Disk> disk_;
	std::vector<Part> parts_;               // partition N at N - 1
	std::unique_ptr<emu::Process> process_;
	std::unique_ptr<EmuTransport> transport_;

	std::thread writer_;
	std::atomic<bool> stop_{false};
	std::atomic<std::uint64_t> writes_{0};
	std::mutex m_;
	std::condition_variable cv_;
	bool paused_ = false, parked_ = false;
	std::size_t log_seen_ = 0;
	bool locked_ = false;
};

}  // namespace corvalin::tool
