// Closing a running backup (core/backup.c closeBackup): the queue handed
// back to change tracking, the hand-back when the hook cannot be set, the
// held requests drained before the thread stops, and the module's unload
// closing every session afterwards.
#include <atomic>
#include <thread>

#include "test_backup_util.hpp"

namespace {

using bt::BackupTest;

class BackupClose : public BackupTest {
protected:
	void SetUp() override
	{
		BackupTest::SetUp();
		ASSERT_EQ(start(), 0);
		hook();
		emu::log_clear();
	}
};

TEST_F(BackupClose, QueueGoesBackToTrackingWhenThePartitionIsInSync)
{
	EXPECT_EQ(q_->make_request_fn, &kivMRF);
	close_expecting();
	EXPECT_EQ(q_->make_request_fn, &kivAMRF);
	EXPECT_EQ(session(1)->state, (u32)AM_STATE_IN_SYNC);
	EXPECT_EQ(session(2)->state, (u32)AM_STATE_IN_SYNC);
	std::vector<QueueList *> nodes = test::registry();
	ASSERT_EQ(nodes.size(), 1u);
	EXPECT_EQ(test::devices(nodes[0]),
		  (std::vector<dev_t>{disk_->dev(1), disk_->dev(2)}));
	// Tracking goes on: a write is recorded and not held.
	EXPECT_TRUE(write_blocks(1, 4096, 3, 1, 0x33));
	EXPECT_NE(blockInMap(&session(1)->map, 3), 0);
}

TEST_F(BackupClose, OutOfSyncPartitionWithAnotherTrackedKeepsTracking)
{
	setAMSState(session(1), AM_STATE_NOT_IN_SYNC);
	close_expecting();
	// Two sessions on the queue (any state): kivAMRF stays on it.
	EXPECT_EQ(q_->make_request_fn, &kivAMRF);
}

TEST_F(BackupClose, HookThatCannotBeSetInvalidatesTheDiskAndLeavesTheQueue)
{
	// A device number without a disk: its block device has no queue.
	b_->diskInfo.bdev = bdget(MKDEV(9, 0));
	ASSERT_NE(b_->diskInfo.bdev, nullptr);
	struct Stats s = bt::stats_after_close(b_);
	s.ioctlCount = 1;
	ASSERT_EQ(proc->close(fd_), 0);
	fd_ = -1;
	std::vector<std::string> want = {
		"<3>countQueueAMS: Could not count ams sessions for request "
		"queue because queue was null.",
		"<3>unsetQueueMRFAMS: Could not unset MRFS for request queue "
		"because queue was null."};
	for (auto &l : close_log(s, true))
		want.push_back(l);
	ExpectLog(want);
	// errorAMSDEV: every session of the queue is out of sync.
	EXPECT_EQ(session(1)->state, (u32)AM_STATE_NOT_IN_SYNC);
	EXPECT_EQ(session(2)->state, (u32)AM_STATE_NOT_IN_SYNC);
	// The queue keeps kivMRF, which now passes everything on.
	EXPECT_EQ(q_->make_request_fn, &kivMRF);
	EXPECT_EQ(activeSession, nullptr);
	EXPECT_TRUE(write_blocks(1, 4096, 3, 1, 0x33));
	EXPECT_EQ(disk_block(3), bt::filled(4096, 0x33));
	// Unload closes both sessions and gives the queue its function back.
}

TEST_F(BackupClose, FailureOnADeviceWithoutQueueOnlyInvalidatesItsSession)
{
	struct block_device *real = b_->diskInfo.bdev;
	b_->diskInfo.bdev = bdget(MKDEV(9, 0));
	errorAMS(b_);
	ExpectLog({"<3>countQueueAMS: Could not count ams sessions for "
		   "request queue because queue was null.",
		   "<3>unsetQueueMRFAMS: Could not unset MRFS for request queue "
		   "because queue was null."});
	EXPECT_EQ(session(1)->state, (u32)AM_STATE_NOT_IN_SYNC);
	EXPECT_EQ(session(2)->state, (u32)AM_STATE_IN_SYNC);
	EXPECT_EQ(q_->make_request_fn, &kivMRF);
	b_->diskInfo.bdev = real;
	close_expecting();
	// Two sessions on the queue: tracking takes it back.
	EXPECT_EQ(q_->make_request_fn, &kivAMRF);
}

TEST_F(BackupClose, HeldRequestsAreDrainedBeforeTheThreadStopsConcurrently)
{
	bt::RawIo w1, w2;
	std::atomic<int> arrived{0};
	disk_->set_observer([&](const emu::DiskRequest &) { arrived++; });
	disk_->plug();
	submit(w1, 1, 4096, 5, 1, 0x51);
	submit(w2, 1, 4096, 6, 2, 0x61);
	EXPECT_EQ(atomic_read(&b_->mrInQueue), 2);
	// kbackupd is copying block 5 (its read waits in the disk).
	while (arrived.load() < 1)
		sched_yield();
	std::thread closer([&] { EXPECT_EQ(proc->close(fd_), 0); });
	// The close waits in the drain (state 7) until the disk lets the
	// copies through.
	while (support::racy_read(&b_->state) != BU_STATE_CLOSING)
		sched_yield();
	disk_->unplug();
	closer.join();
	fd_ = -1;
	EXPECT_TRUE(w1.endings.wait(1)[0].uptodate);
	EXPECT_TRUE(w2.endings.wait(1)[0].uptodate);
	EXPECT_EQ(disk_block(5), bt::filled(4096, 0x51));
	EXPECT_EQ(disk_block(7), bt::filled(4096, 0x62));
	std::vector<std::string> lines = emu::log_strings();
	emu::log_clear();
	ASSERT_EQ(lines.size(), 28u);
	EXPECT_EQ(lines[0], "<6>backup_cache: backupd thread exiting");
	EXPECT_EQ(lines[2], "<6>printStats: state: 7");
	// The copy under way was kept; state 7 stopped the others: the
	// second write went on uncopied.
	EXPECT_EQ(lines[12], "<6>printStats: total cached blocks: 1");
	EXPECT_EQ(lines[27], "<6>closeBackup: backup finished device "
			     "major=8 minor=1");
	EXPECT_EQ(backup_cachePID, 0);
	EXPECT_EQ(signalThread.count, 1u);
	disk_->set_observer({});
}

TEST_F(BackupClose, UnloadAfterwardsClosesEverySessionAndFreesTheirPages)
{
	ASSERT_GT(atomic_read(&curAllocAMPages), 0);
	close_expecting();
	proc.reset();
	ASSERT_EQ(emu::module_unload(), 0);
	ExpectLog({"<6>kivUnload: corvalin version 3.1.0 build 9504 ready to "
		   "be unloaded",
		   "<6>kivExit: corvalin version 3.1.0 build 9504 exiting"});
	// The module's data is poisoned once it is unloaded, so the sessions
	// and the registry cannot be looked at any more: the queue has its
	// own function back, and the end-of-test check finds every session,
	// map page and registry node freed.
	EXPECT_EQ(q_->make_request_fn, real_);
}

}  // namespace
