// Change tracking (kivAMRF on the disk's queue) while the kernel does I/O
// under the disk's own bd_mutex: re-reading the partition table of a
// tracked disk (BLKRRPART, as fdisk and `blockdev --rereadpt` ask for it)
// sends the read of sector 0 through the hook from inside
// rescan_partitions, and the last close of the disk writes its dirty pages
// back through the hook from inside __blkdev_put.
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "emu/block.hpp"
#include "emu/emu.hpp"
#include "emu/process.hpp"
#include "test_driver_util.hpp"
#include "test_queue_util.hpp"

namespace {

constexpr unsigned kMajor = 8;

// Disk sda with its label read through its node, partition 1 tracked by
// kivAMRF in sync, and then unmounted again (tracking stays on the queue
// between backups; nothing of the disk is open but the node).
class TrackedRescan : public ::testing::Test {
protected:
	void SetUp() override
	{
		emu::log_clear();
		disk_ = std::make_unique<emu::Disk>(
			test::disk_config(kMajor, 0, 16, 3000000, "sda"));
		// Partition 1 at 63 and partition 2 behind it, 1,000,000 sectors
		// each.
		test::write_dos_label(*disk_, 63, 1000000, 1000063, 1000000);
		emu::mknod_block("/dev/sda", kMajor, 0);
		proc_ = std::make_unique<emu::Process>();
		fd_ = proc_->open("/dev/sda");
		ASSERT_GE(fd_, 0);
		ASSERT_EQ(proc_->ioctl(fd_, BLKRRPART, 0), 0);
		mount();
		ASSERT_EQ(getDiskInfo(&b1_.diskInfo, disk_->dev(1)), 0);
		b1_.diskInfo.numBlocks = fs1_->blocks();
		ASSERT_EQ(newAMS(&b1_, &ams_), 0);
		setAMSState(ams_, AM_STATE_IN_SYNC);
		ASSERT_EQ(setMRF(&b1_, kivAMRF), 0);
		fs1_.reset();
		emu::log_clear();
	}
	void TearDown() override
	{
		// The session's close finds the queue through the partition,
		// which must be open for that: mounted again.
		if (!fs1_)
			mount();
		EXPECT_EQ(closeAMS(&b1_), 0);
		EXPECT_EQ(disk_->queue()->make_request_fn,
			  emu::Disk::request_fn());
		fs1_.reset();
		EXPECT_TRUE(test::registry().empty());
		test::clear_registry();
		EXPECT_EQ(atomic_read(&curAllocAMPages), 0);
		proc_.reset();
		disk_.reset();
	}
	void mount()
	{
		fs1_ = std::make_unique<emu::FileSystem>(*disk_, 1, 4096);
	}
	void write_block(std::uint64_t block)
	{
		std::vector<std::byte> data(4096, std::byte{0x5a});
		ASSERT_EQ(fs1_->write_block(block, data), 0);
		ASSERT_EQ(fs1_->sync(), 0);
	}

	std::unique_ptr<emu::Disk> disk_;
	std::unique_ptr<emu::FileSystem> fs1_;
	std::unique_ptr<emu::Process> proc_;
	int fd_ = -1;
	Backup b1_{};
	AutoMapSession *ams_ = nullptr;
};

// rescan_partitions holds the disk's bd_mutex while it reads sector 0,
// and the read passes kivAMRF: its partition look-up must not take that
// mutex (it did, and the re-reading task slept on itself forever).  The
// re-read completes, the partitions are back, and tracking goes on.
TEST_F(TrackedRescan, RereadOfAHookedDiskCompletesAndTrackingGoesOn)
{
	struct request_queue *q = disk_->queue();
	ASSERT_EQ(q->make_request_fn, &kivAMRF);
	EXPECT_EQ(proc_->ioctl(fd_, BLKRRPART, 0), 0);
	ExpectLog({"<6> sda: sda1 sda2"});
	struct gendisk *gd = disk_->gendisk();
	ASSERT_NE(gd->part[0], nullptr);
	EXPECT_EQ(gd->part[0]->start_sect, 63u);
	ASSERT_NE(gd->part[1], nullptr);
	EXPECT_EQ(gd->part[1]->start_sect, 1000063u);
	EXPECT_EQ(q->make_request_fn, &kivAMRF);

	mount();
	write_block(10);
	write_block(11);
	EXPECT_EQ(blockInMap(&ams_->map, 9), 0);
	EXPECT_EQ(blockInMap(&ams_->map, 10), -1);
	EXPECT_EQ(blockInMap(&ams_->map, 11), -1);
	EXPECT_EQ(blockInMap(&ams_->map, 12), 0);
	EXPECT_EQ(ams_->state, (u32)AM_STATE_IN_SYNC);
	ExpectLog({});
}

// The last close of the tracked disk's node writes its dirty pages back
// under the disk's bd_mutex, through kivAMRF: it completes too.
TEST_F(TrackedRescan, LastCloseOfAHookedDiskWritesBackThroughTheHook)
{
	std::vector<std::byte> data(4096, std::byte{0x6e});
	emu::uaddr src = proc_->map_anon(4096);
	ASSERT_TRUE(proc_->poke(src, data.data(), data.size()));
	// Bytes 63 * 512 + 4096 on: a whole page of partition 1's block 1
	// seen through the whole disk (page 9 of the disk).
	emu::uaddr skip = proc_->map_anon(9 * 4096);
	ASSERT_EQ(proc_->read(fd_, skip, 9 * 4096), 9 * 4096);
	ASSERT_EQ(proc_->write(fd_, src, 4096), 4096);
	EXPECT_EQ(proc_->close(fd_), 0);
	fd_ = -1;
	std::vector<std::byte> out(4096);
	disk_->read(72, out);
	EXPECT_EQ(out, data);
	// The write counted for partition 1 (sectors 72.. are its blocks
	// 1 and 2 in 4 KiB blocks from sector 63).
	EXPECT_EQ(blockInMap(&ams_->map, 1), -1);
	EXPECT_EQ(blockInMap(&ams_->map, 2), -1);
	EXPECT_EQ(blockInMap(&ams_->map, 3), 0);
	ExpectLog({});
}

}  // namespace
