// The emulated disks: their queue and request function, asynchronous
// completion, ordering, failing sectors, and the backing stores.
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "test_emu_block_util.hpp"

using namespace blocktest;

namespace {

TEST(Disk, QueueOfTheDiskHasItsOwnFunctionAndOptionalLock)
{
	emu::Disk locked(disk_config(0, 100, "sda"));
	struct request_queue *q = locked.queue();
	EXPECT_EQ(q->make_request_fn, emu::Disk::request_fn());
	EXPECT_EQ(q->queue_lock, &q->__queue_lock);
	EXPECT_EQ(locked.gendisk()->queue, q);
	EXPECT_EQ(q->max_sectors, static_cast<unsigned>(SAFE_MAX_SECTORS));
	EXPECT_EQ(q->hardsect_size, 512);

	auto cfg = disk_config(16, 100, "sdb");
	cfg.queue_lock = false;
	emu::Disk bare(cfg);
	EXPECT_EQ(bare.queue()->queue_lock, nullptr);
	EXPECT_EQ(bare.queue()->make_request_fn, emu::Disk::request_fn());
}

// ---------------------------------------------------------------------------
// the disk's request function: completion, order, errors, data

class DiskIo : public DiskTest {
protected:
	void mount(emu::DiskConfig cfg)
	{
		disk_ = std::make_unique<emu::Disk>(std::move(cfg));
		mount_fs(0, 512);
	}
};

TEST_F(DiskIo, CompletesLaterFromItsOwnThreadInSoftirqContext)
{
	mount(disk_config(16, 1000, "sdb", 1));
	disk_->plug();
	Endings endings;
	BioTag tag{&endings, 1};
	Page page;
	submit_bio(READ, make_bio(fs_->bdev(), 3, page.get(), 512, &tag));
	EXPECT_EQ(disk_->requests(), 1u);
	EXPECT_EQ(endings.count(), 0u);  // held by the plug: not ended
	disk_->unplug();
	const auto e = endings.wait(1);
	EXPECT_EQ(e[0].error, 0);
	EXPECT_TRUE(e[0].in_intr);
	EXPECT_FALSE(e[0].irqs_off);
	EXPECT_NE(e[0].pid, current->pid);
	EXPECT_FALSE(in_interrupt());
}

TEST_F(DiskIo, WithoutThreadsCompletesInsideTheRequestFunction)
{
	auto cfg = disk_config(16, 1000, "sdb", 0);
	cfg.completion = emu::Completion::Bio;
	mount(cfg);
	Endings endings;
	BioTag tag{&endings, 1};
	Page page;
	submit_bio(READ, make_bio(fs_->bdev(), 3, page.get(), 512, &tag));
	ASSERT_EQ(endings.count(), 1u);
	const auto e = endings.wait(1);
	EXPECT_EQ(e[0].pid, current->pid);
	EXPECT_FALSE(e[0].in_intr);
	// Bio-based: the bio is ended untouched.
	EXPECT_EQ(e[0].size, 512u);
	EXPECT_EQ(e[0].sector, 3u);
}

TEST_F(DiskIo, RequestBasedCompletionConsumesTheBio)
{
	mount(disk_config(16, 1000, "sdb", 1));
	Endings endings;
	BioTag tag{&endings, 1};
	Page page;
	submit_bio(READ, make_bio(fs_->bdev(), 3, page.get(), 1024, &tag));
	const auto e = endings.wait(1);
	EXPECT_EQ(e[0].size, 0u);
	EXPECT_EQ(e[0].sector, 5u);
}

TEST_F(DiskIo, PendingRequestsAreServedInTheChosenOrder)
{
	mount(disk_config(16, 1000, "sdb", 1));
	Page page;
	for (auto order : {emu::Reorder::Fifo, emu::Reorder::Lifo}) {
		disk_->set_reorder(order);
		disk_->plug();
		Endings endings;
		std::array<BioTag, 4> tags{{{&endings, 1}, {&endings, 2},
					    {&endings, 3}, {&endings, 4}}};
		for (auto &t : tags)
			submit_bio(READ, make_bio(fs_->bdev(), t.tag,
						  page.get(), 512, &t));
		disk_->unplug();
		const auto e = endings.wait(4);
		std::vector<int> got;
		for (const auto &x : e)
			got.push_back(x.tag);
		if (order == emu::Reorder::Fifo)
			EXPECT_EQ(got, (std::vector<int>{1, 2, 3, 4}));
		else
			EXPECT_EQ(got, (std::vector<int>{4, 3, 2, 1}));
	}
}

// An empty barrier (a cache flush, as blkdev_issue_flush sends it) on a
// disk whose queue drains for barriers: everything queued before it is
// served first, whatever the order asked for, and what comes after it
// waits for it.
TEST_F(DiskIo, BarrierWaitsForEarlierRequestsAndHoldsLaterOnes)
{
	for (unsigned threads : {1u, 2u}) {
		mount(disk_config(16, 1000, "sdb", threads));
		disk_->set_reorder(emu::Reorder::Lifo);
		Page page;
		disk_->plug();
		Endings endings;
		std::array<BioTag, 5> tags{{{&endings, 1}, {&endings, 2},
					    {&endings, 3}, {&endings, 4},
					    {&endings, 5}}};
		for (int i = 0; i < 5; i++) {
			if (i == 2) {
				struct bio *b = bio_alloc(GFP_KERNEL, 0);
				b->bi_bdev = fs_->bdev();
				b->bi_end_io = record_end_io;
				b->bi_private = &tags[2];
				submit_bio(1 << BIO_RW_BARRIER, b);
				continue;
			}
			submit_bio(READ, make_bio(fs_->bdev(), tags[i].tag,
						  page.get(), 512, &tags[i]));
		}
		disk_->unplug();
		const auto e = endings.wait(5);
		std::vector<int> got;
		for (const auto &x : e) {
			got.push_back(x.tag);
			EXPECT_EQ(x.error, 0) << x.tag;
		}
		// One thread serves in the order asked for between the
		// fences; two may end the requests of one side in any order.
		if (threads == 1) {
			EXPECT_EQ(got, (std::vector<int>{2, 1, 3, 5, 4}));
		} else {
			ASSERT_EQ(got.size(), 5u);
			EXPECT_EQ(std::min(got[0], got[1]), 1);
			EXPECT_EQ(std::max(got[0], got[1]), 2);
			EXPECT_EQ(got[2], 3);
			EXPECT_EQ(std::min(got[3], got[4]), 4);
			EXPECT_EQ(std::max(got[3], got[4]), 5);
		}
		fs_.reset();
		disk_.reset();
	}
}

// Without a write cache to flush (QUEUE_ORDERED_DRAIN: no
// prepare_flush_fn) generic_make_request refuses an empty barrier; with
// no ordered mode at all (QUEUE_ORDERED_NONE) __make_request refuses any
// barrier.  Neither reaches the disk's store.
TEST_F(DiskIo, BarriersTheQueueCannotOrderEndWithEopnotsupp)
{
	for (auto mode : {emu::Ordered::Drain, emu::Ordered::None}) {
		auto cfg = disk_config(16, 1000, "sdb", 1);
		cfg.ordered = mode;
		mount(cfg);
		EXPECT_EQ(disk_->queue()->prepare_flush_fn, nullptr);
		Endings endings;
		BioTag empty{&endings, 1}, full{&endings, 2};
		struct bio *b = bio_alloc(GFP_KERNEL, 0);
		b->bi_bdev = fs_->bdev();
		b->bi_end_io = record_end_io;
		b->bi_private = &empty;
		submit_bio(1 << BIO_RW_BARRIER, b);
		EXPECT_EQ(endings.wait(1)[0].error, -EOPNOTSUPP);
		Page page;
		const std::uint64_t before = disk_->requests();
		submit_bio(WRITE_BARRIER, make_bio(fs_->bdev(), 8, page.get(),
						   512, &full));
		const auto e = endings.wait(2);
		if (mode == emu::Ordered::None)
			EXPECT_EQ(e[1].error, -EOPNOTSUPP);
		else
			EXPECT_EQ(e[1].error, 0);
		EXPECT_EQ(disk_->requests(), before + 1);
		fs_.reset();
		disk_.reset();
	}
}

TEST_F(DiskIo, RandomOrderIsReproducibleFromItsSeed)
{
	const std::uint64_t seed = support::seed();
	mount(disk_config(16, 1000, "sdb", 1));
	Page page;
	auto run = [&] {
		disk_->set_reorder(emu::Reorder::Random, seed);
		disk_->plug();
		Endings endings;
		std::vector<BioTag> tags;
		for (int i = 0; i < 16; i++)
			tags.push_back({&endings, i});
		for (auto &t : tags)
			submit_bio(READ, make_bio(fs_->bdev(), t.tag,
						  page.get(), 512, &t));
		disk_->unplug();
		std::vector<int> got;
		for (const auto &x : endings.wait(tags.size()))
			got.push_back(x.tag);
		return got;
	};
	const auto a = run();
	const auto b = run();
	EXPECT_EQ(a, b);
	auto sorted = a;
	std::sort(sorted.begin(), sorted.end());
	for (int i = 0; i < 16; i++)
		EXPECT_EQ(sorted[i], i);
}

TEST_F(DiskIo, WritesReachTheStoreAndReadsComeBack)
{
	mount(disk_config(16, 1000, "sdb", 2));
	Page out, in;
	out.fill(0xa5);
	Endings endings;
	BioTag w{&endings, 1}, r{&endings, 2};
	submit_bio(WRITE, make_bio(fs_->bdev(), 10, out.get(), 4096, &w));
	endings.wait(1);
	std::vector<std::byte> sectors(4096);
	disk_->read(10, sectors);
	EXPECT_EQ(sectors, pattern(4096, 0xa5));
	in.fill(0);
	submit_bio(READ, make_bio(fs_->bdev(), 10, in.get(), 4096, &r));
	endings.wait(2);
	EXPECT_EQ(in.bytes(), pattern(4096, 0xa5));
	// Untouched sectors of the sparse store read as zeros.
	disk_->read(20, sectors);
	EXPECT_EQ(sectors, pattern(4096, 0));
}

TEST_F(DiskIo, FailingSectorEndsTheBioWithoutUptodateAndLogs)
{
	mount(disk_config(16, 1000, "sdb", 1));
	disk_->fail_sectors(100, 1, -EIO, emu::Dir::Read);
	Page page;
	page.fill(0x11);
	Endings endings;
	BioTag bad{&endings, 1}, good{&endings, 2}, write{&endings, 3};
	submit_bio(READ, make_bio(fs_->bdev(), 97, page.get(), 2048, &bad));
	auto e = endings.wait(1);
	EXPECT_EQ(e[0].error, -EIO);
	EXPECT_FALSE(e[0].uptodate);
	EXPECT_EQ(page.bytes(), pattern(4096, 0x11));  // nothing transferred
	ExpectLog({"<3>end_request: I/O error, dev sdb, sector 97"});
	submit_bio(READ, make_bio(fs_->bdev(), 101, page.get(), 512, &good));
	submit_bio(WRITE, make_bio(fs_->bdev(), 100, page.get(), 512, &write));
	e = endings.wait(3);
	EXPECT_EQ(e[1].error, 0);
	EXPECT_EQ(e[2].error, 0);  // the failure is for reads only
	disk_->clear_failures();
}

TEST_F(DiskIo, EopnotsuppOnRequestAndNoLineForABioBasedDisk)
{
	auto cfg = disk_config(16, 1000, "sdb", 1);
	cfg.completion = emu::Completion::Bio;
	mount(cfg);
	disk_->fail_sectors(0, 8, -EOPNOTSUPP);
	Page page;
	Endings endings;
	BioTag tag{&endings, 1};
	submit_bio(WRITE, make_bio(fs_->bdev(), 4, page.get(), 512, &tag));
	const auto e = endings.wait(1);
	EXPECT_EQ(e[0].error, -EOPNOTSUPP);
	EXPECT_FALSE(e[0].uptodate);
	EXPECT_EQ(e[0].size, 512u);
	ExpectLog({});
}

TEST_F(DiskIo, RequestFunctionCalledDirectlyTakesAbsoluteSectors)
{
	// A driver that saved the disk's function and calls it itself
	// bypasses the remapping, so it remaps itself: bi_bdev is the whole
	// disk, the sector is the disk's (a partition there is a violation,
	// see test_emu_block_request.cpp).
	emu::Disk disk(disk_config(32, 2000, "sdc", 1));
	ASSERT_EQ(disk.add_partition(1, 100, 1000), 0);
	emu::FileSystem fs(disk, 1, 1024);
	std::vector<emu::DiskRequest> seen;
	disk.set_observer([&](const emu::DiskRequest &r) { seen.push_back(r); });
	Page page;
	page.fill(0x3c);
	Endings endings;
	BioTag tag{&endings, 1};
	struct bio *bio = make_bio(fs.bdev()->bd_contains, 150, page.get(),
				   1024, &tag);
	bio->bi_rw = WRITE;
	EXPECT_EQ(emu::Disk::request_fn()(disk.queue(), bio), 0);
	endings.wait(1);
	ASSERT_EQ(seen.size(), 1u);
	EXPECT_EQ(seen[0].dev, disk.dev(0));
	EXPECT_EQ(seen[0].sector, 150u);
	std::vector<std::byte> data(1024);
	disk.read(150, data);
	EXPECT_EQ(data, pattern(1024, 0x3c));
	disk.set_observer({});
}

TEST_F(DiskIo, ManyConcurrentRequestsWithLatencyAllComplete)
{
	mount(disk_config(16, 4096, "sdb", 3));
	disk_->set_latency(std::chrono::microseconds(0),
			   std::chrono::microseconds(300));
	disk_->set_reorder(emu::Reorder::Random, 7);
	constexpr int kBios = 64;
	std::vector<std::unique_ptr<Page>> pages;
	Endings endings;
	std::vector<BioTag> tags;
	tags.reserve(kBios);
	for (int i = 0; i < kBios; i++) {
		pages.push_back(std::make_unique<Page>());
		pages.back()->fill(static_cast<unsigned char>(i));
		tags.push_back({&endings, i});
	}
	std::vector<std::jthread> submitters;
	for (int t = 0; t < 4; t++)
		submitters.emplace_back([&, t] {
			for (int i = t; i < kBios; i += 4)
				submit_bio(WRITE,
					   make_bio(fs_->bdev(), i * 8,
						    pages[i]->get(), 4096,
						    &tags[i]));
		});
	submitters.clear();
	const auto e = endings.wait(kBios);
	for (const auto &x : e)
		EXPECT_EQ(x.error, 0);
	for (int i = 0; i < kBios; i++) {
		std::vector<std::byte> data(4096);
		disk_->read(i * 8, data);
		EXPECT_EQ(data, pattern(4096, static_cast<unsigned char>(i)));
	}
	EXPECT_EQ(disk_->requests(), static_cast<std::uint64_t>(kBios));
}

TEST(Disk, ImageFileIsTheBackingStore)
{
	char path[] = "/tmp/corvalin-disk-XXXXXX";
	const int fd = ::mkstemp(path);
	ASSERT_GE(fd, 0);
	std::vector<unsigned char> image(64 * 512);
	for (std::size_t i = 0; i < image.size(); i++)
		image[i] = static_cast<unsigned char>(i / 512);
	ASSERT_EQ(::write(fd, image.data(), image.size()),
		  static_cast<ssize_t>(image.size()));
	::close(fd);
	{
		auto cfg = disk_config(16, 0, "sdb", 1);
		cfg.image = path;
		emu::Disk disk(cfg);
		EXPECT_EQ(disk.sectors(), 64u);
		emu::FileSystem fs(disk, 0, 1024);
		Page page;
		Endings endings;
		BioTag r{&endings, 1}, w{&endings, 2};
		submit_bio(READ, make_bio(fs.bdev(), 5, page.get(), 512, &r));
		endings.wait(1);
		EXPECT_EQ(page.bytes(0, 512), pattern(512, 5));
		page.fill(0xee);
		submit_bio(WRITE, make_bio(fs.bdev(), 6, page.get(), 512, &w));
		endings.wait(2);
	}
	std::ifstream in(path, std::ios::binary);
	std::vector<char> back(image.size());
	in.read(back.data(), static_cast<std::streamsize>(back.size()));
	EXPECT_EQ(static_cast<unsigned char>(back[6 * 512]), 0xee);
	EXPECT_EQ(static_cast<unsigned char>(back[7 * 512]), 7);
	::unlink(path);
}

TEST(DiskDeathTest, DestroyingADiskWithAMountedFileSystemIsFatal)
{
	EXPECT_DEATH(
		([] {
			auto disk = std::make_unique<emu::Disk>(
				disk_config(16, 100, "sdb"));
			emu::FileSystem fs(*disk, 0, 1024);
			disk.reset();
		}()),
		"open");
}

int sleepless_hook(struct request_queue *, struct bio *)
{
	return 0;
}

TEST(DiskDeathTest, DestroyingADiskWhoseQueueIsStillHookedIsFatal)
{
	EXPECT_DEATH(([] {
		auto disk = std::make_unique<emu::Disk>(
			disk_config(16, 100, "sdb"));
		disk->queue()->make_request_fn = sleepless_hook;
		disk.reset();
	}()),
		"make_request_fn is replaced");
}

void sleeping_end_io(struct bio *bio, int)
{
	might_sleep();
	bio_put(bio);
}

TEST(DiskDeathTest, CompletionRoutineThatSleepsIsFatal)
{
	EXPECT_DEATH(([] {
		emu::Disk disk(disk_config(16, 100, "sdb", 1));
		emu::FileSystem fs(disk, 0, 1024);
		Page page;
		struct bio *bio = make_bio(fs.bdev(), 0, page.get(), 512,
					   nullptr);
		bio->bi_end_io = sleeping_end_io;
		submit_bio(READ, bio);
		disk.drain();
	}()),
		"might_sleep.*in interrupt context.*test_emu_block_disk.cpp");
}

}  // namespace
