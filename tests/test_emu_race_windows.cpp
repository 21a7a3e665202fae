// The race-window mode: after the calls that let a waiter run, a yield or
// a short sleep chosen per call site by a seeded generator, so that a
// completion touching what its waiter frees shows up under ASan (here: a
// buffer head's reference dropped after unlock_buffer, with the waiter
// freeing it as soon as it is unlocked).  A seed replays its decisions.
#include <cstdint>

#include "test_emu_util.hpp"

#include <linux/buffer_head.h>
#include <linux/rwsem.h>
#include <linux/semaphore.h>
#include <linux/wait.h>

namespace {

// One pass over every call that opens a window, all uncontended.
void wake_everything()
{
	static DECLARE_MUTEX(sem);
	static DECLARE_RWSEM(rw);
	static DECLARE_WAIT_QUEUE_HEAD(wq);
	struct completion c;
	init_completion(&c);
	for (int i = 0; i < 16; i++) {
		complete(&c);
		wait_for_completion(&c);
		down(&sem);
		up(&sem);
		down_write(&rw);
		up_write(&rw);
		wake_up(&wq);
		struct buffer_head *bh = alloc_buffer_head(GFP_NOIO);
		lock_buffer(bh);
		unlock_buffer(bh);
		free_buffer_head(bh);
	}
}

// A completion and its waiter, `rounds` times: the completion (on a
// kernel thread) ends a locked buffer head the way `end` says; the waiter
// waits for the unlock and frees the buffer head at once.
void complete_against_waiter(int rounds, void (*end)(struct buffer_head *))
{
	struct Shared {
		struct buffer_head *bh = nullptr;
		struct completion ready, next;
		void (*end)(struct buffer_head *);
	} s;
	init_completion(&s.ready);
	init_completion(&s.next);
	s.end = end;
	emutest::KThread completer([&s, rounds] {
		for (int i = 0; i < rounds; i++) {
			wait_for_completion(&s.ready);
			s.end(s.bh);
		}
	});
	for (int i = 0; i < rounds; i++) {
		struct buffer_head *bh = alloc_buffer_head(GFP_NOIO);
		get_bh(bh);
		lock_buffer(bh);
		s.bh = bh;
		complete(&s.ready);
		wait_on_buffer(bh);
		// 2.6.27 frees a buffer head whatever its count.
		free_buffer_head(bh);
	}
	completer.join();
}

void put_then_unlock(struct buffer_head *bh)
{
	put_bh(bh);
	unlock_buffer(bh);
}

void unlock_then_put(struct buffer_head *bh)
{
	unlock_buffer(bh);
	put_bh(bh);   // the waiter may have freed it already
}

}  // namespace

TEST(RaceWindows, OffOpensNoWindow)
{
	emu::race_windows_set(0);
	EXPECT_EQ(emu::race_windows_seed(), 0u);
	const std::uint64_t before = emu::race_windows_taken();
	wake_everything();
	EXPECT_EQ(emu::race_windows_taken(), before);
}

TEST(RaceWindows, ASeedReplaysTheSameWindows)
{
	emu::race_windows_set(0x5eed);
	EXPECT_EQ(emu::race_windows_seed(), 0x5eedu);
	std::uint64_t before = emu::race_windows_taken();
	wake_everything();
	const std::uint64_t first = emu::race_windows_taken() - before;
	// Setting the seed starts every call site's sequence afresh.
	emu::race_windows_set(0x5eed);
	before = emu::race_windows_taken();
	wake_everything();
	const std::uint64_t second = emu::race_windows_taken() - before;
	emu::race_windows_set(0);
	EXPECT_GT(first, 0u);
	EXPECT_LT(first, 16u * 6u);   // some windows stay shut
	EXPECT_EQ(second, first);
}

TEST(RaceWindowsConcurrency, ReferenceDroppedBeforeTheUnlockIsSafe)
{
	emu::race_windows_set(0x5eed);
	complete_against_waiter(300, put_then_unlock);
	emu::race_windows_set(0);
}

TEST(RaceWindowsDeathTest, ReferenceDroppedAfterTheUnlockIsAUseAfterFree)
{
	EXPECT_DEATH(
		{
			emu::race_windows_set(0x5eed);
			complete_against_waiter(3000, unlock_then_put);
		},
		"heap-use-after-free");
}
