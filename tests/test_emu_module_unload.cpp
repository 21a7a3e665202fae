// Unloading the module while its code may still run: one of its kernel
// threads has not reached complete_and_exit, or a bio whose bi_end_io is
// the module's is in flight.  After an unload the module's data is
// poisoned until the next load.
//
// The functions below are compiled into the module's text (the section
// the build gathers the driver's code into), as the driver's own thread
// bodies and completion routines are.
#include <cstring>
#include <memory>

#include "test_emu_block_util.hpp"
#include "test_emu_util.hpp"

#include "globals.h"

using namespace blocktest;

#define MODULE_TEXT __attribute__((section("corvalin_text"))) noinline

namespace {

// The tag of a test's only bio (a call, so that it can stand in a
// death test's statement).
BioTag first_tag(Endings *endings)
{
	BioTag tag;
	tag.endings = endings;
	tag.tag = 1;
	return tag;
}

struct ModThread {
	struct completion go;
	struct completion exited;
};

// A thread body of the module: waits for `go`, then leaves with
// complete_and_exit.
MODULE_TEXT int module_thread(void *arg)
{
	auto *t = static_cast<ModThread *>(arg);
	wait_for_completion(&t->go);
	complete_and_exit(&t->exited, 0);
}

// A completion routine of the module.
MODULE_TEXT void module_end_io(struct bio *bio, int error)
{
	record_end_io(bio, error);
}

// A make_request function of the module, passing requests on to the
// disk's own.
MODULE_TEXT int module_make_request(struct request_queue *q, struct bio *bio)
{
	return emu::Disk::request_fn()(q, bio);
}

class ModuleUnload : public DiskTest {
protected:
	void SetUp() override
	{
		disk_ = std::make_unique<emu::Disk>(disk_config(16, 20000, "sdb"));
		ASSERT_EQ(disk_->add_partition(1, 63, 8000), 0);
		mount_fs(1, 4096);
		ASSERT_EQ(emu::module_load(), 0);
		emu::log_clear();
	}
	void TearDown() override
	{
		if (emu::module_loaded()) {
			EXPECT_EQ(emu::module_unload(), 0);
		}
		emu::log_clear();
		DiskTest::TearDown();
	}
};

using ModuleUnloadDeathTest = ModuleUnload;

}  // namespace

TEST_F(ModuleUnloadDeathTest, WhileAModuleThreadRuns)
{
	EXPECT_DEATH(
		{
			auto *t = new ModThread;
			init_completion(&t->go);
			init_completion(&t->exited);
			ASSERT_GT(kernel_thread(module_thread, t, 0), 0);
			emu::module_unload();
		},
		"EMU VIOLATION: module unloaded while its code may still run: "
		"kernel thread emu-test \\(pid [0-9]+, started at "
		"tests/test_emu_module_unload.cpp:[0-9]+\\) has not reached "
		"complete_and_exit");
}

TEST_F(ModuleUnload, AfterItsThreadsReachedCompleteAndExit)
{
	ModThread t;
	init_completion(&t.go);
	init_completion(&t.exited);
	ASSERT_GT(kernel_thread(module_thread, &t, 0), 0);
	complete(&t.go);
	wait_for_completion(&t.exited);
	EXPECT_EQ(emu::module_unload(), 0);
}

TEST_F(ModuleUnload, AThreadOutsideTheModuleDoesNotPinIt)
{
	struct completion go;
	init_completion(&go);
	emutest::KThread other([&go] { wait_for_completion(&go); });
	EXPECT_EQ(emu::module_unload(), 0);
	complete(&go);
	other.join();
}

TEST_F(ModuleUnloadDeathTest, WhileABioOfTheModuleIsInFlight)
{
	EXPECT_DEATH(
		{
			disk_->plug();
			static Endings endings;
			static BioTag tag = first_tag(&endings);
			static Page page;
			struct bio *bio = make_bio(fs_->bdev(), 8, page.get(),
						   4096, &tag);
			bio->bi_end_io = module_end_io;
			submit_bio(READ, bio);
			emu::module_unload();
		},
		"EMU VIOLATION: module unloaded while its code may still run: "
		"bio 0x[0-9a-f]+ submitted at tests/test_emu_module_unload.cpp:"
		"[0-9]+ is in flight with its bi_end_io in the module");
}

TEST_F(ModuleUnload, AfterItsBiosEnded)
{
	Endings endings;
	BioTag tag = first_tag(&endings);
	Page page;
	struct bio *bio = make_bio(fs_->bdev(), 8, page.get(), 4096, &tag);
	bio->bi_end_io = module_end_io;
	submit_bio(READ, bio);
	EXPECT_EQ(endings.wait(1)[0].error, 0);
	EXPECT_EQ(emu::module_unload(), 0);
}

TEST_F(ModuleUnload, ABioOfTheKernelInFlightDoesNotPinIt)
{
	disk_->plug();
	Endings endings;
	BioTag tag = first_tag(&endings);
	Page page;
	submit_bio(READ, make_bio(fs_->bdev(), 8, page.get(), 4096, &tag));
	EXPECT_EQ(emu::module_unload(), 0);
	disk_->unplug();
	EXPECT_EQ(endings.wait(1)[0].error, 0);
}

TEST_F(ModuleUnloadDeathTest, WhileAQueueStillCallsTheModule)
{
	EXPECT_DEATH(
		{
			disk_->queue()->make_request_fn = module_make_request;
			emu::module_unload();
		},
		"EMU VIOLATION: module unloaded while its code may still run: "
		"the request queue of sdb still calls a make_request_fn in the "
		"module");
}

TEST_F(ModuleUnload, AfterItsQueuesGotTheirFunctionBack)
{
	struct request_queue *q = disk_->queue();
	q->make_request_fn = module_make_request;
	Endings endings;
	BioTag tag = first_tag(&endings);
	Page page;
	submit_bio(READ, make_bio(fs_->bdev(), 8, page.get(), 4096, &tag));
	EXPECT_EQ(endings.wait(1)[0].error, 0);
	q->make_request_fn = emu::Disk::request_fn();
	EXPECT_EQ(emu::module_unload(), 0);
}

TEST_F(ModuleUnload, ItsDataIsPoisonedUntilTheNextLoad)
{
	// At load: as in the module's image.
	EXPECT_EQ(atomic_read(&amListUsers), 1);          // .data
	EXPECT_EQ(activeSession, nullptr);                 // .bss
	ASSERT_EQ(emu::module_unload(), 0);
	emu::log_clear();
	int users;
	std::memcpy(&users, &amListUsers, sizeof(users));
	EXPECT_EQ(static_cast<unsigned>(users), 0x6b6b6b6bu);
	std::uintptr_t session;
	std::memcpy(&session, &activeSession, sizeof(session));
	EXPECT_EQ(session, static_cast<std::uintptr_t>(0x6b6b6b6b6b6b6b6bULL));
	ASSERT_EQ(emu::module_load(), 0);
	emu::log_clear();
	EXPECT_EQ(atomic_read(&amListUsers), 1);
	EXPECT_EQ(activeSession, nullptr);
}
