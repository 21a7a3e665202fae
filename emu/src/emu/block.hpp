// Disks, partitions and mounted file systems of the emulated machine, as
// tests, tools and the demo declare them.
//
// A Disk is a gendisk with a request queue whose make_request_fn is the
// disk's own (Disk::request_fn()): it takes each bio in the submitter's
// context and completes it later from the disk's completion threads, with
// optional latency, reordering and failing sectors, reading and writing the
// backing store (sparse memory or an image file) page by page through the
// bio's vectors.  Partitions are 2.6.27 hd_structs in disk->part[].
//
// A FileSystem is mounted on one block device of a disk (the whole disk or
// a partition), which opens that device as a mount does (bd_disk,
// bd_contains, bd_part set; a partition also opens its whole disk).  It has
// a super block (get_super finds it), a block size, and a small write API:
// writes are buffered as dirty blocks and written back through submit_bio
// (so they pass any make_request_fn hooked on the queue) by sync(), by
// fsync_bdev/sync_blockdev and by freeze_bdev; a writer that tests the
// freeze level while the file system is frozen waits until the thaw (one
// already past the test completes, as on 2.6.27).  Reads of blocks that are
// not dirty are bios too.
//
// Objects here are the machine's hardware and mounts: destroy them after
// the driver let go of them (unload the module before a disk it hooked
// goes away), file systems before their disks.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

struct bio;
struct block_device;
struct gendisk;
struct request_queue;
struct super_block;

namespace emu {

// A kernel device number (dev_t): major in the top 12 bits, minor in the
// low 20, as 2.6.27's MKDEV.
using devnum = std::uint32_t;
constexpr devnum mkdev(unsigned major, unsigned minor)
{
	return (major << 20) | minor;
}

// One request as the disk's request function received it (after the block
// layer's partition remapping, so `sector` is a sector of the whole disk).
struct DiskRequest {
	std::uint64_t seq = 0;     // 1 for the disk's first request
	devnum dev = 0;            // bio->bi_bdev->bd_dev as received
	std::uint64_t sector = 0;  // bio->bi_sector as received
	std::uint32_t bytes = 0;   // bio->bi_size as received
	unsigned long rw = 0;      // bio->bi_rw
	const struct bio *bio = nullptr;  // valid during the observer call only
};

// In which order the completion threads take pending requests.
enum class Reorder {
	Fifo,    // arrival order
	Lifo,    // newest first (with one thread: exactly reversed batches)
	Random,  // uniformly among the pending ones (seeded)
};

// How a request ends, as the two kinds of 2.6.27 block drivers end it.
// The queue's ordered mode, as 2.6.27's blk_queue_ordered() sets it.  With
// a draining mode a barrier waits until every request queued before it
// has completed, and requests queued after it wait for it.
enum class Ordered {
	None,        // QUEUE_ORDERED_NONE (a device-mapper volume): a barrier
		     // ends at once with -EOPNOTSUPP
	Drain,       // QUEUE_ORDERED_DRAIN (IDE or SCSI, write cache off): no
		     // prepare_flush_fn, so an empty barrier is refused
	DrainFlush,  // QUEUE_ORDERED_DRAIN_FLUSH (write cache on, the usual
		     // case): an empty barrier drains the queue
};

enum class Completion {
	// Request-based (sd, ide): the block layer ends the request -- on an
	// error it logs "<3>end_request: I/O error, dev sda, sector N", and it
	// consumes the bio (bi_size becomes 0, bi_sector advances past the
	// transfer) before calling bio_endio.  The disk of the boot test.
	Request,
	// Bio-based (a RAM disk): bio_endio(bio, error) on the bio untouched.
	Bio,
};

// In which context a completion thread ends a request.
enum class CompletionContext {
	// The process-wide default: the environment variable
	// EMU_DISK_COMPLETION ("softirq" or "hardirq"; unset: softirq).
	Default,
	// 2.6.27's block softirq: in_softirq(), interrupts on; the request
	// goes back to the pool under the queue lock afterwards.
	Softirq,
	// An IDE-style interrupt handler: in_irq(), interrupts off and the
	// queue lock held around bio_endio and the request's release, as
	// ide's end_request runs under ide_lock, which is its queue lock.
	Hardirq,
};
// The context Default stands for now (reads EMU_DISK_COMPLETION; a value
// other than the two names is fatal).  A disk resolves it when made.
CompletionContext default_completion_context();

enum class Dir { Read = 1, Write = 2, Both = 3 };

struct DiskConfig {
	unsigned major = 8;
	unsigned first_minor = 0;
	int minors = 16;               // 1: no partitions possible
	std::uint64_t sectors = 0;     // capacity; 0 with an image: its size
	std::string name = "sda";      // disk_name: partitions are "sda1"...
	std::string image;             // backing file; empty: sparse memory
	bool queue_lock = true;        // q->queue_lock = &q->__queue_lock
	unsigned threads = 2;          // completion threads; 0: complete
				       // inside the request function
	Completion completion = Completion::Request;
	CompletionContext context = CompletionContext::Default;
	// Requests the queue has (q->nr_requests, BLKDEV_MAX_RQ by default):
	// a submitter that finds them all in flight sleeps in the request
	// function until a completion gives one back.
	unsigned nr_requests = 128;
	// Read the partition table (DOS label in sector 0) when the disk is
	// added, as 2.6.27's register_disk does; off: partitions come only
	// from add_partition() (or a later BLKRRPART).
	bool scan_partitions = false;
	Ordered ordered = Ordered::DrainFlush;
};

class Disk {
public:
	explicit Disk(DiskConfig config);
	// Waits for the requests in flight (unplugging), stops the threads
	// and removes the disk.  Fatal while a file system is mounted on it
	// or while its queue's make_request_fn is not the disk's own.
	~Disk();
	Disk(const Disk &) = delete;
	Disk &operator=(const Disk &) = delete;

	// add_partition(disk, partno, start, sectors): partition `partno`
	// (1 .. minors - 1) from sector `start` for `sectors` sectors.
	// Returns 0 or add_partition's negative error.
	int add_partition(int partno, std::uint64_t start,
			  std::uint64_t sectors);
	void delete_partition(int partno);
	// Marks the whole disk's partition table stale (bd_invalidated, as
	// a media change does): its next first open re-reads it.
	void set_invalidated();

	struct gendisk *gendisk() const;
	struct request_queue *queue() const;
	// Device number of the whole disk (0) or of partition `partno`.
	devnum dev(int partno = 0) const;
	// bdget() of that device number (the emulation keeps the reference).
	struct block_device *bdev(int partno = 0) const;
	// The disk's own make_request_fn: what q->make_request_fn is until a
	// driver replaces it, and what a driver that hooks the queue calls on.
	static int (*request_fn())(struct request_queue *, struct bio *);

	// The backing store, bypassing the block layer (set-up and checks).
	void read(std::uint64_t sector, std::span<std::byte> out) const;
	void write(std::uint64_t sector, std::span<const std::byte> in);
	std::uint64_t sectors() const;

	// --- behaviour ------------------------------------------------------
	// Each request waits a uniformly drawn time in [min, max] before the
	// completion thread serves it.
	void set_latency(std::chrono::microseconds min,
			 std::chrono::microseconds max);
	void set_reorder(Reorder order, std::uint64_t seed = 1);
	// Hold every request (none is served) until unplug(); then the held
	// ones are served in the order set_reorder chose.
	void plug();
	void unplug();
	// Requests of direction `dir` that touch any sector of [first, first +
	// count) fail with `error` (-EIO, or -EOPNOTSUPP): nothing is
	// transferred and the bio ends without BIO_UPTODATE.
	void fail_sectors(std::uint64_t first, std::uint64_t count,
			  int error = -5, Dir dir = Dir::Both);
	void clear_failures();
	// Waits until no request is pending or being served (plugged ones
	// stay pending: unplug first).
	void drain();

	// --- test hooks -----------------------------------------------------
	// Requests the request function received so far.
	std::uint64_t requests() const;
	// Requests of the pool in flight now, and submitters sleeping in the
	// request function for one.
	unsigned requests_allocated() const;
	unsigned pool_sleepers() const;
	// The context completions run in (Default resolved).
	CompletionContext completion_context() const;
	// Called in the submitter's context for every request the request
	// function receives, before it is queued.  Empty: none.
	void set_observer(std::function<void(const DiskRequest &)> observer);

	struct Impl;

private:
	std::unique_ptr<Impl> impl_;
};

// A partition of a DOS label: its first sector and its length.
struct DosPartition {
	std::uint32_t start;
	std::uint32_t sectors;
};

// Writes a DOS label to sector 0 of `disk` (backing store only) naming
// `parts` as partitions 1, 2, ... (type 0x83): what the next BLKRRPART,
// or the scan when a disk is added, finds.  At most four.
void write_dos_label(Disk &disk, std::span<const DosPartition> parts);

// A block size of 0 asks the file system to read it from an ext2/ext3
// super block on the device (1024 << s_log_block_size).
class FileSystem {
public:
	// Mounts on partition `partno` of `disk` (0: the whole disk).  Block
	// sizes are powers of two up to 4096; below 512 a file system can be
	// mounted and asked for its size, but not read or written.
	FileSystem(Disk &disk, int partno, unsigned block_size,
		   bool read_only = false);
	// Writes back what is dirty and unmounts (waiting, as umount does,
	// until no get_super() reference and no freeze holds the super block).
	~FileSystem();
	FileSystem(const FileSystem &) = delete;
	FileSystem &operator=(const FileSystem &) = delete;

	struct super_block *sb() const;
	struct block_device *bdev() const;
	unsigned block_size() const;
	std::uint64_t blocks() const;  // device size / block size

	// Buffers `data` (block_size() bytes) as block `block`.  Waits while
	// the file system is frozen.  Returns 0, -EINVAL (bad block or size),
	// -EROFS (read-only) or -ENOMEM (no page).
	int write_block(std::uint64_t block, std::span<const std::byte> data);
	// A store to the block through a shared writable mapping of a file:
	// the page is dirtied without any freeze test (2.6.27 has none on
	// that path), so a frozen file system takes it and the next
	// write-back sends it.  Returns as write_block.
	int write_mapped(std::uint64_t block, std::span<const std::byte> data);
	// Test hook: runs in write_block after the writer passed the frozen
	// test and before it dirties its block (empty: none).
	void set_after_frozen_check(std::function<void()> hook);
	// Makes the file system ext3-like: blocks [first, first + blocks) are
	// its journal; each freeze's write_super_lockfs writes a commit block
	// there and the super block (needs-recovery cleared), each thaw's
	// unlockfs the super block again (flag set), through the queue.
	// Needs a block size of at least 1024.
	void enable_journal(std::uint64_t first_block, unsigned blocks);
	// The block's current contents: the dirty copy, or a read bio sent
	// through the queue and waited for.  0 or -EIO / -EINVAL / -ENOMEM.
	int read_block(std::uint64_t block, std::span<std::byte> out);
	// Writes every dirty block back (one write bio per block, submitted
	// together, then waited for).  0, or -EIO when any write failed since
	// the last sync.
	int sync();

	std::size_t dirty_blocks() const;
	// Writers currently waiting for a thaw.
	std::size_t writers_waiting() const;
	// Write bios this file system sent so far.
	std::uint64_t writes_submitted() const;

	struct Impl;

private:
	std::unique_ptr<Impl> impl_;
};

// The block size an ext2/ext3 super block on `disk`'s partition `partno`
// declares, or 0 when there is none.
unsigned ext2_block_size(const Disk &disk, int partno);

}  // namespace emu
