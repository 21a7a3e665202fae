// "kbackupd" (kernel/cacheThread.c): serving held requests, copying only
// the blocks that need it, the order of copy, forward and marking, the
// state rule, and every failure of a copy (no page, the buffer head and
// bio retry loops, a failed or unsupported read, the cache limit).
#include "test_backup_util.hpp"

#include <cctype>

#include <linux/errno.h>

namespace {

using bt::Arrival;
using bt::Arrivals;
using bt::BackupTest;
using bt::p1_sector;

// The log since the last clear with the pointer after "bio=" and "bh="
// written as "%p"; clears.
std::vector<std::string> log_without_pointers()
{
	std::vector<std::string> out;
	for (std::string l : emu::log_strings()) {
		for (const char *key : {"bio=", "bh="}) {
			std::size_t at = l.find(key);
			if (at == std::string::npos)
				continue;
			at += std::strlen(key);
			std::size_t end = l.find(',', at);
			l.replace(at, end - at, "%p");
		}
		out.push_back(l);
	}
	emu::log_clear();
	return out;
}

class CacheThread : public BackupTest {
protected:
	void SetUp() override
	{
		BackupTest::SetUp();
		for (std::uint32_t n = 0; n < 16; n++)
			fill_disk_block(n, 0x10 + n);
		ASSERT_EQ(start(bt::kP1Blocks, limit_), 0);
		hook();
		emu::log_clear();
	}
	// After a failed copy of block n: the write went on anyway, the block
	// is marked (never tried again), the partition's map is invalidated
	// and kivAMRF took the queue (the other partition is tracked).
	void expect_copy_failed(std::uint32_t n, unsigned char written,
				u32 state)
	{
		EXPECT_EQ(b_->state, state);
		EXPECT_EQ(disk_block(n), bt::filled(4096, written));
		EXPECT_NE(blockInMap(&b_->cacheMap, n), 0);
		EXPECT_TRUE(cached(n).empty());
		EXPECT_EQ(session(1)->state, (u32)AM_STATE_NOT_IN_SYNC);
		EXPECT_EQ(q_->make_request_fn, &kivAMRF);
		EXPECT_EQ(atomic_read(&b_->curAllocPages), 1);
		EXPECT_EQ(atomic_read(&b_->curAllocBRs), 0);
	}
	u32 limit_ = 1000;
};

TEST_F(CacheThread, WriteOverTenToTwelveCopiesOnlyElevenThenForwardsThenMarks)
{
	ASSERT_EQ(setBlock(&b_->cacheMap, 10), 0);
	ASSERT_EQ(setBlock(&b_->cacheMap, 12), 0);
	Arrivals seen(*disk_);
	EXPECT_TRUE(write_blocks(1, 4096, 10, 3, 0xc0));
	wait_idle();
	std::vector<Arrival> a = seen.take();
	ASSERT_EQ(a.size(), 2u);
	EXPECT_EQ(a[0].comm, "kbackupd");
	EXPECT_EQ(a[0].sector, p1_sector(11));
	EXPECT_EQ(a[0].bytes, 4096u);
	EXPECT_EQ(a[0].rw & 1, 0u);
	EXPECT_EQ(a[1].comm, "kbackupd");
	EXPECT_EQ(a[1].sector, p1_sector(10));
	EXPECT_EQ(a[1].bytes, 3u * 4096);
	EXPECT_EQ(cached(11), bt::filled(4096, 0x1b));
	EXPECT_NE(blockInMap(&b_->cacheMap, 11), 0);
	EXPECT_EQ(atomic_read(&b_->totalCBs), 1);
	EXPECT_EQ(atomic_read(&b_->totalAllocBRs), 1);
	EXPECT_EQ(atomic_read(&b_->totalAllocPages), 2);
	EXPECT_EQ(atomic_read(&b_->curAllocPages), 1);
	EXPECT_EQ(atomic_read(&b_->mrInQueue), 0);
	EXPECT_EQ(b_->mrHead, nullptr);
	EXPECT_EQ(b_->mrTail, nullptr);
	ExpectLog({});
}

TEST_F(CacheThread, NothingIsTakenFromTheQueueBeforeTheSnapshot)
{
	set_state(BU_STATE_STARTED);
	blocktest::Endings endings;
	blocktest::BioTag tag{&endings, 1};
	blocktest::Page page;
	struct bio *bio = blocktest::make_bio(disk_->bdev(0), p1_sector(3),
					      page.get(), 4096, &tag);
	bio->bi_rw = READ;
	MakeRequest *mr = static_cast<MakeRequest *>(
		kzalloc(sizeof(MakeRequest), GFP_KERNEL));
	mr->q = q_;
	mr->bio = bio;
	mr->startBN = 3;
	mr->endBN = 3;
	addMRToQueue(b_, mr);
	// kbackupd takes the count and looks, but leaves the request.
	while (signalThread.count != 0 || b_->mrHead != mr)
		sched_yield();
	while (signalThread.count != 0)
		sched_yield();
	EXPECT_EQ(b_->mrHead, mr);
	EXPECT_EQ(atomic_read(&b_->mrInQueue), 1);
	EXPECT_EQ(endings.count(), 0u);

	set_state(BU_STATE_SNAPSHOT);
	up(&signalThread);
	EXPECT_TRUE(endings.wait(1)[0].uptodate);
	wait_idle();
	EXPECT_EQ(b_->mrHead, nullptr);
	EXPECT_EQ(page.bytes(0, 4096), bt::filled(4096, 0x13));
	ExpectLog({});
}

TEST_F(CacheThread, NoPageForTheCopyMovesToTenAndStillSendsTheWriteOn)
{
	{
		// The first page is the test's own write buffer.
		auto f = emu::FailScope::nth(emu::Alloc::Pages, 2);
		EXPECT_TRUE(write_blocks(1, 4096, 5, 1, 0x55));
		wait_idle();
	}
	expect_copy_failed(5, 0x55, BU_STATE_CACHE_ERROR);
	EXPECT_EQ(atomic_read(&b_->totalAllocPages), 1);
	ExpectLog({});
	close_expecting();
}

TEST_F(CacheThread, BufferHeadAndBioAreRetriedUntilTheyCome)
{
	const unsigned long bh0 = emu::alloc_calls(emu::Alloc::BufferHead);
	{
		auto fb = emu::FailScope::nth(emu::Alloc::BufferHead, 1);
		// The first bio is the test's own write.
		auto fo = emu::FailScope::nth(emu::Alloc::Bio, 2);
		EXPECT_TRUE(write_blocks(1, 4096, 5, 1, 0x55));
		wait_idle();
	}
	EXPECT_EQ(emu::alloc_calls(emu::Alloc::BufferHead) - bh0, 2u);
	EXPECT_EQ(b_->state, (u32)BU_STATE_SNAPSHOT);
	EXPECT_EQ(cached(5), bt::filled(4096, 0x15));
	EXPECT_EQ(atomic_read(&b_->totalAllocBRs), 1);
	ExpectLog({});
}

TEST_F(CacheThread, FailedOldBlockReadMovesToEightAndStillSendsTheWriteOn)
{
	disk_->fail_sectors(p1_sector(5), 8, -EIO, emu::Dir::Read);
	EXPECT_TRUE(write_blocks(1, 4096, 5, 1, 0x55));
	wait_idle();
	expect_copy_failed(5, 0x55, BU_STATE_READ_ERROR);
	EXPECT_EQ(log_without_pointers(),
		  (std::vector<std::string>{
			  "<3>end_request: I/O error, dev sda, sector 104",
			  "<4>kivBIOEndIO: IO error, bio=%p, major=8, "
			  "sector=112",
			  "<4>kivBHEndIO: buffer_head I/O error bh=%p, "
			  "major=8, minor=1, block=5",
			  "<3>cacheBlock: Block read error blockNum=5 MAJOR=8 "
			  "MINOR=1"}));
	// Later writes to the block pass without a copy.
	Arrivals seen(*disk_);
	EXPECT_TRUE(write_blocks(1, 4096, 6, 1, 0x66));
	EXPECT_EQ(seen.take().size(), 1u);
	close_expecting();
}

TEST_F(CacheThread, UnsupportedOldBlockReadIsAFailedRead)
{
	disk_->fail_sectors(p1_sector(5), 8, -EOPNOTSUPP, emu::Dir::Read);
	EXPECT_TRUE(write_blocks(1, 4096, 5, 1, 0x55));
	wait_idle();
	expect_copy_failed(5, 0x55, BU_STATE_READ_ERROR);
	std::vector<std::string> lines = log_without_pointers();
	ASSERT_EQ(lines.size(), 4u);
	EXPECT_EQ(lines[1], "<4>kivBIOEndIO: IO error, bio=%p, major=8, "
			    "sector=112");
	EXPECT_EQ(lines[3], "<3>cacheBlock: Block read error blockNum=5 "
			    "MAJOR=8 MINOR=1");
}

class CacheThreadSmall : public CacheThread {
protected:
	CacheThreadSmall() { limit_ = 1; }
};

TEST_F(CacheThreadSmall, CacheLimitReachedMovesToTenAndStopsCopying)
{
	EXPECT_TRUE(write_blocks(1, 4096, 5, 1, 0x55));
	wait_idle();
	EXPECT_EQ(cached(5), bt::filled(4096, 0x15));
	EXPECT_TRUE(write_blocks(1, 4096, 6, 1, 0x66));
	wait_idle();
	ExpectLog({"<3>getCacheBlock: configured max cache memory reached (1 "
		   "blocks) failed to allocate cache object",
		   "<3>cacheBlock: Error caching blockNum=6 MAJOR=8 MINOR=1"});
	expect_copy_failed(6, 0x66, BU_STATE_CACHE_ERROR);
	// State 10 serves nothing more from the cache, copies nothing more.
	EXPECT_TRUE(cached(5).empty());
	EXPECT_EQ(atomic_read(&b_->curCBs), 1);
	close_expecting();
}

// Alone on its disk, a backup that fails in the middle of a write gives
// the queue back to the disk from kbackupd; the thread then goes on to
// the write's next blocks, which sleep (kmap of the cache map).  It must
// do so with interrupts on: no kernel warning.
TEST_F(CacheThreadSmall, CacheLimitInsideAWriteAloneOnTheDiskLeavesInterruptsOn)
{
	untrack(2);
	emu::log_clear();
	EXPECT_TRUE(write_blocks(1, 4096, 5, 4, 0x55));
	wait_idle();
	ExpectLog({"<3>getCacheBlock: configured max cache memory reached (1 "
		   "blocks) failed to allocate cache object",
		   "<3>cacheBlock: Error caching blockNum=6 MAJOR=8 MINOR=1"});
	EXPECT_EQ(b_->state, (u32)BU_STATE_CACHE_ERROR);
	EXPECT_EQ(q_->make_request_fn, real_);
	EXPECT_EQ(session(1)->state, (u32)AM_STATE_NOT_IN_SYNC);
	for (std::uint32_t n = 5; n < 9; n++)
		EXPECT_EQ(disk_block(n), bt::filled(4096, 0x55 + (n - 5)))
			<< n;
	close_expecting();
}

}  // namespace
