// A sleep with interrupts disabled, as 2.6.27 with
// CONFIG_DEBUG_SPINLOCK_SLEEP treats it: a function that calls
// might_sleep() logs "BUG: sleeping function called from invalid context
// at FILE:LINE" and "in_atomic():0, irqs_disabled():1" (at most once a
// second) and goes on; schedule() comes back with interrupts enabled; the
// warning is recorded, and a test that does not expect it fails.  A sleep
// with a spin lock held stays fatal.
#include <string>
#include <vector>

#include "test_emu_util.hpp"

#include <linux/hardirq.h>
#include <linux/jiffies.h>
#include <linux/kernel.h>
#include <linux/mutex.h>
#include <linux/rwsem.h>
#include <linux/semaphore.h>
#include <linux/slab.h>
#include <linux/spinlock.h>

namespace {

std::vector<std::string> warning_at(int line)
{
	return {"<3>BUG: sleeping function called from invalid context at "
		"tests/test_emu_irqs_off_sleep.cpp:" + std::to_string(line),
		"<4>in_atomic():0, irqs_disabled():1"};
}

}  // namespace

TEST(IrqsOffSleep, MutexLockWarnsWithTheCallSiteAndGoesOn)
{
	static DEFINE_MUTEX(m);
	emu::log_clear();
	local_irq_disable();
	const int line = __LINE__ + 1;
	mutex_lock(&m);
	// might_sleep() only warns: the lock was free, nothing slept, and
	// interrupts are still disabled.
	EXPECT_TRUE(irqs_disabled());
	mutex_unlock(&m);
	local_irq_enable();
	ExpectLog(warning_at(line));
	EXPECT_TRUE(emu::pending_warnings().empty());
}

TEST(IrqsOffSleep, SleepingAllocationWarnsAndAllocates)
{
	emu::log_clear();
	unsigned long flags;
	local_irq_save(flags);
	const int line = __LINE__ + 1;
	void *p = kmalloc(16, GFP_KERNEL);
	local_irq_restore(flags);
	EXPECT_NE(p, nullptr);
	kfree(p);
	ExpectLog(warning_at(line));
}

TEST(IrqsOffSleep, WaitForCompletionWarnsAndReturnsWithInterruptsOn)
{
	struct completion done;
	init_completion(&done);
	complete(&done);
	emu::log_clear();
	local_irq_disable();
	const int line = __LINE__ + 1;
	wait_for_completion(&done);
	// spin_unlock_irq of the completion's lock, as 2.6.27's
	EXPECT_FALSE(irqs_disabled());
	ExpectLog(warning_at(line));
}

TEST(IrqsOffSleep, ScheduleTurnsInterruptsOnWithoutAWord)
{
	emu::log_clear();
	local_irq_disable();
	schedule();   // no might_sleep() in 2.6.27's schedule()
	EXPECT_FALSE(irqs_disabled());
	ExpectLog({});
}

TEST(IrqsOffSleep, BlockedSleepComesBackWithInterruptsOn)
{
	static DECLARE_RWSEM(sem);
	struct completion held;
	init_completion(&held);
	// The writer holds the semaphore until this task waits for it.
	emutest::KThread writer([&held] {
		down_write(&sem);
		complete(&held);
		emutest::eventually([] {
			spin_lock_irq(&sem.wait_lock);
			bool waiting = !list_empty(&sem.wait_list);
			spin_unlock_irq(&sem.wait_lock);
			return waiting;
		});
		up_write(&sem);
	});
	wait_for_completion(&held);
	emu::log_clear();
	local_irq_disable();
	const int line = __LINE__ + 1;
	down_read(&sem);   // warns, then sleeps until the writer is done
	EXPECT_FALSE(irqs_disabled());
	up_read(&sem);
	writer.join();
	ExpectLog(warning_at(line));
}

TEST(IrqsOffSleep, SemaphoreDownHasNoMightSleepIn2627)
{
	static DECLARE_MUTEX(sem);
	emu::log_clear();
	local_irq_disable();
	down(&sem);   // spin_lock_irqsave inside; no might_sleep()
	EXPECT_TRUE(irqs_disabled());
	up(&sem);
	local_irq_enable();
	ExpectLog({});
}

TEST(IrqsOffSleep, OneWarningPerSecondOfJiffies)
{
	static DEFINE_MUTEX(m);
	emu::log_clear();
	local_irq_disable();
	const unsigned long first = jiffies;
	const int line = __LINE__ + 1;
	mutex_lock(&m);
	mutex_unlock(&m);
	mutex_lock(&m);   // a second might_sleep()
	const unsigned long second = jiffies;
	mutex_unlock(&m);
	local_irq_enable();
	std::vector<std::string> expected = warning_at(line);
	if (!time_before(second, first + HZ)) {
		// A second went by between the two (a slow host): the
		// kernel prints the second one too.
		auto again = warning_at(line + 2);
		expected.insert(expected.end(), again.begin(), again.end());
	}
	ExpectLog(expected);
}

TEST(IrqsOffSleep, AWarningNotExpectedIsLeftPendingForTheEndOfTheTest)
{
	static DEFINE_MUTEX(m);
	local_irq_disable();
	const int line = __LINE__ + 1;
	mutex_lock(&m);
	mutex_unlock(&m);
	local_irq_enable();
	// Clearing the log does not acknowledge the warning...
	emu::log_clear();
	EXPECT_EQ(emu::pending_warnings(),
		  std::vector<std::string>{warning_at(line)[0]});
	// ... only expecting its lines does; the end-of-test check takes
	// what is left and fails the test with it.
	EXPECT_EQ(emu::take_pending_warnings(),
		  std::vector<std::string>{warning_at(line)[0]});
	EXPECT_TRUE(emu::pending_warnings().empty());
}

TEST(IrqsOffSleep, WarnOnIsAWarningTooAndExpectingItAcknowledgesIt)
{
	const int line = __LINE__ + 1;
	EXPECT_TRUE(WARN_ON(1));
	EXPECT_EQ(emu::pending_warnings(),
		  std::vector<std::string>{
			  "<4>WARNING: at tests/test_emu_irqs_off_sleep.cpp:" +
			  std::to_string(line) + " TestBody()"});
	ExpectLog({"<4>------------[ cut here ]------------",
		   "<4>WARNING: at tests/test_emu_irqs_off_sleep.cpp:" +
		   std::to_string(line) + " TestBody()"});
	EXPECT_TRUE(emu::pending_warnings().empty());
}

TEST(IrqsOffSleepDeathTest, SleepingWithASpinLockHeldStaysFatal)
{
	static DEFINE_SPINLOCK(lock);
	static DEFINE_MUTEX(m);
	EXPECT_DEATH(
		{
			unsigned long flags;
			spin_lock_irqsave(&lock, flags);
			mutex_lock(&m);
		},
		"EMU VIOLATION: sleeping function mutex_lock called with a "
		"spin lock held");
}

TEST(IrqsOffSleepDeathTest, SleepingInAHardInterruptStaysFatal)
{
	static DEFINE_MUTEX(m);
	EXPECT_DEATH(
		{
			local_irq_disable();
			irq_enter();
			mutex_lock(&m);
		},
		"EMU VIOLATION: sleeping function mutex_lock called with "
		"interrupts disabled");
}
