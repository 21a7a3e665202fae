/*
 * wait.h - wait queues.
 *
 * DUPLICATED from 2.6.27 (include/linux/wait.h, kernel/wait.c,
 * kernel/sched.c's __wake_up): a wait queue head is a spin lock and a list
 * of entries; waking calls each entry's function, which for a task wakes
 * it (wake_up_process); exclusive waiters are woken `nr` at a time.
 * wait_event() and friends are the kernel's macros over prepare_to_wait,
 * schedule and finish_wait.  CUSTOMISED only in spelling: the entry's
 * `private` member is named `private_` when compiled as C++, where
 * `private` is a keyword (same layout).
 */
#ifndef _LINUX_WAIT_H
#define _LINUX_WAIT_H

#include <linux/list.h>
#include <linux/stddef.h>
#include <linux/spinlock.h>
#include <linux/emu_runtime.h>
#include <asm/system.h>

#define EMU_WQ_PRIVATE EMU_PRIVATE

typedef struct __wait_queue wait_queue_t;
typedef int (*wait_queue_func_t)(wait_queue_t *wait, unsigned mode, int sync,
				 void *key);

struct __wait_queue {
	unsigned int flags;
#define WQ_FLAG_EXCLUSIVE	0x01
	void *EMU_WQ_PRIVATE;
	wait_queue_func_t func;
	struct list_head task_list;
};

struct __wait_queue_head {
	spinlock_t lock;
	struct list_head task_list;
};
typedef struct __wait_queue_head wait_queue_head_t;

struct task_struct;

EMU_BEGIN_DECLS
int default_wake_function(wait_queue_t *wait, unsigned mode, int sync,
			  void *key);
int autoremove_wake_function(wait_queue_t *wait, unsigned mode, int sync,
			     void *key);
void init_waitqueue_head(wait_queue_head_t *q);
void add_wait_queue(wait_queue_head_t *q, wait_queue_t *wait);
void add_wait_queue_exclusive(wait_queue_head_t *q, wait_queue_t *wait);
void remove_wait_queue(wait_queue_head_t *q, wait_queue_t *wait);
void prepare_to_wait(wait_queue_head_t *q, wait_queue_t *wait, int state);
void prepare_to_wait_exclusive(wait_queue_head_t *q, wait_queue_t *wait,
			       int state);
void finish_wait(wait_queue_head_t *q, wait_queue_t *wait);
void __wake_up(wait_queue_head_t *q, unsigned int mode, int nr, void *key);
void __wake_up_locked(wait_queue_head_t *q, unsigned int mode);
struct task_struct *get_current(void);
EMU_END_DECLS

#define __WAITQUEUE_INITIALIZER(name, tsk) {				\
	.flags		= 0,						\
	.EMU_WQ_PRIVATE	= tsk,						\
	.func		= default_wake_function,			\
	.task_list	= { NULL, NULL } }

#define DECLARE_WAITQUEUE(name, tsk)					\
	wait_queue_t name = __WAITQUEUE_INITIALIZER(name, tsk)

#define __WAIT_QUEUE_HEAD_INITIALIZER(name) {				\
	.lock		= __SPIN_LOCK_UNLOCKED(name.lock),		\
	.task_list	= { &(name).task_list, &(name).task_list } }

#define DECLARE_WAIT_QUEUE_HEAD(name) \
	wait_queue_head_t name = __WAIT_QUEUE_HEAD_INITIALIZER(name)
#define DECLARE_WAIT_QUEUE_HEAD_ONSTACK(name) DECLARE_WAIT_QUEUE_HEAD(name)

static inline void init_waitqueue_entry(wait_queue_t *q, struct task_struct *p)
{
	q->flags = 0;
	q->EMU_WQ_PRIVATE = p;
	q->func = default_wake_function;
}

static inline void init_waitqueue_func_entry(wait_queue_t *q,
					     wait_queue_func_t func)
{
	q->flags = 0;
	q->EMU_WQ_PRIVATE = NULL;
	q->func = func;
}

static inline int waitqueue_active(wait_queue_head_t *q)
{
	return !list_empty(&q->task_list);
}

static inline void __add_wait_queue(wait_queue_head_t *head,
				    wait_queue_t *new_)
{
	list_add(&new_->task_list, &head->task_list);
}

static inline void __add_wait_queue_tail(wait_queue_head_t *head,
					 wait_queue_t *new_)
{
	list_add_tail(&new_->task_list, &head->task_list);
}

static inline void __remove_wait_queue(wait_queue_head_t *head,
				       wait_queue_t *old)
{
	(void)head;
	list_del(&old->task_list);
}

/* Task states, as linux/sched.h defines them (needed by the macros). */
#define TASK_NORMAL_WAKE	3	/* TASK_INTERRUPTIBLE | TASK_UNINTERRUPTIBLE */

#define wake_up(x)			__wake_up(x, TASK_NORMAL_WAKE, 1, NULL)
#define wake_up_nr(x, nr)		__wake_up(x, TASK_NORMAL_WAKE, nr, NULL)
#define wake_up_all(x)			__wake_up(x, TASK_NORMAL_WAKE, 0, NULL)
#define wake_up_locked(x)		__wake_up_locked((x), TASK_NORMAL_WAKE)
#define wake_up_interruptible(x)	__wake_up(x, 1, 1, NULL)
#define wake_up_interruptible_nr(x, nr)	__wake_up(x, 1, nr, NULL)
#define wake_up_interruptible_all(x)	__wake_up(x, 1, 0, NULL)

#define DEFINE_WAIT(name)						\
	wait_queue_t name = {						\
		.flags		= 0,					\
		.EMU_WQ_PRIVATE	= get_current(),			\
		.func		= autoremove_wake_function,		\
		.task_list	= LIST_HEAD_INIT((name).task_list),	\
	}

#define __wait_event(wq, condition)					\
do {									\
	DEFINE_WAIT(__wait);						\
									\
	for (;;) {							\
		prepare_to_wait(&wq, &__wait, TASK_UNINTERRUPTIBLE);	\
		if (condition)						\
			break;						\
		schedule();						\
	}								\
	finish_wait(&wq, &__wait);					\
} while (0)

#define wait_event(wq, condition)					\
do {									\
	might_sleep();							\
	if (condition)							\
		break;							\
	__wait_event(wq, condition);					\
} while (0)

#define __wait_event_interruptible(wq, condition, ret)			\
do {									\
	DEFINE_WAIT(__wait);						\
									\
	for (;;) {							\
		prepare_to_wait(&wq, &__wait, TASK_INTERRUPTIBLE);	\
		if (condition)						\
			break;						\
		if (!signal_pending(current)) {				\
			schedule();					\
			continue;					\
		}							\
		ret = -ERESTARTSYS;					\
		break;							\
	}								\
	finish_wait(&wq, &__wait);					\
} while (0)

#define wait_event_interruptible(wq, condition)				\
({									\
	int __ret = 0;							\
	might_sleep();							\
	if (!(condition))						\
		__wait_event_interruptible(wq, condition, __ret);	\
	__ret;								\
})

#endif /* _LINUX_WAIT_H */
