/*
 * asm/processor.h - kernel_thread and cpu_relax.
 *
 * CUSTOMISED: kernel_thread() starts a host thread that becomes a new task
 * (pid, comm copied from the creator as fork does) running fn(arg); it
 * returns the new pid, or -ENOMEM when the task cannot be created (also
 * on an injected failure of kind Thread).  The thread ends when fn
 * returns (its result is the exit code), or at complete_and_exit()/
 * do_exit().  cpu_relax() yields the host processor.
 */
#ifndef _ASM_X86_PROCESSOR_H
#define _ASM_X86_PROCESSOR_H

#include <linux/emu_runtime.h>

EMU_BEGIN_DECLS
int emu_kernel_thread(int (*fn)(void *), void *arg, unsigned long flags,
		      EMU_SITE_PARAMS);
void emu_cpu_relax(void);
EMU_END_DECLS

#define kernel_thread(fn, arg, flags) \
	emu_kernel_thread((fn), (arg), (flags), EMU_SITE)
#define cpu_relax()	emu_cpu_relax()

#endif
