// The queue registry under concurrent readers (isInQueueList, getRealMRF,
// as make-request functions call them) and writers (addQueueToList and the
// exclusive entry waitForQueueListUsers).  Run under ThreadSanitizer by
// `make tsan`.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <cstdint>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "emu/block.hpp"
#include "emu/emu.hpp"
#include "test_driver_util.hpp"
#include "test_queue_util.hpp"

#include <linux/bio.h>
#include <linux/blkdev.h>
#include <linux/mutex.h>
#include <linux/spinlock.h>
#include <asm/atomic.h>

namespace {

constexpr unsigned kReaders = 4;
constexpr unsigned kQueues = 48;

int fn0(struct request_queue *, struct bio *) { return 0; }
int fn1(struct request_queue *, struct bio *) { return 0; }
int fn2(struct request_queue *, struct bio *) { return 0; }
make_request_fn *const kFns[] = {fn0, fn1, fn2};

// Queues of no disk: the registry reads only their make_request_fn and
// their lock, which these do not have.
class RegistryConcurrency : public ::testing::Test {
protected:
	void SetUp() override
	{
		emu::log_clear();
		base_ = emu::usage();
		for (unsigned i = 0; i < kQueues; i++)
			queues_[i].make_request_fn = kFns[i % 3];
	}
	void TearDown() override
	{
		test::clear_registry();
		EXPECT_EQ(atomic_read(&queueListUsers), 1);
		EXPECT_FALSE(spin_is_locked(&queueListUsersLock));
		EXPECT_EQ(emu::usage(), base_);
		ExpectLog({});
	}
	static dev_t dev(unsigned i) { return KIV_MKDEV(8, i); }
	struct request_queue queues_[kQueues]{};
	emu::Usage base_;
};

// The exclusive entry returns only when no reader is inside, keeps them
// all out while held, and lets them go on afterwards.
TEST_F(RegistryConcurrency, ExclusiveEntryWaitsOutReaders)
{
	for (unsigned i = 0; i < kQueues; i++)
		addQueueToList(&queues_[i], dev(i));

	std::atomic<bool> stop{false};
	std::atomic<long> reads{0};
	std::atomic<unsigned> wrong{0};
	std::vector<std::jthread> readers;
	for (unsigned t = 0; t < kReaders; t++)
		readers.emplace_back([&, t] {
			unsigned i = t;
			while (!stop.load()) {
				// The last queue makes the walk the longest.
				if (isInQueueList(&queues_[kQueues - 1],
						  dev(kQueues - 1)) != 1)
					wrong++;
				if (getRealMRF(&queues_[i]) != kFns[i % 3])
					wrong++;
				if (isInQueueList(&queues_[i], dev(i + 1)) != 0)
					wrong++;
				reads++;
				i = (i + 7) % kQueues;
			}
		});
	while (reads.load() < 200)
		std::this_thread::yield();

	for (int round = 0; round < 20; round++) {
		unsigned long flags = 0;
		waitForQueueListUsers(&flags);
		EXPECT_EQ(atomic_read(&queueListUsers), 1);
		EXPECT_TRUE(spin_is_locked(&queueListUsersLock));
		const long before = reads.load();
		for (int i = 0; i < 500; i++) {
			ASSERT_EQ(atomic_read(&queueListUsers), 1);
			std::this_thread::yield();
		}
		// A reader finishing its last walk may count it once.
		EXPECT_LE(reads.load() - before, static_cast<long>(kReaders));
		spin_unlock_irqrestore(&queueListUsersLock, flags);
		const long resumed = reads.load();
		while (reads.load() < resumed + static_cast<long>(kReaders))
			std::this_thread::yield();
	}
	stop = true;
	readers.clear();
	EXPECT_EQ(wrong.load(), 0u);
}

// Writers registering queues and devices from several threads while
// readers look them up: every registration lands exactly once.
TEST_F(RegistryConcurrency, ConcurrentRegistrationsAllLandOnce)
{
	std::atomic<bool> stop{false};
	std::atomic<unsigned> wrong{0};
	std::vector<std::jthread> readers;
	for (unsigned t = 0; t < 3; t++)
		readers.emplace_back([&, t] {
			unsigned i = t;
			while (!stop.load()) {
				// Registered or not, a queue's real function
				// is the one it had before anyone hooked it.
				if (getRealMRF(&queues_[i]) != kFns[i % 3])
					wrong++;
				isInQueueList(&queues_[i], dev(i));
				i = (i + 5) % kQueues;
				std::this_thread::yield();
			}
		});
	{
		std::vector<std::jthread> writers;
		for (unsigned w = 0; w < 4; w++)
			writers.emplace_back([&, w] {
				// Each writer registers every queue with one
				// device of its own, and one shared device;
				// later passes find everything registered and
				// free their spare nodes.
				for (int pass = 0; pass < 8; pass++)
					for (unsigned i = 0; i < kQueues; i++) {
						unsigned q = (i * 5 + w * 11 +
							      pass) % kQueues;
						addQueueToList(&queues_[q],
							       KIV_MKDEV(9, w));
						addQueueToList(&queues_[q],
							       dev(q));
					}
			});
	}
	stop = true;
	readers.clear();
	EXPECT_EQ(wrong.load(), 0u);

	auto nodes = test::registry();
	ASSERT_EQ(nodes.size(), kQueues);
	std::vector<int> seen(kQueues, 0);
	for (QueueList *ql : nodes) {
		const auto q = static_cast<unsigned>(ql->rQueue - queues_);
		ASSERT_LT(q, kQueues);
		seen[q]++;
		EXPECT_EQ(ql->realMRF, kFns[q % 3]);
		auto devs = test::devices(ql);
		EXPECT_EQ(devs.size(), 5u);
		for (unsigned w = 0; w < 4; w++)
			EXPECT_EQ(std::count(devs.begin(), devs.end(),
					     KIV_MKDEV(9, w)), 1);
		EXPECT_EQ(std::count(devs.begin(), devs.end(), dev(q)), 1);
	}
	for (unsigned q = 0; q < kQueues; q++)
		EXPECT_EQ(seen[q], 1) << q;
	// One QueueList and five DevList nodes per queue; every spare freed.
	EXPECT_EQ(emu::usage().kmalloc_objects,
		  base_.kmalloc_objects + static_cast<long>(kQueues) * 6);
}

// --------------------------------------------------------------------------
// The queue's own lock and the device's open mutex

int hook(struct request_queue *, struct bio *) { return 0; }

// Runs fn in another thread while this one holds a lock (taken by `hold`,
// given back by `release`): fn must not finish before the lock is given
// back, and must finish after.
void expect_waits_for(const std::function<void()> &hold,
		      const std::function<void()> &release,
		      const std::function<void()> &fn)
{
	using namespace std::chrono_literals;
	hold();
	std::atomic<bool> done{false};
	std::jthread t([&] {
		fn();
		done = true;
	});
	for (int i = 0; i < 25; i++) {
		std::this_thread::sleep_for(2ms);
		ASSERT_FALSE(done.load());
	}
	release();
	t.join();
	EXPECT_TRUE(done.load());
}

// The make_request_fn of a queue is read and written only under the
// queue's own lock: registering a queue, asking an unregistered queue for
// its real function, and hooking it all wait while another holds it.
class QueueLockConcurrency : public test::TwoPartitions {
protected:
	void TearDown() override
	{
		test::clear_registry();
		TwoPartitions::TearDown();
	}
	void hold() { spin_lock_irqsave(q_->queue_lock, flags_); }
	void release() { spin_unlock_irqrestore(q_->queue_lock, flags_); }
	unsigned long flags_ = 0;
};

TEST_F(QueueLockConcurrency, RegistrationReadsTheFunctionUnderTheQueueLock)
{
	expect_waits_for([&] { hold(); }, [&] { release(); },
			 [&] { addQueueToList(q_, disk_->dev(1)); });
	auto nodes = test::registry();
	ASSERT_EQ(nodes.size(), 1u);
	EXPECT_EQ(nodes[0]->realMRF, real_);
	ExpectLog({});
}

TEST_F(QueueLockConcurrency, UnregisteredQueueIsReadUnderTheQueueLock)
{
	make_request_fn *got = nullptr;
	expect_waits_for([&] { hold(); }, [&] { release(); },
			 [&] { got = getRealMRF(q_); });
	EXPECT_EQ(got, real_);
	ExpectLog({});
}

TEST_F(QueueLockConcurrency, HookIsInstalledUnderTheQueueLock)
{
	addQueueToList(q_, disk_->dev(1));
	int r = -1;
	expect_waits_for([&] { hold(); }, [&] { release(); },
			 [&] { r = setMRF(&b1_, hook); });
	EXPECT_EQ(r, 0);
	EXPECT_EQ(q_->make_request_fn, &hook);
	ExpectLog({});
}

// BIOToMinor reads the partition table without the disk device's open
// mutex: the kernel submits I/O while holding it (a partition-table
// re-read, a last close), so neither the task holding it nor another task
// waits for it in the look-up.
TEST_F(QueueLockConcurrency, PartitionLookUpDoesNotWaitForTheDevicesMutex)
{
	struct bio *bio = bio_alloc(GFP_KERNEL, 1);
	ASSERT_NE(bio, nullptr);
	bio->bi_bdev = fs1_->bdev()->bd_contains;
	bio->bi_sector = 100;
	mutex_lock(&bio->bi_bdev->bd_mutex);
	int minor = -1;
	std::jthread other([&] { minor = BIOToMinor(bio); });
	other.join();  // returns while the mutex is still held
	EXPECT_EQ(minor, 1);
	EXPECT_EQ(BIOToMinor(bio), 1);  // on the holder's own task too
	bio->bi_sector = 1000063;
	EXPECT_EQ(BIOToMinor(bio), 2);
	mutex_unlock(&bio->bi_bdev->bd_mutex);
	bio_put(bio);
	ExpectLog({});
}

}  // namespace
