// The change-tracking session table (core/autoMap.c) and write tracking
// (kernel/kivAMRF.c) as the backup close uses them today: sessions made
// and closed per partition, writes recorded through the kivAMRF hook, the
// queue handed back to its real function when its last session goes,
// counting and invalidating the sessions of a queue, and UNLOAD closing
// them all.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "emu/block.hpp"
#include "emu/emu.hpp"
#include "test_driver_util.hpp"
#include "test_queue_util.hpp"

#include <linux/bio.h>
#include <linux/completion.h>
#include <linux/blkdev.h>
#include <linux/fs.h>
#include <linux/irqflags.h>
#include <linux/slab.h>

namespace {

constexpr unsigned kMajor = 8;

int backupHook(struct request_queue *, struct bio *)
{
	return 0;
}

// The two partitions of test::TwoPartitions, each Backup record with its
// partition's block count; every session is closed at the end.
class Sessions : public test::TwoPartitions {
protected:
	void SetUp() override
	{
		TwoPartitions::SetUp();
		b1_.diskInfo.numBlocks = fs1_->blocks();
		b2_.diskInfo.numBlocks = fs2_->blocks();
	}
	void TearDown() override
	{
		closeAllAMS();
		EXPECT_TRUE(test::registry().empty());
		test::clear_registry();
		EXPECT_EQ(atomic_read(&curAllocAMPages), 0);
		test::TwoPartitions::TearDown();
	}

	AutoMapSession *session(Backup &b)
	{
		AutoMapSession *ams = nullptr;
		EXPECT_EQ(newAMS(&b, &ams), 0);
		return ams;
	}
	// A session for b's partition, in sync.
	AutoMapSession *in_sync_session(Backup &b)
	{
		AutoMapSession *ams = session(b);
		if (ams)
			setAMSState(ams, AM_STATE_IN_SYNC);
		return ams;
	}
	AutoMapSession *slot(int partno)
	{
		return amList[kMajor][partno];
	}
	void write_block(emu::FileSystem &fs, std::uint64_t block)
	{
		std::vector<std::byte> data(fs.block_size(), std::byte{0x5a});
		ASSERT_EQ(fs.write_block(block, data), 0);
		ASSERT_EQ(fs.sync(), 0);
	}
};

TEST_F(Sessions, NewSessionIsOutOfSyncWithAnAllClearMapAndZeroKey)
{
	AutoMapSession *ams = session(b1_);
	ASSERT_NE(ams, nullptr);
	EXPECT_EQ(slot(1), ams);
	EXPECT_EQ(ams->state, (u32)AM_STATE_NOT_IN_SYNC);
	EXPECT_EQ(ams->diskInfo.kdev, disk_->dev(1));
	EXPECT_EQ(ams->map.size, (u32)fs1_->blocks());
	EXPECT_EQ(atomic_read(&ams->users), 1);
	EXPECT_EQ(atomic_read(&curAllocAMPages),
		  (int)numPagesInBlockMap((u32)fs1_->blocks()));
	for (unsigned char k : ams->sessionKey.key)
		EXPECT_EQ(k, 0);
	EXPECT_EQ(blockInMap(&ams->map, 0), 0);
	EXPECT_EQ(blockInMap(&ams->map, ams->map.size - 1), 0);

	EXPECT_EQ(closeAMS(&b1_), 0);
	EXPECT_EQ(slot(1), nullptr);
	EXPECT_EQ(atomic_read(&curAllocAMPages), 0);
	EXPECT_EQ(closeAMS(&b1_), 2);
	ExpectLog({});
}

// newAMS with the first allocation of `kind` failing: result 5, nothing
// registered, nothing counted, exactly `lines` logged (the fixture's end
// checks that nothing is left allocated).
class SessionsWithoutMemory : public Sessions {
protected:
	void expect_refused(emu::Alloc kind,
			    const std::vector<std::string> &lines)
	{
		AutoMapSession *ams = nullptr;
		{
			auto fail = emu::FailScope::nth(kind, 1);
			EXPECT_EQ(newAMS(&b1_, &ams), 5);
		}
		EXPECT_EQ(ams, nullptr);
		EXPECT_EQ(slot(1), nullptr);
		EXPECT_EQ(atomic_read(&curAllocAMPages), 0);
		ExpectLog(lines);
	}
};

TEST_F(SessionsWithoutMemory, NoRecordReturnsFiveAndRegistersNothing)
{
	expect_refused(emu::Alloc::Kmalloc, {});
}

TEST_F(SessionsWithoutMemory, MapThatCannotBeBuiltIsNotRegistered)
{
	expect_refused(emu::Alloc::Pages,
		       {"<3>newBlockMap: failed allocating page number (0) "
			"for block map",
			"<3>newBlockMap: Out of Memory Error.",
			"<3>newAMS: failed to create new device map"});
}

TEST_F(Sessions, TrackedWritesSetExactlyTheirBlocks)
{
	AutoMapSession *ams = in_sync_session(b1_);
	ASSERT_NE(ams, nullptr);
	ASSERT_EQ(setMRF(&b1_, kivAMRF), 0);
	EXPECT_EQ(q_->make_request_fn, &kivAMRF);

	for (std::uint64_t blk : {10, 11, 12})
		write_block(*fs1_, blk);
	// A read is forwarded and never recorded.
	std::vector<std::byte> out(4096);
	ASSERT_EQ(fs1_->read_block(20, out), 0);
	// The other partition has no session: forwarded, recorded nowhere.
	write_block(*fs2_, 40);

	for (u32 blk = 8; blk <= 21; blk++)
		EXPECT_EQ(blockInMap(&ams->map, blk),
			  blk >= 10 && blk <= 12 ? -1 : 0)
			<< "block " << blk;
	EXPECT_EQ(ams->state, (u32)AM_STATE_IN_SYNC);

	// The last session of the disk goes: the queue is the disk's again.
	EXPECT_EQ(closeAMS(&b1_), 0);
	EXPECT_EQ(q_->make_request_fn, real_);
	EXPECT_TRUE(test::registry().empty());
	ExpectLog({});
}

TEST_F(Sessions, SessionOutOfSyncRecordsNothing)
{
	AutoMapSession *ams = session(b1_);
	ASSERT_NE(ams, nullptr);
	ASSERT_EQ(setMRF(&b1_, kivAMRF), 0);
	write_block(*fs1_, 7);
	EXPECT_EQ(blockInMap(&ams->map, 7), 0);
	ExpectLog({});
}

TEST_F(Sessions, WriteBeyondTheMapDropsSyncAndLaterWritesAreNotRecorded)
{
	b1_.diskInfo.numBlocks = 12;
	AutoMapSession *ams = in_sync_session(b1_);
	ASSERT_NE(ams, nullptr);
	ASSERT_EQ(setMRF(&b1_, kivAMRF), 0);

	write_block(*fs1_, 11);
	EXPECT_EQ(blockInMap(&ams->map, 11), -1);
	ExpectLog({});

	write_block(*fs1_, 12);
	EXPECT_EQ(ams->state, (u32)AM_STATE_NOT_IN_SYNC);
	ExpectLog({"<4>updateAM: device resize detected (block 12 in size 12) "
		   "in automap update, automap not in sync"});

	write_block(*fs1_, 3);
	EXPECT_EQ(blockInMap(&ams->map, 3), 0);
	ExpectLog({});
}

TEST_F(Sessions, ClosingOneOfTwoSessionsOnADiskKeepsTheHook)
{
	ASSERT_NE(session(b1_), nullptr);
	ASSERT_NE(session(b2_), nullptr);
	ASSERT_EQ(setMRF(&b1_, kivAMRF), 0);
	ASSERT_EQ(setMRF(&b2_, kivAMRF), 0);
	EXPECT_EQ(countQueueAMS(q_), 2);

	EXPECT_EQ(closeAMS(&b1_), 0);
	EXPECT_EQ(q_->make_request_fn, &kivAMRF);
	auto nodes = test::registry();
	ASSERT_EQ(nodes.size(), 1u);
	EXPECT_EQ(test::devices(nodes[0]), std::vector<dev_t>{disk_->dev(2)});
	EXPECT_EQ(countQueueAMS(q_), 1);

	EXPECT_EQ(closeAMS(&b2_), 0);
	EXPECT_EQ(q_->make_request_fn, real_);
	EXPECT_TRUE(test::registry().empty());
	ExpectLog({});
}

TEST_F(Sessions, UnregisteredQueueIsCountedAsTheLastRegisteredOne)
{
	emu::Disk other(test::disk_config(kMajor, 16, 16, 100000, "sdb"));
	EXPECT_EQ(countQueueAMS(other.queue()), 0);

	ASSERT_NE(session(b1_), nullptr);
	ASSERT_NE(session(b2_), nullptr);
	ASSERT_EQ(setMRF(&b1_, kivAMRF), 0);
	ASSERT_EQ(setMRF(&b2_, kivAMRF), 0);
	EXPECT_EQ(countQueueAMS(other.queue()), 2);

	closeAllAMS();
	EXPECT_EQ(q_->make_request_fn, real_);
	EXPECT_EQ(countQueueAMS(other.queue()), 0);
	ExpectLog({});
}

TEST_F(Sessions, NullQueueCountsZeroAndCannotBeUnhooked)
{
	EXPECT_EQ(countQueueAMS(nullptr), 0);
	unsetQueueMRFAMS(nullptr);
	ExpectLog({"<3>countQueueAMS: Could not count ams sessions for request "
		   "queue because queue was null.",
		   "<3>unsetQueueMRFAMS: Could not unset MRFS for request "
		   "queue because queue was null."});
}

TEST_F(Sessions, DeviceErrorMarksEverySessionOfItsQueueAndKeepsTheHook)
{
	AutoMapSession *a1 = in_sync_session(b1_);
	AutoMapSession *a2 = in_sync_session(b2_);
	ASSERT_NE(a1, nullptr);
	ASSERT_NE(a2, nullptr);
	ASSERT_EQ(setMRF(&b1_, kivAMRF), 0);
	ASSERT_EQ(setMRF(&b2_, kivAMRF), 0);

	errorAMSDEV(disk_->dev(2));
	EXPECT_EQ(a1->state, (u32)AM_STATE_NOT_IN_SYNC);
	EXPECT_EQ(a2->state, (u32)AM_STATE_NOT_IN_SYNC);
	EXPECT_EQ(q_->make_request_fn, &kivAMRF);
	EXPECT_EQ(test::registry().size(), 1u);
	ExpectLog({});
}

TEST_F(Sessions, BackupFailureWithAnotherTrackedPartitionReinstallsTracking)
{
	AutoMapSession *a1 = in_sync_session(b1_);
	AutoMapSession *a2 = in_sync_session(b2_);
	ASSERT_NE(a1, nullptr);
	ASSERT_NE(a2, nullptr);
	ASSERT_EQ(setMRF(&b2_, kivAMRF), 0);
	// The backup of partition 1 intercepts the queue when it fails.
	ASSERT_EQ(setMRF(&b1_, backupHook), 0);

	errorAMS(&b1_);
	EXPECT_EQ(a1->state, (u32)AM_STATE_NOT_IN_SYNC);
	EXPECT_EQ(a2->state, (u32)AM_STATE_IN_SYNC);
	EXPECT_EQ(q_->make_request_fn, &kivAMRF);
	EXPECT_EQ(slot(1), a1);
	ExpectLog({});
}

TEST_F(Sessions, BackupFailureAloneUnhooksTheQueueAndKeepsTheSession)
{
	AutoMapSession *a1 = in_sync_session(b1_);
	ASSERT_NE(a1, nullptr);
	ASSERT_EQ(setMRF(&b1_, backupHook), 0);

	errorAMS(&b1_);
	// unsetQueueMRFAMS leaves interrupts off; a failing backup's caller
	// (a writer, kbackupd) gets its own state back and may sleep.
	EXPECT_FALSE(irqs_disabled());

	EXPECT_EQ(q_->make_request_fn, real_);
	EXPECT_TRUE(test::registry().empty());
	EXPECT_EQ(slot(1), a1);
	EXPECT_EQ(a1->state, (u32)AM_STATE_NOT_IN_SYNC);
	ExpectLog({});
}

TEST_F(Sessions, SleepAfterUnhookingWarnsOnceAndRunsOnWithInterruptsOn)
{
	AutoMapSession *a1 = in_sync_session(b1_);
	ASSERT_NE(a1, nullptr);
	ASSERT_EQ(setMRF(&b1_, backupHook), 0);
	struct completion done;
	init_completion(&done);
	complete(&done);
	complete(&done);

	unsetQueueMRFAMS(q_);
	// unsetQueueMRFAMS restores the interrupt state that the session
	// table's lock saved inside the registry's lock (one variable serves
	// both): the caller goes on with interrupts disabled.
	ASSERT_TRUE(irqs_disabled());
	// The next sleep is the kernel's one warning of this path: 2.6.27
	// prints it and goes on, and the sleep turns interrupts back on.
	const int line = __LINE__ + 1;
	wait_for_completion(&done);
	EXPECT_FALSE(irqs_disabled());
	wait_for_completion(&done);   // interrupts on: nothing more to say
	ExpectLog({"<3>BUG: sleeping function called from invalid context "
		   "at tests/test_driver_sessions_extra.cpp:" +
		   std::to_string(line),
		   "<4>in_atomic():0, irqs_disabled():1"});
	EXPECT_EQ(q_->make_request_fn, real_);
	EXPECT_EQ(a1->state, (u32)AM_STATE_NOT_IN_SYNC);
}

// UNLOAD on a file closes every session and gives the queue back.
class SessionsUnload : public Sessions {
protected:
	void SetUp() override
	{
		Sessions::SetUp();
		ASSERT_EQ(emu::module_load(), 0);
		emu::mknod("/dev/corvalin", KIV_MAJOR, 0);
		proc_ = std::make_unique<emu::Process>();
		emu::log_clear();
	}
	void TearDown() override
	{
		proc_.reset();
		// The sessions' own clean-up runs the module's code: before
		// the unload, which leaves the module's data poisoned.
		closeAllAMS();
		EXPECT_TRUE(test::registry().empty());
		test::clear_registry();
		EXPECT_EQ(atomic_read(&curAllocAMPages), 0);
		EXPECT_EQ(emu::module_unload(), 0);
		emu::log_clear();
		test::TwoPartitions::TearDown();
	}
	std::unique_ptr<emu::Process> proc_;
};

TEST_F(SessionsUnload, UnloadCommandClosesEverySession)
{
	ASSERT_NE(session(b1_), nullptr);
	ASSERT_NE(session(b2_), nullptr);
	ASSERT_EQ(setMRF(&b1_, kivAMRF), 0);
	ASSERT_EQ(setMRF(&b2_, kivAMRF), 0);

	int fd = proc_->open("/dev/corvalin");
	ASSERT_GE(fd, 0);
	EXPECT_EQ(proc_->ioctl(fd, KIV_IOC_UNLOAD, 0), 0);
	EXPECT_EQ(slot(1), nullptr);
	EXPECT_EQ(slot(2), nullptr);
	EXPECT_EQ(atomic_read(&curAllocAMPages), 0);
	EXPECT_EQ(q_->make_request_fn, real_);
	EXPECT_TRUE(test::registry().empty());
	EXPECT_EQ(proc_->close(fd), 0);
	ExpectLog({});
}

}  // namespace
