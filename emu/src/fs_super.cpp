// Super blocks of the mounted file systems, and syncing and freezing a
// block device (2.6.27's fs/super.c and the sync/freeze half of
// fs/buffer.c).
//
// Reference rules, as 2.6.27's: a mounted super block has s_count S_BIAS
// and s_active 1; get_super() adds 1 to s_count under sb_lock and takes
// s_umount for reading, drop_super() gives both back; unmounting takes
// s_umount for writing (so it waits for every get_super() holder, a freeze
// included), unlinks the super block and removes the S_BIAS; the memory
// goes when s_count reaches 0.  freeze_bdev() takes bd_mount_sem and a
// get_super() reference and keeps both until thaw_bdev().
//
// Freezing, as leaky as 2.6.27's: freeze_bdev() sets s_frozen to
// SB_FREEZE_WRITE (writers that test it from then on wait), writes back
// every dirty block, sets SB_FREEZE_TRANS, writes back again and lets the
// file system write its journal and super block (write_super_lockfs).  A
// writer that passed the test before the level changed still completes,
// and its block stays dirty in the frozen file system; stores through
// shared mappings and writes to the block device node are never tested.
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <list>
#include <memory>
#include <mutex>

#include "block_internal.hpp"

namespace {

struct SuperAlloc {
	struct super_block sb;
	bool linked = false;       // on the super block list (mounted)
	int syncers = 0;           // sync_blockdev() calls using the fs
	emu::blk::Mounted *fs = nullptr;
};

// sb_lock and super_blocks of 2.6.27, with the allocations they own.
struct Supers {
	std::mutex sb_lock;
	std::condition_variable syncers_done;
	std::list<std::unique_ptr<SuperAlloc>> all;
};

Supers &supers()
{
	static Supers s;
	return s;
}

SuperAlloc *alloc_of(struct super_block *sb)
{
	return reinterpret_cast<SuperAlloc *>(sb);
}

// A non-NULL root for a mounted super block (get_super() tests s_root);
// no dentry exists in the emulation.
char root_placeholder;

// __put_super(): sb_lock held.  Returns the allocation to free (outside
// the lock) when the last reference went.
std::unique_ptr<SuperAlloc> __put_super(struct super_block *sb)
{
	if (--sb->s_count)
		return nullptr;
	Supers &s = supers();
	for (auto it = s.all.begin(); it != s.all.end(); ++it)
		if (&(*it)->sb == sb) {
			std::unique_ptr<SuperAlloc> gone = std::move(*it);
			s.all.erase(it);
			return gone;
		}
	return nullptr;
}

void put_super(struct super_block *sb)
{
	std::unique_ptr<SuperAlloc> gone;
	{
		std::lock_guard lk(supers().sb_lock);
		gone = __put_super(sb);
	}
	if (gone)
		emu::check_no_held_lock_in(&gone->sb, sizeof(gone->sb), {});
}

// The mounted file system of `bdev`, pinned against unmounting until
// unpin(); nullptr when none.
SuperAlloc *pin_mounted(struct block_device *bdev)
{
	std::lock_guard lk(supers().sb_lock);
	for (auto &a : supers().all)
		if (a->linked && a->sb.s_bdev == bdev && a->fs) {
			a->syncers++;
			return a.get();
		}
	return nullptr;
}

void unpin(SuperAlloc *a)
{
	{
		std::lock_guard lk(supers().sb_lock);
		a->syncers--;
	}
	supers().syncers_done.notify_all();
}

// The common step of get_super() and user_get_super(): take a reference
// to a listed super block and its s_umount for reading.  Called with
// sb_lock held by `lk`, returns with it released.  True while it is still
// mounted (s_root set); otherwise s_umount is given back but the caller
// still owns the s_count reference.
bool get_super_read(struct super_block *sb, std::unique_lock<std::mutex> &lk,
		    const char *file, int line)
{
	sb->s_count++;
	lk.unlock();
	emu_down_read(&sb->s_umount, file, line);
	if (sb->s_root)
		return true;
	emu_up_read(&sb->s_umount, file, line);
	return false;
}

unsigned char blocksize_bits(unsigned long size)
{
	unsigned char bits = 0;
	while ((1UL << bits) < size)
		bits++;
	return bits;
}

}  // namespace

struct super_block *emu::blk::mount_super(struct block_device *bdev,
					  unsigned block_size, bool read_only,
					  Mounted *fs)
{
	auto a = std::make_unique<SuperAlloc>();
	struct super_block *sb = &a->sb;
	std::memset(static_cast<void *>(sb), 0, sizeof(*sb));
	INIT_LIST_HEAD(&sb->s_list);
	INIT_LIST_HEAD(&sb->s_instances);
	sb->s_dev = bdev->bd_dev;
	sb->s_blocksize = block_size;
	sb->s_blocksize_bits = blocksize_bits(block_size);
	sb->s_maxbytes = 0x7fffffffULL;	/* MAX_NON_LFS */
	sb->s_flags = read_only ? MS_RDONLY : 0;
	sb->s_root = reinterpret_cast<struct dentry *>(&root_placeholder);
	init_rwsem(&sb->s_umount);
	mutex_init(&sb->s_lock);
	sb->s_count = S_BIAS;
	atomic_set(&sb->s_active, 1);
	sb->s_bdev = bdev;
	sb->s_frozen = SB_UNFROZEN;
	init_waitqueue_head(&sb->s_wait_unfrozen);
	bdevname(bdev, sb->s_id);
	sb->s_fs_info = fs;
	a->fs = fs;

	std::lock_guard lk(supers().sb_lock);
	for (auto &other : supers().all)
		if (other->linked && other->sb.s_bdev == bdev)
			violation({}, std::string("mount: ") + sb->s_id +
				  " already has a mounted file system");
	a->linked = true;
	supers().all.push_back(std::move(a));
	return sb;
}

void emu::blk::unmount_super(struct super_block *sb)
{
	SuperAlloc *a = alloc_of(sb);
	down_write(&sb->s_umount);
	sb->s_root = NULL;
	{
		std::unique_lock lk(supers().sb_lock);
		a->linked = false;
		supers().syncers_done.wait(lk, [a] { return a->syncers == 0; });
		a->fs = nullptr;
		sb->s_fs_info = NULL;
		/* deactivate_super(): the mount's S_BIAS, less put_super's 1 */
		atomic_set(&sb->s_active, 0);
		sb->s_count -= S_BIAS - 1;
	}
	up_write(&sb->s_umount);
	put_super(sb);
}

extern "C" {

struct super_block *emu_get_super(struct block_device *bdev, EMU_SITE_PARAMS)
{
	(emu::might_sleep)({emu_file, emu_line});
	if (!bdev)
		return NULL;

	Supers &s = supers();
	std::unique_lock lk(s.sb_lock);
rescan:
	for (auto &a : s.all) {
		struct super_block *sb = &a->sb;
		if (!a->linked || sb->s_bdev != bdev)
			continue;
		if (get_super_read(sb, lk, emu_file, emu_line))
			return sb;
		/* restart only when sb is no longer on the list */
		lk.lock();
		std::unique_ptr<SuperAlloc> gone;
		if (!alloc_of(sb)->linked) {
			gone = __put_super(sb);
			lk.unlock();
			gone.reset();
			lk.lock();
			goto rescan;
		}
		sb->s_count--;
	}
	return NULL;
}

struct super_block *emu_user_get_super(dev_t dev, EMU_SITE_PARAMS)
{
	(emu::might_sleep)({emu_file, emu_line});
	Supers &s = supers();
	std::unique_lock lk(s.sb_lock);
	for (auto &a : s.all) {
		struct super_block *sb = &a->sb;
		if (!a->linked || sb->s_dev != dev)
			continue;
		if (get_super_read(sb, lk, emu_file, emu_line))
			return sb;
		put_super(sb);
		return NULL;
	}
	return NULL;
}

void drop_super(struct super_block *sb)
{
	up_read(&sb->s_umount);
	put_super(sb);
}

void emu_lock_super(struct super_block *sb, EMU_SITE_PARAMS)
{
	emu_mutex_lock(&sb->s_lock, emu_file, emu_line);
}

void unlock_super(struct super_block *sb)
{
	mutex_unlock(&sb->s_lock);
}

int emu_sb_set_blocksize(struct super_block *sb, int size, EMU_SITE_PARAMS)
{
	if (emu_set_blocksize(sb->s_bdev, size, emu_file, emu_line))
		return 0;
	/* If we get here, we know size is power of two
	 * and it's value is between 512 and PAGE_SIZE */
	sb->s_blocksize = size;
	sb->s_blocksize_bits = blocksize_bits(size);
	return sb->s_blocksize;
}

/*
 * Write out and wait upon all the dirty data associated with a block
 * device via its mapping.  Does not take the superblock lock.  (In the
 * emulation a device's dirty data is the dirty blocks of the file system
 * mounted on it and the dirty pages of the device's own page cache.)
 */
int emu_sync_blockdev(struct block_device *bdev, EMU_SITE_PARAMS)
{
	int ret = 0;

	(emu::might_sleep)({emu_file, emu_line});
	if (bdev) {
		SuperAlloc *a = pin_mounted(bdev);
		if (a) {
			ret = a->fs->writeback();
			unpin(a);
		}
		int err = emu::blk::cache_writeback(bdev);
		if (!ret)
			ret = err;
	}
	return ret;
}

/*
 * __fsync_super(): everything the file system has dirty goes to the
 * device, through sync_blockdev(), whose result 2.6.27 drops here.
 */
static void __fsync_super(struct super_block *sb, EMU_SITE_PARAMS)
{
	emu_sync_blockdev(sb->s_bdev, emu_file, emu_line);
}

int emu_fsync_super(struct super_block *sb, EMU_SITE_PARAMS)
{
	__fsync_super(sb, emu_file, emu_line);
	return emu_sync_blockdev(sb->s_bdev, emu_file, emu_line);
}

/*
 * Write out and wait upon all dirty data associated with this
 * device.   Filesystem data as well as the underlying block
 * device.  Takes the superblock lock.
 */
int emu_fsync_bdev(struct block_device *bdev, EMU_SITE_PARAMS)
{
	struct super_block *sb = emu_get_super(bdev, emu_file, emu_line);
	if (sb) {
		int res = emu_fsync_super(sb, emu_file, emu_line);
		drop_super(sb);
		return res;
	}
	return emu_sync_blockdev(bdev, emu_file, emu_line);
}

/**
 * freeze_bdev  --  lock a filesystem and force it into a consistent state
 * @bdev:	blockdevice to lock
 *
 * This takes the block device bd_mount_sem to make sure no new mounts
 * happen on bdev until thaw_bdev() is called.
 * If a superblock is found on this device, we take the s_umount semaphore
 * on it to make sure nobody unmounts until the snapshot creation is done.
 */
struct super_block *emu_freeze_bdev(struct block_device *bdev,
				    EMU_SITE_PARAMS)
{
	struct super_block *sb;

	emu_down(&bdev->bd_mount_sem, emu_file, emu_line);
	sb = emu_get_super(bdev, emu_file, emu_line);
	if (sb && !(sb->s_flags & MS_RDONLY)) {
		emu::blk::Mounted *fs =
			static_cast<emu::blk::Mounted *>(sb->s_fs_info);
		fs->set_frozen(SB_FREEZE_WRITE);
		smp_wmb();

		__fsync_super(sb, emu_file, emu_line);

		fs->set_frozen(SB_FREEZE_TRANS);
		smp_wmb();

		emu_sync_blockdev(sb->s_bdev, emu_file, emu_line);

		fs->write_super_lockfs();
	}

	emu_sync_blockdev(bdev, emu_file, emu_line);
	return sb;	/* thaw_bdev releases s->s_umount and bd_mount_sem */
}

/**
 * thaw_bdev  -- unlock filesystem
 * @bdev:	blockdevice to unlock
 * @sb:		associated superblock
 *
 * Unlocks the filesystem and marks it writeable again after freeze_bdev().
 */
void thaw_bdev(struct block_device *bdev, struct super_block *sb)
{
	if (sb) {
		if (sb->s_bdev != bdev)
			emu::violation({}, "thaw_bdev of a super block that "
				       "is not the device's");

		emu::blk::Mounted *fs =
			static_cast<emu::blk::Mounted *>(sb->s_fs_info);
		if (fs) {
			fs->unlockfs();
			fs->set_frozen(SB_UNFROZEN);
		}
		else
			sb->s_frozen = SB_UNFROZEN;
		smp_wmb();
		wake_up(&sb->s_wait_unfrozen);
		drop_super(sb);
	}

	up(&bdev->bd_mount_sem);
}

}  // extern "C"
