// A running backup against writes that race its frozen instant and
// against callers built to break it: a write caught between its recording
// and its copy decision, a write still in the disk's queue at the instant
// (on a disk that drains for barriers and on one that cannot), a write
// sent before the queue was hooked, READ_BLOCKS whose size wraps 32 bits, READ_BLOCKS while the backup
// fails or loses its interception, a third opener while the first backup's
// thread still runs, and module unload with a queue no session holds.
#include "test_backup_util.hpp"

#include <atomic>
#include <chrono>
#include <thread>

#include <linux/rwsem.h>

namespace {

using bt::BackupTest;
using bt::RawIo;

// The backup whose state a write's completion records, and that state.
Backup *g_watched;
std::atomic<u32> g_state_at_end{0xffffffffu};

void state_recording_end_io(struct bio *bio, int error)
{
	g_state_at_end = g_watched->state;
	blocktest::record_end_io(bio, error);
}

// One block written with its completion recording g_watched's state.
struct WatchedWrite {
	blocktest::Endings endings;
	blocktest::BioTag tag{&endings, 1};
	blocktest::Page page;
};

class BackupRaces : public BackupTest {
protected:
	// SNAPSHOT on descriptor fd with an empty key (the sessions of
	// track_both() have the all-zero key, so theirs is handed over).
	long snapshot_on(int fd, const AutoMapSession *keyOf = nullptr)
	{
		SnapShot rec{static_cast<__u32>(page_ + 1024), 0};
		if (keyOf) {
			EXPECT_TRUE(proc->poke(page_ + 1024,
					       keyOf->sessionKey.key,
					       KIV_AMS_KEY_LEN));
			rec.len = KIV_AMS_KEY_LEN;
		}
		EXPECT_TRUE(proc->poke(page_ + 2048, &rec, sizeof(rec)));
		return proc->ioctl(fd, KIV_IOC_SNAPSHOT, page_ + 2048);
	}
	long read_blocks_on(int fd, std::uint32_t first, std::uint32_t n,
			    emu::uaddr data)
	{
		ReadBlocks rec{first, n, static_cast<__u32>(data)};
		EXPECT_TRUE(proc->poke(page_ + 3072, &rec, sizeof(rec)));
		return proc->ioctl(fd, KIV_IOC_READ_BLOCKS, page_ + 3072);
	}
	emu::uaddr map_on(int fd, std::uint32_t pages)
	{
		const long long a = proc->mmap(0, std::size_t(pages) * 4096,
					       emu::PROT_READ_,
					       emu::MAP_PRIVATE_, fd, 0);
		EXPECT_GT(a, 0);
		return static_cast<emu::uaddr>(a);
	}
	static bool waiters_on(struct rw_semaphore *sem)
	{
		unsigned long flags;
		spin_lock_irqsave(&sem->wait_lock, flags);
		const bool any = !list_empty(&sem->wait_list);
		spin_unlock_irqrestore(&sem->wait_lock, flags);
		return any;
	}
	// Waits until `done`, for at most a second.  A snapshot that does
	// not wait for the disk returns in far less; one that waits is still
	// waiting then, and the test lets the disk go on.
	static void settle(const std::atomic<bool> &done)
	{
		const auto until = std::chrono::steady_clock::now() +
				   std::chrono::seconds(1);
		while (!done && std::chrono::steady_clock::now() < until)
			std::this_thread::sleep_for(
				std::chrono::milliseconds(1));
	}
	// Sends w to 4096-byte block `block` of bdev; its completion will
	// record the state of this file's backup.
	void send_watched(WatchedWrite &w, struct block_device *bdev,
			  std::uint32_t block)
	{
		g_watched = b_;
		proc->run_as([&] {
			struct bio *bio = blocktest::make_bio(
				bdev, std::uint64_t(block) * 8, w.page.get(),
				4096, &w.tag);
			bio->bi_end_io = state_recording_end_io;
			submit_bio(WRITE, bio);
		});
	}
	// SNAPSHOT on fd_ while `disk` is plugged with a write in its queue:
	// the snapshot must wait for the disk; then the disk goes on.
	long snapshot_waiting_for(emu::Disk &disk,
				  const AutoMapSession *keyOf = nullptr)
	{
		std::atomic<bool> done{false};
		long r = -1;
		std::thread snap([&] {
			r = snapshot_on(fd_, keyOf);
			done = true;
		});
		settle(done);
		EXPECT_FALSE(done) << "the snapshot did not wait for the disk";
		disk.unplug();
		snap.join();
		return r;
	}
	// The watched write ended, and before the frozen instant.
	static void expect_landed_before_the_instant(WatchedWrite &w)
	{
		EXPECT_TRUE(w.endings.wait(1)[0].uptodate);
		EXPECT_EQ(g_state_at_end.load(),
			  static_cast<u32>(BU_STATE_STARTED))
			<< "the write landed after the frozen instant";
	}
	static bool logged(const std::string &line)
	{
		const std::vector<std::string> log = emu::log_strings();
		return std::find(log.begin(), log.end(), line) != log.end();
	}
};

// A write that was let in before the instant but had not been recorded
// yet (here: held up on the way in, as a preempted submitter would be)
// must land in the map the session keeps, not in the one handed over: the
// snapshot's copy-before-write preserves its old contents for this
// backup, so only the next map can tell the next backup it changed.
TEST_F(BackupRaces, WriteHeldUpAcrossTheFrozenInstantIsInTheNextMap)
{
	fill_disk_block(7, 0x17);
	ASSERT_EQ(start(), 0);
	// The interception as SNAPSHOT installs it, still in state 2.
	ASSERT_EQ(setMRF(b_, kivMRF), 0);

	std::atomic<int> phase{0};
	std::thread holder([&] {
		proc->run_as([&] {
			down_write(&activeSessionUsers);
			phase = 1;
			while (phase != 2)
				sched_yield();
			up_write(&activeSessionUsers);
		});
	});
	while (phase != 1)
		std::this_thread::yield();

	RawIo w;
	std::thread writer([&] {
		proc->run_as([&] { submit(w, 1, 4096, 7, 1, 0x77); });
	});
	while (!waiters_on(&activeSessionUsers))
		std::this_thread::yield();

	EXPECT_EQ(snapshot_on(fd_), 0);
	EXPECT_EQ(b_->state, static_cast<u32>(BU_STATE_SNAPSHOT));
	phase = 2;
	holder.join();
	writer.join();
	EXPECT_TRUE(w.endings.wait(1)[0].uptodate);
	wait_idle();

	EXPECT_NE(blockInMap(&session(1)->map, 7), 0)
		<< "the next backup must read block 7";
	EXPECT_EQ(blockInMap(&b_->blockMap, 7), 0);
	EXPECT_EQ(cached(7), bt::filled(4096, 0x17)) << "copied before write";
	EXPECT_EQ(disk_block(7), bt::filled(4096, 0x77));
}

// A write recorded before the instant but still in the disk's queue
// could land after the backup read its block (a read may overtake it in
// the queue), with the next map not knowing of it.  The instant waits
// until every write the session recorded has reached the disk.
TEST_F(BackupRaces, FrozenInstantWaitsForRecordedWritesStillInTheQueue)
{
	ASSERT_EQ(start(), 0);
	disk_->plug();
	WatchedWrite w;
	send_watched(w, disk_->bdev(1), 9);
	EXPECT_NE(blockInMap(&session(1)->map, 9), 0);
	EXPECT_EQ(snapshot_waiting_for(*disk_), 0);
	expect_landed_before_the_instant(w);
	EXPECT_EQ(b_->state, static_cast<u32>(BU_STATE_SNAPSHOT));
	EXPECT_NE(blockInMap(&b_->blockMap, 9), 0) << "handed over";
	EXPECT_EQ(blockInMap(&session(1)->map, 9), 0);
}

// On a disk that cannot drain its queue (no write cache to flush, so
// no empty barrier), the session's own count of the writes it recorded
// is what holds the instant back until they landed.
TEST_F(BackupRaces, FrozenInstantWaitsForCountedWritesWhereTheQueueCannotDrain)
{
	emu::DiskConfig c = test::disk_config(bt::kMajorB, 16, 16, 20000,
					      "sdb");
	c.ordered = emu::Ordered::Drain;
	emu::Disk other(c);
	ASSERT_EQ(other.add_partition(1, 64, 16384), 0);
	{
		emu::FileSystem fs(other, 1, 4096);
		// A first backup leaves sdb1 tracked, kivAMRF on its queue.
		ASSERT_EQ(start_on(fd_, bt::kMajorB, 17, 2048, 10), 0);
		ASSERT_EQ(snapshot_on(fd_), 0);
		EXPECT_EQ(proc->close(fd_), 0);
		fd_ = open_device();
		b_ = test::backup_of(*proc, fd_);
		AutoMapSession *ams = amList[bt::kMajorB][17];
		ASSERT_NE(ams, nullptr);
		ASSERT_EQ(start_on(fd_, bt::kMajorB, 17, 2048, 10), 0);

		other.plug();
		WatchedWrite w;
		send_watched(w, other.bdev(1), 9);
		EXPECT_EQ(snapshot_waiting_for(other, ams), 0);
		expect_landed_before_the_instant(w);
		EXPECT_NE(blockInMap(&b_->blockMap, 9), 0) << "handed over";
		EXPECT_EQ(proc->close(fd_), 0);
		fd_ = -1;
		emu::log_clear();
		EXPECT_EQ(emu::module_unload(), 0);
		emu::log_clear();
	}
}

// The same for a write sent while the queue had no hook at all (a first
// backup of a disk nobody tracks): the session cannot have counted it,
// so the snapshot drains the queue once the interception is installed.
TEST_F(BackupRaces, FrozenInstantDrainsWritesSentBeforeTheQueueWasHooked)
{
	closeAllAMS();
	ASSERT_EQ(q_->make_request_fn, real_);
	ASSERT_EQ(start(), 0);
	disk_->plug();
	WatchedWrite w;
	send_watched(w, disk_->bdev(1), 11);
	const std::uint64_t queued = disk_->requests();
	EXPECT_EQ(snapshot_waiting_for(*disk_), 0);
	expect_landed_before_the_instant(w);
	EXPECT_GT(disk_->requests(), queued) << "the drain";
	ASSERT_NE(session(1), nullptr);
	EXPECT_EQ(session(1)->state, static_cast<u32>(AM_STATE_IN_SYNC));
	EXPECT_EQ(blockInMap(&session(1)->map, 11), 0);
}

// A queue that cannot drain for an empty barrier (no ordered mode, as a
// device-mapper volume of 2.6.27; or no cache to flush) refuses the
// drain; the snapshot goes on all the same.
class QueueOrder : public BackupRaces,
		   public ::testing::WithParamInterface<emu::Ordered> {};

TEST_P(QueueOrder, SnapshotOfAQueueThatCannotDrainGoesOn)
{
	emu::DiskConfig c = test::disk_config(bt::kMajorB, 16, 16, 20000,
					      "sdb");
	c.ordered = GetParam();
	emu::Disk other(c);
	ASSERT_EQ(other.add_partition(1, 64, 16384), 0);
	{
		emu::FileSystem fs(other, 1, 4096);
		ASSERT_EQ(start_on(fd_, bt::kMajorB, 17, 2048, 10), 0);
		emu::log_clear();
		EXPECT_EQ(snapshot_on(fd_), 0);
		ExpectLog({"<3>ioctlSnapShot: Going to freez: 8.17"});
		EXPECT_EQ(b_->state, static_cast<u32>(BU_STATE_SNAPSHOT));
		EXPECT_EQ(amList[bt::kMajorB][17]->state,
			  static_cast<u32>(AM_STATE_IN_SYNC));
		EXPECT_EQ(proc->close(fd_), 0);
		fd_ = -1;
		emu::log_clear();
		EXPECT_EQ(emu::module_unload(), 0);
		emu::log_clear();
	}
}

INSTANTIATE_TEST_SUITE_P(Modes, QueueOrder,
			 ::testing::Values(emu::Ordered::None,
					   emu::Ordered::Drain));

// Without the memory to follow a write to the disk the session can no
// longer vouch for its map: it drops out of sync, the write goes on.
TEST_F(BackupRaces, WriteThatCannotBeFollowedTakesTheSessionOutOfSync)
{
	const emu::Usage base = emu::usage();
	{
		auto fail = emu::FailScope::nth(emu::Alloc::Kmalloc, 1);
		EXPECT_TRUE(write_blocks(1, 4096, 3, 1, 0x33));
	}
	EXPECT_EQ(session(1)->state, static_cast<u32>(AM_STATE_NOT_IN_SYNC));
	EXPECT_EQ(session(2)->state, static_cast<u32>(AM_STATE_IN_SYNC));
	EXPECT_EQ(disk_block(3), bt::filled(4096, 0x33));
	EXPECT_EQ(emu::usage(), base);
	ExpectLog({});
}

// A count whose size in bytes wraps 32 bits must not pass the mapping's
// size check: the driver would place blocks past its request table and
// past the buffer's pages.  Partition of 2^20 + 16 blocks of 4096 bytes
// (4 GiB and more, sparse), a 16-page buffer.
TEST_F(BackupRaces, ReadWhoseSizeWrapsThirtyTwoBitsIsRefused)
{
	constexpr std::uint32_t blocks = (1u << 20) + 16;
	emu::Disk big(test::disk_config(bt::kMajorB, 16, 16,
					64 + std::uint64_t(blocks) * 8 + 64,
					"sdb"));
	ASSERT_EQ(big.add_partition(1, 64, std::uint64_t(blocks) * 8), 0);
	{
		emu::FileSystem fs(big, 1, 4096);
		ASSERT_EQ(start_on(fd_, bt::kMajorB, 17, blocks, 10), 0);
		ASSERT_EQ(setMRF(b_, kivMRF), 0);
		set_state(BU_STATE_SNAPSHOT);
		const emu::uaddr buf = map_on(fd_, 16);
		emu::log_clear();
		EXPECT_EQ(read_blocks_on(fd_, 0, 1u << 20, buf), 2);
		ExpectLog({"<3>ioctlReadBlocks: tried to read (1048576) number "
			   "of blocks size (4096) and mmap region can hold "
			   "(65536) bytes"});
		EXPECT_EQ(read_blocks_on(fd_, 15, (1u << 20) + 1, buf), 2);
		ExpectLog({"<3>ioctlReadBlocks: tried to read (1048577) number "
			   "of blocks size (4096) and mmap region can hold "
			   "(65536) bytes"});
		// What fits is read.
		EXPECT_EQ(read_blocks_on(fd_, 1u << 20, 16, buf), 0);
		ExpectLog({});
		EXPECT_EQ(proc->munmap(buf, 16 * 4096), 0);
		// With no session on sdb the close gives its queue back: the
		// one kernel warning of that path.
		EXPECT_EQ(proc->close(fd_), 0);
		fd_ = -1;
		emu::warnings_seen(emu::log_strings());
		emu::log_clear();
		big.drain();
	}
}

// The backup fails while a READ_BLOCKS has its disk read in flight (here
// the cache limit, set as the copy thread sets it): a write may then have
// reached the block uncopied and the read may hold it, so the command is
// refused instead of returning it as the frozen image.
TEST_F(BackupRaces, ReadIsRefusedWhenTheBackupFailsWhileItsDiskReadIsInFlight)
{
	ASSERT_EQ(start(), 0);
	hook();
	const emu::uaddr buf = map_on(fd_, 4);
	const std::uint64_t before = disk_->requests();
	disk_->plug();
	emu::log_clear();
	long r = -1;
	std::thread reader([&] { r = read_blocks_on(fd_, 5, 1, buf); });
	while (disk_->requests() == before)
		std::this_thread::yield();
	set_state(BU_STATE_CACHE_ERROR);
	disk_->unplug();
	reader.join();
	EXPECT_EQ(r, 2);
	ExpectLog({"<3>ioctlReadBlocks: state (10) not valid"});
	EXPECT_EQ(proc->munmap(buf, 4 * 4096), 0);
}

// Any file's close ends the running backup's interception (as it frees
// the backup slot).  From then on a write reaches the disk uncopied, so
// reading the image is refused, before or during a read.
TEST_F(BackupRaces, ReadIsRefusedOnceAnotherFilesCloseEndedTheInterception)
{
	ASSERT_EQ(start(), 0);
	hook();
	const emu::uaddr buf = map_on(fd_, 4);
	emu::log_clear();
	EXPECT_EQ(read_blocks_on(fd_, 5, 1, buf), 0);

	const std::uint64_t before = disk_->requests();
	disk_->plug();
	long r = -1;
	std::thread reader([&] { r = read_blocks_on(fd_, 6, 1, buf); });
	while (disk_->requests() == before)
		std::this_thread::yield();
	const int other = open_device();
	EXPECT_EQ(proc->close(other), 0);
	EXPECT_EQ(activeSession, nullptr);
	disk_->unplug();
	reader.join();
	EXPECT_EQ(r, 2);
	EXPECT_EQ(read_blocks_on(fd_, 5, 1, buf), 2);
	ExpectLog({"<3>ioctlReadBlocks: state (4) not valid",
		   "<3>ioctlReadBlocks: state (4) not valid"});
	EXPECT_EQ(proc->munmap(buf, 4 * 4096), 0);
}

// Another file's close frees the slot while the first backup's thread
// still runs; a third file's START_BACKUP then passes the busy test but
// may not start a second "kbackupd" over the first one's globals: it
// fails as a failed thread start does.  Both closes finish, the one
// thread stops once, and the module unloads with nothing of it running.
TEST_F(BackupRaces, ThirdOpenerCannotStartASecondCopyThread)
{
	ASSERT_EQ(start(), 0);
	hook();
	const int second = open_device();
	EXPECT_EQ(proc->close(second), 0);
	EXPECT_EQ(atomic_read(&busy), 0);

	const int third = open_device();
	Backup *c = test::backup_of(*proc, third);
	emu::log_clear();
	EXPECT_EQ(start_on(third, kMajor, 2, 32768, 10), -EBUSY);
	ExpectLog({"<3>startWorkQueue: error starting cache thread"});
	EXPECT_EQ(c->state, static_cast<u32>(BU_STATE_STARTING));
	EXPECT_EQ(c->startedCacheThread, 0);
	EXPECT_GT(backup_cachePID, 0);

	// The first backup's held writes are still served.
	EXPECT_TRUE(write_blocks(1, 4096, 4, 1, 0x44));

	EXPECT_EQ(proc->close(third), 0);
	EXPECT_GT(backup_cachePID, 0) << "not the third file's thread";
	emu::log_clear();
	EXPECT_EQ(proc->close(fd_), 0);
	fd_ = -1;
	EXPECT_TRUE(logged("<6>backup_cache: backupd thread exiting"));
	EXPECT_EQ(backup_cachePID, 0);
	EXPECT_EQ(signalThread.count, 1u);
	emu::log_clear();
}

// The partition is unmounted while its backup runs: its last opener goes,
// and the block device the backup keeps loses its disk.  The backup's own
// disk reads then have no queue to go to; they end in error with the
// driver's message, READ_BLOCKS answers a read error and the close does
// not wait for a read that never comes.
TEST_F(BackupRaces, UnmountDuringTheBackupFailsItsReadsInsteadOfHanging)
{
	ASSERT_EQ(start(), 0);
	hook();
	const emu::uaddr buf = map_on(fd_, 4);
	EXPECT_EQ(read_blocks_on(fd_, 5, 1, buf), 0);
	fs1_.reset();
	emu::log_clear();
	EXPECT_EQ(read_blocks_on(fd_, 6, 2, buf), 12);
	const std::vector<std::string> log = emu::log_strings();
	ASSERT_FALSE(log.empty());
	EXPECT_EQ(log[0], "<3>callRealMRF: Block read error: (bdev queue is "
			  "null) MAJOR=8 MINOR=1");
	// A failed read of the image leaves the backup where it was.
	EXPECT_EQ(b_->state, (u32)BU_STATE_SNAPSHOT);
	EXPECT_EQ(proc->munmap(buf, 4 * 4096), 0);
	emu::log_clear();
	EXPECT_EQ(proc->close(fd_), 0);
	fd_ = -1;
	EXPECT_TRUE(logged("<6>closeBackup: backup finished device major=8 "
			   "minor=1"));
	emu::log_clear();
}

// Another file's UNLOAD closes and frees every session.  A SNAPSHOT that
// has renewed its session's key and is on its way to the frozen instant
// (here: held at the instant by a reader of the backup's writers) keeps
// that session alive: the UNLOAD waits until the instant is past, then
// closes it.
TEST_F(BackupRaces, UnloadDuringASnapshotWaitsForItsFrozenInstant)
{
	ASSERT_EQ(start(), 0);
	AutoMapSession *const s1 = session(1);
	std::atomic<int> phase{0};
	std::thread holder([&] {
		proc->run_as([&] {
			down_read(&b_->writers);
			phase = 1;
			while (phase != 2)
				sched_yield();
			up_read(&b_->writers);
		});
	});
	while (phase != 1)
		std::this_thread::yield();

	std::atomic<bool> snapped{false};
	long snap = -1;
	std::thread snapper([&] {
		snap = snapshot_on(fd_, s1);
		snapped = true;
	});
	while (!waiters_on(&b_->writers))
		std::this_thread::yield();

	const int other = open_device();
	ASSERT_GE(other, 0);
	std::atomic<bool> unloaded{false};
	long unload = -1;
	std::thread unloader([&] {
		unload = proc->ioctl(other, KIV_IOC_UNLOAD, 0);
		unloaded = true;
	});
	settle(unloaded);
	EXPECT_FALSE(unloaded) << "UNLOAD closed a session a SNAPSHOT holds";
	EXPECT_FALSE(snapped);

	phase = 2;
	holder.join();
	snapper.join();
	unloader.join();
	EXPECT_EQ(snap, 0);
	EXPECT_EQ(unload, 0);
	EXPECT_EQ(b_->state, static_cast<u32>(BU_STATE_SNAPSHOT));
	EXPECT_EQ(session(1), nullptr);
	EXPECT_EQ(session(2), nullptr);
	EXPECT_EQ(proc->close(other), 0);
	emu::log_clear();
}

// A queue can stay hooked with no session on it: a backup of an
// untracked partition closed while other partitions of the disk were
// tracked keeps change tracking on the queue, and the tracking then ends.
// Unload gives the queue its own function back all the same.
TEST_F(BackupRaces, UnloadRestoresAQueueNoSessionHolds)
{
	ASSERT_EQ(disk_->add_partition(3, 131136, 65536), 0);
	{
		emu::FileSystem fs3(*disk_, 3, 4096);
		ASSERT_EQ(start_on(fd_, kMajor, 3, 8192, 10), 0);
		ASSERT_EQ(proc->ioctl(fd_, KIV_IOC_NO_START_AUTOMAP, 0), 0);
		ASSERT_EQ(snapshot_on(fd_), 0);
		EXPECT_EQ(amList[kMajor][3], nullptr);
		EXPECT_EQ(proc->close(fd_), 0);
		fd_ = open_device();
		// Tracking ends for every partition.
		EXPECT_EQ(proc->ioctl(fd_, KIV_IOC_UNLOAD, 0), 0);
		EXPECT_EQ(session(1), nullptr);
		EXPECT_EQ(session(2), nullptr);
		EXPECT_EQ(q_->make_request_fn, kivAMRF) << "no session holds it";
		EXPECT_EQ(proc->close(fd_), 0);
		fd_ = -1;
	}
	emu::log_clear();
	EXPECT_EQ(emu::module_unload(), 0);
	EXPECT_EQ(q_->make_request_fn, real_);
	emu::log_clear();
	disk_->delete_partition(3);
}

}  // namespace
