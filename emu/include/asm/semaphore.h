/* asm/semaphore.h - DUPLICATED from 2.6.27: a wrapper for linux/semaphore.h. */
#include <linux/semaphore.h>
