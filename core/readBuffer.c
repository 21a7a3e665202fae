/*
 * readBuffer.c - the read buffer that the backup program maps from the
 * control device: up to two mappings per backup (vmAreas), each of at
 * most maxVMPages kernel pages allocated when the mapping is made.
 *
 * The read command fills the pages (block i of a range at byte
 * i * blockSize of the mapping) and the program reads them in place.
 *
 * The slots are guarded by the record's vmLock, not by bSem.  mmap and
 * munmap enter with the mm's mmap_sem held, while the commands hold bSem
 * across copies from and to user memory, and such a copy may fault and
 * take mmap_sem: a thread sleeping on bSem in mmap while another faults
 * under bSem would deadlock the two.  vmLock is taken inside bSem and
 * inside mmap_sem, and nothing under it touches user memory.  The fault
 * handler takes no lock: a slot's page table does not change while its
 * mapping exists.
 */
#include <linux/kernel.h>
#include <linux/mm.h>
#include <linux/fs.h>
#include <linux/gfp.h>
#include <linux/mutex.h>
#include <asm/atomic.h>

#include "kivlib.h"

static struct vm_operations_struct kivVMOps = {
	.open = kivVMopen,
	.close = kivVMclose,
	.fault = kivVMfault,
};

/* The slot holding this very mapping (by identity), slot 0 first. */
int findVMA(Backup *b, struct vm_area_struct *vma, BackupVMA **bvma)
{
	int i;

	for (i = 0; i < KIV_VM_AREAS; i++) {
		if (b->vmAreas[i].vma == vma) {
			*bvma = &b->vmAreas[i];
			return 1;
		}
	}
	return 0;
}

/* The slot whose mapping starts at the user address start, slot 0 first. */
int checkVMA(Backup *b, unsigned long start, BackupVMA **bvma)
{
	int i;

	for (i = 0; i < KIV_VM_AREAS; i++) {
		if (b->vmAreas[i].vma && b->vmAreas[i].vma->vm_start == start) {
			*bvma = &b->vmAreas[i];
			return 1;
		}
	}
	return 0;
}

/* 0 with the first free slot, or 1 and NULL when both are in use. */
int maxBVMAs(Backup *b, BackupVMA **bvma)
{
	int i;

	for (i = 0; i < KIV_VM_AREAS; i++) {
		if (!b->vmAreas[i].vma) {
			*bvma = &b->vmAreas[i];
			return 0;
		}
	}
	*bvma = NULL;
	return 1;
}

/*
 * Free the pages of one slot (those it got; a failed mapping may have
 * fewer than vmPages) and mark it empty.  Caller holds vmLock.
 */
static void freeSlotPages(Backup *b, BackupVMA *bvma)
{
	int j;

	for (j = 0; j < bvma->vmPages && j < KIV_MAX_VM_PAGES; j++) {
		if (bvma->mmPages[j]) {
			__free_pages(bvma->mmPages[j], 0);
			bvma->mmPages[j] = NULL;
			atomic_dec(&b->curAllocPages);
		}
	}
	bvma->vmPages = 0;
}

/*
 * Map a read buffer: a private, read-only mapping of offset 0 and at most
 * maxVMPages pages, once a backup has started.  Every page is allocated
 * now (low memory, so it has a kernel address; not zeroed: the program
 * sees only what the read command placed there).  Returns 0, 2 refused,
 * or 5 when a page cannot be had (the slot is left free).  Process
 * context, called with mmap_sem held for writing; takes vmLock.
 *
 * The state is read without bSem.  A start running on another thread at
 * the same time is either not yet seen (refused, as before a start) or
 * seen with maxVMPages still 0 (refused too); a close cannot run, the
 * mapping holds a reference to the file.
 */
int kivMMAP(struct file *file, struct vm_area_struct *vma)
{
	Backup *b = file->private_data;
	BackupVMA *bvma;
	long pages;
	int result = 2;
	int j;

	if (!b)
		return 2;
	if ((vma->vm_flags & (VM_READ | VM_WRITE | VM_SHARED)) != VM_READ)
		return 2;

	mutex_lock(&b->vmLock);
	if (b->state <= BU_STATE_STARTING)
		goto out;
	if (vma->vm_pgoff != 0)
		goto out;
	if (maxBVMAs(b, &bvma))
		goto out;

	pages = (long)(vma->vm_end - vma->vm_start) / KIV_PAGE_SIZE;
	if (pages > b->maxVMPages || pages <= 0)
		goto out;

	bvma->vmPages = (int)pages;
	result = 0;
	for (j = 0; j < bvma->vmPages; j++) {
		bvma->mmPages[j] = alloc_pages(GFP_KERNEL, 0);
		if (!bvma->mmPages[j]) {
			result = 5;
			break;
		}
		atomic_inc(&b->totalAllocPages);
		atomic_inc(&b->curAllocPages);
	}

	if (result) {
		bvma->vma = NULL;
		freeSlotPages(b, bvma);
	} else {
		bvma->vma = vma;
		vma->vm_ops = &kivVMOps;
	}
out:
	mutex_unlock(&b->vmLock);
	return result;
}

/* A split or copied mapping needs nothing of its own. */
void kivVMopen(struct vm_area_struct *vma)
{
}

/*
 * The mapping goes away (munmap or exit): free its slot and pages.  Pages
 * still in the process's page tables live on through the references the
 * faults took.  Takes vmLock, so a read command of another thread that is
 * filling this slot finishes (its disk reads land in these pages) before
 * the pages are freed.
 */
void kivVMclose(struct vm_area_struct *vma)
{
	Backup *b;
	BackupVMA *bvma;

	if (!vma->vm_file)
		return;
	b = vma->vm_file->private_data;
	if (!b)
		return;
	mutex_lock(&b->vmLock);
	if (findVMA(b, vma, &bvma)) {
		bvma->vma = NULL;
		freeSlotPages(b, bvma);
	}
	mutex_unlock(&b->vmLock);
}

/*
 * The page behind a user address of a read buffer, with a reference taken
 * for the page tables, or NULL.  A mapping that is not registered falls
 * back to slot 0 when that slot is in use: kept as it is, as the fault
 * path has always behaved.
 */
struct page *kivVMnopage(struct vm_area_struct *vma, unsigned long address,
			 int *unused)
{
	Backup *b;
	BackupVMA *bvma;
	unsigned long j;

	if (!vma->vm_file) {
		printk(KERN_WARNING "%s: vma does not have associated "
		       "backup%s", "kivVMnopage", "\n");
		return NULL;
	}
	b = vma->vm_file->private_data;
	if (!findVMA(b, vma, &bvma)) {
		if (b->vmAreas[0].vma) {
			bvma = &b->vmAreas[0];
		} else {
			printk(KERN_ERR "%s: vma is not found in associated "
			       "backup%s", "kivVMnopage", "\n");
			return NULL;
		}
	}

	j = (address - vma->vm_start) / KIV_PAGE_SIZE;
	if (j >= (unsigned long)bvma->vmPages) {
		printk(KERN_WARNING "%s: Bad vm address%s", "kivVMnopage",
		       "\n");
		return NULL;
	}
	get_page(bvma->mmPages[j]);
	return bvma->mmPages[j];
}

/* Fault handler of a read buffer: never allocates, only hands out. */
int kivVMfault(struct vm_area_struct *vma, struct vm_fault *vmf)
{
	struct page *page;

	page = kivVMnopage(vma, (unsigned long)vmf->virtual_address, NULL);
	if (!page)
		return VM_FAULT_SIGBUS;
	vmf->page = page;
	return 0;
}

/*
 * Kernel address of block i of a read range in bvma: byte i * blockSize
 * of the mapping, the place the disk reader also uses.  The pages are low
 * memory, so page_address() is always valid.
 */
char *mmPageAddr(Backup *b, u32 i, BackupVMA *bvma)
{
	u32 bpp = b->diskInfo.blocksPerPage;

	if (bpp == 1)
		return page_address(bvma->mmPages[i]);
	return (char *)page_address(bvma->mmPages[i / bpp]) +
		(i % bpp) * b->diskInfo.blockSize;
}

/* Pages held by the mappings that still exist.  Takes vmLock. */
int getVMAPageCount(Backup *b)
{
	int i, count = 0;

	mutex_lock(&b->vmLock);
	for (i = 0; i < KIV_VM_AREAS; i++) {
		if (b->vmAreas[i].vma)
			count += b->vmAreas[i].vmPages;
	}
	mutex_unlock(&b->vmLock);
	return count;
}

/*
 * Free the pages of both read-buffer slots at backup close.  Pages still
 * mapped by the process stay alive through the references its faults
 * took.  Takes vmLock.
 */
void freeAllMMPages(Backup *b)
{
	int i;

	mutex_lock(&b->vmLock);
	for (i = 0; i < KIV_VM_AREAS; i++)
		freeSlotPages(b, &b->vmAreas[i]);
	mutex_unlock(&b->vmLock);
}
