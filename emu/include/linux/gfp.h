/*
 * gfp.h - allocation flags and the page allocator.
 *
 * DUPLICATED from 2.6.27: every __GFP_* and GFP_* value.  CUSTOMISED: the
 * page allocator hands out host memory, 4096-byte aligned, with a struct
 * page per page (an order-n allocation is 2^n consecutive struct pages
 * over 2^n * 4096 consecutive bytes).  A new page's reference count is 1;
 * __free_pages() and put_page() drop a reference and free at zero, as in
 * 2.6.27.  Pages are filled with POISON_INUSE unless __GFP_ZERO; freed
 * pages are filled with POISON_FREE.  __GFP_HIGHMEM gives a high-memory
 * page: page_address() of it is NULL unless it is kmapped (linux/highmem.h).
 * An allocation that may sleep (__GFP_WAIT) calls might_sleep(); every
 * allocation is accounted with its call site and can be made to fail
 * (emu::Alloc::Pages), returning NULL/0.
 */
#ifndef __LINUX_GFP_H
#define __LINUX_GFP_H

#include <linux/types.h>
#include <linux/stddef.h>
#include <linux/emu_runtime.h>

#define __GFP_DMA	((__force gfp_t)0x01u)
#define __GFP_HIGHMEM	((__force gfp_t)0x02u)
#define __GFP_DMA32	((__force gfp_t)0x04u)
#define __GFP_WAIT	((__force gfp_t)0x10u)	/* Can wait and reschedule? */
#define __GFP_HIGH	((__force gfp_t)0x20u)	/* Should access emergency pools? */
#define __GFP_IO	((__force gfp_t)0x40u)	/* Can start physical IO? */
#define __GFP_FS	((__force gfp_t)0x80u)	/* Can call down to low-level FS? */
#define __GFP_COLD	((__force gfp_t)0x100u)	/* Cache-cold page required */
#define __GFP_NOWARN	((__force gfp_t)0x200u)	/* Suppress page allocation failure warning */
#define __GFP_REPEAT	((__force gfp_t)0x400u)	/* See above */
#define __GFP_NOFAIL	((__force gfp_t)0x800u)	/* See above */
#define __GFP_NORETRY	((__force gfp_t)0x1000u)/* See above */
#define __GFP_COMP	((__force gfp_t)0x4000u)/* Add compound page metadata */
#define __GFP_ZERO	((__force gfp_t)0x8000u)/* Return zeroed page on success */
#define __GFP_NOMEMALLOC ((__force gfp_t)0x10000u) /* Don't use emergency reserves */
#define __GFP_HARDWALL   ((__force gfp_t)0x20000u) /* Enforce hardwall cpuset memory allocs */
#define __GFP_THISNODE	((__force gfp_t)0x40000u)/* No fallback, no policies */
#define __GFP_RECLAIMABLE ((__force gfp_t)0x80000u) /* Page is reclaimable */
#define __GFP_MOVABLE	((__force gfp_t)0x100000u)  /* Page is movable */

#define __GFP_BITS_SHIFT 21	/* Room for 21 __GFP_FOO bits */
#define __GFP_BITS_MASK ((__force gfp_t)((1 << __GFP_BITS_SHIFT) - 1))

#define GFP_NOWAIT	(GFP_ATOMIC & ~__GFP_HIGH)
#define GFP_ATOMIC	(__GFP_HIGH)
#define GFP_NOIO	(__GFP_WAIT)
#define GFP_NOFS	(__GFP_WAIT | __GFP_IO)
#define GFP_KERNEL	(__GFP_WAIT | __GFP_IO | __GFP_FS)
#define GFP_TEMPORARY	(__GFP_WAIT | __GFP_IO | __GFP_FS | \
			 __GFP_RECLAIMABLE)
#define GFP_USER	(__GFP_WAIT | __GFP_IO | __GFP_FS | __GFP_HARDWALL)
#define GFP_HIGHUSER	(__GFP_WAIT | __GFP_IO | __GFP_FS | __GFP_HARDWALL | \
			 __GFP_HIGHMEM)
#define GFP_HIGHUSER_MOVABLE	(__GFP_WAIT | __GFP_IO | __GFP_FS | \
				 __GFP_HARDWALL | __GFP_HIGHMEM | \
				 __GFP_MOVABLE)
#define GFP_THISNODE	((__force gfp_t)0)
#define GFP_MOVABLE_MASK (__GFP_RECLAIMABLE|__GFP_MOVABLE)
#define GFP_RECLAIM_MASK (__GFP_WAIT|__GFP_HIGH|__GFP_IO|__GFP_FS|\
			__GFP_NOWARN|__GFP_REPEAT|__GFP_NOFAIL|\
			__GFP_NORETRY|__GFP_NOMEMALLOC)
#define GFP_CONSTRAINT_MASK (__GFP_HARDWALL|__GFP_THISNODE)
#define GFP_SLAB_BUG_MASK (__GFP_DMA32|__GFP_HIGHMEM|~__GFP_BITS_MASK)
#define GFP_DMA		__GFP_DMA
#define GFP_DMA32	__GFP_DMA32

/* Orders of 2^MAX_ORDER pages and above cannot be allocated. */
#define MAX_ORDER 11

struct page;

EMU_BEGIN_DECLS
struct page *emu_alloc_pages(gfp_t gfp_mask, unsigned int order,
			     EMU_SITE_PARAMS);
void emu_free_pages(struct page *page, unsigned int order, EMU_SITE_PARAMS);
unsigned long emu_get_free_pages(gfp_t gfp_mask, unsigned int order,
				 EMU_SITE_PARAMS);
void emu_free_pages_addr(unsigned long addr, unsigned int order,
			 EMU_SITE_PARAMS);
EMU_END_DECLS

#define alloc_pages(gfp_mask, order) \
	emu_alloc_pages((gfp_mask), (order), EMU_SITE)
#define alloc_page(gfp_mask)	emu_alloc_pages((gfp_mask), 0, EMU_SITE)
#define __get_free_pages(gfp_mask, order) \
	emu_get_free_pages((gfp_mask), (order), EMU_SITE)
#define __get_free_page(gfp_mask) emu_get_free_pages((gfp_mask), 0, EMU_SITE)
#define get_zeroed_page(gfp_mask) \
	emu_get_free_pages((gfp_mask) | __GFP_ZERO, 0, EMU_SITE)
#define __free_pages(page, order) emu_free_pages((page), (order), EMU_SITE)
#define __free_page(page)	emu_free_pages((page), 0, EMU_SITE)
#define free_pages(addr, order)	emu_free_pages_addr((addr), (order), EMU_SITE)
#define free_page(addr)		emu_free_pages_addr((addr), 0, EMU_SITE)

#endif /* __LINUX_GFP_H */
