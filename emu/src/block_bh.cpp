// Buffer heads: allocation, the lock bit and its waiters, and synchronous
// I/O on one buffer (2.6.27's fs/buffer.c, the parts a block driver uses).
//
// Waiting for a buffer: 2.6.27 sleeps on a bit wait queue hashed from the
// address of b_state and unlock_buffer() wakes that queue.  Here the hash
// picks one of a fixed set of host mutex/condition-variable pairs; the lock
// bit is cleared while that mutex is held, so a waiter that tested the bit
// under the mutex cannot miss the wake-up.  The bit itself is still the
// BH_Lock bit of b_state, set and tested with the kernel's atomic bit
// operations, so trylock_buffer() and buffer_locked() work unchanged.
#include <array>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>

#include "block_internal.hpp"
#include "checks.hpp"

#include <linux/bio.h>
#include <linux/buffer_head.h>
#include <linux/gfp.h>

namespace {

struct WaitBucket {
	std::mutex m;
	std::condition_variable cv;
};

std::array<WaitBucket, 64> &buckets()
{
	static std::array<WaitBucket, 64> all;
	return all;
}

WaitBucket &bucket_of(const struct buffer_head *bh)
{
	const auto key = reinterpret_cast<std::uintptr_t>(&bh->b_state);
	return buckets()[std::hash<std::uintptr_t>{}(key >> 4) %
			 buckets().size()];
}

bool locked(const struct buffer_head *bh)
{
	return buffer_locked(bh);
}

// Sleeps (uninterruptibly) until `done` holds, testing it under the
// bucket's mutex.  Releases the big kernel lock while asleep.
template <class Done>
void sleep_on_bit(const struct buffer_head *bh, Done done)
{
	WaitBucket &b = bucket_of(bh);
	std::unique_lock lk(b.m);
	emu::wait_until(lk, b.cv, done);
}

constexpr unsigned char poison_free = 0x6b;

// submit_bh's completion (end_bio_bh_io_sync).
extern "C" void emu_end_bio_bh_io_sync(struct bio *bio, int err)
{
	struct buffer_head *bh = static_cast<struct buffer_head *>(
		bio->bi_private);

	if (err == -EOPNOTSUPP) {
		set_bit(BIO_EOPNOTSUPP, &bio->bi_flags);
		set_bit(BH_Eopnotsupp, &bh->b_state);
	}

	bh->b_end_io(bh, test_bit(BIO_UPTODATE, &bio->bi_flags));
	emu::race_window("end_bio_bh_io_sync");
	bio_put(bio);
}

}  // namespace

extern "C" {

struct buffer_head *emu_alloc_buffer_head(gfp_t gfp_flags, EMU_SITE_PARAMS)
{
	const emu::Site site{emu_file, emu_line};
	// kmem_cache_alloc(bh_cachep, gfp_flags)
	if (gfp_flags & __GFP_WAIT)
		(emu::might_sleep)(site);
	emu::check_alloc_context(site, gfp_flags, "alloc_buffer_head");
	if (emu::inject_failure(emu::Alloc::BufferHead))
		return NULL;
	void *mem = std::calloc(1, sizeof(struct buffer_head));
	if (!mem)
		emu::violation(site, "host out of memory allocating a "
			       "buffer_head");
	struct buffer_head *ret = static_cast<struct buffer_head *>(mem);
	INIT_LIST_HEAD(&ret->b_assoc_buffers);
	emu::account_add(emu::Obj::BufferHead, ret,
			 static_cast<long>(sizeof(*ret)), site, "buffer_head");
	return ret;
}

void emu_free_buffer_head(struct buffer_head *bh, EMU_SITE_PARAMS)
{
	const emu::Site site{emu_file, emu_line};
	if (!emu::account_remove(emu::Obj::BufferHead, bh))
		emu::violation(site, "free_buffer_head of a buffer head that "
			       "alloc_buffer_head did not give (freed twice?)");
	// BUG_ON(!list_empty(&bh->b_assoc_buffers)) of fs/buffer.c
	if (!list_empty(&bh->b_assoc_buffers))
		emu::violation(site, "free_buffer_head of a buffer head still "
			       "on an association list");
	std::memset(static_cast<void *>(bh), poison_free, sizeof(*bh));
	std::free(bh);
}

void init_buffer(struct buffer_head *bh, bh_end_io_t *handler, void *priv)
{
	bh->b_end_io = handler;
	bh->b_private = priv;
}

void set_bh_page(struct buffer_head *bh, struct page *page,
		 unsigned long offset)
{
	bh->b_page = page;
	if (offset >= PAGE_SIZE)
		emu::violation({}, "set_bh_page: offset beyond the page");
	if (PageHighMem(page))
		/*
		 * This catches illegal uses and preserves the offset:
		 */
		bh->b_data = (char *)(0 + offset);
	else
		bh->b_data = static_cast<char *>(page_address(page)) + offset;
}

void unlock_buffer(struct buffer_head *bh)
{
	WaitBucket &b = bucket_of(bh);
	{
		std::lock_guard lk(b.m);
		smp_mb__before_clear_bit();
		clear_buffer_locked(bh);
		smp_mb__after_clear_bit();
	}
	b.cv.notify_all();
	emu::race_window("unlock_buffer");
}

void emu___wait_on_buffer(struct buffer_head *bh, EMU_SITE_PARAMS)
{
	(emu::might_sleep)({emu_file, emu_line});
	sleep_on_bit(bh, [bh] { return !locked(bh); });
}

void emu___lock_buffer(struct buffer_head *bh, EMU_SITE_PARAMS)
{
	(emu::might_sleep)({emu_file, emu_line});
	sleep_on_bit(bh, [bh] { return trylock_buffer(bh) != 0; });
}

void end_buffer_read_sync(struct buffer_head *bh, int uptodate)
{
	if (uptodate) {
		set_buffer_uptodate(bh);
	} else {
		/* This happens, due to failed READA attempts. */
		clear_buffer_uptodate(bh);
	}
	unlock_buffer(bh);
	put_bh(bh);
}

void end_buffer_write_sync(struct buffer_head *bh, int uptodate)
{
	char b[BDEVNAME_SIZE];

	if (uptodate) {
		set_buffer_uptodate(bh);
	} else {
		if (!buffer_eopnotsupp(bh) && printk_ratelimit()) {
			printk(KERN_WARNING "lost page write due to "
					"I/O error on %s\n",
				       bdevname(bh->b_bdev, b));
		}
		set_buffer_write_io_error(bh);
		clear_buffer_uptodate(bh);
	}
	unlock_buffer(bh);
	put_bh(bh);
}

int emu_submit_bh(int rw, struct buffer_head *bh, EMU_SITE_PARAMS)
{
	const emu::Site site{emu_file, emu_line};
	struct bio *bio;
	int ret = 0;

	if (!buffer_locked(bh) || !buffer_mapped(bh) || !bh->b_end_io)
		emu::violation(site, "submit_bh of a buffer that is not "
			       "locked, not mapped or has no b_end_io");

	if (buffer_ordered(bh) && (rw == WRITE))
		rw = WRITE_BARRIER;

	/*
	 * Only clear out a write error when rewriting, should this
	 * include WRITE_SYNC as well?
	 */
	if (test_set_buffer_req(bh) && (rw == WRITE || rw == WRITE_BARRIER))
		clear_buffer_write_io_error(bh);

	/*
	 * from here on down, it's all bio -- do the initial mapping,
	 * submit_bio -> generic_make_request may further map this bio around
	 */
	bio = emu::blk::bio_alloc_internal(GFP_NOIO, 1, site);

	bio->bi_sector = bh->b_blocknr * (bh->b_size >> 9);
	bio->bi_bdev = bh->b_bdev;
	bio->bi_io_vec[0].bv_page = bh->b_page;
	bio->bi_io_vec[0].bv_len = bh->b_size;
	bio->bi_io_vec[0].bv_offset = bh_offset(bh);

	bio->bi_vcnt = 1;
	bio->bi_idx = 0;
	bio->bi_size = bh->b_size;

	bio->bi_end_io = emu_end_bio_bh_io_sync;
	bio->bi_private = bh;

	bio_get(bio);
	emu_submit_bio(rw, bio, emu_file, emu_line);

	/*
	 * The bio may still be completing on the disk's thread: 2.6.27 reads
	 * the flag racily; the emulation reads it atomically.
	 */
	if (__atomic_load_n(&bio->bi_flags, __ATOMIC_ACQUIRE) &
	    (1UL << BIO_EOPNOTSUPP))
		ret = -EOPNOTSUPP;

	emu_bio_put(bio, emu_file, emu_line);
	return ret;
}

}  // extern "C"
