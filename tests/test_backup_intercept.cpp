// Copy-before-write interception (kernel/kivMRF.c): which requests are
// held for kbackupd and which go straight on, change tracking on the same
// path, multi-block requests, a MakeRequest that cannot be had, and the
// fatal request on a queue without a real function.
#include "test_backup_util.hpp"

#include <linux/irqflags.h>

namespace {

using bt::Arrival;
using bt::Arrivals;
using bt::BackupTest;
using bt::p1_sector;

class Intercept : public BackupTest {
protected:
	void SetUp() override
	{
		BackupTest::SetUp();
		for (std::uint32_t n = 0; n < 16; n++)
			fill_disk_block(n, 0x10 + n);
		ASSERT_EQ(start(), 0);
		hook();
		emu::log_clear();
	}
	// A block map for state 6 holding exactly `blocks`, and state 6.
	void load_map(std::initializer_list<std::uint32_t> blocks)
	{
		BackupTest::load_map(blocks);
		set_state(BU_STATE_MAP_LOADED);
	}
};

TEST_F(Intercept, WriteOutsideTheLoadedMapInStateSixPassesStraightThrough)
{
	load_map({7});
	Arrivals seen(*disk_);
	EXPECT_TRUE(write_blocks(1, 4096, 9, 1, 0x99));
	std::vector<Arrival> a = seen.take();
	ASSERT_EQ(a.size(), 1u);
	EXPECT_NE(a[0].comm, "kbackupd");
	EXPECT_EQ(a[0].sector, p1_sector(9));
	EXPECT_EQ(blockInMap(&b_->cacheMap, 9), 0);
	EXPECT_EQ(atomic_read(&b_->totalCBs), 0);

	// A block of the map is still preserved.
	EXPECT_TRUE(write_blocks(1, 4096, 7, 1, 0x77));
	wait_idle();
	a = seen.take();
	ASSERT_EQ(a.size(), 2u);
	EXPECT_EQ(a[0].comm, "kbackupd");   // the copy's read
	EXPECT_EQ(a[0].rw & 1, 0u);
	EXPECT_EQ(a[1].comm, "kbackupd");   // the write, sent on
	EXPECT_EQ(a[1].rw & 1, 1u);
	EXPECT_EQ(atomic_read(&b_->totalCBs), 1);
	ExpectLog({});
}

TEST_F(Intercept, TwoWritesToOneUncachedBlockAreBothHeldAndCopiedOnce)
{
	Arrivals seen(*disk_);
	disk_->plug();   // the thread's copy waits, holding the first write
	bt::RawIo w1, w2;
	submit(w1, 1, 4096, 5, 1, 0x51);
	submit(w2, 1, 4096, 5, 1, 0x52);
	EXPECT_EQ(atomic_read(&b_->mrInQueue), 2);
	disk_->unplug();
	w1.endings.wait(1);
	w2.endings.wait(1);
	wait_idle();
	std::vector<Arrival> a = seen.take();
	ASSERT_EQ(a.size(), 3u);
	for (const Arrival &x : a)
		EXPECT_EQ(x.comm, "kbackupd");
	EXPECT_EQ(a[0].rw & 1, 0u);
	EXPECT_EQ(a[1].rw & 1, 1u);
	EXPECT_EQ(a[2].rw & 1, 1u);
	EXPECT_EQ(atomic_read(&b_->totalCBs), 1);
	EXPECT_EQ(cached(5), bt::filled(4096, 0x15));
	EXPECT_EQ(disk_block(5), bt::filled(4096, 0x52));
	ExpectLog({});
}

TEST_F(Intercept, ReadOfABlockNeedingACopyIsHeldUntilTheThreadForwardsIt)
{
	Arrivals seen(*disk_);
	bt::RawIo r;
	submit(r, 1, 4096, 6, 1, 0, READ);
	ASSERT_TRUE(r.endings.wait(1)[0].uptodate);
	ASSERT_EQ(r.pages.size(), 1u);
	std::vector<std::byte> got(4096);
	std::memcpy(got.data(), kmap(r.pages[0]), 4096);
	kunmap(r.pages[0]);
	EXPECT_EQ(got, bt::filled(4096, 0x16));
	wait_idle();
	std::vector<Arrival> a = seen.take();
	ASSERT_EQ(a.size(), 1u);
	EXPECT_EQ(a[0].comm, "kbackupd");
	EXPECT_EQ(a[0].sector, p1_sector(6));
	// Forwarded without a copy, and not marked.
	EXPECT_EQ(atomic_read(&b_->totalCBs), 0);
	EXPECT_EQ(blockInMap(&b_->cacheMap, 6), 0);
	ExpectLog({});
}

TEST_F(Intercept, ReadAheadIsNeverHeld)
{
	Arrivals seen(*disk_);
	bt::RawIo r;
	disk_->plug();
	submit(r, 1, 4096, 6, 1, 0, READA);
	EXPECT_EQ(atomic_read(&b_->mrInQueue), 0);
	disk_->unplug();
	r.endings.wait(1);
	std::vector<Arrival> a = seen.take();
	ASSERT_EQ(a.size(), 1u);
	EXPECT_NE(a[0].comm, "kbackupd");
	ExpectLog({});
}

TEST_F(Intercept, WriteToTheOtherPartitionPassesAndIsTrackedUnderItsMinor)
{
	Arrivals seen(*disk_);
	EXPECT_TRUE(write_blocks(2, 1024, 3, 2, 0x33));
	std::vector<Arrival> a = seen.take();
	ASSERT_EQ(a.size(), 1u);
	EXPECT_NE(a[0].comm, "kbackupd");
	EXPECT_EQ(a[0].sector, bt::kP2Start + 6);
	EXPECT_NE(blockInMap(&session(2)->map, 3), 0);
	EXPECT_NE(blockInMap(&session(2)->map, 4), 0);
	EXPECT_EQ(blockInMap(&session(2)->map, 5), 0);
	EXPECT_EQ(blockInMap(&session(1)->map, 3), 0);
	EXPECT_EQ(atomic_read(&b_->totalCBs), 0);
	ExpectLog({});
}

TEST_F(Intercept, MultiBlockWriteCopiesEveryBlockAndTracksEachOne)
{
	Arrivals seen(*disk_);
	EXPECT_TRUE(write_blocks(1, 4096, 10, 3, 0xa0));
	wait_idle();
	std::vector<Arrival> a = seen.take();
	ASSERT_EQ(a.size(), 4u);
	for (int i = 0; i < 3; i++) {
		EXPECT_EQ(a[i].sector, p1_sector(10 + i));
		EXPECT_EQ(a[i].rw & 1, 0u);
	}
	EXPECT_EQ(a[3].sector, p1_sector(10));
	EXPECT_EQ(a[3].bytes, 3u * 4096);
	for (std::uint32_t n = 10; n <= 12; n++) {
		EXPECT_EQ(cached(n), bt::filled(4096, 0x10 + n)) << n;
		EXPECT_EQ(disk_block(n), bt::filled(4096, 0xa0 + n - 10));
		EXPECT_NE(blockInMap(&b_->cacheMap, n), 0);
		EXPECT_NE(blockInMap(&session(1)->map, n), 0);
	}
	EXPECT_EQ(blockInMap(&session(1)->map, 9), 0);
	EXPECT_EQ(blockInMap(&session(1)->map, 13), 0);
	ExpectLog({});
}

TEST_F(Intercept, WriteWhoseTailLiesBeyondTheChangeMapLogsEachBlockBeyond)
{
	// The partition's session with a map of 11 blocks (0 to 10).
	ASSERT_EQ(closeAMS(b_), 0);
	b_->diskInfo.numBlocks = 11;
	AutoMapSession *ams = nullptr;
	ASSERT_EQ(newAMS(b_, &ams), 0);
	b_->diskInfo.numBlocks = bt::kP1Blocks;
	setAMSState(ams, AM_STATE_IN_SYNC);
	addQueueToList(q_, disk_->dev(1));
	emu::log_clear();

	EXPECT_TRUE(write_blocks(1, 4096, 10, 3, 0xb0));
	wait_idle();
	ExpectLog({"<4>updateAM: device resize detected (block 11 in size 11) "
		   "in automap update, automap not in sync",
		   "<4>updateAM: device resize detected (block 12 in size 11) "
		   "in automap update, automap not in sync"});
	EXPECT_NE(blockInMap(&ams->map, 10), 0);
	EXPECT_EQ(ams->state, (u32)AM_STATE_NOT_IN_SYNC);
	// The backup still preserved all three.
	for (std::uint32_t n = 10; n <= 12; n++)
		EXPECT_EQ(cached(n), bt::filled(4096, 0x10 + n)) << n;
	// Later writes record nothing.
	EXPECT_TRUE(write_blocks(1, 4096, 2, 1, 0x22));
	wait_idle();
	EXPECT_EQ(blockInMap(&ams->map, 2), 0);
	ExpectLog({});
}

TEST_F(Intercept, NoMemoryToHoldAWriteMovesToThirteenAndPassesItUncopied)
{
	Arrivals seen(*disk_);
	{
		// The write's first allocation is its record in flight for
		// change tracking; the second its MakeRequest.
		auto f = emu::FailScope::nth(emu::Alloc::Kmalloc, 2);
		EXPECT_TRUE(write_blocks(1, 4096, 4, 1, 0x44));
	}
	EXPECT_EQ(b_->state, (u32)BU_STATE_QUEUE_ERROR);
	std::vector<Arrival> a = seen.take();
	ASSERT_EQ(a.size(), 1u);
	EXPECT_NE(a[0].comm, "kbackupd");
	EXPECT_EQ(atomic_read(&b_->totalCBs), 0);
	EXPECT_EQ(blockInMap(&b_->cacheMap, 4), 0);
	// errorAMS: the partition's map is no longer trusted, and since the
	// other partition of the disk is tracked, kivAMRF takes the queue.
	EXPECT_EQ(session(1)->state, (u32)AM_STATE_NOT_IN_SYNC);
	EXPECT_EQ(session(2)->state, (u32)AM_STATE_IN_SYNC);
	EXPECT_EQ(q_->make_request_fn, &kivAMRF);
	ExpectLog({});
	// The write was still recorded before the decision.
	EXPECT_NE(blockInMap(&session(1)->map, 4), 0);
	close_expecting();
}

TEST_F(Intercept, NoMemoryOnADiskWithoutOtherSessionsTakesTheHookAway)
{
	// Only this partition tracked: errorAMS gives the queue its real
	// function back and leaves the session, out of sync, in the table.
	untrack(2);
	addQueueToList(q_, disk_->dev(1));
	emu::log_clear();
	{
		// After the write's record in flight, its MakeRequest.
		auto f = emu::FailScope::nth(emu::Alloc::Kmalloc, 2);
		bt::RawIo io;
		submit(io, 1, 4096, 4, 1, 0x44);
		// errorAMS gives the writer back the interrupt state it came
		// with, whatever unsetQueueMRFAMS left.
		EXPECT_FALSE(irqs_disabled());
		EXPECT_TRUE(io.endings.wait(1)[0].uptodate);
	}
	EXPECT_EQ(b_->state, (u32)BU_STATE_QUEUE_ERROR);
	EXPECT_EQ(q_->make_request_fn, real_);
	EXPECT_TRUE(test::registry().empty());
	EXPECT_EQ(session(1)->state, (u32)AM_STATE_NOT_IN_SYNC);
	ExpectLog({});
	// The close finds an out-of-sync session and no registered queue:
	// the count falls to an empty registry (0), and the unhook finds
	// nothing to do.
	close_expecting();
}

using InterceptDeathTest = Intercept;

TEST_F(InterceptDeathTest, RequestOnAQueueWithoutRealFunctionIsABug)
{
	EXPECT_DEATH(([&] {
		emu::log_echo(true);
		test::registry()[0]->realMRF = nullptr;
		bt::RawIo r;
		submit(r, 1, 4096, 6, 1, 0, READA);
	}()),
		     "request intercepted for unknown device major=8 minor=1");
	ExpectLog({});
}

}  // namespace
