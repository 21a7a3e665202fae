// Reading a disk's partition table (2.6.27's fs/partitions/check.c
// rescan_partitions and check_partition, fs/partitions/msdos.c, and
// block/ioctl.c's blkdev_reread_part).
//
// rescan_partitions() runs with the whole disk's bd_mutex held (BLKRRPART
// takes it with mutex_trylock; the first open of a disk marked invalidated
// holds it in do_open) and, in 2.6.27's order: refuses with -EBUSY while a
// partition is open; writes back and invalidates the disk's page cache
// (invalidate_partition: fsync_bdev, then invalidate_bdev); clears
// bd_invalidated; deletes every partition; reads sector 0 through the
// disk's page cache - a read bio through generic_make_request, so through
// whatever make_request_fn the queue has now; adds the partitions found.
//
// The only label read is the DOS one (the label of the boot test's disk and
// of what fdisk writes): the four primary entries of sector 0, with 2.6.27's
// boot-indicator check and log lines (" sda: sda1 sda2").  Logical
// partitions inside an extended one are not read (the extended entry itself
// is added, two sectors long, as 2.6.27 adds it).
#include <cstring>

#include <cstring>
#include <string>
#include <vector>

#include "block_internal.hpp"

#include <linux/kdev_t.h>

namespace {

constexpr unsigned char DOS_EXTENDED_PARTITION = 5;
constexpr unsigned char LINUX_EXTENDED_PARTITION = 0x85;
constexpr unsigned char WIN98_EXTENDED_PARTITION = 0x0f;

struct Parsed {
	std::uint64_t from = 0, size = 0;
};

std::uint32_t le32(const unsigned char *p)
{
	return p[0] | (p[1] << 8) | (p[2] << 16) |
		(static_cast<std::uint32_t>(p[3]) << 24);
}

// msdos_partition(): 1 with parts[] filled, 0 when sector 0 holds no DOS
// label, -1 when it cannot be read.
int msdos_partition(struct gendisk *disk, struct block_device *bdev,
		    std::vector<Parsed> &parts, const char *name)
{
	unsigned char data[512];
	if (emu::blk::cache_read(bdev, 0,
				 std::as_writable_bytes(std::span(data))))
		return -1;
	if (data[510] != 0x55 || data[511] != 0xAA)
		return 0;
	const unsigned char *p = data + 0x1be;
	for (int slot = 1; slot <= 4; slot++, p += 16)
		if (p[0] != 0 && p[0] != 0x80)
			return 0;
	p = data + 0x1be;
	for (int slot = 1; slot <= 4; slot++, p += 16) {
		const std::uint32_t start = le32(p + 8);
		std::uint32_t size = le32(p + 12);
		if (!size)
			continue;
		const unsigned char sys = p[4];
		const bool extended = sys == DOS_EXTENDED_PARTITION ||
			sys == WIN98_EXTENDED_PARTITION ||
			sys == LINUX_EXTENDED_PARTITION;
		if (extended)
			size = size == 1 ? 1 : 2;
		if (slot < disk->minors) {  // put_partition
			parts[slot] = {start, size};
			printk(" %s%d", name, slot);
		}
		if (extended) {
			printk(" <");
			printk(" >");
		}
	}
	printk("\n");
	return 1;
}

// check_partition(): 1 (parts[] filled), 0 (no table), -EIO.
int check_partition(struct gendisk *disk, struct block_device *bdev,
		    std::vector<Parsed> &parts)
{
	char name[BDEVNAME_SIZE];
	disk_name(disk, 0, name);
	printk(KERN_INFO " %s:", name);
	const std::size_t len = std::strlen(name);
	if (len && name[len - 1] >= '0' && name[len - 1] <= '9')
		std::strcpy(name, "p");
	const int res = msdos_partition(disk, bdev, parts, name);
	if (res > 0)
		return 1;
	if (res == 0) {
		printk(" unknown partition table\n");
		return 0;
	}
	printk(" unable to read partition table\n");
	return -EIO;
}

}  // namespace

int emu::blk::rescan_partitions(struct gendisk *disk,
				struct block_device *bdev)
{
	if (!mutex_is_locked(&bdev->bd_mutex) ||
	    bdev->bd_mutex.owner != current)
		violation({}, "rescan_partitions without the disk's bd_mutex");
	if (bdev->bd_part_count)
		return -EBUSY;
	// invalidate_partition(disk, 0)
	struct block_device *whole = bdget_disk(disk, 0);
	if (whole) {
		fsync_bdev(whole);
		cache_invalidate(whole);
		bdput(whole);
	}
	bdev->bd_invalidated = 0;
	for (int p = 1; p < disk->minors; p++)
		delete_partition(disk, p);
	if (!get_capacity(disk))
		return 0;
	std::vector<Parsed> parts(static_cast<std::size_t>(disk->minors));
	const int res = check_partition(disk, bdev, parts);
	if (res < 0)
		return -EIO;
	if (res == 0)
		return 0;
	for (int p = 1; p < disk->minors; p++) {
		const Parsed &part = parts[static_cast<std::size_t>(p)];
		if (!part.size)
			continue;
		if (part.from + part.size > get_capacity(disk))
			printk(KERN_WARNING "%s: p%d exceeds device capacity\n",
			       disk->disk_name, p);
		const int err = add_partition(disk, p, part.from, part.size, 0);
		if (err)
			printk(KERN_ERR " %s: p%d could not be added: %d\n",
			       disk->disk_name, p, -err);
	}
	return 0;
}

int emu::blk::blkdev_reread_part(struct block_device *bdev)
{
	struct gendisk *disk = bdev->bd_disk;
	int res;

	if (disk->minors == 1 || bdev != bdev->bd_contains)
		return -EINVAL;
	if (!mutex_trylock(&bdev->bd_mutex))
		return -EBUSY;
	res = rescan_partitions(disk, bdev);
	mutex_unlock(&bdev->bd_mutex);
	return res;
}
