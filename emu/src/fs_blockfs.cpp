// The emulated file system (emu::FileSystem): a mounted super block over an
// opened block device, and a block-granular write/read API for workloads.
//
// A written block is copied into a page of its own and kept dirty.
// writeback() (sync(), fsync_bdev, sync_blockdev, freeze_bdev, unmount)
// moves every dirty block to the in-flight set, sends one write bio per
// block through submit_bio() - so each passes the block layer's partition
// remapping and whatever make_request_fn is installed on the disk's queue -
// and waits for all of them; writebacks are serialised, so two writes of
// one block are never in flight together.  Reads see the newest copy: the
// dirty one, else the one being written back, else the disk's (a read bio,
// waited for).  Writers test the freeze level (vfs_check_frozen) and wait
// while it is SB_FREEZE_WRITE or above; the test and the dirtying are two
// steps, as in 2.6.27, so a writer that passed the test before a freeze
// began completes during it.  A store through a shared mapping
// (write_mapped) dirties the block without any test.
//
// With a journal (enable_journal), the file system behaves like ext3 at a
// freeze: write_super_lockfs writes a journal commit block and the super
// block with the needs-recovery flag cleared, unlockfs the super block
// with it set again, each a write bio through the queue's current
// make_request_fn, waited for.
#include <condition_variable>
#include <cstring>
#include <functional>
#include <vector>
#include <map>
#include <mutex>
#include <optional>

#include "emu/block.hpp"
#include "block_internal.hpp"

#include <linux/gfp.h>
#include <linux/highmem.h>

namespace {

// The bios of one writeback or one read, and how they ended.
struct IoBatch {
	std::mutex m;
	std::condition_variable cv;
	int outstanding = 0;
	bool failed = false;
};

extern "C" void emu_fs_end_io(struct bio *bio, int err)
{
	IoBatch *batch = static_cast<IoBatch *>(bio->bi_private);
	const bool failed = err || !test_bit(BIO_UPTODATE, &bio->bi_flags);
	bio_put(bio);
	// Notified under the lock: the waiter owns the batch and may free
	// it as soon as it sees the count drop.
	std::lock_guard lk(batch->m);
	if (failed)
		batch->failed = true;
	batch->outstanding--;
	batch->cv.notify_all();
}

void wait_batch(IoBatch &batch)
{
	std::unique_lock lk(batch.m);
	emu::wait_until(lk, batch.cv, [&] { return batch.outstanding == 0; });
}

void free_page_of(struct page *page)
{
	__free_page(page);
}

}  // namespace

struct emu::FileSystem::Impl final : blk::Mounted {
	Disk *disk = nullptr;
	struct block_device *bdev = nullptr;
	struct super_block *sb = nullptr;
	unsigned bs = 0;
	std::uint64_t nblocks = 0;
	bool read_only = false;

	// Guards the maps, the freeze level and `waiting`.
	mutable std::mutex m;
	std::condition_variable thaw_cv;
	std::map<std::uint64_t, struct page *> dirty;
	std::map<std::uint64_t, struct page *> in_flight;
	std::size_t waiting = 0;

	// Serialises writebacks.
	std::mutex wb_m;
	std::condition_variable wb_cv;
	bool wb_busy = false;

	std::atomic<bool> write_error{false};
	std::atomic<std::uint64_t> writes{0};

	std::function<void()> after_frozen_check;  // test hook
	bool journal = false;
	std::uint64_t journal_first = 0;
	unsigned journal_blocks = 0;
	std::uint32_t journal_seq = 0;

	~Impl() override
	{
		for (auto &[block, page] : dirty)
			free_page_of(page);
	}

	void set_frozen(int level) override
	{
		{
			std::lock_guard lk(m);
			sb->s_frozen = level;
		}
		thaw_cv.notify_all();
	}

	struct bio *block_bio(std::uint64_t block, struct page *page,
			      IoBatch *batch)
	{
		struct bio *bio = blk::bio_alloc_internal(
			GFP_NOFS, 1, {__FILE__, __LINE__});
		bio->bi_bdev = bdev;
		bio->bi_sector = block * (bs >> 9);
		bio->bi_io_vec[0].bv_page = page;
		bio->bi_io_vec[0].bv_len = bs;
		bio->bi_io_vec[0].bv_offset = 0;
		bio->bi_vcnt = 1;
		bio->bi_idx = 0;
		bio->bi_size = bs;
		bio->bi_end_io = emu_fs_end_io;
		bio->bi_private = batch;
		return bio;
	}

	int writeback() override
	{
		{
			std::unique_lock lk(wb_m);
			emu::wait_until(lk, wb_cv, [&] { return !wb_busy; });
			wb_busy = true;
		}
		{
			std::lock_guard lk(m);
			in_flight = std::move(dirty);
			dirty.clear();
		}
		IoBatch batch;
		batch.outstanding = static_cast<int>(in_flight.size());
		for (auto &[block, page] : in_flight) {
			writes++;
			submit_bio(WRITE, block_bio(block, page, &batch));
		}
		wait_batch(batch);
		std::map<std::uint64_t, struct page *> done;
		{
			std::lock_guard lk(m);
			done = std::move(in_flight);
			in_flight.clear();
		}
		for (auto &[block, page] : done)
			free_page_of(page);
		if (batch.failed)
			write_error = true;
		{
			std::lock_guard lk(wb_m);
			wb_busy = false;
		}
		wb_cv.notify_all();
		return write_error.exchange(false) ? -EIO : 0;
	}

	bool valid(std::uint64_t block, std::size_t len) const
	{
		return bs >= 512 && len == bs && block < nblocks;
	}

	// A write of `data` to `block`, up to the new page holding it: 0
	// with *page set, or the write's error.
	int page_for_write(std::uint64_t block, std::span<const std::byte> data,
			   struct page **page) const
	{
		if (!valid(block, data.size()))
			return -EINVAL;
		if (read_only)
			return -EROFS;
		*page = alloc_page(GFP_NOFS);
		if (!*page)
			return -ENOMEM;
		std::memcpy(kmap(*page), data.data(), data.size());
		kunmap(*page);
		return 0;
	}

	// Puts `page` in as the dirty copy of `block`, freeing the old one.
	void dirty_block(std::uint64_t block, struct page *page)
	{
		struct page *old = nullptr;
		{
			std::lock_guard lk(m);
			auto &slot = dirty[block];
			old = slot;
			slot = page;
		}
		if (old)
			free_page_of(old);
	}

	// One block written now (a write bio through the queue, waited for),
	// as ext3 writes its journal and super block: 0 or -EIO.
	int write_now(std::uint64_t block, struct page *page)
	{
		IoBatch batch;
		batch.outstanding = 1;
		writes++;
		submit_bio(WRITE, block_bio(block, page, &batch));
		wait_batch(batch);
		return batch.failed ? -EIO : 0;
	}

	// ext3_commit_super with EXT3_FEATURE_INCOMPAT_RECOVER (0x4 of
	// s_feature_incompat, byte 96 of the super block at byte 1024) set
	// or cleared.
	void commit_super(bool recover)
	{
		const std::uint64_t block = 1024 / bs;
		const unsigned off = 1024 % bs;
		struct page *page = alloc_page(GFP_NOFS);
		if (!page)
			return;
		std::vector<std::byte> data(bs);
		if (read(block, data) == 0) {
			if (recover)
				data[off + 96] |= std::byte{0x4};
			else
				data[off + 96] &= ~std::byte{0x4};
			std::memcpy(kmap(page), data.data(), bs);
			kunmap(page);
			write_now(block, page);
		}
		free_page_of(page);
	}

	// The block's newest contents (dirty, in flight, or from the disk).
	int read(std::uint64_t block, std::span<std::byte> out);

	void write_super_lockfs() override
	{
		if (!journal || read_only)
			return;
		// journal_lock_updates + journal_flush: a commit record.
		struct page *page = alloc_page(GFP_NOFS);
		if (!page)
			return;
		auto *p = static_cast<unsigned char *>(kmap(page));
		std::memset(p, 0, PAGE_SIZE);
		const std::uint32_t seq = ++journal_seq;
		const std::uint32_t magic = 0xc03b3998u, commit = 2;
		for (int i = 0; i < 4; i++) {
			p[i] = static_cast<unsigned char>(magic >> (24 - 8 * i));
			p[4 + i] = static_cast<unsigned char>(
				commit >> (24 - 8 * i));
			p[8 + i] = static_cast<unsigned char>(
				seq >> (24 - 8 * i));
		}
		kunmap(page);
		write_now(journal_first + seq % journal_blocks, page);
		free_page_of(page);
		commit_super(false);
	}

	void unlockfs() override
	{
		if (journal && !read_only)
			commit_super(true);
	}
};

emu::FileSystem::FileSystem(Disk &disk, int partno, unsigned block_size,
			    bool read_only)
	: impl_(std::make_unique<Impl>())
{
	Impl &fs = *impl_;
	if (block_size == 0)
		block_size = ext2_block_size(disk, partno);
	if (block_size == 0 || block_size > PAGE_SIZE ||
	    (block_size & (block_size - 1)))
		violation({}, "emu::FileSystem: bad block size " +
			  std::to_string(block_size));
	int ret = blk::blkdev_open(disk.dev(partno), &fs.bdev);
	if (ret)
		violation({}, "emu::FileSystem: cannot open the device to "
			  "mount (" + std::to_string(ret) + ")");
	fs.disk = &disk;
	fs.bs = block_size;
	fs.read_only = read_only;
	fs.nblocks = static_cast<std::uint64_t>(blk::device_size(fs.bdev)) /
		     block_size;
	fs.sb = blk::mount_super(fs.bdev, block_size, read_only, &fs);
}

emu::FileSystem::~FileSystem()
{
	Impl &fs = *impl_;
	if (!fs.read_only)
		fs.writeback();
	blk::unmount_super(fs.sb);
	blk::blkdev_close(fs.bdev);
}

struct super_block *emu::FileSystem::sb() const { return impl_->sb; }
struct block_device *emu::FileSystem::bdev() const { return impl_->bdev; }
unsigned emu::FileSystem::block_size() const { return impl_->bs; }
std::uint64_t emu::FileSystem::blocks() const { return impl_->nblocks; }

int emu::FileSystem::write_block(std::uint64_t block,
				 std::span<const std::byte> data)
{
	Impl &fs = *impl_;
	(emu::might_sleep)({__FILE__, __LINE__});
	struct page *page;
	if (int err = fs.page_for_write(block, data, &page))
		return err;

	{
		std::unique_lock lk(fs.m);
		// vfs_check_frozen(sb, SB_FREEZE_WRITE)
		if (fs.sb->s_frozen >= SB_FREEZE_WRITE) {
			fs.waiting++;
			wait_until(lk, fs.thaw_cv, [&] {
				return fs.sb->s_frozen < SB_FREEZE_WRITE;
			});
			fs.waiting--;
		}
	}
	// Past the check: a freeze that begins now does not stop this write.
	if (fs.after_frozen_check)
		fs.after_frozen_check();
	fs.dirty_block(block, page);
	return 0;
}

int emu::FileSystem::write_mapped(std::uint64_t block,
				  std::span<const std::byte> data)
{
	Impl &fs = *impl_;
	struct page *page;
	if (int err = fs.page_for_write(block, data, &page))
		return err;
	fs.dirty_block(block, page);
	return 0;
}

void emu::FileSystem::set_after_frozen_check(std::function<void()> hook)
{
	impl_->after_frozen_check = std::move(hook);
}

void emu::FileSystem::enable_journal(std::uint64_t first_block,
				     unsigned blocks)
{
	Impl &fs = *impl_;
	if (!blocks || first_block + blocks > fs.nblocks || fs.bs < 1024)
		violation({}, "emu::FileSystem: bad journal area");
	fs.journal = true;
	fs.journal_first = first_block;
	fs.journal_blocks = blocks;
}

int emu::FileSystem::read_block(std::uint64_t block, std::span<std::byte> out)
{
	Impl &fs = *impl_;
	if (!fs.valid(block, out.size()))
		return -EINVAL;
	return fs.read(block, out);
}

int emu::FileSystem::Impl::read(std::uint64_t block, std::span<std::byte> out)
{
	Impl &fs = *this;
	(emu::might_sleep)({__FILE__, __LINE__});
	struct page *page = alloc_page(GFP_NOFS);
	if (!page)
		return -ENOMEM;
	bool cached = false;
	{
		std::lock_guard lk(fs.m);
		struct page *copy = nullptr;
		if (auto it = fs.dirty.find(block); it != fs.dirty.end())
			copy = it->second;
		else if (auto it2 = fs.in_flight.find(block);
			 it2 != fs.in_flight.end())
			copy = it2->second;
		if (copy) {
			std::memcpy(out.data(), kmap(copy), out.size());
			kunmap(copy);
			cached = true;
		}
	}
	int ret = 0;
	if (!cached) {
		IoBatch batch;
		batch.outstanding = 1;
		submit_bio(READ, fs.block_bio(block, page, &batch));
		wait_batch(batch);
		if (batch.failed) {
			ret = -EIO;
		} else {
			std::memcpy(out.data(), kmap(page), out.size());
			kunmap(page);
		}
	}
	free_page_of(page);
	return ret;
}

int emu::FileSystem::sync()
{
	(emu::might_sleep)({__FILE__, __LINE__});
	return impl_->writeback();
}

std::size_t emu::FileSystem::dirty_blocks() const
{
	std::lock_guard lk(impl_->m);
	return impl_->dirty.size();
}

std::size_t emu::FileSystem::writers_waiting() const
{
	std::lock_guard lk(impl_->m);
	return impl_->waiting;
}

std::uint64_t emu::FileSystem::writes_submitted() const
{
	return impl_->writes.load();
}

unsigned emu::ext2_block_size(const Disk &disk, int partno)
{
	std::uint64_t start = 0;
	struct gendisk *gd = disk.gendisk();
	if (partno) {
		if (partno >= gd->minors || !gd->part[partno - 1])
			return 0;
		start = gd->part[partno - 1]->start_sect;
	}
	// The ext2 super block: 1024 bytes at byte 1024 of the file system;
	// s_log_block_size (le32) at 24, s_magic (le16, 0xEF53) at 56.
	std::byte sbuf[1024];
	if ((start + 4) > disk.sectors())
		return 0;
	disk.read(start + 2, sbuf);
	auto le = [&](int off, int n) {
		std::uint32_t v = 0;
		for (int i = n - 1; i >= 0; i--)
			v = (v << 8) | std::to_integer<std::uint32_t>(
					       sbuf[off + i]);
		return v;
	};
	if (le(56, 2) != 0xEF53)
		return 0;
	const std::uint32_t log = le(24, 4);
	if (log > 2)
		return 0;
	return 1024u << log;
}
