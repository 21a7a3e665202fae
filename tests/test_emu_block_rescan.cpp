// Block device nodes and the kernel I/O done under a disk's bd_mutex:
// BLKRRPART and rescan_partitions (the DOS label read through the queue,
// in 2.6.27's order, -EBUSY while a partition is open), the first open of
// a disk marked invalidated, writes through the device's page cache, and
// the last close writing back under bd_mutex.
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "test_emu_block_util.hpp"

#include "emu/process.hpp"

#include <linux/mutex.h>

using namespace blocktest;

namespace {

// A DOS label with up to four primary entries in sector 0 of `disk`.
void write_label(emu::Disk &disk,
		 std::initializer_list<emu::DosPartition> entries)
{
	emu::write_dos_label(disk, std::span(entries.begin(), entries.size()));
}

bool holds(struct mutex *m)
{
	return mutex_is_locked(m) && m->owner == current;
}

// What the disk's request function saw, with the state of the disk at
// that moment.
struct Req {
	unsigned long rw;
	std::uint64_t sector;
	unsigned bytes;
	int partitions;      // entries of disk->part[] present
	bool under_mutex;    // the submitter holds the whole disk's bd_mutex
};

class Rescan : public ::testing::Test {
protected:
	void SetUp() override
	{
		auto cfg = disk_config(0, 100000, "sda", 1);
		disk_ = std::make_unique<emu::Disk>(cfg);
		emu::mknod_block("/dev/sda", kMajor, 0);
		emu::mknod_block("/dev/sda1", kMajor, 1);
		proc_ = std::make_unique<emu::Process>();
		emu::log_clear();
	}
	void TearDown() override
	{
		disk_->set_observer({});
		proc_.reset();
		fs_.reset();
		disk_.reset();
	}
	int partitions() const
	{
		int n = 0;
		for (int p = 1; p < disk_->gendisk()->minors; p++)
			n += disk_->gendisk()->part[p - 1] != nullptr;
		return n;
	}
	void observe()
	{
		struct block_device *whole = disk_->bdev(0);
		disk_->set_observer([this, whole](const emu::DiskRequest &r) {
			seen_.push_back({r.rw & 1, r.sector, r.bytes,
					 partitions(), holds(&whole->bd_mutex)});
		});
	}
	struct hd_struct *part(int p) const
	{
		return disk_->gendisk()->part[p - 1];
	}
	emu::uaddr user_bytes(const std::vector<std::byte> &data)
	{
		emu::uaddr a = proc_->map_anon(data.size());
		EXPECT_TRUE(proc_->poke(a, data.data(), data.size()));
		return a;
	}
	std::vector<std::byte> on_disk(std::uint64_t sector, std::size_t len)
	{
		std::vector<std::byte> out(len);
		disk_->read(sector, out);
		return out;
	}

	std::unique_ptr<emu::Disk> disk_;
	std::unique_ptr<emu::FileSystem> fs_;
	std::unique_ptr<emu::Process> proc_;
	std::vector<Req> seen_;
};

TEST_F(Rescan, BlkrrpartReadsTheDosLabelThroughTheQueue)
{
	write_label(*disk_, {{2048, 10000}, {12048, 20000}});
	int fd = proc_->open("/dev/sda");
	ASSERT_GE(fd, 0);
	EXPECT_EQ(partitions(), 0);
	Hook hook(disk_->queue());
	EXPECT_EQ(proc_->ioctl(fd, BLKRRPART, 0), 0);
	const auto seen = hook.seen();
	ASSERT_EQ(seen.size(), 1u);
	EXPECT_EQ(seen[0].dev, disk_->dev(0));
	EXPECT_EQ(seen[0].sector, 0u);
	EXPECT_EQ(seen[0].size, 4096u);
	EXPECT_EQ(seen[0].rw & 1, static_cast<unsigned long>(READ));
	ASSERT_EQ(partitions(), 2);
	EXPECT_EQ(part(1)->start_sect, 2048u);
	EXPECT_EQ(part(1)->nr_sects, 10000u);
	EXPECT_EQ(part(2)->start_sect, 12048u);
	EXPECT_EQ(part(2)->nr_sects, 20000u);
	ExpectLog({"<6> sda: sda1 sda2"});
	EXPECT_EQ(proc_->close(fd), 0);
}

TEST_F(Rescan, OrderIsWritebackInvalidateDeleteReadAdd)
{
	write_label(*disk_, {{2048, 10000}});
	ASSERT_EQ(disk_->add_partition(3, 50000, 100), 0);
	int fd = proc_->open("/dev/sda");
	ASSERT_GE(fd, 0);
	// Sector 0 in the page cache, a dirty page at byte 8192.
	emu::uaddr buf = proc_->map_anon(4096);
	ASSERT_EQ(proc_->read(fd, buf, 4096), 4096);
	ASSERT_EQ(proc_->read(fd, buf, 4096), 4096);
	std::vector<std::byte> data(4096, std::byte{0x77});
	emu::uaddr src = user_bytes(data);
	ASSERT_EQ(proc_->write(fd, src, 4096), 4096);
	// The label changes behind the cache's back.
	write_label(*disk_, {{4096, 3000}, {8192, 3000}});
	observe();
	EXPECT_EQ(proc_->ioctl(fd, BLKRRPART, 0), 0);
	ASSERT_EQ(seen_.size(), 2u);
	// invalidate_partition: the dirty page written back, partitions
	// still there ...
	EXPECT_EQ(seen_[0].rw, static_cast<unsigned long>(WRITE));
	EXPECT_EQ(seen_[0].sector, 16u);
	EXPECT_EQ(seen_[0].partitions, 1);
	EXPECT_TRUE(seen_[0].under_mutex);
	// ... then every partition deleted, the cache dropped (sector 0 is
	// read again), the new table read ...
	EXPECT_EQ(seen_[1].rw, static_cast<unsigned long>(READ));
	EXPECT_EQ(seen_[1].sector, 0u);
	EXPECT_EQ(seen_[1].partitions, 0);
	EXPECT_TRUE(seen_[1].under_mutex);
	// ... and its partitions added.
	ASSERT_EQ(partitions(), 2);
	EXPECT_EQ(part(1)->start_sect, 4096u);
	EXPECT_EQ(part(2)->start_sect, 8192u);
	EXPECT_EQ(part(3), nullptr);
	EXPECT_EQ(on_disk(16, 4096), data);
	ExpectLog({"<6> sda: sda1 sda2"});
	EXPECT_EQ(proc_->close(fd), 0);
}

TEST_F(Rescan, BusyWhileAPartitionIsOpenAndNothingIsRead)
{
	write_label(*disk_, {{2048, 10000}});
	ASSERT_EQ(disk_->add_partition(1, 2048, 10000), 0);
	fs_ = std::make_unique<emu::FileSystem>(*disk_, 1, 1024);
	int fd = proc_->open("/dev/sda");
	ASSERT_GE(fd, 0);
	struct hd_struct *before = part(1);
	observe();
	EXPECT_EQ(proc_->ioctl(fd, BLKRRPART, 0), -EBUSY);
	EXPECT_TRUE(seen_.empty());
	EXPECT_EQ(part(1), before);

	// The partition's own node counts as open as well.
	fs_.reset();
	int pfd = proc_->open("/dev/sda1");
	ASSERT_GE(pfd, 0);
	EXPECT_EQ(proc_->ioctl(fd, BLKRRPART, 0), -EBUSY);
	EXPECT_EQ(proc_->close(pfd), 0);

	// Nothing open on the disk but the disk itself: re-read.
	EXPECT_EQ(proc_->ioctl(fd, BLKRRPART, 0), 0);
	EXPECT_EQ(seen_.size(), 1u);
	ASSERT_EQ(partitions(), 1);
	EXPECT_EQ(part(1)->start_sect, 2048u);
	ExpectLog({"<6> sda: sda1"});
	EXPECT_EQ(proc_->close(fd), 0);
}

TEST_F(Rescan, BusyWhileAConcurrentTaskHoldsTheDisksMutex)
{
	int fd = proc_->open("/dev/sda");
	ASSERT_GE(fd, 0);
	struct block_device *whole = disk_->bdev(0);
	std::atomic<int> stage{0};
	std::jthread holder([&] {
		mutex_lock(&whole->bd_mutex);
		stage = 1;
		while (stage.load() != 2)
			std::this_thread::yield();
		mutex_unlock(&whole->bd_mutex);
	});
	while (stage.load() != 1)
		std::this_thread::yield();
	EXPECT_EQ(proc_->ioctl(fd, BLKRRPART, 0), -EBUSY);
	stage = 2;
	holder.join();
	EXPECT_EQ(proc_->close(fd), 0);
	ExpectLog({});
}

TEST_F(Rescan, PartitionNodeIsNotReread)
{
	ASSERT_EQ(disk_->add_partition(1, 2048, 10000), 0);
	int fd = proc_->open("/dev/sda1");
	ASSERT_GE(fd, 0);
	EXPECT_EQ(proc_->ioctl(fd, BLKRRPART, 0), -EINVAL);
	EXPECT_EQ(proc_->ioctl(fd, 0x1234, 0), -ENOTTY);
	EXPECT_EQ(proc_->close(fd), 0);
	ExpectLog({});
}

TEST_F(Rescan, UnreadableTableIsEioAndLeavesNoPartitions)
{
	ASSERT_EQ(disk_->add_partition(1, 2048, 10000), 0);
	int fd = proc_->open("/dev/sda");
	ASSERT_GE(fd, 0);
	disk_->fail_sectors(0, 1, -EIO, emu::Dir::Read);
	EXPECT_EQ(proc_->ioctl(fd, BLKRRPART, 0), -EIO);
	EXPECT_EQ(partitions(), 0);
	// The completion's line interrupts the unfinished " sda:" line, as
	// 2.6.27's printk lets it; the rest is a line of its own.
	ExpectLog({"<6> sda:<3>end_request: I/O error, dev sda, sector 0",
		   "<4> unable to read partition table"});
	EXPECT_EQ(proc_->close(fd), 0);
}

TEST_F(Rescan, SectorWithoutALabelIsAnUnknownTable)
{
	ASSERT_EQ(disk_->add_partition(1, 2048, 10000), 0);
	int fd = proc_->open("/dev/sda");
	ASSERT_GE(fd, 0);
	EXPECT_EQ(proc_->ioctl(fd, BLKRRPART, 0), 0);
	EXPECT_EQ(partitions(), 0);
	ExpectLog({"<6> sda: unknown partition table"});
	EXPECT_EQ(proc_->close(fd), 0);
}

TEST_F(Rescan, FirstOpenOfAnInvalidatedDiskRereadsTheTableUnderItsMutex)
{
	write_label(*disk_, {{2048, 10000}, {12048, 20000}});
	int fd = proc_->open("/dev/sda");
	ASSERT_GE(fd, 0);
	EXPECT_EQ(partitions(), 0);  // not invalidated: nothing read
	EXPECT_EQ(proc_->close(fd), 0);

	disk_->set_invalidated();
	observe();
	fd = proc_->open("/dev/sda");
	ASSERT_GE(fd, 0);
	ASSERT_EQ(seen_.size(), 1u);
	EXPECT_TRUE(seen_[0].under_mutex);
	EXPECT_EQ(partitions(), 2);
	ExpectLog({"<6> sda: sda1 sda2"});
	// A second open is not a first one: nothing read again.
	int fd2 = proc_->open("/dev/sda");
	ASSERT_GE(fd2, 0);
	EXPECT_EQ(seen_.size(), 1u);
	EXPECT_EQ(proc_->close(fd2), 0);
	EXPECT_EQ(proc_->close(fd), 0);
}

TEST(RescanAtAdd, DiskMadeWithScanningReadsItsLabel)
{
	auto cfg = disk_config(0, 0, "sda", 1);
	// An image, so that the label is there before the disk is added.
	auto image = std::string(::testing::TempDir()) + "rescan-at-add.img";
	{
		std::FILE *f = std::fopen(image.c_str(), "wb");
		ASSERT_NE(f, nullptr);
		std::vector<char> zeros(512 * 4000);
		std::fwrite(zeros.data(), 1, zeros.size(), f);
		std::fclose(f);
	}
	cfg.image = image;
	{
		emu::Disk staging(cfg);
		write_label(staging, {{63, 1000}, {1063, 2000}});
	}
	emu::log_clear();
	cfg.scan_partitions = true;
	emu::Disk disk(cfg);
	ASSERT_NE(disk.gendisk()->part[0], nullptr);
	EXPECT_EQ(disk.gendisk()->part[0]->start_sect, 63u);
	ASSERT_NE(disk.gendisk()->part[1], nullptr);
	EXPECT_EQ(disk.gendisk()->part[1]->nr_sects, 2000u);
	ExpectLog({"<6> sda: sda1 sda2"});
	std::remove(image.c_str());
}

// ---------------------------------------------------------------------------
// the page cache of block device nodes and the last close

TEST_F(Rescan, NodeWritesStayInThePageCacheUntilFsync)
{
	ASSERT_EQ(disk_->add_partition(1, 2048, 10000), 0);
	int fd = proc_->open("/dev/sda1");
	ASSERT_GE(fd, 0);
	observe();
	std::vector<std::byte> data(1024, std::byte{0x42});
	emu::uaddr src = user_bytes(data);
	ASSERT_EQ(proc_->write(fd, src, 1024), 1024);  // bytes 0..1023
	// A partial page is read first, then only kept.
	ASSERT_EQ(seen_.size(), 1u);
	EXPECT_EQ(seen_[0].rw, static_cast<unsigned long>(READ));
	EXPECT_EQ(seen_[0].sector, 2048u);  // remapped
	EXPECT_EQ(on_disk(2048, 1024), pattern(1024, 0));
	EXPECT_EQ(proc_->fsync(fd), 0);
	ASSERT_EQ(seen_.size(), 2u);
	EXPECT_EQ(seen_[1].rw, static_cast<unsigned long>(WRITE));
	EXPECT_EQ(seen_[1].sector, 2048u);
	EXPECT_EQ(seen_[1].bytes, 4096u);
	EXPECT_FALSE(seen_[1].under_mutex);
	EXPECT_EQ(on_disk(2048, 1024), data);
	EXPECT_EQ(proc_->fsync(fd), 0);  // nothing dirty: nothing sent
	EXPECT_EQ(seen_.size(), 2u);
	EXPECT_EQ(proc_->close(fd), 0);
	ExpectLog({});
}

TEST_F(Rescan, WritePastTheEndOfTheDeviceIsNoSpace)
{
	ASSERT_EQ(disk_->add_partition(1, 2048, 16), 0);  // 8 KiB
	int fd = proc_->open("/dev/sda1");
	ASSERT_GE(fd, 0);
	std::vector<std::byte> data(8192, std::byte{0x11});
	emu::uaddr src = user_bytes(data);
	EXPECT_EQ(proc_->write(fd, src, 8192), 8192);
	EXPECT_EQ(proc_->write(fd, src, 1), -ENOSPC);
	EXPECT_EQ(proc_->close(fd), 0);
	EXPECT_EQ(on_disk(2048, 8192), data);
}

TEST_F(Rescan, LastCloseWritesBackUnderTheDevicesMutex)
{
	int fd = proc_->open("/dev/sda");
	int fd2 = proc_->open("/dev/sda");
	ASSERT_GE(fd, 0);
	ASSERT_GE(fd2, 0);
	std::vector<std::byte> data(4096, std::byte{0x5c});
	emu::uaddr src = user_bytes(data);
	ASSERT_EQ(proc_->write(fd, src, 4096), 4096);  // a whole page
	observe();
	EXPECT_EQ(proc_->close(fd), 0);  // not the last: nothing written
	EXPECT_TRUE(seen_.empty());
	EXPECT_EQ(on_disk(0, 4096), pattern(4096, 0));
	EXPECT_EQ(proc_->close(fd2), 0);
	ASSERT_EQ(seen_.size(), 1u);
	EXPECT_EQ(seen_[0].rw, static_cast<unsigned long>(WRITE));
	EXPECT_TRUE(seen_[0].under_mutex);
	EXPECT_EQ(on_disk(0, 4096), data);
	ExpectLog({});
}

// A make_request_fn that takes the disk's bd_mutex for every bio hangs on
// the last close of the disk with dirty pages: the closing task holds it.
int mutex_taking_hook(struct request_queue *q, struct bio *bio)
{
	mutex_lock(&bio->bi_bdev->bd_mutex);
	mutex_unlock(&bio->bi_bdev->bd_mutex);
	return emu::Disk::request_fn()(q, bio);
}

TEST(RescanDeathTest, HookTakingTheDisksMutexOnTheLastCloseIsARecursiveLock)
{
	EXPECT_DEATH(([] {
		emu::Disk disk(disk_config(0, 1000, "sda", 1));
		emu::mknod_block("/dev/sda", kMajor, 0);
		emu::Process proc;
		int fd = proc.open("/dev/sda");
		emu::uaddr src = proc.map_anon(4096);
		proc.write(fd, src, 4096);
		disk.queue()->make_request_fn = mutex_taking_hook;
		proc.close(fd);
	}()),
		"recursive mutex_lock: already taken by this task at "
		"emu/src/block_dev.cpp");
}

TEST_F(Rescan, HookTakingTheDisksMutexIsFineOutsideItsHolders)
{
	// The same hook, a write-back not done under the mutex: fine.
	int fd = proc_->open("/dev/sda");
	ASSERT_GE(fd, 0);
	std::vector<std::byte> data(4096, std::byte{0x21});
	emu::uaddr src = user_bytes(data);
	ASSERT_EQ(proc_->write(fd, src, 4096), 4096);
	disk_->queue()->make_request_fn = mutex_taking_hook;
	EXPECT_EQ(proc_->fsync(fd), 0);
	disk_->queue()->make_request_fn = emu::Disk::request_fn();
	EXPECT_EQ(on_disk(0, 4096), data);
	EXPECT_EQ(proc_->close(fd), 0);
}

}  // namespace
