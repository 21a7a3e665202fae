/*
 * highmem.h - temporary kernel mappings of pages.
 *
 * CUSTOMISED with 2.6.27's contract (CONFIG_HIGHMEM): kmap() gives the
 * page a kernel address until the matching kunmap(); it may sleep.
 * kmap_atomic()/kunmap_atomic() do the same without sleeping, and the task
 * must not sleep in between (as with a spin lock held).  The runtime counts
 * the mappings of every page: kunmap() of a page that is not kmapped, a
 * mapping left at the end of a test, and freeing a kmapped page are errors
 * (emu::usage().kmaps, emu::test_problems()).  While a high-memory page is
 * mapped, page_address() returns the same address.
 */
#ifndef _LINUX_HIGHMEM_H
#define _LINUX_HIGHMEM_H

#include <linux/mm.h>
#include <linux/string.h>
#include <linux/emu_runtime.h>
#include <asm/kmap_types.h>

EMU_BEGIN_DECLS
void *emu_kmap(struct page *page, EMU_SITE_PARAMS);
void emu_kunmap(struct page *page, EMU_SITE_PARAMS);
void *emu_kmap_atomic(struct page *page, enum km_type idx, EMU_SITE_PARAMS);
void emu_kunmap_atomic(void *kvaddr, enum km_type idx, EMU_SITE_PARAMS);
EMU_END_DECLS

#define kmap(page)		emu_kmap((page), EMU_SITE)
#define kunmap(page)		emu_kunmap((page), EMU_SITE)
#define kmap_atomic(page, idx)	emu_kmap_atomic((page), (idx), EMU_SITE)
#define kunmap_atomic(addr, idx) emu_kunmap_atomic((addr), (idx), EMU_SITE)
#define totalhigh_pages 0

static inline void flush_dcache_page(struct page *page) { (void)page; }
static inline void flush_kernel_dcache_page(struct page *page) { (void)page; }

static inline void clear_highpage(struct page *page)
{
	void *kaddr = kmap_atomic(page, KM_USER0);

	memset(kaddr, 0, PAGE_SIZE);
	kunmap_atomic(kaddr, KM_USER0);
}

static inline void copy_highpage(struct page *to, struct page *from)
{
	char *vfrom, *vto;

	vfrom = (char *)kmap_atomic(from, KM_USER0);
	vto = (char *)kmap_atomic(to, KM_USER1);
	memcpy(vto, vfrom, PAGE_SIZE);
	kunmap_atomic(vfrom, KM_USER0);
	kunmap_atomic(vto, KM_USER1);
}

static inline void zero_user_segment(struct page *page, unsigned start,
				     unsigned end)
{
	char *kaddr = (char *)kmap_atomic(page, KM_USER0);

	memset(kaddr + start, 0, end - start);
	kunmap_atomic(kaddr, KM_USER0);
}

static inline void zero_user(struct page *page, unsigned start,
			     unsigned size)
{
	zero_user_segment(page, start, start + size);
}

#endif /* _LINUX_HIGHMEM_H */
