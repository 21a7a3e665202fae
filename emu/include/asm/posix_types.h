/*
 * asm/posix_types.h - DUPLICATED by name only: the __kernel_* types live in
 * linux/types.h of the emulation.
 */
#ifndef _ASM_X86_POSIX_TYPES_H
#define _ASM_X86_POSIX_TYPES_H
#include <linux/types.h>
#endif
