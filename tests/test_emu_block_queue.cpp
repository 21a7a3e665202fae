// The emulated block layer's way into a queue: submit_bio and
// generic_make_request, with the end-of-device check, the partition
// remapping, resubmission and the recursion avoidance of 2.6.27.
#include <memory>
#include <string>
#include <vector>

#include "test_emu_block_util.hpp"

using namespace blocktest;

namespace {

// ---------------------------------------------------------------------------
// generic_make_request

class Queue : public DiskTest {
protected:
	void SetUp() override
	{
		disk_ = std::make_unique<emu::Disk>(disk_config(16, 20000, "sdb"));
		ASSERT_EQ(disk_->add_partition(1, 63, 8000), 0);
		ASSERT_EQ(disk_->add_partition(2, 8063, 8000), 0);
		mount_fs(1, 4096);
	}
};

TEST_F(Queue, PartitionBioReachesTheQueueRemappedToTheWholeDisk)
{
	Hook hook(disk_->queue());
	std::vector<emu::DiskRequest> at_disk;
	disk_->set_observer([&](const emu::DiskRequest &r) {
		at_disk.push_back(r);
	});
	Endings endings;
	BioTag tag{&endings, 1};
	Page page;
	submit_bio(READ, make_bio(fs_->bdev(), 16, page.get(), 4096, &tag));
	const auto e = endings.wait(1);
	EXPECT_EQ(e[0].error, 0);
	const auto seen = hook.seen();
	ASSERT_EQ(seen.size(), 1u);
	EXPECT_EQ(seen[0].dev, disk_->dev(0));
	EXPECT_EQ(seen[0].sector, 16u + 63u);
	EXPECT_EQ(seen[0].size, 4096u);
	ASSERT_EQ(at_disk.size(), 1u);
	EXPECT_EQ(at_disk[0].sector, 79u);
	EXPECT_EQ(at_disk[0].dev, disk_->dev(0));
	EXPECT_EQ(disk_->requests(), 1u);
	disk_->set_observer({});
}

TEST_F(Queue, BioForTheWholeDiskIsNotRemapped)
{
	Hook hook(disk_->queue());
	Endings endings;
	BioTag tag{&endings, 1};
	Page page;
	submit_bio(READ, make_bio(fs_->bdev()->bd_contains, 16, page.get(),
				  512, &tag));
	endings.wait(1);
	const auto seen = hook.seen();
	ASSERT_EQ(seen.size(), 1u);
	EXPECT_EQ(seen[0].sector, 16u);
}

TEST_F(Queue, NonZeroFromTheMakeRequestFunctionResubmitsTheBio)
{
	Hook hook(disk_->queue());
	int returned_one = 0;
	hook.set([&](struct request_queue *q, struct bio *bio) {
		if (returned_one++ == 0)
			return 1;
		return hook.pass(q, bio);
	});
	Endings endings;
	BioTag tag{&endings, 1};
	Page page;
	submit_bio(WRITE, make_bio(fs_->bdev(), 8, page.get(), 4096, &tag));
	endings.wait(1);
	const auto seen = hook.seen();
	ASSERT_EQ(seen.size(), 2u);
	// The bio was remapped once: the second pass sees the same sector.
	EXPECT_EQ(seen[0].sector, 71u);
	EXPECT_EQ(seen[1].sector, 71u);
	EXPECT_EQ(disk_->requests(), 1u);
}

TEST_F(Queue, StackedDriverRedirectsABioToAnotherDiskByReturningNonZero)
{
	emu::Disk other(disk_config(32, 1000, "sdc"));
	emu::FileSystem other_fs(other, 0, 1024);
	Hook hook(disk_->queue());
	hook.set([&](struct request_queue *, struct bio *bio) {
		bio->bi_bdev = other_fs.bdev();
		bio->bi_sector = 7;
		return 1;
	});
	Endings endings;
	BioTag tag{&endings, 1};
	Page page;
	page.fill(0x5a);
	submit_bio(WRITE, make_bio(fs_->bdev(), 8, page.get(), 512, &tag));
	EXPECT_EQ(endings.wait(1)[0].error, 0);
	other.drain();
	EXPECT_EQ(disk_->requests(), 0u);
	EXPECT_EQ(other.requests(), 1u);
	std::vector<std::byte> sector(512);
	other.read(7, sector);
	EXPECT_EQ(sector, pattern(512, 0x5a));
}

TEST_F(Queue, BioSubmittedInsideAMakeRequestFunctionIsQueuedNotNested)
{
	Hook hook(disk_->queue());
	Endings endings;
	BioTag first{&endings, 1}, second{&endings, 2};
	Page page1, page2;
	hook.set([&](struct request_queue *q, struct bio *bio) {
		if (bio->bi_private == &first)
			generic_make_request(make_bio(fs_->bdev(), 0,
						      page2.get(), 512,
						      &second));
		// The inner bio is not there yet: it waits on bio_list.
		EXPECT_EQ(hook.calls(), bio->bi_private == &first ? 1 : 2);
		return hook.pass(q, bio);
	});
	generic_make_request(make_bio(fs_->bdev(), 8, page1.get(), 512, &first));
	endings.wait(2);
	EXPECT_EQ(hook.calls(), 2);
	EXPECT_EQ(hook.max_depth(), 1);
	const auto seen = hook.seen();
	ASSERT_EQ(seen.size(), 2u);
	EXPECT_EQ(seen[0].sector, 71u);
	EXPECT_EQ(seen[1].sector, 63u);
	EXPECT_EQ(current->bio_tail, nullptr);
	EXPECT_EQ(current->bio_list, nullptr);
}

TEST_F(Queue, BioBeyondTheEndOfThePartitionFailsWithTheKernelsMessage)
{
	Hook hook(disk_->queue());
	Endings endings;
	BioTag tag{&endings, 1};
	Page page;
	struct bio *bio = make_bio(fs_->bdev(), 7996, page.get(), 4096, &tag);
	bio_get(bio);
	submit_bio(READ, bio);
	const auto e = endings.wait(1);
	EXPECT_EQ(e[0].error, -EIO);
	EXPECT_FALSE(e[0].uptodate);
	EXPECT_TRUE(bio_flagged(bio, BIO_EOF));
	bio_put(bio);
	EXPECT_EQ(hook.calls(), 0);
	ExpectLog({"<6>attempt to access beyond end of device",
		   "<6>sdb1: rw=0, want=8004, limit=8000"});
}

TEST_F(Queue, ZeroLengthBioIsNotCheckedAgainstTheEnd)
{
	Hook hook(disk_->queue());
	Endings endings;
	BioTag tag{&endings, 1};
	struct bio *bio = bio_alloc(GFP_KERNEL, 0);
	bio->bi_bdev = fs_->bdev();
	bio->bi_sector = 9000;  // beyond the partition, within the disk
	bio->bi_end_io = record_end_io;
	bio->bi_private = &tag;
	generic_make_request(bio);
	EXPECT_EQ(endings.wait(1)[0].error, 0);
	const auto seen = hook.seen();
	ASSERT_EQ(seen.size(), 1u);
	// Not remapped either: 2.6.27 remaps only bios with sectors.
	EXPECT_EQ(seen[0].sector, 9000u);
	ExpectLog({});
}

TEST(QueueDeathTest, BioForADeviceThatIsNotOpenIsFatal)
{
	EXPECT_DEATH(
		([] {
			emu::Disk disk(disk_config(16, 100, "sdb"));
			struct bio *bio = bio_alloc(GFP_KERNEL, 1);
			bio->bi_bdev = disk.bdev(0);
			generic_make_request(bio);
		}()),
		"not open");
}

TEST(QueueDeathTest, GenericMakeRequestUnderASpinLockIsFatal)
{
	EXPECT_DEATH(
		([] {
			emu::Disk disk(disk_config(16, 100, "sdb"));
			emu::FileSystem fs(disk, 0, 1024);
			Page page;
			Endings endings;
			BioTag tag{&endings, 1};
			struct bio *bio = make_bio(fs.bdev(), 0, page.get(),
						   512, &tag);
			DEFINE_SPINLOCK(lock);
			spin_lock(&lock);
			submit_bio(READ, bio);
		}()),
		"spin lock held.*test_emu_block_queue.cpp");
}

}  // namespace
