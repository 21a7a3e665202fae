// The command-sequence fuzzer: libFuzzer drives the driver through the
// control device of the emulated kernel, under ASan and UBSan.  This
// header has the input format, the operations and the Runner that
// carries them out; fuzz_commands.cpp decodes inputs and dispatches,
// commands.cpp builds the sixteen commands, pit.cpp runs the checked
// point in time, world.cpp is the machine.
//
// One input is a two-byte header and up to kMaxOps operations of kOpBytes
// bytes each (a short last one is padded with zeros):
//
//   header[0]  bits 0-1  block size of sda1: 1024, 4096, 2048, 1024
//              bit 2     the disks end bios as a bio-based driver does
//              bit 3     completions in hard-interrupt context
//              bit 4     sda1 is ext3-like (journal written in the freeze)
//              bit 5     the writer thread runs from the start
//              bit 6     the emulation's race windows are on
//              bit 7     a well-formed prologue: open, START_BACKUP of
//                        sda1, SNAPSHOT, the largest read buffer mapped
//   header[1]  seed of the disks' contents, reordering and the writer
//
//   op[0]      0x00-0x9f  one of the sixteen commands (op[0] % 16, in
//                         the order of kCodes) on a file of the device
//              0xa0-0xff  another operation: (op[0] - 0xa0) % kOthers, in
//                         the order of enum Other
//   op[1]      the file (slot) it acts on, % kMaxSlots
//   op[2..7]   selectors: what each field, address or length is
//   op[8..11]  a raw 32-bit value (little-endian) for selectors that ask
//
// Every selector's value 0 is the well-formed choice (the record where a
// program puts it, the partition's own block count, the key the last
// GET_AUTOMAP_STATE answered, the next run of blocks into the file's read
// buffer...), so zeros, and the prefix of most inputs, make a backup that
// works; other values are boundaries, unreadable or unwritable memory,
// the read buffer itself, or the raw value.
//
// Checked at every step: the result of every command is one the driver
// defines; opens, closes, unmaps and file-system writes succeed when they
// must; after a module unload no allocation of the driver is left.  At
// the end of every input the machine is taken down and must be clean
// (World::finish).  The PIT operation runs a well-formed backup while the
// writer runs and compares every block read with the partition at the
// frozen instant.  A finding aborts with the history of the input.
#ifndef CORVALIN_FUZZ_RUNNER_HPP
#define CORVALIN_FUZZ_RUNNER_HPP

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "world.hpp"

#include "emu/block.hpp"
#include "emu/emu.hpp"

#include <linux/types.h>
#include <linux/kernel.h>
#include <linux/errno.h>
#include <linux/fs.h>
#include <linux/mm.h>
#include <linux/bio.h>
#include <linux/blkdev.h>
#include <linux/rwsem.h>
#include <linux/semaphore.h>
#include <linux/spinlock.h>
#include <asm/atomic.h>

extern "C" {
#include "kivlib.h"
}

namespace fuzz {


constexpr std::size_t kHeader = 2;
constexpr std::size_t kOpBytes = 12;
constexpr unsigned kMaxOps = 40;

const std::uint32_t kCodes[16] = {
	KIV_IOC_GET_BLOCK_SIZE,     KIV_IOC_START_BACKUP,
	KIV_IOC_SNAPSHOT,           KIV_IOC_GET_STATE,
	KIV_IOC_GET_AUTOMAP_STATE,  KIV_IOC_NO_LOAD_FROM_AUTOMAP,
	KIV_IOC_NO_START_AUTOMAP,   KIV_IOC_LOAD_BLOCK_MAP,
	KIV_IOC_GET_AUTOMAP,        KIV_IOC_GET_DIRTY_BLOCK,
	KIV_IOC_READ_BLOCKS,        KIV_IOC_GET_VERSION_MAJOR,
	KIV_IOC_GET_VERSION_MINOR,  KIV_IOC_SYNC,
	KIV_IOC_UNLOAD,             KIV_IOC_COMMAND_16,
};
const char *const kNames[16] = {
	"GET_BLOCK_SIZE", "START_BACKUP", "SNAPSHOT", "GET_STATE",
	"GET_AUTOMAP_STATE", "NO_LOAD_FROM_AUTOMAP", "NO_START_AUTOMAP",
	"LOAD_BLOCK_MAP", "GET_AUTOMAP", "GET_DIRTY_BLOCK", "READ_BLOCKS",
	"GET_VERSION_MAJOR", "GET_VERSION_MINOR", "SYNC", "UNLOAD",
	"COMMAND_16",
};
enum Cmd {
	GET_BLOCK_SIZE, START_BACKUP, SNAPSHOT, GET_STATE, GET_AUTOMAP_STATE,
	NO_LOAD, NO_START, LOAD_BLOCK_MAP, GET_AUTOMAP, GET_DIRTY_BLOCK,
	READ_BLOCKS, VERSION_MAJOR, VERSION_MINOR, SYNC, UNLOAD, COMMAND_16,
};

constexpr std::uint8_t kFirstOther = 0xa0;
enum Other {
	OPEN, CLOSE, MMAP, MUNMAP, PEEK, FS_WRITE, FS_SYNC, RAW_IO, WRITER,
	UMOUNT, MOUNT, RESCAN, MODULE, ASYNC, FAULT, PIT, ODD_IOCTL, SIGNAL,
	REOPEN, DISK_FAIL, kOthers
};
const char *const kOtherNames[kOthers] = {
	"open", "close", "mmap", "munmap", "peek", "fs-write", "fs-sync",
	"raw-io", "writer", "umount", "mount", "rescan", "module", "async",
	"fault", "pit", "odd-ioctl", "signal", "reopen", "disk-fail",
};

struct Op {
	std::uint8_t code = 0;
	std::uint8_t slot = 0;
	std::uint8_t s[6] = {};
	std::uint32_t raw = 0;

	bool is_ioctl() const { return code < kFirstOther; }
	int cmd() const { return code % 16; }
	int other() const { return (code - kFirstOther) % kOthers; }
};

inline Op decode(const std::uint8_t *p, std::size_t n)
{
	std::uint8_t b[kOpBytes] = {};
	std::memcpy(b, p, std::min(n, kOpBytes));
	Op op;
	op.code = b[0];
	op.slot = b[1];
	std::memcpy(op.s, b + 2, 6);
	op.raw = std::uint32_t(b[8]) | std::uint32_t(b[9]) << 8 |
		 std::uint32_t(b[10]) << 16 | std::uint32_t(b[11]) << 24;
	return op;
}

inline Op make(std::uint8_t code, std::uint8_t slot = 0)
{
	Op op;
	op.code = code;
	op.slot = slot;
	return op;
}

inline std::string op_name(const Op &op)
{
	return op.is_ioctl() ? kNames[op.cmd()] : kOtherNames[op.other()];
}

inline std::string hex(std::uint32_t v)
{
	char b[16];
	std::snprintf(b, sizeof(b), "%#x", v);
	return b;
}

// An operation that may run on the fuzzing thread while an asynchronous
// one is under way (everything else waits for it first).
inline bool may_overlap(const Op &op)
{
	if (op.is_ioctl())
		return true;
	switch (op.other()) {
	case OPEN: case CLOSE: case MMAP: case MUNMAP: case PEEK:
	case FS_WRITE: case FS_SYNC: case RAW_IO: case SIGNAL: case ODD_IOCTL:
		return true;
	default:
		return false;
	}
}

// An operation that may itself run asynchronously.
inline bool may_run_async(const Op &op)
{
	if (op.is_ioctl())
		return true;
	switch (op.other()) {
	case MUNMAP: case PEEK: case FS_WRITE: case FS_SYNC: case RAW_IO:
	case SIGNAL: case ODD_IOCTL:
		return true;
	default:
		return false;
	}
}

// An operation a fault injection is applied to: the driver's entry points.
inline bool faultable(const Op &op)
{
	if (op.is_ioctl())
		return true;
	switch (op.other()) {
	case OPEN: case CLOSE: case MMAP: case MUNMAP: case REOPEN:
		return true;
	default:
		return false;
	}
}

struct Dev {
	std::uint32_t major, minor;
};

// The mount a device number names, -1 for none of ours.
inline int mount_of(std::uint32_t major, std::uint32_t minor)
{
	if (major != 8)
		return -1;
	return minor == 1 ? 0 : minor == 2 ? 1 : minor == 16 ? 2 : -1;
}

class Runner {
public:
	explicit Runner(World &w) : w_(w) {}

	void exec(const Op &op, int lane, bool fault_armed);

private:
	// ---- selectors ------------------------------------------------------
	emu::uaddr addr(int proc, int slot, std::uint8_t sel,
			emu::uaddr def, std::uint32_t raw);
	static std::uint32_t len(std::uint8_t sel, std::uint32_t def,
				 std::uint32_t raw);
	static Dev dev(std::uint8_t sel, std::uint32_t raw);
	// A mapping of the slot's file (else of its process): address and
	// length, or 0.
	MapRec map_of(int proc, int slot, int nth);
	int pick_slot(std::uint8_t sel, int lane);

	bool poke(int proc, emu::uaddr a, const void *src, std::size_t n);
	template <typename T>
	T peek(int proc, emu::uaddr a)
	{
		T v{};
		w_.procs[proc]->peek(a, &v, sizeof(v));
		return v;
	}
	void fill_bitmap(int proc, std::uint8_t mode, std::uint32_t raw);

	// ---- operations -----------------------------------------------------
	void ioctl(const Op &op, int lane, bool fault_armed);
	void odd_ioctl(const Op &op, int lane);
	void mmap(const Op &op, int lane);
	void munmap(const Op &op);
	void peek_map(const Op &op);
	void fs_write(const Op &op);
	void fs_sync(const Op &op);
	void raw(const Op &op);
	void module(const Op &op);
	void rescan(const Op &op);
	void pit(const Op &op);

	World &w_;
	// An allocation failure is armed for the fuzzing thread's current
	// operation: an open that operation makes may fail with it.
	bool armed_ = false;
};

// The results the driver defines for a command, and those known exactly.
bool defined_result(int cmd, long r);
bool expected_result(int cmd, long r);

}  // namespace fuzz

#endif
