// The block cache (core/cache.c): saveBlock, cacheRead, cleanUpCache and
// the object allocation with its limit, on the cache a real START_BACKUP
// built (4096-byte blocks, 8192 of them).
#include "test_backup_util.hpp"

#include <thread>

namespace {

using bt::BackupTest;

class Cache : public BackupTest {
protected:
	void SetUp() override
	{
		BackupTest::SetUp();
		ASSERT_EQ(start(bt::kP1Blocks, limit_), 0);
		set_state(BU_STATE_SNAPSHOT);
		emu::log_clear();
	}
	int save(std::uint32_t n, unsigned char v)
	{
		std::vector<char> d(4096, (char)v);
		down_read(&b_->cacheUsers);
		int r = saveBlock(b_, d.data(), n);
		up_read(&b_->cacheUsers);
		return r;
	}
	std::vector<std::uint32_t> bucket(std::uint32_t i)
	{
		std::vector<std::uint32_t> v;
		for (CachePage *cp = b_->blockTable[i]->busy; cp; cp = cp->next)
			v.push_back(cp->blockNum);
		return v;
	}
	u32 limit_ = 1000;
};

TEST_F(Cache, BlocksSharingABucketAreFoundExactlyNewestFirst)
{
	EXPECT_EQ(save(5, 0x05), 0);
	EXPECT_EQ(save(4101, 0x41), 0);
	EXPECT_EQ(bucket(5), (std::vector<std::uint32_t>{4101, 5}));
	EXPECT_EQ(cached(5), bt::filled(4096, 0x05));
	EXPECT_EQ(cached(4101), bt::filled(4096, 0x41));
	EXPECT_EQ(atomic_read(&b_->curAllocCPs), 2);
	EXPECT_EQ(atomic_read(&b_->totalCBs), 2);
	EXPECT_EQ(atomic_read(&b_->peakAllocCPs), 2);
	EXPECT_EQ(atomic_read(&b_->totalReadCBs), 2);
	ExpectLog({});
}

TEST_F(Cache, BlockBeyondTheCacheMapIsStoredOnEveryWriteAndTheNewerIsRead)
{
	const std::uint32_t n = bt::kP1Blocks + 3;   // bucket 3
	EXPECT_EQ(save(n, 0x01), 0);
	ASSERT_EQ(setBlock(&b_->cacheMap, n), (int)n);  // outside the map
	EXPECT_EQ(save(n, 0x02), 0);
	EXPECT_EQ(bucket(3), (std::vector<std::uint32_t>{n, n}));
	EXPECT_EQ(cached(n), bt::filled(4096, 0x02));
	EXPECT_EQ(atomic_read(&b_->curCBs), 2);
	ExpectLog({});
}

TEST_F(Cache, BlockAlreadyInTheCacheMapIsNotStoredAgain)
{
	ASSERT_EQ(setBlock(&b_->cacheMap, 9), 0);
	EXPECT_EQ(save(9, 0x09), 0);
	EXPECT_TRUE(bucket(9).empty());
	EXPECT_EQ(atomic_read(&b_->totalCBs), 0);
	EXPECT_TRUE(cached(9).empty());
}

TEST_F(Cache, InStateSixABlockOutsideTheBlockMapIsNotStored)
{
	load_map({7});
	set_state(BU_STATE_MAP_LOADED);
	EXPECT_EQ(save(8, 0x08), 0);
	EXPECT_EQ(save(7, 0x07), 0);
	EXPECT_TRUE(bucket(8).empty());
	EXPECT_EQ(bucket(7), std::vector<std::uint32_t>{7});
}

TEST_F(Cache, StateFourReadKeepsTheBlockStateSixReadFreesIt)
{
	load_map({7});
	ASSERT_EQ(save(7, 0x77), 0);
	ASSERT_EQ(setBlock(&b_->cacheMap, 7), 0);
	EXPECT_EQ(cached(7), bt::filled(4096, 0x77));
	EXPECT_EQ(cached(7), bt::filled(4096, 0x77));
	set_state(BU_STATE_MAP_LOADED);
	EXPECT_EQ(cached(7), bt::filled(4096, 0x77));
	EXPECT_TRUE(cached(7).empty());
	EXPECT_EQ(blockInMap(&b_->blockMap, 7), 0);
	EXPECT_EQ(blockInMap(&b_->cacheMap, 7), 0);
	EXPECT_EQ(atomic_read(&b_->curAllocCPs), 0);
	EXPECT_EQ(atomic_read(&b_->curCBs), 0);
	EXPECT_EQ(atomic_read(&b_->totalReadCBs), 3);
	EXPECT_TRUE(bucket(7).empty());
}

TEST_F(Cache, StateSixReadUnlinksFromTheMiddleOfABucket)
{
	load_map({3, 4099});  // 8195 lies beyond the map
	for (std::uint32_t n : {3u, 4099u, 8195u})
		ASSERT_EQ(save(n, (unsigned char)(n & 0xff)), 0);
	set_state(BU_STATE_MAP_LOADED);
	EXPECT_EQ(cached(4099), bt::filled(4096, 4099 & 0xff));
	EXPECT_EQ(bucket(3), (std::vector<std::uint32_t>{8195, 3}));
	EXPECT_EQ(cached(3), bt::filled(4096, 3));
	EXPECT_EQ(bucket(3), std::vector<std::uint32_t>{8195});
}

TEST_F(Cache, ReadsStopAboveStateSix)
{
	ASSERT_EQ(save(2, 0x22), 0);
	set_state(BU_STATE_READ_ERROR);
	EXPECT_TRUE(cached(2).empty());
	EXPECT_EQ(atomic_read(&b_->totalReadCBs), 0);
}

TEST_F(Cache, CleanUpDropsEveryBlockTheMapDoesNotName)
{
	load_map({1, 4097});
	for (std::uint32_t n : {1u, 4097u, 8193u, 2u})
		ASSERT_EQ(save(n, 0x11), 0);
	EXPECT_EQ(cleanUpCache(b_), 3);   // state 4: refused
	set_state(BU_STATE_MAP_LOADED);
	EXPECT_EQ(cleanUpCache(b_), 0);
	EXPECT_EQ(bucket(1), (std::vector<std::uint32_t>{4097, 1}));
	EXPECT_TRUE(bucket(2).empty());
	EXPECT_EQ(atomic_read(&b_->totalCleanedCBs), 2);
	EXPECT_EQ(atomic_read(&b_->curCBs), 2);
	set_state(BU_STATE_MAP_ERROR);
	EXPECT_EQ(cleanUpCache(b_), 0);   // above 6: nothing done
	EXPECT_EQ(atomic_read(&b_->curCBs), 2);
	ExpectLog({});
}

TEST_F(Cache, LimitReachedRefusesWithStateTen)
{
	b_->maxCacheBlocks = 2;
	EXPECT_EQ(save(1, 1), 0);
	EXPECT_EQ(save(2, 2), 0);
	EXPECT_EQ(save(3, 3), 1);
	EXPECT_EQ(b_->state, (u32)BU_STATE_CACHE_ERROR);
	ExpectLog({"<3>getCacheBlock: configured max cache memory reached (2 "
		   "blocks) failed to allocate cache object"});
	EXPECT_EQ(atomic_read(&b_->peakAllocCPs), 2);
}

class CacheWithoutRoom : public Cache {
protected:
	CacheWithoutRoom() { limit_ = 0; }
};

TEST_F(CacheWithoutRoom, LimitZeroRefusesTheFirstBlock)
{
	EXPECT_EQ(save(1, 1), 1);
	EXPECT_EQ(b_->state, (u32)BU_STATE_CACHE_ERROR);
	ExpectLog({"<3>getCacheBlock: configured max cache memory reached (0 "
		   "blocks) failed to allocate cache object"});
	EXPECT_EQ(atomic_read(&b_->totalCBs), 0);
}

TEST_F(Cache, NoCacheObjectMovesToStateTen)
{
	{
		auto f = emu::FailScope::nth(emu::Alloc::Slab, 1);
		EXPECT_EQ(save(1, 1), 1);
	}
	EXPECT_EQ(b_->state, (u32)BU_STATE_CACHE_ERROR);
	ExpectLog({"<3>getCacheBlock: system out of memory, failed to "
		   "allocate cache object."});
	EXPECT_EQ(atomic_read(&b_->totalAllocCPs), 0);
}

TEST_F(Cache, NoDataBlockGivesTheObjectBackAndMovesToStateTen)
{
	{
		auto f = emu::FailScope::nth(emu::Alloc::Slab, 2);
		EXPECT_EQ(save(1, 1), 1);
	}
	EXPECT_EQ(b_->state, (u32)BU_STATE_CACHE_ERROR);
	ExpectLog({"<3>getCacheBlock: system out of memory failed to allocate "
		   "block for write cache"});
	EXPECT_EQ(atomic_read(&b_->curAllocCPs), 0);
	EXPECT_TRUE(bucket(1).empty());
}

TEST_F(Cache, CloseReportsABucketInConcurrentUseAndWaitsForIt)
{
	ASSERT_EQ(save(4, 4), 0);
	HashTable *ht = b_->blockTable[4];
	down(&ht->sem);
	std::thread closer([&] { closeCache(b_); });
	// closeCache logs the contention before it waits.
	while (emu::log_strings().empty())
		sched_yield();
	EXPECT_NE(b_->cpCache, nullptr);
	up(&ht->sem);
	closer.join();
	EXPECT_EQ(b_->cpCache, nullptr);
	EXPECT_EQ(b_->dataCache, nullptr);
	EXPECT_EQ(atomic_read(&b_->curCBs), 0);
	ExpectLog({"<3>closeCache: ht->sem contended"});
}

using CacheDeathTest = Cache;

TEST_F(CacheDeathTest, ObjectCacheGoneIsABug)
{
	EXPECT_DEATH(([&] {
		emu::log_echo(true);
		kmem_cache_destroy(b_->cpCache);
		b_->cpCache = nullptr;
		save(1, 1);
	}()),
		     "b->cpCache was destroyed before kmem_cache_alloc!");
}

TEST_F(CacheDeathTest, DataCacheGoneIsABug)
{
	EXPECT_DEATH(([&] {
		emu::log_echo(true);
		kmem_cache_destroy(b_->dataCache);
		b_->dataCache = nullptr;
		save(1, 1);
	}()),
		     "b->dataCache was destroyed before kmem_cache_alloc!");
}

}  // namespace
