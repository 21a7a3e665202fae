/*
 * irqflags.h - local interrupt state.
 *
 * CUSTOMISED: each task of the emulation has an interrupt-enable flag of
 * its own (on a real CPU it is the processor's; a task with interrupts off
 * cannot be preempted, so the two agree).  local_irq_save() returns the
 * state as x86's EFLAGS would (X86_EFLAGS_IF set when interrupts were
 * enabled) and disables; local_save_flags() only reads it;
 * local_irq_restore() puts the saved state back.
 * Nothing is masked for real (completions arrive from other threads); the
 * state feeds the context checks: sleeping with interrupts disabled is
 * fatal, and the lock validator records in which interrupt state each
 * lock is taken.  local_irq_save() opens an "irqsave region" until the
 * matching local_irq_restore(); local_irq_enable() (spin_unlock_irq)
 * inside one is reported: the caller's caller expected interrupts to stay
 * off.
 */
#ifndef _LINUX_TRACE_IRQFLAGS_H
#define _LINUX_TRACE_IRQFLAGS_H

#include <linux/typecheck.h>
#include <linux/emu_runtime.h>

#define X86_EFLAGS_IF	0x00000200

EMU_BEGIN_DECLS
unsigned long emu_local_irq_save(void);
unsigned long emu_local_irq_save_at(EMU_SITE_PARAMS);
void emu_local_irq_restore(unsigned long flags, EMU_SITE_PARAMS);
void emu_local_irq_disable(void);
void emu_local_irq_enable(EMU_SITE_PARAMS);
int emu_irqs_disabled(void);
EMU_END_DECLS

#define local_irq_save(flags)				\
	do {						\
		typecheck(unsigned long, flags);	\
		(flags) = emu_local_irq_save_at(EMU_SITE); \
	} while (0)
#define local_irq_restore(flags)			\
	do {						\
		typecheck(unsigned long, flags);	\
		emu_local_irq_restore((flags), EMU_SITE); \
	} while (0)
/* Reads the state without changing it and opens no region. */
#define local_save_flags(flags)				\
	do {						\
		typecheck(unsigned long, flags);	\
		(flags) = emu_irqs_disabled() ? 0 : X86_EFLAGS_IF; \
	} while (0)
#define local_irq_disable()	emu_local_irq_disable()
#define local_irq_enable()	emu_local_irq_enable(EMU_SITE)
#define irqs_disabled()		emu_irqs_disabled()
#define irqs_disabled_flags(flags) (!((flags) & X86_EFLAGS_IF))
#define raw_local_irq_save(flags)	local_irq_save(flags)
#define raw_local_irq_restore(flags)	local_irq_restore(flags)

#endif
