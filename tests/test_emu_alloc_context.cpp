// Allocations that may do I/O (__GFP_IO or __GFP_FS, e.g. GFP_KERNEL)
// where 2.6.27 would deadlock on memory reclaim: inside a make_request
// function (current->bio_tail set), and in a kernel thread that serves
// held I/O (it passed on a bio that an intercepting make_request function
// kept; see emu/src/io_context.cpp for the exact definition).
#include <memory>
#include <string>

#include "test_emu_block_util.hpp"
#include "test_emu_util.hpp"

#include <linux/slab.h>

using namespace blocktest;

namespace {

// The tag of a test's only bio.
BioTag first_tag(Endings *endings)
{
	BioTag tag;
	tag.endings = endings;
	tag.tag = 1;
	return tag;
}

// A test's only write (one page at sector 8 of bdev) through the block
// layer, waited for: the error it ended with.
int write_once(struct block_device *bdev)
{
	Endings endings;
	BioTag tag = first_tag(&endings);
	Page page;
	submit_bio(WRITE, make_bio(bdev, 8, page.get(), 4096, &tag));
	return endings.wait(1)[0].error;
}

std::string here(int line)
{
	return "tests/test_emu_alloc_context.cpp:" + std::to_string(line);
}

class AllocContext : public DiskTest {
protected:
	void SetUp() override
	{
		disk_ = std::make_unique<emu::Disk>(disk_config(16, 20000, "sdb"));
		ASSERT_EQ(disk_->add_partition(1, 63, 8000), 0);
		mount_fs(1, 4096);
	}
};

using AllocContextDeathTest = AllocContext;

// A kernel thread that serves one held bio: it waits for the hook to
// hand it over, runs `before`, passes it to the disk's own request
// function, and runs `after`.
struct Server {
	struct bio *held = nullptr;
	struct completion handed;
	Hook *hook = nullptr;
	std::function<void()> before, after;

	Server() { init_completion(&handed); }
	// hook keeps every bio and hands it to this server, as an
	// intercepting driver hands bios to its own thread.
	void hold_from(Hook &h)
	{
		hook = &h;
		h.set([this](struct request_queue *, struct bio *bio) {
			held = bio;   // kept for the thread
			complete(&handed);
			return 0;
		});
	}
	void serve()
	{
		wait_for_completion(&handed);
		if (before)
			before();
		hook->pass(bdev_get_queue(held->bi_bdev), held);
		if (after)
			after();
	}
};

}  // namespace

TEST_F(AllocContextDeathTest, GfpKernelInsideAMakeRequestFunction)
{
	const int line = __LINE__ + 6;
	EXPECT_DEATH(
		{
			Hook hook(disk_->queue());
			hook.set([&hook](struct request_queue *q,
					 struct bio *bio) {
				void *p = kmalloc(32, GFP_KERNEL);
				kfree(p);
				return hook.pass(q, bio);
			});
			write_once(fs_->bdev());
		},
		"EMU VIOLATION: kmalloc with gfp 0xd0 \\(__GFP_IO/__GFP_FS\\) "
		"inside a make_request function.* at " + here(line));
}

TEST_F(AllocContextDeathTest, GfpNofsPageInsideAMakeRequestFunction)
{
	EXPECT_DEATH(
		{
			Hook hook(disk_->queue());
			hook.set([&hook](struct request_queue *q,
					 struct bio *bio) {
				struct page *p = alloc_page(GFP_NOFS);
				__free_page(p);
				return hook.pass(q, bio);
			});
			write_once(fs_->bdev());
		},
		"alloc_pages with gfp 0x50 \\(__GFP_IO/__GFP_FS\\) inside a "
		"make_request function");
}

TEST_F(AllocContext, GfpNoioAndAtomicInsideAMakeRequestFunctionAreFine)
{
	Hook hook(disk_->queue());
	hook.set([&hook](struct request_queue *q, struct bio *bio) {
		kfree(kmalloc(32, GFP_NOIO));
		kfree(kmalloc(32, GFP_ATOMIC));
		__free_page(alloc_page(GFP_NOIO));
		return hook.pass(q, bio);
	});
	EXPECT_EQ(write_once(fs_->bdev()), 0);
	// Outside the make_request function GFP_KERNEL is fine again.
	kfree(kmalloc(32, GFP_KERNEL));
}

TEST_F(AllocContextDeathTest, GfpKernelInAThreadServingHeldIo)
{
	const int line = __LINE__ + 6;
	EXPECT_DEATH(
		{
			Hook hook(disk_->queue());
			Server server;
			server.hold_from(hook);
			server.after = [] { kfree(kmalloc(8, GFP_KERNEL)); };
			emutest::KThread kbackupd([&server] { server.serve(); });
			write_once(fs_->bdev());
			kbackupd.join();
		},
		"EMU VIOLATION: kmalloc with gfp 0xd0 \\(__GFP_IO/__GFP_FS\\) "
		"in kernel thread emu-test, which serves held I/O.* at " +
		here(line));
}

TEST_F(AllocContextDeathTest, GfpKernelWhileABioItThenPassesOnWasHeld)
{
	// The thread's first pass-on reveals what it did while serving.
	const int line = __LINE__ + 6;
	EXPECT_DEATH(
		{
			Hook hook(disk_->queue());
			Server server;
			server.hold_from(hook);
			server.before = [] { kfree(kmalloc(8, GFP_KERNEL)); };
			emutest::KThread kbackupd([&server] { server.serve(); });
			write_once(fs_->bdev());
			kbackupd.join();
		},
		"EMU VIOLATION: kmalloc with gfp 0xd0 that may do I/O, made by "
		"kernel thread emu-test while a bio it then passed on was "
		"held.* at " + here(line));
}

TEST_F(AllocContext, AServingThreadThatAllocatesWithGfpNoioIsFine)
{
	Hook hook(disk_->queue());
	Server server;
	server.hold_from(hook);
	server.after = [] {
		struct page *p = alloc_page(GFP_NOIO);
		__free_page(p);
		kfree(kmalloc(8, GFP_NOIO));
	};
	// A kernel thread's GFP_KERNEL allocation made before the bio was
	// held does not count.
	struct completion allocated;
	init_completion(&allocated);
	emutest::KThread kbackupd([&server, &allocated] {
		kfree(kmalloc(8, GFP_KERNEL));
		complete(&allocated);
		server.serve();
	});
	wait_for_completion(&allocated);
	EXPECT_EQ(write_once(fs_->bdev()), 0);
	kbackupd.join();
}

TEST_F(AllocContext, ABioPassedOnAtOnceIsNotHeld)
{
	// The hook passes every bio on during its call: a kernel thread that
	// submits through it and then allocates with GFP_KERNEL serves no
	// held I/O.
	Hook hook(disk_->queue());
	emutest::KThread writer([this] {
		write_once(fs_->bdev());
		kfree(kmalloc(8, GFP_KERNEL));
	});
	writer.join();
	EXPECT_EQ(hook.calls(), 1);
}

TEST_F(AllocContext, ATaskThatIsNotAKernelThreadNeverServes)
{
	Hook hook(disk_->queue());
	struct bio *held = nullptr;
	hook.set([&held](struct request_queue *, struct bio *bio) {
		held = bio;
		return 0;
	});
	Endings endings;
	BioTag tag = first_tag(&endings);
	Page page;
	submit_bio(WRITE, make_bio(fs_->bdev(), 8, page.get(), 4096, &tag));
	ASSERT_NE(held, nullptr);
	kfree(kmalloc(8, GFP_KERNEL));
	hook.pass(bdev_get_queue(held->bi_bdev), held);
	EXPECT_EQ(endings.wait(1)[0].error, 0);
	kfree(kmalloc(8, GFP_KERNEL));
}
