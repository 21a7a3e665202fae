// The disk block reader: reads of runs of blocks into the read buffer,
// one bio and buffer head per block, submitted together and waited for in
// a second pass; failed blocks read as zeros; read blocks leave the block
// map in state 6.  Driven function by function on a started backup.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <mutex>
#include <vector>

#include "test_readpath_util.hpp"

namespace {

using readpath::block_pattern;
using readpath::kptr;

class BlockRead : public readpath::ReadPath {
protected:
	// Started backup of a disk with blocks of block_size, a mapping of
	// `pages` pages; the log is cleared.
	void started(unsigned block_size, unsigned pages = 2,
		     emu::Completion c = emu::Completion::Request)
	{
		make_disk(block_size, 2048, c);
		ASSERT_EQ(start(), 0);
		addr = map(pages);
		ASSERT_GT(addr, 0);
		bvma = slot_of(static_cast<emu::uaddr>(addr));
		ASSERT_NE(bvma, nullptr);
		emu::log_clear();
	}

	std::uint32_t submit(std::uint32_t first, std::uint32_t n)
	{
		std::uint32_t r = 0;
		proc->run_as([&] { r = readBlocks(b_, first, n, bvma); });
		return r;
	}
	int wait(std::uint32_t first, std::uint32_t n)
	{
		int r = 0;
		proc->run_as([&] { r = waitForSubmitted(b_, first, n); });
		return r;
	}
	void release(std::uint32_t n)
	{
		proc->run_as([&] { freeSubmitted(b_, n); });
	}
	// Blocks first.. first + n - 1 of the mapping equal the disk's.
	void expect_blocks(std::uint32_t first, std::uint32_t n,
			   std::uint32_t zero = ~0u)
	{
		auto got = peek(static_cast<emu::uaddr>(addr), n * bs);
		for (std::uint32_t i = 0; i < n; i++) {
			std::vector<std::uint8_t> want =
				i == zero ? std::vector<std::uint8_t>(bs, 0)
					  : block_pattern(first + i, bs);
			std::vector<std::uint8_t> have(got.begin() + i * bs,
						       got.begin() + (i + 1) * bs);
			EXPECT_EQ(have, want) << "block " << first + i;
		}
	}

	long long addr = 0;
	BackupVMA *bvma = nullptr;
};

TEST_F(BlockRead, AllCachedRangeSubmitsNothing)
{
	started(1024);
	proc->run_as([&] {
		for (std::uint32_t n = 20; n < 28; n++)
			ASSERT_EQ(setBlock(&b_->cacheMap, n), 0);
	});
	const auto reqs = disk->requests();
	EXPECT_EQ(submit(20, 8), 0u);
	for (std::uint32_t i = 0; i < 8; i++)
		EXPECT_EQ(isRequestSubmitted(b_, i), 0) << i;
	EXPECT_EQ(wait(20, 8), 0);
	release(8);
	EXPECT_EQ(disk->requests(), reqs);
	EXPECT_EQ(atomic_read(&b_->totalReadBlocks), 0);
	EXPECT_EQ(atomic_read(&b_->totalAllocBRs), 0);
	EXPECT_EQ(atomic_read(&b_->curAllocBRs), 0);
	ExpectLog({});
}

TEST_F(BlockRead, BlockFiveOfARangeGoesToPageOneAtOffset1024)
{
	started(1024);
	std::mutex m;
	std::vector<emu::DiskRequest> seen;
	disk->set_observer([&](const emu::DiskRequest &r) {
		std::lock_guard lk(m);
		seen.push_back(r);
	});
	EXPECT_EQ(b_->diskInfo.blocksPerPage, 4u);
	EXPECT_EQ(submit(10, 8), 8u);
	struct buffer_head *bh = static_cast<struct buffer_head *>(
		b_->mmBIORequests[5]->bio->bi_private);
	EXPECT_EQ(bh->b_page, bvma->mmPages[1]);
	EXPECT_EQ(bh_offset(bh), 1024u);
	EXPECT_EQ(bh->b_blocknr, 15u);
	EXPECT_EQ(bh->b_size, 1024u);
	EXPECT_EQ(atomic_read(&b_->curAllocBRs), 8);
	EXPECT_EQ(wait(10, 8), 0);
	release(8);
	disk->set_observer({});
	expect_blocks(10, 8);

	// One read per block, straight to the disk, at absolute sectors.
	ASSERT_EQ(seen.size(), 8u);
	std::vector<std::uint64_t> sectors;
	for (auto &r : seen) {
		EXPECT_EQ(r.bytes, 1024u);
		EXPECT_EQ(r.rw & 1, 0u);
		sectors.push_back(r.sector);
	}
	std::sort(sectors.begin(), sectors.end());
	for (std::uint32_t i = 0; i < 8; i++)
		EXPECT_EQ(sectors[i], readpath::kP1Start + 2 * (10 + i));
	EXPECT_EQ(atomic_read(&b_->totalReadBlocks), 8);
	EXPECT_EQ(atomic_read(&b_->totalAllocBRs), 8);
	EXPECT_EQ(atomic_read(&b_->curAllocBRs), 0);
	for (std::uint32_t i = 0; i < 8; i++)
		EXPECT_EQ(isRequestSubmitted(b_, i), 0) << i;
	ExpectLog({});
}

TEST_F(BlockRead, CachedBlocksOfARangeKeepTheirSlotsEmpty)
{
	started(4096);
	proc->run_as([&] { ASSERT_EQ(setBlock(&b_->cacheMap, 2), 0); });
	EXPECT_EQ(submit(2, 2), 1u);
	EXPECT_EQ(isRequestSubmitted(b_, 0), 0);
	EXPECT_EQ(isRequestSubmitted(b_, 1), 1);
	EXPECT_EQ(wait(2, 2), 0);
	release(2);
	auto got = peek(static_cast<emu::uaddr>(addr) + 4096, 4096);
	EXPECT_EQ(got, block_pattern(3, 4096));
}

TEST_F(BlockRead, CompletionLeavesOnlyTheSubmittersReferences)
{
	started(4096);
	EXPECT_EQ(submit(0, 1), 1u);
	EXPECT_EQ(wait(0, 1), 0);
	struct bio *bio = b_->mmBIORequests[0]->bio;
	struct buffer_head *bh =
		static_cast<struct buffer_head *>(bio->bi_private);
	EXPECT_EQ(atomic_read(&bh->b_count), 0);
	// The completion drops its extra bio reference right after it
	// unlocked the buffer head, which is what the wait returned on.
	while (atomic_read(&bio->bi_cnt) > 1)
		sched_yield();
	EXPECT_EQ(atomic_read(&bio->bi_cnt), 1);
	EXPECT_TRUE(buffer_uptodate(bh));
	EXPECT_FALSE(buffer_locked(bh));
	EXPECT_TRUE(buffer_mapped(bh));
	EXPECT_TRUE(buffer_req(bh));
	release(1);
}

TEST_F(BlockRead, FailedReadIsZeroedAndLeavesTheBlockMapInStateSix)
{
	started(1024, 2, emu::Completion::Bio);
	load_full_map();
	// Something other than zeros in the buffer first.
	EXPECT_EQ(submit(100, 8), 8u);
	EXPECT_EQ(wait(100, 8), 0);
	release(8);
	emu::log_clear();

	disk->fail_sectors(readpath::kP1Start + 2 * 13, 2, -EIO,
			   emu::Dir::Read);
	EXPECT_EQ(submit(10, 8), 8u);
	EXPECT_EQ(wait(10, 8), 12);
	struct bio *bio = b_->mmBIORequests[3]->bio;
	struct buffer_head *bh =
		static_cast<struct buffer_head *>(bio->bi_private);
	EXPECT_FALSE(buffer_uptodate(bh));
	ExpectLog({"<4>kivBIOEndIO: IO error, bio=" + kptr(bio) +
			   ", major=8, sector=90",
		   "<4>kivBHEndIO: buffer_head I/O error bh=" + kptr(bh) +
			   ", major=8, minor=1, block=13"});
	release(8);
	expect_blocks(10, 8, 3);
	for (std::uint32_t n = 10; n < 18; n++)
		EXPECT_FALSE(in_map(&b_->blockMap, n)) << n;
	EXPECT_TRUE(in_map(&b_->blockMap, 9));
	EXPECT_TRUE(in_map(&b_->blockMap, 18));
	EXPECT_EQ(atomic_read(&b_->curAllocBRs), 0);
}

TEST_F(BlockRead, RequestCompletionLogsTheSectorTheBlockLayerLeft)
{
	// A request-based disk consumes the bio before ending it: the
	// message shows the sector the block layer advanced it to.
	started(4096, 4);
	disk->fail_sectors(readpath::kP1Start + 8 * 2, 8, -EIO,
			   emu::Dir::Read);
	EXPECT_EQ(submit(0, 4), 4u);
	EXPECT_EQ(wait(0, 4), 12);
	struct bio *bio = b_->mmBIORequests[2]->bio;
	struct buffer_head *bh =
		static_cast<struct buffer_head *>(bio->bi_private);
	const auto lines = emu::log_strings();
	ASSERT_EQ(lines.size(), 3u);
	EXPECT_EQ(lines[0], "<3>end_request: I/O error, dev sda, sector 80");
	EXPECT_EQ(lines[1], "<4>kivBIOEndIO: IO error, bio=" + kptr(bio) +
				    ", major=8, sector=" +
				    std::to_string(bio->bi_sector));
	EXPECT_EQ(lines[2], "<4>kivBHEndIO: buffer_head I/O error bh=" +
				    kptr(bh) + ", major=8, minor=1, block=2");
	emu::log_clear();
	release(4);
	expect_blocks(0, 4, 2);
}

TEST_F(BlockRead, OutsideStateSixNoBlockMapBitIsCleared)
{
	started(1024, 2, emu::Completion::Bio);
	load_full_map();
	proc->run_as([&] { setBackupState(b_, BU_STATE_SNAPSHOT); });
	disk->fail_sectors(readpath::kP1Start + 2 * 12, 2, -EIO,
			   emu::Dir::Read);
	EXPECT_EQ(submit(10, 8), 8u);
	EXPECT_EQ(wait(10, 8), 12);
	release(8);
	emu::log_clear();
	expect_blocks(10, 8, 2);
	for (std::uint32_t n = 10; n < 18; n++)
		EXPECT_TRUE(in_map(&b_->blockMap, n)) << n;
}

TEST_F(BlockRead, NotSupportedReadSetsBothFlagsAndReadsAsZeros)
{
	started(4096, 4, emu::Completion::Bio);
	disk->fail_sectors(readpath::kP1Start + 8, 8, -EOPNOTSUPP,
			   emu::Dir::Read);
	EXPECT_EQ(submit(0, 3), 3u);
	EXPECT_EQ(wait(0, 3), 12);
	struct bio *bio = b_->mmBIORequests[1]->bio;
	struct buffer_head *bh =
		static_cast<struct buffer_head *>(bio->bi_private);
	EXPECT_TRUE(bio_flagged(bio, BIO_EOPNOTSUPP));
	EXPECT_TRUE(buffer_eopnotsupp(bh));
	EXPECT_FALSE(bio_flagged(b_->mmBIORequests[0]->bio, BIO_EOPNOTSUPP));
	ExpectLog({"<4>kivBIOEndIO: IO error, bio=" + kptr(bio) +
			   ", major=8, sector=72",
		   "<4>kivBHEndIO: buffer_head I/O error bh=" + kptr(bh) +
			   ", major=8, minor=1, block=1"});
	release(3);
	expect_blocks(0, 3, 1);
}

TEST_F(BlockRead, RequestAllocationFailureEndsTheSubmission)
{
	started(1024);
	// One general allocation per block submitted, nothing else.
	const auto before = emu::alloc_calls(emu::Alloc::Kmalloc);
	EXPECT_EQ(submit(0, 8), 8u);
	EXPECT_EQ(emu::alloc_calls(emu::Alloc::Kmalloc) - before, 8u);
	EXPECT_EQ(wait(0, 8), 0);
	release(8);

	const emu::Usage base = emu::usage();
	{
		auto fail = emu::FailScope::nth(emu::Alloc::Kmalloc, 3);
		EXPECT_EQ(submit(20, 8), 2u);
	}
	EXPECT_EQ(isRequestSubmitted(b_, 0), 1);
	EXPECT_EQ(isRequestSubmitted(b_, 1), 1);
	for (std::uint32_t i = 2; i < 8; i++)
		EXPECT_EQ(isRequestSubmitted(b_, i), 0) << i;
	EXPECT_EQ(atomic_read(&b_->curAllocBRs), 2);
	EXPECT_EQ(wait(20, 8), 0);
	release(8);
	EXPECT_EQ(atomic_read(&b_->curAllocBRs), 0);
	EXPECT_EQ(emu::usage(), base);
	ExpectLog({});
}

TEST_F(BlockRead, BufferHeadAndBioShortagesAreRetriedSilently)
{
	started(1024);
	{
		auto no_bh = emu::FailScope::nth(emu::Alloc::BufferHead, 1);
		auto no_bio = emu::FailScope::nth(emu::Alloc::Bio, 2);
		EXPECT_EQ(submit(30, 8), 8u);
	}
	EXPECT_EQ(wait(30, 8), 0);
	release(8);
	expect_blocks(30, 8);
	EXPECT_EQ(atomic_read(&b_->totalAllocBRs), 8);
	ExpectLog({});
}

TEST_F(BlockRead, RequestTableWithoutMemoryIsFive)
{
	started(4096);
	proc->run_as([&] {
		freeMMBRs(b_);
		EXPECT_EQ(b_->mmBIORequests, nullptr);
		{
			auto fail = emu::FailScope::nth(emu::Alloc::Vmalloc, 1);
			EXPECT_EQ(allocateBlockRequests(b_), 5);
		}
		EXPECT_EQ(b_->mmBIORequests, nullptr);
		ASSERT_EQ(allocateBlockRequests(b_), 0);
		for (int i = 0; i < 256; i++)
			EXPECT_EQ(b_->mmBIORequests[i], nullptr);
	});
	ExpectLog({});
}

TEST_F(BlockRead, StartFailsWithFiveWhenTheRequestTableCannotBeHad)
{
	make_disk(4096);
	// The table is the start's last vmalloc: count them once.
	const auto before = emu::alloc_calls(emu::Alloc::Vmalloc);
	ASSERT_EQ(start(), 0);
	const unsigned calls = static_cast<unsigned>(
		emu::alloc_calls(emu::Alloc::Vmalloc) - before);
	ASSERT_GE(calls, 1u);
	EXPECT_EQ(b_->mmBIORequests != nullptr, true);
	ASSERT_EQ(proc->close(fd_), 0);

	fd_ = open_device();
	ASSERT_GE(fd_, 0);
	b_ = test::backup_of(*proc, fd_);
	emu::log_clear();
	{
		auto fail = emu::FailScope::nth(emu::Alloc::Vmalloc, calls);
		EXPECT_EQ(start(), 5);
	}
	EXPECT_EQ(b_->state, static_cast<u32>(BU_STATE_STARTING));
	EXPECT_EQ(b_->mmBIORequests, nullptr);
	const auto lines = emu::log_strings();
	for (auto &l : lines)
		EXPECT_EQ(l.find("ioctlStartBackup"), std::string::npos) << l;
	EXPECT_EQ(proc->close(fd_), 0);
	fd_ = -1;
}

using BlockReadDeathTest = BlockRead;

TEST_F(BlockReadDeathTest, FailedSegmentBeyondItsPageIsABug)
{
	EXPECT_DEATH(([&] {
		emu::log_echo(true);
		started(1024, 2, emu::Completion::Bio);
		disk->fail_sectors(readpath::kP1Start, 2, -EIO,
				   emu::Dir::Read);
		submit(0, 1);
		disk->drain();
		struct bio *bio = b_->mmBIORequests[0]->bio;
		bio->bi_io_vec[0].bv_offset = 3584;
		wait(0, 1);
	}()),
		"BIO segment greater than page size \\(offset=3584, "
		"length=1024\\)");
}

}  // namespace
