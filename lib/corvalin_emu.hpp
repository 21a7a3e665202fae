// The emulated transport of libcorvalin: an emu::Process of the emulated
// kernel plays the backup program.  Its user memory is the process's 32-bit
// address space (anonymous mappings, accessed with peek/poke, so a fault is
// reported as the process would see it), and its system calls run the
// driver's file operations.
#pragma once

#include "corvalin_client.h"
#include "emu/process.hpp"

namespace corvalin {

class EmuTransport {
public:
	explicit EmuTransport(emu::Process &process);
	EmuTransport(const EmuTransport &) = delete;
	EmuTransport &operator=(const EmuTransport &) = delete;

	// The transport table for cv_open / Device::open; valid while *this is.
	const cv_transport *get() const { return &tp_; }
	emu::Process &process() const { return process_; }

private:
	emu::Process &process_;
	cv_transport tp_;
};

}  // namespace corvalin
