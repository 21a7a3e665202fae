/* asm/current.h - DUPLICATED by name: `current` is in linux/sched.h. */
#ifndef _ASM_X86_CURRENT_H
#define _ASM_X86_CURRENT_H
#include <linux/sched.h>
#endif
