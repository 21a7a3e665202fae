// Block devices and disks: bdget/bdput, opening a device as a mount does,
// the table of registered disks and their partitions, device names
// (2.6.27's fs/block_dev.c, block/genhd.c, fs/partitions/check.c).
//
// Every block_device ever asked for lives in one table keyed by device
// number and is never freed while the program runs: bdget() of a number
// nobody registered still yields a block_device (bd_disk NULL), as 2.6.27's
// does, and the driver may keep the pointer without bdput().  Making a new
// one is a slab allocation of 2.6.27 (its bdev inode): failure injection of
// emu::Alloc::Slab makes that bdget() return NULL.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "block_internal.hpp"
#include "checks.hpp"

#include <linux/kdev_t.h>

namespace {

struct BdevTable {
	std::mutex m;
	std::map<dev_t, std::unique_ptr<emu::blk::BdevRecord>> bdevs;
};

BdevTable &bdev_table()
{
	static BdevTable table;
	return table;
}

// A disk allocated by alloc_disk(): the gendisk, its partition table and
// a reference count (2.6.27 counts on the disk's kobject).
struct DiskAlloc {
	struct gendisk disk;
	std::vector<struct hd_struct *> parts;
	std::vector<std::unique_ptr<struct hd_struct>> owned;
	std::vector<std::unique_ptr<struct hd_struct>> retired;  // deleted
	int refs = 1;
	bool added = false;
};

struct DiskTable {
	std::mutex m;
	std::map<const struct gendisk *, std::unique_ptr<DiskAlloc>> all;
};

DiskTable &disk_table()
{
	static DiskTable table;
	return table;
}

DiskAlloc *alloc_of(struct gendisk *disk)
{
	auto it = disk_table().all.find(disk);
	return it == disk_table().all.end() ? nullptr : it->second.get();
}

// bd_set_size of 2.6.27: the size, and the largest block size (from the
// hardware sector size up to a page) that divides it.
void bd_set_size(struct block_device *bdev, long long size)
{
	unsigned bsize = bdev_hardsect_size(bdev);

	__atomic_store_n(&emu::blk::record(bdev)->size, size,
			 __ATOMIC_RELEASE);
	while (bsize < PAGE_SIZE) {
		if (size & bsize)
			break;
		bsize <<= 1;
	}
	bdev->bd_block_size = bsize;
}

struct block_device *do_close(struct block_device *bdev, int for_part);

// 2.6.27's do_open (without the block driver's own open method: the
// emulated disks have none) and __blkdev_get.
int do_open(struct block_device *bdev, int for_part)
{
	int part;
	struct gendisk *disk = emu::blk::find_disk(bdev->bd_dev, &part);
	if (!disk)
		return -ENXIO;

	// As 2.6.27: a partition's bd_mutex, then its disk's (subclass 1).
	mutex_lock_nested(&bdev->bd_mutex, for_part);
	if (!bdev->bd_openers) {
		bdev->bd_disk = disk;
		bdev->bd_contains = bdev;
		if (!part) {
			bd_set_size(bdev, (long long)get_capacity(disk) << 9);
			/* The first open of a disk marked invalidated reads
			 * its partition table, bd_mutex held. */
			if (bdev->bd_invalidated)
				emu::blk::rescan_partitions(disk, bdev);
		} else {
			struct hd_struct *p;
			struct block_device *whole;
			whole = bdget_disk(disk, 0);
			int ret = do_open(whole, 1);
			if (ret) {
				bdput(whole);
				bdev->bd_disk = NULL;
				bdev->bd_contains = NULL;
				mutex_unlock(&bdev->bd_mutex);
				return ret;
			}
			bdev->bd_contains = whole;
			p = disk->part[part - 1];
			if (!(disk->flags & GENHD_FL_UP) || !p || !p->nr_sects) {
				bdev->bd_disk = NULL;
				bdev->bd_contains = NULL;
				mutex_unlock(&bdev->bd_mutex);
				do_close(whole, 1);
				bdput(whole);
				return -ENXIO;
			}
			bdev->bd_part = p;
			bd_set_size(bdev, (long long)p->nr_sects << 9);
		}
	}
	bdev->bd_openers++;
	if (for_part)
		bdev->bd_part_count++;
	mutex_unlock(&bdev->bd_mutex);
	return 0;
}

// 2.6.27's __blkdev_put, without the final bdput (the caller's) and
// without the big kernel lock 2.6.27 takes inside bd_mutex there.
struct block_device *do_close(struct block_device *bdev, int for_part)
{
	struct block_device *victim = NULL;

	mutex_lock_nested(&bdev->bd_mutex, for_part);
	if (for_part)
		bdev->bd_part_count--;
	if (!--bdev->bd_openers) {
		/* The last close writes the device's dirty pages back and
		 * drops its page cache, bd_mutex held (kernel I/O under the
		 * mutex a make_request_fn must therefore never take). */
		sync_blockdev(bdev);
		emu::blk::cache_kill(bdev);
	}
	if (!bdev->bd_openers) {
		if (bdev->bd_contains != bdev)
			bdev->bd_part = NULL;
		bdev->bd_disk = NULL;
		if (bdev != bdev->bd_contains)
			victim = bdev->bd_contains;
		bdev->bd_contains = NULL;
		__atomic_store_n(&emu::blk::record(bdev)->size, 0LL,
				 __ATOMIC_RELEASE);
	}
	mutex_unlock(&bdev->bd_mutex);
	return victim;
}

}  // namespace

emu::blk::BdevRecord *emu::blk::record(struct block_device *bdev)
{
	return reinterpret_cast<BdevRecord *>(bdev);
}

int emu::blk::blkdev_open(dev_t dev, struct block_device **out)
{
	struct block_device *bdev = bdget(dev);
	int ret = do_open(bdev, 0);
	if (ret) {
		bdput(bdev);
		return ret;
	}
	*out = bdev;
	return 0;
}

void emu::blk::blkdev_close(struct block_device *bdev)
{
	struct block_device *victim = do_close(bdev, 0);
	bdput(bdev);
	while (victim) {
		struct block_device *whole = victim;
		victim = do_close(whole, 1);
		bdput(whole);
	}
}

struct gendisk *emu::blk::find_disk(dev_t dev, int *partno)
{
	std::lock_guard lk(disk_table().m);
	for (auto &[key, alloc] : disk_table().all) {
		struct gendisk *disk = &alloc->disk;
		if (!alloc->added || (int)MAJOR(dev) != disk->major)
			continue;
		int minor = MINOR(dev);
		if (minor >= disk->first_minor &&
		    minor < disk->first_minor + disk->minors) {
			*partno = minor - disk->first_minor;
			return disk;
		}
	}
	return nullptr;
}

std::vector<std::string> emu::queues_hooked_by_module()
{
	std::vector<std::string> out;
	std::lock_guard lk(disk_table().m);
	for (auto &[key, alloc] : disk_table().all) {
		struct gendisk *disk = &alloc->disk;
		if (alloc->added && disk->queue &&
		    emu::in_module_text(reinterpret_cast<const void *>(
				disk->queue->make_request_fn)))
			out.push_back(std::string("the request queue of ") +
				      disk->disk_name);
	}
	return out;
}

extern "C" {

struct block_device *emu_bdget(dev_t dev, EMU_SITE_PARAMS)
{
	// iget5_locked() may sleep.
	(emu::might_sleep)({emu_file, emu_line});
	BdevTable &table = bdev_table();
	std::lock_guard lk(table.m);
	auto it = table.bdevs.find(dev);
	if (it == table.bdevs.end()) {
		// A new bdev inode comes from the bdev_cache slab, which
		// can fail: bdget() then returns NULL.
		if (emu::inject_failure(emu::Alloc::Slab))
			return NULL;
		it = table.bdevs.emplace(dev, nullptr).first;
	}
	auto &slot = it->second;
	if (!slot) {
		slot = std::make_unique<emu::blk::BdevRecord>();
		struct block_device *bdev = &slot->bd;
		bdev->bd_dev = dev;
		bdev->bd_contains = NULL;
		bdev->bd_block_size = PAGE_SIZE;
		mutex_init(&bdev->bd_mutex);
		sema_init(&bdev->bd_mount_sem, 1);
		INIT_LIST_HEAD(&bdev->bd_inodes);
		INIT_LIST_HEAD(&bdev->bd_holder_list);
		INIT_LIST_HEAD(&bdev->bd_list);
	}
	slot->refs++;
	return &slot->bd;
}

void bdput(struct block_device *bdev)
{
	std::lock_guard lk(bdev_table().m);
	if (emu::blk::record(bdev)->refs <= 0)
		emu::violation({}, "bdput of a block device without a bdget "
			       "reference");
	emu::blk::record(bdev)->refs--;
}

const char *__bdevname(dev_t dev, char *buffer)
{
	std::snprintf(buffer, BDEVNAME_SIZE, "unknown-block(%u,%u)",
		      MAJOR(dev), MINOR(dev));
	return buffer;
}

const char *bdevname(struct block_device *bdev, char *buf)
{
	if (!bdev->bd_disk)
		emu::violation({}, "bdevname of a block device that is not "
			       "open (bd_disk is NULL)");
	int part = MINOR(bdev->bd_dev) - bdev->bd_disk->first_minor;
	return disk_name(bdev->bd_disk, part, buf);
}

char *disk_name(struct gendisk *hd, int part, char *buf)
{
	// "sda", "sda1"; a name ending in a digit gets a 'p': "loop0p1".
	std::string name(hd->disk_name,
			 strnlen(hd->disk_name, sizeof(hd->disk_name)));
	if (part) {
		if (!name.empty() &&
		    std::isdigit(static_cast<unsigned char>(name.back())))
			name += 'p';
		name += std::to_string(part);
	}
	name.resize(std::min<std::size_t>(name.size(), BDEVNAME_SIZE - 1));
	std::memcpy(buf, name.c_str(), name.size() + 1);
	return buf;
}

int emu_set_blocksize(struct block_device *bdev, int size, EMU_SITE_PARAMS)
{
	/* Size must be a power of two, and between 512 and PAGE_SIZE */
	if (size > (int)PAGE_SIZE || size < 512 || (size & (size - 1)))
		return -EINVAL;

	/* Size cannot be smaller than the size supported by the device */
	if (size < bdev_hardsect_size(bdev))
		return -EINVAL;

	/* Don't change the size if it is same as current */
	if (bdev->bd_block_size != (unsigned)size) {
		emu_sync_blockdev(bdev, emu_file, emu_line);
		bdev->bd_block_size = size;
	}
	return 0;
}

struct gendisk *alloc_disk(int minors)
{
	auto alloc = std::make_unique<DiskAlloc>();
	std::memset(static_cast<void *>(&alloc->disk), 0,
		    sizeof(alloc->disk));
	alloc->disk.minors = minors;
	if (minors > 1) {
		alloc->parts.assign(minors - 1, nullptr);
		alloc->disk.part = alloc->parts.data();
	}
	struct gendisk *disk = &alloc->disk;
	std::lock_guard lk(disk_table().m);
	disk_table().all.emplace(disk, std::move(alloc));
	return disk;
}

void put_disk(struct gendisk *disk)
{
	if (!disk)
		return;
	std::unique_ptr<DiskAlloc> gone;
	{
		std::lock_guard lk(disk_table().m);
		DiskAlloc *alloc = alloc_of(disk);
		if (!alloc || alloc->refs <= 0)
			emu::violation({}, "put_disk of a disk without a "
				       "reference");
		if (--alloc->refs == 0) {
			auto it = disk_table().all.find(disk);
			gone = std::move(it->second);
			disk_table().all.erase(it);
		}
	}
}

void add_disk(struct gendisk *disk)
{
	disk->flags |= GENHD_FL_UP;
	std::lock_guard lk(disk_table().m);
	alloc_of(disk)->added = true;
}

struct gendisk *get_gendisk(dev_t dev, int *part)
{
	struct gendisk *disk = emu::blk::find_disk(dev, part);
	if (disk) {
		std::lock_guard lk(disk_table().m);
		alloc_of(disk)->refs++;
	}
	return disk;
}

int add_partition(struct gendisk *disk, int part, sector_t start,
		  sector_t len, int flags)
{
	(void)flags;
	if (part < 1 || part >= disk->minors)
		return -EINVAL;
	std::lock_guard lk(disk_table().m);
	DiskAlloc *alloc = alloc_of(disk);
	if (disk->part[part - 1])
		return -EBUSY;
	auto p = std::make_unique<struct hd_struct>();
	p->start_sect = start;
	p->nr_sects = len;
	p->partno = part;
	p->policy = disk->policy;
	disk->part[part - 1] = p.get();
	alloc->owned.push_back(std::move(p));
	return 0;
}

void delete_partition(struct gendisk *disk, int part)
{
	if (part < 1 || part >= disk->minors)
		return;
	struct hd_struct *p = disk->part[part - 1];
	if (!p)
		return;
	{
		std::lock_guard lk(bdev_table().m);
		auto it = bdev_table().bdevs.find(
			MKDEV(disk->major, disk->first_minor + part));
		if (it != bdev_table().bdevs.end() && it->second->bd.bd_openers)
			emu::violation({}, "delete_partition of a partition "
				       "that is open (mounted?)");
	}
	std::lock_guard lk(disk_table().m);
	DiskAlloc *alloc = alloc_of(disk);
	disk->part[part - 1] = NULL;
	p->start_sect = 0;
	p->nr_sects = 0;
	// Kept until the disk goes: a lookup that read disk->part[] without
	// a lock just before may still be reading it (2.6.27 frees it only
	// when its last device reference goes).
	auto it = std::find_if(alloc->owned.begin(), alloc->owned.end(),
			       [p](const auto &o) { return o.get() == p; });
	if (it != alloc->owned.end()) {
		alloc->retired.push_back(std::move(*it));
		alloc->owned.erase(it);
	}
}

void del_gendisk(struct gendisk *disk)
{
	for (int part = 1; part < disk->minors; part++)
		delete_partition(disk, part);
	{
		std::lock_guard lk(bdev_table().m);
		for (auto &[dev, rec] : bdev_table().bdevs)
			if (rec->bd.bd_disk == disk && rec->bd.bd_openers)
				emu::violation({}, "del_gendisk of a disk whose "
					       "device is open (mounted?)");
	}
	disk->flags &= ~GENHD_FL_UP;
	std::lock_guard lk(disk_table().m);
	alloc_of(disk)->added = false;
}

}  // extern "C"
