/*
 * uaccess.h - DUPLICATED from 2.6.27: the user-access functions of
 * asm/uaccess.h, and pagefault_disable/enable, which only count here (a
 * fault in the emulation never sleeps on I/O).
 */
#ifndef __LINUX_UACCESS_H__
#define __LINUX_UACCESS_H__

#include <asm/uaccess.h>

#define pagefault_disable()	barrier()
#define pagefault_enable()	barrier()

#endif
