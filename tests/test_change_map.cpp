// The change-map commands of a backup: GET_AUTOMAP_STATE (the partition's
// session and the key for the next snapshot), GET_AUTOMAP (the change map
// handed over at the snapshot, exported once), LOAD_BLOCK_MAP (the blocks
// the backup will read; cached blocks outside them are dropped) and
// GET_DIRTY_BLOCK (a block whose old contents are still cached), issued as
// system calls with their records in user memory.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <thread>
#include <vector>

#include "test_change_map_util.hpp"

namespace {

using changemap::Bytes;
using changemap::Key;

class ChangeMap : public changemap::Fixture {
protected:
	// An incremental backup in state 4 whose handed-over change map is
	// swapped for an all-clear one of `size` blocks (two pages for more
	// than 8 x 4096), as a larger partition's would be, with `set` set.
	void handed_over_map_of(std::uint32_t size,
				std::initializer_list<std::uint32_t> set)
	{
		make_disk(4096);
		const Key k1 = first_backup();
		incremental(k1);
		proc->run_as([&] {
			closeBUBlockMap(b_);
			int pages = 0;
			ASSERT_EQ(newBlockMap(&b_->blockMap, size, nullptr, 1,
					      &pages), 0);
			ASSERT_EQ(pages, int(((size + 7) / 8 + 4095) / 4096));
			atomic_add(pages, &b_->curAllocPages);
			for (std::uint32_t n : set)
				setBlock(&b_->blockMap, n);
		});
	}
};

// --------------------------------------------------------------------------
// GET_AUTOMAP_STATE

TEST_F(ChangeMap, StateOfAPartitionNeverSnapshottedIsAllZero)
{
	make_disk(4096);
	ASSERT_EQ(start(), 0);
	emu::log_clear();
	Bytes junk(80, 0xA5);
	ASSERT_TRUE(proc->poke(scratch_ + 1024, junk.data(), junk.size()));
	EXPECT_EQ(get_ams(scratch_ + 1024, 76), 0);
	Bytes want(76, 0);
	want.resize(80, 0xA5);
	EXPECT_EQ(peek(scratch_ + 1024, 80), want);
	ExpectLog({});
}

TEST_F(ChangeMap, StateReportsTheSessionAndTheKeyForTheNextSnapshot)
{
	make_disk(1024);
	const Key k1 = first_backup();
	write_block(9, 0x31);
	ASSERT_EQ(fs->sync(), 0);
	// Before a backup starts too: no state of the backup is required.
	EXPECT_EQ(get_ams(scratch_ + 1024, 76), 0);
	AutoMapState s;
	ASSERT_TRUE(proc->peek(scratch_ + 1024, &s, sizeof(s)));
	EXPECT_EQ(s.major, 0u) << "an idle record has no partition";
	incremental(k1);
	EXPECT_EQ(get_ams(scratch_ + 1024, 76), 0);
	ASSERT_TRUE(proc->peek(scratch_ + 1024, &s, sizeof(s)));
	EXPECT_EQ(s.major, readpath::kMajor);
	EXPECT_EQ(s.minor, 1u);
	EXPECT_EQ(s.state, static_cast<kiv_u32>(AM_STATE_IN_SYNC));
	EXPECT_EQ(s.mapLen, blocks);
	EXPECT_EQ(s.mapSize, (blocks + 7) / 8);
	const Key k2 = key_of(session());
	EXPECT_EQ(std::memcmp(s.amsKey.key, k2.data(), 56), 0);
	EXPECT_NE(k2, k1);
	ExpectLog({});

	// That key is the one the next snapshot accepts.
	reopen();
	incremental(k2);
	EXPECT_NE(b_->blockMap.map, nullptr);
}

TEST_F(ChangeMap, StateCopiesOnlyTheRequestedLengthAndNeverMoreThanTheRecord)
{
	make_disk(4096);
	first_backup();
	ASSERT_EQ(start(), 0);
	Bytes junk(200, 0xA5);
	ASSERT_TRUE(proc->poke(scratch_ + 1024, junk.data(), junk.size()));
	EXPECT_EQ(get_ams(scratch_ + 1024, 10), 0);
	Bytes got = peek(scratch_ + 1024, 200);
	const std::uint32_t major = readpath::kMajor, minor = 1;
	EXPECT_EQ(std::memcmp(got.data(), &major, 4), 0);
	EXPECT_EQ(std::memcmp(got.data() + 4, &minor, 4), 0);
	EXPECT_EQ(got[8], AM_STATE_IN_SYNC);
	EXPECT_EQ(got[9], 0);
	EXPECT_EQ(got[10], 0xA5);

	EXPECT_EQ(get_ams(scratch_ + 1024, 200), 0);
	got = peek(scratch_ + 1024, 200);
	for (int i = 76; i < 200; i++)
		ASSERT_EQ(got[i], 0xA5) << i;
	EXPECT_EQ(std::memcmp(got.data() + 20, key_of(session()).data(), 56),
		  0);
}

TEST_F(ChangeMap, StateToAnUnwritableRecordIsSeven)
{
	make_disk(4096);
	ASSERT_EQ(start(), 0);
	emu::log_clear();
	EXPECT_EQ(get_ams(read_only_page(), 76), 7);
	ExpectLog({"<3>ioctlGetAutoMapState: copy to user space failed"});
	EXPECT_EQ(get_ams(proc->unmapped_address(), 1), 7);
	ExpectLog({"<3>ioctlGetAutoMapState: copy to user space failed"});
	EXPECT_EQ(state(), static_cast<u32>(BU_STATE_STARTED));
}

// --------------------------------------------------------------------------
// GET_AUTOMAP

TEST_F(ChangeMap, ExportCopiesTheHandedOverMapAndConsumesIt)
{
	make_disk(1024);
	const Key k1 = first_backup();
	write_block(7, 0x11);
	write_block(100, 0x22);
	write_block(blocks - 1, 0x33);
	ASSERT_EQ(fs->sync(), 0);
	incremental(k1);
	const int cur = atomic_read(&b_->curAllocPages);
	const int total = atomic_read(&b_->totalAllocPages);
	const emu::uaddr dest = user_bitmap(blocks, {1, 2, 3});
	EXPECT_EQ(get_automap(dest, blocks), 0);
	ExpectLog({});
	EXPECT_EQ(set_bits(peek(dest, (blocks + 7) / 8), blocks),
		  (std::vector<std::uint32_t>{7, 100, blocks - 1}))
		<< "every byte is overwritten, stale bits included";
	EXPECT_EQ(b_->blockMap.map, nullptr);
	EXPECT_EQ(atomic_read(&b_->curAllocPages), cur - 1);
	EXPECT_EQ(atomic_read(&b_->totalAllocPages), total);
	EXPECT_EQ(state(), static_cast<u32>(BU_STATE_SNAPSHOT));

	// Exported once only.
	EXPECT_EQ(get_automap(dest, blocks), 2);
	ExpectLog({"<3>ioctlGetAutoMap: backup error automap is NULL "});
}

TEST_F(ChangeMap, ExportAfterASnapshotThatStartedANewSessionFindsNoMap)
{
	make_disk(4096);
	ASSERT_EQ(start(), 0);
	ASSERT_EQ(snapshot(), 0);
	emu::log_clear();
	EXPECT_EQ(get_automap(user_bitmap(blocks, {}), blocks), 2);
	ExpectLog({"<3>ioctlGetAutoMap: backup error automap is NULL "});
}

TEST_F(ChangeMap, ExportBeforeTheSnapshotIsRefused)
{
	make_disk(4096);
	ASSERT_EQ(start(), 0);
	emu::log_clear();
	EXPECT_EQ(get_automap(user_bitmap(blocks, {}), blocks), 2);
	ExpectLog({"<3>ioctlGetAutoMap: backup error map not loaded "});
	EXPECT_EQ(state(), static_cast<u32>(BU_STATE_STARTED));
}

TEST_F(ChangeMap, ExportIntoAMapOfAnotherSizeIsRefusedAndKeepsTheMap)
{
	make_disk(4096);
	const Key k1 = first_backup();
	incremental(k1);
	const emu::uaddr dest = user_bitmap(blocks + 8, {});
	EXPECT_EQ(get_automap(dest, blocks + 1), 2);
	ExpectLog({"<3>ioctlGetAutoMap: backup error map size mismatch "
		   "kernel map size=" + std::to_string(blocks) +
		   " user map size=" + std::to_string(blocks + 1)});
	EXPECT_NE(b_->blockMap.map, nullptr);
	EXPECT_EQ(get_automap(dest, blocks), 0);
}

// A map of 8 x 4096 + 1 blocks is one full page and one byte.
TEST_F(ChangeMap, ExportOfOnePageAndOneBitIsOnePageAndOneByte)
{
	const std::uint32_t size = 8 * 4096 + 1;
	handed_over_map_of(size, {3, size - 1});
	const int cur = atomic_read(&b_->curAllocPages);
	const emu::uaddr dest = proc->map_anon(3 * 4096);
	Bytes junk(3 * 4096, 0xA5);
	ASSERT_TRUE(proc->poke(dest, junk.data(), junk.size()));
	EXPECT_EQ(get_automap(dest, size), 0);
	Bytes got = peek(dest, 3 * 4096);
	EXPECT_EQ(got[0], 0x08);
	for (int i = 1; i < 4096; i++)
		ASSERT_EQ(got[i], 0) << i;
	EXPECT_EQ(got[4096], 0x01) << "the last block is the lowest bit";
	EXPECT_EQ(got[4097], 0xA5) << "not one byte more";
	EXPECT_EQ(atomic_read(&b_->curAllocPages), cur - 2);
}

// A fault on the second page names that page's address and its own
// count; the map is kept whole.
TEST_F(ChangeMap, ExportFaultingOnItsSecondPageNamesThatPage)
{
	const std::uint32_t size = 8 * 4096 + 1;
	handed_over_map_of(size, {size - 1});
	const int cur = atomic_read(&b_->curAllocPages);
	const emu::uaddr dest = proc->map_anon(2 * 4096);
	ASSERT_EQ(proc->protect(dest + 4096, 4096, emu::PROT_READ_), 0);
	EXPECT_EQ(get_automap(dest, size), 7);
	ExpectLog({"<3>ioctlGetAutoMap: copy to user space failed data=" +
		   ptr(dest + 4096) + " bytesCopied=1 bytesInMap=4097"});
	EXPECT_NE(b_->blockMap.map, nullptr);
	EXPECT_EQ(b_->blockMap.size, size);
	EXPECT_EQ(atomic_read(&b_->curAllocPages), cur);
	EXPECT_TRUE(in_map(&b_->blockMap, size - 1));
}

TEST_F(ChangeMap, ExportToAnUnwritableBufferIsSevenAndMayBeRetried)
{
	make_disk(4096);
	const Key k1 = first_backup();
	write_block(5, 0x55);
	ASSERT_EQ(fs->sync(), 0);
	incremental(k1);
	const std::uint32_t bytes = (blocks + 7) / 8;
	const emu::uaddr ro = read_only_page();
	EXPECT_EQ(get_automap(ro, blocks), 7);
	ExpectLog({"<3>ioctlGetAutoMap: copy to user space failed data=" +
		   ptr(ro) + " bytesCopied=" + std::to_string(bytes) +
		   " bytesInMap=" + std::to_string(bytes)});
	EXPECT_NE(b_->blockMap.map, nullptr) << "the map is kept";
	const emu::uaddr dest = user_bitmap(blocks, {});
	EXPECT_EQ(get_automap(dest, blocks), 0);
	EXPECT_EQ(set_bits(peek(dest, bytes), blocks),
		  std::vector<std::uint32_t>{5});
}

// --------------------------------------------------------------------------
// LOAD_BLOCK_MAP

TEST_F(ChangeMap, LoadDropsCachedBlocksOutsideTheMapAndKeepsTheOthers)
{
	make_disk(4096);
	ASSERT_EQ(start(), 0);
	ASSERT_EQ(snapshot(), 0);
	const Bytes old5(bs, 0x50), old9(bs, 0x90);
	cache_block(5, old5);
	cache_block(9, old9);
	ASSERT_EQ(atomic_read(&b_->curCBs), 2);
	const int cur = atomic_read(&b_->curAllocPages);
	const int total = atomic_read(&b_->totalAllocPages);
	emu::log_clear();
	EXPECT_EQ(load_map(user_bitmap(blocks, {5, 6}), blocks), 0);
	ExpectLog({});
	EXPECT_EQ(state(), static_cast<u32>(BU_STATE_MAP_LOADED));
	EXPECT_EQ(b_->blockMap.size, blocks);
	EXPECT_TRUE(in_map(&b_->blockMap, 5));
	EXPECT_TRUE(in_map(&b_->blockMap, 6));
	EXPECT_FALSE(in_map(&b_->blockMap, 9));
	EXPECT_EQ(atomic_read(&b_->curCBs), 1);
	EXPECT_EQ(atomic_read(&b_->totalCleanedCBs), 1);
	EXPECT_TRUE(in_map(&b_->cacheMap, 5));
	EXPECT_FALSE(in_map(&b_->cacheMap, 9));
	EXPECT_EQ(atomic_read(&b_->curAllocPages), cur + 1);
	EXPECT_EQ(atomic_read(&b_->totalAllocPages), total + 1);

	// The kept block is still delivered from the cache, then leaves it.
	EXPECT_EQ(dirty_block(), 5u);
	const long long addr = map(2);
	ASSERT_GT(addr, 0);
	EXPECT_EQ(read_blocks(5, 2, addr), 0);
	EXPECT_EQ(peek(addr, bs), old5);
	EXPECT_EQ(peek(addr + bs, bs), readpath::block_pattern(6, bs));
	EXPECT_FALSE(in_map(&b_->blockMap, 5));
	EXPECT_FALSE(in_map(&b_->blockMap, 6));
	EXPECT_EQ(atomic_read(&b_->curCBs), 0);
	EXPECT_EQ(dirty_block(), 0xFFFFFFFFu);
}

TEST_F(ChangeMap, LoadIsRefusedOutsideStateFourAndOnlyOnce)
{
	make_disk(4096);
	ASSERT_EQ(start(), 0);
	emu::log_clear();
	const emu::uaddr bm = user_bitmap(blocks, {1});
	EXPECT_EQ(load_map(bm, blocks), 2);
	ExpectLog({"<3>ioctlLoadBlockMap: backup error snapshot not complete"});
	EXPECT_EQ(state(), static_cast<u32>(BU_STATE_STARTED));
	ASSERT_EQ(snapshot(), 0);
	EXPECT_EQ(load_map(bm, blocks), 0);
	emu::log_clear();
	const int cur = atomic_read(&b_->curAllocPages);
	EXPECT_EQ(load_map(bm, blocks), 2);
	ExpectLog({"<3>ioctlLoadBlockMap: backup error snapshot not complete"});
	EXPECT_EQ(state(), static_cast<u32>(BU_STATE_MAP_LOADED));
	EXPECT_EQ(atomic_read(&b_->curAllocPages), cur);
	// The export needs state 4 as well.
	EXPECT_EQ(get_automap(bm, blocks), 2);
	ExpectLog({"<3>ioctlGetAutoMap: backup error map not loaded "});
}

// A program that loads its own map without exporting the one the
// snapshot handed over: the handed-over map is freed, not overwritten,
// and only the loaded map's pages stay counted.
TEST_F(ChangeMap, LoadOverAnUnexportedHandedOverMapFreesIt)
{
	make_disk(4096);
	const Key k1 = first_backup();
	write_block(4, 0x44);
	ASSERT_EQ(fs->sync(), 0);
	incremental(k1);
	ASSERT_NE(b_->blockMap.map, nullptr) << "handed over";
	const int before = atomic_read(&b_->curAllocPages);
	emu::log_clear();
	EXPECT_EQ(load_map(user_bitmap(blocks, {1, 4}), blocks), 0);
	ExpectLog({});
	EXPECT_EQ(state(), static_cast<u32>(BU_STATE_MAP_LOADED));
	EXPECT_EQ(atomic_read(&b_->curAllocPages), before)
		<< "one map's pages for another's";
	EXPECT_TRUE(in_map(&b_->blockMap, 1));
	EXPECT_TRUE(in_map(&b_->blockMap, 4));
	EXPECT_FALSE(in_map(&b_->blockMap, 3));
}

TEST_F(ChangeMap, ShortMapDropsBlocksBeyondItAndBoundsTheReads)
{
	make_disk(4096);
	ASSERT_EQ(start(), 0);
	ASSERT_EQ(snapshot(), 0);
	cache_block(20, Bytes(bs, 0x20));
	emu::log_clear();
	EXPECT_EQ(load_map(user_bitmap(16, {3, 15}), 16), 0);
	ExpectLog({});
	EXPECT_EQ(b_->blockMap.size, 16u);
	EXPECT_EQ(atomic_read(&b_->curCBs), 0) << "block 20 is outside";
	const long long addr = map(8);
	ASSERT_GT(addr, 0);
	EXPECT_EQ(read_blocks(10, 6, addr), 0);
	EXPECT_EQ(read_blocks(10, 7, addr), 2);
	ExpectLog({"<3>ioctlReadBlocks: end block number out of block map "
		   "range"});
}

TEST_F(ChangeMap, LoadOfAnEmptyMapIsTwoAndFailsTheBackup)
{
	make_disk(4096);
	ASSERT_EQ(start(), 0);
	ASSERT_EQ(snapshot(), 0);
	emu::log_clear();
	const emu::Usage base = emu::usage();
	EXPECT_EQ(load_map(user_bitmap(8, {}), 0), 2);
	std::vector<std::string> want = {
		"<3>newBlockMap: block size size=0 invalid"};
	for (auto &l : load_failed(0))
		want.push_back(l);
	ExpectLog(want);
	EXPECT_EQ(state(), static_cast<u32>(BU_STATE_MAP_ERROR));
	EXPECT_EQ(emu::usage(), base);
	EXPECT_EQ(b_->blockMap.map, nullptr);
}

TEST_F(ChangeMap, LoadOfAnUnreadableBitmapIsSixAndLeaksNothing)
{
	make_disk(4096);
	ASSERT_EQ(start(), 0);
	ASSERT_EQ(snapshot(), 0);
	const emu::uaddr bad = proc->unmapped_address();
	const std::string bytes = std::to_string((blocks + 7) / 8);
	expect_load_fails(bad, 6,
			  {"<3>newBlockMap: copy to user space failed data=" +
				   ptr(bad) + " bytesCopied=" + bytes +
				   " bytesInMap=" + bytes,
			   "<3>newBlockMap: Out of Memory Error."});
}

TEST_F(ChangeMap, LoadWithoutMemoryForThePageArrayIsFive)
{
	expect_load_without_memory(
		emu::Alloc::Vmalloc,
		{"<3>newBlockMap: failed allocating (" +
		 std::to_string(sizeof(void *)) +
		 ") bytes of memory for block map page array"});
}

TEST_F(ChangeMap, LoadWithoutMemoryForABitmapPageIsFive)
{
	expect_load_without_memory(
		emu::Alloc::Pages,
		{"<3>newBlockMap: failed allocating page number (0) for block "
		 "map",
		 "<3>newBlockMap: Out of Memory Error."});
}

// Another party moves the state while the load waits for the cache's
// users lock (held here for writing, as the cache's teardown holds it):
// below 6 the cleaning is skipped with 3 and the backup fails; above 6
// (a backup that failed meanwhile) it is skipped with 0 and the state is
// left alone.
class LoadRace : public ChangeMap {
protected:
	long load_while_state_moves_to(u32 moved)
	{
		make_disk(4096);
		EXPECT_EQ(start(), 0);
		EXPECT_EQ(snapshot(), 0);
		cache_block(5, Bytes(bs, 0x55));
		const emu::uaddr bm = user_bitmap(blocks, {1});
		emu::log_clear();
		std::atomic<int> phase{0};
		std::thread holder([&] {
			proc->run_as([&] {
				down_write(&b_->cacheUsers);
				phase = 1;
				while (support::racy_read(&b_->state) !=
				       BU_STATE_MAP_LOADED)
					sched_yield();
				setBackupState(b_, moved);
				up_write(&b_->cacheUsers);
			});
		});
		while (phase != 1)
			std::this_thread::yield();
		const long r = load_map(bm, blocks);
		holder.join();
		return r;
	}
};

TEST_F(LoadRace, StateBelowSixBeforeTheCleaningIsThreeAndFailsTheBackup)
{
	EXPECT_EQ(load_while_state_moves_to(BU_STATE_SNAPSHOT), 3);
	ExpectLog({"<3>ioctlLoadBlockMap: error cleaning cache"});
	EXPECT_EQ(state(), static_cast<u32>(BU_STATE_MAP_ERROR));
	EXPECT_EQ(atomic_read(&b_->curCBs), 1) << "nothing was cleaned";
}

TEST_F(LoadRace, StateAboveSixBeforeTheCleaningSkipsItWithZero)
{
	EXPECT_EQ(load_while_state_moves_to(BU_STATE_CACHE_ERROR), 0);
	ExpectLog({});
	EXPECT_EQ(state(), static_cast<u32>(BU_STATE_CACHE_ERROR));
	EXPECT_EQ(atomic_read(&b_->curCBs), 1) << "nothing was cleaned";
}

// --------------------------------------------------------------------------
// GET_DIRTY_BLOCK

TEST_F(ChangeMap, DirtyBlockOutsideStateSixIsTwoAndWritesNothing)
{
	make_disk(4096);
	ASSERT_EQ(start(), 0);
	ASSERT_EQ(snapshot(), 0);
	cache_block(4, Bytes(bs, 0x44));
	emu::log_clear();
	std::uint32_t v = 0x12345678;
	ASSERT_TRUE(proc->poke(scratch_ + 64, &v, 4));
	EXPECT_EQ(dirty(scratch_ + 64), 2);
	ASSERT_TRUE(proc->peek(scratch_ + 64, &v, 4));
	EXPECT_EQ(v, 0x12345678u);
	ExpectLog({});
}

TEST_F(ChangeMap, DirtyBlockWithAnEmptyCacheIsAllOnes)
{
	make_disk(4096);
	ASSERT_EQ(start(), 0);
	ASSERT_EQ(snapshot(), 0);
	ASSERT_EQ(load_map(user_bitmap(blocks, {1}), blocks), 0);
	emu::log_clear();
	EXPECT_EQ(dirty_block(), 0xFFFFFFFFu);
	ExpectLog({});
}

// The answer is the newest block of the lowest non-empty bucket (block n
// lives in bucket n mod 4096), not the lowest cached block.
TEST_F(ChangeMap, DirtyBlockIsTheHeadOfTheLowestNonEmptyBucket)
{
	make_disk(1024, 16384);  // 8192 blocks
	ASSERT_EQ(start(), 0);
	ASSERT_EQ(snapshot(), 0);
	cache_block(4098, Bytes(bs, 1));  // bucket 2
	cache_block(1, Bytes(bs, 2));     // bucket 1
	cache_block(4097, Bytes(bs, 3));  // bucket 1, now its head
	ASSERT_EQ(load_map(user_bitmap(blocks, {1, 4097, 4098}), blocks), 0);
	EXPECT_EQ(dirty_block(), 4097u);
	const long long addr = map(1);
	ASSERT_GT(addr, 0);
	EXPECT_EQ(read_blocks(4097, 1, addr), 0);
	EXPECT_EQ(dirty_block(), 1u);
	EXPECT_EQ(read_blocks(1, 1, addr), 0);
	EXPECT_EQ(dirty_block(), 4098u);
}

TEST_F(ChangeMap, DirtyBlockToAnUnwritableAddressIsMinusEfault)
{
	make_disk(4096);
	ASSERT_EQ(start(), 0);
	ASSERT_EQ(snapshot(), 0);
	cache_block(4, Bytes(bs, 0x44));
	ASSERT_EQ(load_map(user_bitmap(blocks, {4}), blocks), 0);
	emu::log_clear();
	EXPECT_EQ(dirty(read_only_page()), -EFAULT);
	EXPECT_EQ(dirty(proc->unmapped_address()), -EFAULT);
	ExpectLog({});
	EXPECT_EQ(dirty_block(), 4u);
}

}  // namespace
