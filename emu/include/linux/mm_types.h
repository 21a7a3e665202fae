/*
 * mm_types.h - struct page, struct vm_area_struct, struct mm_struct.
 *
 * CUSTOMISED: the members of 2.6.27 that a driver reads or writes
 * (page: flags, _count, _mapcount, private, mapping, index, lru;
 * vm_area_struct: vm_mm, vm_start, vm_end, vm_next, vm_page_prot,
 * vm_flags, vm_ops, vm_pgoff, vm_file, vm_private_data; mm_struct:
 * mmap, mmap_sem, the counters), with the runtime's own state behind the
 * `emu` members.  A page's memory is reached through page_address() or
 * kmap(), never through a member (x86 has no page->virtual either).
 */
#ifndef _LINUX_MM_TYPES_H
#define _LINUX_MM_TYPES_H

#include <linux/types.h>
#include <linux/list.h>
#include <linux/spinlock.h>
#include <linux/rwsem.h>
#include <asm/atomic.h>
#include <asm/page.h>
#include <linux/emu_runtime.h>

struct address_space;
struct file;
struct emu_page;
struct emu_mm;

struct page {
	unsigned long flags;		/* atomic flags (PG_*) */
	atomic_t _count;		/* usage count, see page_count() */
	atomic_t _mapcount;		/* ptes mapping the page, -1 for none */
	unsigned long EMU_PRIVATE;		/* mapping-private opaque data */
	struct address_space *mapping;
	pgoff_t index;			/* our offset within mapping */
	struct list_head lru;		/* free for the owner's lists */
	struct emu_page *emu;		/* the runtime's part of the page */
};

struct vm_area_struct {
	struct mm_struct *vm_mm;	/* The address space we belong to. */
	unsigned long vm_start;		/* Our start address within vm_mm. */
	unsigned long vm_end;		/* The first byte after our end address
					   within vm_mm. */
	struct vm_area_struct *vm_next;	/* linked list of VM areas per task,
					   sorted by address */
	pgprot_t vm_page_prot;		/* Access permissions of this VMA. */
	unsigned long vm_flags;		/* Flags, see mm.h. */
	struct vm_operations_struct *vm_ops;
	unsigned long vm_pgoff;		/* Offset (within vm_file) in PAGE_SIZE
					   units, *not* PAGE_CACHE_SIZE */
	struct file *vm_file;		/* File we map to (can be NULL). */
	void *vm_private_data;		/* was vm_pte (shared mem) */
};

struct mm_struct {
	struct vm_area_struct *mmap;	/* list of VMAs */
	unsigned long task_size;	/* size of task vm space */
	atomic_t mm_users;		/* How many users with user space? */
	atomic_t mm_count;		/* How many references to "struct
					   mm_struct" (users count as 1) */
	int map_count;			/* number of VMAs */
	struct rw_semaphore mmap_sem;
	unsigned long total_vm, locked_vm, shared_vm, exec_vm;
	struct emu_mm *emu;		/* the runtime's part */
};

#endif /* _LINUX_MM_TYPES_H */
