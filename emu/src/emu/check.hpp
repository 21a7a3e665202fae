// Context checks and the per-test invariants of the emulated kernel.
//
// A violation of a kernel rule (sleeping with a spin lock held or interrupts
// disabled, unbalanced kmap/kunmap, freeing memory that holds a locked lock,
// destroying a slab cache with live objects, unlocking a lock not held) is
// fatal: it prints "EMU VIOLATION: <what> at <file>:<line>" to stderr and
// aborts the process, so a test fails loudly with the call site.  BUG()
// prints "kernel BUG at <file>:<line>!" (as 2.6.27 does, also into the log)
// and aborts; tests expect it with EXPECT_DEATH.
#pragma once

#include <string>
#include <vector>

namespace emu {

// Problems that make a finished test dirty: leaked objects (see leaks()),
// locks still held, kernel threads still running, a module still loaded
// (when `module_must_be_unloaded`).  Empty when clean.
std::vector<std::string> test_problems(bool module_must_be_unloaded = true);

// Locks currently held by any task (file:line of the acquiring call).
std::vector<std::string> held_locks();

}  // namespace emu
