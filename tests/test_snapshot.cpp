// SNAPSHOT and SYNC: the point in time of a backup.  The queue gets the
// backup's interception, the file system is frozen, the partition's change
// map is handed over (or tracking starts afresh) at the frozen instant,
// and the session gets a fresh key.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "test_readpath_util.hpp"

namespace {

using readpath::Key;

class Snapshot : public readpath::ReadPath {
protected:
	// The key presented by the next SNAPSHOT, at page_ + 1024.
	void present(const unsigned char *k, std::size_t len)
	{
		ASSERT_TRUE(proc->poke(page_ + 1024, k, len));
	}
	// START_BACKUP, then a SNAPSHOT of key length `len` with the
	// `bytes` of `shown` at the key's address: accepted, the freeze's
	// line only, the session's map handed over.
	void expect_key_accepted(const unsigned char *shown, std::size_t bytes,
				 std::uint32_t len)
	{
		ASSERT_EQ(start(), 0);
		present(shown, bytes);
		emu::log_clear();
		EXPECT_EQ(snapshot(len), 0);
		ExpectLog({freeze_line()});
		EXPECT_NE(b_->blockMap.map, nullptr) << "handed over";
	}
	// A first backup of partition 1 snapshotted and closed: the
	// partition keeps an in-sync session (and kivAMRF on its queue).
	Key first_backup(std::uint32_t total = 0)
	{
		EXPECT_EQ(start(1024, total), 0);
		EXPECT_EQ(snapshot(), 0);
		EXPECT_EQ(b_->state, static_cast<u32>(BU_STATE_SNAPSHOT));
		Key k = key_of(session());
		reopen();
		return k;
	}
	void reopen()
	{
		EXPECT_EQ(proc->close(fd_), 0);
		fd_ = open_device();
		ASSERT_GE(fd_, 0);
		b_ = test::backup_of(*proc, fd_);
		emu::log_clear();
	}
	std::vector<std::uint32_t> bits(BlockMap *m)
	{
		std::vector<std::uint32_t> v;
		for (std::uint32_t n = 0; n < m->size; n++)
			if (in_map(m, n))
				v.push_back(n);
		return v;
	}
	void write_block(std::uint64_t n, unsigned char fill)
	{
		std::vector<std::byte> v(bs, std::byte{fill});
		ASSERT_EQ(fs->write_block(n, v), 0);
	}
	// Partition 1 stays open without a file system (as a raw reader
	// would keep it): it keeps its disk and queue, but nothing freezes.
	void hold_open()
	{
		disk->bdev(1)->bd_disk = disk->gendisk();
		held_open = true;
	}
	void TearDown() override
	{
		if (held_open) {
			OpenFile::TearDown();
			disk->bdev(1)->bd_disk = nullptr;
			disk.reset();
			return;
		}
		ReadPath::TearDown();
	}
	bool held_open = false;

	// Give partition 1 an in-sync session again, as a later tracker
	// would, so that the close hands the queue to change tracking.
	void track_again()
	{
		if (session()) {
			setAMSState(session(), AM_STATE_IN_SYNC);
			return;
		}
		proc->run_as([&] {
			AutoMapSession *ams = nullptr;
			ASSERT_EQ(newAMS(b_, &ams), 0);
			setAMSState(ams, AM_STATE_IN_SYNC);
		});
	}
	std::string freeze_line()
	{
		return "<3>ioctlSnapShot: Going to freez: 8.1";
	}
};

TEST_F(Snapshot, OutsideStateTwoIsRefusedSilently)
{
	make_disk(4096);
	EXPECT_EQ(snapshot(), 2);
	ExpectLog({});
	ASSERT_EQ(start(), 0);
	emu::log_clear();
	EXPECT_EQ(snapshot(), 0);
	emu::log_clear();
	EXPECT_EQ(snapshot(), 2);
	EXPECT_EQ(b_->state, static_cast<u32>(BU_STATE_SNAPSHOT));
	ExpectLog({});
}

TEST_F(Snapshot, FirstSnapshotStartsANewSessionAndLeavesTheMapEmpty)
{
	make_disk(4096);
	ASSERT_EQ(start(), 0);
	emu::log_clear();
	EXPECT_EQ(session(), nullptr);
	EXPECT_EQ(snapshot(), 0);
	ExpectLog({freeze_line()});
	EXPECT_EQ(b_->state, static_cast<u32>(BU_STATE_SNAPSHOT));
	EXPECT_EQ(b_->blockMap.map, nullptr);
	AutoMapSession *ams = session();
	ASSERT_NE(ams, nullptr);
	EXPECT_EQ(ams->state, static_cast<u32>(AM_STATE_IN_SYNC));
	EXPECT_EQ(ams->map.size, blocks);
	EXPECT_NE(key_of(ams), Key{}) << "a fresh random key, not zeros";
	EXPECT_EQ(disk->queue()->make_request_fn, &kivMRF);
	EXPECT_GE(b_->eTimeFrozen.tv_sec * 1000000000LL + b_->eTimeFrozen.tv_nsec,
		  b_->eTimeToFreeze.tv_sec * 1000000000LL +
			  b_->eTimeToFreeze.tv_nsec);
	EXPECT_GE(b_->eTimeToFreeze.tv_nsec, 0);
	EXPECT_LT(b_->eTimeFrozen.tv_nsec, 1000000000L);
}

TEST_F(Snapshot, MatchingKeyHandsOverExactlyTheBlocksWrittenSince)
{
	make_disk(1024);
	const Key k1 = first_backup();
	write_block(7, 0x11);
	write_block(100, 0x22);
	write_block(7, 0x33);
	ASSERT_EQ(fs->sync(), 0);
	AutoMapSession *ams = session();
	ASSERT_NE(ams, nullptr);

	ASSERT_EQ(start(), 0);
	present(k1.data(), 56);
	const int cur = atomic_read(&b_->curAllocPages);
	emu::log_clear();
	EXPECT_EQ(snapshot(56), 0);
	ExpectLog({freeze_line()});
	EXPECT_EQ(b_->state, static_cast<u32>(BU_STATE_SNAPSHOT));
	EXPECT_EQ(session(), ams) << "the session is kept";
	EXPECT_EQ(b_->blockMap.size, blocks);
	EXPECT_EQ(bits(&b_->blockMap), (std::vector<std::uint32_t>{7, 100}));
	EXPECT_EQ(bits(&ams->map), std::vector<std::uint32_t>{});
	EXPECT_EQ(ams->state, static_cast<u32>(AM_STATE_IN_SYNC));
	EXPECT_NE(key_of(ams), k1);
	EXPECT_EQ(atomic_read(&b_->curAllocPages), cur + 1);
}

TEST_F(Snapshot, ShortKeyIsComparedAsItsBytesFollowedByZeros)
{
	make_disk(4096);
	first_backup();
	AutoMapSession *ams = session();
	// A key whose last 36 bytes are zero, presented with 20 bytes and
	// garbage behind them.
	Key k{};
	for (int i = 0; i < 20; i++)
		k[i] = static_cast<unsigned char>(i + 1);
	std::memcpy(ams->sessionKey.key, k.data(), 56);
	Key shown = k;
	for (int i = 20; i < 56; i++)
		shown[i] = 0xEE;
	expect_key_accepted(shown.data(), 56, 20);
}

TEST_F(Snapshot, LongKeyIsCutAtFiftySixBytes)
{
	make_disk(4096);
	const Key k1 = first_backup();
	std::vector<unsigned char> shown(k1.begin(), k1.end());
	shown.resize(100, 0xEE);
	expect_key_accepted(shown.data(), shown.size(), 100);
}

TEST_F(Snapshot, WrongKeyReturnsZeroAndChangesNothing)
{
	make_disk(4096);
	const Key k1 = first_backup();
	AutoMapSession *ams = session();
	write_block(3, 0x44);
	ASSERT_EQ(fs->sync(), 0);
	ASSERT_EQ(start(), 0);
	Key wrong = k1;
	wrong[55] ^= 1;
	present(wrong.data(), 56);
	emu::log_clear();
	EXPECT_EQ(snapshot(56), 0);
	ExpectLog({"<3>ioctlSnapShot: session key mismatch"});
	EXPECT_EQ(b_->state, static_cast<u32>(BU_STATE_STARTED));
	EXPECT_EQ(b_->blockMap.map, nullptr);
	EXPECT_EQ(session(), ams);
	EXPECT_EQ(key_of(ams), k1);
	EXPECT_EQ(bits(&ams->map), std::vector<std::uint32_t>{3});
	EXPECT_EQ(atomic_read(&ams->users), 1);
	// The old key is still good.
	present(k1.data(), 56);
	EXPECT_EQ(snapshot(56), 0);
	EXPECT_EQ(b_->state, static_cast<u32>(BU_STATE_SNAPSHOT));
	EXPECT_EQ(bits(&b_->blockMap), std::vector<std::uint32_t>{3});
}

TEST_F(Snapshot, EverySuccessfulSnapshotChangesTheKey)
{
	make_disk(4096);
	const Key k1 = first_backup();
	ASSERT_EQ(start(), 0);
	present(k1.data(), 56);
	EXPECT_EQ(snapshot(56), 0);
	const Key k2 = key_of(session());
	EXPECT_NE(k2, k1);
	reopen();
	ASSERT_EQ(start(), 0);
	emu::log_clear();
	// Without the key: refused, key unchanged.
	EXPECT_EQ(snapshot(0), 0);
	ExpectLog({"<3>ioctlSnapShot: session key mismatch"});
	EXPECT_EQ(b_->state, static_cast<u32>(BU_STATE_STARTED));
	present(k2.data(), 56);
	EXPECT_EQ(snapshot(56), 0);
	EXPECT_NE(key_of(session()), k2);
	EXPECT_NE(key_of(session()), k1);
}

TEST_F(Snapshot, NoStartAutoMapClosesTheSession)
{
	make_disk(4096);
	first_backup();
	ASSERT_EQ(start(), 0);
	ASSERT_EQ(ioctl(KIV_IOC_NO_START_AUTOMAP, 0), 0);
	emu::log_clear();
	EXPECT_EQ(snapshot(), 0);
	ExpectLog({freeze_line()});
	EXPECT_EQ(session(), nullptr);
	EXPECT_EQ(b_->blockMap.map, nullptr);
	EXPECT_EQ(b_->state, static_cast<u32>(BU_STATE_SNAPSHOT));
	EXPECT_EQ(atomic_read(&curAllocAMPages), 0);
	track_again();
}

TEST_F(Snapshot, NoStartAutoMapWithoutSessionStartsNone)
{
	make_disk(4096);
	ASSERT_EQ(start(), 0);
	ASSERT_EQ(ioctl(KIV_IOC_NO_START_AUTOMAP, 0), 0);
	emu::log_clear();
	EXPECT_EQ(snapshot(), 0);
	ExpectLog({freeze_line()});
	EXPECT_EQ(session(), nullptr);
	EXPECT_EQ(b_->state, static_cast<u32>(BU_STATE_SNAPSHOT));
	track_again();
}

TEST_F(Snapshot, NoLoadFromAutoMapStartsAFreshSession)
{
	make_disk(4096);
	const Key k1 = first_backup();
	AutoMapSession *old = session();
	ASSERT_EQ(start(), 0);
	ASSERT_EQ(ioctl(KIV_IOC_NO_LOAD_FROM_AUTOMAP, 0), 0);
	present(k1.data(), 56);
	emu::log_clear();
	EXPECT_EQ(snapshot(56), 0);
	ExpectLog({freeze_line()});
	EXPECT_NE(session(), nullptr);
	EXPECT_EQ(session()->state, static_cast<u32>(AM_STATE_IN_SYNC));
	EXPECT_NE(key_of(session()), k1);
	EXPECT_EQ(b_->blockMap.map, nullptr);
	(void)old;
}

TEST_F(Snapshot, ResizedPartitionResetsTheSession)
{
	make_disk(4096);
	const Key k1 = first_backup(blocks - 8);
	ASSERT_EQ(start(), 0);
	present(k1.data(), 56);
	emu::log_clear();
	EXPECT_EQ(snapshot(56), 0);
	// Both %u show halves of the 64-bit block count.
	ExpectLog({"<4>ioctlSnapShot: device resize detected, device has (" +
			   std::to_string(blocks) +
			   ") blocks and automap has (0), resetting automap",
		   freeze_line()});
	EXPECT_EQ(session()->map.size, blocks);
	EXPECT_EQ(session()->state, static_cast<u32>(AM_STATE_IN_SYNC));
	EXPECT_EQ(b_->blockMap.map, nullptr);
}

TEST_F(Snapshot, UnreadableKeyIsSix)
{
	make_disk(4096);
	ASSERT_EQ(start(), 0);
	SnapShot rec{proc->unmapped_address(), 56};
	ASSERT_TRUE(proc->poke(page_ + 2048, &rec, sizeof(rec)));
	emu::log_clear();
	EXPECT_EQ(ioctl(KIV_IOC_SNAPSHOT, page_ + 2048), 6);
	ExpectLog({"<3>ioctlSnapShot: copy from user space failed"});
	EXPECT_EQ(b_->state, static_cast<u32>(BU_STATE_STARTED));
	EXPECT_EQ(session(), nullptr);
}

TEST_F(Snapshot, SessionWithoutMemoryIsFive)
{
	make_disk(4096);
	ASSERT_EQ(start(), 0);
	emu::log_clear();
	const emu::Usage base = emu::usage();
	{
		auto fail = emu::FailScope::nth(emu::Alloc::Kmalloc, 1);
		EXPECT_EQ(snapshot(), 5);
	}
	ExpectLog({"<3>ioctlSnapShot: new automap failed"});
	EXPECT_EQ(session(), nullptr);
	EXPECT_EQ(b_->state, static_cast<u32>(BU_STATE_STARTED));
	EXPECT_EQ(emu::usage(), base);
	// The command can be repeated.
	EXPECT_EQ(snapshot(), 0);
	EXPECT_EQ(b_->state, static_cast<u32>(BU_STATE_SNAPSHOT));
}

TEST_F(Snapshot, SessionMapWithoutMemoryIsFive)
{
	make_disk(4096);
	ASSERT_EQ(start(), 0);
	emu::log_clear();
	const emu::Usage base = emu::usage();
	{
		auto fail = emu::FailScope::nth(emu::Alloc::Pages, 1);
		EXPECT_EQ(snapshot(), 5);
	}
	ExpectLog({"<3>newBlockMap: failed allocating page number (0) for "
		   "block map",
		   "<3>newBlockMap: Out of Memory Error.",
		   "<3>newAMS: failed to create new device map",
		   "<3>ioctlSnapShot: new automap failed"});
	EXPECT_EQ(session(), nullptr);
	EXPECT_EQ(b_->state, static_cast<u32>(BU_STATE_STARTED));
	EXPECT_EQ(emu::usage(), base);
}

TEST_F(Snapshot, HandOverMapWithoutMemoryIsFiveAndKeepsTheSession)
{
	make_disk(4096);
	const Key k1 = first_backup();
	AutoMapSession *ams = session();
	ASSERT_EQ(start(), 0);
	present(k1.data(), 56);
	emu::log_clear();
	const emu::Usage base = emu::usage();
	{
		auto fail = emu::FailScope::nth(emu::Alloc::Pages, 1);
		EXPECT_EQ(snapshot(56), 5);
	}
	ExpectLog({"<3>newBlockMap: failed allocating page number (0) for "
		   "block map",
		   "<3>newBlockMap: Out of Memory Error.",
		   "<3>ioctlSnapShot: failed to create new device map"});
	EXPECT_EQ(emu::usage(), base);
	EXPECT_EQ(session(), ams);
	EXPECT_EQ(key_of(ams), k1);
	EXPECT_EQ(atomic_read(&ams->users), 1);
	EXPECT_EQ(b_->blockMap.map, nullptr);
	EXPECT_EQ(b_->state, static_cast<u32>(BU_STATE_STARTED));
}

TEST_F(Snapshot, PartitionNobodyHasOpenCannotBeHooked)
{
	make_disk(4096);
	ASSERT_EQ(start(), 0);
	// Unmounted and closed: the partition has no disk, so no queue.
	fs.reset();
	emu::log_clear();
	EXPECT_EQ(snapshot(), 2);
	ExpectLog({"<3>ioctlSnapShot: device major=8 minor=1 not valid"});
	EXPECT_EQ(b_->state, static_cast<u32>(BU_STATE_STARTED));
	// The new session stays registered, not in sync.
	ASSERT_NE(session(), nullptr);
	EXPECT_EQ(session()->state, static_cast<u32>(AM_STATE_NOT_IN_SYNC));
	EXPECT_EQ(disk->queue()->make_request_fn, emu::Disk::request_fn());
	EXPECT_NE(key_of(session()), Key{});
}

TEST_F(Snapshot, UnmountedPartitionCannotBeFrozen)
{
	make_disk(4096);
	ASSERT_EQ(start(), 0);
	fs.reset();
	hold_open();
	emu::log_clear();
	EXPECT_EQ(snapshot(), 2);
	ExpectLog({freeze_line(),
		   "<3>ioctlSnapShot: freeze_bdev could not freeze the "
		   "device."});
	EXPECT_EQ(b_->state, static_cast<u32>(BU_STATE_STARTED));
	// The new session stays registered, not in sync; the hook stays.
	ASSERT_NE(session(), nullptr);
	EXPECT_EQ(session()->state, static_cast<u32>(AM_STATE_NOT_IN_SYNC));
	EXPECT_EQ(disk->queue()->make_request_fn, &kivMRF);
	track_again();
}

TEST_F(Snapshot, FailedFreezeGivesTheHandOverMapBackAndKeepsTheNewKey)
{
	make_disk(4096);
	const Key k1 = first_backup();
	AutoMapSession *ams = session();
	ASSERT_EQ(start(), 0);
	fs.reset();
	hold_open();
	present(k1.data(), 56);
	const int cur = atomic_read(&b_->curAllocPages);
	emu::log_clear();
	EXPECT_EQ(snapshot(56), 2);
	ExpectLog({freeze_line(),
		   "<3>ioctlSnapShot: freeze_bdev could not freeze the "
		   "device."});
	EXPECT_EQ(b_->blockMap.map, nullptr);
	EXPECT_EQ(atomic_read(&b_->curAllocPages), cur);
	const Key k2 = key_of(ams);
	EXPECT_NE(k2, k1);
	// The key read before the failure no longer matches.
	EXPECT_EQ(snapshot(56), 0);
	ExpectLog({"<3>ioctlSnapShot: session key mismatch"});
	EXPECT_EQ(b_->state, static_cast<u32>(BU_STATE_STARTED));
	// The new one does (and the freeze fails again).
	present(k2.data(), 56);
	EXPECT_EQ(snapshot(56), 2);
	EXPECT_EQ(atomic_read(&b_->curAllocPages), cur);
	emu::log_clear();
}

TEST_F(Snapshot, SessionOutOfSyncAtTheFreezeIsResyncedWithoutExchange)
{
	make_disk(1024);
	const Key k1 = first_backup(blocks - 8);
	AutoMapSession *ams = session();
	write_block(5, 0x55);
	ASSERT_EQ(fs->sync(), 0);
	ASSERT_EQ(start(1024, blocks - 8), 0);
	// Written back by the freeze, beyond the session's map.
	write_block(blocks - 2, 0x66);
	present(k1.data(), 56);
	emu::log_clear();
	EXPECT_EQ(snapshot(56), 0);
	ExpectLog({freeze_line(),
		   "<4>updateAM: device resize detected (block " +
			   std::to_string(blocks - 2) + " in size " +
			   std::to_string(blocks - 8) +
			   ") in automap update, automap not in sync"});
	EXPECT_EQ(b_->state, static_cast<u32>(BU_STATE_SNAPSHOT));
	EXPECT_EQ(session(), ams);
	EXPECT_EQ(ams->state, static_cast<u32>(AM_STATE_IN_SYNC));
	EXPECT_NE(b_->blockMap.map, nullptr);
	EXPECT_EQ(bits(&b_->blockMap), std::vector<std::uint32_t>{});
	EXPECT_EQ(bits(&ams->map), std::vector<std::uint32_t>{5});
}

TEST_F(Snapshot, SyncWritesBackTheDirtyBlocks)
{
	make_disk(4096);
	EXPECT_EQ(ioctl(KIV_IOC_SYNC, 0), 0) << "no backup: nothing to do";
	ASSERT_EQ(start(), 0);
	write_block(9, 0x77);
	EXPECT_EQ(fs->dirty_blocks(), 1u);
	emu::log_clear();
	EXPECT_EQ(ioctl(KIV_IOC_SYNC, 0), 0);
	EXPECT_EQ(fs->dirty_blocks(), 0u);
	std::vector<std::byte> got(4096);
	disk->read(readpath::kP1Start + 9 * 8, got);
	EXPECT_EQ(got, std::vector<std::byte>(4096, std::byte{0x77}));
	ExpectLog({});
}

TEST(SnapshotTimes, DifferenceBorrowsOneSecondForNegativeNanoseconds)
{
	struct timespec a = {10, 900000000}, b = {12, 100000000};
	struct timespec d = calcTimeDiff(&a, &b);
	EXPECT_EQ(d.tv_sec, 1);
	EXPECT_EQ(d.tv_nsec, 200000000);
	struct timespec c = {12, 950000000};
	d = calcTimeDiff(&a, &c);
	EXPECT_EQ(d.tv_sec, 2);
	EXPECT_EQ(d.tv_nsec, 50000000);
	d = calcTimeDiff(&a, &a);
	EXPECT_EQ(d.tv_sec, 0);
	EXPECT_EQ(d.tv_nsec, 0);
}

}  // namespace
