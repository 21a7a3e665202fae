/*
 * vmalloc.h - virtually contiguous allocations.
 *
 * CUSTOMISED with 2.6.27's contract: vmalloc(size) returns page-aligned
 * memory of `size` bytes (not zeroed: filled with POISON_INUSE), or NULL
 * for size 0 and on failure (emu::Alloc::Vmalloc); it may sleep.
 * vfree(NULL) does nothing; vfree of anything vmalloc did not hand out
 * (or twice) is fatal, and so is vfree in interrupt context.  Accounted
 * with the call site.
 */
#ifndef _LINUX_VMALLOC_H
#define _LINUX_VMALLOC_H

#include <linux/types.h>
#include <linux/emu_runtime.h>

EMU_BEGIN_DECLS
void *emu_vmalloc(unsigned long size, int zero, EMU_SITE_PARAMS);
void emu_vfree(const void *addr, EMU_SITE_PARAMS);
EMU_END_DECLS

#define vmalloc(size)		emu_vmalloc((size), 0, EMU_SITE)
#define vmalloc_32(size)	emu_vmalloc((size), 0, EMU_SITE)
#define vmalloc_user(size)	emu_vmalloc((size), 1, EMU_SITE)
#define vfree(addr)		emu_vfree((addr), EMU_SITE)

#endif /* _LINUX_VMALLOC_H */
