/*
 * kivlib.h - the portable core of the corvalin driver: module load and
 * unload, the control device's file operations, the command dispatcher
 * and handlers, the backup's life cycle and statistics, and the change-
 * tracking session table.
 */
#ifndef _KIVLIB_H
#define _KIVLIB_H

#include <linux/types.h>
#include <linux/compiler.h>
#include <linux/fs.h>
#include <linux/mm.h>
#include <linux/poll.h>
#include <linux/blkdev.h>

#include "corvalin.h"
#include "stats.h"
#include "kiv-2.6.h"
#include "shim-2.6.h"
#include "globals.h"
#include "blockMap.h"
#include "queueList.h"

/* A 32-bit user address from a command record, as a user pointer. */
static inline void __user *kivUserPtr(u32 addr)
{
	return (void __user *)(unsigned long)addr;
}

/* Module lifecycle and the control device (kivlib.c). */
extern struct file_operations kivFileOps;
int kivInit(void);
void kivExit(void);
int kivUnload(void);
int kivShutdown(void);
void doModuleUnload(void);
int kivOpen(struct inode *inode, struct file *file);
int kivRelease(struct inode *inode, struct file *file);
ssize_t kivRead(struct file *file, char __user *buf, size_t count,
		loff_t *pos);
ssize_t kivWrite(struct file *file, const char __user *buf, size_t count,
		 loff_t *pos);
unsigned int kivPoll(struct file *file, struct poll_table_struct *wait);

/* Command dispatch and the small handlers (dispatch.c). */
int kivIOCTL(struct inode *inode, struct file *file, unsigned int cmd,
	     unsigned long arg);
int ioctlGetState(Backup *b, void __user *userState, u32 len);
int ioctlNoLoadFromAutoMap(Backup *b);
int ioctlNoStartAutoMap(Backup *b);

/* Handlers of the backup, snapshot, map and read commands. */
int ioctlStartBackup(Backup *b, dev_t kdev, u32 totalBlocks,
		     u32 maxCacheBlocks);
int ioctlSnapShot(Backup *b, void __user *userKey, u32 keyLen);
int ioctlSync(Backup *b);
int ioctlGetAutoMapState(Backup *b, void __user *userAMS, u32 amsLen);
int ioctlLoadBlockMap(Backup *b, struct UserBlockMap *userBM);
int ioctlGetAutoMap(Backup *b, struct UserBlockMap *userBM);
int ioctlGetDirtyBlock(Backup *b, u32 __user *userBlockNumPtr);
int ioctlReadBlocks(Backup *b, u32 startBlockNum, u32 numBlocks,
		    unsigned long data);

/* Backup close and its steps (backup.c). */
void closeBackup(Backup *b);
void handBackQueue(Backup *b);
void flushWorkQueue(Backup *b);
void waitForMRs(Backup *b);
void killWorkQueue(Backup *b);
void allocateBRCache(Backup *b);
void closeBRCache(Backup *b);
void closeBUBlockMap(Backup *b);
int newBUBlockMap(Backup *b, u32 size, void __user *data);
void closeCacheMap(Backup *b);
void closeBlockTable(Backup *b);
int newBlockTable(Backup *b);
int newCacheMap(Backup *b);

/* Block cache (cache.c). */
int saveBlock(Backup *b, const char *data, u32 blockNum);
int cacheRead(Backup *b, char *dest, u32 blockNum);
CachePage *locateBlockInList(CachePage *cp, u32 blockNum,
			     CachePage **prev);
int cleanUpCache(Backup *b);
void freeCachePage(Backup *b, CachePage *cp);
void closeList(Backup *b, CachePage *cp);
void closeCache(Backup *b);

/* Read requests and the read buffer (blockRead.c, readBuffer.c). */
int allocateBlockRequests(Backup *b);
void freeMMBRs(Backup *b);
void freeAllMMPages(Backup *b);
int getVMAPageCount(Backup *b);
int kivMMAP(struct file *file, struct vm_area_struct *vma);
void kivVMopen(struct vm_area_struct *vma);
void kivVMclose(struct vm_area_struct *vma);
int kivVMfault(struct vm_area_struct *vma, struct vm_fault *vmf);
struct page *kivVMnopage(struct vm_area_struct *vma, unsigned long address,
			 int *unused);
int findVMA(Backup *b, struct vm_area_struct *vma, BackupVMA **bvma);
int checkVMA(Backup *b, unsigned long start, BackupVMA **bvma);
int maxBVMAs(Backup *b, BackupVMA **bvma);
char *mmPageAddr(Backup *b, u32 i, BackupVMA *bvma);

/* The block read command's passes over the cache (readBlocks.c). */
u32 readFromCache(Backup *b, u32 startBlockNum, u32 numBlocks,
		  BackupVMA *bvma);
void readCheckCache(Backup *b, u32 startBlockNum, u32 numBlocks,
		    BackupVMA *bvma);

/* Statistics (stats.c). */
void setStats(Backup *b, struct Stats *stats);
void printStats(struct Stats *s);
int ioctlGetStats(Backup *b, void __user *userStats, u32 statsLen);

/* Change-tracking session table (autoMap.c). */
AutoMapSession **amSlot(dev_t kdev);
void enterAMListUsers(void);
void exitAMListUsers(void);
void waitForAMListUsers(unsigned long *flags);
void enterAMSUsers(AutoMapSession *ams);
void exitAMSUsers(AutoMapSession *ams);
void waitForAMSUsers(AutoMapSession *ams, unsigned long *flags);
void waitForAMSWrites(AutoMapSession *ams, unsigned long *flags);
void waitForAMSWritesAsUser(AutoMapSession *ams, unsigned long *flags);
AutoMapSession *getAMS(dev_t kdev);
int newAMS(Backup *b, AutoMapSession **amSession);
int closeAMS(Backup *b);
void closeAM(AutoMapSession *ams);
void closeAllAMS(void);
void unSetMRFAMS(AutoMapSession *ams);
void unSetMRFDEV(DiskInfo *diskInfo);
void errorAMS(Backup *b);
void errorAMSDEV(dev_t kdev);
int countQueueAMS(struct request_queue *q);
void unsetQueueMRFAMS(struct request_queue *q);

#endif /* _KIVLIB_H */
