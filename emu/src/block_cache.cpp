// The page cache of block devices (2.6.27 keeps one in each bdev inode's
// address space): what reads and writes of a block device node, and the
// partition code's read_dev_sector(), go through.
//
// A cached page is 4 KiB of the device at a page-aligned offset.  A read of
// a page that is not cached sends one read bio for the page (cut at the end
// of the device) aimed at the block device itself, through submit_bio(), so
// it meets the partition remapping and whatever make_request_fn the queue
// has now, and waits for it.  A write copies into the page (reading it
// first unless the write covers it whole) and leaves it dirty; writeback
// (sync_blockdev: fsync, sync, last close, freeze) sends one write bio per
// dirty page and waits for all of them.  invalidate drops the clean pages
// (invalidate_bdev), kill drops every page (kill_bdev, after a sync).
//
// The caller holds what 2.6.27's caller holds (bd_mutex on the rescan and
// the last close); the cache's own lock is never held across I/O.
#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <vector>

#include "block_internal.hpp"

#include <linux/gfp.h>
#include <linux/highmem.h>
#include <linux/mm.h>

namespace {

struct CachedPage {
	struct page *page;
	bool dirty;
};

struct Caches {
	std::mutex m;
	std::map<struct block_device *,
		 std::map<std::uint64_t, CachedPage>> devs;
};

Caches &caches()
{
	static Caches c;
	return c;
}

struct PageIo {
	std::mutex m;
	std::condition_variable cv;
	int outstanding = 0;
	bool failed = false;
};

extern "C" void emu_cache_end_io(struct bio *bio, int err)
{
	auto *io = static_cast<PageIo *>(bio->bi_private);
	const bool failed = err || !test_bit(BIO_UPTODATE, &bio->bi_flags);
	bio_put(bio);
	std::lock_guard lk(io->m);
	if (failed)
		io->failed = true;
	io->outstanding--;
	io->cv.notify_all();
}

// The bytes of page `index` that lie on the device (0 beyond its end).
unsigned page_bytes(struct block_device *bdev, std::uint64_t index)
{
	const auto size = static_cast<std::uint64_t>(
		emu::blk::device_size(bdev));
	const std::uint64_t off = index * PAGE_SIZE;
	if (off >= size)
		return 0;
	return static_cast<unsigned>(
		std::min<std::uint64_t>(PAGE_SIZE, size - off));
}

void submit_page(int rw, struct block_device *bdev, std::uint64_t index,
		 struct page *page, PageIo *io)
{
	const unsigned bytes = page_bytes(bdev, index) & ~511u;
	struct bio *bio = emu::blk::bio_alloc_internal(GFP_NOFS, 1,
						       {__FILE__, __LINE__});
	bio->bi_bdev = bdev;
	bio->bi_sector = index * (PAGE_SIZE >> 9);
	bio->bi_io_vec[0].bv_page = page;
	bio->bi_io_vec[0].bv_len = bytes;
	bio->bi_io_vec[0].bv_offset = 0;
	bio->bi_vcnt = 1;
	bio->bi_size = bytes;
	bio->bi_end_io = emu_cache_end_io;
	bio->bi_private = io;
	submit_bio(rw, bio);
}

void wait_io(PageIo &io)
{
	std::unique_lock lk(io.m);
	emu::wait_until(lk, io.cv, [&] { return io.outstanding == 0; });
}

// The cached page `index` of bdev, read from the device when absent
// (unless `whole` says the caller overwrites all of it).  nullptr on an
// allocation or read failure (*err set).
CachedPage *get_page_of(struct block_device *bdev, std::uint64_t index,
			bool whole, int *err)
{
	Caches &c = caches();
	{
		std::lock_guard lk(c.m);
		auto &pages = c.devs[bdev];
		if (auto it = pages.find(index); it != pages.end())
			return &it->second;
	}
	struct page *page = alloc_page(GFP_KERNEL);
	if (!page) {
		*err = -ENOMEM;
		return nullptr;
	}
	std::memset(kmap(page), 0, PAGE_SIZE);
	kunmap(page);
	if (!whole && page_bytes(bdev, index) >= 512) {
		PageIo io;
		io.outstanding = 1;
		submit_page(READ, bdev, index, page, &io);
		wait_io(io);
		if (io.failed) {
			__free_page(page);
			*err = -EIO;
			return nullptr;
		}
	}
	std::lock_guard lk(c.m);
	auto &pages = c.devs[bdev];
	auto [it, added] = pages.emplace(index, CachedPage{page, false});
	if (!added)
		__free_page(page);  // another reader cached it meanwhile
	return &it->second;
}

}  // namespace

int emu::blk::cache_read(struct block_device *bdev, std::uint64_t pos,
			 std::span<std::byte> out)
{
	(emu::might_sleep)({__FILE__, __LINE__});
	while (!out.empty()) {
		const std::uint64_t index = pos / PAGE_SIZE;
		const std::size_t in_page = pos % PAGE_SIZE;
		const std::size_t n = std::min<std::size_t>(
			out.size(), PAGE_SIZE - in_page);
		int err = 0;
		CachedPage *cp = get_page_of(bdev, index, false, &err);
		if (!cp)
			return err;
		{
			std::lock_guard lk(caches().m);
			std::memcpy(out.data(),
				    static_cast<std::byte *>(kmap(cp->page)) +
				    in_page, n);
			kunmap(cp->page);
		}
		out = out.subspan(n);
		pos += n;
	}
	return 0;
}

int emu::blk::cache_write(struct block_device *bdev, std::uint64_t pos,
			  std::span<const std::byte> in)
{
	(emu::might_sleep)({__FILE__, __LINE__});
	while (!in.empty()) {
		const std::uint64_t index = pos / PAGE_SIZE;
		const std::size_t in_page = pos % PAGE_SIZE;
		const std::size_t n = std::min<std::size_t>(
			in.size(), PAGE_SIZE - in_page);
		int err = 0;
		CachedPage *cp = get_page_of(bdev, index,
					     in_page == 0 && n == PAGE_SIZE,
					     &err);
		if (!cp)
			return err;
		{
			std::lock_guard lk(caches().m);
			std::memcpy(static_cast<std::byte *>(kmap(cp->page)) +
				    in_page, in.data(), n);
			kunmap(cp->page);
			cp->dirty = true;
		}
		in = in.subspan(n);
		pos += n;
	}
	return 0;
}

int emu::blk::cache_writeback(struct block_device *bdev)
{
	(emu::might_sleep)({__FILE__, __LINE__});
	std::vector<std::pair<std::uint64_t, struct page *>> dirty;
	{
		std::lock_guard lk(caches().m);
		auto it = caches().devs.find(bdev);
		if (it == caches().devs.end())
			return 0;
		for (auto &[index, cp] : it->second)
			if (cp.dirty) {
				cp.dirty = false;
				get_page(cp.page);
				dirty.emplace_back(index, cp.page);
			}
	}
	if (dirty.empty())
		return 0;
	PageIo io;
	io.outstanding = static_cast<int>(dirty.size());
	for (auto &[index, page] : dirty)
		submit_page(WRITE, bdev, index, page, &io);
	wait_io(io);
	for (auto &[index, page] : dirty)
		put_page(page);
	return io.failed ? -EIO : 0;
}

namespace {

void drop_pages(struct block_device *bdev, bool clean_only)
{
	std::vector<struct page *> gone;
	{
		std::lock_guard lk(caches().m);
		auto it = caches().devs.find(bdev);
		if (it == caches().devs.end())
			return;
		std::erase_if(it->second, [&](const auto &entry) {
			if (clean_only && entry.second.dirty)
				return false;
			gone.push_back(entry.second.page);
			return true;
		});
		if (it->second.empty())
			caches().devs.erase(it);
	}
	for (struct page *page : gone)
		put_page(page);
}

}  // namespace

void emu::blk::cache_invalidate(struct block_device *bdev)
{
	drop_pages(bdev, true);
}

void emu::blk::cache_kill(struct block_device *bdev)
{
	drop_pages(bdev, false);
}

std::size_t emu::blk::cache_pages(struct block_device *bdev, bool dirty_only)
{
	std::lock_guard lk(caches().m);
	auto it = caches().devs.find(bdev);
	if (it == caches().devs.end())
		return 0;
	std::size_t n = 0;
	for (auto &[index, cp] : it->second)
		if (!dirty_only || cp.dirty)
			n++;
	return n;
}
