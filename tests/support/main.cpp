// The GoogleTest main of every test binary.  After each test, the
// emulated kernel must be clean: nothing leaked (memory, pages, slab
// objects and caches, bios, buffer heads), no lock held, no kernel thread
// running, every kmap undone, the module unloaded; and no kernel warning
// logged that the test did not expect with ExpectLog/AssertLog.  Otherwise the problems
// are printed and the binary exits with a failure (CTest runs every test
// in a process of its own, so the failure is that test's).
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include <gtest/gtest.h>

#include "emu/emu.hpp"

namespace support::detail {
extern bool g_allow_module_loaded;
}

namespace {

bool g_dirty = false;

class InvariantListener : public ::testing::EmptyTestEventListener {
	void OnTestStart(const ::testing::TestInfo &) override
	{
		support::detail::g_allow_module_loaded = false;
		if (std::uint64_t seed = emu::race_windows_seed()) {
			std::printf("EMU_RACE_WINDOWS=%llu (race windows on; "
				    "replay with this setting)\n",
				    static_cast<unsigned long long>(seed));
			std::fflush(stdout);
		}
	}

	void OnTestEnd(const ::testing::TestInfo &info) override
	{
		auto problems = emu::test_problems(
			!support::detail::g_allow_module_loaded);
		// A warning the kernel printed and the test did not expect
		// (ExpectLog/AssertLog with its lines) fails the test.
		for (auto &w : emu::take_pending_warnings())
			problems.push_back("unexpected kernel warning: " + w);
		if (problems.empty())
			return;
		g_dirty = true;
		std::fprintf(stderr, "[  DIRTY   ] %s.%s left the kernel "
			     "unclean:\n", info.test_suite_name(), info.name());
		for (auto &p : problems)
			std::fprintf(stderr, "    %s\n", p.c_str());
		std::fflush(stderr);
	}
};

}  // namespace

int main(int argc, char **argv)
{
	::testing::InitGoogleTest(&argc, argv);
	// Kernel threads may run while a death test forks.
	GTEST_FLAG_SET(death_test_style, "threadsafe");
	::testing::UnitTest::GetInstance()->listeners().Append(
		new InvariantListener);
	int result = RUN_ALL_TESTS();
	return (result || g_dirty) ? 1 : 0;
}
