/*
 * Request queues and the entry points of the block layer, as 2.6.27 has
 * them.
 *
 * DUPLICATED: the make_request_fn type (int (struct request_queue *,
 * struct bio *)), the members of struct request_queue that a bio-based
 * driver and a driver that hooks a queue reach (in 2.6.27's order; the
 * request lists, elevator, plugging timer, tags and sysfs objects are left
 * out: no emulated queue has them), QUEUE_FLAG_*, the queue limits and their
 * defaults, bdev_get_queue(), queue_is_locked(), and the signatures of
 * generic_make_request(), blk_alloc_queue(), blk_queue_make_request() and
 * friends.
 * CUSTOMISED (emu/src/block_queue.cpp): generic_make_request() runs
 * 2.6.27's __generic_make_request() loop - end-of-device check, partition
 * remapping to the whole disk, then q->make_request_fn, resubmitted while it
 * returns non-zero - with the current->bio_list/bio_tail recursion
 * avoidance.  Queues live in the emulation's own memory (they belong to the
 * emulated machine's disks, not to the driver) and are not counted in
 * emu::usage().  A queue made by blk_alloc_queue() has no lock (queue_lock
 * NULL), as on 2.6.27; the emulated disks (emu/src/emu/block.hpp) give their
 * queue the embedded __queue_lock unless told otherwise, as blk_init_queue()
 * does for request-based disks.
 */
#ifndef _LINUX_BLKDEV_H
#define _LINUX_BLKDEV_H

#include <linux/sched.h>
#include <linux/major.h>
#include <linux/genhd.h>
#include <linux/list.h>
#include <linux/wait.h>
#include <linux/bio.h>
#include <linux/module.h>
#include <linux/spinlock.h>
#include <linux/mutex.h>
#include <linux/emu_runtime.h>

struct request_queue;
struct request;

typedef void (request_fn_proc) (struct request_queue *q);
typedef int (make_request_fn) (struct request_queue *q, struct bio *bio);
typedef void (unplug_fn) (struct request_queue *);

struct bvec_merge_data {
	struct block_device *bi_bdev;
	sector_t bi_sector;
	unsigned bi_size;
	unsigned long bi_rw;
};
typedef int (merge_bvec_fn) (struct request_queue *, struct bvec_merge_data *,
			     struct bio_vec *);

/*
 * The function-pointer members are spelt out instead of using the typedefs
 * of the same names (same types): C++, which compiles this header for the
 * runtime, forbids a member to change the meaning of a name used in the
 * class.
 */
struct request_queue
{
	request_fn_proc		*request_fn;
	int			(*make_request_fn)(struct request_queue *q,
						   struct bio *bio);
	void			(*unplug_fn)(struct request_queue *);
	int			(*merge_bvec_fn)(struct request_queue *,
						 struct bvec_merge_data *,
						 struct bio_vec *);
	/*
	 * Set where the queue's ordered mode flushes a write cache; without
	 * it an empty barrier (blkdev_issue_flush) is refused with
	 * -EOPNOTSUPP before it reaches the queue.
	 */
	void			(*prepare_flush_fn)(struct request_queue *,
						    struct request *);

	/*
	 * The queue owner gets to use this for whatever they like.
	 * ll_rw_blk doesn't touch it.
	 */
	void			*queuedata;

	/*
	 * various queue flags, see QUEUE_* below
	 */
	unsigned long		queue_flags;

	/*
	 * protects queue structures from reentrancy. ->__queue_lock should
	 * _never_ be used directly, it is queue private. always use
	 * ->queue_lock.
	 */
	spinlock_t		__queue_lock;
	spinlock_t		*queue_lock;

	/*
	 * queue settings
	 */
	unsigned long		nr_requests;	/* Max # of requests */

	unsigned int		max_sectors;
	unsigned int		max_hw_sectors;
	unsigned short		max_phys_segments;
	unsigned short		max_hw_segments;
	unsigned short		hardsect_size;
	unsigned int		max_segment_size;

	unsigned long		seg_boundary_mask;
	unsigned int		dma_alignment;

	unsigned int		in_flight;

	struct mutex		sysfs_lock;
};

#define QUEUE_FLAG_CLUSTER	0	/* cluster several segments into 1 */
#define QUEUE_FLAG_QUEUED	1	/* uses generic tag queueing */
#define QUEUE_FLAG_STOPPED	2	/* queue is stopped */
#define	QUEUE_FLAG_READFULL	3	/* read queue has been filled */
#define QUEUE_FLAG_WRITEFULL	4	/* write queue has been filled */
#define QUEUE_FLAG_DEAD		5	/* queue being torn down */
#define QUEUE_FLAG_REENTER	6	/* Re-entrancy avoidance */
#define QUEUE_FLAG_PLUGGED	7	/* queue is plugged */
#define QUEUE_FLAG_ELVSWITCH	8	/* don't use elevator, just do FIFO */
#define QUEUE_FLAG_BIDI		9	/* queue supports bidi requests */
#define QUEUE_FLAG_NOMERGES    10	/* disable merge attempts */

static inline int queue_is_locked(struct request_queue *q)
{
	spinlock_t *lock = q->queue_lock;
	return lock && spin_is_locked(lock);
}

#define blk_queue_plugged(q)	test_bit(QUEUE_FLAG_PLUGGED, &(q)->queue_flags)
#define blk_queue_tagged(q)	test_bit(QUEUE_FLAG_QUEUED, &(q)->queue_flags)
#define blk_queue_stopped(q)	test_bit(QUEUE_FLAG_STOPPED, &(q)->queue_flags)
#define blk_queue_nomerges(q)	test_bit(QUEUE_FLAG_NOMERGES, &(q)->queue_flags)

#define MAX_PHYS_SEGMENTS 128
#define MAX_HW_SEGMENTS 128
#define SAFE_MAX_SECTORS 255
#define BLK_DEF_MAX_SECTORS 1024

#define MAX_SEGMENT_SIZE	65536

static inline struct request_queue *bdev_get_queue(struct block_device *bdev)
{
	return bdev->bd_disk->queue;
}

static inline int queue_hardsect_size(struct request_queue *q)
{
	int retval = 512;

	if (q && q->hardsect_size)
		retval = q->hardsect_size;

	return retval;
}

static inline int bdev_hardsect_size(struct block_device *bdev)
{
	return queue_hardsect_size(bdev_get_queue(bdev));
}

EMU_BEGIN_DECLS

void emu_generic_make_request(struct bio *bio, EMU_SITE_PARAMS);

extern struct request_queue *blk_alloc_queue(gfp_t);
extern void blk_queue_make_request(struct request_queue *, make_request_fn *);
extern void blk_cleanup_queue(struct request_queue *);
extern int blk_get_queue(struct request_queue *);
extern void blk_put_queue(struct request_queue *);
extern void blk_queue_max_sectors(struct request_queue *, unsigned int);
extern void blk_queue_max_phys_segments(struct request_queue *,
					unsigned short);
extern void blk_queue_max_hw_segments(struct request_queue *, unsigned short);
extern void blk_queue_hardsect_size(struct request_queue *, unsigned short);
extern void blk_queue_segment_boundary(struct request_queue *, unsigned long);
extern void blk_queue_dma_alignment(struct request_queue *, int);

EMU_END_DECLS

/* Sleeps (might_sleep): the call site goes to the context check. */
#define generic_make_request(bio) emu_generic_make_request((bio), EMU_SITE)

#endif /* _LINUX_BLKDEV_H */
