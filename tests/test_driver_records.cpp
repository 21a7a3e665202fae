// The driver's records keep their fields in the documented order (later
// parts of the driver and the statistics read them by name, but the order
// is part of the design: Backup, DiskInfo, BlockMap, QueueList, DevList),
// and the state codes have their fixed values.
#include <cstddef>
#include <vector>

#include <gtest/gtest.h>

#include "test_driver_util.hpp"

namespace {

bool increasing(const std::vector<std::size_t> &offsets)
{
	for (std::size_t i = 1; i < offsets.size(); i++)
		if (offsets[i] <= offsets[i - 1])
			return false;
	return true;
}

TEST(Records, BackupFieldsAreInOrder)
{
	EXPECT_EQ(offsetof(Backup, bSem), 0u);
	EXPECT_TRUE(increasing({
		offsetof(Backup, bSem), offsetof(Backup, state),
		offsetof(Backup, writers), offsetof(Backup, maxVMPages),
		offsetof(Backup, vmAreas), offsetof(Backup, noLoadFromAutoMap),
		offsetof(Backup, noStartAutoMap), offsetof(Backup, eTimeToFreeze),
		offsetof(Backup, eTimeFrozen), offsetof(Backup, diskInfo),
		offsetof(Backup, blockMap), offsetof(Backup, blockTable),
		offsetof(Backup, htCache), offsetof(Backup, htCacheName),
		offsetof(Backup, cacheMap), offsetof(Backup, cacheUsers),
		offsetof(Backup, cpCache), offsetof(Backup, dataCache),
		offsetof(Backup, cpCacheName), offsetof(Backup, dataCacheName),
		offsetof(Backup, maxCacheBlocks), offsetof(Backup, mrInQueue),
		offsetof(Backup, mrLock), offsetof(Backup, mrHead),
		offsetof(Backup, mrTail), offsetof(Backup, ioctlCount),
		offsetof(Backup, totalAllocPages), offsetof(Backup, curAllocPages),
		offsetof(Backup, totalAllocCPs), offsetof(Backup, curAllocCPs),
		offsetof(Backup, peakAllocCPs), offsetof(Backup, totalCBs),
		offsetof(Backup, curCBs), offsetof(Backup, totalReadBlocks),
		offsetof(Backup, totalReadCBs), offsetof(Backup, totalCleanedCBs),
		offsetof(Backup, totalAllocBRs), offsetof(Backup, curAllocBRs),
		offsetof(Backup, mmBIORequests),
		offsetof(Backup, startedCacheThread),
	}));
	EXPECT_EQ(sizeof(Backup{}.vmAreas) / sizeof(Backup{}.vmAreas[0]), 2u);
	EXPECT_EQ(sizeof(Backup{}.htCacheName), 32u);
	EXPECT_EQ(sizeof(Backup{}.cpCacheName), 32u);
	EXPECT_EQ(sizeof(Backup{}.dataCacheName), 32u);
}

TEST(Records, DiskInfoFieldsAreInOrder)
{
	EXPECT_TRUE(increasing({
		offsetof(DiskInfo, kdev), offsetof(DiskInfo, partitionStart),
		offsetof(DiskInfo, blockSize), offsetof(DiskInfo, blocksPerPage),
		offsetof(DiskInfo, superBlock),
		offsetof(DiskInfo, partitionSizeKB),
		offsetof(DiskInfo, numBlocks), offsetof(DiskInfo, realMRF),
		offsetof(DiskInfo, bdev), offsetof(DiskInfo, partitionLen),
		offsetof(DiskInfo, sectorsPerBlock),
		offsetof(DiskInfo, sectorsPerBlockShift),
	}));
	// The 64-bit quantities are 64 bits wide.
	EXPECT_EQ(sizeof(DiskInfo{}.partitionStart), 8u);
	EXPECT_EQ(sizeof(DiskInfo{}.partitionSizeKB), 8u);
	EXPECT_EQ(sizeof(DiskInfo{}.numBlocks), 8u);
	EXPECT_EQ(sizeof(DiskInfo{}.partitionLen), 8u);
	EXPECT_EQ(sizeof(DiskInfo{}.kdev), 4u);
}

TEST(Records, BlockMapAndRegistryNodesAreInOrder)
{
	EXPECT_TRUE(increasing({
		offsetof(BlockMap, size), offsetof(BlockMap, numBytes),
		offsetof(BlockMap, map), offsetof(BlockMap, users),
		offsetof(BlockMap, usersLock), offsetof(BlockMap, sem),
	}));
	EXPECT_EQ(sizeof(BlockMap{}.size), 4u);
	EXPECT_EQ(sizeof(BlockMap{}.numBytes), 4u);
	EXPECT_TRUE(increasing({
		offsetof(QueueList, rQueue), offsetof(QueueList, realMRF),
		offsetof(QueueList, devList), offsetof(QueueList, list),
	}));
	EXPECT_TRUE(increasing({offsetof(DevList, kdev),
				offsetof(DevList, list)}));
}

TEST(Records, StateCodesHaveTheirValues)
{
	EXPECT_EQ(BU_STATE_IDLE, 0);
	EXPECT_EQ(BU_STATE_STARTING, 1);
	EXPECT_EQ(BU_STATE_STARTED, 2);
	EXPECT_EQ(BU_STATE_SNAPSHOT, 4);
	EXPECT_EQ(BU_STATE_LOADING_MAP, 5);
	EXPECT_EQ(BU_STATE_MAP_LOADED, 6);
	EXPECT_EQ(BU_STATE_CLOSING, 7);
	EXPECT_EQ(BU_STATE_READ_ERROR, 8);
	EXPECT_EQ(BU_STATE_MAP_ERROR, 9);
	EXPECT_EQ(BU_STATE_CACHE_ERROR, 10);
	EXPECT_EQ(BU_STATE_REFUSED, 12);
	EXPECT_EQ(BU_STATE_QUEUE_ERROR, 13);
}

// A store to the state is followed by a full barrier; the value is read
// back as stored.
TEST(Records, SetBackupStateStoresTheValue)
{
	Backup b{};
	for (u32 s : {2u, 4u, 6u, 12u, 0u}) {
		setBackupState(&b, s);
		EXPECT_EQ(b.state, s);
	}
}

}  // namespace
