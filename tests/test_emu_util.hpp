// Helpers of the emulated kernel's own suites (tests/test_emu_*.cpp).
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support.hpp"

// The kernel interfaces, after every standard header.
#include <linux/completion.h>
#include <linux/sched.h>

namespace emutest {

// Polls cond() until it holds (fails the test after 10 s).
inline bool eventually(const std::function<bool()> &cond)
{
	auto deadline = std::chrono::steady_clock::now() +
		std::chrono::seconds(10);
	while (!cond()) {
		if (std::chrono::steady_clock::now() > deadline) {
			ADD_FAILURE() << "condition not reached in 10 s";
			return false;
		}
		std::this_thread::sleep_for(std::chrono::milliseconds(1));
	}
	return true;
}

// Gives other threads time to do what they should not do (a blocked
// waiter must stay blocked).  Used only to make a negative observation
// meaningful, never to order events.
inline void settle()
{
	std::this_thread::sleep_for(std::chrono::milliseconds(50));
}

// A kernel thread running fn (kernel_thread + complete_and_exit).
class KThread {
public:
	explicit KThread(std::function<void()> fn) : fn_(std::move(fn))
	{
		init_completion(&done_);
		pid_ = kernel_thread(&KThread::body, this, CLONE_KERNEL);
	}
	~KThread()
	{
		if (pid_ > 0 && !joined_)
			join();
	}
	KThread(const KThread &) = delete;
	KThread &operator=(const KThread &) = delete;
	int pid() const { return pid_; }
	void join()
	{
		wait_for_completion(&done_);
		joined_ = true;
	}

private:
	static int body(void *arg)
	{
		auto *k = static_cast<KThread *>(arg);
		k->fn_();
		complete_and_exit(&k->done_, 0);
	}
	std::function<void()> fn_;
	struct completion done_;
	int pid_;
	bool joined_ = false;
};

// Runs fn(0) .. fn(n - 1) at once, each in a kernel thread of its own;
// returns when all of them have finished.
inline void run_in_threads(int n, const std::function<void(int)> &fn)
{
	std::vector<std::unique_ptr<KThread>> threads;
	for (int i = 0; i < n; i++)
		threads.push_back(std::make_unique<KThread>([&fn, i] { fn(i); }));
	for (auto &t : threads)
		t->join();
}

}  // namespace emutest
