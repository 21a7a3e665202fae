// Test support shared by every suite: log expectations, the ModuleTest
// fixture, user pointers, seeds of randomised tests.
//
// Every test binary links tests/support/main.cpp, whose listener checks
// after each test that the emulated kernel is clean (emu::test_problems():
// nothing leaked, no lock held, no kernel thread running, kmaps balanced,
// the module unloaded) and makes the binary fail otherwise.
//
// Include this header after the standard library's and GoogleTest's
// headers and before any kernel header (emu/include), if a file uses both.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "emu/emu.hpp"

namespace support {

// The log holds exactly `lines` ("<N>text", oldest first) since the last
// clear; clears it in any case.  On success the kernel warnings among the
// lines (emu/warnings.hpp) count as expected; a warning never expected so
// makes the test fail at its end.
::testing::AssertionResult LogIs(const char *expr,
				 const std::vector<std::string> &lines);

// The end-of-test check accepts a module left loaded (for the one test
// that means to); reset before every test.
void allow_module_loaded_at_end();

// A 32-bit user address as the `void __user *` a driver function takes.
inline void *user_ptr(emu::uaddr a)
{
	return reinterpret_cast<void *>(static_cast<std::uintptr_t>(a));
}

// A driver state word read as the driver reads it: without a lock, while
// the driver may be storing it (each store followed by a full barrier).
// For polling loops; ThreadSanitizer is told not to count the read.
std::uint32_t racy_read(const volatile std::uint32_t *word);

// The seed of a randomised test: CORVALIN_SEED when set, otherwise a fresh
// one; printed, and recorded as a test property, so that a failure can be
// replayed with CORVALIN_SEED=<seed>.
std::uint64_t seed();

// Loads the module (expecting 0), creates /dev/corvalin (major 120, minor
// 0) and a process; at the end closes the process's files and mappings
// (by destroying it) and unloads the module.  The log is cleared after the
// load; load_log() holds what the load logged.
class ModuleTest : public ::testing::Test {
protected:
	void SetUp() override;
	void TearDown() override;

	// open("/dev/corvalin") in the fixture's process.
	int open_device();
	const std::vector<std::string> &load_log() const { return load_log_; }

	std::unique_ptr<emu::Process> proc;

private:
	std::vector<std::string> load_log_;
};

}  // namespace support

// ExpectLog({"<6>kivInit: corvalin version 3.1.0 build 9504 loaded"}):
// exactly these lines were logged since the last clear (then clears).
#define ExpectLog(...) \
	EXPECT_PRED_FORMAT1(::support::LogIs, \
			    ::std::vector<::std::string>(__VA_ARGS__))
#define AssertLog(...) \
	ASSERT_PRED_FORMAT1(::support::LogIs, \
			    ::std::vector<::std::string>(__VA_ARGS__))
