// Device geometry (kernel/kiv-2.6.c, kernel/shim-2.6.c): getDiskInfo on
// partitions and whole disks with mounted file systems of every block size,
// the failures (nothing mounted, no such device, block size below a
// sector, size undetectable), getDiskMinor, the queue shims, and the
// GET_BLOCK_SIZE command through a process.
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "emu/block.hpp"
#include "emu/emu.hpp"
#include "test_driver_util.hpp"

#include <linux/fs.h>
#include <linux/blkdev.h>
#include <linux/genhd.h>
#include <linux/spinlock.h>

namespace {

using emu::uaddr;

constexpr unsigned kMajor = 8;
constexpr unsigned kFirstMinor = 16;
constexpr std::uint64_t kDiskSectors = 2000100;

// A disk sdb (8:16) with partition 1 at sector 63 for 1,000,000 sectors and
// partition 2 after it for 500,000; nothing mounted yet.
class Geometry : public ::testing::Test {
protected:
	void SetUp() override
	{
		emu::log_clear();
		disk_ = std::make_unique<emu::Disk>(test::disk_config(kMajor, kFirstMinor, 16, kDiskSectors, "sdb"));
		ASSERT_EQ(disk_->add_partition(1, 63, 1000000), 0);
		ASSERT_EQ(disk_->add_partition(2, 1000063, 500000), 0);
	}
	void TearDown() override
	{
		fs_.reset();
		disk_.reset();
	}
	void mount(int partno, unsigned block_size)
	{
		fs_ = std::make_unique<emu::FileSystem>(*disk_, partno,
							block_size);
	}
	// A DiskInfo whose fields getDiskInfo must leave alone are marked.
	static DiskInfo marked()
	{
		DiskInfo d;
		std::memset(&d, 0x5c, sizeof d);
		d.numBlocks = 777;
		d.realMRF = reinterpret_cast<make_request_fn *>(0x1234);
		d.superBlock = reinterpret_cast<struct super_block *>(0x4321);
		return d;
	}
	std::unique_ptr<emu::Disk> disk_;
	std::unique_ptr<emu::FileSystem> fs_;
};

TEST_F(Geometry, MillionSectorPartitionWithFourKilobyteBlocks)
{
	mount(1, 4096);
	const int count = fs_->sb()->s_count;
	DiskInfo d = marked();
	const dev_t kdev = KIV_MKDEV(kMajor, kFirstMinor + 1);
	EXPECT_EQ(getDiskInfo(&d, kdev), 0);
	EXPECT_EQ(d.kdev, kdev);
	EXPECT_EQ(d.partitionStart, 63u);
	EXPECT_EQ(d.blockSize, 4096);
	EXPECT_EQ(d.blocksPerPage, 1u);
	EXPECT_EQ(d.superBlock, nullptr);
	EXPECT_EQ(d.partitionSizeKB, 500000u);
	EXPECT_EQ(d.numBlocks, 777u);  // not this function's field
	EXPECT_EQ(d.realMRF, reinterpret_cast<make_request_fn *>(0x1234));
	EXPECT_EQ(d.bdev, disk_->bdev(1));
	EXPECT_EQ(d.bdev, fs_->bdev());
	EXPECT_EQ(d.partitionLen, 1000000u);
	EXPECT_EQ(d.sectorsPerBlock, 8);
	EXPECT_EQ(d.sectorsPerBlockShift, 3);
	// The super block was given back.
	EXPECT_EQ(fs_->sb()->s_count, count);
	ExpectLog({});
}

struct BlockSizeCase {
	unsigned blockSize;
	unsigned blocksPerPage;
	int sectorsPerBlock;
	int shift;
};

class GeometryBlockSize : public Geometry,
			  public ::testing::WithParamInterface<BlockSizeCase> {
};

TEST_P(GeometryBlockSize, DerivedFieldsFollowTheBlockSize)
{
	const auto c = GetParam();
	mount(1, c.blockSize);
	DiskInfo d = marked();
	EXPECT_EQ(getDiskInfo(&d, KIV_MKDEV(kMajor, kFirstMinor + 1)), 0);
	EXPECT_EQ(d.blockSize, static_cast<int>(c.blockSize));
	EXPECT_EQ(d.blocksPerPage, c.blocksPerPage);
	EXPECT_EQ(d.sectorsPerBlock, c.sectorsPerBlock);
	EXPECT_EQ(d.sectorsPerBlockShift, c.shift);
	EXPECT_EQ(d.partitionStart, 63u);
	EXPECT_EQ(d.partitionLen, 1000000u);
	ExpectLog({});
}

INSTANTIATE_TEST_SUITE_P(Sizes, GeometryBlockSize,
			 ::testing::Values(BlockSizeCase{512, 8, 1, 0},
					   BlockSizeCase{1024, 4, 2, 1},
					   BlockSizeCase{2048, 2, 4, 2},
					   BlockSizeCase{4096, 1, 8, 3}));

TEST_F(Geometry, WholeDiskStartsAtZeroAndSpansTheCapacity)
{
	emu::Disk whole(test::disk_config(kMajor, 32, 16, 123456, "sdc"));
	{
		emu::FileSystem fs(whole, 0, 1024);
		DiskInfo d = marked();
		EXPECT_EQ(getDiskInfo(&d, KIV_MKDEV(kMajor, 32)), 0);
		EXPECT_EQ(d.partitionStart, 0u);
		EXPECT_EQ(d.partitionLen, 123456u);
		EXPECT_EQ(d.partitionSizeKB, 61728u);
		EXPECT_EQ(d.blocksPerPage, 4u);
		EXPECT_EQ(d.bdev, fs.bdev());
	}
	ExpectLog({});
}

TEST_F(Geometry, PartitionLengthOddSectorCountRoundsKilobytesDown)
{
	emu::Disk odd(test::disk_config(kMajor, 48, 16, 10001, "sdd"));
	ASSERT_EQ(odd.add_partition(1, 100, 9901), 0);
	{
		emu::FileSystem fs(odd, 1, 512);
		DiskInfo d = marked();
		EXPECT_EQ(getDiskInfo(&d, KIV_MKDEV(kMajor, 49)), 0);
		EXPECT_EQ(d.partitionStart, 100u);
		EXPECT_EQ(d.partitionLen, 9901u);
		EXPECT_EQ(d.partitionSizeKB, 4950u);
	}
}

TEST_F(Geometry, UnmountedDeviceIsNotFound)
{
	mount(1, 4096);  // partition 2 stays unmounted
	DiskInfo d = marked();
	const dev_t kdev = KIV_MKDEV(kMajor, kFirstMinor + 2);
	EXPECT_EQ(getDiskInfo(&d, kdev), 8);
	EXPECT_EQ(d.kdev, kdev);
	EXPECT_EQ(d.superBlock, nullptr);
	EXPECT_EQ(d.bdev, disk_->bdev(2));
	// Nothing past the look-up was filled.
	DiskInfo m = marked();
	EXPECT_EQ(d.blockSize, m.blockSize);
	EXPECT_EQ(d.partitionLen, m.partitionLen);
	ExpectLog({"<3>getDiskInfo: device major=8 minor=18 not found, "
		    "getting super block failed"});
}

TEST_F(Geometry, DeviceWithoutDiskIsNotFound)
{
	DiskInfo d = marked();
	EXPECT_EQ(getDiskInfo(&d, KIV_MKDEV(200, 5)), 8);
	ExpectLog({"<3>getDiskInfo: device major=200 minor=5 not found, "
		    "getting super block failed"});
}

TEST_F(Geometry, BlockSizeBelowASectorIsRefused)
{
	mount(1, 256);
	const int count = fs_->sb()->s_count;
	DiskInfo d = marked();
	EXPECT_EQ(getDiskInfo(&d, KIV_MKDEV(kMajor, kFirstMinor + 1)), 3);
	EXPECT_EQ(d.blockSize, 256);
	EXPECT_EQ(d.sectorsPerBlock, 0);
	EXPECT_EQ(fs_->sb()->s_count, count);
	ExpectLog({"<4>getDiskInfo: device 800011 has bad block size 256"});
}

// A partition's block device without a partition record (bd_part unset)
// has no start to read: it starts at 0 and spans its disk's capacity.
TEST_F(Geometry, PartitionWithoutRecordStartsAtZeroAndSpansTheDisk)
{
	mount(1, 4096);
	struct block_device *bdev = fs_->bdev();
	struct hd_struct *part = bdev->bd_part;
	ASSERT_NE(part, nullptr);
	ASSERT_NE(bdev->bd_contains, bdev);
	bdev->bd_part = nullptr;
	DiskInfo d = marked();
	const int r = getDiskInfo(&d, KIV_MKDEV(kMajor, kFirstMinor + 1));
	bdev->bd_part = part;
	EXPECT_EQ(r, 0);
	EXPECT_EQ(d.partitionStart, 0u);
	EXPECT_EQ(d.partitionLen, kDiskSectors);
	EXPECT_EQ(d.partitionSizeKB, kDiskSectors / 2);
	ExpectLog({});
}

// A mounted device whose size cannot be found (no partition record, no
// disk) is only a warning: the length keeps its previous value.
TEST_F(Geometry, UndetectableSizeIsOnlyAWarning)
{
	emu::Disk whole(test::disk_config(kMajor, 64, 16, 4096, "sde"));
	emu::FileSystem fs(whole, 0, 4096);
	struct block_device *bdev = fs.bdev();
	ASSERT_EQ(bdev->bd_part, nullptr);
	ASSERT_EQ(bdev->bd_contains, bdev);
	struct gendisk *disk = bdev->bd_disk;
	bdev->bd_disk = nullptr;
	DiskInfo d = marked();
	d.partitionLen = 4242;
	const int r = getDiskInfo(&d, KIV_MKDEV(kMajor, 64));
	bdev->bd_disk = disk;
	EXPECT_EQ(r, 0);
	EXPECT_EQ(d.partitionStart, 0u);
	EXPECT_EQ(d.partitionLen, 4242u);
	EXPECT_EQ(d.partitionSizeKB, 2121u);
	EXPECT_EQ(d.blockSize, 4096);
	ExpectLog({"<4>getDiskInfo: can't detect device 800040 size."});
}

// --------------------------------------------------------------------------
// getDiskMinor and the queue shims

TEST_F(Geometry, DiskMinorIsTheWholeDisksMinor)
{
	mount(1, 4096);
	EXPECT_EQ(getDiskMinor(KIV_MKDEV(kMajor, kFirstMinor + 1)),
		  static_cast<int>(kFirstMinor));
	// Mounting the partition opened the whole disk too.
	EXPECT_EQ(getDiskMinor(KIV_MKDEV(kMajor, kFirstMinor)),
		  static_cast<int>(kFirstMinor));
	ExpectLog({});
}

TEST_F(Geometry, DiskMinorOfAnUnopenedDeviceIsMinusOne)
{
	EXPECT_EQ(getDiskMinor(KIV_MKDEV(kMajor, kFirstMinor + 2)), -1);
	ExpectLog({"<3>getDiskMinor: Parent block device not valid for "
		    "MAJOR=8, MINOR=18"});
	EXPECT_EQ(getDiskMinor(KIV_MKDEV(300, 7)), -1);
	ExpectLog({"<3>getDiskMinor: Parent block device not valid for "
		    "MAJOR=300, MINOR=7"});
}

// bdget of a device number never seen before allocates its block device
// (2.6.27: iget5_locked -> bdev_alloc_inode -> kmem_cache_alloc), and
// without memory returns NULL.
TEST_F(Geometry, DiskMinorWithoutMemoryForTheBlockDeviceIsMinusOne)
{
	{
		auto fail = emu::FailScope::nth(emu::Alloc::Slab, 1);
		EXPECT_EQ(getDiskMinor(KIV_MKDEV(301, 9)), -1);
	}
	ExpectLog({"<3>getDiskMinor: Could not get block device for "
		   "MAJOR=301, MINOR=9"});
	{
		auto fail = emu::FailScope::nth(emu::Alloc::Slab, 1);
		DiskInfo d = marked();
		EXPECT_EQ(getDiskInfo(&d, KIV_MKDEV(302, 3)), 8);
		EXPECT_EQ(d.bdev, nullptr);
	}
	ExpectLog({"<3>getDiskInfo: device major=302 minor=3 not found, "
		   "getting super block failed"});
}

TEST_F(Geometry, RequestQueueOfAnOpenDeviceIsItsDisks)
{
	mount(1, 4096);
	DiskInfo d{};
	ASSERT_EQ(getDiskInfo(&d, KIV_MKDEV(kMajor, kFirstMinor + 1)), 0);
	EXPECT_EQ(getRequestQueue(&d), disk_->queue());
	EXPECT_EQ(kivGetRequestQueue(fs_->bdev()), disk_->queue());
	EXPECT_EQ(kivGetRequestQueue(nullptr), nullptr);
	// A block device that is not open has no disk, hence no queue.
	EXPECT_EQ(kivGetRequestQueue(disk_->bdev(2)), nullptr);
	DiskInfo none{};
	EXPECT_EQ(getRequestQueue(&none), nullptr);
}

TEST_F(Geometry, QueueLockIsTakenOnlyWhenTheQueueHasOne)
{
	struct request_queue *q = disk_->queue();
	ASSERT_NE(q->queue_lock, nullptr);
	unsigned long flags = 0;
	kivLockRequestQueue(q, &flags);
	EXPECT_TRUE(spin_is_locked(q->queue_lock));
	EXPECT_EQ(emu::held_locks().size(), 1u);
	kivUnlockRequestQueue(q, flags);
	EXPECT_FALSE(spin_is_locked(q->queue_lock));
	EXPECT_TRUE(emu::held_locks().empty());

	emu::Disk bare(test::disk_config(kMajor, 80, 16, 64, "sdf", false));
	ASSERT_EQ(bare.queue()->queue_lock, nullptr);
	kivLockRequestQueue(bare.queue(), &flags);
	EXPECT_TRUE(emu::held_locks().empty());
	kivUnlockRequestQueue(bare.queue(), flags);
	EXPECT_TRUE(emu::held_locks().empty());
}

// --------------------------------------------------------------------------
// GET_BLOCK_SIZE through a process

class GetBlockSizeCommand : public Geometry {
protected:
	void SetUp() override
	{
		Geometry::SetUp();
		ASSERT_EQ(emu::module_load(), 0);
		emu::mknod("/dev/corvalin", 120, 0);
		proc_.emplace();
		fd_ = proc_->open("/dev/corvalin");
		ASSERT_GE(fd_, 0);
		arg_ = proc_->map_anon(4096);
		answer_ = arg_ + 256;
		emu::log_clear();
	}
	void TearDown() override
	{
		proc_.reset();
		EXPECT_EQ(emu::module_unload(), 0);
		Geometry::TearDown();
	}
	long ask(unsigned minor, std::uint32_t len, uaddr at = 0)
	{
		std::vector<unsigned char> pattern(128, 0xAA);
		EXPECT_TRUE(proc_->poke(answer_, pattern.data(), 128));
		const GetBlockSize g{kMajor, minor, at ? at : answer_, len};
		EXPECT_TRUE(proc_->poke(arg_, &g, sizeof g));
		return proc_->ioctl(fd_, KIV_IOC_GET_BLOCK_SIZE, arg_);
	}
	std::vector<unsigned char> answer(std::size_t n)
	{
		std::vector<unsigned char> v(n);
		EXPECT_TRUE(proc_->peek(answer_, v.data(), n));
		return v;
	}
	static std::vector<unsigned char> bytes(const BlockSize &b,
						std::size_t keep,
						std::size_t total)
	{
		const auto *p = reinterpret_cast<const unsigned char *>(&b);
		std::vector<unsigned char> v(total, 0xAA);
		std::copy(p, p + keep, v.begin());
		return v;
	}
	std::optional<emu::Process> proc_;
	int fd_ = -1;
	uaddr arg_ = 0, answer_ = 0;
};

TEST_F(GetBlockSizeCommand, AnswersOneEntry)
{
	mount(1, 4096);
	EXPECT_EQ(ask(kFirstMinor + 1, 16), 0);
	const BlockSize expected{kMajor, kFirstMinor + 1, 4096, 500000};
	EXPECT_EQ(answer(32), bytes(expected, 16, 32));
	ExpectLog({});
}

TEST_F(GetBlockSizeCommand, LengthEightWritesOnlyMajorAndMinor)
{
	mount(1, 1024);
	EXPECT_EQ(ask(kFirstMinor + 1, 8), 0);
	const BlockSize expected{kMajor, kFirstMinor + 1, 1024, 500000};
	EXPECT_EQ(answer(32), bytes(expected, 8, 32));
}

TEST_F(GetBlockSizeCommand, LengthSixtyFourWritesSixteenBytes)
{
	mount(1, 1024);
	EXPECT_EQ(ask(kFirstMinor + 1, 64), 0);
	const BlockSize expected{kMajor, kFirstMinor + 1, 1024, 500000};
	EXPECT_EQ(answer(80), bytes(expected, 16, 80));
}

TEST_F(GetBlockSizeCommand, LengthZeroWritesNothing)
{
	mount(1, 1024);
	EXPECT_EQ(ask(kFirstMinor + 1, 0), 0);
	EXPECT_EQ(answer(32), std::vector<unsigned char>(32, 0xAA));
}

TEST_F(GetBlockSizeCommand, UnmountedDeviceReturnsEightAndWritesNothing)
{
	mount(1, 4096);
	EXPECT_EQ(ask(kFirstMinor + 2, 16), 8);
	EXPECT_EQ(answer(32), std::vector<unsigned char>(32, 0xAA));
	ExpectLog({"<3>getDiskInfo: device major=8 minor=18 not found, "
		    "getting super block failed"});
}

TEST_F(GetBlockSizeCommand, SmallBlockSizeReturnsThreeAndWritesNothing)
{
	mount(1, 256);
	EXPECT_EQ(ask(kFirstMinor + 1, 16), 3);
	EXPECT_EQ(answer(32), std::vector<unsigned char>(32, 0xAA));
	ExpectLog({"<4>getDiskInfo: device 800011 has bad block size 256"});
}

TEST_F(GetBlockSizeCommand, UnwritableAnswerReturnsSeven)
{
	mount(1, 4096);
	const int count = fs_->sb()->s_count;
	const uaddr ro = proc_->map_anon(4096, emu::PROT_READ_);
	EXPECT_EQ(ask(kFirstMinor + 1, 16, ro), 7);
	EXPECT_EQ(ask(kFirstMinor + 1, 16, proc_->unmapped_address()), 7);
	ExpectLog({"<3>ioctlGetBlockSize: copy to user space failed",
		    "<3>ioctlGetBlockSize: copy to user space failed"});
	// The super block was given back every time.
	EXPECT_EQ(fs_->sb()->s_count, count);
}

// partitionSizeKB is 64 bits in the DiskInfo; the answer carries its low
// 32 bits.
TEST_F(GetBlockSizeCommand, HugePartitionReportsTheLowKilobyteBits)
{
	const std::uint64_t len = (std::uint64_t{1} << 33) + 20;
	emu::Disk huge(test::disk_config(kMajor, 96, 16, len + 64, "sdg"));
	ASSERT_EQ(huge.add_partition(1, 64, len), 0);
	{
		emu::FileSystem fs(huge, 1, 4096);
		DiskInfo d{};
		ASSERT_EQ(getDiskInfo(&d, KIV_MKDEV(kMajor, 97)), 0);
		EXPECT_EQ(d.partitionLen, len);
		EXPECT_EQ(d.partitionSizeKB, (std::uint64_t{1} << 32) + 10);
		EXPECT_EQ(ask(97, 16), 0);
		const BlockSize expected{kMajor, 97, 4096, 10};
		EXPECT_EQ(answer(16), bytes(expected, 16, 16));
	}
	ExpectLog({});
}

// The command works on any device at any time: the file's own record is
// not consulted, whatever its state.
TEST_F(GetBlockSizeCommand, IgnoresTheFilesRecord)
{
	mount(1, 2048);
	Backup *b = test::backup_of(*proc_, fd_);
	setBackupState(b, BU_STATE_MAP_ERROR);
	EXPECT_EQ(ask(kFirstMinor + 1, 16), 0);
	const BlockSize expected{kMajor, kFirstMinor + 1, 2048, 500000};
	EXPECT_EQ(answer(16), bytes(expected, 16, 16));
	EXPECT_EQ(b->diskInfo.kdev, 0u);
	setBackupState(b, BU_STATE_IDLE);
	ExpectLog({});
}

}  // namespace
