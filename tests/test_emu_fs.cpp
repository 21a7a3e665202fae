// The emulated file systems: super blocks and their references, the block
// write/read API, writeback through the queue, syncing, freezing and
// thawing.
#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "test_emu_block_util.hpp"

#include "emu/process.hpp"

using namespace blocktest;

namespace {

class Fs : public DiskTest {
protected:
	void SetUp() override
	{
		disk_ = std::make_unique<emu::Disk>(
			disk_config(16, 40000, "sdb", 2));
		ASSERT_EQ(disk_->add_partition(1, 63, 20000), 0);
		ASSERT_EQ(disk_->add_partition(2, 20063, 16000), 0);
		mount_fs(1, 4096);
	}

	// Block `block` of partition 1 as the disk holds it.
	std::vector<std::byte> on_disk(std::uint64_t block, unsigned bs = 4096)
	{
		std::vector<std::byte> data(bs);
		disk_->read(63 + block * (bs / 512), data);
		return data;
	}
};

// ---------------------------------------------------------------------------
// super blocks

TEST_F(Fs, MountedSuperBlockDescribesTheFileSystem)
{
	struct super_block *sb = fs_->sb();
	EXPECT_EQ(sb->s_blocksize, 4096u);
	EXPECT_EQ(sb->s_blocksize_bits, 12);
	EXPECT_EQ(sb->s_bdev, fs_->bdev());
	EXPECT_EQ(sb->s_dev, disk_->dev(1));
	EXPECT_EQ(sb->s_count, S_BIAS);
	EXPECT_EQ(atomic_read(&sb->s_active), 1);
	EXPECT_EQ(sb->s_frozen, SB_UNFROZEN);
	EXPECT_STREQ(sb->s_id, "sdb1");
	EXPECT_EQ(fs_->blocks(), 20000u / 8);
}

TEST_F(Fs, GetSuperTakesAReferenceThatDropSuperGivesBack)
{
	struct super_block *sb = get_super(fs_->bdev());
	ASSERT_EQ(sb, fs_->sb());
	EXPECT_EQ(sb->s_count, S_BIAS + 1);
	// The second reference from another task: one task taking s_umount
	// for reading twice is a recursive down_read, which the lock
	// validator reports (it deadlocks once a writer queues in between).
	struct super_block *again = nullptr;
	std::thread([&] { again = get_super(fs_->bdev()); }).join();
	EXPECT_EQ(again, sb);
	EXPECT_EQ(sb->s_count, S_BIAS + 2);
	drop_super(again);
	drop_super(sb);
	EXPECT_EQ(sb->s_count, S_BIAS);
	EXPECT_EQ(user_get_super(disk_->dev(1)), sb);
	EXPECT_EQ(sb->s_count, S_BIAS + 1);
	drop_super(sb);
}

TEST_F(Fs, GetSuperOfADeviceWithoutFileSystemIsNull)
{
	EXPECT_EQ(get_super(nullptr), nullptr);
	EXPECT_EQ(get_super(disk_->bdev(2)), nullptr);
	// The whole disk is open (for the partition) but not mounted.
	EXPECT_EQ(get_super(disk_->bdev(0)), nullptr);
	EXPECT_EQ(get_super(bdget(MKDEV(251, 0))), nullptr);
	EXPECT_EQ(user_get_super(disk_->dev(2)), nullptr);
}

TEST(FsMount, ReadsTheBlockSizeOfAnExt2SuperBlock)
{
	emu::DiskConfig c;
	c.first_minor = 16;
	c.sectors = 4096;
	c.name = "sdb";
	emu::Disk disk(c);
	ASSERT_EQ(disk.add_partition(1, 63, 4000), 0);
	EXPECT_EQ(emu::ext2_block_size(disk, 1), 0u);
	std::vector<std::byte> sb(1024);
	sb[24] = std::byte{1};     // s_log_block_size: 2048
	sb[56] = std::byte{0x53};  // s_magic 0xEF53
	sb[57] = std::byte{0xef};
	disk.write(63 + 2, sb);
	EXPECT_EQ(emu::ext2_block_size(disk, 1), 2048u);
	emu::FileSystem fs(disk, 1, 0);
	EXPECT_EQ(fs.block_size(), 2048u);
	EXPECT_EQ(fs.sb()->s_blocksize, 2048u);
}

TEST(FsMountDeathTest, MountingTwiceOnOneDeviceIsFatal)
{
	EXPECT_DEATH(
		([] {
			emu::DiskConfig c;
			c.first_minor = 16;
			c.sectors = 4096;
			c.name = "sdb";
			emu::Disk disk(c);
			emu::FileSystem a(disk, 0, 1024);
			emu::FileSystem b(disk, 0, 1024);
		}()),
		"already has a mounted file system");
}

// ---------------------------------------------------------------------------
// writes, reads, writeback

TEST_F(Fs, WritesStayDirtyUntilSyncWritesThemThroughTheQueue)
{
	Hook hook(disk_->queue());
	ASSERT_EQ(fs_->write_block(5, pattern(4096, 0x42)), 0);
	ASSERT_EQ(fs_->write_block(9, pattern(4096, 0x43)), 0);
	EXPECT_EQ(fs_->dirty_blocks(), 2u);
	EXPECT_EQ(on_disk(5), pattern(4096, 0));
	EXPECT_EQ(hook.calls(), 0);
	EXPECT_EQ(fs_->sync(), 0);
	EXPECT_EQ(fs_->dirty_blocks(), 0u);
	EXPECT_EQ(on_disk(5), pattern(4096, 0x42));
	EXPECT_EQ(on_disk(9), pattern(4096, 0x43));
	auto seen = hook.seen();
	ASSERT_EQ(seen.size(), 2u);
	std::sort(seen.begin(), seen.end(), [](auto &a, auto &b) {
		return a.sector < b.sector;
	});
	EXPECT_EQ(seen[0].sector, 63u + 5 * 8);
	EXPECT_EQ(seen[0].dev, disk_->dev(0));
	EXPECT_EQ(seen[0].rw & 1, static_cast<unsigned long>(WRITE));
	EXPECT_EQ(seen[0].size, 4096u);
	EXPECT_EQ(seen[1].sector, 63u + 9 * 8);
	EXPECT_EQ(fs_->writes_submitted(), 2u);
	EXPECT_EQ(emu::usage().bios, 0);
}

TEST_F(Fs, RewritingADirtyBlockKeepsOnlyTheNewest)
{
	ASSERT_EQ(fs_->write_block(3, pattern(4096, 1)), 0);
	ASSERT_EQ(fs_->write_block(3, pattern(4096, 2)), 0);
	EXPECT_EQ(fs_->dirty_blocks(), 1u);
	EXPECT_EQ(fs_->sync(), 0);
	EXPECT_EQ(on_disk(3), pattern(4096, 2));
	EXPECT_EQ(fs_->writes_submitted(), 1u);
}

TEST_F(Fs, ReadsSeeTheDirtyCopyOrGoThroughTheQueue)
{
	disk_->write(63 + 7 * 8, pattern(4096, 0x77));
	Hook hook(disk_->queue());
	std::vector<std::byte> out(4096);
	ASSERT_EQ(fs_->read_block(7, out), 0);
	EXPECT_EQ(out, pattern(4096, 0x77));
	auto seen = hook.seen();
	ASSERT_EQ(seen.size(), 1u);
	EXPECT_EQ(seen[0].sector, 63u + 7 * 8);
	EXPECT_EQ(seen[0].rw & 1, static_cast<unsigned long>(READ));
	ASSERT_EQ(fs_->write_block(7, pattern(4096, 0x78)), 0);
	ASSERT_EQ(fs_->read_block(7, out), 0);
	EXPECT_EQ(out, pattern(4096, 0x78));
	EXPECT_EQ(hook.calls(), 1);  // served from the dirty copy
}

TEST_F(Fs, BadArgumentsAreRefused)
{
	EXPECT_EQ(fs_->write_block(fs_->blocks(), pattern(4096, 0)), -EINVAL);
	EXPECT_EQ(fs_->write_block(0, pattern(512, 0)), -EINVAL);
	std::vector<std::byte> out(1024);
	EXPECT_EQ(fs_->read_block(0, out), -EINVAL);
	emu::FileSystem ro(*disk_, 2, 1024, true);
	EXPECT_EQ(ro.write_block(0, pattern(1024, 0)), -EROFS);
	EXPECT_EQ(ro.sb()->s_flags & MS_RDONLY,
		  static_cast<unsigned long>(MS_RDONLY));
}

TEST_F(Fs, WriteWithoutAPageFailsWithEnomemAndLeavesNothing)
{
	{
		auto fail = emu::FailScope::nth(emu::Alloc::Pages, 1);
		EXPECT_EQ(fs_->write_block(1, pattern(4096, 1)), -ENOMEM);
	}
	EXPECT_EQ(fs_->dirty_blocks(), 0u);
	{
		auto fail = emu::FailScope::nth(emu::Alloc::Pages, 1);
		std::vector<std::byte> out(4096);
		EXPECT_EQ(fs_->read_block(1, out), -ENOMEM);
	}
}

TEST_F(Fs, FailedWritebackIsReportedOnceBySync)
{
	disk_->fail_sectors(63 + 4 * 8, 8, -EIO, emu::Dir::Write);
	ASSERT_EQ(fs_->write_block(4, pattern(4096, 4)), 0);
	ASSERT_EQ(fs_->write_block(6, pattern(4096, 6)), 0);
	EXPECT_EQ(fs_->sync(), -EIO);
	EXPECT_EQ(fs_->sync(), 0);
	EXPECT_EQ(on_disk(4), pattern(4096, 0));
	EXPECT_EQ(on_disk(6), pattern(4096, 6));
	ExpectLog({"<3>end_request: I/O error, dev sdb, sector 95"});
	std::vector<std::byte> out(4096);
	EXPECT_EQ(fs_->read_block(4, out), 0);  // reads are not failed
	disk_->clear_failures();
}

TEST_F(Fs, ReadErrorIsEio)
{
	disk_->fail_sectors(63 + 2 * 8 + 3, 1, -EIO, emu::Dir::Read);
	std::vector<std::byte> out(4096);
	EXPECT_EQ(fs_->read_block(2, out), -EIO);
	ExpectLog({"<3>end_request: I/O error, dev sdb, sector 79"});
	disk_->clear_failures();
}

TEST_F(Fs, UnmountWritesBackWhatIsDirty)
{
	ASSERT_EQ(fs_->write_block(11, pattern(4096, 0x11)), 0);
	fs_.reset();
	EXPECT_EQ(on_disk(11), pattern(4096, 0x11));
	EXPECT_EQ(disk_->bdev(1)->bd_openers, 0);
	EXPECT_EQ(get_super(disk_->bdev(1)), nullptr);
}

// ---------------------------------------------------------------------------
// fsync_bdev, sync_blockdev

TEST_F(Fs, FsyncBdevAndSyncBlockdevWriteDirtyBlocks)
{
	ASSERT_EQ(fs_->write_block(1, pattern(4096, 1)), 0);
	EXPECT_EQ(fsync_bdev(fs_->bdev()), 0);
	EXPECT_EQ(on_disk(1), pattern(4096, 1));
	EXPECT_EQ(fs_->sb()->s_count, S_BIAS);
	ASSERT_EQ(fs_->write_block(2, pattern(4096, 2)), 0);
	EXPECT_EQ(sync_blockdev(fs_->bdev()), 0);
	EXPECT_EQ(on_disk(2), pattern(4096, 2));
	// The whole disk has no file system of its own: nothing to do.
	ASSERT_EQ(fs_->write_block(3, pattern(4096, 3)), 0);
	EXPECT_EQ(sync_blockdev(disk_->bdev(0)), 0);
	EXPECT_EQ(fs_->dirty_blocks(), 1u);
}

TEST_F(Fs, FsyncBdevAndSyncBlockdevTolerateNull)
{
	EXPECT_EQ(fsync_bdev(nullptr), 0);
	EXPECT_EQ(sync_blockdev(nullptr), 0);
	EXPECT_EQ(fsync_bdev(disk_->bdev(2)), 0);
}

TEST_F(Fs, SyncBlockdevReportsAWriteErrorAndFsyncBdevLosesIt)
{
	// As in 2.6.27: fsync_super's first writeback swallows the error
	// that its second one would have reported.
	disk_->fail_sectors(63, 8, -EIO, emu::Dir::Write);
	ASSERT_EQ(fs_->write_block(0, pattern(4096, 1)), 0);
	EXPECT_EQ(fsync_bdev(fs_->bdev()), 0);
	ASSERT_EQ(fs_->write_block(0, pattern(4096, 1)), 0);
	EXPECT_EQ(sync_blockdev(fs_->bdev()), -EIO);
	ExpectLog({"<3>end_request: I/O error, dev sdb, sector 63",
		   "<3>end_request: I/O error, dev sdb, sector 63"});
	disk_->clear_failures();
}

// ---------------------------------------------------------------------------
// freeze and thaw

TEST_F(Fs, FreezeWritesDirtyDataBackAndReturnsTheSuperBlock)
{
	ASSERT_EQ(fs_->write_block(8, pattern(4096, 8)), 0);
	struct super_block *sb = freeze_bdev(fs_->bdev());
	ASSERT_EQ(sb, fs_->sb());
	EXPECT_EQ(sb->s_frozen, SB_FREEZE_TRANS);
	EXPECT_EQ(sb->s_count, S_BIAS + 1);
	EXPECT_EQ(fs_->dirty_blocks(), 0u);
	EXPECT_EQ(on_disk(8), pattern(4096, 8));
	thaw_bdev(fs_->bdev(), sb);
	EXPECT_EQ(sb->s_frozen, SB_UNFROZEN);
	EXPECT_EQ(sb->s_count, S_BIAS);
	// bd_mount_sem was given back: a second freeze does not block.
	sb = freeze_bdev(fs_->bdev());
	thaw_bdev(fs_->bdev(), sb);
}

TEST_F(Fs, FreezeWithNothingMountedReturnsNullAndThawGivesTheDeviceBack)
{
	struct block_device *bdev = disk_->bdev(2);
	EXPECT_EQ(freeze_bdev(bdev), nullptr);
	thaw_bdev(bdev, nullptr);
	EXPECT_EQ(freeze_bdev(bdev), nullptr);
	thaw_bdev(bdev, nullptr);
}

TEST_F(Fs, ReadOnlyFileSystemIsReturnedButNotFrozen)
{
	emu::FileSystem ro(*disk_, 2, 1024, true);
	struct super_block *sb = freeze_bdev(ro.bdev());
	ASSERT_EQ(sb, ro.sb());
	EXPECT_EQ(sb->s_frozen, SB_UNFROZEN);
	EXPECT_EQ(sb->s_count, S_BIAS + 1);
	thaw_bdev(ro.bdev(), sb);
	EXPECT_EQ(sb->s_count, S_BIAS);
}

TEST_F(Fs, FreezeHoldsConcurrentWritersUntilTheThaw)
{
	struct super_block *sb = freeze_bdev(fs_->bdev());
	ASSERT_NE(sb, nullptr);
	std::atomic<bool> thawed{false};
	std::atomic<int> written{0};
	std::vector<std::jthread> writers;
	for (int i = 0; i < 3; i++)
		writers.emplace_back([&, i] {
			EXPECT_EQ(fs_->write_block(20 + i, pattern(4096, 0x20)),
				  0);
			EXPECT_TRUE(thawed.load());
			written++;
		});
	while (fs_->writers_waiting() < 3)
		std::this_thread::yield();
	EXPECT_EQ(written.load(), 0);
	EXPECT_EQ(fs_->dirty_blocks(), 0u);
	thawed = true;
	thaw_bdev(fs_->bdev(), sb);
	writers.clear();
	EXPECT_EQ(written.load(), 3);
	EXPECT_EQ(fs_->writers_waiting(), 0u);
	EXPECT_EQ(fs_->dirty_blocks(), 3u);
	EXPECT_EQ(fs_->sync(), 0);
	EXPECT_EQ(on_disk(21), pattern(4096, 0x20));
}

TEST_F(Fs, ConcurrentFreezeWaitsForAWriteHeldByAHookedQueue)
{
	// A driver's make_request_fn that holds a write until another thread
	// releases it: the freeze's writeback waits for the write to end.
	Hook hook(disk_->queue());
	std::mutex m;
	std::condition_variable cv;
	std::vector<struct bio *> held;
	hook.set([&](struct request_queue *, struct bio *bio) {
		{
			std::lock_guard lk(m);
			held.push_back(bio);
		}
		cv.notify_all();
		return 0;
	});
	ASSERT_EQ(fs_->write_block(30, pattern(4096, 0x30)), 0);
	std::atomic<bool> frozen{false};
	struct super_block *sb = nullptr;
	std::jthread freezer([&] {
		sb = freeze_bdev(fs_->bdev());
		frozen = true;
	});
	{
		std::unique_lock lk(m);
		cv.wait(lk, [&] { return !held.empty(); });
	}
	EXPECT_FALSE(frozen.load());
	EXPECT_EQ(on_disk(30), pattern(4096, 0));
	hook.pass(disk_->queue(), held[0]);
	freezer.join();
	EXPECT_TRUE(frozen.load());
	EXPECT_EQ(on_disk(30), pattern(4096, 0x30));
	thaw_bdev(fs_->bdev(), sb);
}

TEST_F(Fs, FrozenImageUnderConcurrentWritersLeaksOnlyWritesPastTheCheck)
{
	// Each writer owns one block and writes increasing versions into it.
	// After freeze_bdev returns, every block on the disk holds at least
	// the version whose write had returned before the freeze began, at
	// most the one being written; until the thaw it may still move, but
	// only to a version whose write had started when the freeze returned
	// (a writer past the frozen test completes and may sync it, as on
	// 2.6.27), never beyond.
	constexpr int kWriters = 4;
	constexpr int kRounds = 6;
	std::array<std::atomic<int>, kWriters> started{}, done{};
	std::atomic<bool> stop{false};
	auto version_on_disk = [&](int w) {
		const auto data = on_disk(40 + w);
		int v;
		std::memcpy(&v, data.data(), sizeof(v));
		return v;
	};
	std::vector<std::jthread> writers;
	for (int w = 0; w < kWriters; w++)
		writers.emplace_back([&, w] {
			std::vector<std::byte> data(4096);
			for (int v = 1; !stop.load(); v++) {
				started[w] = v;
				std::memcpy(data.data(), &v, sizeof(v));
				ASSERT_EQ(fs_->write_block(40 + w, data), 0);
				done[w] = v;
				if (v % 7 == 0)
					fs_->sync();
			}
		});
	for (int round = 0; round < kRounds; round++) {
		std::array<int, kWriters> before{};
		for (int w = 0; w < kWriters; w++)
			before[w] = done[w].load();
		struct super_block *sb = freeze_bdev(fs_->bdev());
		ASSERT_EQ(sb, fs_->sb());
		std::array<int, kWriters> image{}, limit{};
		for (int w = 0; w < kWriters; w++)
			limit[w] = started[w].load();
		for (int w = 0; w < kWriters; w++) {
			image[w] = version_on_disk(w);
			EXPECT_GE(image[w], before[w])
				<< "writer " << w << " round " << round;
			EXPECT_LE(image[w], started[w].load())
				<< "writer " << w << " round " << round;
		}
		for (int i = 0; i < 100; i++)
			std::this_thread::yield();
		for (int w = 0; w < kWriters; w++) {
			EXPECT_GE(version_on_disk(w), image[w]);
			EXPECT_LE(version_on_disk(w), limit[w]);
		}
		thaw_bdev(fs_->bdev(), sb);
		for (int i = 0; i < 100; i++)
			std::this_thread::yield();
	}
	stop = true;
	writers.clear();
	EXPECT_EQ(fs_->sync(), 0);
	for (int w = 0; w < kWriters; w++)
		EXPECT_EQ(version_on_disk(w), done[w].load());
}

// ---------------------------------------------------------------------------
// a freeze as leaky as 2.6.27's

TEST_F(Fs, ConcurrentWriterPastTheFrozenCheckCompletesDuringTheFreeze)
{
	std::atomic<int> stage{0};
	fs_->set_after_frozen_check([&] {
		stage = 1;
		while (stage.load() != 2)
			std::this_thread::yield();
	});
	std::atomic<bool> returned{false};
	std::jthread writer([&] {
		EXPECT_EQ(fs_->write_block(5, pattern(4096, 0x55)), 0);
		returned = true;
	});
	while (stage.load() != 1)
		std::this_thread::yield();
	// The writer tested the level before the freeze began.
	struct super_block *sb = freeze_bdev(fs_->bdev());
	ASSERT_EQ(sb->s_frozen, SB_FREEZE_TRANS);
	stage = 2;
	writer.join();
	EXPECT_TRUE(returned.load());
	EXPECT_EQ(fs_->writers_waiting(), 0u);
	// Its block is dirty in the frozen file system, not in the image;
	// a sync during the freeze writes it.
	EXPECT_EQ(fs_->dirty_blocks(), 1u);
	EXPECT_EQ(on_disk(5), pattern(4096, 0));
	EXPECT_EQ(fs_->sync(), 0);
	EXPECT_EQ(on_disk(5), pattern(4096, 0x55));
	fs_->set_after_frozen_check({});
	thaw_bdev(fs_->bdev(), sb);
}

TEST_F(Fs, ConcurrentWriterTestingAfterTheFreezeWaits)
{
	std::atomic<bool> checked{false};
	fs_->set_after_frozen_check([&] { checked = true; });
	struct super_block *sb = freeze_bdev(fs_->bdev());
	std::jthread writer([&] {
		EXPECT_EQ(fs_->write_block(6, pattern(4096, 0x66)), 0);
	});
	while (fs_->writers_waiting() != 1)
		std::this_thread::yield();
	EXPECT_FALSE(checked.load());
	EXPECT_EQ(fs_->dirty_blocks(), 0u);
	thaw_bdev(fs_->bdev(), sb);
	writer.join();
	EXPECT_TRUE(checked.load());
	EXPECT_EQ(fs_->dirty_blocks(), 1u);
	fs_->set_after_frozen_check({});
}

TEST_F(Fs, MappedStoresAreNotHeldByAFreeze)
{
	struct super_block *sb = freeze_bdev(fs_->bdev());
	EXPECT_EQ(fs_->write_mapped(7, pattern(4096, 0x77)), 0);
	EXPECT_EQ(fs_->writers_waiting(), 0u);
	EXPECT_EQ(fs_->dirty_blocks(), 1u);
	EXPECT_EQ(fs_->sync(), 0);  // written back while frozen
	EXPECT_EQ(on_disk(7), pattern(4096, 0x77));
	thaw_bdev(fs_->bdev(), sb);
	EXPECT_EQ(fs_->write_mapped(7, pattern(100, 0)), -EINVAL);
}

TEST_F(Fs, RawDeviceWritesAreNotHeldByAFreeze)
{
	emu::mknod_block("/dev/sdb1", kMajor, 17);
	emu::Process proc;
	int fd = proc.open("/dev/sdb1");
	ASSERT_GE(fd, 0);
	struct super_block *sb = freeze_bdev(fs_->bdev());
	const auto data = pattern(4096, 0x99);
	emu::uaddr src = proc.map_anon(4096);
	ASSERT_TRUE(proc.poke(src, data.data(), data.size()));
	// Block 9 of the partition: bytes 9 * 4096 of its node.
	emu::uaddr skip = proc.map_anon(9 * 4096);
	ASSERT_EQ(proc.read(fd, skip, 9 * 4096), 9 * 4096);
	EXPECT_EQ(proc.write(fd, src, 4096), 4096);
	EXPECT_EQ(proc.fsync(fd), 0);
	EXPECT_EQ(on_disk(9), data);
	EXPECT_EQ(sb->s_frozen, SB_FREEZE_TRANS);
	thaw_bdev(fs_->bdev(), sb);
	EXPECT_EQ(proc.close(fd), 0);
}

// An ext3-like file system writes its journal and super block inside the
// freeze, through whatever function the queue has then.
TEST_F(Fs, JournalledFileSystemWritesJournalAndSuperBlockInsideTheFreeze)
{
	fs_->enable_journal(100, 8);
	ASSERT_EQ(fs_->write_block(3, pattern(4096, 3)), 0);
	Hook hook(disk_->queue());
	std::vector<int> levels;
	hook.set([&](struct request_queue *q, struct bio *bio) {
		levels.push_back(fs_->sb()->s_frozen);
		return hook.pass(q, bio);
	});
	struct super_block *sb = freeze_bdev(fs_->bdev());
	auto seen = hook.seen();
	// The dirty block, then (SB_FREEZE_TRANS) the commit record in the
	// journal, the read of the super block's block, the super block.
	ASSERT_EQ(seen.size(), 4u);
	EXPECT_EQ(seen[0].sector, 63u + 3 * 8);
	EXPECT_EQ(seen[0].rw & 1, 1u);
	EXPECT_EQ(levels[0], SB_FREEZE_WRITE);
	EXPECT_EQ(seen[1].sector, 63u + (100 + 1) * 8);
	EXPECT_EQ(seen[1].rw & 1, 1u);
	EXPECT_EQ(seen[2].sector, 63u);
	EXPECT_EQ(seen[2].rw & 1, 0u);
	EXPECT_EQ(seen[3].sector, 63u);
	EXPECT_EQ(seen[3].rw & 1, 1u);
	for (std::size_t i = 1; i < levels.size(); i++)
		EXPECT_EQ(levels[i], SB_FREEZE_TRANS) << i;
	const auto commit = on_disk(101);
	EXPECT_EQ(commit[0], std::byte{0xc0});
	EXPECT_EQ(commit[3], std::byte{0x98});
	EXPECT_EQ(commit[11], std::byte{1});  // sequence 1
	EXPECT_EQ(on_disk(0)[1024 + 96] & std::byte{4}, std::byte{0});
	// The thaw sets needs-recovery again, before writers go on.
	thaw_bdev(fs_->bdev(), sb);
	seen = hook.seen();
	ASSERT_EQ(seen.size(), 6u);  // the super block read and written
	EXPECT_EQ(seen[5].sector, 63u);
	EXPECT_EQ(seen[5].rw & 1, 1u);
	EXPECT_EQ(levels[5], SB_FREEZE_TRANS);
	EXPECT_EQ(on_disk(0)[1024 + 96] & std::byte{4}, std::byte{4});
}

TEST_F(Fs, FileSystemWithoutAJournalWritesNothingMoreAtAFreeze)
{
	Hook hook(disk_->queue());
	struct super_block *sb = freeze_bdev(fs_->bdev());
	thaw_bdev(fs_->bdev(), sb);
	EXPECT_TRUE(hook.seen().empty());
}

}  // namespace
