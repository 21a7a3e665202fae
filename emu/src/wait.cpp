// Wait queues and completions, as 2.6.27's kernel/wait.c and the
// completion functions of kernel/sched.c.
#include "core.hpp"
#include "checks.hpp"

using emu::cur;

namespace {

unsigned long lock_irqsave(spinlock_t *lock)
{
	unsigned long flags = emu_local_irq_save();
	emu_spin_lock(lock, __FILE__, __LINE__);
	return flags;
}

void unlock_irqrestore(spinlock_t *lock, unsigned long flags)
{
	emu_spin_unlock(lock, __FILE__, __LINE__);
	emu_local_irq_restore(flags, __FILE__, __LINE__);
}

// __wake_up_common(): call the entries' wake functions; stop after
// nr_exclusive exclusive waiters were woken (0: wake all).
void wake_up_common(wait_queue_head_t *q, unsigned int mode, int nr_exclusive,
		    int sync, void *key)
{
	wait_queue_t *curr, *next;

	list_for_each_entry_safe(curr, next, &q->task_list, task_list) {
		unsigned flags = curr->flags;

		if (curr->func(curr, mode, sync, key) &&
		    (flags & WQ_FLAG_EXCLUSIVE) && !--nr_exclusive)
			break;
	}
}

}  // namespace

namespace emu {
int wake_task(task_struct *p, long mode);
}

extern "C" int default_wake_function(wait_queue_t *wait, unsigned mode,
				     int sync, void *key)
{
	(void)sync;
	(void)key;
	return emu::wake_task(static_cast<task_struct *>(wait->private_),
			      static_cast<long>(mode));
}

extern "C" int autoremove_wake_function(wait_queue_t *wait, unsigned mode,
					int sync, void *key)
{
	int ret = default_wake_function(wait, mode, sync, key);

	if (ret)
		list_del_init(&wait->task_list);
	return ret;
}

extern "C" void init_waitqueue_head(wait_queue_head_t *q)
{
	emu_spin_lock_init(&q->lock);
	INIT_LIST_HEAD(&q->task_list);
}

extern "C" void add_wait_queue(wait_queue_head_t *q, wait_queue_t *wait)
{
	wait->flags &= ~WQ_FLAG_EXCLUSIVE;
	unsigned long flags = lock_irqsave(&q->lock);
	__add_wait_queue(q, wait);
	unlock_irqrestore(&q->lock, flags);
}

extern "C" void add_wait_queue_exclusive(wait_queue_head_t *q,
					 wait_queue_t *wait)
{
	wait->flags |= WQ_FLAG_EXCLUSIVE;
	unsigned long flags = lock_irqsave(&q->lock);
	__add_wait_queue_tail(q, wait);
	unlock_irqrestore(&q->lock, flags);
}

extern "C" void remove_wait_queue(wait_queue_head_t *q, wait_queue_t *wait)
{
	unsigned long flags = lock_irqsave(&q->lock);
	__remove_wait_queue(q, wait);
	unlock_irqrestore(&q->lock, flags);
}

extern "C" void prepare_to_wait(wait_queue_head_t *q, wait_queue_t *wait,
				int state)
{
	wait->flags &= ~WQ_FLAG_EXCLUSIVE;
	unsigned long flags = lock_irqsave(&q->lock);
	if (list_empty(&wait->task_list))
		__add_wait_queue(q, wait);
	emu_set_current_state(state);
	unlock_irqrestore(&q->lock, flags);
}

extern "C" void prepare_to_wait_exclusive(wait_queue_head_t *q,
					  wait_queue_t *wait, int state)
{
	wait->flags |= WQ_FLAG_EXCLUSIVE;
	unsigned long flags = lock_irqsave(&q->lock);
	if (list_empty(&wait->task_list))
		__add_wait_queue_tail(q, wait);
	emu_set_current_state(state);
	unlock_irqrestore(&q->lock, flags);
}

extern "C" void finish_wait(wait_queue_head_t *q, wait_queue_t *wait)
{
	emu_set_current_state(TASK_RUNNING);
	// Always take the lock (2.6.27 peeks with list_empty_careful first;
	// the lock makes the same decision without a data race).
	unsigned long flags = lock_irqsave(&q->lock);
	if (!list_empty(&wait->task_list))
		list_del_init(&wait->task_list);
	unlock_irqrestore(&q->lock, flags);
}

extern "C" void __wake_up(wait_queue_head_t *q, unsigned int mode, int nr,
			  void *key)
{
	unsigned long flags = lock_irqsave(&q->lock);
	wake_up_common(q, mode, nr, 0, key);
	unlock_irqrestore(&q->lock, flags);
	emu::race_window("wake_up");
}

extern "C" void __wake_up_locked(wait_queue_head_t *q, unsigned int mode)
{
	wake_up_common(q, mode, 1, 0, nullptr);
}

// ---- completions --------------------------------------------------------------------

extern "C" void complete(struct completion *x)
{
	unsigned long flags = lock_irqsave(&x->wait.lock);
	x->done++;
	wake_up_common(&x->wait, TASK_NORMAL, 1, 0, nullptr);
	unlock_irqrestore(&x->wait.lock, flags);
	emu::race_window("complete");
}

extern "C" void complete_all(struct completion *x)
{
	unsigned long flags = lock_irqsave(&x->wait.lock);
	x->done += UINT_MAX / 2;
	wake_up_common(&x->wait, TASK_NORMAL, 0, 0, nullptr);
	unlock_irqrestore(&x->wait.lock, flags);
	emu::race_window("complete_all");
}

namespace {

// do_wait_for_common(): sleep (exclusively) until done is non-zero, then
// consume one completion.  Returns 0, or -ERESTARTSYS on a signal.
int wait_for_common(struct completion *x, long state, const char *what,
		    const char *file, int line)
{
	if (x->wait.lock.magic != SPINLOCK_MAGIC)
		emu::violation(emu::site(file, line),
			       "completion used before init_completion");
	emu::check_may_sleep(emu::site(file, line), what);
	// spin_lock_irq/spin_unlock_irq, as 2.6.27: the caller comes back
	// with interrupts enabled, whatever it had before.
	emu_local_irq_disable();
	emu_spin_lock(&x->wait.lock, file, line);
	if (!x->done) {
		DECLARE_WAITQUEUE(wait, current);

		wait.flags |= WQ_FLAG_EXCLUSIVE;
		__add_wait_queue_tail(&x->wait, &wait);
		do {
			if (signal_pending_state(state, current)) {
				__remove_wait_queue(&x->wait, &wait);
				emu_spin_unlock(&x->wait.lock, file, line);
				emu_local_irq_enable(file, line);
				return -ERESTARTSYS;
			}
			emu_set_current_state(state);
			emu_spin_unlock(&x->wait.lock, file, line);
			emu_local_irq_enable(file, line);
			emu_schedule(file, line);
			emu_local_irq_disable();
			emu_spin_lock(&x->wait.lock, file, line);
		} while (!x->done);
		__remove_wait_queue(&x->wait, &wait);
	}
	x->done--;
	emu_spin_unlock(&x->wait.lock, file, line);
	emu_local_irq_enable(file, line);
	return 0;
}

}  // namespace

extern "C" void emu_wait_for_completion(struct completion *x,
					const char *file, int line)
{
	wait_for_common(x, TASK_UNINTERRUPTIBLE, "wait_for_completion", file,
			line);
}

extern "C" int emu_wait_for_completion_interruptible(struct completion *x,
						     const char *file,
						     int line)
{
	return wait_for_common(x, TASK_INTERRUPTIBLE,
			       "wait_for_completion_interruptible", file, line);
}

extern "C" bool try_wait_for_completion(struct completion *x)
{
	int ret = 1;
	unsigned long flags = lock_irqsave(&x->wait.lock);
	if (!x->done)
		ret = 0;
	else
		x->done--;
	unlock_irqrestore(&x->wait.lock, flags);
	return ret;
}

extern "C" bool completion_done(struct completion *x)
{
	unsigned long flags = lock_irqsave(&x->wait.lock);
	bool ret = x->done != 0;
	unlock_irqrestore(&x->wait.lock, flags);
	return ret;
}
