// The emulated block layer's objects: bios, buffer heads, block devices
// and disks with their partitions.
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <memory>
#include <vector>

#include "test_emu_block_util.hpp"

using namespace blocktest;

namespace {

// ---------------------------------------------------------------------------
// bios

TEST(Bio, AllocationTakesTheVectorPoolOfTwoSixTwentySeven)
{
	const std::array<std::pair<int, unsigned>, 6> cases = {{
		{1, 1}, {2, 4}, {5, 16}, {17, 64}, {100, 128}, {256, 256}}};
	for (auto [asked, max_vecs] : cases) {
		struct bio *bio = bio_alloc(GFP_KERNEL, asked);
		ASSERT_NE(bio, nullptr) << asked;
		EXPECT_EQ(bio->bi_max_vecs, max_vecs) << asked;
		EXPECT_EQ(bvec_nr_vecs(BIO_POOL_IDX(bio)), max_vecs);
		EXPECT_NE(bio->bi_io_vec, nullptr);
		EXPECT_EQ(atomic_read(&bio->bi_cnt), 1);
		EXPECT_TRUE(bio_flagged(bio, BIO_UPTODATE));
		EXPECT_EQ(bio->bi_vcnt, 0);
		EXPECT_EQ(bio->bi_size, 0u);
		EXPECT_EQ(emu::usage().bios, 1);
		bio_put(bio);
		EXPECT_EQ(emu::usage().bios, 0);
	}
	struct bio *none = bio_alloc(GFP_KERNEL, 0);
	ASSERT_NE(none, nullptr);
	EXPECT_EQ(none->bi_io_vec, nullptr);
	EXPECT_EQ(none->bi_max_vecs, 0u);
	bio_put(none);
	EXPECT_EQ(bio_alloc(GFP_KERNEL, BIO_MAX_PAGES + 1), nullptr);
	EXPECT_EQ(emu::usage().bios, 0);
}

TEST(Bio, InjectedAllocationFailureReturnsNullAndAllocatesNothing)
{
	const unsigned long calls = emu::alloc_calls(emu::Alloc::Bio);
	{
		auto fail = emu::FailScope::nth(emu::Alloc::Bio, 2);
		struct bio *first = bio_alloc(GFP_NOIO, 1);
		ASSERT_NE(first, nullptr);
		EXPECT_EQ(bio_alloc(GFP_NOIO, 1), nullptr);
		EXPECT_EQ(emu::usage().bios, 1);
		struct bio *third = bio_alloc(GFP_NOIO, 1);
		ASSERT_NE(third, nullptr);
		bio_put(first);
		bio_put(third);
	}
	EXPECT_EQ(emu::alloc_calls(emu::Alloc::Bio), calls + 3);
	EXPECT_EQ(emu::usage().bios, 0);
}

TEST(Bio, LastPutFreesAndLeaksNameTheAllocatingLine)
{
	struct bio *bio = bio_alloc(GFP_KERNEL, 1);
	const int line = __LINE__ - 1;
	bio_get(bio);
	EXPECT_EQ(atomic_read(&bio->bi_cnt), 2);
	bio_put(bio);
	EXPECT_EQ(emu::usage().bios, 1);
	const auto leaks = emu::leaks();
	ASSERT_EQ(leaks.size(), 1u);
	EXPECT_NE(leaks[0].find("test_emu_block.cpp:" + std::to_string(line)),
		  std::string::npos)
		<< leaks[0];
	bio_put(bio);
	EXPECT_EQ(emu::usage().bios, 0);
	EXPECT_TRUE(emu::leaks().empty());
}

TEST(BioDeathTest, PutOnceTooOftenIsFatal)
{
	EXPECT_DEATH(
		([] {
			struct bio *bio = bio_alloc(GFP_KERNEL, 1);
			bio_put(bio);
			bio_put(bio);
		}()),
		"bio_put");
}

TEST(Bio, EndioWithAnErrorClearsUptodate)
{
	Endings endings;
	BioTag tag{&endings, 1};
	struct bio *bio = bio_alloc(GFP_KERNEL, 1);
	bio->bi_end_io = record_end_io;
	bio->bi_private = &tag;
	bio_endio(bio, -EIO);
	const auto e = endings.wait(1);
	EXPECT_EQ(e[0].error, -EIO);
	EXPECT_FALSE(e[0].uptodate);
}

TEST(Bio, EndioWithoutErrorOnANotUptodateBioReportsEio)
{
	Endings endings;
	BioTag ok{&endings, 1}, cleared{&endings, 2};
	struct bio *good = bio_alloc(GFP_KERNEL, 1);
	good->bi_end_io = record_end_io;
	good->bi_private = &ok;
	bio_endio(good, 0);
	struct bio *bad = bio_alloc(GFP_KERNEL, 1);
	bad->bi_end_io = record_end_io;
	bad->bi_private = &cleared;
	clear_bit(BIO_UPTODATE, &bad->bi_flags);
	bio_endio(bad, 0);
	const auto e = endings.wait(2);
	EXPECT_EQ(e[0].error, 0);
	EXPECT_TRUE(e[0].uptodate);
	EXPECT_EQ(e[1].error, -EIO);
	EXPECT_FALSE(e[1].uptodate);
}

TEST(Bio, RwBitsAndSizesAreThoseOfTwoSixTwentySeven)
{
	EXPECT_EQ(READ, 0);
	EXPECT_EQ(WRITE, 1);
	EXPECT_EQ(READA, 2);
	EXPECT_EQ(BIO_UPTODATE, 0);
	EXPECT_EQ(BIO_EOPNOTSUPP, 7);
	EXPECT_EQ(WRITE_BARRIER, 5);
	struct bio *bio = bio_alloc(GFP_KERNEL, 1);
	bio->bi_rw = WRITE | (1 << BIO_RW_SYNC);
	bio->bi_size = 4096;
	EXPECT_EQ(bio_data_dir(bio), static_cast<unsigned long>(WRITE));
	EXPECT_EQ(bio_sectors(bio), 8u);
	EXPECT_TRUE(bio_sync(bio));
	bio_put(bio);
}

// ---------------------------------------------------------------------------
// buffer heads

TEST(BufferHead, AllocationIsZeroedAccountedAndFailable)
{
	struct buffer_head *bh = alloc_buffer_head(GFP_NOIO);
	ASSERT_NE(bh, nullptr);
	EXPECT_EQ(bh->b_state, 0u);
	EXPECT_EQ(atomic_read(&bh->b_count), 0);
	EXPECT_TRUE(list_empty(&bh->b_assoc_buffers));
	EXPECT_EQ(emu::usage().buffer_heads, 1);
	{
		auto fail = emu::FailScope::nth(emu::Alloc::BufferHead, 1);
		EXPECT_EQ(alloc_buffer_head(GFP_NOIO), nullptr);
	}
	EXPECT_EQ(emu::usage().buffer_heads, 1);
	free_buffer_head(bh);
	EXPECT_EQ(emu::usage().buffer_heads, 0);
}

TEST(BufferHead, StateBitsHaveTheirTwoSixTwentySevenNumbers)
{
	EXPECT_EQ(BH_Uptodate, 0);
	EXPECT_EQ(BH_Dirty, 1);
	EXPECT_EQ(BH_Lock, 2);
	EXPECT_EQ(BH_Req, 3);
	EXPECT_EQ(BH_Mapped, 5);
	EXPECT_EQ(BH_Eopnotsupp, 13);
	struct buffer_head *bh = alloc_buffer_head(GFP_NOIO);
	set_buffer_mapped(bh);
	set_buffer_req(bh);
	EXPECT_EQ(bh->b_state, (1ul << BH_Mapped) | (1ul << BH_Req));
	EXPECT_TRUE(buffer_mapped(bh));
	EXPECT_FALSE(buffer_uptodate(bh));
	EXPECT_TRUE(test_clear_buffer_req(bh));
	EXPECT_FALSE(buffer_req(bh));
	get_bh(bh);
	EXPECT_EQ(atomic_read(&bh->b_count), 1);
	put_bh(bh);
	EXPECT_EQ(atomic_read(&bh->b_count), 0);
	free_buffer_head(bh);
}

TEST(BufferHead, SetBhPageKeepsTheOffsetOnHighMemory)
{
	Page low(GFP_KERNEL), high(GFP_HIGHUSER);
	struct buffer_head *bh = alloc_buffer_head(GFP_NOIO);
	set_bh_page(bh, low.get(), 1024);
	EXPECT_EQ(bh->b_page, low.get());
	EXPECT_EQ(bh->b_data,
		  static_cast<char *>(page_address(low.get())) + 1024);
	EXPECT_EQ(bh_offset(bh), 1024u);
	set_bh_page(bh, high.get(), 2048);
	EXPECT_EQ(reinterpret_cast<unsigned long>(bh->b_data), 2048u);
	EXPECT_EQ(bh_offset(bh), 2048u);
	free_buffer_head(bh);
}

TEST(BufferHeadDeathTest, FreeingTwiceIsFatal)
{
	EXPECT_DEATH(
		([] {
			struct buffer_head *bh = alloc_buffer_head(GFP_NOIO);
			free_buffer_head(bh);
			free_buffer_head(bh);
		}()),
		"free_buffer_head");
}

TEST(BufferHead, UnlockWakesConcurrentWaiters)
{
	struct buffer_head *bh = alloc_buffer_head(GFP_NOIO);
	get_bh(bh);
	lock_buffer(bh);
	ASSERT_TRUE(buffer_locked(bh));
	std::atomic<int> woken{0};
	std::atomic<bool> unlocked{false};
	std::vector<std::jthread> waiters;
	for (int i = 0; i < 3; i++)
		waiters.emplace_back([&] {
			wait_on_buffer(bh);
			EXPECT_TRUE(unlocked.load());
			woken++;
		});
	// Another locker waits its turn behind the holder.
	std::jthread locker([&] {
		lock_buffer(bh);
		EXPECT_TRUE(unlocked.load());
		woken++;
		unlock_buffer(bh);
	});
	EXPECT_EQ(woken.load(), 0);
	unlocked = true;
	unlock_buffer(bh);
	waiters.clear();
	locker.join();
	EXPECT_EQ(woken.load(), 4);
	EXPECT_FALSE(buffer_locked(bh));
	put_bh(bh);
	free_buffer_head(bh);
}

TEST(BufferHeadDeathTest, WaitingUnderASpinLockIsFatal)
{
	EXPECT_DEATH(
		([] {
			DEFINE_SPINLOCK(lock);
			struct buffer_head *bh = alloc_buffer_head(GFP_NOIO);
			get_bh(bh);
			spin_lock(&lock);
			wait_on_buffer(bh);
		}()),
		"test_emu_block.cpp");
}

// ---------------------------------------------------------------------------
// block devices and disks

TEST(Bdget, UnknownDeviceStillYieldsABlockDeviceWithoutDisk)
{
	struct block_device *a = bdget(MKDEV(250, 3));
	ASSERT_NE(a, nullptr);
	EXPECT_EQ(a->bd_dev, MKDEV(250, 3));
	EXPECT_EQ(a->bd_disk, nullptr);
	EXPECT_EQ(a->bd_contains, nullptr);
	EXPECT_EQ(a->bd_part, nullptr);
	EXPECT_EQ(a->bd_openers, 0);
	EXPECT_EQ(bdget(MKDEV(250, 3)), a);
	EXPECT_NE(bdget(MKDEV(250, 4)), a);
	bdput(a);
	bdput(a);
	char name[BDEVNAME_SIZE];
	EXPECT_STREQ(__bdevname(MKDEV(250, 3), name), "unknown-block(250,3)");
}

TEST(Bdget, MakingANewBlockDeviceIsASlabAllocationThatCanFail)
{
	// A minor no earlier run of this process asked for.
	static unsigned next_minor = 100;
	const dev_t fresh = MKDEV(250, next_minor++);
	struct block_device *known = bdget(MKDEV(250, 8));
	ASSERT_NE(known, nullptr);
	const unsigned long calls = emu::alloc_calls(emu::Alloc::Slab);
	{
		auto fail = emu::FailScope::after(emu::Alloc::Slab, 0);
		EXPECT_EQ(bdget(fresh), nullptr);
		// A device already known needs no allocation.
		EXPECT_EQ(bdget(MKDEV(250, 8)), known);
	}
	EXPECT_EQ(emu::alloc_calls(emu::Alloc::Slab), calls + 1);
	struct block_device *late = bdget(fresh);
	ASSERT_NE(late, nullptr);
	EXPECT_EQ(late->bd_dev, fresh);
}

TEST(Bdget, MountedPartitionIsOpenWithItsWholeDisk)
{
	emu::Disk disk(disk_config(16, 10000, "sdb"));
	ASSERT_EQ(disk.add_partition(1, 63, 5000), 0);
	ASSERT_EQ(disk.add_partition(2, 5063, 4000), 0);
	EXPECT_EQ(disk.add_partition(1, 63, 10), -EBUSY);
	EXPECT_EQ(disk.add_partition(16, 0, 10), -EINVAL);
	struct gendisk *gd = disk.gendisk();
	EXPECT_EQ(gd->major, 8);
	EXPECT_EQ(gd->first_minor, 16);
	EXPECT_EQ(gd->minors, 16);
	EXPECT_EQ(get_capacity(gd), 10000u);
	EXPECT_EQ(gd->part[0]->start_sect, 63u);
	EXPECT_EQ(gd->part[0]->nr_sects, 5000u);
	EXPECT_EQ(gd->part[0]->partno, 1);
	EXPECT_EQ(gd->part[2], nullptr);

	struct block_device *part = disk.bdev(1);
	struct block_device *whole = disk.bdev(0);
	EXPECT_EQ(part->bd_disk, nullptr);
	{
		emu::FileSystem fs(disk, 1, 4096);
		EXPECT_EQ(fs.bdev(), part);
		EXPECT_EQ(part->bd_disk, gd);
		EXPECT_EQ(part->bd_contains, whole);
		EXPECT_EQ(part->bd_part, gd->part[0]);
		EXPECT_EQ(get_start_sect(part), 63u);
		EXPECT_EQ(whole->bd_contains, whole);
		EXPECT_EQ(whole->bd_disk, gd);
		EXPECT_EQ(whole->bd_part_count, 1u);
		EXPECT_EQ(bdev_get_queue(part), disk.queue());
		EXPECT_EQ(part->bd_block_size, 4096u);
		char name[BDEVNAME_SIZE];
		EXPECT_STREQ(bdevname(part, name), "sdb1");
		EXPECT_STREQ(bdevname(whole, name), "sdb");
		EXPECT_EQ(fs.blocks(), 5000u * 512 / 4096);
	}
	EXPECT_EQ(part->bd_disk, nullptr);
	EXPECT_EQ(part->bd_contains, nullptr);
	EXPECT_EQ(part->bd_part, nullptr);
	EXPECT_EQ(whole->bd_disk, nullptr);
	EXPECT_EQ(whole->bd_part_count, 0u);
}

TEST(Bdget, PartitionNamesFollowTheDiskName)
{
	emu::DiskConfig c = disk_config(16, 100, "loop0");
	c.major = 7;
	emu::Disk disk(c);
	char name[BDEVNAME_SIZE];
	EXPECT_STREQ(disk_name(disk.gendisk(), 0, name), "loop0");
	EXPECT_STREQ(disk_name(disk.gendisk(), 3, name), "loop0p3");
	int part = -1;
	struct gendisk *gd = get_gendisk(MKDEV(7, 18), &part);
	EXPECT_EQ(gd, disk.gendisk());
	EXPECT_EQ(part, 2);
	put_disk(gd);
	EXPECT_EQ(get_gendisk(MKDEV(7, 32), &part), nullptr);
}

TEST(Bdget, BlockSizeFollowsTheDeviceAndTheRules)
{
	emu::Disk disk(disk_config(16, 1000, "sdb"));
	ASSERT_EQ(disk.add_partition(1, 63, 900), 0);
	emu::FileSystem fs(disk, 1, 1024);
	struct block_device *bdev = fs.bdev();
	// 900 sectors: the largest power of two up to a page dividing it.
	EXPECT_EQ(bdev->bd_block_size, 2048u);
	EXPECT_EQ(set_blocksize(bdev, 1024), 0);
	EXPECT_EQ(bdev->bd_block_size, 1024u);
	EXPECT_EQ(set_blocksize(bdev, 256), -EINVAL);
	EXPECT_EQ(set_blocksize(bdev, 8192), -EINVAL);
	EXPECT_EQ(set_blocksize(bdev, 1536), -EINVAL);
	EXPECT_EQ(sb_set_blocksize(fs.sb(), 4096), 4096);
	EXPECT_EQ(fs.sb()->s_blocksize, 4096u);
	EXPECT_EQ(fs.sb()->s_blocksize_bits, 12);
	EXPECT_EQ(sb_set_blocksize(fs.sb(), 100), 0);
	EXPECT_EQ(fs.sb()->s_blocksize, 4096u);
}

TEST(BdgetDeathTest, DeletingAMountedPartitionIsFatal)
{
	EXPECT_DEATH(([] {
		emu::Disk disk(disk_config(16, 1000, "sdb"));
		EXPECT_EQ(disk.add_partition(1, 63, 900), 0);
		emu::FileSystem fs(disk, 1, 1024);
		disk.delete_partition(1);
	}()),
		"delete_partition of a partition that is open");
}

// ---------------------------------------------------------------------------
// bio vectors and buffer-head I/O

TEST(BioVectors, AddPageMergesAdjacentPiecesAndHonoursTheQueueLimits)
{
	emu::Disk disk(disk_config(16, 10000, "sdb"));
	emu::FileSystem fs(disk, 0, 4096);
	Page a, b;
	struct bio *bio = bio_alloc(GFP_KERNEL, 4);
	bio->bi_bdev = fs.bdev();
	EXPECT_EQ(bio_add_page(bio, a.get(), 1024, 0), 1024);
	EXPECT_EQ(bio_add_page(bio, a.get(), 1024, 1024), 1024);
	EXPECT_EQ(bio->bi_vcnt, 1);  // merged into the first vector
	EXPECT_EQ(bio->bi_io_vec[0].bv_len, 2048u);
	EXPECT_EQ(bio_add_page(bio, b.get(), 4096, 0), 4096);
	EXPECT_EQ(bio->bi_vcnt, 2);
	EXPECT_EQ(bio->bi_size, 6144u);
	EXPECT_EQ(bio_add_page(bio, b.get(), 512, 0), 512);
	EXPECT_EQ(bio_add_page(bio, a.get(), 512, 3072), 512);
	EXPECT_EQ(bio->bi_vcnt, 4);
	EXPECT_EQ(bio_add_page(bio, b.get(), 512, 1024), 0);  // no room
	bio_put(bio);

	// SAFE_MAX_SECTORS: 255 sectors, so the 32nd page does not fit.
	std::vector<std::unique_ptr<Page>> pages;
	struct bio *big = bio_alloc(GFP_KERNEL, 64);
	big->bi_bdev = fs.bdev();
	int added = 0;
	for (int i = 0; i < 40; i++) {
		pages.push_back(std::make_unique<Page>());
		if (bio_add_page(big, pages.back()->get(), 4096, 0) != 4096)
			break;
		added++;
	}
	EXPECT_EQ(added, 31);
	EXPECT_EQ(bio_get_nr_vecs(fs.bdev()), 32);
	bio_put(big);
}

TEST(BioVectors, ZeroFillClearsEveryVector)
{
	Page a, b;
	a.fill(0xff);
	b.fill(0xff);
	struct bio *bio = bio_alloc(GFP_KERNEL, 2);
	bio->bi_io_vec[0] = {a.get(), 512, 512};
	bio->bi_io_vec[1] = {b.get(), 1024, 0};
	bio->bi_vcnt = 2;
	bio->bi_size = 1536;
	zero_fill_bio(bio);
	const auto pa = a.bytes();
	EXPECT_EQ(std::count(pa.begin(), pa.end(), std::byte{0}), 512);
	EXPECT_EQ(pa[511], std::byte{0xff});
	EXPECT_EQ(pa[512], std::byte{0});
	EXPECT_EQ(b.bytes(0, 1024), pattern(1024, 0));
	EXPECT_EQ(b.bytes(1024, 1), pattern(1, 0xff));
	bio_put(bio);
}

// The completion unlocks the buffer (waking wait_on_buffer) before it
// drops the I/O's reference and the bio: wait for all of it to be over
// before the buffer head may go.
void io_done(struct buffer_head *bh)
{
	while (atomic_read(&bh->b_count) != 1 || emu::usage().bios != 0)
		std::this_thread::yield();
}

// submit_bh of the locked buffer with a reference for the I/O, as
// ll_rw_block does; returns once the I/O is entirely over.
void submit_bh_and_wait(int rw, struct buffer_head *bh, bh_end_io_t *end_io)
{
	lock_buffer(bh);
	get_bh(bh);
	bh->b_end_io = end_io;
	EXPECT_EQ(submit_bh(rw, bh), 0);
	wait_on_buffer(bh);
	io_done(bh);
}

TEST(BufferHeadIo, SubmitBhReadsAndWritesOneBlockSynchronously)
{
	emu::Disk disk(disk_config(16, 10000, "sdb", 2));
	ASSERT_EQ(disk.add_partition(1, 100, 8000), 0);
	emu::FileSystem fs(disk, 1, 1024);
	disk.write(100 + 2 * 5, pattern(1024, 0x5e));
	Page page;
	struct buffer_head *bh = alloc_buffer_head(GFP_NOIO);
	set_bh_page(bh, page.get(), 1024);
	bh->b_bdev = fs.bdev();
	bh->b_blocknr = 5;
	bh->b_size = 1024;
	set_buffer_mapped(bh);
	get_bh(bh);  // the test's own reference, so it may free the bh
	submit_bh_and_wait(READ, bh, end_buffer_read_sync);
	EXPECT_TRUE(buffer_uptodate(bh));
	EXPECT_TRUE(buffer_req(bh));
	EXPECT_EQ(atomic_read(&bh->b_count), 1);
	EXPECT_EQ(page.bytes(1024, 1024), pattern(1024, 0x5e));

	page.fill(0x6f);
	bh->b_blocknr = 6;
	submit_bh_and_wait(WRITE, bh, end_buffer_write_sync);
	EXPECT_TRUE(buffer_uptodate(bh));
	std::vector<std::byte> back(1024);
	disk.read(100 + 2 * 6, back);
	EXPECT_EQ(back, pattern(1024, 0x6f));

	// A failed write is reported the way fs/buffer.c reports it.
	emu::log_clear();
	disk.fail_sectors(100 + 2 * 7, 2, -EIO, emu::Dir::Write);
	bh->b_blocknr = 7;
	submit_bh_and_wait(WRITE, bh, end_buffer_write_sync);
	EXPECT_FALSE(buffer_uptodate(bh));
	EXPECT_TRUE(buffer_write_io_error(bh));
	ExpectLog({"<3>end_request: I/O error, dev sdb, sector 114",
		   "<4>lost page write due to I/O error on sdb1"});
	put_bh(bh);
	free_buffer_head(bh);
	EXPECT_EQ(emu::usage().bios, 0);
}

}  // namespace
