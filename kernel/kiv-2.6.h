/*
 * kiv-2.6.h - records of the corvalin backup driver and the functions of
 * its layer bound to the 2.6 kernel.
 *
 * The central record is the Backup: one per open file of the control
 * device.  It is zero-filled at open and becomes the running backup when
 * START_BACKUP succeeds.  Everything a backup owns hangs off it: the
 * geometry of its partition (DiskInfo), its two paged bitmaps (BlockMap:
 * the blocks still to be read and the blocks already preserved), the
 * block cache (a table of 4096 HashTable buckets holding CachePage
 * entries), the queue of held writes (MakeRequest), the read requests
 * (BIORequest) and the two read-buffer mappings (BackupVMA).
 *
 * Partitions that take part in backups keep a change-tracking session
 * (AutoMapSession) between backups, and the request queues the driver
 * hooks are remembered in a registry of QueueList/DevList nodes
 * (queueList.h).
 *
 * Block numbers are unsigned 32-bit file-system blocks counted from the
 * start of the partition; sectors are 512 bytes and pages 4096 bytes.
 */
#ifndef _KIV_26_H
#define _KIV_26_H

#include <linux/types.h>
#include <linux/list.h>
#include <linux/fs.h>
#include <linux/mm.h>
#include <linux/bio.h>
#include <linux/blkdev.h>
#include <linux/buffer_head.h>
#include <linux/genhd.h>
#include <linux/slab.h>
#include <linux/spinlock.h>
#include <linux/rwsem.h>
#include <linux/semaphore.h>
#include <linux/mutex.h>
#include <linux/completion.h>
#include <linux/time.h>
#include <asm/atomic.h>
#include <asm/system.h>

#include "corvalin.h"
#include "stats.h"

#define KIV_SECTOR_SIZE		512
#define KIV_SECTOR_SHIFT	9
#define KIV_PAGE_SIZE		4096
#define KIV_BITS_PER_PAGE	(KIV_PAGE_SIZE * 8)
#define KIV_BLOCK_PAGE_SHIFT	15		/* log2(KIV_BITS_PER_PAGE) */
#define KIV_BLOCK_BIT_MASK	0x7FFF

#define KIV_HASH_BUCKETS	4096		/* buckets of the block cache */
#define KIV_HASH_MASK		0xFFF
#define KIV_MAX_VM_PAGES	256		/* pages of one read buffer */
#define KIV_VM_AREAS		2		/* read buffers per backup */
#define KIV_CACHE_NAME_LEN	32

/*
 * Geometry and hooks of one partition.  Filled by getDiskInfo() except
 * numBlocks (the caller's block count, set by the backup start), realMRF
 * (the registry's saved function) and superBlock (held only while frozen).
 */
struct DiskInfo {
	dev_t kdev;			/* major << 20 | minor */
	u64 partitionStart;		/* first sector on the whole disk */
	int blockSize;			/* file-system block size, bytes */
	u32 blocksPerPage;		/* 4096 / blockSize */
	struct super_block *superBlock;
	u64 partitionSizeKB;		/* partitionLen / 2 */
	u64 numBlocks;
	make_request_fn *realMRF;
	struct block_device *bdev;	/* reference never given back */
	u64 partitionLen;		/* sectors */
	int sectorsPerBlock;		/* blockSize / 512 */
	int sectorsPerBlockShift;	/* log2(sectorsPerBlock) */
};

/*
 * A set of blocks, one bit per block, least significant bit first.  The
 * bitmap lives in single order-0 pages (possibly high memory) listed in a
 * vmalloc'ed array, so no map ever needs a large contiguous allocation.
 * size 0 and map NULL mean "not built"; every bit operation checks the
 * block against size first, so an unbuilt map is an empty set.
 */
struct BlockMap {
	u32 size;			/* blocks covered */
	u32 numBytes;			/* (size + 7) / 8 */
	struct page **map;		/* one handle per bitmap page */
	atomic_t users;			/* 1 at rest, +1 per bit operation */
	spinlock_t usersLock;		/* users entry vs. a draining waiter */
	struct semaphore sem;		/* serialises the bit operations */
};

/* One hooked request queue; at most one node per queue. */
struct QueueList {
	struct request_queue *rQueue;
	make_request_fn *realMRF;	/* the function before our hook */
	struct list_head devList;	/* DevList nodes, in order of arrival */
	struct list_head list;		/* link in queueListHead */
};

/* One partition watched through a hooked queue. */
struct DevList {
	dev_t kdev;
	struct list_head list;		/* link in QueueList.devList */
};

/* A request held back until its blocks' old contents are preserved. */
struct MakeRequest {
	struct request_queue *q;
	struct bio *bio;
	u32 startBN;			/* first block touched */
	u32 endBN;			/* last block touched, inclusive */
	struct MakeRequest *next;
};

struct CachePage;

/* One bucket of the block cache; block n lives in bucket n & 0xFFF. */
struct HashTable {
	struct CachePage *busy;		/* newest entry first */
	struct semaphore sem;		/* guards the list */
};

/*
 * One cached block.  The objects of its kmem_cache are 8 + 4 bytes per
 * block of a page; only these three fields are used.
 */
struct CachePage {
	struct CachePage *next;
	char *data;			/* blockSize bytes from dataCache */
	u32 blockNum;
};

/* One block read in flight into the read buffer. */
struct BIORequest {
	struct bio *bio;
	struct completion event;
};

/* One user mapping of the read buffer. */
struct BackupVMA {
	int vmPages;			/* pages of this mapping, 0 when free */
	struct vm_area_struct *vma;	/* the mapping; NULL: slot free */
	struct page *mmPages[KIV_MAX_VM_PAGES];
};

/* The change-tracking session of one partition. */
struct AutoMapSession {
	struct DiskInfo diskInfo;	/* copied once, at creation */
	volatile u32 state;		/* AM_STATE_*; barrier after stores */
	struct BlockMap map;		/* blocks written since the snapshot */
	atomic_t users;			/* 1 at rest */
	spinlock_t usersLock;
	struct AMSessionKey sessionKey;
	struct AutoMapSession *next;
	/*
	 * Writes that found this session and have not completed yet (see
	 * updateAM).  The frozen instant and the close wait for it to be 0
	 * with usersLock held, so that no write seen by one map can reach
	 * the disk after the instant that closed that map.
	 */
	atomic_t inFlight;
};

/*
 * One open file of the control device, and the backup it runs.
 *
 * Locking: bSem serialises the commands of the record and its close;
 * writers is read-held by the interception path while it decides and
 * write-held by the moves to states 4 and 6 and by the close; cacheUsers
 * is read-held by every user of the block cache and write-held by its
 * teardown; mrLock guards mrHead/mrTail.  state is read without a lock and
 * every store to it is followed by a full barrier (setBackupState).
 * vmLock guards vmAreas: mmap and munmap take it under the mm's mmap_sem,
 * the read command and the close under bSem, so it nests inside both and
 * nothing that can fault on user memory runs while it is held.
 */
struct Backup {
	struct semaphore bSem;
	volatile u32 state;
	struct rw_semaphore writers;
	int maxVMPages;
	struct mutex vmLock;
	struct BackupVMA vmAreas[KIV_VM_AREAS];
	int noLoadFromAutoMap;
	int noStartAutoMap;
	struct timespec eTimeToFreeze;
	struct timespec eTimeFrozen;
	struct DiskInfo diskInfo;
	struct BlockMap blockMap;	/* blocks still to be read */
	struct HashTable **blockTable;	/* KIV_HASH_BUCKETS buckets */
	struct kmem_cache *htCache;
	char htCacheName[KIV_CACHE_NAME_LEN];
	struct BlockMap cacheMap;	/* blocks handed to the cache */
	struct rw_semaphore cacheUsers;
	struct kmem_cache *cpCache;
	struct kmem_cache *dataCache;
	char cpCacheName[KIV_CACHE_NAME_LEN];
	char dataCacheName[KIV_CACHE_NAME_LEN];
	u32 maxCacheBlocks;
	atomic_t mrInQueue;
	spinlock_t mrLock;
	struct MakeRequest *mrHead;
	struct MakeRequest *mrTail;
	atomic_t ioctlCount;
	atomic_t totalAllocPages;
	atomic_t curAllocPages;
	atomic_t totalAllocCPs;
	atomic_t curAllocCPs;
	atomic_t peakAllocCPs;
	atomic_t totalCBs;
	atomic_t curCBs;
	atomic_t totalReadBlocks;
	atomic_t totalReadCBs;
	atomic_t totalCleanedCBs;
	atomic_t totalAllocBRs;
	atomic_t curAllocBRs;
	struct BIORequest **mmBIORequests;
	int startedCacheThread;
};

typedef struct DiskInfo DiskInfo;
typedef struct BlockMap BlockMap;
typedef struct QueueList QueueList;
typedef struct DevList DevList;
typedef struct MakeRequest MakeRequest;
typedef struct HashTable HashTable;
typedef struct CachePage CachePage;
typedef struct BIORequest BIORequest;
typedef struct BackupVMA BackupVMA;
typedef struct AutoMapSession AutoMapSession;
typedef struct Backup Backup;

/* Store a backup's state; the barrier publishes it to lock-free readers. */
static inline void setBackupState(Backup *b, u32 state)
{
	b->state = state;
	mb();
}

/* The same for a change-tracking session. */
static inline void setAMSState(AutoMapSession *ams, u32 state)
{
	ams->state = state;
	mb();
}

/* Device geometry (kiv-2.6.c). */
int getDiskInfo(DiskInfo *diskInfo, dev_t kdev);
int getDiskMinor(dev_t kdev);
struct request_queue *getRequestQueue(DiskInfo *diskInfo);
int ioctlGetBlockSize(Backup *b, dev_t kdev, void __user *userBS, u32 bsLen);
void closeDiskInfo(Backup *b);

/* Hooking a queue and mapping a request to a partition (kiv-2.6.c). */
int setMRF(Backup *b, make_request_fn *newMRF);
int callRealMRF(Backup *b, struct bio *bio);
int BIOToMinor(struct bio *bio);
void BIOToBlockNumbers(DiskInfo *diskInfo, struct bio *bio, u32 *startBN,
		       u32 *endBN);

/*
 * Reading runs of blocks of the backed-up partition into the read buffer,
 * one bio and buffer_head per block (blockRead.c; the one-block steps are
 * declared below).
 */
u32 readBlocks(Backup *b, u32 startBN, u32 numBlocks, BackupVMA *bvma);
int waitForSubmitted(Backup *b, u32 startBN, u32 numBlocks);
void freeSubmitted(Backup *b, u32 numBlocks);
int isRequestSubmitted(Backup *b, u32 i);

/* Snapshot timings (snapshot.c). */
struct timespec calcTimeDiff(struct timespec *start, struct timespec *end);

/* Change tracking on the write path (kivAMRF.c). */
int kivAMRF(struct request_queue *q, struct bio *bio);
void updateAM(struct bio *bio, int bioMinor);

/* Copy-before-write interception of the running backup (kivMRF.c). */
int kivMRF(struct request_queue *q, struct bio *bio);
int doWeCacheBlock(Backup *b, u32 n);
void addMRToQueue(Backup *b, MakeRequest *mr);
MakeRequest *getTopMR(Backup *b);
void closeMR(MakeRequest *mr);

/* The cache thread "kbackupd" (cacheThread.c). */
int startWorkQueue(Backup *b);
int backup_cache(void *data);
void processMR(Backup *b, MakeRequest *mr);
void cacheBlock(Backup *b, MakeRequest *mr, u32 n);

/* Reading one block into a page by bio and buffer_head (blockRead.c). */
void initBH(Backup *b, struct buffer_head *bh, struct page *page,
	    unsigned long offset, u32 blockNum);
void initBIO(Backup *b, struct bio *bio, struct buffer_head *bh);
void kivBIOEndIO(struct bio *bio, int err);
void kivBHEndIO(struct buffer_head *bh, int uptodate);

#endif /* _KIV_26_H */
