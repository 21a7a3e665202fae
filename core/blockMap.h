/*
 * blockMap.h - the paged block bitmap (struct BlockMap, kiv-2.6.h).
 *
 * Block N is bit N % 32768 of page N / 32768; within a page, bit b is bit
 * b % 8 of byte b / 8.  Over the whole map this is the plain little-endian
 * bit string that user space also uses for its bitmaps.
 */
#ifndef _KIV_BLOCKMAP_H
#define _KIV_BLOCKMAP_H

#include <linux/types.h>
#include <linux/compiler.h>

#include "kiv-2.6.h"

/* Pages needed for a map of size blocks, always computed from size. */
static inline u32 numPagesInBlockMap(u32 size)
{
	u32 bytesInMap = (size + 7) / 8;

	return (bytesInMap + KIV_PAGE_SIZE - 1) / KIV_PAGE_SIZE;
}

int newBlockMap(BlockMap *bmap, u32 size, void __user *data, int zeroFill,
		int *numPagesAlloc);
void closeBlockMap(BlockMap *bmap, int *numPagesFreed);
int setBlock(BlockMap *bm, u32 blockNum);
int unSetBlock(BlockMap *bm, u32 blockNum);
int blockInMap(BlockMap *bm, u32 blockNum);
void waitForBlockMapUsers(BlockMap *bm, unsigned long *flags);
void waitForBlockMapUsersNested(BlockMap *bm, unsigned long *flags);

#endif /* _KIV_BLOCKMAP_H */
