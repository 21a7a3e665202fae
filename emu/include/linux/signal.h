/* signal.h - DUPLICATED by name: signal numbers (asm/signal.h), and the
 * signal functions of linux/sched.h. */
#ifndef _LINUX_SIGNAL_H
#define _LINUX_SIGNAL_H
#include <asm/signal.h>
#include <linux/sched.h>
#endif
