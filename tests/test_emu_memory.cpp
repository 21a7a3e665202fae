// Memory of the emulated kernel: kmalloc, vmalloc, pages and kmap, object
// caches; accounting (usage, leaks) and failure injection.
#include <cstring>
#include <string>

#include "test_emu_util.hpp"

#include <linux/gfp.h>
#include <linux/hardirq.h>
#include <linux/highmem.h>
#include <linux/mm.h>
#include <linux/slab.h>
#include <linux/vmalloc.h>

namespace {

bool all_bytes(const void *p, size_t n, unsigned char v)
{
	auto *b = static_cast<const unsigned char *>(p);
	for (size_t i = 0; i < n; i++)
		if (b[i] != v)
			return false;
	return true;
}

}  // namespace

// ---- kmalloc ------------------------------------------------------------------

TEST(Kmalloc, AccountsEachObjectWithItsCallSite)
{
	void *p = kmalloc(64, GFP_KERNEL);
	int line = __LINE__ - 1;
	ASSERT_NE(p, nullptr);
	EXPECT_EQ(emu::usage().kmalloc_objects, 1);
	EXPECT_EQ(emu::usage().kmalloc_bytes, 64);
	EXPECT_EQ(ksize(p), 64u);
	EXPECT_EQ(emu::leaks(), (std::vector<std::string>{
		"kmalloc 64 bytes at tests/test_emu_memory.cpp:" +
		std::to_string(line)}));
	kfree(p);
	EXPECT_EQ(emu::usage(), emu::Usage{});
	EXPECT_TRUE(emu::leaks().empty());
}

TEST(Kmalloc, NewMemoryIsPoisonedKzallocIsZero)
{
	void *p = kmalloc(100, GFP_ATOMIC);
	void *z = kzalloc(100, GFP_KERNEL);
	EXPECT_TRUE(all_bytes(p, 100, POISON_INUSE));
	EXPECT_TRUE(all_bytes(z, 100, 0));
	kfree(p);
	kfree(z);
}

TEST(Kmalloc, ZeroSizeGivesZeroSizePtrAndFreeingItOrNullDoesNothing)
{
	void *p = kmalloc(0, GFP_KERNEL);
	EXPECT_EQ(p, ZERO_SIZE_PTR);
	kfree(p);
	kfree(nullptr);
	EXPECT_EQ(emu::usage().kmalloc_objects, 0);
}

TEST(Kmalloc, TooLargeFails)
{
	EXPECT_EQ(kmalloc(KMALLOC_MAX_SIZE + 1, GFP_KERNEL), nullptr);
}

TEST(Kmalloc, KstrdupAndKcalloc)
{
	char *s = kstrdup("kivHT0801", GFP_KERNEL);
	EXPECT_STREQ(s, "kivHT0801");
	int *a = static_cast<int *>(kcalloc(4, sizeof(int), GFP_KERNEL));
	EXPECT_TRUE(all_bytes(a, 4 * sizeof(int), 0));
	EXPECT_EQ(emu::usage().kmalloc_objects, 2);
	kfree(s);
	kfree(a);
}

// ---- failure injection ---------------------------------------------------------------

TEST(FailureInjection, NthCallFailsOnce)
{
	unsigned long before = emu::alloc_calls(emu::Alloc::Kmalloc);
	emu::fail_nth(emu::Alloc::Kmalloc, 2);
	void *a = kmalloc(8, GFP_KERNEL);
	void *b = kmalloc(8, GFP_KERNEL);
	void *c = kmalloc(8, GFP_KERNEL);
	EXPECT_NE(a, nullptr);
	EXPECT_EQ(b, nullptr);
	EXPECT_NE(c, nullptr);
	EXPECT_EQ(emu::alloc_calls(emu::Alloc::Kmalloc), before + 3);
	EXPECT_EQ(emu::usage().kmalloc_objects, 2);
	kfree(a);
	kfree(c);
}

TEST(FailureInjection, EveryCallAfterNFailsUntilCleared)
{
	emu::fail_after(emu::Alloc::Vmalloc, 1);
	void *a = vmalloc(10);
	EXPECT_NE(a, nullptr);
	EXPECT_EQ(vmalloc(10), nullptr);
	EXPECT_EQ(vmalloc(10), nullptr);
	emu::fail_clear(emu::Alloc::Vmalloc);
	void *b = vmalloc(10);
	EXPECT_NE(b, nullptr);
	vfree(a);
	vfree(b);
}

TEST(FailureInjection, KindsAreIndependentAndScopesClear)
{
	{
		auto scope = emu::FailScope::after(emu::Alloc::Pages, 0);
		EXPECT_EQ(alloc_page(GFP_KERNEL), nullptr);
		void *p = kmalloc(1, GFP_KERNEL);   // another kind
		EXPECT_NE(p, nullptr);
		kfree(p);
	}
	struct page *page = alloc_page(GFP_KERNEL);
	EXPECT_NE(page, nullptr);
	__free_page(page);
}

// ---- vmalloc --------------------------------------------------------------------------

TEST(Vmalloc, PageAlignedAccountedAndZeroSizeFails)
{
	void *p = vmalloc(5000);
	ASSERT_NE(p, nullptr);
	EXPECT_EQ(reinterpret_cast<unsigned long>(p) & ~PAGE_MASK, 0u);
	EXPECT_TRUE(all_bytes(p, 5000, POISON_INUSE));
	EXPECT_EQ(emu::usage().vmalloc_bytes, 5000);
	EXPECT_EQ(vmalloc(0), nullptr);
	vfree(p);
	vfree(nullptr);
	EXPECT_EQ(emu::usage().vmalloc_objects, 0);
}

// ---- pages and kmap --------------------------------------------------------------------

TEST(Pages, ReferenceCountFreesAtZero)
{
	struct page *page = alloc_page(GFP_KERNEL);
	ASSERT_NE(page, nullptr);
	EXPECT_EQ(page_count(page), 1);
	get_page(page);
	EXPECT_EQ(page_count(page), 2);
	__free_page(page);   // drops one reference only
	EXPECT_EQ(emu::usage().pages, 1);
	EXPECT_EQ(page_count(page), 1);
	put_page(page);
	EXPECT_EQ(emu::usage().pages, 0);
}

TEST(Pages, HigherOrdersCountEveryPage)
{
	struct page *pages = alloc_pages(GFP_KERNEL | __GFP_ZERO, 2);
	ASSERT_NE(pages, nullptr);
	EXPECT_EQ(emu::usage().pages, 4);
	EXPECT_TRUE(all_bytes(page_address(pages), 4 * PAGE_SIZE, 0));
	EXPECT_EQ(virt_to_page(static_cast<char *>(page_address(pages)) +
			       PAGE_SIZE + 5), pages + 1);
	__free_pages(pages, 2);
	EXPECT_EQ(emu::usage().pages, 0);
}

TEST(Pages, LowmemPageHasAnAddress)
{
	unsigned long addr = __get_free_page(GFP_KERNEL);
	ASSERT_NE(addr, 0u);
	struct page *page = virt_to_page(reinterpret_cast<void *>(addr));
	EXPECT_EQ(page_address(page), reinterpret_cast<void *>(addr));
	EXPECT_FALSE(PageHighMem(page));
	free_page(addr);
	EXPECT_EQ(emu::usage().pages, 0);
}

TEST(Pages, HighmemPageHasAnAddressOnlyWhileKmapped)
{
	struct page *page = alloc_page(GFP_HIGHUSER);
	ASSERT_NE(page, nullptr);
	EXPECT_TRUE(PageHighMem(page));
	EXPECT_EQ(page_address(page), nullptr);
	void *a = kmap(page);
	ASSERT_NE(a, nullptr);
	EXPECT_EQ(page_address(page), a);
	EXPECT_EQ(emu::usage().kmaps, 1);
	memset(a, 0xab, PAGE_SIZE);
	kunmap(page);
	EXPECT_EQ(page_address(page), nullptr);
	EXPECT_EQ(emu::usage().kmaps, 0);
	void *b = kmap_atomic(page, KM_USER0);
	EXPECT_TRUE(in_atomic());
	EXPECT_TRUE(all_bytes(b, PAGE_SIZE, 0xab));
	kunmap_atomic(b, KM_USER0);
	EXPECT_FALSE(in_atomic());
	__free_page(page);
}

TEST(Pages, AKmapLeftMappedIsReportedWithItsSite)
{
	struct page *page = alloc_page(GFP_HIGHUSER);
	kmap(page);
	int line = __LINE__ - 1;
	auto leaks = emu::leaks();
	bool found = false;
	for (auto &l : leaks)
		if (l.find("kmap (no kunmap) at tests/test_emu_memory.cpp:" +
			   std::to_string(line)) == 0)
			found = true;
	EXPECT_TRUE(found);
	kunmap(page);
	__free_page(page);
}

// ---- object caches ------------------------------------------------------------------------

namespace {
int g_ctor_calls;
void count_ctor(void *obj)
{
	g_ctor_calls++;
	memset(obj, 0x11, 24);
}
}  // namespace

TEST(Slab, NamedCacheHandsOutObjectsOfItsSize)
{
	static const char name[] = "kivHT0801";
	g_ctor_calls = 0;
	struct kmem_cache *c = kmem_cache_create(name, 24, 0, 0, count_ctor);
	ASSERT_NE(c, nullptr);
	EXPECT_EQ(kmem_cache_size(c), 24u);
	EXPECT_STREQ(kmem_cache_name(c), "kivHT0801");
	void *a = kmem_cache_alloc(c, GFP_NOIO);
	EXPECT_EQ(g_ctor_calls, 1);
	EXPECT_TRUE(all_bytes(a, 24, 0x11));
	void *z = kmem_cache_zalloc(c, GFP_ATOMIC);
	EXPECT_TRUE(all_bytes(z, 24, 0));
	EXPECT_EQ(emu::usage().slab_caches, 1);
	EXPECT_EQ(emu::usage().slab_objects, 2);
	kmem_cache_free(c, a);
	kmem_cache_free(c, z);
	kmem_cache_destroy(c);
	EXPECT_EQ(emu::usage(), emu::Usage{});
}

TEST(Slab, DuplicateNameIsRefusedWithTheKernelsMessage)
{
	static const char name[] = "kivCP0801";
	struct kmem_cache *c = kmem_cache_create(name, 32, 0, 0, nullptr);
	ASSERT_NE(c, nullptr);
	emu::log_clear();
	EXPECT_EQ(kmem_cache_create("kivCP0801", 64, 0, 0, nullptr), nullptr);
	ExpectLog({"<3>kmem_cache_create: duplicate cache kivCP0801"});
	kmem_cache_destroy(c);
}

TEST(Slab, CreationAndAllocationFailOnInjection)
{
	{
		auto scope = emu::FailScope::nth(emu::Alloc::SlabCreate, 1);
		EXPECT_EQ(kmem_cache_create("kivDC0801", 32, 0, 0, nullptr),
			  nullptr);
	}
	struct kmem_cache *c = kmem_cache_create("kivDC0801", 32, 0, 0,
						 nullptr);
	ASSERT_NE(c, nullptr);
	{
		auto scope = emu::FailScope::nth(emu::Alloc::Slab, 1);
		EXPECT_EQ(kmem_cache_alloc(c, GFP_KERNEL), nullptr);
	}
	EXPECT_EQ(emu::usage().slab_objects, 0);
	kmem_cache_destroy(c);
}

TEST(Slab, LeakedObjectNamesItsCache)
{
	struct kmem_cache *c = kmem_cache_create("kivHT0802", 40, 0, 0, nullptr);
	void *obj = kmem_cache_alloc(c, GFP_KERNEL);
	int line = __LINE__ - 1;
	auto leaks = emu::leaks();
	ASSERT_EQ(leaks.size(), 2u);
	EXPECT_EQ(leaks[1], "slab object of kivHT0802 (40 bytes) at "
		  "tests/test_emu_memory.cpp:" + std::to_string(line));
	kmem_cache_free(c, obj);
	kmem_cache_destroy(c);
}
