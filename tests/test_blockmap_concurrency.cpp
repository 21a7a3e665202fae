// The paged block bitmap under concurrent users: set, clear and test from
// many threads on bits that share bytes and words, and the drain
// (waitForBlockMapUsers) while users come and go.  Run under
// ThreadSanitizer by `make tsan`.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "emu/emu.hpp"
#include "test_driver_util.hpp"

#include <linux/spinlock.h>
#include <asm/atomic.h>

namespace {

constexpr unsigned kThreads = 8;

class BlockMapConcurrency : public ::testing::Test {
protected:
	void SetUp() override
	{
		emu::log_clear();
		base_ = emu::usage();
		int pages = 0;
		ASSERT_EQ(newBlockMap(&bm_, kSize, nullptr, 1, &pages), 0);
		ASSERT_EQ(pages, 3);
	}
	void TearDown() override
	{
		int freed = 0;
		closeBlockMap(&bm_, &freed);
		EXPECT_EQ(freed, 3);
		EXPECT_EQ(emu::usage(), base_);
		ExpectLog({});
	}
	static constexpr std::uint32_t kSize = 3 * 32768 - 5;
	BlockMap bm_{};
	emu::Usage base_;
};

// Threads own interleaved bits (block n belongs to thread n % kThreads), so
// every byte and word is shared by all of them: a non-atomic
// read-modify-write or a missing serialisation loses bits.
TEST_F(BlockMapConcurrency, InterleavedSettersLoseNoBit)
{
	const std::uint32_t span = 3 * 4096;
	{
		std::vector<std::jthread> threads;
		for (unsigned t = 0; t < kThreads; t++)
			threads.emplace_back([this, t, span] {
				for (std::uint32_t n = t; n < span; n += kThreads)
					ASSERT_EQ(setBlock(&bm_, n), 0);
			});
	}
	for (std::uint32_t n = 0; n < span; n++)
		ASSERT_EQ(blockInMap(&bm_, n), -1) << n;
	EXPECT_EQ(blockInMap(&bm_, span), 0);
	EXPECT_EQ(atomic_read(&bm_.users), 1);

	// Clear every other bit concurrently: the others must survive.
	{
		std::vector<std::jthread> threads;
		for (unsigned t = 0; t < kThreads; t++)
			threads.emplace_back([this, t, span] {
				for (std::uint32_t n = t; n < span; n += kThreads)
					if (n % 2) {
						ASSERT_EQ(unSetBlock(&bm_, n), 0);
					}
			});
	}
	for (std::uint32_t n = 0; n < span; n++)
		ASSERT_EQ(blockInMap(&bm_, n), n % 2 ? 0 : -1) << n;
	EXPECT_EQ(atomic_read(&bm_.users), 1);
}

// Each thread runs random set/clear/test on its own interleaved bits and
// checks every answer against its private reference, while the others do
// the same on the neighbouring bits of the same words.
TEST_F(BlockMapConcurrency, MixedOperationsMatchPerThreadReference)
{
	const std::uint64_t seed = support::seed();
	std::atomic<unsigned> mismatches{0};
	{
		std::vector<std::jthread> threads;
		for (unsigned t = 0; t < kThreads; t++)
			threads.emplace_back([this, t, seed, &mismatches] {
				std::mt19937_64 rng(seed + t);
				const std::uint32_t owned = 2048;
				std::vector<bool> ref(owned, false);
				for (int i = 0; i < 6000; i++) {
					std::uint32_t k = rng() % owned;
					std::uint32_t n = k * kThreads + t;
					switch (rng() % 3) {
					case 0:
						if (setBlock(&bm_, n) != 0)
							mismatches++;
						ref[k] = true;
						break;
					case 1:
						if (unSetBlock(&bm_, n) != 0)
							mismatches++;
						ref[k] = false;
						break;
					default:
						if (blockInMap(&bm_, n) !=
						    (ref[k] ? -1 : 0))
							mismatches++;
					}
				}
				for (std::uint32_t k = 0; k < owned; k++)
					if (blockInMap(&bm_, k * kThreads + t) !=
					    (ref[k] ? -1 : 0))
						mismatches++;
			});
	}
	EXPECT_EQ(mismatches.load(), 0u);
	EXPECT_EQ(atomic_read(&bm_.users), 1);
}

// The drain returns only when no operation is inside (users back at its
// resting 1), holding usersLock; while it is held no operation gets in.
TEST_F(BlockMapConcurrency, DrainReturnsWithRestingCountAndLockHeld)
{
	std::atomic<bool> stop{false};
	std::atomic<long> ops{0};
	std::vector<std::jthread> users;
	for (unsigned t = 0; t < kThreads; t++)
		users.emplace_back([this, t, &stop, &ops] {
			std::uint32_t n = t;
			while (!stop.load()) {
				setBlock(&bm_, n);
				blockInMap(&bm_, n);
				unSetBlock(&bm_, n);
				ops++;
				n = (n + kThreads * 977) % kSize;
			}
		});

	// Let the users get going before the first drain.
	while (ops.load() < 100)
		std::this_thread::yield();

	for (int round = 0; round < 20; round++) {
		unsigned long flags = 0;
		waitForBlockMapUsers(&bm_, &flags);
		EXPECT_EQ(atomic_read(&bm_.users), 1);
		EXPECT_TRUE(spin_is_locked(&bm_.usersLock));
		// Users finishing an operation may still bump `ops` once
		// each; none may enter a new one.
		const long before = ops.load();
		for (int i = 0; i < 500; i++) {
			ASSERT_EQ(atomic_read(&bm_.users), 1);
			std::this_thread::yield();
		}
		EXPECT_LE(ops.load() - before, static_cast<long>(kThreads));
		spin_unlock_irqrestore(&bm_.usersLock, flags);
		const long resumed = ops.load();
		while (ops.load() < resumed + static_cast<long>(kThreads))
			std::this_thread::yield();
	}
	stop = true;
	users.clear();
	EXPECT_EQ(atomic_read(&bm_.users), 1);
	EXPECT_FALSE(spin_is_locked(&bm_.usersLock));
}

}  // namespace
