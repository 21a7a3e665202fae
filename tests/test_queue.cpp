// The request-queue interception registry (core/queueList.c) and the
// request helpers of kernel/kiv-2.6.c: registration of partitions sharing
// one queue, the saved real function, getRealMRF, setMRF, callRealMRF with
// resubmission, BIOToMinor and BIOToBlockNumbers (edge cases and a
// randomised comparison with a reference computation).
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "emu/block.hpp"
#include "emu/emu.hpp"
#include "test_driver_util.hpp"
#include "test_queue_util.hpp"

#include <linux/bio.h>
#include <linux/blkdev.h>
#include <linux/completion.h>
#include <linux/fs.h>
#include <linux/genhd.h>
#include <linux/gfp.h>
#include <linux/mm.h>
#include <linux/slab.h>

namespace {


constexpr unsigned kMajor = 8;

// Two hooks of "the driver": they only count and never complete the bio.
std::atomic<int> hookCalls{0};
int hookA(struct request_queue *, struct bio *)
{
	hookCalls++;
	return 0;
}
int hookB(struct request_queue *, struct bio *)
{
	hookCalls++;
	return 0;
}

// The registry starts empty; every test leaves it so (nodes freed, the
// queue's own function back).
class Registry : public test::TwoPartitions {
protected:
	void TearDown() override
	{
		test::clear_registry();
		TwoPartitions::TearDown();
	}
};

TEST_F(Registry, TwoPartitionsShareOneNodeWithTheDisksOwnFunction)
{
	EXPECT_EQ(setMRF(&b1_, hookA), 0);
	EXPECT_EQ(q_->make_request_fn, &hookA);
	auto nodes = test::registry();
	ASSERT_EQ(nodes.size(), 1u);
	EXPECT_EQ(nodes[0]->rQueue, q_);
	EXPECT_EQ(nodes[0]->realMRF, real_);
	EXPECT_EQ(test::devices(nodes[0]), std::vector<dev_t>{disk_->dev(1)});

	// The second partition finds the queue hooked: the saved function
	// stays the disk's, not the hook installed for the first.
	EXPECT_EQ(setMRF(&b2_, hookB), 0);
	EXPECT_EQ(q_->make_request_fn, &hookB);
	nodes = test::registry();
	ASSERT_EQ(nodes.size(), 1u);
	EXPECT_EQ(nodes[0]->realMRF, real_);
	EXPECT_EQ(test::devices(nodes[0]),
		  (std::vector<dev_t>{disk_->dev(1), disk_->dev(2)}));
	EXPECT_EQ(getRealMRF(q_), real_);
	EXPECT_EQ(isInQueueList(q_, disk_->dev(1)), 1);
	EXPECT_EQ(isInQueueList(q_, disk_->dev(2)), 1);
	EXPECT_EQ(isInQueueList(q_, disk_->dev(3)), 0);
	EXPECT_EQ(isInDevList(nodes[0], disk_->dev(2)), 1);
	EXPECT_EQ(isInDevList(nodes[0], disk_->dev(0)), 0);
	// One QueueList and two DevList nodes.
	EXPECT_EQ(emu::usage().kmalloc_objects, base_.kmalloc_objects + 3);
	EXPECT_EQ(hookCalls.load(), 0);
	ExpectLog({});
}

TEST_F(Registry, HookingAgainKeepsTheSavedFunction)
{
	EXPECT_EQ(setMRF(&b1_, hookA), 0);
	EXPECT_EQ(setMRF(&b1_, hookB), 0);
	EXPECT_EQ(setMRF(&b1_, hookA), 0);
	EXPECT_EQ(q_->make_request_fn, &hookA);
	auto nodes = test::registry();
	ASSERT_EQ(nodes.size(), 1u);
	EXPECT_EQ(nodes[0]->realMRF, real_);
	EXPECT_EQ(test::devices(nodes[0]), std::vector<dev_t>{disk_->dev(1)});
	EXPECT_EQ(emu::usage().kmalloc_objects, base_.kmalloc_objects + 2);
}

TEST_F(Registry, RegisteringADeviceTwiceFreesTheSpareNodes)
{
	addQueueToList(q_, disk_->dev(1));
	const emu::Usage once = emu::usage();
	EXPECT_EQ(once.kmalloc_objects, base_.kmalloc_objects + 2);
	const auto calls = emu::alloc_calls(emu::Alloc::Kmalloc);
	addQueueToList(q_, disk_->dev(1));
	// Both nodes were allocated before the look-up, and both freed.
	EXPECT_EQ(emu::alloc_calls(emu::Alloc::Kmalloc), calls + 2);
	EXPECT_EQ(emu::usage(), once);
	auto nodes = test::registry();
	ASSERT_EQ(nodes.size(), 1u);
	EXPECT_EQ(test::devices(nodes[0]), std::vector<dev_t>{disk_->dev(1)});
	// Registration alone does not hook.
	EXPECT_EQ(q_->make_request_fn, real_);
	ExpectLog({});
}

TEST_F(Registry, NewQueuesGoToTheTail)
{
	emu::Disk other(test::disk_config(kMajor, 16, 16, 1000, "sdb"));
	addQueueToList(q_, disk_->dev(1));
	addQueueToList(other.queue(), other.dev(0));
	addQueueToList(q_, disk_->dev(2));
	auto nodes = test::registry();
	ASSERT_EQ(nodes.size(), 2u);
	EXPECT_EQ(nodes[0]->rQueue, q_);
	EXPECT_EQ(nodes[1]->rQueue, other.queue());
	EXPECT_EQ(nodes[1]->realMRF, emu::Disk::request_fn());
	EXPECT_EQ(test::devices(nodes[0]),
		  (std::vector<dev_t>{disk_->dev(1), disk_->dev(2)}));
	EXPECT_EQ(test::devices(nodes[1]), std::vector<dev_t>{other.dev(0)});
	test::clear_registry();
}

TEST_F(Registry, NullQueueIsLoggedAndNothingAllocated)
{
	const auto calls = emu::alloc_calls(emu::Alloc::Kmalloc);
	addQueueToList(nullptr, disk_->dev(1));
	EXPECT_EQ(emu::alloc_calls(emu::Alloc::Kmalloc), calls);
	EXPECT_TRUE(test::registry().empty());
	ExpectLog({"<3>addQueueToList: Could not add queue to list (null)."});
	EXPECT_EQ(isInQueueList(nullptr, disk_->dev(1)), 0);
	ExpectLog({});
}

TEST_F(Registry, AddDevToListWithoutQueueNodeLinksNothing)
{
	DevList node{};
	EXPECT_EQ(addDevToList(nullptr, disk_->dev(1), &node), 0);
	EXPECT_EQ(node.kdev, 0u);
}

TEST_F(Registry, RealFunctionOfAnUnregisteredQueueIsItsCurrentOne)
{
	EXPECT_EQ(getRealMRF(q_), real_);
	// Whatever the queue has now, when nobody registered it.
	q_->make_request_fn = hookB;
	EXPECT_EQ(getRealMRF(q_), &hookB);
	q_->make_request_fn = real_;
	EXPECT_TRUE(test::registry().empty());
	ExpectLog({});
}

TEST_F(Registry, RealFunctionOfNullQueueIsLogged)
{
	EXPECT_EQ(getRealMRF(nullptr), nullptr);
	ExpectLog({"<4>getRealMRF: Can't get MRF on NULL queue."});
}

// A registered queue answers only with its saved function: a node without
// one gives nothing, never the queue's current function.
TEST_F(Registry, RegisteredQueueWithoutSavedFunctionGivesNothing)
{
	addQueueToList(q_, disk_->dev(1));
	auto nodes = test::registry();
	ASSERT_EQ(nodes.size(), 1u);
	nodes[0]->realMRF = nullptr;
	EXPECT_EQ(getRealMRF(q_), nullptr);
	nodes[0]->realMRF = real_;
	EXPECT_EQ(getRealMRF(q_), real_);
	ExpectLog({});
}

TEST_F(Registry, SetMRFWithoutQueueReturnsOne)
{
	Backup none{};
	EXPECT_EQ(setMRF(&none, hookA), 1);
	// A device that is not open has no disk, hence no queue.
	Backup closed{};
	closed.diskInfo.kdev = disk_->dev(3);
	closed.diskInfo.bdev = disk_->bdev(3);
	EXPECT_EQ(setMRF(&closed, hookA), 1);
	EXPECT_TRUE(test::registry().empty());
	EXPECT_EQ(q_->make_request_fn, real_);
	ExpectLog({});
}

// Allocation failures of registry nodes are retried after a yield, without
// limit: registration always succeeds and nothing leaks.
TEST_F(Registry, NodeAllocationFailuresAreRetried)
{
	for (unsigned nth : {1u, 2u}) {
		auto fail = emu::FailScope::nth(emu::Alloc::Kmalloc, nth);
		const auto calls = emu::alloc_calls(emu::Alloc::Kmalloc);
		addQueueToList(q_, disk_->dev(nth));
		EXPECT_EQ(emu::alloc_calls(emu::Alloc::Kmalloc), calls + 3);
	}
	auto nodes = test::registry();
	ASSERT_EQ(nodes.size(), 1u);
	EXPECT_EQ(test::devices(nodes[0]),
		  (std::vector<dev_t>{disk_->dev(1), disk_->dev(2)}));
	EXPECT_EQ(emu::usage().kmalloc_objects, base_.kmalloc_objects + 3);
	ExpectLog({});
}

TEST_F(Registry, FailuresClearedConcurrentlyAreWaitedOut)
{
	const auto calls = emu::alloc_calls(emu::Alloc::Kmalloc);
	emu::fail_after(emu::Alloc::Kmalloc, 0);
	std::jthread relief([calls] {
		while (emu::alloc_calls(emu::Alloc::Kmalloc) < calls + 25)
			std::this_thread::yield();
		emu::fail_clear(emu::Alloc::Kmalloc);
	});
	addQueueToList(q_, disk_->dev(1));
	relief.join();
	EXPECT_GE(emu::alloc_calls(emu::Alloc::Kmalloc), calls + 26);
	auto nodes = test::registry();
	ASSERT_EQ(nodes.size(), 1u);
	EXPECT_EQ(nodes[0]->realMRF, real_);
	EXPECT_EQ(emu::usage().kmalloc_objects, base_.kmalloc_objects + 2);
	ExpectLog({});
}

// --------------------------------------------------------------------------
// callRealMRF

struct Seen {
	std::atomic<int> calls{0};
	std::atomic<int> answer{0};  // what the fake real function returns
	struct request_queue *q = nullptr;
	struct bio *bio = nullptr;
};
Seen seen;

int fakeReal(struct request_queue *q, struct bio *bio)
{
	seen.q = q;
	seen.bio = bio;
	seen.calls++;
	return seen.answer.exchange(0);
}

// The end of a read the test waits for.
struct Done {
	int error = 1;
	struct completion event;
};

void endRead(struct bio *bio, int error)
{
	Done *done = static_cast<Done *>(bio->bi_private);
	done->error = error;
	complete(&done->event);
}

class CallReal : public Registry {
protected:
	// A one-page read of whole-disk sector 128.
	struct bio *make_read()
	{
		page_ = alloc_page(GFP_KERNEL);
		struct bio *bio = bio_alloc(GFP_NOIO, 1);
		bio->bi_io_vec[0].bv_page = page_;
		bio->bi_io_vec[0].bv_len = 4096;
		bio->bi_io_vec[0].bv_offset = 0;
		bio->bi_vcnt = 1;
		bio->bi_idx = 0;
		bio->bi_size = 4096;
		bio->bi_sector = 128;
		bio->bi_rw = READ;
		bio->bi_bdev = fs1_->bdev()->bd_contains;
		bio->bi_end_io = endRead;
		bio->bi_private = &done_;
		init_completion(&done_.event);
		return bio;
	}
	void free_read(struct bio *bio)
	{
		bio_put(bio);
		__free_page(page_);
	}
	Done done_;
	struct page *page_ = nullptr;
};

TEST_F(CallReal, PassesTheRequestToTheSavedFunction)
{
	seen.calls = 0;
	b1_.diskInfo.realMRF = fakeReal;
	struct bio *bio = make_read();
	EXPECT_EQ(callRealMRF(&b1_, bio), 0);
	EXPECT_EQ(seen.calls.load(), 1);
	EXPECT_EQ(seen.q, q_);
	EXPECT_EQ(seen.bio, bio);
	EXPECT_EQ(disk_->requests(), 0u);  // the fake kept it
	free_read(bio);
	ExpectLog({});
}

// A non-zero answer asks for resubmission: the request then goes through
// generic_make_request to the queue's current function (here the disk's)
// and completes.
TEST_F(CallReal, NonZeroAnswerResubmits)
{
	seen.calls = 0;
	seen.answer = 1;
	b1_.diskInfo.realMRF = fakeReal;
	struct bio *bio = make_read();
	EXPECT_EQ(callRealMRF(&b1_, bio), 0);
	wait_for_completion(&done_.event);
	EXPECT_EQ(done_.error, 0);
	EXPECT_EQ(seen.calls.load(), 1);
	EXPECT_EQ(disk_->requests(), 1u);
	free_read(bio);
	ExpectLog({});
}

TEST_F(CallReal, TheDisksOwnFunctionCompletesTheRequest)
{
	b1_.diskInfo.realMRF = real_;
	std::vector<emu::DiskRequest> got;
	disk_->set_observer([&](const emu::DiskRequest &r) { got.push_back(r); });
	struct bio *bio = make_read();
	EXPECT_EQ(callRealMRF(&b1_, bio), 0);
	wait_for_completion(&done_.event);
	disk_->set_observer({});
	EXPECT_EQ(done_.error, 0);
	ASSERT_EQ(got.size(), 1u);
	EXPECT_EQ(got[0].sector, 128u);
	EXPECT_EQ(got[0].bytes, 4096u);
	free_read(bio);
}

// Nothing to pass the request to: it ends in error, so that its waiter
// does not wait for ever.
TEST_F(CallReal, NoQueueEndsTheRequestInErrorWithAMessage)
{
	seen.calls = 0;
	b1_.diskInfo.realMRF = fakeReal;
	struct bio *bio = make_read();
	bio->bi_bdev = disk_->bdev(3);  // not open: no disk, no queue
	EXPECT_EQ(callRealMRF(&b1_, bio), 0);
	EXPECT_EQ(seen.calls.load(), 0);
	wait_for_completion(&done_.event);
	EXPECT_EQ(done_.error, -EIO);
	ExpectLog({"<3>callRealMRF: Block read error: (bdev queue is null) "
		    "MAJOR=8 MINOR=1"});
	free_read(bio);
}

// --------------------------------------------------------------------------
// BIOToMinor

class BioMapping : public Registry {
protected:
	void SetUp() override
	{
		Registry::SetUp();
		bio_ = bio_alloc(GFP_KERNEL, 1);
		ASSERT_NE(bio_, nullptr);
		bio_->bi_bdev = fs1_->bdev()->bd_contains;
	}
	void TearDown() override
	{
		bio_put(bio_);
		Registry::TearDown();
	}
	int minor_at(std::uint64_t sector)
	{
		bio_->bi_sector = sector;
		return BIOToMinor(bio_);
	}
	std::pair<std::uint32_t, std::uint32_t>
	blocks(const DiskInfo &d, std::uint64_t sector, unsigned bytes)
	{
		bio_->bi_sector = sector;
		bio_->bi_size = bytes;
		std::uint32_t s = 0xdead, e = 0xbeef;
		BIOToBlockNumbers(const_cast<DiskInfo *>(&d), bio_, &s, &e);
		return {s, e};
	}
	struct bio *bio_ = nullptr;
};

TEST_F(BioMapping, MinorIsThePartitionHoldingTheFirstSector)
{
	EXPECT_EQ(minor_at(0), 0);        // before partition 1
	EXPECT_EQ(minor_at(62), 0);
	EXPECT_EQ(minor_at(63), 1);
	EXPECT_EQ(minor_at(1000062), 1);
	EXPECT_EQ(minor_at(1000063), 2);
	EXPECT_EQ(minor_at(2000062), 2);
	EXPECT_EQ(minor_at(2000063), 0);  // in no partition
	EXPECT_EQ(minor_at(2999999), 0);
	EXPECT_FALSE(mutex_is_locked(&bio_->bi_bdev->bd_mutex));
}

TEST_F(BioMapping, MinorCountsFromTheDisksFirstMinor)
{
	emu::Disk other(test::disk_config(kMajor, 32, 8, 10000, "sdc"));
	ASSERT_EQ(other.add_partition(3, 5000, 1000), 0);
	emu::FileSystem fs(other, 3, 1024);
	struct bio *bio = bio_alloc(GFP_KERNEL, 1);
	bio->bi_bdev = fs.bdev()->bd_contains;
	bio->bi_sector = 5500;
	EXPECT_EQ(BIOToMinor(bio), 35);
	bio->bi_sector = 4999;
	EXPECT_EQ(BIOToMinor(bio), 32);
	bio->bi_sector = 6000;
	EXPECT_EQ(BIOToMinor(bio), 32);
	bio_put(bio);
}

// --------------------------------------------------------------------------
// BIOToBlockNumbers

class BlockNumbers : public BioMapping {
protected:
	// Partition 1 with 4096-byte blocks.
	DiskInfo part() const { return b1_.diskInfo; }
};

TEST_F(BlockNumbers, FourKilobytesAtSectorEightIsBlockOne)
{
	ASSERT_EQ(part().partitionStart, 63u);
	ASSERT_EQ(part().sectorsPerBlockShift, 3);
	EXPECT_EQ(blocks(part(), 63 + 8, 4096), std::make_pair(1u, 1u));
}

TEST_F(BlockNumbers, FourKilobytesAtSectorSevenSpansBlocksZeroAndOne)
{
	EXPECT_EQ(blocks(part(), 63 + 7, 4096), std::make_pair(0u, 1u));
}

TEST_F(BlockNumbers, ZeroLengthEndsBeforeItStarts)
{
	EXPECT_EQ(blocks(part(), 63 + 8, 0), std::make_pair(1u, 0u));
	// At the partition's first sector the end cannot go below zero.
	EXPECT_EQ(blocks(part(), 63, 0), std::make_pair(0u, 0u));
}

TEST_F(BlockNumbers, RequestBeforeThePartitionCountsFromItsStart)
{
	EXPECT_EQ(blocks(part(), 10, 4096), std::make_pair(0u, 0u));
	EXPECT_EQ(blocks(part(), 0, 8192), std::make_pair(0u, 1u));
}

TEST_F(BlockNumbers, PartialSectorCountsAsAWholeOne)
{
	EXPECT_EQ(blocks(part(), 63 + 8, 4097), std::make_pair(1u, 2u));
	EXPECT_EQ(blocks(part(), 63 + 8, 4095), std::make_pair(1u, 1u));
	// At sector 0 a short request also ends one sector on.
	DiskInfo d = part();
	d.sectorsPerBlockShift = 0;
	EXPECT_EQ(blocks(d, 63, 100), std::make_pair(0u, 1u));
	EXPECT_EQ(blocks(d, 63 + 5, 100), std::make_pair(5u, 5u));
}

TEST_F(BlockNumbers, EndIsClippedOnlyPastThePartitionLength)
{
	const std::uint64_t len = part().partitionLen;  // 1,000,000
	// Ends at len + 5: clipped to the last sector.
	EXPECT_EQ(blocks(part(), 63 + len - 2, 4096),
		  std::make_pair(static_cast<std::uint32_t>((len - 2) >> 3),
				 static_cast<std::uint32_t>((len - 1) >> 3)));
	// Ends exactly at len: left as it is, one block past the last.
	EXPECT_EQ(blocks(part(), 63 + len - 8, 4608),
		  std::make_pair(static_cast<std::uint32_t>((len - 8) >> 3),
				 static_cast<std::uint32_t>(len >> 3)));
	DiskInfo empty = part();
	empty.partitionLen = 0;
	EXPECT_EQ(blocks(empty, 63 + 80, 4096), std::make_pair(10u, 0u));
}

TEST_F(BlockNumbers, ResultsAreTruncatedToThirtyTwoBits)
{
	DiskInfo d = part();
	d.partitionStart = 0;
	d.partitionLen = std::uint64_t{1} << 40;
	d.sectorsPerBlockShift = 0;
	const std::uint64_t sector = (std::uint64_t{1} << 32) + 5;
	EXPECT_EQ(blocks(d, sector, 1024), std::make_pair(5u, 6u));
}

// --------------------------------------------------------------------------
// Randomised: both mappings against a reference computation

std::pair<std::uint32_t, std::uint32_t>
reference_blocks(std::uint64_t pstart, std::uint64_t plen, int shift,
		 std::uint64_t sector, std::uint32_t bytes)
{
	std::uint64_t start = sector < pstart ? 0 : sector - pstart;
	std::uint64_t end = start + bytes / 512;
	if (end)
		end--;
	if (bytes % 512)
		end++;
	if (end > plen)
		end = plen ? plen - 1 : 0;
	return {static_cast<std::uint32_t>(start >> shift),
		static_cast<std::uint32_t>(end >> shift)};
}

TEST_F(BioMapping, BlockNumbersMatchTheReference)
{
	std::mt19937_64 rng(support::seed());
	for (int i = 0; i < 20000; i++) {
		DiskInfo d{};
		d.partitionStart = rng() % 4 ? rng() % 100000 : rng() >> 20;
		d.partitionLen = rng() % 8 ? rng() % 10000000 : rng() % 3;
		d.sectorsPerBlockShift = static_cast<int>(rng() % 4);
		const std::uint64_t sector =
			rng() % 3 ? d.partitionStart + rng() % (d.partitionLen + 100)
				  : rng() % (d.partitionStart + 1);
		std::uint32_t bytes;
		switch (rng() % 4) {
		case 0:
			bytes = 0;
			break;
		case 1:
			bytes = static_cast<std::uint32_t>(rng() % 4096);
			break;
		default:
			bytes = static_cast<std::uint32_t>(rng() % 256 + 1) * 512;
		}
		const auto expected = reference_blocks(
			d.partitionStart, d.partitionLen,
			d.sectorsPerBlockShift, sector, bytes);
		ASSERT_EQ(blocks(d, sector, bytes), expected)
			<< "start " << d.partitionStart << " len "
			<< d.partitionLen << " shift " << d.sectorsPerBlockShift
			<< " sector " << sector << " bytes " << bytes;
		// For a request inside the partition that neither is empty nor
		// shorter than a sector at its first sector, the range is
		// exactly the blocks its bytes touch.
		const std::uint64_t rel = sector - d.partitionStart;
		if (sector >= d.partitionStart && bytes &&
		    (rel || bytes >= 512) &&
		    rel + (bytes + 511) / 512 <= d.partitionLen) {
			const std::uint64_t bs =
				std::uint64_t{512} << d.sectorsPerBlockShift;
			const std::uint64_t first = rel * 512 / bs;
			const std::uint64_t last = (rel * 512 + bytes - 1) / bs;
			ASSERT_EQ(expected.first, static_cast<std::uint32_t>(first));
			ASSERT_EQ(expected.second, static_cast<std::uint32_t>(last));
		}
	}
}

// Random partition tables on fresh disks: BIOToMinor names the partition
// holding the sector, and the block range within that partition matches
// the reference.
TEST_F(BioMapping, MinorAndBlocksMatchTheReferenceOverRandomTables)
{
	std::mt19937_64 rng(support::seed());
	for (int round = 0; round < 12; round++) {
		const int minors = 1 << (2 + rng() % 3);  // 4, 8 or 16
		const unsigned first = 64 + 16 * round;
		const std::uint64_t sectors = 1000 + rng() % 5000000;
		emu::Disk disk(test::disk_config(65, first, minors, sectors,
						 "sdr" + std::to_string(round)));
		struct Part {
			int no;
			std::uint64_t start, len;
		};
		std::vector<Part> parts;
		std::uint64_t at = rng() % 100;
		for (int p = 1; p < minors; p++) {
			if (rng() % 4 == 0)
				continue;  // a hole in the table
			const std::uint64_t len = 1 + rng() % (sectors / minors);
			if (at + len > sectors)
				break;
			parts.push_back({p, at, len});
			at += len + rng() % 50;
		}
		std::shuffle(parts.begin(), parts.end(), rng);
		for (const auto &p : parts)
			ASSERT_EQ(disk.add_partition(p.no, p.start, p.len), 0);
		emu::FileSystem fs(disk, 0, 4096);  // opens the whole disk
		struct bio *bio = bio_alloc(GFP_KERNEL, 1);
		bio->bi_bdev = fs.bdev();
		for (int i = 0; i < 300; i++) {
			const std::uint64_t sector = rng() % (sectors + 64);
			int expected = static_cast<int>(first);
			const Part *hit = nullptr;
			for (int p = 1; p < minors && !hit; p++)
				for (const auto &q : parts)
					if (q.no == p && q.start <= sector &&
					    sector < q.start + q.len)
						hit = &q;
			if (hit)
				expected = static_cast<int>(first) + hit->no;
			bio->bi_sector = sector;
			ASSERT_EQ(BIOToMinor(bio), expected) << "sector " << sector;
			if (!hit)
				continue;
			DiskInfo d{};
			d.partitionStart = hit->start;
			d.partitionLen = hit->len;
			d.sectorsPerBlockShift = static_cast<int>(rng() % 4);
			const std::uint32_t bytes =
				static_cast<std::uint32_t>(rng() % 64) * 512 +
				(rng() % 2 ? static_cast<std::uint32_t>(rng() % 512) : 0);
			bio->bi_size = bytes;
			std::uint32_t s = 0, e = 0;
			BIOToBlockNumbers(&d, bio, &s, &e);
			ASSERT_EQ(std::make_pair(s, e),
				  reference_blocks(hit->start, hit->len,
						   d.sectorsPerBlockShift,
						   sector, bytes));
		}
		bio_put(bio);
	}
	ExpectLog({});
}

}  // namespace
