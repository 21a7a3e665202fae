// The paged block bitmap (core/blockMap.c): geometry, fill modes, the user
// bitmap copy, the Empty record, closing, and every failure path of
// newBlockMap with its exact messages, results and nothing left allocated.
//
// The maps are driven directly; user bitmaps live in an emulated process and
// are copied while that process is `current`, as an ioctl would do it.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "emu/emu.hpp"
#include "test_driver_util.hpp"

#include <linux/highmem.h>
#include <linux/mm.h>
#include <linux/spinlock.h>
#include <linux/semaphore.h>
#include <asm/atomic.h>

namespace {

using emu::uaddr;

constexpr int kSentinel = 0x5a5a;

// A freshly zeroed record: the Empty map that an owner's kzalloc gives.
struct MapRecord {
	::BlockMap bm{};
};

// The byte `byte` of bitmap page `page`, read through kmap as the driver
// reads it.
unsigned char page_byte(::BlockMap &bm, unsigned page, unsigned byte)
{
	void *addr = kmap(bm.map[page]);
	unsigned char v = static_cast<unsigned char *>(addr)[byte];
	kunmap(bm.map[page]);
	return v;
}

std::string hex8(uaddr a)
{
	char buf[16];
	std::snprintf(buf, sizeof buf, "%08x", a);
	return buf;
}

class BlockMap : public ::testing::Test {
protected:
	void SetUp() override
	{
		emu::log_clear();
		base_ = emu::usage();
	}
	// Builds without user data; asserts success.
	int build(::BlockMap &bm, std::uint32_t size, int zeroFill = 1)
	{
		int pages = kSentinel;
		int r = newBlockMap(&bm, size, nullptr, zeroFill, &pages);
		EXPECT_EQ(r, 0);
		return pages;
	}
	// Closes a Built map: it reports `pages` freed and is Empty again.
	void close(::BlockMap &bm, int pages)
	{
		int freed = kSentinel;
		closeBlockMap(&bm, &freed);
		EXPECT_EQ(freed, pages);
		EXPECT_EQ(bm.size, 0u);
		EXPECT_EQ(bm.map, nullptr);
	}
	emu::Usage base_;
};

// --------------------------------------------------------------------------
// Geometry

TEST_F(BlockMap, SizeOneAcceptsOnlyBlockZero)
{
	MapRecord r;
	EXPECT_EQ(build(r.bm, 1), 1);
	EXPECT_EQ(r.bm.size, 1u);
	EXPECT_EQ(r.bm.numBytes, 1u);
	ASSERT_NE(r.bm.map, nullptr);
	ASSERT_NE(r.bm.map[0], nullptr);
	EXPECT_EQ(emu::usage().pages, base_.pages + 1);

	EXPECT_EQ(blockInMap(&r.bm, 0), 0);
	EXPECT_EQ(setBlock(&r.bm, 1), 1);      // out of range: its number
	EXPECT_EQ(blockInMap(&r.bm, 1), 0);
	EXPECT_EQ(blockInMap(&r.bm, 0), 0);    // changed nothing
	EXPECT_EQ(page_byte(r.bm, 0, 0) & 0x01, 0);
	EXPECT_EQ(setBlock(&r.bm, 0), 0);
	EXPECT_EQ(blockInMap(&r.bm, 0), -1);
	EXPECT_EQ(page_byte(r.bm, 0, 0) & 0x03, 0x01);
	EXPECT_EQ(unSetBlock(&r.bm, 1), 1);
	EXPECT_EQ(blockInMap(&r.bm, 0), -1);
	EXPECT_EQ(unSetBlock(&r.bm, 0), 0);
	EXPECT_EQ(blockInMap(&r.bm, 0), 0);

	close(r.bm, 1);
	EXPECT_EQ(emu::usage(), base_);
	ExpectLog({});
}

TEST_F(BlockMap, FullPageMapUsesExactlyOnePage)
{
	MapRecord r;
	EXPECT_EQ(build(r.bm, 32768), 1);
	EXPECT_EQ(r.bm.numBytes, 4096u);
	EXPECT_EQ(emu::usage().pages, base_.pages + 1);
	EXPECT_EQ(emu::usage().vmalloc_objects, base_.vmalloc_objects + 1);
	EXPECT_EQ(setBlock(&r.bm, 32767), 0);
	EXPECT_EQ(page_byte(r.bm, 0, 4095), 0x80);
	EXPECT_EQ(blockInMap(&r.bm, 32767), -1);
	EXPECT_EQ(setBlock(&r.bm, 32768), 32768);
	EXPECT_EQ(blockInMap(&r.bm, 32768), 0);
	close(r.bm, 1);
	EXPECT_EQ(emu::usage(), base_);
}

TEST_F(BlockMap, OneBlockPastAPageTakesASecondPage)
{
	MapRecord r;
	EXPECT_EQ(build(r.bm, 32769), 2);
	EXPECT_EQ(r.bm.size, 32769u);
	EXPECT_EQ(r.bm.numBytes, 4097u);
	EXPECT_EQ(emu::usage().pages, base_.pages + 2);
	ASSERT_NE(r.bm.map[1], nullptr);

	// Block 32768 is bit 0 of byte 0 of page 1, and nothing else.
	EXPECT_EQ(setBlock(&r.bm, 32768), 0);
	EXPECT_EQ(page_byte(r.bm, 1, 0), 0x01);
	EXPECT_EQ(page_byte(r.bm, 0, 0), 0x00);
	EXPECT_EQ(blockInMap(&r.bm, 32768), -1);
	EXPECT_EQ(blockInMap(&r.bm, 0), 0);
	EXPECT_EQ(blockInMap(&r.bm, 32767), 0);
	EXPECT_EQ(setBlock(&r.bm, 32769), 32769);

	close(r.bm, 2);
	EXPECT_EQ(emu::usage(), base_);
}

TEST_F(BlockMap, PageCountIsComputedFromSize)
{
	EXPECT_EQ(numPagesInBlockMap(0), 0u);
	EXPECT_EQ(numPagesInBlockMap(1), 1u);
	EXPECT_EQ(numPagesInBlockMap(32768), 1u);
	EXPECT_EQ(numPagesInBlockMap(32769), 2u);
	EXPECT_EQ(numPagesInBlockMap(65536), 2u);
	EXPECT_EQ(numPagesInBlockMap(65537), 3u);
	// (size + 7) / 8 wraps in 32 bits within 7 of 2^32.
	EXPECT_EQ(numPagesInBlockMap(0xFFFFFFF9u), 0u);
	EXPECT_EQ(numPagesInBlockMap(0xFFFFFFF8u), 131072u);
}

TEST_F(BlockMap, BitOrderIsLittleEndianWithinEachByte)
{
	MapRecord r;
	build(r.bm, 3 * 32768);
	const std::uint32_t blocks[] = {0, 9, 15, 32768 + 8 * 100 + 7,
					2 * 32768 + 4095 * 8 + 3};
	for (auto n : blocks)
		EXPECT_EQ(setBlock(&r.bm, n), 0);
	EXPECT_EQ(page_byte(r.bm, 0, 0), 0x01);
	EXPECT_EQ(page_byte(r.bm, 0, 1), 0x82);
	EXPECT_EQ(page_byte(r.bm, 1, 100), 0x80);
	EXPECT_EQ(page_byte(r.bm, 2, 4095), 0x08);
	for (auto n : blocks) {
		EXPECT_EQ(blockInMap(&r.bm, n), -1) << n;
		EXPECT_EQ(blockInMap(&r.bm, n + 1), 0) << n;
	}
	close(r.bm, 3);
	EXPECT_EQ(emu::usage(), base_);
}

// --------------------------------------------------------------------------
// Invalid sizes and the Empty record

TEST_F(BlockMap, ZeroSizeIsInvalidAndLeavesRecordUntouched)
{
	MapRecord r;
	r.bm.numBytes = 0x1234;
	atomic_set(&r.bm.users, 7);
	int pages = kSentinel;
	EXPECT_EQ(newBlockMap(&r.bm, 0, nullptr, 1, &pages), 2);
	EXPECT_EQ(pages, kSentinel);
	EXPECT_EQ(r.bm.numBytes, 0x1234u);
	EXPECT_EQ(atomic_read(&r.bm.users), 7);
	EXPECT_EQ(r.bm.size, 0u);
	EXPECT_EQ(r.bm.map, nullptr);
	ExpectLog({"<3>newBlockMap: block size size=0 invalid"});
	EXPECT_EQ(emu::usage(), base_);
}

TEST_F(BlockMap, SizeWhoseByteCountWrapsIsInvalid)
{
	for (std::uint32_t size : {0xFFFFFFF9u, 0xFFFFFFFFu}) {
		MapRecord r;
		int pages = kSentinel;
		EXPECT_EQ(newBlockMap(&r.bm, size, nullptr, 1, &pages), 2);
		EXPECT_EQ(pages, kSentinel);
		ExpectLog({"<3>newBlockMap: block size size=" +
			    std::to_string(size) + " invalid"});
	}
	EXPECT_EQ(emu::usage(), base_);
}

TEST_F(BlockMap, ZeroedRecordBehavesAsEmptySet)
{
	MapRecord r;
	EXPECT_EQ(setBlock(&r.bm, 0), 0);
	EXPECT_EQ(setBlock(&r.bm, 5), 5);
	EXPECT_EQ(unSetBlock(&r.bm, 0), 1);
	EXPECT_EQ(unSetBlock(&r.bm, 5), 1);
	EXPECT_EQ(blockInMap(&r.bm, 0), 0);
	EXPECT_EQ(blockInMap(&r.bm, 5), 0);
	// No page was touched: nothing mapped, nothing allocated, and the
	// user count is back where it was.
	EXPECT_EQ(emu::usage(), base_);
	EXPECT_EQ(atomic_read(&r.bm.users), 0);
	ExpectLog({});
}

TEST_F(BlockMap, ClosedMapBehavesAsEmptySet)
{
	MapRecord r;
	build(r.bm, 100);
	EXPECT_EQ(setBlock(&r.bm, 3), 0);
	close(r.bm, 1);
	EXPECT_EQ(r.bm.size, 0u);
	EXPECT_EQ(r.bm.map, nullptr);
	EXPECT_EQ(r.bm.numBytes, 13u);  // left as it was
	EXPECT_EQ(blockInMap(&r.bm, 3), 0);
	EXPECT_EQ(setBlock(&r.bm, 3), 3);
	EXPECT_EQ(unSetBlock(&r.bm, 3), 1);
	EXPECT_EQ(atomic_read(&r.bm.users), 1);
	EXPECT_EQ(emu::usage(), base_);
}

// --------------------------------------------------------------------------
// Fill modes

TEST_F(BlockMap, ZeroFillOneClearsEveryBit)
{
	MapRecord r;
	const std::uint32_t size = 40000;
	EXPECT_EQ(build(r.bm, size, 1), 2);
	for (std::uint32_t n = 0; n < size; n++)
		ASSERT_EQ(blockInMap(&r.bm, n), 0) << n;
	close(r.bm, 2);
	EXPECT_EQ(emu::usage(), base_);
}

class BlockMapFill : public BlockMap,
			 public ::testing::WithParamInterface<int> {};

TEST_P(BlockMapFill, AnyZeroFillButOneSetsEveryBit)
{
	MapRecord r;
	const std::uint32_t size = 40000;
	EXPECT_EQ(build(r.bm, size, GetParam()), 2);
	for (std::uint32_t n = 0; n < size; n++)
		ASSERT_EQ(blockInMap(&r.bm, n), -1) << n;
	EXPECT_EQ(blockInMap(&r.bm, size), 0);
	// The bytes in use of the last page are all ones.
	EXPECT_EQ(page_byte(r.bm, 1, (size / 8) % 4096 - 1), 0xFF);
	close(r.bm, 2);
	EXPECT_EQ(emu::usage(), base_);
}

INSTANTIATE_TEST_SUITE_P(ZeroFill, BlockMapFill,
			 ::testing::Values(0, 2, -1, 255));

// --------------------------------------------------------------------------
// User bitmaps

class BlockMapUser : public BlockMap {
protected:
	void SetUp() override
	{
		proc_.emplace();
		BlockMap::SetUp();
	}
	void TearDown() override { proc_.reset(); }
	int build_from(::BlockMap &bm, std::uint32_t size, uaddr data,
		       int *pages)
	{
		int r = -1;
		proc_->run_as([&] {
			r = newBlockMap(&bm, size, support::user_ptr(data), 1, pages);
		});
		return r;
	}
	emu::Process &proc() { return *proc_; }
	std::optional<emu::Process> proc_;
};

TEST_F(BlockMapUser, UserByteFiveMarksBlocksZeroAndTwo)
{
	uaddr buf = proc().map_anon(4096);
	ASSERT_NE(buf, 0u);
	const unsigned char b = 0x05;
	ASSERT_TRUE(proc().poke(buf, &b, 1));
	MapRecord r;
	int pages = kSentinel;
	ASSERT_EQ(build_from(r.bm, 8, buf, &pages), 0);
	EXPECT_EQ(pages, 1);
	const int expected[8] = {-1, 0, -1, 0, 0, 0, 0, 0};
	for (int n = 0; n < 8; n++)
		EXPECT_EQ(blockInMap(&r.bm, n), expected[n]) << n;
	close(r.bm, 1);
	EXPECT_EQ(emu::usage(), base_);
	ExpectLog({});
}

TEST_F(BlockMapUser, PagesAreFilledFromConsecutiveSlices)
{
	const std::uint32_t size = 2 * 32768 + 8 * 5;  // 8197 bytes
	uaddr buf = proc().map_anon(3 * 4096);
	std::vector<unsigned char> bytes(8197);
	for (std::size_t i = 0; i < bytes.size(); i++)
		bytes[i] = static_cast<unsigned char>(i * 7 + i / 4096);
	ASSERT_TRUE(proc().poke(buf, bytes.data(), bytes.size()));
	MapRecord r;
	int pages = kSentinel;
	ASSERT_EQ(build_from(r.bm, size, buf, &pages), 0);
	EXPECT_EQ(pages, 3);
	EXPECT_EQ(r.bm.numBytes, 8197u);
	for (std::uint32_t n = 0; n < size; n++) {
		bool bit = bytes[n / 8] >> (n % 8) & 1;
		ASSERT_EQ(blockInMap(&r.bm, n), bit ? -1 : 0) << n;
	}
	EXPECT_EQ(page_byte(r.bm, 1, 0), bytes[4096]);
	EXPECT_EQ(page_byte(r.bm, 2, 4), bytes[8196]);
	close(r.bm, 3);
	EXPECT_EQ(emu::usage(), base_);
}

// Only the bytes in use are read: a bitmap that ends right before an
// unmapped page is copied without a fault.
TEST_F(BlockMapUser, CopiesOnlyTheBytesInUse)
{
	struct Case {
		std::uint32_t size;
		std::uint32_t bytes;
	};
	for (Case c : {Case{1, 1}, Case{32768, 4096}, Case{32769, 4097},
		       Case{32768 + 17, 4099}}) {
		uaddr area = proc().map_anon(3 * 4096);
		// The bitmap's last byte is the last byte before page 2,
		// which becomes inaccessible.
		ASSERT_EQ(proc().protect(area + 2 * 4096, 4096, emu::PROT_NONE_),
			  0);
		uaddr buf = area + 2 * 4096 - c.bytes;
		std::vector<unsigned char> ones(c.bytes, 0xFF);
		ASSERT_TRUE(proc().poke(buf, ones.data(), ones.size()));
		MapRecord r;
		int pages = kSentinel;
		ASSERT_EQ(build_from(r.bm, c.size, buf, &pages), 0) << c.size;
		EXPECT_EQ(r.bm.numBytes, c.bytes);
		EXPECT_EQ(blockInMap(&r.bm, c.size - 1), -1);
		close(r.bm, static_cast<int>((c.bytes + 4095) / 4096));
	}
	EXPECT_EQ(emu::usage(), base_);
	ExpectLog({});
}

// --------------------------------------------------------------------------
// Closing

TEST_F(BlockMap, ClosingAnEmptyMapLeavesTheCountAlone)
{
	MapRecord r;
	int freed = kSentinel;
	closeBlockMap(&r.bm, &freed);
	EXPECT_EQ(freed, kSentinel);
	EXPECT_EQ(r.bm.map, nullptr);
	EXPECT_EQ(emu::usage(), base_);
	ExpectLog({});
}

TEST_F(BlockMap, ClosingReportsTheComputedPageCount)
{
	MapRecord r;
	EXPECT_EQ(build(r.bm, 5 * 32768 - 3), 5);
	// A slot emptied behind the map's back still counts.
	__free_pages(r.bm.map[2], 0);
	r.bm.map[2] = nullptr;
	close(r.bm, 5);
	EXPECT_EQ(emu::usage(), base_);
}

TEST_F(BlockMap, SuccessfulBuildLeavesRestingLocks)
{
	MapRecord r;
	build(r.bm, 10);
	EXPECT_EQ(atomic_read(&r.bm.users), 1);
	EXPECT_FALSE(spin_is_locked(&r.bm.usersLock));
	ASSERT_EQ(down_trylock(&r.bm.sem), 0);  // count 1: free
	EXPECT_NE(down_trylock(&r.bm.sem), 0);  // and only one
	up(&r.bm.sem);
	close(r.bm, 1);
}

// --------------------------------------------------------------------------
// Out of memory and copy faults: exact messages, results, nothing left

TEST_F(BlockMap, PageArrayAllocationFailureReturnsOutOfMemory)
{
	MapRecord r;
	r.bm.numBytes = 99;
	int pages = kSentinel;
	{
		auto fail = emu::FailScope::nth(emu::Alloc::Vmalloc, 1);
		EXPECT_EQ(newBlockMap(&r.bm, 3 * 32768, nullptr, 1, &pages), 5);
	}
	EXPECT_EQ(pages, kSentinel);
	// The record was cleared before the allocation.
	EXPECT_EQ(r.bm.map, nullptr);
	EXPECT_EQ(r.bm.size, 0u);
	EXPECT_EQ(r.bm.numBytes, 0u);
	EXPECT_EQ(atomic_read(&r.bm.users), 0);
	// The array is one page handle per page: 3 handles of the kernel's
	// pointer size (4 bytes on i386, 8 in this 64-bit emulation).
	ExpectLog({"<3>newBlockMap: failed allocating (" +
		    std::to_string(3 * sizeof(struct page *)) +
		    ") bytes of memory for block map page array"});
	EXPECT_EQ(emu::usage(), base_);
}

class BlockMapPageFailure : public BlockMap,
				public ::testing::WithParamInterface<int> {};

TEST_P(BlockMapPageFailure, FreesThePagesAllocatedBefore)
{
	const int failing = GetParam();
	MapRecord r;
	int pages = kSentinel;
	{
		auto fail = emu::FailScope::nth(emu::Alloc::Pages, failing + 1);
		EXPECT_EQ(newBlockMap(&r.bm, 4 * 32768, nullptr, 0, &pages), 5);
	}
	EXPECT_EQ(pages, kSentinel);
	EXPECT_EQ(r.bm.map, nullptr);
	EXPECT_EQ(r.bm.size, 0u);
	EXPECT_EQ(atomic_read(&r.bm.users), 0);
	ExpectLog({"<3>newBlockMap: failed allocating page number (" +
			    std::to_string(failing) + ") for block map",
		    "<3>newBlockMap: Out of Memory Error."});
	EXPECT_EQ(emu::usage(), base_);
}

INSTANTIATE_TEST_SUITE_P(Page, BlockMapPageFailure,
			 ::testing::Values(0, 1, 2, 3));

TEST_F(BlockMapUser, UnreadableUserPageNamesThatPage)
{
	uaddr buf = proc().map_anon(3 * 4096);
	ASSERT_EQ(proc().protect(buf + 4096, 4096, emu::PROT_NONE_), 0);
	MapRecord r;
	int pages = kSentinel;
	EXPECT_EQ(build_from(r.bm, 3 * 32768, buf, &pages), 6);
	EXPECT_EQ(pages, kSentinel);
	EXPECT_EQ(r.bm.map, nullptr);
	EXPECT_EQ(r.bm.size, 0u);
	ExpectLog({"<3>newBlockMap: copy to user space failed data=" +
			    hex8(buf + 4096) +
			    " bytesCopied=4096 bytesInMap=12288",
		    "<3>newBlockMap: Out of Memory Error."});
	EXPECT_EQ(emu::usage(), base_);
}

TEST_F(BlockMapUser, UnreadableLastPageReportsItsShortCount)
{
	uaddr buf = proc().map_anon(2 * 4096);
	ASSERT_EQ(proc().protect(buf + 4096, 4096, emu::PROT_NONE_), 0);
	MapRecord r;
	int pages = kSentinel;
	// 4106 bytes: the second page holds 10 of them.
	EXPECT_EQ(build_from(r.bm, 32768 + 80, buf, &pages), 6);
	ExpectLog({"<3>newBlockMap: copy to user space failed data=" +
			    hex8(buf + 4096) + " bytesCopied=10 bytesInMap=4106",
		    "<3>newBlockMap: Out of Memory Error."});
	EXPECT_EQ(emu::usage(), base_);
}

TEST_F(BlockMapUser, FaultInsideTheFirstSliceNamesTheBufferStart)
{
	uaddr area = proc().map_anon(2 * 4096);
	ASSERT_EQ(proc().protect(area + 4096, 4096, emu::PROT_NONE_), 0);
	uaddr buf = area + 100;  // the first slice crosses into the hole
	MapRecord r;
	int pages = kSentinel;
	EXPECT_EQ(build_from(r.bm, 2 * 32768, buf, &pages), 6);
	ExpectLog({"<3>newBlockMap: copy to user space failed data=" +
			    hex8(buf) + " bytesCopied=4096 bytesInMap=8192",
		    "<3>newBlockMap: Out of Memory Error."});
	EXPECT_EQ(emu::usage(), base_);
}

TEST_F(BlockMapUser, UnmappedBufferFailsOnTheFirstPage)
{
	const uaddr hole = proc().unmapped_address();
	MapRecord r;
	int pages = kSentinel;
	EXPECT_EQ(build_from(r.bm, 8, hole, &pages), 6);
	ExpectLog({"<3>newBlockMap: copy to user space failed data=" +
			    hex8(hole) + " bytesCopied=1 bytesInMap=1",
		    "<3>newBlockMap: Out of Memory Error."});
	EXPECT_EQ(emu::usage(), base_);
}

// --------------------------------------------------------------------------
// The drain without users, and a randomised comparison with a plain bit set

TEST_F(BlockMap, DrainWithoutUsersReturnsAtOnceHoldingTheLock)
{
	MapRecord r;
	build(r.bm, 64);
	unsigned long flags = 0;
	waitForBlockMapUsers(&r.bm, &flags);
	EXPECT_EQ(atomic_read(&r.bm.users), 1);
	EXPECT_TRUE(spin_is_locked(&r.bm.usersLock));
	spin_unlock_irqrestore(&r.bm.usersLock, flags);
	EXPECT_FALSE(spin_is_locked(&r.bm.usersLock));
	EXPECT_EQ(setBlock(&r.bm, 63), 0);
	EXPECT_EQ(atomic_read(&r.bm.users), 1);
	close(r.bm, 1);
}

// The map against std::vector<bool> over random sizes (around page
// boundaries and beyond), random initial contents (the three fill modes and
// user bitmaps) and random operations, in range and out of it.
TEST_F(BlockMapUser, MatchesAPlainBitSet)
{
	std::mt19937_64 rng(support::seed());
	auto pick_size = [&]() -> std::uint32_t {
		switch (rng() % 4) {
		case 0:
			return 1 + rng() % 16;
		case 1:
			return 32768 - 8 + rng() % 17;
		case 2:
			return 65536 - 8 + rng() % 17;
		default:
			return 1 + rng() % 200000;
		}
	};
	for (int round = 0; round < 24; round++) {
		const std::uint32_t size = pick_size();
		const std::uint32_t bytes = (size + 7) / 8;
		const std::uint32_t npages = (bytes + 4095) / 4096;
		std::vector<bool> ref(size);
		MapRecord r;
		int pages = kSentinel;
		const int mode = rng() % 3;
		if (mode == 2) {
			std::vector<unsigned char> data(bytes);
			for (auto &b : data)
				b = static_cast<unsigned char>(rng());
			uaddr buf = proc().map_anon(bytes);
			ASSERT_TRUE(proc().poke(buf, data.data(), bytes));
			ASSERT_EQ(build_from(r.bm, size, buf, &pages), 0);
			for (std::uint32_t n = 0; n < size; n++)
				ref[n] = data[n / 8] >> (n % 8) & 1;
		} else {
			const int fill = mode == 0 ? 1 : static_cast<int>(rng() % 5) - 2;
			ASSERT_EQ(newBlockMap(&r.bm, size, nullptr, fill, &pages), 0);
			for (std::uint32_t n = 0; n < size; n++)
				ref[n] = fill != 1;
		}
		ASSERT_EQ(pages, static_cast<int>(npages)) << size;
		ASSERT_EQ(r.bm.numBytes, bytes);
		for (int i = 0; i < 3000; i++) {
			std::uint32_t n;
			switch (rng() % 8) {
			case 0:
				n = size + static_cast<std::uint32_t>(rng() % 64);
				break;
			case 1:
				n = static_cast<std::uint32_t>(rng());
				break;
			default:
				n = static_cast<std::uint32_t>(rng() % size);
			}
			const bool in = n < size;
			switch (rng() % 3) {
			case 0:
				ASSERT_EQ(setBlock(&r.bm, n),
					  in ? 0 : static_cast<int>(n)) << n;
				if (in)
					ref[n] = true;
				break;
			case 1:
				ASSERT_EQ(unSetBlock(&r.bm, n), in ? 0 : 1) << n;
				if (in)
					ref[n] = false;
				break;
			default:
				ASSERT_EQ(blockInMap(&r.bm, n),
					  in && ref[n] ? -1 : 0) << n;
			}
		}
		for (std::uint32_t n = 0; n < size; n++)
			ASSERT_EQ(blockInMap(&r.bm, n), ref[n] ? -1 : 0)
				<< "size " << size << " block " << n;
		int freed = kSentinel;
		closeBlockMap(&r.bm, &freed);
		ASSERT_EQ(freed, static_cast<int>(npages));
	}
	EXPECT_EQ(emu::usage(), base_);
	ExpectLog({});
}

}  // namespace
