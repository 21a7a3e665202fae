// An emulated machine for the backup program: the emulated 2.6.27 kernel
// with the corvalin module loaded and /dev/corvalin, a disk "sda" whose
// partition 1 ("/dev/sda1", 8:1) holds a small ext2 file system (super
// block, group descriptors, block bitmaps) and is mounted, a writer that
// keeps rewriting the file system's allocated blocks, and a user process
// whose libcorvalin transport the engine uses.
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

	// The partition's current contents (dirty blocks written back
	// first; call with the writer paused or stopped).
	std::vector<std::byte> partition();
	// Blocks the ext2 layout allocates (all blocks without it).
	const std::vector<bool> &allocated() const { return allocated_; }

	emu::Disk &disk() { return *disk_; }
	emu::FileSystem &fs() { return *fs_; }
	emu::Process &process() { return *process_; }
	unsigned block_size() const { return cfg_.block_size; }
	std::uint32_t blocks() const { return cfg_.blocks; }

	// Unmount and mount again the file system (no change to the
	// contents): the driver keeps tracking across it.
	void remount();
	// Unload and load the module again (tracking is lost).
	int reload_module();
	// Grow the partition by `extra` blocks into the room after it, as
	// an administrator does: unmount, write the new DOS label, BLKRRPART
	// on the disk, mount again.  The file system is not resized: the new
	// blocks are free and zero.  The writer must be stopped.  0, or a
	// negative errno (-ENOSPC: not that much room).
	int grow_partition(std::uint32_t extra);

	// The kernel log since the last call, as "kernel: ..." lines.
	std::vector<std::string> new_log_lines();

private:
	void format_ext2(std::vector<std::byte> &image);
	void writer_loop(std::uint64_t seed);

	Config cfg_;
	std::string error_;
	bool loaded_ = false;
	std::unique_ptr<emu::Disk> disk_;
	std::unique_ptr<emu::FileSystem> fs_;
	std::unique_ptr<emu::Process> process_;
	std::unique_ptr<EmuTransport> transport_;
	std::vector<bool> allocated_;
	std::vector<std::uint32_t> writable_;   // blocks the writer may use

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
