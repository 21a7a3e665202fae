// A backup's life cycle under load: writers keep writing both partitions
// of the disk (single- and multi-block bios, reads, read-ahead) while the
// backup is closed in every state, while a second file tries to start,
// while another file's close ends the interception with writes held, and
// while the cache limit is reached.
#include <atomic>
#include <random>
#include <thread>

#include "test_backup_util.hpp"

namespace {

using bt::BackupTest;

class BackupLoad : public BackupTest {
protected:
	void TearDown() override
	{
		stop_writers();
		BackupTest::TearDown();
	}
	void start_writers(int n)
	{
		for (int i = 0; i < n; i++)
			threads_.emplace_back([this, i] { writer(i); });
	}
	void stop_writers()
	{
		stop_ = true;
		for (std::thread &t : threads_)
			t.join();
		threads_.clear();
		stop_ = false;
	}
	// Waits until the writers completed `n` more requests.
	void let_write(long n)
	{
		const long until = done_.load() + n;
		while (done_.load() < until)
			sched_yield();
	}
	void writer(int id)
	{
		std::mt19937 rng(1234 + id);
		while (!stop_) {
			const int kind = rng() % 4;
			const unsigned char fill = rng() & 0xff;
			bool ok;
			if (kind == 0) {
				ok = write_blocks(2, 1024, rng() % 256,
						  1 + rng() % 4, fill);
			} else if (kind == 1) {
				ok = write_blocks(1, 4096, rng() % 64, 1, 0,
						  rng() % 2 ? READ : READA);
				ok = true;   // read-ahead may fail at will
			} else {
				ok = write_blocks(1, 4096, rng() % 64,
						  1 + rng() % 3, fill);
			}
			EXPECT_TRUE(ok);
			done_++;
		}
	}
	// Closes fd_ and checks what every close of a started record logs
	// and leaves behind; `printed` is the state the statistics show.
	void close_and_check(u32 printed)
	{
		ASSERT_EQ(proc->close(fd_), 0);
		fd_ = -1;
		b_ = nullptr;
		std::vector<std::string> l = emu::log_strings();
		emu::log_clear();
		ASSERT_EQ(l.size(), 28u);
		EXPECT_EQ(l[0], "<6>backup_cache: backupd thread exiting");
		EXPECT_EQ(l[1], "<6>printStats: device: major(8) minor(1)");
		EXPECT_EQ(l[2], "<6>printStats: state: " +
				std::to_string(printed));
		EXPECT_EQ(l[9], "<6>printStats: current pages allocated: 0");
		EXPECT_EQ(l[12].rfind("<6>printStats: total cached blocks: ",
				      0), 0u);
		EXPECT_EQ(l[13], "<6>printStats: current cached blocks: 0");
		EXPECT_EQ(l[27], "<6>closeBackup: backup finished device "
				 "major=8 minor=1");
		EXPECT_EQ(activeSession, nullptr);
		EXPECT_EQ(atomic_read(&busy), 0);
		EXPECT_EQ(backup_cachePID, 0);
		EXPECT_EQ(signalThread.count, 1u);
		EXPECT_EQ(q_->make_request_fn, &kivAMRF);
	}
	void load_map()
	{
		int pages = 0;
		ASSERT_EQ(newBlockMap(&b_->blockMap, bt::kP1Blocks, nullptr, 1,
				      &pages), 0);
		atomic_add(pages, &b_->totalAllocPages);
		atomic_add(pages, &b_->curAllocPages);
		for (std::uint32_t n = 0; n < 64; n += 2)
			ASSERT_EQ(setBlock(&b_->blockMap, n), 0);
	}

	std::vector<std::thread> threads_;
	std::atomic<bool> stop_{false};
	std::atomic<long> done_{0};
};

TEST_F(BackupLoad, CloseInEveryStateWhileWritersRunConcurrently)
{
	start_writers(3);
	const u32 states[] = {BU_STATE_STARTED,     BU_STATE_SNAPSHOT,
			      BU_STATE_LOADING_MAP, BU_STATE_MAP_LOADED,
			      BU_STATE_READ_ERROR,  BU_STATE_CACHE_ERROR,
			      BU_STATE_QUEUE_ERROR};
	for (u32 st : states) {
		SCOPED_TRACE(st);
		if (fd_ < 0) {
			fd_ = open_device();
			b_ = test::backup_of(*proc, fd_);
		}
		ASSERT_EQ(start(), 0);
		if (st >= BU_STATE_SNAPSHOT) {
			hook();
			if (st == BU_STATE_MAP_LOADED)
				load_map();
			set_state(st);
		}
		emu::log_clear();
		let_write(20);
		close_and_check(st <= BU_STATE_MAP_LOADED ? BU_STATE_CLOSING
							   : st);
		let_write(5);
	}
	stop_writers();
	ExpectLog({});
}

TEST_F(BackupLoad, SecondFileStartsWhileABackupRunsConcurrently)
{
	ASSERT_EQ(start(), 0);
	hook();
	start_writers(2);
	let_write(10);
	const int fd2 = open_device();
	Backup *b2 = test::backup_of(*proc, fd2);
	emu::log_clear();
	EXPECT_EQ(start_on(fd2, kMajor, 2, 100, 10), 9);
	ExpectLog({"<3>ioctlStartBackup: another backup operation is open "
		   "can't start backup on device major=8 minor=2"});
	EXPECT_EQ(b2->state, (u32)BU_STATE_REFUSED);
	EXPECT_EQ(activeSession, b_);
	let_write(10);
	// The running backup still preserves what the writers overwrite.
	EXPECT_GT(atomic_read(&b_->totalCBs), 0);
	EXPECT_EQ(b_->state, (u32)BU_STATE_SNAPSHOT);
	close_and_check(BU_STATE_CLOSING);
	ASSERT_EQ(proc->close(fd2), 0);
	emu::log_clear();
	stop_writers();
}

TEST_F(BackupLoad, AnotherFilesCloseEndsInterceptionButHeldWritesGoOnConcurrently)
{
	ASSERT_EQ(start(), 0);
	hook();
	const int fd2 = open_device();
	// Writes held behind a copy that waits in the plugged disk.
	disk_->plug();
	bt::RawIo w1, w2;
	submit(w1, 1, 4096, 5, 1, 0x51);
	submit(w2, 1, 4096, 9, 2, 0x91);
	EXPECT_EQ(atomic_read(&b_->mrInQueue), 2);
	// An idle file's close clears activeSession and busy.
	ASSERT_EQ(proc->close(fd2), 0);
	EXPECT_EQ(activeSession, nullptr);
	EXPECT_EQ(atomic_read(&busy), 0);
	disk_->unplug();
	EXPECT_TRUE(w1.endings.wait(1)[0].uptodate);
	EXPECT_TRUE(w2.endings.wait(1)[0].uptodate);
	wait_idle();
	EXPECT_EQ(cached(5), bt::filled(4096, 0));
	EXPECT_EQ(disk_block(10), bt::filled(4096, 0x92));
	// New writes are no longer intercepted.
	start_writers(2);
	let_write(10);
	const int cbs = atomic_read(&b_->totalCBs);
	let_write(10);
	EXPECT_EQ(atomic_read(&b_->totalCBs), cbs);
	emu::log_clear();
	ASSERT_EQ(proc->close(fd_), 0);
	fd_ = -1;
	emu::log_clear();
	stop_writers();
}

TEST_F(BackupLoad, CacheLimitReachedUnderLoadEndsInStateTenConcurrently)
{
	ASSERT_EQ(start(bt::kP1Blocks, 4), 0);
	hook();
	emu::log_clear();
	start_writers(3);
	while (support::racy_read(&b_->state) != BU_STATE_CACHE_ERROR)
		sched_yield();
	// kbackupd moves to 10, logs, and last takes the partition's change
	// tracking out of sync: give it the time to get there.
	for (int i = 0; i < 1000000 && support::racy_read(&session(1)->state) !=
	     (u32)AM_STATE_NOT_IN_SYNC; i++)
		sched_yield();
	let_write(10);
	EXPECT_EQ(atomic_read(&b_->curCBs), 4);
	EXPECT_EQ(atomic_read(&b_->peakAllocCPs), 4);
	// Once at 10 nothing more is copied and the cache serves nothing.
	std::vector<std::string> l = emu::log_strings();
	emu::log_clear();
	ASSERT_EQ(l.size(), 2u);
	EXPECT_EQ(l[0], "<3>getCacheBlock: configured max cache memory "
			"reached (4 blocks) failed to allocate cache object");
	EXPECT_EQ(l[1].rfind("<3>cacheBlock: Error caching blockNum=", 0),
		  0u);
	EXPECT_EQ(session(1)->state, (u32)AM_STATE_NOT_IN_SYNC);
	close_and_check(BU_STATE_CACHE_ERROR);
	stop_writers();
}

}  // namespace
