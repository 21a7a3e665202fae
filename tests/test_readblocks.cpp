// READ_BLOCKS: runs of the frozen image into a read-buffer mapping, each
// block from the block cache or from the disk, through the device as the
// backup program issues it.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "test_readpath_util.hpp"

namespace {

using readpath::block_pattern;

class ReadBlocks : public readpath::ReadPath {
protected:
	// A backup of partition 1 snapshotted (state 4) with a mapping of
	// `pages` pages; the log is cleared.
	void snapshotted(unsigned block_size, unsigned pages = 16,
			 emu::Completion c = emu::Completion::Request)
	{
		make_disk(block_size, 2048, c);
		ASSERT_EQ(start(), 0);
		ASSERT_EQ(snapshot(), 0);
		long long a = map(pages);
		ASSERT_GT(a, 0);
		addr = static_cast<emu::uaddr>(a);
		emu::log_clear();
	}
	// READ_BLOCKS of blocks 0 to 15 on a thread of its own, returned once
	// its 16 disk reads wait in the plugged disk; the caller unplugs.
	std::thread read_held_at_the_disk(std::atomic<long> &result)
	{
		const auto reqs = disk->requests();
		disk->plug();
		std::thread reader([this, &result] {
			result = read_blocks(0, 16, addr);
		});
		while (disk->requests() < reqs + 16)
			std::this_thread::yield();
		return reader;
	}
	// Block first + i of the image is at byte i * bs of the mapping.
	void expect_image(std::uint32_t first, std::uint32_t n,
			  const std::vector<std::uint32_t> &zeros = {},
			  std::uint32_t old = ~0u)
	{
		auto got = peek(addr, std::size_t(n) * bs);
		for (std::uint32_t i = 0; i < n; i++) {
			bool zero = std::find(zeros.begin(), zeros.end(),
					      first + i) != zeros.end();
			std::vector<std::uint8_t> want =
				zero ? std::vector<std::uint8_t>(bs, 0)
				     : block_pattern(first + i, bs);
			std::vector<std::uint8_t> have(
				got.begin() + std::size_t(i) * bs,
				got.begin() + std::size_t(i + 1) * bs);
			EXPECT_EQ(have, want) << "block " << first + i;
		}
		(void)old;
	}
	void write_block(std::uint64_t n, unsigned char fill)
	{
		std::vector<std::byte> v(bs, std::byte{fill});
		ASSERT_EQ(fs->write_block(n, v), 0);
	}
	std::vector<std::uint8_t> disk_block(std::uint32_t n)
	{
		std::vector<std::uint8_t> v(bs);
		disk->read(readpath::kP1Start + std::uint64_t(n) * (bs / 512),
			   std::as_writable_bytes(std::span(v)));
		return v;
	}

	emu::uaddr addr = 0;
};

TEST_F(ReadBlocks, WholeRangeComesFromTheDiskAndReadsAgainAlike)
{
	snapshotted(4096);
	const auto reqs = disk->requests();
	EXPECT_EQ(read_blocks(40, 16, addr), 0);
	expect_image(40, 16);
	EXPECT_EQ(disk->requests(), reqs + 16);
	EXPECT_EQ(read_blocks(40, 16, addr), 0);
	expect_image(40, 16);
	EXPECT_EQ(atomic_read(&b_->totalReadBlocks), 32);
	EXPECT_EQ(atomic_read(&b_->curAllocBRs), 0);
	ExpectLog({});
}

TEST_F(ReadBlocks, RangeWrappingPastTheTopIsInvalid)
{
	snapshotted(4096);
	EXPECT_EQ(read_blocks(0xFFFFFFFFu, 1, addr), 2);
	ExpectLog({"<3>ioctlReadBlocks: invalid block read range "
		   "(4294967295-0)"});
}

TEST_F(ReadBlocks, EmptyRangeReadsNothing)
{
	snapshotted(4096);
	const auto reqs = disk->requests();
	EXPECT_EQ(read_blocks(10, 0, addr), 0);
	EXPECT_EQ(disk->requests(), reqs);
	EXPECT_EQ(atomic_read(&b_->totalAllocBRs), 0);
	ExpectLog({});
}

TEST_F(ReadBlocks, RangeEndingAtTheBlockMapSizeIsAccepted)
{
	snapshotted(4096);
	load_full_map();
	EXPECT_EQ(read_blocks(blocks - 16, 16, addr), 0);
	expect_image(blocks - 16, 16);
	ExpectLog({});
	EXPECT_EQ(read_blocks(blocks - 15, 16, addr), 2);
	ExpectLog({"<3>ioctlReadBlocks: end block number out of block map "
		   "range"});
}

TEST_F(ReadBlocks, DataOnePageIntoAMappingIsInvalid)
{
	snapshotted(4096);
	EXPECT_EQ(read_blocks(0, 1, addr + 4096), 2);
	ExpectLog({"<3>ioctlReadBlocks: invalid data pointer"});
	EXPECT_EQ(read_blocks(0, 1, page_), 2);
	ExpectLog({"<3>ioctlReadBlocks: invalid data pointer"});
}

TEST_F(ReadBlocks, SixteenPagesHoldSixteenBlocksNotSeventeen)
{
	snapshotted(4096);
	const auto reqs = disk->requests();
	EXPECT_EQ(read_blocks(0, 17, addr), 2);
	ExpectLog({"<3>ioctlReadBlocks: tried to read (17) number of blocks "
		   "size (4096) and mmap region can hold (65536) bytes"});
	EXPECT_EQ(disk->requests(), reqs);
	EXPECT_EQ(read_blocks(0, 16, addr), 0);
	expect_image(0, 16);
}

TEST_F(ReadBlocks, KilobyteBlocksFillFourPerPage)
{
	snapshotted(1024, 4);
	EXPECT_EQ(read_blocks(100, 16, addr), 0);
	expect_image(100, 16);
	EXPECT_EQ(read_blocks(0, 17, addr), 2);
	ExpectLog({"<3>ioctlReadBlocks: tried to read (17) number of blocks "
		   "size (1024) and mmap region can hold (16384) bytes"});
}

TEST_F(ReadBlocks, SecondMappingIsFilledByItsOwnAddress)
{
	snapshotted(4096, 4);
	long long second = map(2);
	ASSERT_GT(second, 0);
	const emu::uaddr a2 = static_cast<emu::uaddr>(second);
	EXPECT_EQ(read_blocks(7, 2, a2), 0);
	EXPECT_EQ(peek(a2, 4096), block_pattern(7, 4096));
	EXPECT_EQ(peek(a2 + 4096, 4096), block_pattern(8, 4096));
}

TEST_F(ReadBlocks, CachedBlockIsDeliveredFromTheCacheInStateFourAgainAndAgain)
{
	snapshotted(4096);
	write_block(5, 0xAB);
	sync_settled();
	EXPECT_EQ(disk_block(5), std::vector<std::uint8_t>(4096, 0xAB));
	EXPECT_TRUE(in_map(&b_->cacheMap, 5));
	emu::log_clear();
	EXPECT_EQ(read_blocks(0, 16, addr), 0);
	expect_image(0, 16);
	EXPECT_EQ(read_blocks(0, 16, addr), 0);
	expect_image(0, 16);
	EXPECT_TRUE(in_map(&b_->cacheMap, 5));
	EXPECT_EQ(atomic_read(&b_->curCBs), 1);
	EXPECT_EQ(atomic_read(&b_->totalReadCBs), 2);
	EXPECT_EQ(atomic_read(&b_->totalReadBlocks), 30);
	ExpectLog({});
}

TEST_F(ReadBlocks, CachedBlockReadInStateSixLeavesBothMapsAndTheCache)
{
	snapshotted(4096);
	write_block(5, 0xAB);
	sync_settled();
	load_full_map();
	emu::log_clear();
	EXPECT_EQ(read_blocks(0, 16, addr), 0);
	expect_image(0, 16);
	EXPECT_FALSE(in_map(&b_->cacheMap, 5));
	for (std::uint32_t n = 0; n < 16; n++)
		EXPECT_FALSE(in_map(&b_->blockMap, n)) << n;
	EXPECT_TRUE(in_map(&b_->blockMap, 16));
	EXPECT_EQ(atomic_read(&b_->curCBs), 0);
	ExpectLog({});
}

TEST_F(ReadBlocks, DiskErrorIsTwelveWithZerosInItsPlace)
{
	snapshotted(4096, 16, emu::Completion::Bio);
	load_full_map();
	disk->fail_sectors(readpath::kP1Start + 3 * 8, 8, -EIO,
			   emu::Dir::Read);
	EXPECT_EQ(read_blocks(0, 8, addr), 12);
	const auto lines = emu::log_strings();
	ASSERT_EQ(lines.size(), 3u);
	EXPECT_EQ(lines[0].rfind("<4>kivBIOEndIO: IO error, bio=", 0), 0u);
	EXPECT_NE(lines[0].find(", major=8, sector=88"), std::string::npos);
	EXPECT_EQ(lines[1].rfind("<4>kivBHEndIO: buffer_head I/O error bh=",
				 0), 0u);
	EXPECT_NE(lines[1].find(", major=8, minor=1, block=3"),
		  std::string::npos);
	EXPECT_EQ(lines[2], "<4>ioctlReadBlocks: Received an IO error while "
			    "reading sectors for backup.  Some sectors could "
			    "not be read");
	emu::log_clear();
	expect_image(0, 8, {3});
	// Delivered, even as zeros: no longer in the block map.
	for (std::uint32_t n = 0; n < 8; n++)
		EXPECT_FALSE(in_map(&b_->blockMap, n)) << n;
	EXPECT_EQ(atomic_read(&b_->curAllocBRs), 0);
}

TEST_F(ReadBlocks, NotSupportedReadIsTwelveToo)
{
	snapshotted(4096, 16, emu::Completion::Bio);
	disk->fail_sectors(readpath::kP1Start + 6 * 8, 8, -EOPNOTSUPP,
			   emu::Dir::Read);
	EXPECT_EQ(read_blocks(4, 4, addr), 12);
	const auto lines = emu::log_strings();
	ASSERT_EQ(lines.size(), 3u);
	EXPECT_NE(lines[0].find(", major=8, sector=112"), std::string::npos);
	EXPECT_NE(lines[1].find(", major=8, minor=1, block=6"),
		  std::string::npos);
	EXPECT_EQ(lines[2], "<4>ioctlReadBlocks: Received an IO error while "
			    "reading sectors for backup.  Some sectors could "
			    "not be read");
	emu::log_clear();
	expect_image(4, 4, {6});
}

TEST_F(ReadBlocks, BlockMissingFromTheCacheIsTwoAndNothingLeavesTheMap)
{
	snapshotted(4096);
	load_full_map();
	proc->run_as([&] { ASSERT_EQ(setBlock(&b_->cacheMap, 7), 0); });
	const emu::Usage base = emu::usage();
	EXPECT_EQ(read_blocks(0, 16, addr), 2);
	ExpectLog({"<4>readFromCache: expected to read block number (7) from "
		   "cache and block not found in cache",
		   "<3>ioctlReadBlocks: read (15) blocks from disk and (0) "
		   "blocks from cache and expected to read (16) blocks"});
	// The reads in flight were waited for, then released.
	EXPECT_EQ(atomic_read(&b_->curAllocBRs), 0);
	EXPECT_EQ(emu::usage(), base);
	for (std::uint32_t n = 0; n < 16; n++)
		EXPECT_TRUE(in_map(&b_->blockMap, n)) << n;
}

TEST_F(ReadBlocks, RequestAllocationFailureIsTwoAndLeaksNothing)
{
	snapshotted(4096);
	const emu::Usage base = emu::usage();
	{
		auto fail = emu::FailScope::nth(emu::Alloc::Kmalloc, 3);
		EXPECT_EQ(read_blocks(0, 6, addr), 2);
	}
	ExpectLog({"<4>readFromCache: expected to read block number (2) from "
		   "cache and block not found in cache",
		   "<4>readFromCache: expected to read block number (3) from "
		   "cache and block not found in cache",
		   "<4>readFromCache: expected to read block number (4) from "
		   "cache and block not found in cache",
		   "<4>readFromCache: expected to read block number (5) from "
		   "cache and block not found in cache",
		   "<3>ioctlReadBlocks: read (2) blocks from disk and (0) "
		   "blocks from cache and expected to read (6) blocks"});
	EXPECT_EQ(atomic_read(&b_->curAllocBRs), 0);
	EXPECT_EQ(emu::usage(), base);
	// The range can be read again.
	EXPECT_EQ(read_blocks(0, 6, addr), 0);
	expect_image(0, 6);
}

TEST_F(ReadBlocks, OnlyStatesFourAndSixAreServed)
{
	make_disk(4096);
	ASSERT_EQ(start(), 0);
	long long a = map(4);
	ASSERT_GT(a, 0);
	emu::log_clear();
	EXPECT_EQ(read_blocks(0, 1, static_cast<emu::uaddr>(a)), 2);
	ExpectLog({"<3>ioctlReadBlocks: state (2) not valid"});
	proc->run_as([&] { setBackupState(b_, BU_STATE_CACHE_ERROR); });
	EXPECT_EQ(read_blocks(0, 1, static_cast<emu::uaddr>(a)), 2);
	ExpectLog({"<3>ioctlReadBlocks: state (10) not valid"});
	proc->run_as([&] { setBackupState(b_, BU_STATE_STARTED); });
}

TEST_F(ReadBlocks, StateSixWithoutABlockMapIsRefused)
{
	snapshotted(4096);
	proc->run_as([&] { setBackupState(b_, BU_STATE_MAP_LOADED); });
	EXPECT_EQ(read_blocks(0, 1, addr), 2);
	ExpectLog({"<3>ioctlReadBlocks: block map is null"});
}

TEST_F(ReadBlocks, MissingCacheMapIsRefused)
{
	snapshotted(4096);
	proc->run_as([&] {
		down_write(&b_->writers);
		closeCacheMap(b_);
		up_write(&b_->writers);
	});
	EXPECT_EQ(read_blocks(0, 1, addr), 2);
	ExpectLog({"<3>ioctlReadBlocks: cache map is null"});
}

TEST_F(ReadBlocks, EndBeyondTheCacheMapIsRefused)
{
	snapshotted(4096);
	EXPECT_EQ(read_blocks(blocks - 8, 16, addr), 2);
	ExpectLog({"<3>ioctlReadBlocks: block num (" +
		   std::to_string(blocks + 8) + ") out of range (" +
		   std::to_string(blocks) + ")"});
	EXPECT_EQ(read_blocks(blocks - 8, 8, addr), 0);
	expect_image(blocks - 8, 8);
}

TEST_F(ReadBlocks, UnreadableRecordIsSixWithoutAMessage)
{
	snapshotted(4096);
	EXPECT_EQ(ioctl(KIV_IOC_READ_BLOCKS, proc->unmapped_address()), 6);
	ExpectLog({});
}

TEST_F(ReadBlocks, CopySavedDuringADiskReadIsPutOverIt)
{
	snapshotted(4096);
	BackupVMA *bvma = slot_of(addr);
	proc->run_as([&] {
		EXPECT_EQ(readBlocks(b_, 20, 2, bvma), 2u);
		EXPECT_EQ(waitForSubmitted(b_, 20, 2), 0);
	});
	// The old contents of block 21 reached the cache meanwhile.
	const std::vector<std::uint8_t> saved(4096, 0x3C);
	cache_block(21, saved);
	proc->run_as([&] {
		readCheckCache(b_, 20, 2, bvma);
		freeSubmitted(b_, 2);
	});
	EXPECT_EQ(peek(addr, 4096), block_pattern(20, 4096));
	EXPECT_EQ(peek(addr + 4096, 4096), saved);
	ExpectLog({});
}

// The backup program is killed while READ_BLOCKS waits for the disk: the
// read is not interruptible, so it ends; then the exit unmaps the buffer
// and closes the file, which ends the backup.
TEST_F(ReadBlocks, ConcurrentKillMidReadEndsTheReadThenTheBackup)
{
	snapshotted(4096);
	std::atomic<long> result{-1};
	std::thread reader = read_held_at_the_disk(result);
	proc->kill(9);
	disk->unplug();
	reader.join();
	EXPECT_EQ(result.load(), 0);
	proc.reset();
	EXPECT_EQ(atomic_read(&busy), 0);
	EXPECT_EQ(activeSession, nullptr);
	const auto lines = emu::log_strings();
	ASSERT_FALSE(lines.empty());
	EXPECT_EQ(lines.back(),
		  "<6>closeBackup: backup finished device major=8 minor=1");
	// Change tracking keeps the queue.
	EXPECT_EQ(disk->queue()->make_request_fn, &kivAMRF);
	proc = std::make_unique<emu::Process>();
	fd_ = -1;
}

// Another thread of the program unmaps the read buffer while READ_BLOCKS
// waits for the disk: the unmap waits until the reads into its pages are
// over, and only then frees them.
TEST_F(ReadBlocks, ConcurrentUnmapWaitsForTheReadsIntoItsPages)
{
	snapshotted(4096);
	const int pages_before = atomic_read(&b_->curAllocPages);
	std::atomic<long> result{-1};
	std::thread reader = read_held_at_the_disk(result);
	std::atomic<bool> unplugged{false};
	std::atomic<int> unmapped{-1};
	std::atomic<bool> returned_while_plugged{false};
	std::thread unmapper([&] {
		unmapped = proc->munmap(addr, 16 * 4096);
		returned_while_plugged = !unplugged.load();
	});
	// Give the unmap every chance to get ahead of the disk.
	for (int i = 0; i < 2000; i++)
		std::this_thread::yield();
	unplugged = true;
	disk->unplug();
	reader.join();
	unmapper.join();
	EXPECT_EQ(result.load(), 0);
	EXPECT_EQ(unmapped.load(), 0);
	EXPECT_FALSE(returned_while_plugged.load());
	EXPECT_EQ(b_->vmAreas[0].vma, nullptr);
	EXPECT_EQ(b_->vmAreas[0].vmPages, 0);
	EXPECT_EQ(atomic_read(&b_->curAllocPages), pages_before - 16);
	ExpectLog({});
}

// A command that copied user memory under the backup's semaphore (the
// snapshot's key) and then a mapping, made with the mm's mmap_sem held:
// the two locks are never taken in both orders, so the validator stays
// quiet.
TEST_F(ReadBlocks, MappingAfterAKeyCopyIsNoLockInversion)
{
	make_disk(4096);
	ASSERT_EQ(start(), 0);
	ASSERT_EQ(snapshot(56), 0);
	long long a = map(16);
	ASSERT_GT(a, 0);
	addr = static_cast<emu::uaddr>(a);
	emu::log_clear();
	EXPECT_EQ(read_blocks(0, 16, addr), 0);
	expect_image(0, 16);
	ExpectLog({});
}

}  // namespace
