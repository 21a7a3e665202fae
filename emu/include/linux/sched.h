/*
 * sched.h - tasks, `current`, sleeping and waking, kernel threads.
 *
 * CUSTOMISED: every host thread that runs kernel code is a task with a
 * struct task_struct of its own (`current`): the test's threads, the
 * kernel threads started by kernel_thread(), and the emulation's own
 * threads (disks, file systems).  The members the driver may read are
 * 2.6.27's (pid, comm, mm, state, bio_list/bio_tail...); the runtime keeps
 * the rest behind `emu`.
 *
 * Sleeping follows 2.6.27: a task sets its state (set_current_state) and
 * calls schedule(); schedule() returns at once for TASK_RUNNING (a real
 * yield of the processor), and otherwise sleeps until wake_up_process()
 * makes the task runnable again, or, for TASK_INTERRUPTIBLE, a signal is
 * pending.  A task that holds the big kernel lock releases it while it
 * sleeps in schedule() and retakes it before returning.  Calling
 * schedule() with a spin lock held or interrupts disabled is fatal
 * ("scheduling while atomic").
 *
 * Signals: a task has a pending and a blocked set; signal_pending() is
 * true when a pending signal is not blocked.  daemonize() blocks every
 * signal, allow_signal() unblocks one, as in 2.6.27.
 */
#ifndef _LINUX_SCHED_H
#define _LINUX_SCHED_H

#include <linux/types.h>
#include <linux/kernel.h>
#include <linux/list.h>
#include <linux/spinlock.h>
#include <linux/wait.h>
#include <linux/completion.h>
#include <linux/jiffies.h>
#include <linux/time.h>
#include <linux/emu_runtime.h>
#include <asm/atomic.h>
#include <asm/processor.h>
#include <asm/signal.h>

#define TASK_RUNNING		0
#define TASK_INTERRUPTIBLE	1
#define TASK_UNINTERRUPTIBLE	2
#define __TASK_STOPPED		4
#define __TASK_TRACED		8
#define EXIT_ZOMBIE		16
#define EXIT_DEAD		32
#define TASK_DEAD		64
#define TASK_WAKEKILL		128
#define TASK_KILLABLE		(TASK_WAKEKILL | TASK_UNINTERRUPTIBLE)
#define TASK_STOPPED		(TASK_WAKEKILL | __TASK_STOPPED)
#define TASK_TRACED		(TASK_WAKEKILL | __TASK_TRACED)
#define TASK_NORMAL		(TASK_INTERRUPTIBLE | TASK_UNINTERRUPTIBLE)
#define TASK_ALL		(TASK_NORMAL | __TASK_STOPPED | __TASK_TRACED)

#define TASK_COMM_LEN 16

#ifndef CLONE_VM
#define CLONE_VM	0x00000100
#define CLONE_FS	0x00000200
#define CLONE_FILES	0x00000400
#define CLONE_SIGHAND	0x00000800
#endif
#define CLONE_KERNEL	(CLONE_FS | CLONE_FILES | CLONE_SIGHAND)

/* Per-task flags (task_struct.flags), 2.6.27 values. */
#define PF_EXITING	0x00000004
#define PF_KTHREAD_EMU	0x00200000	/* started by kernel_thread() */
#define PF_MEMALLOC	0x00000800
#define PF_NOFREEZE	0x00008000

#define MAX_SCHEDULE_TIMEOUT	LONG_MAX

struct mm_struct;
struct bio;
struct emu_task;

struct task_struct {
	volatile long state;	/* -1 unrunnable, 0 runnable, >0 stopped */
	unsigned int flags;	/* per process flags, defined above */
	int lock_depth;		/* BKL lock depth: -1 when not held */
	pid_t pid;
	pid_t tgid;
	char comm[TASK_COMM_LEN];
	struct mm_struct *mm, *active_mm;
	/* stacked block device info (generic_make_request's recursion) */
	struct bio *bio_list, **bio_tail;
	int exit_code;
	struct emu_task *emu;	/* the runtime's part of the task */
};

EMU_BEGIN_DECLS
struct task_struct *get_current(void);
void emu_set_current_state(long state);
void emu_schedule(EMU_SITE_PARAMS);
signed long emu_schedule_timeout(signed long timeout, EMU_SITE_PARAMS);
void yield(void);
int wake_up_process(struct task_struct *tsk);
void daemonize(const char *name, ...) __attribute__((format(printf, 1, 2)));
int allow_signal(int sig);
int disallow_signal(int sig);
int signal_pending(struct task_struct *p);
int fatal_signal_pending(struct task_struct *p);
void flush_signals(struct task_struct *t);
int send_sig(int sig, struct task_struct *p, int priv);
struct task_struct *find_task_by_pid(pid_t nr);
void emu_complete_and_exit(struct completion *comp, long code)
	__attribute__((noreturn));
void emu_do_exit(long code) __attribute__((noreturn));
EMU_END_DECLS

#define current			get_current()
#define set_current_state(state_value)	emu_set_current_state(state_value)
#define __set_current_state(state_value) emu_set_current_state(state_value)
#define set_task_state(tsk, state_value) \
	do { BUG_ON((tsk) != current); set_current_state(state_value); } while (0)
#define __set_task_state(tsk, state_value) set_task_state(tsk, state_value)
#define schedule()		emu_schedule(EMU_SITE)
#define schedule_timeout(t)	emu_schedule_timeout((t), EMU_SITE)
#define complete_and_exit(comp, code)	emu_complete_and_exit((comp), (code))
#define do_exit(code)		emu_do_exit(code)
#define task_pid_nr(tsk)	((tsk)->pid)
#define get_task_struct(tsk)	do { } while (0)
#define put_task_struct(tsk)	do { } while (0)

static inline int signal_pending_state(long state, struct task_struct *p)
{
	if (!(state & (TASK_INTERRUPTIBLE | TASK_WAKEKILL)))
		return 0;
	if (!signal_pending(p))
		return 0;
	return (state & TASK_INTERRUPTIBLE) || fatal_signal_pending(p);
}

#endif /* _LINUX_SCHED_H */
