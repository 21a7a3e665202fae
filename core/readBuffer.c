/*
 * readBuffer.c - the read buffer that the backup program maps from the
 * control device: up to two mappings per backup (vmAreas), each of at
 * most maxVMPages kernel pages allocated when the mapping is made.
 */
#include <linux/kernel.h>
#include <linux/mm.h>
#include <linux/fs.h>
#include <asm/atomic.h>

#include "kivlib.h"

int kivMMAP(struct file *file, struct vm_area_struct *vma)
{
	/* pending: map a read-only buffer of up to maxVMPages pages */
	return 2;
}

/* Pages held by the mappings that still exist. */
int getVMAPageCount(Backup *b)
{
	int i, count = 0;

	for (i = 0; i < KIV_VM_AREAS; i++) {
		if (b->vmAreas[i].vma)
			count += b->vmAreas[i].vmPages;
	}
	return count;
}

/*
 * Free the pages of both read-buffer slots at backup close.  Pages still
 * mapped by the process stay alive through the references its faults
 * took.
 */
void freeAllMMPages(Backup *b)
{
	struct BackupVMA *bvma;
	int i, j;

	for (i = 0; i < KIV_VM_AREAS; i++) {
		bvma = &b->vmAreas[i];
		for (j = 0; j < bvma->vmPages && j < KIV_MAX_VM_PAGES; j++) {
			if (bvma->mmPages[j]) {
				__free_pages(bvma->mmPages[j], 0);
				bvma->mmPages[j] = NULL;
				atomic_dec(&b->curAllocPages);
			}
		}
		bvma->vmPages = 0;
	}
}
