/*
 * stats.h - the statistics record of a backup, shared with user space.
 *
 * 128 bytes, little-endian, 32-bit fields with nothing between them.  The
 * three version fields are part of the layout but are never written by the
 * driver: they are always zero (the version is available through the
 * GET_VERSION_MAJOR and GET_VERSION_MINOR commands instead).
 */
#ifndef _CORVALIN_STATS_H
#define _CORVALIN_STATS_H

#include "corvalin.h"

struct KivTime {
	kiv_s32 tv_sec;
	kiv_s32 tv_nsec;
};

struct Stats {
	kiv_u32 driverVerMajor;		/* always 0 */
	kiv_u32 driverVerMinor;		/* always 0 */
	kiv_u32 driverVerMinor2;	/* always 0 */
	kiv_u32 major;
	kiv_u32 minor;
	kiv_u32 state;
	kiv_u32 partitionStart;		/* sectors, low 32 bits */
	kiv_s32 blockSize;
	kiv_s32 blocksPerPage;
	kiv_u32 partitionSizeKB;
	kiv_u32 numBlocks;
	kiv_s32 maxVMPages;
	kiv_s32 vmPages;
	kiv_u32 maxCacheBlocks;
	kiv_s32 curAllocAMPages;
	kiv_s32 totalAllocPages;
	kiv_s32 curAllocPages;
	kiv_s32 totalAllocBRs;
	kiv_s32 curAllocBRs;
	kiv_s32 totalAllocCPs;
	kiv_s32 curAllocCPs;
	kiv_s32 peakAllocCPs;
	kiv_s32 totalCBs;
	kiv_s32 curCBs;
	kiv_s32 totalReadBlocks;
	kiv_s32 totalReadCBs;
	kiv_s32 totalCleanedCBs;
	kiv_s32 ioctlCount;
	struct KivTime eTimeToFreeze;
	struct KivTime eTimeFrozen;
};

#ifndef __KERNEL__
typedef struct KivTime KivTime;
typedef struct Stats Stats;
#endif

KIV_ABI_CHECK(Stats_size, sizeof(struct Stats) == 128);
KIV_ABI_CHECK(Stats_major, offsetof(struct Stats, major) == 12);
KIV_ABI_CHECK(Stats_state, offsetof(struct Stats, state) == 20);
KIV_ABI_CHECK(Stats_partitionStart, offsetof(struct Stats, partitionStart) == 24);
KIV_ABI_CHECK(Stats_numBlocks, offsetof(struct Stats, numBlocks) == 40);
KIV_ABI_CHECK(Stats_maxVMPages, offsetof(struct Stats, maxVMPages) == 44);
KIV_ABI_CHECK(Stats_vmPages, offsetof(struct Stats, vmPages) == 48);
KIV_ABI_CHECK(Stats_maxCacheBlocks, offsetof(struct Stats, maxCacheBlocks) == 52);
KIV_ABI_CHECK(Stats_curAllocAMPages,
	      offsetof(struct Stats, curAllocAMPages) == 56);
KIV_ABI_CHECK(Stats_totalAllocPages,
	      offsetof(struct Stats, totalAllocPages) == 60);
KIV_ABI_CHECK(Stats_peakAllocCPs, offsetof(struct Stats, peakAllocCPs) == 84);
KIV_ABI_CHECK(Stats_totalCleanedCBs,
	      offsetof(struct Stats, totalCleanedCBs) == 104);
KIV_ABI_CHECK(Stats_ioctlCount, offsetof(struct Stats, ioctlCount) == 108);
KIV_ABI_CHECK(Stats_eTimeToFreeze, offsetof(struct Stats, eTimeToFreeze) == 112);
KIV_ABI_CHECK(Stats_eTimeFrozen, offsetof(struct Stats, eTimeFrozen) == 120);

#endif /* _CORVALIN_STATS_H */
