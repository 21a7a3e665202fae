/*
 * completion.h - completions.
 *
 * DUPLICATED from 2.6.27 (kernel/sched.c): a count of completions `done`
 * and a wait queue.  complete() adds one and wakes one waiter;
 * complete_all() adds UINT_MAX/2 and wakes every waiter; each successful
 * wait consumes one.  wait_for_completion_interruptible returns
 * -ERESTARTSYS on a pending signal.  The waits call might_sleep().
 */
#ifndef __LINUX_COMPLETION_H
#define __LINUX_COMPLETION_H

#include <linux/wait.h>
#include <linux/emu_runtime.h>

struct completion {
	unsigned int done;
	wait_queue_head_t wait;
};

#define COMPLETION_INITIALIZER(work) \
	{ 0, __WAIT_QUEUE_HEAD_INITIALIZER((work).wait) }

#define COMPLETION_INITIALIZER_ONSTACK(work) \
	({ init_completion(&work); work; })

#define DECLARE_COMPLETION(work) \
	struct completion work = COMPLETION_INITIALIZER(work)
#define DECLARE_COMPLETION_ONSTACK(work) DECLARE_COMPLETION(work)

static inline void init_completion(struct completion *x)
{
	x->done = 0;
	init_waitqueue_head(&x->wait);
}

EMU_BEGIN_DECLS
void emu_wait_for_completion(struct completion *x, EMU_SITE_PARAMS);
int emu_wait_for_completion_interruptible(struct completion *x,
					  EMU_SITE_PARAMS);
bool try_wait_for_completion(struct completion *x);
bool completion_done(struct completion *x);
void complete(struct completion *x);
void complete_all(struct completion *x);
EMU_END_DECLS

#define wait_for_completion(x)	emu_wait_for_completion((x), EMU_SITE)
#define wait_for_completion_interruptible(x) \
	emu_wait_for_completion_interruptible((x), EMU_SITE)
#define wait_for_completion_killable(x) \
	emu_wait_for_completion_interruptible((x), EMU_SITE)

#define INIT_COMPLETION(x)	((x).done = 0)

#endif
