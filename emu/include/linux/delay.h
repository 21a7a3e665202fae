/*
 * delay.h - delays.
 *
 * CUSTOMISED: msleep() sleeps the task for real (might_sleep; the BKL is
 * released meanwhile); udelay/ndelay/mdelay busy-wait on the host clock,
 * as the kernel's do.
 */
#ifndef _LINUX_DELAY_H
#define _LINUX_DELAY_H

#include <linux/emu_runtime.h>

EMU_BEGIN_DECLS
void emu_msleep(unsigned int msecs, EMU_SITE_PARAMS);
void emu_ndelay(unsigned long nsecs);
EMU_END_DECLS

#define msleep(msecs)	emu_msleep((msecs), EMU_SITE)
#define ndelay(n)	emu_ndelay(n)
#define udelay(n)	emu_ndelay((unsigned long)(n) * 1000UL)
#define mdelay(n)	emu_ndelay((unsigned long)(n) * 1000000UL)

#endif
