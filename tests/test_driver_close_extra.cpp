// Closing a file's Backup record (core/backup.c, core/cache.c,
// core/stats.c): a record that got past state 0 has everything it holds
// freed in reverse order of creation (read-buffer pages, read-request
// table, cached blocks and their caches, both maps, the bucket table and
// its cache), its statistics printed as they stand after the teardown,
// and its end reported.  The records are built by hand, as a start would
// leave them.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "emu/emu.hpp"
#include "support.hpp"
#include "test_driver_util.hpp"

#include <linux/gfp.h>
#include <linux/mm.h>
#include <linux/slab.h>
#include <linux/string.h>
#include <linux/vmalloc.h>

namespace {

const std::string kNullQueueLines[] = {
	"<3>countQueueAMS: Could not count ams sessions for request queue "
	"because queue was null.",
	"<3>unsetQueueMRFAMS: Could not unset MRFS for request queue because "
	"queue was null.",
};

// What the close of a record that left state 0 but never hooked a queue
// logs: the hand-back finds no queue, then the statistics (`stats`, one
// line each) and the end of the backup on device `device` ("major=8
// minor=1").
std::vector<std::string> close_log(const std::vector<std::string> &stats,
				   const std::string &device)
{
	std::vector<std::string> out(std::begin(kNullQueueLines),
				     std::end(kNullQueueLines));
	for (const std::string &s : stats)
		out.push_back("<6>printStats: " + s);
	out.push_back("<6>closeBackup: backup finished device " + device);
	return out;
}

class CloseRecord : public test::OpenFile {
protected:
	// What a start on partition 8:1 (4096-byte blocks, 100 blocks, a
	// cache of at most 10 blocks) would have built, plus one cached
	// block (42), a loaded block map and a two-page read buffer.
	void build_started_record()
	{
		int pages = 0;
		b_->diskInfo.kdev = KIV_MKDEV(8, 1);
		b_->diskInfo.blockSize = 4096;
		b_->diskInfo.blocksPerPage = 1;
		b_->diskInfo.partitionStart = 63;
		b_->diskInfo.partitionSizeKB = 500000;
		b_->diskInfo.numBlocks = 100;
		b_->maxVMPages = 256;
		b_->maxCacheBlocks = 10;

		ASSERT_EQ(newBlockMap(&b_->cacheMap, 100, nullptr, 1, &pages), 0);
		atomic_add(pages, &b_->totalAllocPages);
		atomic_add(pages, &b_->curAllocPages);
		ASSERT_EQ(newBlockMap(&b_->blockMap, 100, nullptr, 0, &pages), 0);
		atomic_add(pages, &b_->totalAllocPages);
		atomic_add(pages, &b_->curAllocPages);

		b_->htCache = kmem_cache_create(
			"kivHT0801", sizeof(HashTable), 0, SLAB_HWCACHE_ALIGN,
			nullptr);
		ASSERT_NE(b_->htCache, nullptr);
		b_->blockTable = static_cast<HashTable **>(
			vmalloc(KIV_HASH_BUCKETS * sizeof(HashTable *)));
		ASSERT_NE(b_->blockTable, nullptr);
		std::memset(b_->blockTable, 0,
			    KIV_HASH_BUCKETS * sizeof(HashTable *));
		for (int i = 0; i < KIV_HASH_BUCKETS; i++) {
			HashTable *ht = static_cast<HashTable *>(
				kmem_cache_alloc(b_->htCache, GFP_KERNEL));
			ASSERT_NE(ht, nullptr);
			ht->busy = nullptr;
			sema_init(&ht->sem, 1);
			b_->blockTable[i] = ht;
		}

		b_->cpCache = kmem_cache_create("kivCP0801", sizeof(CachePage), 0,
						SLAB_HWCACHE_ALIGN, nullptr);
		b_->dataCache = kmem_cache_create("kivDC0801", 4096, 0,
						  SLAB_HWCACHE_ALIGN, nullptr);
		ASSERT_NE(b_->cpCache, nullptr);
		ASSERT_NE(b_->dataCache, nullptr);
		CachePage *cp = static_cast<CachePage *>(
			kmem_cache_alloc(b_->cpCache, GFP_NOIO));
		ASSERT_NE(cp, nullptr);
		cp->next = nullptr;
		cp->blockNum = 42;
		cp->data = static_cast<char *>(
			kmem_cache_alloc(b_->dataCache, GFP_NOIO));
		ASSERT_NE(cp->data, nullptr);
		b_->blockTable[42]->busy = cp;
		ASSERT_EQ(setBlock(&b_->cacheMap, 42), 0);
		atomic_set(&b_->curAllocCPs, 1);
		atomic_set(&b_->totalAllocCPs, 1);
		atomic_set(&b_->peakAllocCPs, 1);
		atomic_set(&b_->curCBs, 1);
		atomic_set(&b_->totalCBs, 1);

		b_->mmBIORequests = static_cast<BIORequest **>(
			vmalloc(256 * sizeof(BIORequest *)));
		ASSERT_NE(b_->mmBIORequests, nullptr);
		std::memset(b_->mmBIORequests, 0, 256 * sizeof(BIORequest *));

		b_->vmAreas[1].vmPages = 2;
		for (int j = 0; j < 2; j++) {
			b_->vmAreas[1].mmPages[j] = alloc_pages(GFP_KERNEL, 0);
			ASSERT_NE(b_->vmAreas[1].mmPages[j], nullptr);
		}
		atomic_add(2, &b_->totalAllocPages);
		atomic_add(2, &b_->curAllocPages);

		setBackupState(b_, BU_STATE_STARTED);
	}

};

TEST_F(CloseRecord, IdleRecordCloseLogsNothing)
{
	EXPECT_EQ(proc->close(fd_), 0);
	ExpectLog({});
}

TEST_F(CloseRecord, RefusedRecordReportsNoQueueItsStatisticsAndItsEnd)
{
	setBackupState(b_, BU_STATE_REFUSED);
	EXPECT_EQ(proc->ioctl(fd_, KIV_IOC_COMMAND_16, 0), KIV_ERR_REFUSED);
	atomic_set(&busy, 1);
	EXPECT_EQ(proc->close(fd_), 0);
	EXPECT_EQ(atomic_read(&busy), 1);
	atomic_set(&busy, 0);

	ExpectLog(close_log({
		     "device: major(0) minor(0)",
		     "state: 12",
		     "block size: 0",
		     "partition size (KB): 0",
		     "file system size (blocks): 0",
		     "pages allocated for write journal: 0",
		     "max cache size in blocks: 0",
		     "total pages allocated: 0",
		     "current pages allocated: 0",
		     "total Block Requests allocated: 0",
		     "current Block Requests allocated: 0",
		     "total cached blocks: 0",
		     "current cached blocks: 0",
		     "peak cached blocks: 0",
		     "total block cache data structures: 0",
		     "current block cache data structures: 0",
		     "total reads from disk: 0",
		     "total reads from cache: 0",
		     "blocks cleaned from cache: 0",
		     "partition start (sector): 0",
		     "blocks per page: 0",
		     "max buffer size in pages: 0",
		     "buffer pages allocated: 0",
		     "commands processed: 1",
		     "time to freeze in seconds: 0.000000000",
		     "time frozen in seconds: 0.000000000",
	}, "major=0 minor=0"));
}

TEST_F(CloseRecord, StartedRecordIsTornDownAndReportedAfterTheTeardown)
{
	build_started_record();
	const emu::Usage held = emu::usage();
	EXPECT_GT(held.pages, 0);

	EXPECT_EQ(proc->close(fd_), 0);

	ExpectLog(close_log({
		     "device: major(8) minor(1)",
		     // Statistics are taken after the move to closing.
		     "state: 7",
		     "block size: 4096",
		     "partition size (KB): 500000",
		     "file system size (blocks): 100",
		     "pages allocated for write journal: 0",
		     "max cache size in blocks: 10",
		     "total pages allocated: 4",
		     "current pages allocated: 0",
		     "total Block Requests allocated: 0",
		     "current Block Requests allocated: 0",
		     "total cached blocks: 1",
		     "current cached blocks: 0",
		     "peak cached blocks: 1",
		     "total block cache data structures: 1",
		     "current block cache data structures: 0",
		     "total reads from disk: 0",
		     "total reads from cache: 0",
		     "blocks cleaned from cache: 0",
		     "partition start (sector): 63",
		     "blocks per page: 1",
		     "max buffer size in pages: 256",
		     "buffer pages allocated: 0",
		     "commands processed: 0",
		     "time to freeze in seconds: 0.000000000",
		     "time frozen in seconds: 0.000000000",
	}, "major=8 minor=1"));
	// The fixture's end-of-test check finds nothing left: every page,
	// slab object and cache, and both vmalloc'ed tables were freed.
}

// Without memory for the statistics record nothing is printed of them, but
// the end is still reported and everything is freed all the same.
TEST_F(CloseRecord, StatisticsWithoutMemoryStillReportTheEnd)
{
	build_started_record();
	{
		auto fail = emu::FailScope::nth(emu::Alloc::Kmalloc, 1);
		EXPECT_EQ(proc->close(fd_), 0);
	}
	ExpectLog(close_log({}, "major=8 minor=1"));
	EXPECT_EQ(atomic_read(&busy), 0);
}

TEST_F(CloseRecord, StatisticsRecordIsCutToTheAskedLength)
{
	build_started_record();
	const emu::uaddr dst = page_;
	std::vector<unsigned char> fill(256, 0xA5);
	ASSERT_TRUE(proc->poke(dst, fill.data(), fill.size()));

	int rc = -1;
	proc->run_as([&] {
		rc = ioctlGetStats(b_, support::user_ptr(dst), 24);
	});
	EXPECT_EQ(rc, 0);
	std::vector<unsigned char> got(256);
	ASSERT_TRUE(proc->peek(dst, got.data(), got.size()));
	const std::uint32_t want[6] = {0, 0, 0, 8, 1, BU_STATE_STARTED};
	EXPECT_EQ(std::memcmp(got.data(), want, sizeof want), 0);
	for (std::size_t i = 24; i < got.size(); i++)
		ASSERT_EQ(got[i], 0xA5) << "byte " << i;

	proc->run_as([&] {
		rc = ioctlGetStats(b_,
				   support::user_ptr(proc->unmapped_address()),
				   128);
	});
	EXPECT_EQ(rc, 7);
	ExpectLog({"<3>ioctlGetStats: copy to user space failed"});

	EXPECT_EQ(proc->close(fd_), 0);
	emu::log_clear();
}

}  // namespace
