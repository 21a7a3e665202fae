/*
 * 2.5 block I/O model, as 2.6.27 has it.
 *
 * DUPLICATED: struct bio_vec and struct bio with 2.6.27's members in
 * 2.6.27's order (CONFIG_BLK_DEV_INTEGRITY off), the BIO_* flag and bi_rw
 * bit numbers, the accessor macros, bio_get(), and the signatures of
 * bio_alloc(), bio_put(), bio_endio(), bio_init(), bio_add_page().
 * CUSTOMISED (emu/src/block_bio.cpp): bio_alloc() and bio_put() are macros
 * that hand the call site to the runtime; bio_alloc() takes the bio and its
 * vector from the emulation's accounted allocator instead of a mempool;
 * each bio counts in emu::usage().bios until its last bio_put(), and
 * failure injection of emu::Alloc::Bio makes bio_alloc() return NULL (a
 * mempool with __GFP_WAIT never does on a real kernel: callers that retry
 * are what the injection exercises).  The bvec pools keep 2.6.27's sizes,
 * so bi_max_vecs is what the real kernel reports.
 * STUBBED: bio_set, bounce, integrity and splitting are not provided.
 */
#ifndef __LINUX_BIO_H
#define __LINUX_BIO_H

#include <linux/types.h>
#include <linux/kernel.h>
#include <linux/errno.h>
#include <linux/emu_runtime.h>
#include <linux/highmem.h>
#include <asm/atomic.h>

#ifndef PAGE_CACHE_SHIFT
#define PAGE_CACHE_SHIFT	PAGE_SHIFT	/* as <linux/pagemap.h> */
#endif

#define BIO_MAX_PAGES		256
#define BIO_MAX_SIZE		(BIO_MAX_PAGES << PAGE_CACHE_SHIFT)
#define BIO_MAX_SECTORS		(BIO_MAX_SIZE >> 9)

/*
 * was unsigned short, but we might as well be ready for > 64kB I/O pages
 */
struct bio_vec {
	struct page	*bv_page;
	unsigned int	bv_len;
	unsigned int	bv_offset;
};

struct bio_set;
struct bio;
struct block_device;
struct request_queue;
typedef void (bio_end_io_t) (struct bio *, int);
typedef void (bio_destructor_t) (struct bio *);

/*
 * main unit of I/O for the block layer and lower layers (ie drivers and
 * stacking drivers)
 */
struct bio {
	sector_t		bi_sector;	/* device address in 512 byte
						   sectors */
	struct bio		*bi_next;	/* request queue link */
	struct block_device	*bi_bdev;
	unsigned long		bi_flags;	/* status, command, etc */
	unsigned long		bi_rw;		/* bottom bits READ/WRITE,
						 * top bits priority
						 */

	unsigned short		bi_vcnt;	/* how many bio_vec's */
	unsigned short		bi_idx;		/* current index into bvl_vec */

	/* Number of segments in this BIO after
	 * physical address coalescing is performed.
	 */
	unsigned short		bi_phys_segments;

	/* Number of segments after physical and DMA remapping
	 * hardware coalescing is performed.
	 */
	unsigned short		bi_hw_segments;

	unsigned int		bi_size;	/* residual I/O count */

	/*
	 * To keep track of the max hw size, we account for the
	 * sizes of the first and last virtually mergeable segments
	 * in this bio
	 */
	unsigned int		bi_hw_front_size;
	unsigned int		bi_hw_back_size;

	unsigned int		bi_max_vecs;	/* max bvl_vecs we can hold */

	struct bio_vec		*bi_io_vec;	/* the actual vec list */

	bio_end_io_t		*bi_end_io;
	atomic_t		bi_cnt;		/* pin count */

	void			*bi_private;

	bio_destructor_t	*bi_destructor;	/* destructor */
};

/*
 * bio flags
 */
#define BIO_UPTODATE	0	/* ok after I/O completion */
#define BIO_RW_BLOCK	1	/* RW_AHEAD set, and read/write would block */
#define BIO_EOF		2	/* out-out-bounds error */
#define BIO_SEG_VALID	3	/* nr_hw_seg valid */
#define BIO_CLONED	4	/* doesn't own data */
#define BIO_BOUNCED	5	/* bio is a bounce bio */
#define BIO_USER_MAPPED 6	/* contains user pages */
#define BIO_EOPNOTSUPP	7	/* not supported */
#define bio_flagged(bio, flag)	((bio)->bi_flags & (1 << (flag)))

/*
 * top 4 bits of bio flags indicate the pool this bio came from
 */
#define BIO_POOL_BITS		(4)
#define BIO_POOL_OFFSET		(BITS_PER_LONG - BIO_POOL_BITS)
#define BIO_POOL_MASK		(1UL << BIO_POOL_OFFSET)
#define BIO_POOL_IDX(bio)	((bio)->bi_flags >> BIO_POOL_OFFSET)

/*
 * bio bi_rw flags
 *
 * bit 0 -- read (not set) or write (set)
 * bit 1 -- rw-ahead when set
 * bit 2 -- barrier
 * bit 3 -- fail fast, don't want low level driver retries
 * bit 4 -- synchronous I/O hint: the block layer will unplug immediately
 */
#define BIO_RW		0
#define BIO_RW_AHEAD	1
#define BIO_RW_BARRIER	2
#define BIO_RW_FAILFAST	3
#define BIO_RW_SYNC	4
#define BIO_RW_META	5

/*
 * various member access, note that bio_data should of course not be used
 * on highmem page vectors
 */
#define bio_iovec_idx(bio, idx)	(&((bio)->bi_io_vec[(idx)]))
#define bio_iovec(bio)		bio_iovec_idx((bio), (bio)->bi_idx)
#define bio_page(bio)		bio_iovec((bio))->bv_page
#define bio_offset(bio)		bio_iovec((bio))->bv_offset
#define bio_segments(bio)	((bio)->bi_vcnt - (bio)->bi_idx)
#define bio_sectors(bio)	((bio)->bi_size >> 9)
#define bio_barrier(bio)	((bio)->bi_rw & (1 << BIO_RW_BARRIER))
#define bio_sync(bio)		((bio)->bi_rw & (1 << BIO_RW_SYNC))
#define bio_failfast(bio)	((bio)->bi_rw & (1 << BIO_RW_FAILFAST))
#define bio_rw_ahead(bio)	((bio)->bi_rw & (1 << BIO_RW_AHEAD))
#define bio_rw_meta(bio)	((bio)->bi_rw & (1 << BIO_RW_META))
#define bio_empty_barrier(bio)	(bio_barrier(bio) && !(bio)->bi_size)

static inline unsigned int bio_cur_sectors(struct bio *bio)
{
	if (bio->bi_vcnt)
		return bio_iovec(bio)->bv_len >> 9;

	return 0;
}

static inline void *bio_data(struct bio *bio)
{
	if (bio->bi_vcnt)
		return (char *)page_address(bio_page(bio)) + bio_offset(bio);

	return NULL;
}

#define __BVEC_END(bio)		bio_iovec_idx((bio), (bio)->bi_vcnt - 1)
#define __BVEC_START(bio)	bio_iovec_idx((bio), (bio)->bi_idx)

#define bio_io_error(bio) bio_endio((bio), -EIO)

/*
 * drivers should not use the __ version unless they _really_ want to
 * run through the entire bio and not just pending pieces
 */
#define __bio_for_each_segment(bvl, bio, i, start_idx)			\
	for (bvl = bio_iovec_idx((bio), (start_idx)), i = (start_idx);	\
	     i < (bio)->bi_vcnt;					\
	     bvl++, i++)

#define bio_for_each_segment(bvl, bio, i)				\
	__bio_for_each_segment(bvl, bio, i, (bio)->bi_idx)

/*
 * get a reference to a bio, so it won't disappear. the intended use is
 * something like:
 *
 * bio_get(bio);
 * submit_bio(rw, bio);
 * if (bio->bi_flags ...)
 *	do_something
 * bio_put(bio);
 *
 * without the bio_get(), it could potentially complete I/O before submit_bio
 * returns. and then bio would be freed memory when if (bio->bi_flags ...)
 * runs
 */
#define bio_get(bio)	atomic_inc(&(bio)->bi_cnt)

EMU_BEGIN_DECLS

struct bio *emu_bio_alloc(gfp_t gfp_mask, int nr_iovecs, EMU_SITE_PARAMS);
void emu_bio_put(struct bio *bio, EMU_SITE_PARAMS);
extern void bio_endio(struct bio *, int);
extern void bio_init(struct bio *);
extern int bio_add_page(struct bio *, struct page *, unsigned int,
			unsigned int);
extern int bio_get_nr_vecs(struct block_device *);
extern void zero_fill_bio(struct bio *bio);
extern unsigned int bvec_nr_vecs(unsigned short idx);

EMU_END_DECLS

/* The call site goes to the accounting (emu::leaks() names it). */
#define bio_alloc(gfp_mask, nr_iovecs) \
	emu_bio_alloc((gfp_mask), (nr_iovecs), EMU_SITE)
#define bio_put(bio)	emu_bio_put((bio), EMU_SITE)

#endif /* __LINUX_BIO_H */
