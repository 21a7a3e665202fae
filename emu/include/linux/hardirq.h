/*
 * hardirq.h - context queries.
 *
 * CUSTOMISED with 2.6.27's meaning: in_irq() is true in a hard interrupt,
 * in_softirq() while bottom halves are disabled or a softirq runs (the
 * emulation runs block-I/O completions in softirq context, as 2.6.27's
 * block softirq does), in_interrupt() either, in_atomic() also with a spin
 * lock held or preemption disabled.  irq_enter()/irq_exit() bracket a
 * hard interrupt's handler, as in 2.6.27 (the caller disables interrupts
 * first, as the processor does on an interrupt).
 */
#ifndef LINUX_HARDIRQ_H
#define LINUX_HARDIRQ_H

#include <linux/emu_runtime.h>

EMU_BEGIN_DECLS
int emu_in_irq(void);
int emu_in_softirq(void);
int emu_in_atomic(void);
void irq_enter(void);
void irq_exit(void);
EMU_END_DECLS

#define in_irq()		emu_in_irq()
#define in_softirq()		emu_in_softirq()
#define in_interrupt()		(emu_in_irq() || emu_in_softirq())
#define in_atomic()		emu_in_atomic()

#endif
