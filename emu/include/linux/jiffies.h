/*
 * jiffies.h - the tick counter.
 *
 * CUSTOMISED: `jiffies` reads the host's monotonic clock in ticks of 1/HZ
 * second (HZ 250, the 2.6.27 default), starting at INITIAL_JIFFIES as the
 * kernel does (so that wrap-around bugs show within five minutes).  The
 * comparison macros are DUPLICATED.
 */
#ifndef _LINUX_JIFFIES_H
#define _LINUX_JIFFIES_H

#include <linux/types.h>
#include <linux/emu_runtime.h>

#define HZ		250
#define USER_HZ		100

#define INITIAL_JIFFIES ((unsigned long)(unsigned int) (-300*HZ))

EMU_BEGIN_DECLS
unsigned long emu_jiffies(void);
unsigned int jiffies_to_msecs(const unsigned long j);
unsigned long msecs_to_jiffies(const unsigned int m);
EMU_END_DECLS

#define jiffies		emu_jiffies()
#define get_jiffies_64() ((u64)emu_jiffies())

#define time_after(a, b)	((long)(b) - (long)(a) < 0)
#define time_before(a, b)	time_after(b, a)
#define time_after_eq(a, b)	((long)(a) - (long)(b) >= 0)
#define time_before_eq(a, b)	time_after_eq(b, a)

#endif
