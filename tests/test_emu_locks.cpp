// The emulated kernel's locks: counting semaphores, reader/writer
// semaphores, spin locks with saved interrupt state, mutexes, completions,
// wait queues, atomics and bit operations.
#include <atomic>
#include <mutex>
#include <vector>

#include "test_emu_util.hpp"

#include <linux/bitops.h>
#include <linux/interrupt.h>
#include <linux/mutex.h>
#include <linux/rwsem.h>
#include <linux/semaphore.h>
#include <linux/spinlock.h>
#include <linux/wait.h>
#include <asm/atomic.h>

using emutest::eventually;
using emutest::KThread;
using emutest::run_in_threads;
using emutest::settle;

namespace {

int waiters(struct list_head *list, spinlock_t *lock)
{
	int n = 0;
	struct list_head *pos;
	unsigned long flags;

	spin_lock_irqsave(lock, flags);
	list_for_each(pos, list)
		n++;
	spin_unlock_irqrestore(lock, flags);
	return n;
}

int sem_waiters(struct semaphore *sem)
{
	return waiters(&sem->wait_list, &sem->lock);
}

int rwsem_waiters(struct rw_semaphore *sem)
{
	return waiters(&sem->wait_list, &sem->wait_lock);
}

}  // namespace

// ---- counting semaphores ---------------------------------------------------------

TEST(Semaphore, CountsUnitsAndTrylockReportsOneWhenItWouldSleep)
{
	struct semaphore sem;
	sema_init(&sem, 2);
	down(&sem);
	EXPECT_EQ(down_trylock(&sem), 0);
	EXPECT_EQ(down_trylock(&sem), 1);
	up(&sem);
	EXPECT_EQ(down_interruptible(&sem), 0);
	up(&sem);
	up(&sem);
	EXPECT_EQ(sem.count, 2u);
}

TEST(Semaphore, StaticMutexStartsFree)
{
	static DECLARE_MUTEX(sem);
	EXPECT_EQ(down_trylock(&sem), 0);
	EXPECT_EQ(down_trylock(&sem), 1);
	up(&sem);
}

TEST(SemaphoreConcurrency, WaitersAreServedInArrivalOrder)
{
	static struct semaphore sem;
	sema_init(&sem, 0);
	std::mutex order_mutex;
	std::vector<int> order;
	std::vector<std::unique_ptr<KThread>> threads;
	for (int i = 0; i < 4; i++) {
		threads.push_back(std::make_unique<KThread>([&, i] {
			down(&sem);
			std::lock_guard lk(order_mutex);
			order.push_back(i);
		}));
		// Each waiter is queued before the next one arrives.
		ASSERT_TRUE(eventually([&] { return sem_waiters(&sem) == i + 1; }));
	}
	for (int i = 0; i < 4; i++) {
		up(&sem);
		ASSERT_TRUE(eventually([&] {
			std::lock_guard lk(order_mutex);
			return order.size() == static_cast<size_t>(i + 1);
		}));
	}
	for (auto &t : threads)
		t->join();
	EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3}));
	EXPECT_EQ(sem.count, 0u);
}

TEST(SemaphoreConcurrency, UpHandsTheUnitToTheWaiterNotToALaterDown)
{
	static struct semaphore sem;
	sema_init(&sem, 0);
	std::atomic<bool> got{false};
	KThread waiter([&] {
		down(&sem);
		got = true;
	});
	ASSERT_TRUE(eventually([&] { return sem_waiters(&sem) == 1; }));
	up(&sem);
	// The unit went to the waiter: a trylock now finds nothing.
	EXPECT_EQ(down_trylock(&sem), 1);
	waiter.join();
	EXPECT_TRUE(got);
}

TEST(SemaphoreConcurrency, DownInterruptibleReturnsEintrOnAnAllowedSignal)
{
	static struct semaphore sem;
	sema_init(&sem, 0);
	std::atomic<int> result{1};
	std::atomic<int> pid{0};
	KThread t([&] {
		daemonize("sigtest");
		allow_signal(SIGKILL);
		pid = current->pid;
		result = down_interruptible(&sem);
	});
	ASSERT_TRUE(eventually([&] { return sem_waiters(&sem) == 1; }));
	send_sig(SIGKILL, find_task_by_pid(pid), 1);
	t.join();
	EXPECT_EQ(result, -EINTR);
	EXPECT_EQ(sem_waiters(&sem), 0);
	EXPECT_EQ(sem.count, 0u);
}

TEST(SemaphoreConcurrency, ABlockedSignalDoesNotInterrupt)
{
	static struct semaphore sem;
	sema_init(&sem, 0);
	std::atomic<int> result{1};
	std::atomic<int> pid{0};
	KThread t([&] {
		daemonize("blocked");   // blocks every signal
		pid = current->pid;
		result = down_interruptible(&sem);
	});
	ASSERT_TRUE(eventually([&] { return sem_waiters(&sem) == 1; }));
	send_sig(SIGTERM, find_task_by_pid(pid), 1);
	settle();
	EXPECT_EQ(result, 1);
	up(&sem);
	t.join();
	EXPECT_EQ(result, 0);
}

// ---- reader/writer semaphores ----------------------------------------------------------

TEST(Rwsem, ReadersShareWritersExclude)
{
	static DECLARE_RWSEM(sem);
	down_read(&sem);
	EXPECT_EQ(down_read_trylock(&sem), 1);
	EXPECT_EQ(down_write_trylock(&sem), 0);
	up_read(&sem);
	up_read(&sem);
	EXPECT_EQ(down_write_trylock(&sem), 1);
	EXPECT_EQ(down_read_trylock(&sem), 0);
	up_write(&sem);
	EXPECT_EQ(sem.activity, 0);
}

TEST(Rwsem, DowngradeKeepsReadSide)
{
	struct rw_semaphore sem;
	init_rwsem(&sem);
	down_write(&sem);
	downgrade_write(&sem);
	EXPECT_EQ(down_read_trylock(&sem), 1);
	up_read(&sem);
	up_read(&sem);
	EXPECT_EQ(rwsem_is_locked(&sem), 0);
}

TEST(RwsemConcurrency, AWaitingWriterBlocksNewReaders)
{
	static struct rw_semaphore sem;
	init_rwsem(&sem);
	std::mutex m;
	std::vector<std::string> events;
	auto note = [&](const char *e) {
		std::lock_guard lk(m);
		events.push_back(e);
	};

	down_read(&sem);   // the test holds a read lock
	KThread writer([&] {
		down_write(&sem);
		note("writer in");
		up_write(&sem);
	});
	ASSERT_TRUE(eventually([&] { return rwsem_waiters(&sem) == 1; }));
	KThread reader([&] {
		down_read(&sem);
		note("reader in");
		up_read(&sem);
	});
	ASSERT_TRUE(eventually([&] { return rwsem_waiters(&sem) == 2; }));
	// The semaphore is only read-held, yet the new reader waits behind
	// the writer, and a trylock is refused as well.
	settle();
	{
		std::lock_guard lk(m);
		EXPECT_TRUE(events.empty());
	}
	EXPECT_EQ(down_read_trylock(&sem), 0);
	up_read(&sem);
	writer.join();
	reader.join();
	EXPECT_EQ(events, (std::vector<std::string>{"writer in", "reader in"}));
}

TEST(RwsemConcurrency, ReleaseWakesAllReadersAtTheHeadUpToTheNextWriter)
{
	static struct rw_semaphore sem;
	init_rwsem(&sem);
	std::atomic<int> readers_in{0};
	std::atomic<bool> release{false};
	std::atomic<bool> writer_in{false};

	down_write(&sem);
	std::vector<std::unique_ptr<KThread>> readers;
	for (int i = 0; i < 3; i++) {
		readers.push_back(std::make_unique<KThread>([&] {
			down_read(&sem);
			readers_in++;
			while (!release)
				schedule();
			up_read(&sem);
		}));
		ASSERT_TRUE(eventually([&] { return rwsem_waiters(&sem) == i + 1; }));
	}
	KThread writer([&] {
		down_write(&sem);
		writer_in = true;
		up_write(&sem);
	});
	ASSERT_TRUE(eventually([&] { return rwsem_waiters(&sem) == 4; }));
	up_write(&sem);
	// All three readers run together; the writer waits for them.
	ASSERT_TRUE(eventually([&] { return readers_in == 3; }));
	EXPECT_FALSE(writer_in);
	release = true;
	for (auto &r : readers)
		r->join();
	writer.join();
	EXPECT_TRUE(writer_in);
}

// ---- spin locks -------------------------------------------------------------------

TEST(SpinLock, IrqsaveSavesAndRestoresTheInterruptState)
{
	static DEFINE_SPINLOCK(a);
	spinlock_t b;
	spin_lock_init(&b);
	unsigned long fa, fb;

	EXPECT_FALSE(irqs_disabled());
	spin_lock_irqsave(&a, fa);
	EXPECT_TRUE(irqs_disabled());
	EXPECT_NE(fa & X86_EFLAGS_IF, 0u);
	spin_lock_irqsave(&b, fb);
	EXPECT_EQ(fb & X86_EFLAGS_IF, 0u);
	spin_unlock_irqrestore(&b, fb);
	EXPECT_TRUE(irqs_disabled());   // still inside a's section
	spin_unlock_irqrestore(&a, fa);
	EXPECT_FALSE(irqs_disabled());
}

TEST(SpinLock, TrylockAndIsLocked)
{
	spinlock_t l = SPIN_LOCK_UNLOCKED;
	EXPECT_FALSE(spin_is_locked(&l));
	EXPECT_TRUE(spin_trylock(&l));
	EXPECT_TRUE(spin_is_locked(&l));
	spin_unlock(&l);
	spin_lock_bh(&l);
	EXPECT_TRUE(in_softirq());
	spin_unlock_bh(&l);
	EXPECT_FALSE(in_softirq());
}

TEST(SpinLockConcurrency, ExcludesOtherTasks)
{
	static DEFINE_SPINLOCK(lock);
	static long counter;
	counter = 0;
	run_in_threads(4, [](int) {
		for (int k = 0; k < 2000; k++) {
			unsigned long flags;
			spin_lock_irqsave(&lock, flags);
			counter = counter + 1;
			spin_unlock_irqrestore(&lock, flags);
		}
	});
	EXPECT_EQ(counter, 8000);
}

TEST(RwLockConcurrency, ReadersShareWriterExcludes)
{
	static DEFINE_RWLOCK(lock);
	static int value;
	value = 0;
	read_lock(&lock);
	EXPECT_EQ(read_trylock(&lock), 1);
	read_unlock(&lock);
	EXPECT_EQ(write_trylock(&lock), 0);
	std::atomic<bool> wrote{false};
	KThread w([&] {
		write_lock(&lock);
		value = 1;
		wrote = true;
		write_unlock(&lock);
	});
	settle();
	EXPECT_FALSE(wrote);
	read_unlock(&lock);
	w.join();
	read_lock(&lock);
	EXPECT_EQ(value, 1);
	read_unlock(&lock);
}

// ---- mutexes -------------------------------------------------------------------

TEST(Mutex, TrylockAndIsLocked)
{
	static DEFINE_MUTEX(m);
	EXPECT_FALSE(mutex_is_locked(&m));
	EXPECT_EQ(mutex_trylock(&m), 1);
	EXPECT_TRUE(mutex_is_locked(&m));
	EXPECT_EQ(mutex_trylock(&m), 0);
	mutex_unlock(&m);
	EXPECT_FALSE(mutex_is_locked(&m));
}

TEST(MutexConcurrency, ExcludesAndHandsOver)
{
	static struct mutex m;
	mutex_init(&m);
	static long counter;
	counter = 0;
	run_in_threads(4, [](int) {
		for (int k = 0; k < 500; k++) {
			mutex_lock(&m);
			long v = counter;
			if (k % 50 == 0)
				schedule();
			counter = v + 1;
			mutex_unlock(&m);
		}
	});
	EXPECT_EQ(counter, 2000);
	EXPECT_FALSE(mutex_is_locked(&m));
}

// ---- completions and wait queues ----------------------------------------------------

TEST(Completion, CountsCompletionsAndTryWaitDoesNotSleep)
{
	struct completion c;
	init_completion(&c);
	EXPECT_FALSE(try_wait_for_completion(&c));
	EXPECT_FALSE(completion_done(&c));
	complete(&c);
	complete(&c);
	wait_for_completion(&c);
	EXPECT_TRUE(try_wait_for_completion(&c));
	EXPECT_FALSE(try_wait_for_completion(&c));
}

TEST(CompletionConcurrency, CompleteWakesOneWaiterCompleteAllWakesEvery)
{
	static DECLARE_COMPLETION(c);
	std::atomic<int> woken{0};
	std::vector<std::unique_ptr<KThread>> threads;
	for (int i = 0; i < 3; i++)
		threads.push_back(std::make_unique<KThread>([&] {
			wait_for_completion(&c);
			woken++;
		}));
	ASSERT_TRUE(eventually([&] {
		return waiters(&c.wait.task_list, &c.wait.lock) == 3;
	}));
	complete(&c);
	ASSERT_TRUE(eventually([&] { return woken == 1; }));
	settle();
	EXPECT_EQ(woken, 1);
	complete_all(&c);
	for (auto &t : threads)
		t->join();
	EXPECT_EQ(woken, 3);
	EXPECT_TRUE(completion_done(&c));
}

TEST(WaitQueueConcurrency, WaitEventSleepsUntilTheConditionIsWokenTrue)
{
	static DECLARE_WAIT_QUEUE_HEAD(wq);
	static std::atomic<int> flag;
	flag = 0;
	std::atomic<bool> done{false};
	KThread t([&] {
		wait_event(wq, flag.load() != 0);
		done = true;
	});
	ASSERT_TRUE(eventually([&] {
		return waiters(&wq.task_list, &wq.lock) == 1;
	}));
	wake_up(&wq);   // condition still false: back to sleep
	settle();
	EXPECT_FALSE(done);
	flag = 1;
	wake_up(&wq);
	t.join();
	EXPECT_TRUE(done);
}

// ---- atomics and bit operations --------------------------------------------------------

TEST(Atomic, OperationsReturnTheKernelsResults)
{
	atomic_t v = ATOMIC_INIT(1);
	EXPECT_TRUE(atomic_dec_and_test(&v));
	EXPECT_EQ(atomic_inc_return(&v), 1);
	atomic_add(5, &v);
	EXPECT_EQ(atomic_read(&v), 6);
	EXPECT_EQ(atomic_sub_return(6, &v), 0);
	EXPECT_TRUE(atomic_add_negative(-1, &v));
	atomic_set(&v, 3);
	EXPECT_EQ(atomic_cmpxchg(&v, 3, 7), 3);
	EXPECT_EQ(atomic_read(&v), 7);
	EXPECT_EQ(atomic_add_unless(&v, 1, 7), 0);
	EXPECT_EQ(atomic_inc_not_zero(&v), 1);
	EXPECT_EQ(atomic_read(&v), 8);
}

TEST(Bitops, BitNIsBitNMod8OfByteNDiv8)
{
	unsigned char page[16] = {};
	auto *map = reinterpret_cast<unsigned long *>(page);
	set_bit(0, map);
	set_bit(2, map);
	set_bit(9, map);
	set_bit(127, map);
	EXPECT_EQ(page[0], 0x05);
	EXPECT_EQ(page[1], 0x02);
	EXPECT_EQ(page[15], 0x80);
	EXPECT_TRUE(test_bit(127, map));
	EXPECT_FALSE(test_bit(1, map));
	clear_bit(2, map);
	EXPECT_EQ(page[0], 0x01);
	EXPECT_EQ(test_and_set_bit(3, map), 0);
	EXPECT_EQ(test_and_set_bit(3, map), 1);
	EXPECT_EQ(test_and_clear_bit(3, map), 1);
	__set_bit(64, map);
	EXPECT_EQ(page[8], 0x01);
	EXPECT_EQ(find_first_bit(map, 128), 0u);
	EXPECT_EQ(find_next_bit(map, 128, 1), 9u);
	EXPECT_EQ(find_first_zero_bit(map, 128), 1u);
}

TEST(BitopsConcurrency, SetBitIsAtomic)
{
	static unsigned long map[4];
	run_in_threads(4, [](int i) {
		for (int b = i; b < 256; b += 4)
			set_bit(b, map);
	});
	for (int b = 0; b < 256; b++)
		EXPECT_TRUE(test_bit(b, map)) << b;
}

// A task taking a mutex it already holds would sleep forever on 2.6.27
// (its mutex debugging reports it): reported with both call sites.
namespace {

DEFINE_MUTEX(g_recursive);

void take_twice()
{
	mutex_lock(&g_recursive);
	mutex_lock(&g_recursive);
}
const int kSecondLock = __LINE__ - 2;

}  // namespace

TEST(MutexDeathTest, TakingAMutexThisTaskHoldsIsReportedWithBothSites)
{
	EXPECT_DEATH(take_twice(),
		     "EMU VIOLATION: recursive mutex_lock: already taken by "
		     "this task at tests/test_emu_locks.cpp:" +
		     std::to_string(kSecondLock - 1) +
		     " at tests/test_emu_locks.cpp:" +
		     std::to_string(kSecondLock));
}

TEST(Mutex, RetakingAfterUnlockIsNotRecursion)
{
	mutex_lock(&g_recursive);
	mutex_unlock(&g_recursive);
	mutex_lock(&g_recursive);
	EXPECT_TRUE(mutex_is_locked(&g_recursive));
	mutex_unlock(&g_recursive);
	EXPECT_FALSE(mutex_is_locked(&g_recursive));
}
