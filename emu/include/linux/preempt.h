/*
 * preempt.h - preemption control.
 *
 * CUSTOMISED: preempt_disable/enable count per task; while the count is
 * not zero the task is atomic (sleeping is fatal), as with
 * CONFIG_PREEMPT's checks.
 */
#ifndef __LINUX_PREEMPT_H
#define __LINUX_PREEMPT_H

#include <linux/emu_runtime.h>

EMU_BEGIN_DECLS
void emu_preempt_disable(void);
void emu_preempt_enable(EMU_SITE_PARAMS);
EMU_END_DECLS

#define preempt_disable()		emu_preempt_disable()
#define preempt_enable()		emu_preempt_enable(EMU_SITE)
#define preempt_enable_no_resched()	emu_preempt_enable(EMU_SITE)

#endif
