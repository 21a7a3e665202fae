// Hooks of the runtime's ordering, allocation-context, kmap_atomic and
// module checks, called from the places they watch (one line each, so the
// watched code stays as it was).  Internal to the runtime: include after
// kernel_api.hpp (through core.hpp).
//
//   race.cpp          race windows after the calls that wake a waiter
//   warnings.cpp      the kernel warnings a test must expect (the
//                     sleeping-function warning, WARN_ON)
//   io_context.cpp    allocations that may do I/O where I/O is blocked;
//                     held bios; bios of the module in flight
//   kmap_atomic.cpp   the kmap_atomic slots of a task
//   module.cpp        the module's threads and data at unload
#pragma once

#include "runtime.hpp"

struct bio;
struct page;
struct request_queue;
struct emu_task;

namespace emu {

// ---- race windows (race.cpp) -------------------------------------------
// Right after a call that may let a waiter run (unlock_buffer, complete,
// up, up_write, wake_up, b_end_io before bio_put): when the race-window
// mode is on, a yield or a short sleep chosen by the seeded generator of
// this call site (`where`, plus the caller's location when known).
void race_window(const char *where, Site caller = {});

// ---- warnings (warnings.cpp) --------------------------------------------
// A function that may sleep (`what`) is called in a task with interrupts
// disabled and nothing else atomic: 2.6.27's __might_sleep() warning, if
// `what` calls might_sleep() in 2.6.27, once per second of jiffies,
// recorded as a warning the test must expect.
void sleeping_with_irqs_off(Site site, const char *what);
// schedule() returns with interrupts enabled, whatever they were.
void schedule_enables_irqs();

// The same for a function that may sleep but carries no might_sleep()
// annotation in 2.6.27 (__make_request): a sleep there with interrupts
// merely off goes through schedule(), which turns them on without a word,
// so only the atomic contexts are violations.
void check_may_sleep_unannotated(Site site, const char *what);
// A warning line the kernel logged ("WARNING: at ..."), to be expected.
void record_warning(const std::string &line);

// ---- allocation context and held I/O (io_context.cpp) -------------------
// Fatal when an allocation with __GFP_IO or __GFP_FS is made inside a
// make_request function or by a thread that serves held I/O.
void check_alloc_context(Site site, unsigned gfp, const char *what);
// __generic_make_request() calls q->make_request_fn(q, bio).
void io_make_request_begin(struct bio *bio);
void io_make_request_end(struct bio *bio, int ret);
// A bio enters generic_make_request(), or the disk's own request function.
void io_submitted(struct bio *bio, Site site);
void io_at_disk(struct bio *bio);
// bio_endio() of a bio; a bio freed.
void io_ended(struct bio *bio);
void io_freed(struct bio *bio);
// The module's bios in flight (one line each).
std::vector<std::string> module_bios_in_flight();
// Disks whose request queue's make_request_fn lies in the module's text:
// after rmmod every request to them would call freed code.
std::vector<std::string> queues_hooked_by_module();

// ---- kmap_atomic slots (kmap_atomic.cpp) -------------------------------
void kmap_atomic_slot_map(int type, void *addr, Site site);
void kmap_atomic_slot_unmap(int type, void *addr, Site site);

// ---- the module (module.cpp) ---------------------------------------------
// Whether code at `addr` lies in the module's text.
bool in_module_text(const void *addr);
// A kernel thread starts with `fn`; it reached complete_and_exit/do_exit
// (or returned).
void module_thread_started(emu_task *t, const void *fn);
void module_thread_exiting(emu_task *t);

}  // namespace emu
