// The emulated 2.6.27 kernel: everything a test, a tool or the client
// library's emulated transport needs, in one include.
#pragma once

#include "emu/check.hpp"
#include "emu/fault.hpp"
#include "emu/log.hpp"
#include "emu/memory.hpp"
#include "emu/module.hpp"
#include "emu/process.hpp"
#include "emu/race.hpp"
#include "emu/warnings.hpp"
