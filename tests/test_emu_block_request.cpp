// The disk's request function under 2.6.27's __make_request rules: it may
// sleep, takes the queue lock with interrupts off, draws on a bounded pool
// of requests, wants bios remapped onto the whole disk; and the two
// contexts a completion can run in (block softirq, IDE-style interrupt
// with the queue lock held).
#include <atomic>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "test_emu_block_util.hpp"

#include <linux/spinlock.h>

using namespace blocktest;

namespace {

// Spins (yielding) until pred() holds; the tests use it to wait for a
// thread to reach a sleep, never to measure time.
template <class Pred>
void until(Pred pred)
{
	while (!pred())
		std::this_thread::yield();
}

emu::DiskConfig config_in(emu::CompletionContext context,
			  unsigned first_minor = 16, const char *name = "sdb")
{
	auto cfg = disk_config(first_minor, 20000, name, 1);
	cfg.context = context;
	return cfg;
}

TEST(DiskRequestDeathTest, CalledDirectlyUnderASpinLockIsFatal)
{
	EXPECT_DEATH(([] {
		emu::Disk disk(disk_config(32, 2000, "sdc", 1));
		emu::FileSystem fs(disk, 0, 1024);
		Page page;
		Endings endings;
		BioTag tag{&endings, 1};
		struct bio *bio = make_bio(fs.bdev(), 0, page.get(), 512,
					   &tag);
		DEFINE_SPINLOCK(lock);
		spin_lock(&lock);
		emu::Disk::request_fn()(disk.queue(), bio);
	}()),
		"sleeping function __make_request called with a spin lock "
		"held");
}

TEST(DiskRequest, CalledWithInterruptsMerelyOffIsSilentAndEndsWithThemOn)
{
	// 2.6.27's __make_request carries no might_sleep(): a submitter that
	// comes in with interrupts off (not atomic) gets no warning, and the
	// queue lock's spin_unlock_irq leaves interrupts on.
	emu::Disk disk(disk_config(32, 2000, "sdc", 1));
	emu::FileSystem fs(disk, 0, 1024);
	Page page;
	Endings endings;
	BioTag tag{&endings, 1};
	struct bio *bio = make_bio(fs.bdev(), 0, page.get(), 512, &tag);
	emu::log_clear();
	local_irq_disable();
	emu::Disk::request_fn()(disk.queue(), bio);
	EXPECT_FALSE(irqs_disabled());
	EXPECT_TRUE(endings.wait(1)[0].uptodate);
	EXPECT_EQ(emu::log_strings(), std::vector<std::string>{});
}

// ---------------------------------------------------------------------------
// the queue lock and the request pool

class DiskPoolConcurrency : public DiskTest {
protected:
	void make(unsigned nr_requests = 128)
	{
		auto cfg = disk_config(16, 20000, "sdb", 1);
		cfg.nr_requests = nr_requests;
		disk_ = std::make_unique<emu::Disk>(cfg);
		mount_fs(0, 512);
	}
	// Submits a read of sector `sector` ending into `endings`.
	void read(sector_t sector, Endings &endings, BioTag &tag, Page &page)
	{
		submit_bio(READ, make_bio(fs_->bdev(), sector, page.get(), 512,
					  &tag));
		(void)endings;
	}
};

TEST_F(DiskPoolConcurrency, SubmitterBeyondTheDefaultPoolSleepsUntilACompletion)
{
	make();
	EXPECT_EQ(disk_->queue()->nr_requests, 128u);
	disk_->plug();
	Page page;
	Endings endings;
	BioTag tag{&endings, 1};
	for (int i = 0; i < 128; i++)
		read(i, endings, tag, page);
	EXPECT_EQ(disk_->requests_allocated(), 128u);
	EXPECT_EQ(disk_->pool_sleepers(), 0u);

	std::atomic<bool> returned{false};
	std::jthread submitter([&] {
		read(128, endings, tag, page);
		returned = true;
	});
	until([&] { return disk_->pool_sleepers() == 1; });
	EXPECT_FALSE(returned.load());
	EXPECT_EQ(disk_->requests_allocated(), 128u);
	EXPECT_EQ(endings.count(), 0u);

	disk_->unplug();  // completions give requests back
	submitter.join();
	EXPECT_TRUE(returned.load());
	EXPECT_EQ(endings.wait(129).size(), 129u);
	disk_->drain();
	EXPECT_EQ(disk_->requests_allocated(), 0u);
	EXPECT_EQ(disk_->pool_sleepers(), 0u);
	ExpectLog({});
}

TEST_F(DiskPoolConcurrency, PoolSizeIsSetPerDiskAndRequestsComeBackAtCompletion)
{
	make(2);
	EXPECT_EQ(disk_->queue()->nr_requests, 2u);
	Page page;
	Endings endings;
	BioTag tag{&endings, 1};
	// Unplugged, one request at a time never waits.
	for (int i = 0; i < 5; i++) {
		read(i, endings, tag, page);
		endings.wait(static_cast<std::size_t>(i) + 1);
	}
	disk_->drain();
	EXPECT_EQ(disk_->requests_allocated(), 0u);

	disk_->plug();
	read(10, endings, tag, page);
	read(11, endings, tag, page);
	std::jthread submitter([&] {
		read(12, endings, tag, page);
	});
	until([&] { return disk_->pool_sleepers() == 1; });
	EXPECT_EQ(disk_->requests_allocated(), 2u);
	disk_->unplug();
	submitter.join();
	endings.wait(8);
	disk_->drain();
	EXPECT_EQ(disk_->requests_allocated(), 0u);
}

TEST_F(DiskPoolConcurrency, SubmitterWaitsForTheQueueLock)
{
	make();
	spinlock_t *lock = disk_->queue()->queue_lock;
	Page page;
	Endings endings;
	BioTag tag{&endings, 1};
	std::atomic<bool> returned{false};
	spin_lock_irq(lock);
	EXPECT_TRUE(irqs_disabled());
	std::jthread submitter([&] {
		read(3, endings, tag, page);
		returned = true;
	});
	// The request function has seen the bio (the observer count) but
	// cannot queue it while the lock is held.
	until([&] { return disk_->requests() == 1; });
	for (int i = 0; i < 100; i++)
		std::this_thread::yield();
	EXPECT_FALSE(returned.load());
	EXPECT_EQ(endings.count(), 0u);
	spin_unlock_irq(lock);
	submitter.join();
	EXPECT_EQ(endings.wait(1)[0].error, 0);
}

// ---------------------------------------------------------------------------
// completion contexts

// bi_end_io that records the context it runs in, and whether the queue
// lock of the disk is held by the completing task.
struct ContextSeen {
	std::atomic<bool> done{false};
	bool in_irq = false, in_softirq = false, irqs_off = false;
	bool holds_queue_lock = false;
	spinlock_t *lock = nullptr;
};

void context_end_io(struct bio *bio, int)
{
	auto *seen = static_cast<ContextSeen *>(bio->bi_private);
	seen->in_irq = in_irq();
	seen->in_softirq = in_softirq();
	seen->irqs_off = irqs_disabled();
	seen->holds_queue_lock = seen->lock->owner == current;
	bio_put(bio);
	seen->done = true;
}

// A read of sector 0 ending in end_io with &seen, waited for.
void submit_probe(emu::Disk &disk, struct block_device *bdev,
		  struct page *page, ContextSeen &seen, bio_end_io_t *end_io)
{
	seen.lock = disk.queue()->queue_lock;
	struct bio *bio = make_bio(bdev, 0, page, 512, nullptr);
	bio->bi_end_io = end_io;
	bio->bi_private = &seen;
	submit_bio(READ, bio);
	disk.drain();
}

void submit_context_probe(emu::Disk &disk, struct block_device *bdev,
			  struct page *page, ContextSeen &seen)
{
	submit_probe(disk, bdev, page, seen, context_end_io);
}

TEST(DiskCompletion, HardirqCompletionRunsWithInterruptsOffAndTheQueueLockHeld)
{
	emu::Disk disk(config_in(emu::CompletionContext::Hardirq));
	EXPECT_EQ(disk.completion_context(), emu::CompletionContext::Hardirq);
	emu::FileSystem fs(disk, 0, 512);
	Page page;
	ContextSeen seen;
	submit_context_probe(disk, fs.bdev(), page.get(), seen);
	ASSERT_TRUE(seen.done.load());
	EXPECT_TRUE(seen.in_irq);
	EXPECT_FALSE(seen.in_softirq);
	EXPECT_TRUE(seen.irqs_off);
	EXPECT_TRUE(seen.holds_queue_lock);
	EXPECT_EQ(disk.requests_allocated(), 0u);
}

TEST(DiskCompletion, SoftirqCompletionRunsWithInterruptsOnAndTheQueueLockFree)
{
	emu::Disk disk(config_in(emu::CompletionContext::Softirq));
	emu::FileSystem fs(disk, 0, 512);
	Page page;
	ContextSeen seen;
	submit_context_probe(disk, fs.bdev(), page.get(), seen);
	ASSERT_TRUE(seen.done.load());
	EXPECT_FALSE(seen.in_irq);
	EXPECT_TRUE(seen.in_softirq);
	EXPECT_FALSE(seen.irqs_off);
	EXPECT_FALSE(seen.holds_queue_lock);
	EXPECT_EQ(disk.requests_allocated(), 0u);
}

TEST(DiskCompletion, DefaultContextFollowsTheEnvironment)
{
	ASSERT_EQ(::setenv("EMU_DISK_COMPLETION", "hardirq", 1), 0);
	{
		emu::Disk disk(disk_config(16, 100, "sdb"));
		EXPECT_EQ(disk.completion_context(),
			  emu::CompletionContext::Hardirq);
	}
	ASSERT_EQ(::setenv("EMU_DISK_COMPLETION", "softirq", 1), 0);
	{
		emu::Disk disk(disk_config(16, 100, "sdb"));
		EXPECT_EQ(disk.completion_context(),
			  emu::CompletionContext::Softirq);
	}
	ASSERT_EQ(::unsetenv("EMU_DISK_COMPLETION"), 0);
	EXPECT_EQ(emu::default_completion_context(),
		  emu::CompletionContext::Softirq);
}

TEST(DiskCompletionDeathTest, UnknownCompletionContextInTheEnvironmentIsFatal)
{
	EXPECT_DEATH(([] {
		::setenv("EMU_DISK_COMPLETION", "nmi", 1);
		emu::Disk disk(disk_config(16, 100, "sdb"));
	}()),
		"EMU_DISK_COMPLETION=nmi: expected softirq or hardirq");
}

// A completion routine that takes the queue lock: legal from the block
// softirq (the lock is free there), a self-deadlock under an IDE-style
// handler that already holds it.
void queue_locking_end_io(struct bio *bio, int)
{
	auto *seen = static_cast<ContextSeen *>(bio->bi_private);
	unsigned long flags;
	spin_lock_irqsave(seen->lock, flags);
	spin_unlock_irqrestore(seen->lock, flags);
	bio_put(bio);
	seen->done = true;
}

void submit_queue_locking(emu::Disk &disk, struct block_device *bdev,
			  struct page *page, ContextSeen &seen)
{
	submit_probe(disk, bdev, page, seen, queue_locking_end_io);
}

TEST(DiskCompletion, EndIoTakingTheQueueLockIsFineFromTheSoftirq)
{
	emu::Disk disk(config_in(emu::CompletionContext::Softirq));
	emu::FileSystem fs(disk, 0, 512);
	Page page;
	ContextSeen seen;
	submit_queue_locking(disk, fs.bdev(), page.get(), seen);
	EXPECT_TRUE(seen.done.load());
}

TEST(DiskCompletionDeathTest, EndIoTakingTheQueueLockUnderAHardirqCompletion)
{
	EXPECT_DEATH(([] {
		emu::Disk disk(config_in(emu::CompletionContext::Hardirq));
		emu::FileSystem fs(disk, 0, 512);
		Page page;
		ContextSeen seen;
		submit_queue_locking(disk, fs.bdev(), page.get(), seen);
	}()),
		"spin lock recursion: already taken by this task at "
		"emu/src/block_disk.cpp");
}

TEST(DiskCompletionDeathTest, EndIoThatSleepsUnderAHardirqCompletion)
{
	EXPECT_DEATH(([] {
		emu::Disk disk(config_in(emu::CompletionContext::Hardirq));
		emu::FileSystem fs(disk, 0, 512);
		Page page;
		struct bio *bio = make_bio(fs.bdev(), 0, page.get(), 512,
					   nullptr);
		bio->bi_end_io = [](struct bio *b, int) {
			might_sleep();
			bio_put(b);
		};
		submit_bio(READ, bio);
		disk.drain();
	}()),
		"might_sleep.*called with a spin lock held");
}

}  // namespace
