// The kmap_atomic slots, checked as 2.6.27's debug_kmap_atomic does: the
// slot type must suit the context, a slot is not mapped twice, and
// kunmap_atomic undoes exactly what its kmap_atomic did.
#include <string>

#include "test_emu_util.hpp"

#include <linux/highmem.h>
#include <linux/interrupt.h>

namespace {

std::string here(int line)
{
	return "tests/test_emu_kmap_atomic.cpp:" + std::to_string(line);
}

// One high-memory page, freed at scope end.
struct HighPage {
	struct page *page = alloc_page(GFP_HIGHUSER);
	~HighPage() { __free_page(page); }
};

}  // namespace

TEST(KmapAtomic, UserSlotsInProcessContext)
{
	HighPage a, b;
	char *x = static_cast<char *>(kmap_atomic(a.page, KM_USER0));
	char *y = static_cast<char *>(kmap_atomic(b.page, KM_USER1));
	x[0] = 1;
	y[0] = 2;
	kunmap_atomic(y, KM_USER1);
	kunmap_atomic(x + 100, KM_USER0);   // any address within the page
	// The slot is free again.
	kunmap_atomic(kmap_atomic(a.page, KM_USER0), KM_USER0);
	EXPECT_EQ(emu::usage().kmaps, 0);
}

TEST(KmapAtomic, IrqSlotsWithInterruptsDisabled)
{
	HighPage a, b;
	unsigned long flags;
	local_irq_save(flags);
	kunmap_atomic(kmap_atomic(a.page, KM_IRQ0), KM_IRQ0);
	kunmap_atomic(kmap_atomic(b.page, KM_BIO_SRC_IRQ), KM_BIO_SRC_IRQ);
	kunmap_atomic(kmap_atomic(b.page, KM_SOFTIRQ1), KM_SOFTIRQ1);
	local_irq_restore(flags);
}

TEST(KmapAtomic, HardInterruptSlotsInAHardInterrupt)
{
	HighPage a, b;
	local_irq_disable();
	irq_enter();
	kunmap_atomic(kmap_atomic(a.page, KM_IRQ1), KM_IRQ1);
	kunmap_atomic(kmap_atomic(b.page, KM_BIO_DST_IRQ), KM_BIO_DST_IRQ);
	kunmap_atomic(kmap_atomic(b.page, KM_BOUNCE_READ), KM_BOUNCE_READ);
	irq_exit();
	local_irq_enable();
}

TEST(KmapAtomic, SoftirqSlotsInSoftirqContext)
{
	HighPage a;
	local_bh_disable();
	kunmap_atomic(kmap_atomic(a.page, KM_SOFTIRQ0), KM_SOFTIRQ0);
	kunmap_atomic(kmap_atomic(a.page, KM_SKB_DATA_SOFTIRQ),
		      KM_SKB_DATA_SOFTIRQ);
	local_bh_enable();
}

TEST(KmapAtomicDeathTest, UserSlotInAHardInterrupt)
{
	HighPage a;
	const int line = __LINE__ + 5;
	EXPECT_DEATH(
		{
			local_irq_disable();
			irq_enter();
			kmap_atomic(a.page, KM_USER0);
		},
		"EMU VIOLATION: kmap_atomic slot KM_USER0 used in a hard "
		"interrupt at " + here(line));
}

TEST(KmapAtomicDeathTest, UserSlotInSoftirqContext)
{
	HighPage a;
	EXPECT_DEATH(
		{
			local_bh_disable();
			kmap_atomic(a.page, KM_USER1);
		},
		"kmap_atomic slot KM_USER1 used in softirq context");
}

TEST(KmapAtomicDeathTest, IrqSlotWithInterruptsEnabled)
{
	HighPage a;
	EXPECT_DEATH(kmap_atomic(a.page, KM_IRQ0),
		     "kmap_atomic slot KM_IRQ0 used with interrupts enabled");
}

TEST(KmapAtomicDeathTest, BioSlotWithInterruptsEnabled)
{
	HighPage a;
	EXPECT_DEATH(kmap_atomic(a.page, KM_BIO_SRC_IRQ),
		     "kmap_atomic slot KM_BIO_SRC_IRQ used with interrupts "
		     "enabled");
}

TEST(KmapAtomicDeathTest, SoftirqSlotInProcessContext)
{
	HighPage a;
	EXPECT_DEATH(kmap_atomic(a.page, KM_SOFTIRQ0),
		     "kmap_atomic slot KM_SOFTIRQ0 used in process context "
		     "with interrupts enabled");
}

TEST(KmapAtomicDeathTest, SlotMappedTwice)
{
	HighPage a, b;
	const int first = __LINE__ + 3;
	EXPECT_DEATH(
		{
			kmap_atomic(a.page, KM_USER0);
			kmap_atomic(b.page, KM_USER0);
		},
		"kmap_atomic slot KM_USER0 mapped again while still mapped "
		"\\(by kmap_atomic at " + here(first) + "\\)");
}

TEST(KmapAtomicDeathTest, KunmapAtomicOfASlotNotMapped)
{
	HighPage a;
	EXPECT_DEATH(
		{
			void *x = kmap_atomic(a.page, KM_USER0);
			kunmap_atomic(x, KM_USER1);
		},
		"kunmap_atomic of slot KM_USER1, which is not mapped");
}

TEST(KmapAtomicDeathTest, KunmapAtomicWithAnotherPagesAddress)
{
	HighPage a, b;
	EXPECT_DEATH(
		{
			void *x = kmap_atomic(a.page, KM_USER0);
			void *y = kmap_atomic(b.page, KM_USER1);
			kunmap_atomic(y, KM_USER0);
			(void)x;
		},
		"kunmap_atomic of slot KM_USER0 with an address its "
		"kmap_atomic \\(at .*\\) did not return");
}
