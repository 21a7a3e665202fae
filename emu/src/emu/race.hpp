// The race-window mode of the emulated kernel.
//
// When it is on, the calls that let a waiter run (unlock_buffer, complete,
// up, up_write, wake_up, and a completion's b_end_io before its bio_put)
// are followed by a yield or a short sleep, chosen per call site by a
// generator seeded with the mode's seed, so that a completion that touches
// what its waiter frees is caught by ASan or TSan.
//
// Switched on by the environment: EMU_RACE_WINDOWS=<seed> (decimal or
// 0x-hex, not 0) uses that seed; EMU_RACE_WINDOWS=random, or
// EMU_RACE_WINDOWS_AUTO=1 when EMU_RACE_WINDOWS is unset (CTest sets it
// for the tests labelled `concurrency`), draws a fresh one;
// EMU_RACE_WINDOWS=0 or =off keeps it off.  The seed is printed at the
// start of every test that runs with the mode on.
#pragma once

#include <cstdint>

namespace emu {

// The seed of the mode, 0 when it is off.
std::uint64_t race_windows_seed();
// Turn it on with `seed` (not 0) or off (0), from now on; every call
// site's sequence of decisions starts afresh.
void race_windows_set(std::uint64_t seed);
// How many windows were opened (a yield or a sleep taken) since start.
std::uint64_t race_windows_taken();

}  // namespace emu
