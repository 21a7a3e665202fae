// Internal API shared by the emulation's block layer (block_*.cpp) and its
// file systems (fs_*.cpp).  Not for tests or tools: they use emu/block.hpp.
#pragma once

#include <cstdint>
#include <functional>
#include <span>

#include "runtime.hpp"

#include <linux/blkdev.h>
#include <linux/buffer_head.h>
#include <linux/fs.h>
#include <linux/genhd.h>

namespace emu::blk {

// ---- block devices (block_dev.cpp) -------------------------------------

// The emulation's record of a block_device: 2.6.27 keeps the device in a
// bdev inode; here the block_device is the first member of this record, so
// a block_device pointer converts back to it.  Records are never freed
// while the program runs (2.6.27 keeps bdev inodes cached too, and the
// driver keeps the pointers bdget gave it without bdput).
struct BdevRecord {
	struct block_device bd;
	long long size;  // bytes, as bd_set_size() sets i_size; 0 unknown
			 // (atomic accesses: see device_size)
	int refs;        // bdget() references not yet given back by bdput()
};
BdevRecord *record(struct block_device *bdev);
// The size an open device has (i_size of 2.6.27's bdev inode), in bytes;
// 0 when not open.  Read without the device's mutex, as i_size_read() is.
inline long long device_size(struct block_device *bdev)
{
	return __atomic_load_n(&record(bdev)->size, __ATOMIC_ACQUIRE);
}

// Opens / closes the device as a mount does (2.6.27's do_open and
// __blkdev_put): the first opener sets bd_disk, bd_contains and, for a
// partition, bd_part, and opens the whole disk; the last one clears them.
// Takes its own bdget() reference.  0 or -ENXIO (no such disk/partition).
int blkdev_open(dev_t dev, struct block_device **out);
void blkdev_close(struct block_device *bdev);

// The disk registered for `dev` and the partition number within it
// (get_gendisk without taking a reference), or nullptr.
struct gendisk *find_disk(dev_t dev, int *partno);

// ---- the block devices' page cache (block_cache.cpp) -------------------

// Bytes at `pos` of the device through its page cache (a missing page is
// read with a bio through the queue and waited for).  0, -EIO or -ENOMEM.
int cache_read(struct block_device *bdev, std::uint64_t pos,
	       std::span<std::byte> out);
// Copies into the cached pages and leaves them dirty.  0, -EIO, -ENOMEM.
int cache_write(struct block_device *bdev, std::uint64_t pos,
		std::span<const std::byte> in);
// Writes every dirty page back (one bio each) and waits; 0 or -EIO.
int cache_writeback(struct block_device *bdev);
// invalidate_bdev: drops the clean pages; kill_bdev: drops every page.
void cache_invalidate(struct block_device *bdev);
void cache_kill(struct block_device *bdev);
std::size_t cache_pages(struct block_device *bdev, bool dirty_only);

// ---- partition tables (block_partitions.cpp) ---------------------------

// 2.6.27's rescan_partitions: the caller holds bdev->bd_mutex.  0, -EBUSY
// (a partition is open) or -EIO.
int rescan_partitions(struct gendisk *disk, struct block_device *bdev);
// BLKRRPART: 0, -EINVAL (not a partitionable whole disk), -EBUSY, -EIO.
int blkdev_reread_part(struct block_device *bdev);

// ---- block device files (block_fops.cpp) ---------------------------------
const struct file_operations *block_fops();

// ---- bios (block_bio.cpp) ---------------------------------------------

// bio_alloc for the emulation's own I/O (file-system writeback and reads):
// accounted like any bio, but neither counted by alloc_calls(Alloc::Bio)
// nor failed by its injection - 2.6.27's writeback allocates from a
// mempool that waits instead of failing, and tests that inject bio
// failures aim at the driver's allocations.
struct bio *bio_alloc_internal(gfp_t gfp_mask, int nr_iovecs, Site site);

// The call site of the generic_make_request() (or submit_bio()) running on
// this task, for reports made inside a make_request_fn; "(called
// directly)" when a request function was called without one.
Site submitter_site();

// ---- request completion (block_disk.cpp) ---------------------------------

// Runs `fn` as 2.6.27's block softirq runs a completion: in_interrupt() is
// true and a completion routine that sleeps is caught by the context
// checks (interrupts stay enabled, as in a softirq).
void in_completion_context(const std::function<void()> &fn);

// ---- file systems (fs_super.cpp) -------------------------------------------

// What a mounted file system does for the generic code.  The super
// block's s_fs_info points to it while it is mounted.
class Mounted {
public:
	virtual ~Mounted() = default;
	// Writes every dirty block back and waits for the writes; 0, or -EIO
	// when a write failed since the last call (2.6.27's AS_EIO, cleared
	// by the call that reports it).
	virtual int writeback() = 0;
	// Sets sb->s_frozen to `level` (an SB_* value) under the lock its
	// writers test it with, and wakes writers when it drops.
	virtual void set_frozen(int level) = 0;
	// super_operations' write_super_lockfs and unlockfs: called by
	// freeze_bdev after the write-back (s_frozen SB_FREEZE_TRANS) and by
	// thaw_bdev before the level drops.  None by default.
	virtual void write_super_lockfs() {}
	virtual void unlockfs() {}
};

// Mounts: allocates the super block (s_count S_BIAS, s_active 1), links it
// in the super block list, and makes get_super(bdev) find it.  The device
// must be open (blkdev_open).
struct super_block *mount_super(struct block_device *bdev,
				unsigned block_size, bool read_only,
				Mounted *fs);
// Unmounts: waits for s_umount (no get_super reference held, no freeze),
// unlinks the super block and drops the mount's reference.
void unmount_super(struct super_block *sb);

}  // namespace emu::blk
