// Helpers of the emulated block layer's own tests (test_emu_block*.cpp,
// test_emu_fs*.cpp): pages with a fill pattern, bios that record how they
// ended, and a make_request_fn hook that records what reached the queue.
#pragma once

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include <gtest/gtest.h>

#include "support.hpp"

#include "emu/emu.hpp"
#include "emu/block.hpp"

#include <linux/bio.h>
#include <linux/blkdev.h>
#include <linux/buffer_head.h>
#include <linux/fs.h>
#include <linux/genhd.h>
#include <linux/hardirq.h>
#include <linux/highmem.h>
#include <linux/sched.h>

namespace blocktest {

// A disk of `sectors` sectors, minors first_minor .. first_minor + 15.
constexpr unsigned kMajor = 8;  // the disks of these tests are sd disks

inline emu::DiskConfig disk_config(unsigned first_minor, std::uint64_t sectors,
			    const char *name, unsigned threads = 1)
{
	emu::DiskConfig c;
	c.major = kMajor;
	c.first_minor = first_minor;
	c.minors = 16;
	c.sectors = sectors;
	c.name = name;
	c.threads = threads;
	return c;
}

// A test with one disk and a file system mounted on one of its
// partitions; the file system is unmounted before the disk goes.
class DiskTest : public ::testing::Test {
protected:
	// Mounts a file system of `block_size` on partition `partno` of
	// disk_, and starts the kernel log afresh.
	void mount_fs(unsigned partno, unsigned block_size)
	{
		fs_ = std::make_unique<emu::FileSystem>(*disk_, partno,
							block_size);
		emu::log_clear();
	}
	void TearDown() override
	{
		fs_.reset();
		disk_.reset();
	}

	std::unique_ptr<emu::Disk> disk_;
	std::unique_ptr<emu::FileSystem> fs_;
};

// How one bio ended, as its bi_end_io saw it.
struct Ending {
	int tag = 0;
	int error = 1;             // 1: not ended yet
	bool uptodate = false;
	bool irqs_off = false;     // interrupts disabled in the completion
	bool in_intr = false;      // in_interrupt() in the completion
	pid_t pid = 0;             // task that ran the completion
	unsigned int size = 0;     // bi_size at completion
	sector_t sector = 0;       // bi_sector at completion
};

// Collects the endings of a group of bios, in completion order.
class Endings {
public:
	void add(const Ending &e)
	{
		// Under the lock: the waiter may destroy this once it sees
		// the ending.
		std::lock_guard lk(m_);
		all_.push_back(e);
		cv_.notify_all();
	}
	// Waits until `n` bios ended; returns them in completion order.
	std::vector<Ending> wait(std::size_t n)
	{
		std::unique_lock lk(m_);
		cv_.wait(lk, [&] { return all_.size() >= n; });
		return all_;
	}
	std::size_t count()
	{
		std::lock_guard lk(m_);
		return all_.size();
	}

private:
	std::mutex m_;
	std::condition_variable cv_;
	std::vector<Ending> all_;
};

struct BioTag {
	Endings *endings;
	int tag;
};

// bi_end_io of the tests' bios: records the ending, then drops the bio's
// reference (the bio belongs to the I/O from submission on).
inline void record_end_io(struct bio *bio, int error)
{
	auto *t = static_cast<BioTag *>(bio->bi_private);
	Ending e;
	e.tag = t->tag;
	e.error = error;
	e.uptodate = bio_flagged(bio, BIO_UPTODATE) != 0;
	e.irqs_off = irqs_disabled() != 0;
	e.in_intr = in_interrupt() != 0;
	e.pid = current->pid;
	e.size = bio->bi_size;
	e.sector = bio->bi_sector;
	bio_put(bio);
	t->endings->add(e);
}

// A page, freed at scope end.
class Page {
public:
	explicit Page(gfp_t gfp = GFP_KERNEL) : page_(alloc_page(gfp)) {}
	~Page()
	{
		if (page_)
			__free_page(page_);
	}
	Page(const Page &) = delete;
	Page &operator=(const Page &) = delete;
	struct page *get() const { return page_; }
	void fill(unsigned char byte)
	{
		std::memset(kmap(page_), byte, PAGE_SIZE);
		kunmap(page_);
	}
	std::vector<std::byte> bytes(unsigned off = 0, unsigned len = PAGE_SIZE)
	{
		std::vector<std::byte> out(len);
		std::memcpy(out.data(), static_cast<char *>(kmap(page_)) + off,
			    len);
		kunmap(page_);
		return out;
	}

private:
	struct page *page_;
};

// A bio of one vector over `len` bytes of `page`, for `bdev` at `sector`,
// ending into `tag`.  GFP_NOIO: tests also make bios inside make_request
// functions, where an allocation that may do I/O is a violation.
inline struct bio *make_bio(struct block_device *bdev, sector_t sector,
			    struct page *page, unsigned len, BioTag *tag)
{
	struct bio *bio = bio_alloc(GFP_NOIO, 1);
	bio->bi_bdev = bdev;
	bio->bi_sector = sector;
	bio->bi_io_vec[0].bv_page = page;
	bio->bi_io_vec[0].bv_len = len;
	bio->bi_io_vec[0].bv_offset = 0;
	bio->bi_vcnt = 1;
	bio->bi_size = len;
	bio->bi_end_io = record_end_io;
	bio->bi_private = tag;
	return bio;
}

inline std::vector<std::byte> pattern(std::size_t len, unsigned char byte)
{
	return std::vector<std::byte>(len, std::byte{byte});
}

// What a hooked make_request_fn saw of one bio.
struct Seen {
	dev_t dev;
	sector_t sector;
	unsigned int size;
	unsigned long rw;
};

// A make_request_fn installed on a disk's queue in place of the disk's own,
// as a driver installs its hook.  The behaviour is a std::function so each
// test says what the hook does; by default it records and passes the bio
// on to the disk's function.  One hook at a time (the function pointer on
// the queue is a plain C function).
class Hook {
public:
	using Fn = std::function<int(struct request_queue *, struct bio *)>;

	explicit Hook(struct request_queue *q) : q_(q)
	{
		current_hook() = this;
		real_ = q->make_request_fn;
		q->make_request_fn = trampoline;
	}
	~Hook()
	{
		q_->make_request_fn = real_;
		current_hook() = nullptr;
	}
	Hook(const Hook &) = delete;
	Hook &operator=(const Hook &) = delete;

	void set(Fn fn) { fn_ = std::move(fn); }
	// Passes the bio to the queue's real function.
	int pass(struct request_queue *q, struct bio *bio)
	{
		return real_(q, bio);
	}
	std::vector<Seen> seen()
	{
		std::lock_guard lk(m_);
		return seen_;
	}
	int calls() const { return calls_.load(); }
	int max_depth() const { return max_depth_.load(); }

private:
	static Hook *&current_hook()
	{
		static Hook *hook = nullptr;
		return hook;
	}
	static int trampoline(struct request_queue *q, struct bio *bio)
	{
		Hook *h = current_hook();
		const int depth = ++h->depth_;
		h->max_depth_ = std::max(h->max_depth_.load(), depth);
		h->calls_++;
		{
			std::lock_guard lk(h->m_);
			h->seen_.push_back({bio->bi_bdev->bd_dev, bio->bi_sector,
					    bio->bi_size, bio->bi_rw});
		}
		const int ret = h->fn_ ? h->fn_(q, bio) : h->pass(q, bio);
		--h->depth_;
		return ret;
	}

	struct request_queue *q_;
	int (*real_)(struct request_queue *, struct bio *);
	Fn fn_;
	std::mutex m_;
	std::vector<Seen> seen_;
	std::atomic<int> calls_{0};
	std::atomic<int> depth_{0};
	std::atomic<int> max_depth_{0};
};

}  // namespace blocktest
