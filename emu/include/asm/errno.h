/* asm/errno.h - DUPLICATED from 2.6.27: the numbers are in linux/errno.h. */
#ifndef _ASM_X86_ERRNO_H
#define _ASM_X86_ERRNO_H
#include <linux/errno.h>
#endif
