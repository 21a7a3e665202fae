/* asm/bug.h - DUPLICATED by name: BUG/WARN are in linux/kernel.h. */
#ifndef _ASM_X86_BUG_H
#define _ASM_X86_BUG_H
#include <linux/kernel.h>
#endif
