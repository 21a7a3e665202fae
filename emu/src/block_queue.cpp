// Request queues and the way into them: generic_make_request() and
// submit_bio() (2.6.27's block/blk-core.c and block/blk-settings.c).
//
// How a bio travels: submit_bio() (or a driver calling
// generic_make_request() directly) -> generic_make_request(), which, if a
// make_request_fn is already active on this task, only appends the bio to
// current->bio_list (so stacked drivers never recurse), and otherwise runs
// __generic_make_request() for it and for every bio queued meanwhile.
// __generic_make_request() checks the bio against the end of its device,
// remaps a bio aimed at a partition onto the whole disk (bi_sector +=
// start_sect, bi_bdev = bd_contains), and calls the queue's
// make_request_fn - again and again while that returns non-zero, which is
// how a driver that changed bi_bdev asks for the bio to be resubmitted.
#include <cstring>
#include <map>
#include <memory>
#include <mutex>

#include "block_internal.hpp"
#include "checks.hpp"

#include <linux/sched.h>

namespace {

// A queue and its reference count (2.6.27 counts on the queue's kobject).
struct QueueAlloc {
	struct request_queue q;
	int refs = 1;
};

struct QueueTable {
	std::mutex m;
	std::map<const struct request_queue *, std::unique_ptr<QueueAlloc>> all;
};

QueueTable &queue_table()
{
	static QueueTable table;
	return table;
}

void handle_bad_sector(struct bio *bio)
{
	char b[BDEVNAME_SIZE];

	printk(KERN_INFO "attempt to access beyond end of device\n");
	printk(KERN_INFO "%s: rw=%ld, want=%llu, limit=%llu\n",
			bdevname(bio->bi_bdev, b),
			(long)bio->bi_rw,
			(unsigned long long)bio->bi_sector + bio_sectors(bio),
			(unsigned long long)(emu::blk::device_size(
				bio->bi_bdev) >> 9));

	set_bit(BIO_EOF, &bio->bi_flags);
}

/*
 * Check whether this bio extends beyond the end of the device.
 */
int bio_check_eod(struct bio *bio, unsigned int nr_sectors)
{
	sector_t maxsector;

	if (!nr_sectors)
		return 0;

	/* Test device or partition size, when known. */
	maxsector = emu::blk::device_size(bio->bi_bdev) >> 9;
	if (maxsector) {
		sector_t sector = bio->bi_sector;

		if (maxsector < nr_sectors || maxsector - nr_sectors < sector) {
			/*
			 * This may well happen - the kernel calls bread()
			 * without checking the size of the device, e.g., when
			 * mounting a device.
			 */
			handle_bad_sector(bio);
			return 1;
		}
	}

	return 0;
}

/*
 * If bio->bi_dev is a partition, remap the location
 */
void blk_partition_remap(struct bio *bio)
{
	struct block_device *bdev = bio->bi_bdev;

	if (bio_sectors(bio) && bdev != bdev->bd_contains) {
		struct hd_struct *p = bdev->bd_part;

		bio->bi_sector += p->start_sect;
		bio->bi_bdev = bdev->bd_contains;
	}
}

void __generic_make_request(struct bio *bio, emu::Site site)
{
	struct request_queue *q;
	int ret, nr_sectors = bio_sectors(bio);
	int err = -EIO;

	(emu::might_sleep)(site);

	if (!bio->bi_bdev)
		emu::violation(site, "generic_make_request of a bio without "
			       "a block device (bi_bdev is NULL)");

	if (bio_check_eod(bio, nr_sectors))
		goto end_io;

	/*
	 * Resolve the mapping until finished. (drivers are
	 * still free to implement/resolve their own stacking
	 * by explicitly returning 0)
	 *
	 * NOTE: we don't repeat the blk_size check for each new device.
	 * Stacking drivers are expected to know what they are doing.
	 */
	do {
		char b[BDEVNAME_SIZE];

		// 2.6.27 dereferences bd_disk here: a bio for a device
		// that nobody opened oopses.
		if (!bio->bi_bdev->bd_disk)
			emu::violation(site, "generic_make_request of a bio "
				       "for a block device that is not open "
				       "(bd_disk is NULL)");
		q = bdev_get_queue(bio->bi_bdev);
		if (!q) {
			printk(KERN_ERR
			       "generic_make_request: Trying to access "
				"nonexistent block-device %s (%llu)\n",
				bdevname(bio->bi_bdev, b),
				(unsigned long long) bio->bi_sector);
end_io:
			bio_endio(bio, err);
			break;
		}

		if (unlikely((unsigned)nr_sectors > q->max_hw_sectors)) {
			printk(KERN_ERR "bio too big device %s (%u > %u)\n",
				bdevname(bio->bi_bdev, b),
				bio_sectors(bio),
				q->max_hw_sectors);
			goto end_io;
		}

		if (unlikely(test_bit(QUEUE_FLAG_DEAD, &q->queue_flags)))
			goto end_io;

		/*
		 * If this device has partitions, remap block n
		 * of partition p to block n+start(p) of the disk.
		 */
		blk_partition_remap(bio);

		if (bio_check_eod(bio, nr_sectors))
			goto end_io;
		if (bio_empty_barrier(bio) && !q->prepare_flush_fn) {
			err = -EOPNOTSUPP;
			goto end_io;
		}

		if (!q->make_request_fn)
			emu::violation(site, "generic_make_request on a queue "
				       "without a make_request_fn");
		emu::io_make_request_begin(bio);
		ret = q->make_request_fn(q, bio);
		emu::io_make_request_end(bio, ret);
	} while (ret);
}

// The outermost generic_make_request of this task, for reports made by a
// request function (see submitter_site()).
thread_local const emu::Site *t_submitter;

class SubmitterScope {
public:
	explicit SubmitterScope(const emu::Site &site) : outer_(t_submitter)
	{
		if (!outer_)
			t_submitter = &site;
	}
	~SubmitterScope()
	{
		if (!outer_)
			t_submitter = nullptr;
	}
	SubmitterScope(const SubmitterScope &) = delete;
	SubmitterScope &operator=(const SubmitterScope &) = delete;

private:
	const emu::Site *outer_;
};

// A segment limit of 0 is raised to 1, with the log line of the setter
// `func` that was given it.
unsigned short at_least_one_segment(unsigned short max_segments,
				    const char *func)
{
	if (!max_segments) {
		max_segments = 1;
		printk(KERN_INFO "%s: set to minimum %d\n", func, max_segments);
	}
	return max_segments;
}

}  // namespace

emu::Site emu::blk::submitter_site()
{
	return t_submitter ? *t_submitter : emu::Site{"(called directly)", 0};
}

extern "C" {

/*
 * We only want one ->make_request_fn to be active at a time,
 * else stack usage with stacked devices could be a problem.
 * So use current->bio_{list,tail} to keep a list of requests
 * submited by a make_request_fn function.
 * current->bio_tail is also used as a flag to say if
 * generic_make_request is currently active in this task or not.
 * If it is NULL, then no make_request is active.  If it is non-NULL,
 * then a make_request is active, and new requests should be added
 * at the tail
 */
void emu_generic_make_request(struct bio *bio, EMU_SITE_PARAMS)
{
	const emu::Site site{emu_file, emu_line};
	struct task_struct *tsk = emu::current_task();
	SubmitterScope submitter(site);

	emu::io_submitted(bio, site);
	if (tsk->bio_tail) {
		/* make_request is active */
		*(tsk->bio_tail) = bio;
		bio->bi_next = NULL;
		tsk->bio_tail = &bio->bi_next;
		return;
	}
	/*
	 * Before entering the loop, bio->bi_next is NULL (as all callers
	 * ensure that) so we have a list with a single bio.  We pretend that
	 * we have just taken it off a longer list, so we assign bio_list to
	 * the next (which is NULL) and bio_tail to &bio_list, thus
	 * initialising the bio_list of new bios to be added.
	 * __generic_make_request may indeed add some more bios through a
	 * recursive call to generic_make_request.  If it did, we find a
	 * non-NULL value in bio_list and re-enter the loop from the top.
	 */
	if (bio->bi_next)
		emu::violation(site, "generic_make_request of a bio that is "
			       "still linked (bi_next is not NULL)");
	do {
		tsk->bio_list = bio->bi_next;
		if (bio->bi_next == NULL)
			tsk->bio_tail = &tsk->bio_list;
		else
			bio->bi_next = NULL;
		__generic_make_request(bio, site);
		bio = tsk->bio_list;
	} while (bio);
	tsk->bio_tail = NULL; /* deactivate */
}

void emu_submit_bio(int rw, struct bio *bio, EMU_SITE_PARAMS)
{
	bio->bi_rw |= rw;

	/*
	 * A regular read/write or a barrier with data attached must carry
	 * data (BIO_BUG_ON in 2.6.27).
	 */
	if (!bio_empty_barrier(bio) && (!bio->bi_size || !bio->bi_io_vec))
		emu::violation({emu_file, emu_line}, "submit_bio of a bio "
			       "without data (bi_size 0 or no vector)");

	emu_generic_make_request(bio, emu_file, emu_line);
}

struct request_queue *blk_alloc_queue(gfp_t gfp_mask)
{
	(void)gfp_mask;
	auto alloc = std::make_unique<QueueAlloc>();
	struct request_queue *q = &alloc->q;
	std::memset(static_cast<void *>(q), 0, sizeof(*q));
	mutex_init(&q->sysfs_lock);
	spin_lock_init(&q->__queue_lock);
	std::lock_guard lk(queue_table().m);
	queue_table().all.emplace(q, std::move(alloc));
	return q;
}

void blk_queue_max_sectors(struct request_queue *q, unsigned int max_sectors)
{
	if ((max_sectors << 9) < PAGE_SIZE) {
		max_sectors = 1 << (PAGE_SHIFT - 9);
		printk(KERN_INFO "%s: set to minimum %d\n",
		       __func__, max_sectors);
	}

	if (BLK_DEF_MAX_SECTORS > max_sectors)
		q->max_hw_sectors = q->max_sectors = max_sectors;
	else {
		q->max_sectors = BLK_DEF_MAX_SECTORS;
		q->max_hw_sectors = max_sectors;
	}
}

void blk_queue_max_phys_segments(struct request_queue *q,
				 unsigned short max_segments)
{
	q->max_phys_segments = at_least_one_segment(max_segments, __func__);
}

void blk_queue_max_hw_segments(struct request_queue *q,
			       unsigned short max_segments)
{
	q->max_hw_segments = at_least_one_segment(max_segments, __func__);
}

void blk_queue_hardsect_size(struct request_queue *q, unsigned short size)
{
	q->hardsect_size = size;
}

void blk_queue_segment_boundary(struct request_queue *q, unsigned long mask)
{
	if (mask < PAGE_SIZE - 1) {
		mask = PAGE_SIZE - 1;
		printk(KERN_INFO "%s: set to minimum %lx\n",
		       __func__, mask);
	}

	q->seg_boundary_mask = mask;
}

void blk_queue_dma_alignment(struct request_queue *q, int mask)
{
	q->dma_alignment = mask;
}

void blk_queue_make_request(struct request_queue *q, make_request_fn *mfn)
{
	/*
	 * set defaults
	 */
	q->nr_requests = 128;	/* BLKDEV_MAX_RQ */
	blk_queue_max_phys_segments(q, MAX_PHYS_SEGMENTS);
	blk_queue_max_hw_segments(q, MAX_HW_SEGMENTS);
	q->make_request_fn = mfn;
	blk_queue_max_sectors(q, SAFE_MAX_SECTORS);
	blk_queue_hardsect_size(q, 512);
	blk_queue_dma_alignment(q, 511);
	q->max_segment_size = MAX_SEGMENT_SIZE;
	q->seg_boundary_mask = 0xffffffff;
}

int blk_get_queue(struct request_queue *q)
{
	if (likely(!test_bit(QUEUE_FLAG_DEAD, &q->queue_flags))) {
		std::lock_guard lk(queue_table().m);
		queue_table().all.at(q)->refs++;
		return 0;
	}

	return 1;
}

void blk_put_queue(struct request_queue *q)
{
	std::unique_ptr<QueueAlloc> gone;
	std::lock_guard lk(queue_table().m);
	auto it = queue_table().all.find(q);
	if (it == queue_table().all.end() || it->second->refs <= 0)
		emu::violation({}, "blk_put_queue of a queue without a "
			       "reference");
	if (--it->second->refs == 0) {
		emu::check_no_held_lock_in(q, sizeof(*q), {});
		gone = std::move(it->second);
		queue_table().all.erase(it);
	}
}

void blk_cleanup_queue(struct request_queue *q)
{
	mutex_lock(&q->sysfs_lock);
	set_bit(QUEUE_FLAG_DEAD, &q->queue_flags);
	mutex_unlock(&q->sysfs_lock);

	blk_put_queue(q);
}

}  // extern "C"
