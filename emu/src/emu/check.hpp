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

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace emu {

// Problems that make a finished test dirty: leaked objects (see leaks()),
// locks still held, kernel threads still running, a module still loaded
// (when `module_must_be_unloaded`).  Empty when clean.
std::vector<std::string> test_problems(bool module_must_be_unloaded = true);

// Locks currently held by any task (file:line of the acquiring call).
std::vector<std::string> held_locks();

// The lock validator (emu/src/lockdep.cpp) reports a broken locking rule
// in 2.6.27 lockdep's words ("possible recursive locking detected",
// "inconsistent lock state", "possible circular locking dependency
// detected", "interrupts enabled inside an irqsave region"): the report
// with both call sites goes to stderr, then the violation line, and the
// process aborts.  EMU_LOCKDEP=0 turns it off.
//
// The hang watchdog reports "hang: no emulated task made progress for N s"
// after printing every task, what it waits for and the locks it holds,
// when a task stays blocked in an emulated wait and nothing progresses for
// the timeout: 20 s, or EMU_HANG_TIMEOUT=<seconds>, or this call.
void set_hang_timeout(std::chrono::milliseconds timeout);

// Runs fn on the calling task as an interrupt runs: in softirq context (as
// a block completion) or in hard-interrupt context (interrupts disabled).
enum class Interrupt { Soft, Hard };
void run_in_interrupt(Interrupt kind, const std::function<void()> &fn);

}  // namespace emu
