// The file operations of block device nodes (2.6.27's def_blk_fops of
// fs/block_dev.c and blkdev_ioctl of block/ioctl.c), used by the process
// model for a node made with emu::mknod_block().
//
// open opens the device as 2.6.27's blkdev_open does (do_open: the first
// open of a whole disk marked invalidated re-reads its partition table
// under its bd_mutex); release is blkdev_close (the last close writes the
// device's dirty pages back and drops its page cache, under bd_mutex);
// read and write go through the device's page cache (generic_file_read /
// write: the i_size of the device bounds them, a write past the end is
// -ENOSPC); fsync is sync_blockdev; the ioctls are BLKRRPART (re-read the
// partition table of a whole disk), BLKGETSIZE64 and BLKFLSBUF; any other
// is -ENOTTY (the emulated disks have no driver ioctls).
#include <vector>

#include <cstring>
#include <string>
#include <vector>

#include "block_internal.hpp"

#include <linux/uaccess.h>

namespace {

struct block_device *bdev_of(struct file *file)
{
	return static_cast<struct block_device *>(file->private_data);
}

extern "C" int emu_blkdev_open(struct inode *inode, struct file *filp)
{
	struct block_device *bdev = nullptr;
	int ret = emu::blk::blkdev_open(inode->i_rdev, &bdev);
	if (ret)
		return ret;
	inode->i_bdev = bdev;
	filp->private_data = bdev;
	return 0;
}

extern "C" int emu_blkdev_release(struct inode *inode, struct file *filp)
{
	(void)inode;
	emu::blk::blkdev_close(bdev_of(filp));
	return 0;
}

extern "C" ssize_t emu_blkdev_read(struct file *filp, char __user *buf,
				   size_t count, loff_t *ppos)
{
	struct block_device *bdev = bdev_of(filp);
	const long long size = emu::blk::device_size(bdev);
	if (*ppos < 0)
		return -EINVAL;
	if (*ppos >= size)
		return 0;
	if (static_cast<long long>(count) > size - *ppos)
		count = static_cast<size_t>(size - *ppos);
	std::vector<std::byte> data(count);
	int err = emu::blk::cache_read(bdev, static_cast<std::uint64_t>(*ppos),
				       data);
	if (err)
		return err;
	if (copy_to_user(buf, data.data(), count))
		return -EFAULT;
	*ppos += static_cast<loff_t>(count);
	return static_cast<ssize_t>(count);
}

extern "C" ssize_t emu_blkdev_write(struct file *filp, const char __user *buf,
				    size_t count, loff_t *ppos)
{
	struct block_device *bdev = bdev_of(filp);
	const long long size = emu::blk::device_size(bdev);
	if (*ppos < 0)
		return -EINVAL;
	if (!count)
		return 0;
	if (*ppos >= size)
		return -ENOSPC;
	if (static_cast<long long>(count) > size - *ppos)
		count = static_cast<size_t>(size - *ppos);
	std::vector<std::byte> data(count);
	if (copy_from_user(data.data(), buf, count))
		return -EFAULT;
	int err = emu::blk::cache_write(bdev, static_cast<std::uint64_t>(*ppos),
					data);
	if (err)
		return err;
	*ppos += static_cast<loff_t>(count);
	return static_cast<ssize_t>(count);
}

extern "C" int emu_blkdev_fsync(struct file *filp, struct dentry *dentry,
				int datasync)
{
	(void)dentry;
	(void)datasync;
	return sync_blockdev(bdev_of(filp));
}

extern "C" long emu_block_ioctl(struct file *filp, unsigned cmd,
				unsigned long arg)
{
	struct block_device *bdev = bdev_of(filp);
	switch (cmd) {
	case BLKRRPART:
		return emu::blk::blkdev_reread_part(bdev);
	case BLKFLSBUF:
		// fsync_bdev, then invalidate_bdev.
		fsync_bdev(bdev);
		emu::blk::cache_invalidate(bdev);
		return 0;
	case BLKGETSIZE64: {
		const unsigned long long size = static_cast<unsigned long long>(
			emu::blk::device_size(bdev));
		if (copy_to_user(reinterpret_cast<void __user *>(arg), &size,
				 sizeof(size)))
			return -EFAULT;
		return 0;
	}
	default:
		return -ENOTTY;
	}
}

const struct file_operations def_blk_fops = [] {
	struct file_operations f {};
	f.open = emu_blkdev_open;
	f.release = emu_blkdev_release;
	f.read = emu_blkdev_read;
	f.write = emu_blkdev_write;
	f.fsync = emu_blkdev_fsync;
	f.unlocked_ioctl = emu_block_ioctl;
	return f;
}();

}  // namespace

const struct file_operations *emu::blk::block_fops()
{
	return &def_blk_fops;
}
