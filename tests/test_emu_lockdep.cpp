// The emulated kernel's lock validator (after 2.6.27's lockdep) and its
// hang watchdog: every rule broken on purpose is reported with both call
// sites, and the legal pattern next to it passes.
#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include "test_emu_util.hpp"

#include <linux/interrupt.h>
#include <linux/mutex.h>
#include <linux/rwsem.h>
#include <linux/semaphore.h>
#include <linux/spinlock.h>

using emutest::eventually;
using emutest::KThread;

namespace {

std::string here(int line)
{
	return "tests/test_emu_lockdep\\.cpp:" + std::to_string(line);
}

// Every spin lock initialised here is of one class.
void init_one(spinlock_t *l)
{
	spin_lock_init(l);
}

int sem_waiters(struct semaphore *sem)
{
	int n = 0;
	struct list_head *pos;
	unsigned long flags;

	spin_lock_irqsave(&sem->lock, flags);
	list_for_each(pos, &sem->wait_list)
		n++;
	spin_unlock_irqrestore(&sem->lock, flags);
	return n;
}

}  // namespace

// ---- lock order ----------------------------------------------------------------

TEST(LockdepDeathTest, OppositeOrderOfTwoLocksIsReportedWithBothChains)
{
	spinlock_t a, b;
	spin_lock_init(&a);
	const int init_a = __LINE__ - 1;
	spin_lock_init(&b);
	const int init_b = __LINE__ - 1;

	spin_lock(&a);
	const int take_a = __LINE__ - 1;
	spin_lock(&b);
	const int take_b = __LINE__ - 1;
	spin_unlock(&b);
	spin_unlock(&a);

	auto opposite = [&] {
		spin_lock(&b);
		spin_lock(&a);
	};
	const int opp_b = __LINE__ - 3;
	const int opp_a = __LINE__ - 3;
	EXPECT_DEATH(opposite(),
		     "possible circular locking dependency detected.*"
		     "is trying to acquire lock:\n \\(&a\\)\\{spin lock, "
		     "initialised at " + here(init_a) + "\\} 0x[0-9a-f]+, at " +
		     here(opp_a) + "\n\nbut task is already holding lock:\n "
		     "\\(&b\\).*taken at " + here(opp_b) + ".*"
		     "existing dependency chain is:\n-> #0 \\(&a\\).* taken at " +
		     here(take_a) + ",\n +then \\(&b\\)\\{spin lock, "
		     "initialised at " + here(init_b) + "\\} taken at " +
		     here(take_b) + ".*EMU VIOLATION: possible circular "
		     "locking dependency detected at " + here(opp_a));
}

TEST(Lockdep, TheSameOrderEveryTimeIsFine)
{
	struct mutex outer;
	struct rw_semaphore middle;
	spinlock_t inner;
	mutex_init(&outer);
	init_rwsem(&middle);
	spin_lock_init(&inner);
	for (int i = 0; i < 3; i++) {
		mutex_lock(&outer);
		down_write(&middle);
		spin_lock(&inner);
		spin_unlock(&inner);
		up_write(&middle);
		mutex_unlock(&outer);
		mutex_lock(&outer);
		spin_lock(&inner);
		spin_unlock(&inner);
		mutex_unlock(&outer);
	}
	EXPECT_FALSE(mutex_is_locked(&outer));
}

TEST(LockdepConcurrencyDeathTest, CycleThroughThreeLocksAcrossTasksIsReported)
{
	static struct mutex a, b, c;
	mutex_init(&a);
	mutex_init(&b);
	mutex_init(&c);
	{
		KThread first([] {
			mutex_lock(&a);
			mutex_lock(&b);
			mutex_unlock(&b);
			mutex_unlock(&a);
		});
	}
	const int ab = __LINE__ - 5;
	{
		KThread second([] {
			mutex_lock(&b);
			mutex_lock(&c);
			mutex_unlock(&c);
			mutex_unlock(&b);
		});
	}
	const int bc = __LINE__ - 5;
	mutex_lock(&c);
	auto take_a = [] { mutex_lock(&a); };
	EXPECT_DEATH(take_a(),
		     "possible circular locking dependency detected.*"
		     "chain is:\n-> #0 \\(&a\\).*then \\(&b\\).* taken at " +
		     here(ab) + " \\(by [-a-z]+/[0-9]+\\)\n-> #1 \\(&b\\).*"
		     "then \\(&c\\).* taken at " + here(bc) + ".*"
		     "EMU VIOLATION: possible circular locking dependency");
	mutex_unlock(&c);
}

TEST(Lockdep, TrylockInTheOppositeOrderIsFine)
{
	spinlock_t a, b;
	spin_lock_init(&a);
	spin_lock_init(&b);
	spin_lock(&a);
	spin_lock(&b);
	spin_unlock(&b);
	spin_unlock(&a);

	spin_lock(&b);
	ASSERT_EQ(spin_trylock(&a), 1);
	spin_unlock(&a);
	spin_unlock(&b);
	// The trylock added no b -> a: a -> b is still legal.
	spin_lock(&a);
	spin_lock(&b);
	spin_unlock(&b);
	spin_unlock(&a);
	EXPECT_FALSE(spin_is_locked(&a));
}

TEST(LockdepDeathTest, TwoLocksOfOneClassNestedAreRecursiveLocking)
{
	spinlock_t a, b;
	init_one(&a);
	init_one(&b);
	spin_lock(&a);
	const int take_a = __LINE__ - 1;
	auto take_b = [&] { spin_lock(&b); };
	const int take_b_line = __LINE__ - 1;
	EXPECT_DEATH(take_b(),
		     "possible recursive locking detected.*trying to acquire "
		     "lock:\n \\(l\\).*at " + here(take_b_line) + ".*"
		     "already holding lock:\n \\(l\\).*taken at " +
		     here(take_a) + ".*one class.*EMU VIOLATION: possible "
		     "recursive locking detected at " + here(take_b_line));
	spin_unlock(&a);
}

TEST(Lockdep, NestedSubclassOfOneClassIsFine)
{
	struct mutex locks[2];
	for (auto &m : locks)
		mutex_init(&m);
	mutex_lock(&locks[0]);
	mutex_lock_nested(&locks[1], 1);
	mutex_unlock(&locks[1]);
	mutex_unlock(&locks[0]);
	EXPECT_FALSE(mutex_is_locked(&locks[0]));
}

// ---- interrupt safety -----------------------------------------------------------

TEST(LockdepDeathTest, SoftirqLockTakenWithInterruptsOnIsReported)
{
	spinlock_t lock;
	spin_lock_init(&lock);
	int in_softirq_line = 0;
	emu::run_in_interrupt(emu::Interrupt::Soft, [&] {
		spin_lock(&lock);
		in_softirq_line = __LINE__ - 1;
		spin_unlock(&lock);
	});
	auto take = [&] { spin_lock(&lock); };
	const int take_line = __LINE__ - 1;
	EXPECT_DEATH(take(),
		     "inconsistent lock state.*inconsistent \\{IN-SOFTIRQ-W\\}"
		     " -> \\{SOFTIRQ-ON-W\\} usage.*\\[HC0:SC0:HE1:SE1\\] "
		     "takes:\n \\(&lock\\).*at " + here(take_line) + "\n"
		     "\\{IN-SOFTIRQ-W\\} state was registered at:\n " +
		     here(in_softirq_line) + ".*EMU VIOLATION: inconsistent "
		     "lock state at " + here(take_line));
}

TEST(LockdepDeathTest, LockTakenWithInterruptsOnThenInHardirqIsReported)
{
	spinlock_t lock;
	spin_lock_init(&lock);
	spin_lock(&lock);
	const int irqs_on = __LINE__ - 1;
	spin_unlock(&lock);
	auto irq = [&] {
		spin_lock(&lock);
		spin_unlock(&lock);
	};
	const int irq_line = __LINE__ - 3;
	EXPECT_DEATH(emu::run_in_interrupt(emu::Interrupt::Hard, irq),
		     "inconsistent \\{HARDIRQ-ON-W\\} -> \\{IN-HARDIRQ-W\\} "
		     "usage.*\\[HC1:SC0:HE0:SE1\\] takes:.*at " +
		     here(irq_line) + "\n\\{HARDIRQ-ON-W\\} state was "
		     "registered at:\n " + here(irqs_on));
}

TEST(Lockdep, IrqSafeLockAlwaysTakenWithIrqsaveIsFine)
{
	spinlock_t lock;
	spin_lock_init(&lock);
	auto take = [&] {
		unsigned long flags;
		spin_lock_irqsave(&lock, flags);
		spin_unlock_irqrestore(&lock, flags);
	};
	take();
	emu::run_in_interrupt(emu::Interrupt::Hard, take);
	emu::run_in_interrupt(emu::Interrupt::Soft, take);
	emu::run_in_interrupt(emu::Interrupt::Hard, [&] {
		spin_lock(&lock);   // interrupts are off in a hard interrupt
		spin_unlock(&lock);
	});
	take();
	spin_lock_irq(&lock);
	spin_unlock_irq(&lock);
	EXPECT_FALSE(irqs_disabled());
}

TEST(Lockdep, SoftirqLockTakenWithBottomHalvesOffIsFine)
{
	spinlock_t lock;
	spin_lock_init(&lock);
	emu::run_in_interrupt(emu::Interrupt::Soft, [&] {
		spin_lock(&lock);
		spin_unlock(&lock);
	});
	spin_lock_bh(&lock);
	spin_unlock_bh(&lock);
	EXPECT_FALSE(in_softirq());
}

TEST(LockdepDeathTest, InterruptsTurnedOnWhileHoldingAnIrqSafeLockIsReported)
{
	spinlock_t lock;
	spin_lock_init(&lock);
	emu::run_in_interrupt(emu::Interrupt::Hard, [&] {
		spin_lock(&lock);
		spin_unlock(&lock);
	});
	auto enable = [&] {
		spin_lock_irq(&lock);
		local_irq_enable();
	};
	const int enable_line = __LINE__ - 2;
	EXPECT_DEATH(enable(),
		     "inconsistent \\{IN-HARDIRQ-W\\} -> \\{HARDIRQ-ON-W\\} "
		     "usage.*EMU VIOLATION: inconsistent lock state at " +
		     here(enable_line));
}

TEST(LockdepDeathTest, IrqSafeLockHeldWhileTakingAnIrqUnsafeLockIsReported)
{
	spinlock_t safe, unsafe;
	spin_lock_init(&safe);
	spin_lock_init(&unsafe);
	int in_irq_line = 0;
	emu::run_in_interrupt(emu::Interrupt::Hard, [&] {
		spin_lock(&safe);
		in_irq_line = __LINE__ - 1;
		spin_unlock(&safe);
	});
	spin_lock(&unsafe);
	const int irqs_on_line = __LINE__ - 1;
	spin_unlock(&unsafe);
	auto nest = [&] {
		unsigned long flags;
		spin_lock_irqsave(&safe, flags);
		spin_lock(&unsafe);
		spin_unlock(&unsafe);
		spin_unlock_irqrestore(&safe, flags);
	};
	const int nest_line = __LINE__ - 4;
	EXPECT_DEATH(nest(),
		     "HARDIRQ-safe -> HARDIRQ-unsafe lock order detected.*"
		     "is trying to acquire:\n \\(&unsafe\\).*at " +
		     here(nest_line) + ".*already holding:\n \\(&safe\\).*"
		     "connects a HARDIRQ-irq-safe lock:\n \\(&safe\\).*\n "
		     "\\{IN-HARDIRQ-W\\} state registered at " +
		     here(in_irq_line) + ".*to a HARDIRQ-irq-unsafe lock:\n "
		     "\\(&unsafe\\).*\n \\{HARDIRQ-ON-W\\} state registered "
		     "at " + here(irqs_on_line));
}

TEST(LockdepDeathTest, LockOrderedAfterAnIrqSafeLockThenTakenWithIrqsOnIsReported)
{
	spinlock_t safe, inner;
	spin_lock_init(&safe);
	spin_lock_init(&inner);
	emu::run_in_interrupt(emu::Interrupt::Soft, [&] {
		spin_lock(&safe);
		spin_unlock(&safe);
	});
	unsigned long flags;
	spin_lock_irqsave(&safe, flags);
	spin_lock(&inner);
	spin_unlock(&inner);
	spin_unlock_irqrestore(&safe, flags);
	auto take = [&] { spin_lock(&inner); };
	const int take_line = __LINE__ - 1;
	EXPECT_DEATH(take(),
		     "possible irq lock inversion dependency detected.*"
		     "takes:\n \\(&inner\\).*at " + here(take_line) +
		     ", so it becomes SOFTIRQ-irq-unsafe.*ordered after the "
		     "SOFTIRQ-irq-safe lock:\n \\(&safe\\)");
}

TEST(Lockdep, IrqSafeLockOrderingOnlyIrqSafeLocksIsFine)
{
	spinlock_t safe, inner;
	spin_lock_init(&safe);
	spin_lock_init(&inner);
	auto nest = [&] {
		unsigned long flags;
		spin_lock_irqsave(&safe, flags);
		spin_lock(&inner);
		spin_unlock(&inner);
		spin_unlock_irqrestore(&safe, flags);
	};
	emu::run_in_interrupt(emu::Interrupt::Hard, nest);
	nest();
	spin_lock_irq(&inner);
	spin_unlock_irq(&inner);
	emu::run_in_interrupt(emu::Interrupt::Soft, nest);
	EXPECT_FALSE(spin_is_locked(&inner));
}

// ---- recursive read of an rw_semaphore ------------------------------------------

TEST(LockdepDeathTest, RecursiveDownReadIsReportedWithoutAWaitingWriter)
{
	struct rw_semaphore sem;
	init_rwsem(&sem);
	down_read(&sem);
	const int first = __LINE__ - 1;
	auto again = [&] { down_read(&sem); };
	const int again_line = __LINE__ - 1;
	EXPECT_DEATH(again(),
		     "possible recursive locking detected.*\\(&sem\\)"
		     "\\{rw_semaphore, initialised at " + here(first - 1) +
		     "\\} 0x[0-9a-f]+ \\(read\\), at " + here(again_line) +
		     ".*already holding lock:.*taken at " + here(first) +
		     ".*waits forever as soon as a writer queues");
	up_read(&sem);
}

TEST(Lockdep, DownReadOfTwoRwSemaphoresIsFine)
{
	struct rw_semaphore first, second;
	init_rwsem(&first);
	init_rwsem(&second);
	down_read(&first);
	down_read(&second);
	up_read(&second);
	up_read(&first);
	down_read(&first);
	EXPECT_EQ(down_read_trylock(&first), 1);   // a trylock cannot wait
	up_read(&first);
	up_read(&first);
	EXPECT_FALSE(rwsem_is_locked(&first));
}

// ---- interrupts turned on inside an irqsave region ----------------------------------

TEST(LockdepDeathTest, SpinUnlockIrqInsideIrqsaveIsReported)
{
	spinlock_t outer, inner;
	spin_lock_init(&outer);
	spin_lock_init(&inner);
	auto bad = [&] {
		unsigned long flags;
		spin_lock_irqsave(&outer, flags);
		spin_lock_irq(&inner);
		spin_unlock_irq(&inner);
		spin_unlock_irqrestore(&outer, flags);
	};
	const int save_line = __LINE__ - 5;
	const int unlock_line = __LINE__ - 4;
	EXPECT_DEATH(bad(),
		     "interrupts enabled inside an irqsave region.*turns "
		     "interrupts on at " + here(unlock_line) + ".*"
		     "local_irq_save \\(spin_lock_irqsave\\) opened at " +
		     here(save_line) + ".*EMU VIOLATION: interrupts enabled "
		     "inside an irqsave region at " + here(unlock_line));
}

TEST(Lockdep, IrqsaveInsideSpinLockIrqIsFine)
{
	spinlock_t outer, inner;
	spin_lock_init(&outer);
	spin_lock_init(&inner);
	unsigned long flags;
	spin_lock_irq(&outer);
	spin_lock_irqsave(&inner, flags);
	spin_unlock_irqrestore(&inner, flags);
	spin_unlock_irq(&outer);
	EXPECT_FALSE(irqs_disabled());
	EXPECT_TRUE(irqs_disabled_flags(flags));
}

// ---- semaphores: locks and signals ----------------------------------------------------

TEST(LockdepDeathTest, SemaphoreUsedAsALockIsOrdered)
{
	struct semaphore sem;
	struct mutex m;
	sema_init(&sem, 1);
	mutex_init(&m);
	down(&sem);
	mutex_lock(&m);
	mutex_unlock(&m);
	up(&sem);
	mutex_lock(&m);
	auto take = [&] { down(&sem); };
	EXPECT_DEATH(take(),
		     "possible circular locking dependency detected.*"
		     "\\(&sem\\)\\{semaphore, initialised at " +
		     here(__LINE__ - 11) + "\\}");
	mutex_unlock(&m);
}

// A lock initialised in memory that held anything before (a stack slot,
// a kmalloc that is not zeroed) is validated like one in clean memory:
// nothing left in its key makes it look like a signal.
TEST(LockdepDeathTest, LocksInitialisedOverStaleMemoryAreOrdered)
{
	struct mutex m;
	struct rw_semaphore rw;
	struct semaphore sem;
	std::memset(&m, 0xff, sizeof(m));
	std::memset(&rw, 0xff, sizeof(rw));
	std::memset(&sem, 0xff, sizeof(sem));
	mutex_init(&m);
	init_rwsem(&rw);
	sema_init(&sem, 1);
	const int init_line = __LINE__ - 3;

	down(&sem);
	down_write(&rw);
	mutex_lock(&m);
	mutex_unlock(&m);
	up_write(&rw);
	up(&sem);

	auto mutex_then_rwsem = [&] {
		mutex_lock(&m);
		down_write(&rw);
	};
	EXPECT_DEATH(mutex_then_rwsem(),
		     "possible circular locking dependency detected.*"
		     "\\(&rw\\)\\{rw_semaphore, initialised at " +
		     here(init_line + 1) + "\\}.*\\(&m\\)\\{mutex, "
		     "initialised at " + here(init_line) + "\\}");
	auto rwsem_then_sem = [&] {
		down_read(&rw);
		down(&sem);
	};
	EXPECT_DEATH(rwsem_then_sem(),
		     "possible circular locking dependency detected.*"
		     "\\(&sem\\)\\{semaphore, initialised at " +
		     here(init_line + 2) + "\\}");
}

TEST(LockdepConcurrency, SignalSemaphoreUpAndDownAcrossTasksIsNotOrdered)
{
	// Starts at 1 like the driver's signalThread: the first down takes
	// the unit, the second waits for another task's up.
	static struct semaphore signal;
	static struct mutex m;
	sema_init(&signal, 1);
	mutex_init(&m);
	KThread waiter([] {
		down(&signal);
		mutex_lock(&m);   // would be signal -> m if signal were a lock
		mutex_unlock(&m);
		down(&signal);
	});
	ASSERT_TRUE(eventually([] { return sem_waiters(&signal) == 1; }));
	up(&signal);   // not the taker's: signal is a signal from now on
	waiter.join();
	mutex_lock(&m);
	up(&signal);
	down(&signal);   // m -> signal: no cycle, signals are not ordered
	mutex_unlock(&m);
	EXPECT_EQ(down_trylock(&signal), 1);
}

TEST(Lockdep, CountingSemaphoreIsNeverOrdered)
{
	struct semaphore slots;
	struct mutex m;
	sema_init(&slots, 2);
	mutex_init(&m);
	down(&slots);
	mutex_lock(&m);
	mutex_unlock(&m);
	mutex_lock(&m);
	down(&slots);
	mutex_unlock(&m);
	up(&slots);
	up(&slots);
	EXPECT_EQ(down_trylock(&slots), 0);
	up(&slots);
}

// ---- hang watchdog ----------------------------------------------------------------------

TEST(HangConcurrencyDeathTest, DeadlockOfTwoTasksIsReportedWithTheirLocksAndWaits)
{
	// A deadlock the validator cannot foresee: `go` is a signal, so
	// "holds a, waits for go" orders nothing.
	static struct mutex a;
	static struct semaphore go;
	mutex_init(&a);
	const int init_a = __LINE__ - 1;
	sema_init(&go, 0);
	const int init_go = __LINE__ - 1;
	auto deadlock = [] {
		KThread holder([] {
			mutex_lock(&a);
			down(&go);
			mutex_unlock(&a);
		});
		eventually([] { return sem_waiters(&go) == 1; });
		KThread raiser([] {
			mutex_lock(&a);
			up(&go);
			mutex_unlock(&a);
		});
	};
	const int holder_lock = __LINE__ - 11;
	const int holder_wait = __LINE__ - 11;
	const int raiser_lock = __LINE__ - 7;
	emu::set_hang_timeout(std::chrono::milliseconds(1000));
	EXPECT_DEATH(deadlock(),
		     "INFO: task [-a-z]+:[0-9]+ blocked for more than 1 "
		     "seconds.*every task:.*[-a-z]+/([0-9]+): blocked waiting "
		     "for semaphore &go 0x[0-9a-f]+ \\(initialised at " +
		     here(init_go) + "\\) at " + here(holder_wait) +
		     "\n +holds \\(&a\\)\\{mutex, initialised at " +
		     here(init_a) + "\\} 0x[0-9a-f]+, taken at " +
		     here(holder_lock) + "\n.*blocked waiting for mutex &a "
		     "0x[0-9a-f]+ \\(initialised at " + here(init_a) +
		     "\\), held by [-a-z]+/[0-9]+ at " + here(raiser_lock) +
		     ".*EMU VIOLATION: hang: no emulated task made progress "
		     "for 1 s with 3 task\\(s\\) blocked");
}

TEST(HangConcurrency, IdleAndProgressingTestsAreNotReported)
{
	emu::set_hang_timeout(std::chrono::milliseconds(100));
	// Nobody blocked: idle for several timeouts.
	std::this_thread::sleep_for(std::chrono::milliseconds(400));

	// A task blocked while others make progress.
	static struct completion done;
	init_completion(&done);
	spinlock_t lock;
	spin_lock_init(&lock);
	KThread waiter([] { wait_for_completion(&done); });
	auto until = std::chrono::steady_clock::now() +
		std::chrono::milliseconds(400);
	while (std::chrono::steady_clock::now() < until) {
		spin_lock(&lock);
		spin_unlock(&lock);
		std::this_thread::sleep_for(std::chrono::milliseconds(5));
	}
	complete(&done);
	waiter.join();
	EXPECT_FALSE(completion_done(&done));   // the waiter consumed it
}
