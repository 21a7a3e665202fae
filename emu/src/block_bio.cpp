// bios: allocation, references, completion and vectors (2.6.27's fs/bio.c).
//
// A bio and its vector are one allocation: the struct bio, then room for
// bi_max_vecs bio_vecs, sized by 2.6.27's bvec pools (1, 4, 16, 64, 128,
// 256 vectors), so bi_max_vecs and the pool index in the top bits of
// bi_flags are what the real kernel reports.  Every live bio is registered
// with the accounting (emu::usage().bios, emu::leaks() with the call site of
// bio_alloc) until bi_destructor frees it on the last bio_put().
#include <cstdlib>
#include <cstring>

#include "block_internal.hpp"
#include "checks.hpp"

#include <linux/bio.h>
#include <linux/highmem.h>
#include <linux/gfp.h>

namespace {

// 2.6.27's bvec_slabs[].nr_vecs
constexpr unsigned short pool_vecs[] = {1, 4, 16, 64, 128, BIO_MAX_PAGES};

// The pool a request for `nr` vectors comes from, or -1 (more than
// BIO_MAX_PAGES: bvec_alloc_bs fails).
int pool_index(int nr)
{
	for (int idx = 0; idx < static_cast<int>(std::size(pool_vecs)); idx++)
		if (nr <= pool_vecs[idx])
			return idx;
	return -1;
}

constexpr unsigned char poison_free = 0x6b;  // POISON_FREE of 2.6.27

std::size_t bio_bytes(unsigned vecs)
{
	return sizeof(struct bio) + vecs * sizeof(struct bio_vec);
}

// bio_fs_destructor: frees what emu_bio_alloc allocated.
extern "C" void emu_bio_destructor(struct bio *bio)
{
	const std::size_t bytes = bio_bytes(bio->bi_max_vecs);
	emu::io_freed(bio);
	if (!emu::account_remove(emu::Obj::Bio, bio))
		emu::violation({}, "bio destructor: bio not allocated by "
			       "bio_alloc (freed twice?)");
	std::memset(static_cast<void *>(bio), poison_free, bytes);
	std::free(bio);
}

struct bio *allocate(gfp_t gfp_mask, int nr_iovecs, emu::Site site,
		     bool injectable)
{
	// mempool_alloc() sleeps for memory when __GFP_WAIT is set.
	if (gfp_mask & __GFP_WAIT)
		(emu::might_sleep)(site);
	emu::check_alloc_context(site, gfp_mask, "bio_alloc");
	if (injectable && emu::inject_failure(emu::Alloc::Bio))
		return nullptr;
	int idx = 0;
	unsigned vecs = 0;
	if (nr_iovecs) {
		idx = pool_index(nr_iovecs);
		if (nr_iovecs < 0 || idx < 0)
			return nullptr;
		vecs = pool_vecs[idx];
	}
	void *mem = std::calloc(1, bio_bytes(vecs));
	if (!mem)
		emu::violation(site, "host out of memory allocating a bio");
	struct bio *bio = static_cast<struct bio *>(mem);
	bio_init(bio);
	if (vecs) {
		bio->bi_flags |= static_cast<unsigned long>(idx)
				 << BIO_POOL_OFFSET;
		bio->bi_max_vecs = vecs;
		bio->bi_io_vec = reinterpret_cast<struct bio_vec *>(bio + 1);
	}
	bio->bi_destructor = emu_bio_destructor;
	emu::account_add(emu::Obj::Bio, bio,
			 static_cast<long>(bio_bytes(vecs)), site, "bio");
	return bio;
}

}  // namespace

struct bio *emu::blk::bio_alloc_internal(gfp_t gfp_mask, int nr_iovecs,
					 Site site)
{
	return allocate(gfp_mask, nr_iovecs, site, false);
}

extern "C" {

void bio_init(struct bio *bio)
{
	std::memset(static_cast<void *>(bio), 0, sizeof(*bio));
	bio->bi_flags = 1 << BIO_UPTODATE;
	atomic_set(&bio->bi_cnt, 1);
}

struct bio *emu_bio_alloc(gfp_t gfp_mask, int nr_iovecs, EMU_SITE_PARAMS)
{
	return allocate(gfp_mask, nr_iovecs, {emu_file, emu_line}, true);
}

void emu_bio_put(struct bio *bio, EMU_SITE_PARAMS)
{
	const emu::Site site{emu_file, emu_line};
	// Looked up before the bio is touched: a bio put once too often is
	// usually already freed.
	if (bio->bi_destructor == emu_bio_destructor &&
	    !emu::account_contains(emu::Obj::Bio, bio))
		emu::violation(site, "bio_put of a bio that is not allocated "
			       "(put once too often?)");
	// BIO_BUG_ON(!atomic_read(&bio->bi_cnt)) of fs/bio.c
	if (!atomic_read(&bio->bi_cnt))
		emu::violation(site, "bio_put of a bio without references");
	/*
	 * last put frees it
	 */
	if (atomic_dec_and_test(&bio->bi_cnt)) {
		bio->bi_next = NULL;
		bio->bi_destructor(bio);
	}
}

void bio_endio(struct bio *bio, int error)
{
	emu::lockdep::note_progress();   // the hang watchdog's progress
	if (error)
		clear_bit(BIO_UPTODATE, &bio->bi_flags);
	else if (!test_bit(BIO_UPTODATE, &bio->bi_flags))
		error = -EIO;

	emu::io_ended(bio);
	if (bio->bi_end_io)
		bio->bi_end_io(bio, error);
}

unsigned int bvec_nr_vecs(unsigned short idx)
{
	return pool_vecs[idx];
}

int bio_get_nr_vecs(struct block_device *bdev)
{
	struct request_queue *q = bdev_get_queue(bdev);
	int nr_pages;

	nr_pages = ((q->max_sectors << 9) + PAGE_SIZE - 1) >> PAGE_SHIFT;
	if (nr_pages > q->max_phys_segments)
		nr_pages = q->max_phys_segments;
	if (nr_pages > q->max_hw_segments)
		nr_pages = q->max_hw_segments;

	return nr_pages;
}

// 2.6.27's __bio_add_page(q, bio, page, len, offset, q->max_sectors).  The
// emulated queues keep no physical segment counts, so the segment limits
// are checked on the vector count.
int bio_add_page(struct bio *bio, struct page *page, unsigned int len,
		 unsigned int offset)
{
	if (!bio->bi_bdev || !bio->bi_bdev->bd_disk)
		emu::violation({}, "bio_add_page on a bio whose block device "
			       "is not set or not open");
	struct request_queue *q = bdev_get_queue(bio->bi_bdev);
	struct bio_vec *bvec;

	/*
	 * cloned bio must not modify vec list
	 */
	if (unlikely(bio_flagged(bio, BIO_CLONED)))
		return 0;

	if (((bio->bi_size + len) >> 9) > q->max_sectors)
		return 0;

	/*
	 * For filesystems with a blocksize smaller than the pagesize
	 * we will often be called with the same page as last time and
	 * a consecutive offset.  Optimize this special case.
	 */
	if (bio->bi_vcnt > 0) {
		struct bio_vec *prev = &bio->bi_io_vec[bio->bi_vcnt - 1];

		if (page == prev->bv_page &&
		    offset == prev->bv_offset + prev->bv_len) {
			prev->bv_len += len;

			if (q->merge_bvec_fn) {
				struct bvec_merge_data bvm = {
					bio->bi_bdev, bio->bi_sector,
					bio->bi_size, bio->bi_rw,
				};

				if (static_cast<unsigned>(q->merge_bvec_fn(
					    q, &bvm, prev)) < len) {
					prev->bv_len -= len;
					return 0;
				}
			}

			goto done;
		}
	}

	if (bio->bi_vcnt >= bio->bi_max_vecs)
		return 0;
	if (bio->bi_vcnt >= q->max_phys_segments ||
	    bio->bi_vcnt >= q->max_hw_segments)
		return 0;

	/*
	 * setup the new entry, we might clear it again later if we
	 * cannot add the page
	 */
	bvec = &bio->bi_io_vec[bio->bi_vcnt];
	bvec->bv_page = page;
	bvec->bv_len = len;
	bvec->bv_offset = offset;

	if (q->merge_bvec_fn) {
		struct bvec_merge_data bvm = {
			bio->bi_bdev, bio->bi_sector, bio->bi_size, bio->bi_rw,
		};

		if (static_cast<unsigned>(q->merge_bvec_fn(q, &bvm, bvec)) <
		    len) {
			bvec->bv_page = NULL;
			bvec->bv_len = 0;
			bvec->bv_offset = 0;
			return 0;
		}
	}

	bio->bi_vcnt++;
	bio->bi_phys_segments++;
	bio->bi_hw_segments++;
done:
	bio->bi_size += len;
	return len;
}

void zero_fill_bio(struct bio *bio)
{
	struct bio_vec *bv;
	int i;

	bio_for_each_segment(bv, bio, i) {
		char *data = static_cast<char *>(kmap(bv->bv_page));
		std::memset(data + bv->bv_offset, 0, bv->bv_len);
		kunmap(bv->bv_page);
	}
}

}  // extern "C"
