/*
 * interrupt.h - bottom halves and context queries.
 *
 * CUSTOMISED: local_bh_disable/enable count per task (in_softirq() is true
 * in between; sleeping is then fatal); the context queries of
 * linux/hardirq.h.  Interrupt handlers themselves are not part of the
 * emulation (no hardware raises them).
 */
#ifndef _LINUX_INTERRUPT_H
#define _LINUX_INTERRUPT_H

#include <linux/kernel.h>
#include <linux/hardirq.h>
#include <linux/spinlock.h>
#include <linux/irqflags.h>

typedef int irqreturn_t;
#define IRQ_NONE	(0)
#define IRQ_HANDLED	(1)
#define IRQ_RETVAL(x)	((x) != 0)

#define local_bh_disable()	emu_local_bh_disable()
#define local_bh_enable()	emu_local_bh_enable(EMU_SITE)

#endif
