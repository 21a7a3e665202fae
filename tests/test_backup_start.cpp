// START_BACKUP (core/backup.c): the slot, the geometry, the block table,
// "kbackupd", the object caches, the cache map, the real make_request
// function and the read requests, each with its failure; and the close of
// every record a start left behind.
#include "test_backup_util.hpp"

#include <linux/errno.h>
#include <linux/irqflags.h>

namespace {

using bt::BackupTest;

class BackupStart : public BackupTest {
protected:
	// A start that failed after the geometry: state 1, busy taken, the
	// result and lines as given; closing the file then frees everything
	// (the end-of-test check) and logs the statistics.
	void expect_failed_start(long result,
				 const std::vector<std::string> &lines,
				 bool thread)
	{
		EXPECT_EQ(b_->state, (u32)BU_STATE_STARTING);
		EXPECT_EQ(atomic_read(&busy), 1);
		EXPECT_EQ(activeSession, nullptr);
		ExpectLog(lines);
		(void)result;
		close_expecting(thread);
		EXPECT_EQ(atomic_read(&busy), 0);
		EXPECT_EQ(backup_cachePID, 0);
		EXPECT_EQ(signalThread.count, 1u);
	}
};

TEST_F(BackupStart, StartsInStateTwoWithEverythingBuilt)
{
	EXPECT_EQ(start(bt::kP1Blocks, 77), 0);
	ExpectLog(started_log());
	EXPECT_EQ(b_->state, (u32)BU_STATE_STARTED);
	EXPECT_EQ(activeSession, b_);
	EXPECT_EQ(atomic_read(&busy), 1);
	EXPECT_GT(backup_cachePID, 0);
	EXPECT_EQ(signalThread.count, 0u);
	EXPECT_EQ(b_->startedCacheThread, 1);
	EXPECT_EQ(b_->maxCacheBlocks, 77u);
	EXPECT_EQ(b_->diskInfo.numBlocks, (u64)bt::kP1Blocks);
	EXPECT_EQ(b_->diskInfo.realMRF, real_);
	EXPECT_EQ(b_->cacheMap.size, bt::kP1Blocks);
	EXPECT_NE(b_->mmBIORequests, nullptr);
	EXPECT_STREQ(b_->htCacheName, "kivHT0801");
	EXPECT_STREQ(b_->cpCacheName, "kivCP0801");
	EXPECT_STREQ(b_->dataCacheName, "kivDC0801");
	EXPECT_EQ(b_->maxVMPages, 256);
	for (int i = 0; i < KIV_HASH_BUCKETS; i++) {
		ASSERT_NE(b_->blockTable[i], nullptr);
		EXPECT_EQ(b_->blockTable[i]->busy, nullptr);
	}
	// Not hooked by the start (the snapshot does that): the queue still
	// has the tracking function of the sessions.
	EXPECT_EQ(q_->make_request_fn, &kivAMRF);
	EXPECT_EQ(atomic_read(&b_->curAllocPages), 1);
	EXPECT_EQ(atomic_read(&b_->totalAllocPages), 1);

	close_expecting();
	EXPECT_EQ(activeSession, nullptr);
	EXPECT_EQ(atomic_read(&busy), 0);
	EXPECT_EQ(backup_cachePID, 0);
	EXPECT_EQ(signalThread.count, 1u);
}

TEST_F(BackupStart, TheBucketTableHas4096BucketsWhateverTheSizes)
{
	EXPECT_EQ(start(1, 0), 0);
	ExpectLog(started_log());
	for (int i = 0; i < KIV_HASH_BUCKETS; i++)
		ASSERT_NE(b_->blockTable[i], nullptr);
	EXPECT_EQ(b_->cacheMap.size, 1u);
}

TEST_F(BackupStart, ReadBufferPagesFollowTheBlockSize)
{
	// 1024-byte blocks: 64 pages.
	EXPECT_EQ(start(32768, 10, 2), 0);
	ExpectLog(started_log(2));
	EXPECT_EQ(b_->maxVMPages, 64);
	EXPECT_EQ(b_->diskInfo.blocksPerPage, 4u);
}

TEST_F(BackupStart, SmallBlocksAndTheCountingCursorOnASecondQueue)
{
	emu::Disk other(test::disk_config(kMajorB, 16, 16, 4096, "sdb"));
	ASSERT_EQ(other.add_partition(1, 8, 2048), 0);
	{
		emu::FileSystem fs(other, 1, 512);
		EXPECT_EQ(start_on(fd_, kMajorB, 17, 2048, 10), 0);
		ExpectLog(started_log(17));
		EXPECT_EQ(b_->maxVMPages, 32);
		// Cache names carry the major and minor in hex.
		EXPECT_STREQ(b_->htCacheName, "kivHT0811");
		EXPECT_STREQ(b_->cpCacheName, "kivCP0811");
		EXPECT_STREQ(b_->dataCacheName, "kivDC0811");
		struct Stats s = bt::stats_after_close(b_);
		s.ioctlCount = 1;
		ASSERT_EQ(proc->close(fd_), 0);
		fd_ = -1;
		// No session on sdb and its queue not registered: the count
		// of its queue's sessions is taken over the last registered
		// queue (sda's, two sessions), so the close hooks sdb with
		// kivAMRF -- the registry walk's cursor rule, kept.
		std::vector<std::string> want = {
			"<6>backup_cache: backupd thread exiting"};
		for (auto &l : bt::stats_lines(s))
			want.push_back(l);
		want.push_back("<6>closeBackup: backup finished device "
			       "major=8 minor=17");
		ExpectLog(want);
		EXPECT_EQ(other.queue()->make_request_fn, &kivAMRF);
		std::vector<QueueList *> nodes = test::registry();
		ASSERT_EQ(nodes.size(), 2u);
		EXPECT_EQ(nodes[1]->rQueue, other.queue());
		EXPECT_EQ(test::devices(nodes[1]),
			  std::vector<dev_t>{other.dev(1)});
		unsetQueueMRFAMS(other.queue());
		local_irq_enable();  // it returns with interrupts off (kept)
		EXPECT_EQ(other.queue()->make_request_fn,
			  emu::Disk::request_fn());
		ExpectLog({});
	}
}

TEST_F(BackupStart, SecondStartOnAnotherFileIsRefusedAndItsCloseEndsTheInterception)
{
	ASSERT_EQ(start(), 0);
	emu::log_clear();
	const int fd2 = open_device();
	ASSERT_GE(fd2, 0);
	Backup *b2 = test::backup_of(*proc, fd2);
	EXPECT_EQ(start_on(fd2, kMajor, 2, 100, 10), 9);
	ExpectLog({"<3>ioctlStartBackup: another backup operation is open "
		   "can't start backup on device major=8 minor=2"});
	EXPECT_EQ(b2->state, (u32)BU_STATE_REFUSED);
	EXPECT_EQ(activeSession, b_);

	// The refused record prints its statistics and its end, and its
	// close ends the running backup's interception and frees the slot.
	struct Stats s = bt::stats_after_close(b2);
	s.ioctlCount = 1;
	ASSERT_EQ(proc->close(fd2), 0);
	std::vector<std::string> want = {
		"<3>countQueueAMS: Could not count ams sessions for request "
		"queue because queue was null.",
		"<3>unsetQueueMRFAMS: Could not unset MRFS for request queue "
		"because queue was null."};
	for (auto &l : bt::stats_lines(s))
		want.push_back(l);
	want.push_back("<6>closeBackup: backup finished device major=0 "
		       "minor=0");
	ExpectLog(want);
	EXPECT_EQ(activeSession, nullptr);
	// A refused record (12) leaves busy alone ...
	EXPECT_EQ(atomic_read(&busy), 1);
	EXPECT_EQ(b_->state, (u32)BU_STATE_STARTED);
	// ... an idle one frees it, also for the backup running elsewhere.
	const int fd3 = open_device();
	ASSERT_EQ(proc->close(fd3), 0);
	ExpectLog({});
	EXPECT_EQ(atomic_read(&busy), 0);
}

TEST_F(BackupStart, RetryOnTheSameFileIsRefusedAndKeepsTheSlot)
{
	ASSERT_EQ(start(), 0);
	emu::log_clear();
	EXPECT_EQ(start(), 9);
	ExpectLog({"<3>ioctlStartBackup: another backup operation is open "
		   "can't start backup on device major=8 minor=1"});
	EXPECT_EQ(b_->state, (u32)BU_STATE_REFUSED);
	close_expecting();
	// A refused record's close leaves busy alone: the slot stays taken.
	EXPECT_EQ(atomic_read(&busy), 1);
	const int fd2 = open_device();
	EXPECT_EQ(start_on(fd2, kMajor, 2, 100, 10), 9);
	emu::log_clear();
}

TEST_F(BackupStart, StartedRecordWhoseSlotWasFreedAnswersElevenAndKeepsBusy)
{
	ASSERT_EQ(start(), 0);
	const int fd2 = open_device();
	ASSERT_EQ(proc->close(fd2), 0);  // an idle close frees the slot
	EXPECT_EQ(atomic_read(&busy), 0);
	emu::log_clear();
	EXPECT_EQ(start(), 11);
	ExpectLog({"<3>ioctlStartBackup: tried to start backup on device "
		   "major=8 minor=1 that is already busy"});
	EXPECT_EQ(atomic_read(&busy), 1);
	EXPECT_EQ(b_->state, (u32)BU_STATE_STARTED);
}

TEST_F(BackupStart, NoFileSystemLeavesStateZeroAndBusy)
{
	EXPECT_EQ(start_on(fd_, kMajor, 5, 100, 10), 8);
	ExpectLog({"<3>getDiskInfo: device major=8 minor=5 not found, "
		   "getting super block failed"});
	EXPECT_EQ(b_->state, (u32)BU_STATE_IDLE);
	EXPECT_EQ(atomic_read(&busy), 1);
	EXPECT_EQ(backup_cachePID, 0);
	// Closing a record still in state 0 prints nothing, frees the slot.
	ASSERT_EQ(proc->close(fd_), 0);
	fd_ = -1;
	ExpectLog({});
	EXPECT_EQ(atomic_read(&busy), 0);
}

TEST_F(BackupStart, ZeroBlocksFailsAtTheCacheMapWithTheThreadRunning)
{
	EXPECT_EQ(start(0, 10), 2);
	EXPECT_GT(backup_cachePID, 0);
	expect_failed_start(2,
			    {"<6>backup_cache: kbackupd thread started",
			     "<3>newBlockMap: block size size=0 invalid",
			     "<3>newCacheMap: error creating cache map of "
			     "size=0"},
			    true);
}

TEST_F(BackupStart, BucketCacheNotMadeFailsWithFive)
{
	{
		auto f = emu::FailScope::nth(emu::Alloc::SlabCreate, 1);
		EXPECT_EQ(start(), 5);
	}
	EXPECT_EQ(b_->htCache, nullptr);
	expect_failed_start(5,
			    {"<3>newBlockTable: kmem_cache_create failed for "
			     "HashTable structs during backup start major=8 "
			     "minor=1"},
			    false);
}

TEST_F(BackupStart, BucketTableMemoryFailsWithFiveSilently)
{
	{
		auto f = emu::FailScope::nth(emu::Alloc::Vmalloc, 1);
		EXPECT_EQ(start(), 5);
	}
	EXPECT_EQ(b_->blockTable, nullptr);
	EXPECT_NE(b_->htCache, nullptr);
	expect_failed_start(5, {}, false);
}

TEST_F(BackupStart, FirstBucketMemoryFailsWithFive)
{
	{
		auto f = emu::FailScope::nth(emu::Alloc::Slab, 1);
		EXPECT_EQ(start(), 5);
	}
	EXPECT_EQ(b_->blockTable[0], nullptr);
	expect_failed_start(5, {}, false);
}

TEST_F(BackupStart, LastBucketMemoryFailsWithFiveAndEarlierBucketsStay)
{
	{
		auto f = emu::FailScope::nth(emu::Alloc::Slab, 4096);
		EXPECT_EQ(start(), 5);
	}
	EXPECT_NE(b_->blockTable[4094], nullptr);
	EXPECT_EQ(b_->blockTable[4095], nullptr);
	expect_failed_start(5, {}, false);
}

TEST_F(BackupStart, BlockCacheObjectsNotMadeFailWithFiveThreadRunning)
{
	for (unsigned nth : {2u, 3u}) {
		SCOPED_TRACE(nth);
		{
			auto f = emu::FailScope::nth(emu::Alloc::SlabCreate,
						     nth);
			EXPECT_EQ(start(), 5);
		}
		EXPECT_GT(backup_cachePID, 0);
		expect_failed_start(5,
				    {"<6>backup_cache: kbackupd thread started",
				     "<3>ioctlStartBackup: kmem_cache_create "
				     "failed during backup start major=8 "
				     "minor=1"},
				    true);
		fd_ = open_device();
		b_ = test::backup_of(*proc, fd_);
		emu::log_clear();
	}
}

TEST_F(BackupStart, CacheMapPageArrayFailsWithFive)
{
	{
		auto f = emu::FailScope::nth(emu::Alloc::Vmalloc, 2);
		EXPECT_EQ(start(), 5);
	}
	expect_failed_start(5,
			    {"<6>backup_cache: kbackupd thread started",
			     "<3>newBlockMap: failed allocating (8) bytes of "
			     "memory for block map page array",
			     "<3>newCacheMap: error creating cache map of "
			     "size=8192"},
			    true);
}

TEST_F(BackupStart, CacheMapPageFailsWithFive)
{
	{
		auto f = emu::FailScope::nth(emu::Alloc::Pages, 1);
		EXPECT_EQ(start(), 5);
	}
	expect_failed_start(5,
			    {"<6>backup_cache: kbackupd thread started",
			     "<3>newBlockMap: failed allocating page number "
			     "(0) for block map",
			     "<3>newBlockMap: Out of Memory Error.",
			     "<3>newCacheMap: error creating cache map of "
			     "size=8192"},
			    true);
}

TEST_F(BackupStart, ReadRequestTableFailsWithFiveSilently)
{
	{
		auto f = emu::FailScope::nth(emu::Alloc::Vmalloc, 3);
		EXPECT_EQ(start(), 5);
	}
	EXPECT_EQ(b_->mmBIORequests, nullptr);
	EXPECT_EQ(b_->diskInfo.realMRF, real_);
	expect_failed_start(5, {"<6>backup_cache: kbackupd thread started"},
			    true);
}

TEST_F(BackupStart, HookedQueueWithoutRealFunctionFailsWithOne)
{
	std::vector<QueueList *> nodes = test::registry();
	ASSERT_EQ(nodes.size(), 1u);
	nodes[0]->realMRF = nullptr;
	EXPECT_EQ(start(), 1);
	nodes[0]->realMRF = real_;
	expect_failed_start(1,
			    {"<6>backup_cache: kbackupd thread started",
			     "<3>ioctlStartBackup: error getting real MRF for "
			     "major=8 minor=1"},
			    true);
}

// kernel_thread failing leaves signalThread taken and the pid negative;
// the close neither drains nor stops, and signalThread stays at 0 (a later
// start would wait for it for good: kept as the system has it).
TEST_F(BackupStart, ThreadNotCreatedReturnsItsErrorAndKeepsSignalThread)
{
	{
		auto f = emu::FailScope::nth(emu::Alloc::Thread, 1);
		EXPECT_EQ(start(), -ENOMEM);
	}
	EXPECT_EQ(backup_cachePID, -ENOMEM);
	EXPECT_EQ(b_->startedCacheThread, 0);
	EXPECT_EQ(signalThread.count, 0u);
	EXPECT_EQ(b_->state, (u32)BU_STATE_STARTING);
	ExpectLog({"<3>startWorkQueue: error starting cache thread"});
	struct Stats s = bt::stats_after_close(b_);
	s.ioctlCount = 1;
	ASSERT_EQ(proc->close(fd_), 0);
	fd_ = -1;
	ExpectLog(close_log(s, false));
	EXPECT_EQ(backup_cachePID, -ENOMEM);
	EXPECT_EQ(signalThread.count, 0u);
	EXPECT_EQ(atomic_read(&busy), 0);
	// Put the module's globals back as a load leaves them.
	backup_cachePID = 0;
	up(&signalThread);
}

TEST_F(BackupStart, UnreadableRecordAnswersSixAndClaimsNothing)
{
	const emu::uaddr ro = proc->map_anon(4096, emu::PROT_NONE_);
	for (emu::uaddr a : {proc->unmapped_address(), ro}) {
		EXPECT_EQ(proc->ioctl(fd_, KIV_IOC_START_BACKUP, a), 6);
		EXPECT_EQ(atomic_read(&busy), 0);
		EXPECT_EQ(b_->state, (u32)BU_STATE_IDLE);
	}
	ExpectLog({});
}

// A device whose minor does not fit the 256 x 256 session table: the
// backup starts (its cache names carry the longer number), but no session
// is ever made for it, so nothing is left behind that no slot holds.
TEST_F(BackupStart, DeviceOutsideTheSessionTableStartsButIsNeverTracked)
{
	emu::Disk big(test::disk_config(kMajor, 256, 16, 4096, "sdq"));
	ASSERT_EQ(big.add_partition(1, 8, 2048), 0);
	{
		emu::FileSystem fs(big, 1, 4096);
		EXPECT_EQ(start_on(fd_, kMajor, 257, 256, 10), 0);
		ExpectLog(started_log(257));
		EXPECT_STREQ(b_->htCacheName, "kivHT08101");
		EXPECT_STREQ(b_->cpCacheName, "kivCP08101");
		EXPECT_STREQ(b_->dataCacheName, "kivDC08101");
		const int pages = atomic_read(&curAllocAMPages);
		AutoMapSession *ams = nullptr;
		EXPECT_EQ(newAMS(b_, &ams), 2);
		EXPECT_EQ(ams, nullptr);
		EXPECT_EQ(atomic_read(&curAllocAMPages), pages);
		EXPECT_EQ(getAMS(b_->diskInfo.kdev), nullptr);
		ExpectLog({});
		struct Stats st = bt::stats_after_close(b_);
		st.ioctlCount = 1;
		ASSERT_EQ(proc->close(fd_), 0);
		fd_ = -1;
		ExpectLog(close_log(st, true, "major=8 minor=257"));
		// The counting cursor again: sda's two sessions hook sdq.
		EXPECT_EQ(big.queue()->make_request_fn, &kivAMRF);
		unsetQueueMRFAMS(big.queue());
		local_irq_enable();  // it returns with interrupts off (kept)
		ExpectLog({});
	}
}

TEST_F(BackupStart, ClosingAnIdleFileFreesItsRecordSilently)
{
	ASSERT_EQ(proc->close(fd_), 0);
	fd_ = -1;
	ExpectLog({});
	EXPECT_EQ(atomic_read(&busy), 0);
}

}  // namespace
