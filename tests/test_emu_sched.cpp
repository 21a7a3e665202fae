// Tasks of the emulated kernel: kernel threads, `current`, signals,
// schedule() and the big kernel lock.
#include <atomic>
#include <string>

#include "test_emu_util.hpp"

#include <linux/semaphore.h>
#include <linux/smp_lock.h>

using emutest::eventually;
using emutest::KThread;
using emutest::run_in_threads;
using emutest::settle;

namespace {

struct ThreadInfo {
	std::atomic<int> pid{0};
	std::string comm_before, comm_after;
	bool had_mm = false, has_mm = true;
	struct completion started;
	struct completion exited;
	std::atomic<bool> after_exit{false};
};

int thread_body(void *arg)
{
	auto *info = static_cast<ThreadInfo *>(arg);
	info->pid = current->pid;
	info->comm_before = current->comm;
	daemonize("kbackupd");
	info->comm_after = current->comm;
	info->has_mm = current->mm != nullptr;
	complete(&info->started);
	complete_and_exit(&info->exited, 0);
	info->after_exit = true;   // never reached
	return 0;
}

}  // namespace

TEST(KernelThread, StartsWithItsPidAndDaemonizeNamesIt)
{
	ThreadInfo info;
	init_completion(&info.started);
	init_completion(&info.exited);
	int pid = kernel_thread(thread_body, &info, CLONE_KERNEL);
	ASSERT_GT(pid, 0);
	wait_for_completion(&info.started);
	wait_for_completion(&info.exited);
	EXPECT_EQ(info.pid, pid);
	EXPECT_NE(pid, current->pid);
	EXPECT_EQ(info.comm_before, std::string(current->comm));
	EXPECT_EQ(info.comm_after, "kbackupd");
	EXPECT_FALSE(info.has_mm);
	settle();
	EXPECT_FALSE(info.after_exit);
	EXPECT_TRUE(eventually([] { return emu::usage().threads == 0; }));
}

TEST(KernelThread, CountsAsRunningUntilItExits)
{
	static struct semaphore go;
	sema_init(&go, 0);
	KThread t([] { down(&go); });
	EXPECT_EQ(emu::usage().threads, 1);
	up(&go);
	t.join();
	EXPECT_TRUE(eventually([] { return emu::usage().threads == 0; }));
}

TEST(KernelThread, FailsWithEnomemWhenInjected)
{
	auto scope = emu::FailScope::nth(emu::Alloc::Thread, 1);
	unsigned long before = emu::alloc_calls(emu::Alloc::Thread);
	ThreadInfo info;
	init_completion(&info.started);
	init_completion(&info.exited);
	EXPECT_EQ(kernel_thread(thread_body, &info, CLONE_KERNEL), -ENOMEM);
	EXPECT_EQ(emu::alloc_calls(emu::Alloc::Thread), before + 1);
	EXPECT_EQ(emu::usage().threads, 0);
}

TEST(KernelThread, ReturningFromTheBodyEndsTheThread)
{
	static std::atomic<int> ran;
	ran = 0;
	int pid = kernel_thread([](void *) -> int { ran = 1; return 0; },
			       nullptr, 0);
	ASSERT_GT(pid, 0);
	EXPECT_TRUE(eventually([] { return ran == 1; }));
	EXPECT_TRUE(eventually([] { return emu::usage().threads == 0; }));
}

TEST(Schedule, InterruptibleSleepEndsAtWakeUpProcess)
{
	std::atomic<int> pid{0};
	std::atomic<bool> woke{false};
	KThread t([&] {
		pid = current->pid;
		set_current_state(TASK_INTERRUPTIBLE);
		schedule();
		woke = true;
	});
	ASSERT_TRUE(eventually([&] { return pid != 0; }));
	settle();
	EXPECT_FALSE(woke);
	struct task_struct *task = find_task_by_pid(pid);
	ASSERT_NE(task, nullptr);
	EXPECT_TRUE(eventually([&] { return wake_up_process(task) == 1; }));
	t.join();
	EXPECT_TRUE(woke);
}

TEST(Schedule, RunningTaskJustYields)
{
	set_current_state(TASK_RUNNING);
	schedule();
	EXPECT_EQ(current->state, TASK_RUNNING);
}

TEST(Signal, PendingOnlyWhenNotBlocked)
{
	std::atomic<int> pending_blocked{-1}, pending_allowed{-1};
	std::atomic<int> pid{0};
	static struct semaphore step;
	sema_init(&step, 0);
	KThread t([&] {
		daemonize("sig");
		pid = current->pid;
		down(&step);
		pending_blocked = signal_pending(current);
		allow_signal(SIGUSR1);
		down(&step);
		pending_allowed = signal_pending(current);
		flush_signals(current);
	});
	ASSERT_TRUE(eventually([&] { return pid != 0; }));
	send_sig(SIGUSR1, find_task_by_pid(pid), 1);
	up(&step);
	ASSERT_TRUE(eventually([&] { return pending_blocked != -1; }));
	send_sig(SIGUSR1, find_task_by_pid(pid), 1);
	up(&step);
	t.join();
	EXPECT_EQ(pending_blocked, 0);
	EXPECT_EQ(pending_allowed, 1);
}

TEST(BigKernelLockConcurrency, ReleasedWhileTheHolderSleeps)
{
	static struct semaphore sleep_here;
	sema_init(&sleep_here, 0);
	std::atomic<bool> a_locked{false}, b_got_it{false};
	std::atomic<int> a_depth_after{-2};
	KThread a([&] {
		lock_kernel();
		lock_kernel();   // recursive
		a_locked = true;
		down(&sleep_here);   // sleeps holding the BKL twice
		a_depth_after = current->lock_depth;
		unlock_kernel();
		unlock_kernel();
	});
	ASSERT_TRUE(eventually([&] { return a_locked.load(); }));
	KThread b([&] {
		lock_kernel();
		b_got_it = true;
		unlock_kernel();
	});
	// b gets the lock although a never unlocked it: a sleeps.
	EXPECT_TRUE(eventually([&] { return b_got_it.load(); }));
	b.join();
	up(&sleep_here);
	a.join();
	EXPECT_EQ(a_depth_after, 1);   // retaken at the same depth
}

TEST(BigKernelLockConcurrency, SerialisesHoldersThatDoNotSleep)
{
	static long inside, max_inside;
	inside = max_inside = 0;
	run_in_threads(3, [](int) {
		for (int k = 0; k < 200; k++) {
			lock_kernel();
			if (++inside > max_inside)
				max_inside = inside;
			inside--;
			unlock_kernel();
		}
	});
	EXPECT_EQ(max_inside, 1);
}
