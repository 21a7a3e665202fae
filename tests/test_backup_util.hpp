// Helpers of the backup suites (test_backup_*.cpp, test_cache*.cpp,
// test_stats*.cpp): a disk with two mounted partitions, an open file of the
// control device, START_BACKUP through the device, the backup's queue
// hooked as the snapshot hooks it, raw multi-block bios through the block
// layer, and the statistics printout as lines.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <sched.h>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support.hpp"
#include "emu/block.hpp"
#include "emu/emu.hpp"
#include "test_driver_util.hpp"
#include "test_emu_block_util.hpp"
#include "test_queue_util.hpp"

#include <linux/bio.h>
#include <linux/blkdev.h>
#include <linux/highmem.h>
#include <linux/sched.h>

namespace bt {

constexpr unsigned kMajor = 8;
constexpr unsigned kMajorB = 8;   // a second sd disk, minors from 16
constexpr std::uint64_t kP1Start = 64;        // sectors
constexpr std::uint64_t kP1Sectors = 65536;   // 8192 blocks of 4096
constexpr std::uint64_t kP2Start = 65600;
constexpr std::uint64_t kP2Sectors = 65536;   // 32768 blocks of 1024
constexpr std::uint32_t kP1Blocks = 8192;

// The 26 lines of printStats for s, in their order.
inline std::vector<std::string> stats_lines(const struct Stats &s)
{
	char buf[200];
	std::vector<std::string> out;
	auto add = [&](const char *fmt, auto... args) {
		std::snprintf(buf, sizeof(buf), fmt, args...);
		out.push_back(std::string("<6>printStats: ") + buf);
	};
	add("device: major(%u) minor(%u)", s.major, s.minor);
	add("state: %u", s.state);
	add("block size: %i", s.blockSize);
	add("partition size (KB): %u", s.partitionSizeKB);
	add("file system size (blocks): %u", s.numBlocks);
	add("pages allocated for write journal: %d", s.curAllocAMPages);
	add("max cache size in blocks: %i", (int)s.maxCacheBlocks);
	add("total pages allocated: %d", s.totalAllocPages);
	add("current pages allocated: %d", s.curAllocPages);
	add("total Block Requests allocated: %d", s.totalAllocBRs);
	add("current Block Requests allocated: %d", s.curAllocBRs);
	add("total cached blocks: %d", s.totalAllocCPs);
	add("current cached blocks: %d", s.curAllocCPs);
	add("peak cached blocks: %d", s.peakAllocCPs);
	add("total block cache data structures: %d", s.totalCBs);
	add("current block cache data structures: %d", s.curCBs);
	add("total reads from disk: %d", s.totalReadBlocks);
	add("total reads from cache: %d", s.totalReadCBs);
	add("blocks cleaned from cache: %d", s.totalCleanedCBs);
	add("partition start (sector): %u", s.partitionStart);
	add("blocks per page: %i", s.blocksPerPage);
	add("max buffer size in pages: %i", s.maxVMPages);
	add("buffer pages allocated: %i", s.vmPages);
	add("commands processed: %d", s.ioctlCount);
	add("time to freeze in seconds: %d.%09d", s.eTimeToFreeze.tv_sec,
	    s.eTimeToFreeze.tv_nsec);
	add("time frozen in seconds: %d.%09d", s.eTimeFrozen.tv_sec,
	    s.eTimeFrozen.tv_nsec);
	return out;
}

// The statistics of b as its close will print them: taken now, with every
// "current" counter at zero (the close frees all of it first) and the
// state the close leaves (7 for a running one).
inline struct Stats stats_after_close(Backup *b)
{
	struct Stats s;
	std::memset(&s, 0, sizeof(s));
	setStats(b, &s);
	s.curAllocPages = 0;
	s.curAllocBRs = 0;
	s.curAllocCPs = 0;
	s.curCBs = 0;
	s.vmPages = 0;
	if (s.state <= BU_STATE_MAP_LOADED)
		s.state = BU_STATE_CLOSING;
	return s;
}

// One raw request in flight through the block layer.
struct RawIo {
	blocktest::Endings endings;
	blocktest::BioTag tag{&endings, 0};
	std::vector<struct page *> pages;
	~RawIo()
	{
		for (struct page *p : pages)
			__free_page(p);
	}
};

// The disk sda (8:0) with partition 1 (4096-byte blocks, 8192 of them,
// from sector 64) and partition 2 (1024-byte blocks, from sector 65600),
// both mounted; the module loaded and one open file (fd_, b_) with a page
// of user memory (page_).  The backup suites start it through the device.
class BackupTest : public support::ModuleTest {
protected:
	static constexpr unsigned kMajor = bt::kMajor;
	static constexpr unsigned kMajorB = bt::kMajorB;
	void SetUp() override
	{
		ModuleTest::SetUp();
		disk_ = std::make_unique<emu::Disk>(
			test::disk_config(kMajor, 0, 16, 200000, "sda"));
		ASSERT_EQ(disk_->add_partition(1, kP1Start, kP1Sectors), 0);
		ASSERT_EQ(disk_->add_partition(2, kP2Start, kP2Sectors), 0);
		fs1_ = std::make_unique<emu::FileSystem>(*disk_, 1, 4096);
		fs2_ = std::make_unique<emu::FileSystem>(*disk_, 2, 1024);
		q_ = disk_->queue();
		real_ = q_->make_request_fn;
		fd_ = open_device();
		ASSERT_GE(fd_, 0);
		b_ = test::backup_of(*proc, fd_);
		ASSERT_NE(b_, nullptr);
		page_ = proc->map_anon(4096);
		ASSERT_NE(page_, 0u);
		track_both();
		emu::log_clear();
	}

	// Both partitions tracked between backups: an in-sync session each,
	// both watched through the queue, kivAMRF on it.  A backup's close or
	// failure then hands the queue back to kivAMRF; module unload closes
	// the sessions and gives the queue its own function back.
	void track_both()
	{
		for (int p = 1; p <= 2; p++) {
			Backup tmp{};
			AutoMapSession *ams = nullptr;
			ASSERT_EQ(getDiskInfo(&tmp.diskInfo, disk_->dev(p)), 0);
			tmp.diskInfo.numBlocks = p == 1 ? kP1Blocks : 32768;
			ASSERT_EQ(newAMS(&tmp, &ams), 0);
			setAMSState(ams, AM_STATE_IN_SYNC);
			ASSERT_EQ(setMRF(&tmp, kivAMRF), 0);
		}
	}
	AutoMapSession *session(int partno)
	{
		return amList[kMajor][partno];
	}
	// Ends the tracking of partition partno: its session leaves the
	// table and is closed (its place on the queue goes with it).
	void untrack(int partno)
	{
		AutoMapSession *ams = session(partno);
		{
			unsigned long flags;
			waitForAMListUsers(&flags);
			amList[kMajor][partno] = nullptr;
			spin_unlock_irqrestore(&amListUsersLock, flags);
		}
		closeAM(ams);
	}
	void TearDown() override
	{
		ModuleTest::TearDown();
		EXPECT_EQ(q_->make_request_fn, real_);
		fs2_.reset();
		fs1_.reset();
		disk_.reset();
	}

	void poke32(emu::uaddr a, std::uint32_t v)
	{
		ASSERT_TRUE(proc->poke(a, &v, sizeof(v)));
	}
	// START_BACKUP on descriptor fd for partition (major, minor).
	long start_on(int fd, unsigned major, unsigned minor,
		      std::uint32_t total, std::uint32_t maxCache)
	{
		poke32(page_, major);
		poke32(page_ + 4, minor);
		poke32(page_ + 8, total);
		poke32(page_ + 12, maxCache);
		return proc->ioctl(fd, KIV_IOC_START_BACKUP, page_);
	}
	long start(std::uint32_t total = kP1Blocks,
		   std::uint32_t maxCache = 1000, int partno = 1)
	{
		return start_on(fd_, kMajor, partno, total, maxCache);
	}
	static std::vector<std::string> started_log(int minor = 1)
	{
		return {"<6>backup_cache: kbackupd thread started",
			"<6>ioctlStartBackup: backup started for device "
			"major=8 minor=" + std::to_string(minor)};
	}
	// What the snapshot does to a started backup (without freezing):
	// kivMRF on the queue, then state 4 under the write side of writers.
	void hook(Backup *b = nullptr)
	{
		if (!b)
			b = b_;
		ASSERT_EQ(setMRF(b, kivMRF), 0);
		down_write(&b->writers);
		setBackupState(b, BU_STATE_SNAPSHOT);
		up_write(&b->writers);
	}
	void set_state(u32 state, Backup *b = nullptr)
	{
		if (!b)
			b = b_;
		down_write(&b->writers);
		setBackupState(b, state);
		up_write(&b->writers);
	}
	// The backup's block map (as LOAD_BLOCK_MAP builds it, pages
	// counted) holding exactly `blocks`; the state is left as it is.
	void load_map(std::initializer_list<std::uint32_t> blocks)
	{
		int pages = 0;
		ASSERT_EQ(newBlockMap(&b_->blockMap, bt::kP1Blocks, nullptr, 1,
				      &pages), 0);
		atomic_add(pages, &b_->totalAllocPages);
		atomic_add(pages, &b_->curAllocPages);
		for (std::uint32_t n : blocks)
			ASSERT_EQ(setBlock(&b_->blockMap, n), 0);
	}

	// A bio over `blocks` whole blocks of `bs` bytes of partition partno,
	// from partition block `first`, each block filled with fill + i;
	// direction rw.  Submitted through submit_bio (partition remap and
	// the queue's make_request_fn); returns at once.
	void submit(RawIo &io, int partno, unsigned bs, std::uint32_t first,
		    unsigned blocks, unsigned char fill, int rw = WRITE,
		    unsigned extra_bytes = 0)
	{
		const unsigned bytes = blocks * bs + extra_bytes;
		const unsigned npages = (bytes + 4095) / 4096;
		struct bio *bio = bio_alloc(GFP_KERNEL, npages);
		ASSERT_NE(bio, nullptr);
		unsigned left = bytes;
		for (unsigned i = 0; i < npages; i++) {
			struct page *p = alloc_page(GFP_KERNEL);
			ASSERT_NE(p, nullptr);
			io.pages.push_back(p);
			char *a = static_cast<char *>(kmap(p));
			for (unsigned off = 0; off < 4096; off += bs)
				std::memset(a + off,
					    fill + (i * 4096 + off) / bs,
					    bs < 4096 - off ? bs : 4096 - off);
			kunmap(p);
			bio->bi_io_vec[i].bv_page = p;
			bio->bi_io_vec[i].bv_offset = 0;
			bio->bi_io_vec[i].bv_len = left < 4096 ? left : 4096;
			left -= bio->bi_io_vec[i].bv_len;
		}
		bio->bi_vcnt = npages;
		bio->bi_size = bytes;
		bio->bi_bdev = disk_->bdev(partno);
		bio->bi_sector = (sector_t)first * (bs / 512);
		bio->bi_end_io = blocktest::record_end_io;
		bio->bi_private = &io.tag;
		submit_bio(rw, bio);
	}
	// The same, waiting for the end; returns whether it was up to date.
	bool write_blocks(int partno, unsigned bs, std::uint32_t first,
			  unsigned blocks, unsigned char fill, int rw = WRITE)
	{
		RawIo io;
		submit(io, partno, bs, first, blocks, fill, rw);
		return io.endings.wait(1)[0].uptodate;
	}
	// Waits until kbackupd has finished every request b holds (its
	// cache map marked, the MakeRequest freed).
	void wait_idle(Backup *b = nullptr)
	{
		if (!b)
			b = b_;
		while (atomic_read(&b->mrInQueue) > 0)
			sched_yield();
	}
	// Partition 1's block n as it is on the disk now.
	std::vector<std::byte> disk_block(std::uint32_t n, int partno = 1,
					  unsigned bs = 4096)
	{
		std::vector<std::byte> out(bs);
		disk_->read((partno == 1 ? kP1Start : kP2Start) +
				    (std::uint64_t)n * (bs / 512),
			    out);
		return out;
	}
	void fill_disk_block(std::uint32_t n, unsigned char v)
	{
		std::vector<std::byte> d(4096, std::byte{v});
		disk_->write(kP1Start + (std::uint64_t)n * 8, d);
	}
	// The cached copy of block n (empty when not cached), read in
	// state 4 so that it stays.
	std::vector<std::byte> cached(std::uint32_t n, Backup *b = nullptr)
	{
		if (!b)
			b = b_;
		std::vector<std::byte> out(b->diskInfo.blockSize);
		if (!cacheRead(b, reinterpret_cast<char *>(out.data()), n))
			out.clear();
		return out;
	}

	// What closing b logs when its partition's session is in sync (the
	// queue goes back to kivAMRF without a message): the thread's exit
	// when `thread`, the statistics `s`, the end of the backup.
	static std::vector<std::string> close_log(const struct Stats &s,
						  bool thread,
						  const char *dev = "major=8 "
								    "minor=1")
	{
		std::vector<std::string> out;
		if (thread)
			out.push_back("<6>backup_cache: backupd thread exiting");
		for (auto &l : stats_lines(s))
			out.push_back(l);
		out.push_back(std::string("<6>closeBackup: backup finished "
					  "device ") + dev);
		return out;
	}
	// Closes fd_ (b_ goes) and expects close_log(stats_after_close(b_)).
	void close_expecting(bool thread = true)
	{
		struct Stats s = stats_after_close(b_);
		s.ioctlCount = atomic_read(&b_->ioctlCount);
		ASSERT_EQ(proc->close(fd_), 0);
		fd_ = -1;
		b_ = nullptr;
		ExpectLog(close_log(s, thread));
	}

	std::unique_ptr<emu::Disk> disk_;
	std::unique_ptr<emu::FileSystem> fs1_, fs2_;
	struct request_queue *q_ = nullptr;
	make_request_fn *real_ = nullptr;
	int fd_ = -1;
	Backup *b_ = nullptr;
	emu::uaddr page_ = 0;
};

// What reached the disk's request function: by whom (the submitting
// task's name), where (partition-1 block for 4096-byte requests) and how.
struct Arrival {
	std::string comm;
	std::uint64_t sector;
	std::uint32_t bytes;
	unsigned long rw;
};

class Arrivals {
public:
	explicit Arrivals(emu::Disk &disk) : disk_(disk)
	{
		disk_.set_observer([this](const emu::DiskRequest &r) {
			std::lock_guard lk(m_);
			all_.push_back({current->comm, r.sector, r.bytes,
					r.rw});
		});
	}
	~Arrivals() { disk_.set_observer({}); }
	std::vector<Arrival> take()
	{
		std::lock_guard lk(m_);
		std::vector<Arrival> out;
		out.swap(all_);
		return out;
	}

private:
	emu::Disk &disk_;
	std::mutex m_;
	std::vector<Arrival> all_;
};

// The sector of partition 1's block n on the whole disk.
inline std::uint64_t p1_sector(std::uint32_t n)
{
	return kP1Start + (std::uint64_t)n * 8;
}

inline std::vector<std::byte> filled(unsigned len, unsigned char v)
{
	return std::vector<std::byte>(len, std::byte{v});
}

}  // namespace bt
