// kmalloc, vmalloc, the page allocator and kmap.
//
// Every object is host memory registered in the accounting with its call
// site.  Pages: an allocation of order n is an array of 2^n struct pages
// (with their emu_page) over 2^n * 4096 bytes of page-aligned memory; the
// page registry maps both the struct pages and the memory back to the
// allocation, for virt_to_page, kunmap_atomic and the checks.
#include <map>

#include "core.hpp"
#include "checks.hpp"

struct emu_page {
	unsigned char *data = nullptr;   // this page's 4096 bytes
	struct page *head = nullptr;     // first page of the allocation
	bool highmem = false;
	int kmaps = 0;                   // guarded by the page registry
	std::vector<emu::Site> kmap_sites;
};

namespace {

struct Block {
	struct page *pages;              // 1 << order struct pages
	emu_page *emu;
	unsigned order;
	unsigned char *data;
	emu::Site site;
};

struct PageRegistry {
	std::mutex m;
	std::map<std::uintptr_t, Block> by_page;   // key: first struct page
	std::map<std::uintptr_t, Block *> by_data; // key: first data byte
	long kmaps = 0;
};

PageRegistry &preg()
{
	static auto *r = new PageRegistry;
	return *r;
}

// The block containing struct page `p`, or nullptr.  Registry locked.
Block *block_of_page(const struct page *p)
{
	auto &m = preg().by_page;
	auto key = reinterpret_cast<std::uintptr_t>(p);
	auto it = m.upper_bound(key);
	if (it == m.begin())
		return nullptr;
	--it;
	Block &b = it->second;
	std::uintptr_t end = it->first + (sizeof(struct page) << b.order);
	if (key >= end || (key - it->first) % sizeof(struct page))
		return nullptr;
	return &b;
}

// The block containing byte `addr`, or nullptr.  Registry locked.
Block *block_of_data(const void *addr)
{
	auto &m = preg().by_data;
	auto key = reinterpret_cast<std::uintptr_t>(addr);
	auto it = m.upper_bound(key);
	if (it == m.begin())
		return nullptr;
	--it;
	if (key >= it->first + (PAGE_SIZE << it->second->order))
		return nullptr;
	return it->second;
}

std::string page_what(unsigned order, bool highmem)
{
	return "pages order " + std::to_string(order) +
		(highmem ? " (highmem)" : "");
}

emu_page *live_page(struct page *page, emu::Site s, const char *what)
{
	if (!page)
		emu::violation(s, std::string(what) + " of a NULL page");
	emu::Invisible inv;
	std::lock_guard lk(preg().m);
	if (!block_of_page(page))
		emu::violation(s, std::string(what) +
			       " of a page that is not allocated (freed "
			       "already?)");
	return page->emu;
}

void free_block(struct page *head, emu::Site s)
{
	Block b;
	{
		emu::Invisible inv;
		std::lock_guard lk(preg().m);
		Block *bp = block_of_page(head);
		b = *bp;
		for (unsigned i = 0; i < (1u << b.order); i++)
			if (b.emu[i].kmaps)
				emu::violation(s, "freeing a page that is "
					       "still kmapped (kmap at " +
					       emu::to_string(
						       b.emu[i].kmap_sites.back()) +
					       ")");
		preg().by_data.erase(reinterpret_cast<std::uintptr_t>(b.data));
		preg().by_page.erase(reinterpret_cast<std::uintptr_t>(head));
	}
	std::size_t bytes = PAGE_SIZE << b.order;
	emu::check_no_held_lock_in(b.data, bytes, s);
	emu::account_remove(emu::Obj::Page, head);
	std::memset(b.data, POISON_FREE, bytes);
	std::free(b.data);
	delete[] b.emu;
	delete[] b.pages;
}

void fill_new(void *p, std::size_t n, gfp_t flags)
{
	std::memset(p, (flags & __GFP_ZERO) ? 0 : POISON_INUSE, n);
}

// kfree / vfree: the block must be one the allocator handed out and hold
// no lock that some task holds; it is unregistered, and its size returned.
std::size_t unregister_block(emu::Obj kind, const void *objp,
			     const char *free_name, const char *alloc_name,
			     emu::Site s)
{
	long bytes = emu::account_bytes(kind, objp);
	if (bytes < 0)
		emu::violation(s, std::string(free_name) + " of memory that " +
			       alloc_name + " did not hand out (double free?)");
	emu::check_no_held_lock_in(objp, static_cast<std::size_t>(bytes), s);
	emu::account_remove(kind, objp);
	return static_cast<std::size_t>(bytes);
}

}  // namespace

namespace emu {

unsigned char *page_data(struct page *page)
{
	return live_page(page, Site{"user mapping", 0}, "mapping")->data;
}

long kmaps_outstanding()
{
	Invisible inv;
	std::lock_guard lk(preg().m);
	return preg().kmaps;
}

std::vector<std::string> kmap_problems()
{
	Invisible inv;
	std::lock_guard lk(preg().m);
	std::vector<std::string> out;
	for (auto &[key, b] : preg().by_page)
		for (unsigned i = 0; i < (1u << b.order); i++)
			for (auto &s : b.emu[i].kmap_sites)
				out.push_back("kmap (no kunmap) at " +
					      to_string(s) + " of a page "
					      "allocated at " +
					      to_string(b.site));
	return out;
}

}  // namespace emu

// ---- kmalloc ----------------------------------------------------------------------

extern "C" void *emu_kmalloc(size_t size, gfp_t flags, const char *file,
			     int line)
{
	emu::Site s = emu::site(file, line);
	if (flags & GFP_SLAB_BUG_MASK)
		emu::violation(s, "kmalloc with __GFP_HIGHMEM or __GFP_DMA32");
	if (flags & __GFP_WAIT)
		emu::check_may_sleep(s, "kmalloc");
	emu::check_alloc_context(s, flags, "kmalloc");
	if (size == 0)
		return ZERO_SIZE_PTR;
	if (emu::inject_failure(emu::Alloc::Kmalloc))
		return nullptr;
	if (size > KMALLOC_MAX_SIZE)
		return nullptr;
	void *p = std::malloc(size);
	if (!p)
		return nullptr;
	fill_new(p, size, flags);
	emu::account_add(emu::Obj::Kmalloc, p, static_cast<long>(size), s,
			 "kmalloc " + std::to_string(size) + " bytes");
	return p;
}

extern "C" void emu_kfree(const void *objp, const char *file, int line)
{
	if (ZERO_OR_NULL_PTR(objp))
		return;
	std::size_t bytes = unregister_block(emu::Obj::Kmalloc, objp, "kfree",
					     "kmalloc", emu::site(file, line));
	void *p = const_cast<void *>(objp);
	std::memset(p, POISON_FREE, bytes);
	std::free(p);
}

extern "C" size_t ksize(const void *objp)
{
	if (ZERO_OR_NULL_PTR(objp))
		return 0;
	long bytes = emu::account_bytes(emu::Obj::Kmalloc, objp);
	return bytes < 0 ? 0 : static_cast<size_t>(bytes);
}

extern "C" char *emu_kstrdup(const char *s, gfp_t gfp, const char *file,
			     int line)
{
	if (!s)
		return nullptr;
	size_t len = std::strlen(s) + 1;
	char *buf = static_cast<char *>(emu_kmalloc(len, gfp, file, line));
	if (buf)
		std::memcpy(buf, s, len);
	return buf;
}

extern "C" void *emu_kmemdup(const void *src, size_t len, gfp_t gfp,
			     const char *file, int line)
{
	void *p = emu_kmalloc(len, gfp, file, line);
	if (p && !ZERO_OR_NULL_PTR(p))
		std::memcpy(p, src, len);
	return p;
}

// ---- vmalloc -----------------------------------------------------------------------

extern "C" void *emu_vmalloc(unsigned long size, int zero, const char *file,
			     int line)
{
	emu::Site s = emu::site(file, line);
	emu::check_may_sleep(s, "vmalloc");
	emu::check_alloc_context(s, GFP_KERNEL | __GFP_HIGHMEM, "vmalloc");
	if (emu::inject_failure(emu::Alloc::Vmalloc))
		return nullptr;
	if (size == 0 || size > (1UL << 31))
		return nullptr;
	std::size_t rounded = PAGE_ALIGN(size);
	void *p = std::aligned_alloc(PAGE_SIZE, rounded);
	if (!p)
		return nullptr;
	std::memset(p, zero ? 0 : POISON_INUSE, rounded);
	emu::account_add(emu::Obj::Vmalloc, p, static_cast<long>(size), s,
			 "vmalloc " + std::to_string(size) + " bytes");
	return p;
}

extern "C" void emu_vfree(const void *addr, const char *file, int line)
{
	emu::Site s = emu::site(file, line);
	if (emu_in_irq() || emu_in_softirq())
		emu::violation(s, "vfree in interrupt context");
	if (!addr)
		return;
	std::size_t bytes = unregister_block(emu::Obj::Vmalloc, addr, "vfree",
					     "vmalloc", s);
	void *p = const_cast<void *>(addr);
	std::memset(p, POISON_FREE, PAGE_ALIGN(bytes));
	std::free(p);
}

// ---- pages ---------------------------------------------------------------------------

extern "C" struct page *emu_alloc_pages(gfp_t gfp_mask, unsigned int order,
					const char *file, int line)
{
	emu::Site s = emu::site(file, line);
	if (gfp_mask & __GFP_WAIT)
		emu::check_may_sleep(s, "alloc_pages");
	emu::check_alloc_context(s, gfp_mask, "alloc_pages");
	if (emu::inject_failure(emu::Alloc::Pages))
		return nullptr;
	if (order >= MAX_ORDER)
		return nullptr;
	unsigned n = 1u << order;
	std::size_t bytes = PAGE_SIZE << order;
	auto *data = static_cast<unsigned char *>(
		std::aligned_alloc(PAGE_SIZE, bytes));
	if (!data)
		return nullptr;
	fill_new(data, bytes, gfp_mask);
	auto *pages = new struct page[n]();
	auto *emus = new emu_page[n];
	bool high = (gfp_mask & __GFP_HIGHMEM) != 0;
	for (unsigned i = 0; i < n; i++) {
		emus[i].data = data + i * PAGE_SIZE;
		emus[i].head = pages;
		emus[i].highmem = high;
		pages[i].emu = &emus[i];
		atomic_set(&pages[i]._mapcount, -1);
		INIT_LIST_HEAD(&pages[i].lru);
	}
	atomic_set(&pages[0]._count, 1);
	{
		emu::Invisible inv;
		std::lock_guard lk(preg().m);
		auto [it, ok] = preg().by_page.emplace(
			reinterpret_cast<std::uintptr_t>(pages),
			Block{pages, emus, order, data, s});
		preg().by_data.emplace(reinterpret_cast<std::uintptr_t>(data),
				       &it->second);
	}
	emu::account_add(emu::Obj::Page, pages, static_cast<long>(bytes), s,
			 page_what(order, high));
	return pages;
}

extern "C" void emu_free_pages(struct page *page, unsigned int order,
			       const char *file, int line)
{
	emu::Site s = emu::site(file, line);
	live_page(page, s, "__free_pages");
	{
		emu::Invisible inv;
		std::lock_guard lk(preg().m);
		Block *b = block_of_page(page);
		if (b->pages != page)
			emu::violation(s, "__free_pages of a page that is not "
				       "the first of its allocation");
		if (b->order != order)
			emu::violation(s, "__free_pages with order " +
				       std::to_string(order) +
				       " of pages allocated with order " +
				       std::to_string(b->order) + " at " +
				       emu::to_string(b->site));
	}
	int left = atomic_sub_return(1, &page->_count);
	if (left < 0)
		emu::violation(s, "__free_pages of a page whose reference "
			       "count is already 0");
	if (left == 0)
		free_block(page, s);
}

extern "C" unsigned long emu_get_free_pages(gfp_t gfp_mask, unsigned int order,
					    const char *file, int line)
{
	if (gfp_mask & __GFP_HIGHMEM)
		emu::violation(emu::site(file, line),
			       "__get_free_pages with __GFP_HIGHMEM");
	struct page *page = emu_alloc_pages(gfp_mask, order, file, line);
	if (!page)
		return 0;
	return reinterpret_cast<unsigned long>(page->emu->data);
}

extern "C" void emu_free_pages_addr(unsigned long addr, unsigned int order,
				    const char *file, int line)
{
	if (addr == 0)
		return;
	emu_free_pages(emu_virt_to_page(reinterpret_cast<void *>(addr), file,
					line),
		       order, file, line);
}

extern "C" void emu_get_page(struct page *page, const char *file, int line)
{
	emu::Site s = emu::site(file, line);
	live_page(page, s, "get_page");
	if (atomic_inc_return(&page->_count) <= 1)
		emu::violation(s, "get_page of a page whose reference count "
			       "was 0");
}

extern "C" void emu_put_page(struct page *page, const char *file, int line)
{
	emu::Site s = emu::site(file, line);
	live_page(page, s, "put_page");
	{
		emu::Invisible inv;
		std::lock_guard lk(preg().m);
		if (block_of_page(page)->pages != page)
			emu::violation(s, "put_page of a page that is not the "
				       "first of its allocation");
	}
	int left = atomic_sub_return(1, &page->_count);
	if (left < 0)
		emu::violation(s, "put_page of a page whose reference count "
			       "is already 0");
	if (left == 0)
		free_block(page, s);
}

extern "C" void *page_address(struct page *page)
{
	emu_page *e = live_page(page, emu::Site{"page_address", 0},
				"page_address");
	emu::Invisible inv;
	std::lock_guard lk(preg().m);
	if (e->highmem && e->kmaps == 0)
		return nullptr;
	return e->data;
}

extern "C" int PageHighMem(struct page *page)
{
	return live_page(page, emu::Site{"PageHighMem", 0},
			 "PageHighMem")->highmem;
}

extern "C" struct page *emu_virt_to_page_or_null(const void *addr)
{
	emu::Invisible inv;
	std::lock_guard lk(preg().m);
	Block *b = block_of_data(addr);
	if (!b)
		return nullptr;
	auto off = reinterpret_cast<std::uintptr_t>(addr) -
		reinterpret_cast<std::uintptr_t>(b->data);
	return &b->pages[off / PAGE_SIZE];
}

extern "C" struct page *emu_virt_to_page(const void *addr, const char *file,
					 int line)
{
	struct page *p = emu_virt_to_page_or_null(addr);
	if (!p)
		emu::violation(emu::site(file, line),
			       "virt_to_page of an address outside every "
			       "allocated page");
	return p;
}

extern "C" unsigned long emu_page_to_pfn(struct page *page)
{
	return reinterpret_cast<std::uintptr_t>(page->emu->data) >> PAGE_SHIFT;
}

extern "C" struct page *emu_pfn_to_page(unsigned long pfn, const char *file,
					int line)
{
	return emu_virt_to_page(reinterpret_cast<void *>(pfn << PAGE_SHIFT),
				file, line);
}

// ---- kmap -------------------------------------------------------------------------------

namespace {

void *map_page(struct page *page, emu::Site s, const char *what)
{
	emu_page *e = live_page(page, s, what);
	emu::Invisible inv;
	std::lock_guard lk(preg().m);
	e->kmaps++;
	e->kmap_sites.push_back(s);
	preg().kmaps++;
	return e->data;
}

void unmap_page(emu_page *e, emu::Site s, const char *what)
{
	emu::Invisible inv;
	std::lock_guard lk(preg().m);
	if (e->kmaps == 0)
		emu::violation(s, std::string(what) +
			       " of a page that is not kmapped");
	e->kmaps--;
	e->kmap_sites.pop_back();
	preg().kmaps--;
}

}  // namespace

extern "C" void *emu_kmap(struct page *page, const char *file, int line)
{
	emu::Site s = emu::site(file, line);
	emu::check_may_sleep(s, "kmap");
	return map_page(page, s, "kmap");
}

extern "C" void emu_kunmap(struct page *page, const char *file, int line)
{
	emu::Site s = emu::site(file, line);
	if (emu_in_irq() || emu_in_softirq())
		emu::violation(s, "kunmap in interrupt context");
	unmap_page(live_page(page, s, "kunmap"), s, "kunmap");
}

extern "C" void *emu_kmap_atomic(struct page *page, enum km_type idx,
				 const char *file, int line)
{
	emu::Site s = emu::site(file, line);
	emu::kmap_atomic_slot_map(idx, live_page(page, s, "kmap_atomic")->data,
				  s);
	void *addr = map_page(page, s, "kmap_atomic");
	emu_preempt_disable();
	return addr;
}

extern "C" void emu_kunmap_atomic(void *kvaddr, enum km_type idx,
				  const char *file, int line)
{
	emu::Site s = emu::site(file, line);
	emu::kmap_atomic_slot_unmap(idx, kvaddr, s);
	struct page *page = emu_virt_to_page_or_null(kvaddr);
	if (!page)
		emu::violation(s, "kunmap_atomic of an address that is not a "
			       "kmapped page");
	unmap_page(page->emu, s, "kunmap_atomic");
	emu_preempt_enable(file, line);
}
