/*
 * asm/page.h - page size and page-frame helpers.
 *
 * DUPLICATED from 2.6.27 x86: 4096-byte pages, PAGE_MASK, get_order,
 * pgprot_t.  CUSTOMISED: virt_to_page() finds the struct page of an
 * address inside a page handed out by the page allocator (anything else is
 * a fatal error, as it would be a wild pointer in the kernel);
 * page_to_pfn()/pfn_to_page() number pages by their address.
 */
#ifndef _ASM_X86_PAGE_H
#define _ASM_X86_PAGE_H

#include <linux/types.h>
#include <linux/emu_runtime.h>

#define PAGE_SHIFT	12
#define PAGE_SIZE	(1UL << PAGE_SHIFT)
#define PAGE_MASK	(~(PAGE_SIZE-1))

/* The kernel's half of the 32-bit address space starts here. */
#define __PAGE_OFFSET	0xC0000000UL
#define PAGE_OFFSET	__PAGE_OFFSET

typedef unsigned long pgprotval_t;
typedef struct { pgprotval_t pgprot; } pgprot_t;
#define pgprot_val(x)	((x).pgprot)
#define __pgprot(x)	((pgprot_t) { (x) } )

struct page;

EMU_BEGIN_DECLS
struct page *emu_virt_to_page(const void *addr, EMU_SITE_PARAMS);
unsigned long emu_page_to_pfn(struct page *page);
struct page *emu_pfn_to_page(unsigned long pfn, EMU_SITE_PARAMS);
struct page *emu_virt_to_page_or_null(const void *addr);
EMU_END_DECLS

#define virt_to_page(kaddr)	emu_virt_to_page((kaddr), EMU_SITE)
#define page_to_pfn(page)	emu_page_to_pfn(page)
#define pfn_to_page(pfn)	emu_pfn_to_page((pfn), EMU_SITE)
#define virt_addr_valid(kaddr)	(emu_virt_to_page_or_null(kaddr) != NULL)

static inline int get_order(unsigned long size)
{
	int order;

	size = (size - 1) >> (PAGE_SHIFT - 1);
	order = -1;
	do {
		size >>= 1;
		order++;
	} while (size);
	return order;
}

#define clear_page(page)	memset((page), 0, PAGE_SIZE)
#define copy_page(to, from)	memcpy((to), (from), PAGE_SIZE)

#endif
