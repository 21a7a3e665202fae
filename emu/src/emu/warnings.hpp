// Kernel warnings a test must expect.
//
// Some of 2.6.27's checks do not stop the kernel: they print a warning and
// go on (WARN_ON's "WARNING: at FILE:LINE FUNC()", and the "BUG: sleeping
// function called from invalid context at FILE:LINE" of a sleep with
// interrupts disabled).  The emulation logs the same lines and records
// each warning; a test that means to produce one expects its lines with
// ExpectLog/AssertLog (tests/support), which acknowledges it.  A warning
// still unacknowledged when the test ends makes the test fail.
#pragma once

#include <string>
#include <vector>

namespace emu {

// Warning lines ("<N>text") recorded and not yet acknowledged.
std::vector<std::string> pending_warnings();
// The test has seen exactly these log lines: every pending warning among
// them is acknowledged (once per occurrence).
void warnings_seen(const std::vector<std::string> &lines);
// The pending warnings, which are then forgotten (end of a test).
std::vector<std::string> take_pending_warnings();

}  // namespace emu
