/*
 * poison.h - DUPLICATED from 2.6.27: poison values of list entries and of
 * freed memory (the emulated allocators use POISON_FREE and POISON_INUSE).
 */
#ifndef _LINUX_POISON_H
#define _LINUX_POISON_H

#define LIST_POISON1  ((void *) 0x00100100)
#define LIST_POISON2  ((void *) 0x00200200)

#define	POISON_INUSE	0x5a	/* for use-uninitialised poisoning */
#define POISON_FREE	0x6b	/* for use-after-free poisoning */
#define	POISON_END	0xa5	/* end-byte of poisoning */

#endif
