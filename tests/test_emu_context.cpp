// The context checks of the emulated kernel: what a real kernel would
// crash or deadlock on is fatal here, with the call site.  BUG() and
// friends end the process as the kernel ends the task.
#include <string>

#include "test_emu_util.hpp"

#include <linux/highmem.h>
#include <linux/interrupt.h>
#include <linux/mutex.h>
#include <linux/rwsem.h>
#include <linux/semaphore.h>
#include <linux/slab.h>
#include <linux/smp_lock.h>
#include <linux/spinlock.h>
#include <linux/uaccess.h>
#include <linux/vmalloc.h>

namespace {

std::string here(int line)
{
	return "tests/test_emu_context.cpp:" + std::to_string(line);
}

}  // namespace

namespace {

DEFINE_SPINLOCK(g_lock);
DECLARE_MUTEX(g_sem);

void down_under_spin_lock()
{
	spin_lock(&g_lock);
	down(&g_sem);
}
const int kDownLine = __LINE__ - 2;

}  // namespace

TEST(ContextDeathTest, DownUnderASpinLockIsReportedWithTheCallSite)
{
	EXPECT_DEATH(down_under_spin_lock(),
		     "EMU VIOLATION: sleeping function down called with a "
		     "spin lock held.*at " + here(kDownLine));
}

TEST(ContextDeathTest, SleepingAllocationWithInterruptsDisabledOnlyWarns)
{
	// 2.6.27 warns and goes on (tests/test_emu_irqs_off_sleep.cpp).
	unsigned long flags;
	local_irq_save(flags);
	const int line = __LINE__ + 1;
	void *p = kmalloc(16, GFP_KERNEL);
	local_irq_restore(flags);
	kfree(p);
	ExpectLog({"<3>BUG: sleeping function called from invalid context at " +
		   here(line), "<4>in_atomic():0, irqs_disabled():1"});
}

TEST(ContextDeathTest, AtomicAllocationUnderASpinLockIsFine)
{
	static DEFINE_SPINLOCK(lock);
	spin_lock(&lock);
	void *p = kmalloc(16, GFP_ATOMIC);
	spin_unlock(&lock);
	EXPECT_NE(p, nullptr);
	kfree(p);
}

TEST(ContextDeathTest, CopyFromUserUnderASpinLock)
{
	static DEFINE_SPINLOCK(lock);
	EXPECT_DEATH(
		{
			char buf[4];
			spin_lock(&lock);
			if (copy_from_user(buf, support::user_ptr(0x1000), 4))
				buf[0] = 0;
		},
		"sleeping function copy_from_user called with a spin lock "
		"held");
}

TEST(ContextDeathTest, SleepingBetweenKmapAtomicAndKunmapAtomic)
{
	EXPECT_DEATH(
		{
			struct page *page = alloc_page(GFP_KERNEL);
			void *a = kmap_atomic(page, KM_USER0);
			(void)a;
			void *v = vmalloc(10);
			(void)v;
		},
		"sleeping function vmalloc called with preemption disabled");
}

TEST(ContextDeathTest, UnlockingASpinLockNotHeld)
{
	static DEFINE_SPINLOCK(lock);
	EXPECT_DEATH(spin_unlock(&lock),
		     "spin_unlock of a spin lock this task does not hold");
}

TEST(ContextDeathTest, SpinLockRecursion)
{
	static DEFINE_SPINLOCK(lock);
	EXPECT_DEATH(
		{
			spin_lock(&lock);
			spin_lock(&lock);
		},
		"spin lock recursion");
}

TEST(ContextDeathTest, UninitialisedSpinLock)
{
	EXPECT_DEATH(
		{
			spinlock_t *l = static_cast<spinlock_t *>(
				kmalloc(sizeof(spinlock_t), GFP_KERNEL));
			spin_lock(l);
		},
		"spin lock used before spin_lock_init");
}

TEST(ContextDeathTest, UpReadWithoutDownRead)
{
	static DECLARE_RWSEM(sem);
	EXPECT_DEATH(up_read(&sem),
		     "up_read of an rw_semaphore not held for reading");
}

TEST(ContextDeathTest, UpWriteWhileReadHeld)
{
	static DECLARE_RWSEM(sem);
	EXPECT_DEATH(
		{
			down_read(&sem);
			up_write(&sem);
		},
		"up_write of an rw_semaphore not held for writing");
}

TEST(ContextDeathTest, MutexUnlockByANonOwner)
{
	static DEFINE_MUTEX(m);
	EXPECT_DEATH(mutex_unlock(&m),
		     "mutex_unlock of a mutex this task does not hold");
}

TEST(ContextDeathTest, UnlockKernelWithoutTheLock)
{
	EXPECT_DEATH(unlock_kernel(), "unlock_kernel without lock_kernel");
}

TEST(ContextDeathTest, FreeingMemoryThatHoldsALockedSpinLock)
{
	EXPECT_DEATH(
		{
			auto *l = static_cast<spinlock_t *>(
				kmalloc(sizeof(spinlock_t), GFP_KERNEL));
			spin_lock_init(l);
			spin_lock(l);
			kfree(l);
		},
		"freeing memory that contains a held spin lock");
}

TEST(ContextDeathTest, FreeingMemoryThatHoldsAHeldRwsem)
{
	EXPECT_DEATH(
		{
			auto *s = static_cast<struct rw_semaphore *>(
				vmalloc(sizeof(struct rw_semaphore)));
			init_rwsem(s);
			down_write(s);
			vfree(s);
		},
		"freeing memory that contains a held rw_semaphore");
}

TEST(ContextDeathTest, DoubleKfree)
{
	EXPECT_DEATH(
		{
			void *p = kmalloc(8, GFP_KERNEL);
			kfree(p);
			kfree(p);
		},
		"kfree of memory that kmalloc did not hand out");
}

TEST(ContextDeathTest, DestroyingACacheWithLiveObjects)
{
	EXPECT_DEATH(
		{
			struct kmem_cache *c = kmem_cache_create(
				"kivHT0803", 16, 0, 0, nullptr);
			void *o = kmem_cache_alloc(c, GFP_KERNEL);
			(void)o;
			kmem_cache_destroy(c);
		},
		"kmem_cache_destroy of cache kivHT0803 that still has 1 "
		"objects");
}

TEST(ContextDeathTest, KunmapOfAPageNotKmapped)
{
	EXPECT_DEATH(
		{
			struct page *page = alloc_page(GFP_HIGHUSER);
			kunmap(page);
		},
		"kunmap of a page that is not kmapped");
}

TEST(ContextDeathTest, FreeingAKmappedPage)
{
	EXPECT_DEATH(
		{
			struct page *page = alloc_page(GFP_HIGHUSER);
			kmap(page);
			__free_page(page);
		},
		"freeing a page that is still kmapped");
}

TEST(ContextDeathTest, PutPageOfAFreedPage)
{
	EXPECT_DEATH(
		{
			struct page *page = alloc_page(GFP_KERNEL);
			__free_page(page);
			put_page(page);
		},
		"put_page of a page that is not allocated");
}

TEST(ContextDeathTest, BugPrintsTheKernelsLine)
{
	EXPECT_DEATH(BUG(), "kernel BUG at " + here(__LINE__) + "!");
}

TEST(ContextDeathTest, BugOnFalseDoesNothingTrueDies)
{
	BUG_ON(1 == 2);
	EXPECT_DEATH(BUG_ON(2 > 1), "kernel BUG at " + here(__LINE__) + "!");
}

TEST(Context, WarnOnLogsTheKernelsLinesAndGoesOn)
{
	int line = __LINE__ + 1;
	EXPECT_TRUE(WARN_ON(1));
	ExpectLog({"<4>------------[ cut here ]------------",
		   "<4>WARNING: at " + here(line) + " TestBody()"});
	EXPECT_FALSE(WARN_ON(0));
}

TEST(Context, SoftirqContextForbidsSleepingButAllowsAtomicWork)
{
	EXPECT_FALSE(in_interrupt());
	local_bh_disable();
	EXPECT_TRUE(in_interrupt());
	EXPECT_TRUE(in_atomic());
	void *p = kmalloc(4, GFP_ATOMIC);
	kfree(p);
	local_bh_enable();
	EXPECT_FALSE(in_interrupt());
}
