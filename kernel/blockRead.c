/*
 * blockRead.c - reading runs of blocks of the backed-up partition into
 * the read buffer, one bio and buffer_head per block, through the
 * device's real make_request function.
 */
#include <linux/kernel.h>
#include <linux/vmalloc.h>

#include "kivlib.h"

/* Free the read-request table; its requests are already released. */
void freeMMBRs(Backup *b)
{
	if (b->mmBIORequests) {
		vfree(b->mmBIORequests);
		b->mmBIORequests = NULL;
	}
}
