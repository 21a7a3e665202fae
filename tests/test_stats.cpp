// Statistics (core/stats.c): the Stats record's fields and layout, the
// printout's 26 lines, ioctlGetStats with its length, memory and copy
// failures, and when the close prints.
#include "test_backup_util.hpp"

namespace {

using bt::BackupTest;

class Stats : public BackupTest {};

TEST_F(Stats, PrintoutHasItsTwentySixLinesInItsOrder)
{
	struct ::Stats s;
	std::memset(&s, 0, sizeof(s));
	s.major = 8; s.minor = 1; s.state = 4; s.partitionStart = 63;
	s.blockSize = 1024; s.blocksPerPage = 4; s.partitionSizeKB = 500;
	s.numBlocks = 1000; s.maxVMPages = 64; s.vmPages = 3;
	s.maxCacheBlocks = 0xffffffffu; s.curAllocAMPages = 6;
	s.totalAllocPages = 7; s.curAllocPages = 8; s.totalAllocBRs = 9;
	s.curAllocBRs = 10; s.totalAllocCPs = 11; s.curAllocCPs = 12;
	s.peakAllocCPs = 13; s.totalCBs = 14; s.curCBs = 15;
	s.totalReadBlocks = 16; s.totalReadCBs = 17; s.totalCleanedCBs = 18;
	s.ioctlCount = 19; s.eTimeToFreeze.tv_sec = 0;
	s.eTimeToFreeze.tv_nsec = 1500; s.eTimeFrozen.tv_sec = 2;
	s.eTimeFrozen.tv_nsec = 5;
	printStats(&s);
	ExpectLog({"<6>printStats: device: major(8) minor(1)",
		   "<6>printStats: state: 4",
		   "<6>printStats: block size: 1024",
		   "<6>printStats: partition size (KB): 500",
		   "<6>printStats: file system size (blocks): 1000",
		   "<6>printStats: pages allocated for write journal: 6",
		   "<6>printStats: max cache size in blocks: -1",
		   "<6>printStats: total pages allocated: 7",
		   "<6>printStats: current pages allocated: 8",
		   "<6>printStats: total Block Requests allocated: 9",
		   "<6>printStats: current Block Requests allocated: 10",
		   "<6>printStats: total cached blocks: 11",
		   "<6>printStats: current cached blocks: 12",
		   "<6>printStats: peak cached blocks: 13",
		   "<6>printStats: total block cache data structures: 14",
		   "<6>printStats: current block cache data structures: 15",
		   "<6>printStats: total reads from disk: 16",
		   "<6>printStats: total reads from cache: 17",
		   "<6>printStats: blocks cleaned from cache: 18",
		   "<6>printStats: partition start (sector): 63",
		   "<6>printStats: blocks per page: 4",
		   "<6>printStats: max buffer size in pages: 64",
		   "<6>printStats: buffer pages allocated: 3",
		   "<6>printStats: commands processed: 19",
		   "<6>printStats: time to freeze in seconds: 0.000001500",
		   "<6>printStats: time frozen in seconds: 2.000000005"});
}

TEST_F(Stats, RecordTakesTheBackupsGeometryAndCountersVersionsStayZero)
{
	ASSERT_EQ(start(bt::kP1Blocks, 55), 0);
	atomic_set(&b_->totalReadBlocks, 21);
	b_->eTimeFrozen.tv_sec = 3;
	b_->eTimeFrozen.tv_nsec = 4;
	struct ::Stats s;
	std::memset(&s, 0, sizeof(s));   // setStats expects it zeroed
	setStats(b_, &s);
	const unsigned char *raw = reinterpret_cast<unsigned char *>(&s);
	for (int i = 0; i < 12; i++)
		EXPECT_EQ(raw[i], 0) << i;
	EXPECT_EQ(s.major, 8u);
	EXPECT_EQ(s.minor, 1u);
	EXPECT_EQ(s.state, (u32)BU_STATE_STARTED);
	EXPECT_EQ(s.partitionStart, (u32)bt::kP1Start);
	EXPECT_EQ(s.blockSize, 4096);
	EXPECT_EQ(s.blocksPerPage, 1);
	EXPECT_EQ(s.partitionSizeKB, (u32)bt::kP1Sectors / 2);
	EXPECT_EQ(s.numBlocks, bt::kP1Blocks);
	EXPECT_EQ(s.maxVMPages, 256);
	EXPECT_EQ(s.maxCacheBlocks, 55u);
	EXPECT_EQ(s.curAllocAMPages, atomic_read(&curAllocAMPages));
	EXPECT_GT(s.curAllocAMPages, 0);
	EXPECT_EQ(s.totalAllocPages, 1);
	EXPECT_EQ(s.curAllocPages, 1);
	EXPECT_EQ(s.totalReadBlocks, 21);
	EXPECT_EQ(s.ioctlCount, 1);
	EXPECT_EQ(s.eTimeFrozen.tv_sec, 3);
	EXPECT_EQ(s.eTimeFrozen.tv_nsec, 4);
	emu::log_clear();
}

TEST_F(Stats, BufferPagesCountOnlySlotsThatHaveAMapping)
{
	struct vm_area_struct vma{};
	b_->vmAreas[0].vmPages = 5;       // no mapping: counts nothing
	b_->vmAreas[1].vmPages = 7;
	b_->vmAreas[1].vma = &vma;
	struct ::Stats s;
	std::memset(&s, 0, sizeof(s));
	setStats(b_, &s);
	EXPECT_EQ(s.vmPages, 7);
	b_->vmAreas[1].vma = nullptr;
	std::memset(&s, 0, sizeof(s));
	setStats(b_, &s);
	EXPECT_EQ(s.vmPages, 0);
	b_->vmAreas[0].vmPages = 0;
	b_->vmAreas[1].vmPages = 0;
}

TEST_F(Stats, GetStatsCopiesTheWholeRecordOrItsFirstBytes)
{
	ASSERT_EQ(start(), 0);
	std::vector<unsigned char> fill(200, 0xab);
	ASSERT_TRUE(proc->poke(page_ + 512, fill.data(), fill.size()));
	int r = -1;
	proc->run_as([&] {
		r = ioctlGetStats(b_, support::user_ptr(page_ + 512), 12);
	});
	EXPECT_EQ(r, 0);
	std::vector<unsigned char> got(200);
	ASSERT_TRUE(proc->peek(page_ + 512, got.data(), got.size()));
	for (int i = 0; i < 12; i++)
		EXPECT_EQ(got[i], 0) << i;
	for (int i = 12; i < 200; i++)
		ASSERT_EQ(got[i], 0xab) << i;

	proc->run_as([&] {
		r = ioctlGetStats(b_, support::user_ptr(page_ + 512), 1000);
	});
	EXPECT_EQ(r, 0);
	struct ::Stats s;
	ASSERT_TRUE(proc->peek(page_ + 512, &s, sizeof(s)));
	EXPECT_EQ(s.major, 8u);
	EXPECT_EQ(s.state, (u32)BU_STATE_STARTED);
	EXPECT_EQ(s.numBlocks, bt::kP1Blocks);
	ASSERT_TRUE(proc->peek(page_ + 512 + 128, got.data(), 72));
	for (int i = 0; i < 72; i++)
		ASSERT_EQ(got[i], 0xab) << i;
	emu::log_clear();
}

TEST_F(Stats, GetStatsWithoutMemoryAnswersFive)
{
	int r = -1;
	{
		auto f = emu::FailScope::nth(emu::Alloc::Kmalloc, 1);
		proc->run_as([&] {
			r = ioctlGetStats(b_, support::user_ptr(page_), 128);
		});
	}
	EXPECT_EQ(r, 5);
	ExpectLog({});
}

TEST_F(Stats, GetStatsToAnUnwritableAddressAnswersSeven)
{
	const emu::uaddr ro = proc->map_anon(4096, emu::PROT_READ_);
	for (emu::uaddr a : {proc->unmapped_address(), ro}) {
		int r = -1;
		proc->run_as([&] {
			r = ioctlGetStats(b_, support::user_ptr(a), 128);
		});
		EXPECT_EQ(r, 7);
		ExpectLog({"<3>ioctlGetStats: copy to user space failed"});
	}
}

}  // namespace
