// The small command handlers serialise on their record's semaphore bSem:
// while it is held, GET_STATE and the two automap flags of that file wait,
// and the commands of another file go on.  Run under ThreadSanitizer by
// `make tsan`.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "emu/emu.hpp"
#include "test_driver_util.hpp"

#include <linux/semaphore.h>
#include <asm/atomic.h>

namespace {

using namespace std::chrono_literals;

class DispatchConcurrency : public test::OpenFile {
protected:
	void SetUp() override
	{
		OpenFile::SetUp();
		// A GetState record asking for 20 bytes at page_ + 64.
		const std::uint32_t rec[2] = {page_ + 64, 20};
		ASSERT_TRUE(proc->poke(page_, rec, sizeof rec));
	}

	// Runs the command on fd_ in another thread while this one holds
	// the record's bSem: it must not finish, nor change the record,
	// until bSem is given back.
	void expect_waits_for_bsem(unsigned cmd, int Backup::*flag)
	{
		down(&b_->bSem);
		std::atomic<bool> done{false};
		std::atomic<long> result{-1};
		std::jthread t([&] {
			result = proc->ioctl(fd_, cmd, page_);
			done = true;
		});
		for (int i = 0; i < 50; i++) {
			std::this_thread::sleep_for(2ms);
			ASSERT_FALSE(done.load());
		}
		if (flag) {
			EXPECT_EQ(b_->*flag, 0);
		}
		up(&b_->bSem);
		t.join();
		EXPECT_EQ(result.load(), 0);
		if (flag) {
			EXPECT_EQ(b_->*flag, 1);
		}
	}

};

TEST_F(DispatchConcurrency, GetStateWaitsForTheRecordSemaphore)
{
	expect_waits_for_bsem(KIV_IOC_GET_STATE, nullptr);
	ExpectLog({});
}

TEST_F(DispatchConcurrency, NoStartAutoMapWaitsForTheRecordSemaphore)
{
	expect_waits_for_bsem(KIV_IOC_NO_START_AUTOMAP, &Backup::noStartAutoMap);
	EXPECT_EQ(b_->noLoadFromAutoMap, 0);
	ExpectLog({});
}

TEST_F(DispatchConcurrency, NoLoadFromAutoMapWaitsForTheRecordSemaphore)
{
	expect_waits_for_bsem(KIV_IOC_NO_LOAD_FROM_AUTOMAP,
			      &Backup::noLoadFromAutoMap);
	EXPECT_EQ(b_->noStartAutoMap, 0);
	ExpectLog({});
}

// One file's held semaphore does not hold up another file's commands.
TEST_F(DispatchConcurrency, AnotherFilesCommandsGoOn)
{
	const int other = proc->open("/dev/corvalin");
	ASSERT_GE(other, 0);
	Backup *ob = test::backup_of(*proc, other);
	ASSERT_NE(ob, nullptr);
	down(&b_->bSem);
	long r1 = -1, r2 = -1;
	{
		std::jthread t([&] {
			r1 = proc->ioctl(other, KIV_IOC_GET_STATE, page_);
			r2 = proc->ioctl(other, KIV_IOC_NO_START_AUTOMAP, 0);
		});
	}
	EXPECT_EQ(r1, 0);
	EXPECT_EQ(r2, 0);
	EXPECT_EQ(ob->noStartAutoMap, 1);
	EXPECT_EQ(b_->noStartAutoMap, 0);
	up(&b_->bSem);
	EXPECT_EQ(proc->close(other), 0);
	ExpectLog({});
}

}  // namespace
