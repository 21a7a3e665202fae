// Allocations that may do I/O where I/O cannot make progress, held bios,
// and the module's bios in flight.
//
// 2.6.27 reclaims memory for an allocation that may sleep; with __GFP_IO
// (and __GFP_FS) reclaim may write dirty pages back and wait for that
// writeback.  Two kinds of task must never wait so:
//
// - A task inside a make_request function (current->bio_tail set, i.e.
//   generic_make_request() is active on it, block_queue.cpp): the writeback
//   it would wait for is queued behind its own current->bio_list, which is
//   submitted only when it returns.
// - A thread that serves held I/O.  A bio is *held* when a make_request
//   function called by __generic_make_request() returned 0 without passing
//   it on: it did not reach the disk's own request function, was not
//   resubmitted with generic_make_request() and was not ended with
//   bio_endio() during the call (an intercepting driver kept it for later).
//   A kernel thread (made by kernel_thread) *serves held I/O* from the
//   moment it passes on a held bio - submits it with generic_make_request()
//   or calls the disk's request function with it (directly or through a
//   saved make_request_fn), or ends it with bio_endio() - until it exits.  Writeback that reclaim starts
//   may itself be held, behind requests only this thread passes on: it
//   would wait for itself.  The allocations such a thread made before its
//   first pass-on count too: one with __GFP_IO or __GFP_FS made after the
//   bio it passes on was held is reported when it passes it on, with the
//   allocation's call site (the thread was serving that bio already).
//   Tasks that are not kernel threads (a test driving the driver's
//   functions by hand) are never servers.
//
// A violation names the call site of the allocation and the rule.
#include "core.hpp"
#include "checks.hpp"

#include <linux/bio.h>

namespace {

struct BioState {
	bool in_call = false;     // inside a make_request call
	bool passed_on = false;   // ... and passed on during it
	emu_task *caller = nullptr;
	std::uint64_t seq = 0;    // when the call began (the hold)
};

struct InFlight {
	emu::Site site;
	const void *end_io;
};

struct State {
	std::mutex m;
	std::uint64_t seq = 0;
	std::unordered_map<const struct bio *, BioState> bios;
	std::unordered_map<const struct bio *, InFlight> module_bios;
};

State &state()
{
	static auto *s = new State;   // lives until exit
	return *s;
}

// What a kernel thread has done that matters here.  Only its own thread
// touches it.
struct ThreadIo {
	bool serves = false;
	std::uint64_t io_alloc_seq = 0;   // last allocation that may do I/O
	emu::Site io_alloc_site;
	std::string io_alloc_what;
};
thread_local ThreadIo t_io;

std::string gfp_text(unsigned gfp)
{
	char buf[32];
	std::snprintf(buf, sizeof(buf), "0x%x", gfp);
	return buf;
}

// The current task passes on a bio held since `held_seq`.
void passing_on_held(std::uint64_t held_seq)
{
	emu_task *t = emu::cur();
	if (!t->kthread)
		return;
	t_io.serves = true;
	if (t_io.io_alloc_seq > held_seq)
		emu::violation(t_io.io_alloc_site, t_io.io_alloc_what +
			       " that may do I/O, made by kernel thread " +
			       t->task.comm + " while a bio it then passed "
			       "on was held: it serves held I/O, and reclaim "
			       "may wait for writeback held behind it");
}

// A bio passed on (reached the disk, was resubmitted or ended).
void passed_on(const struct bio *bio)
{
	std::uint64_t held_seq = 0;
	bool held = false;
	{
		emu::Invisible inv;
		std::lock_guard lk(state().m);
		auto it = state().bios.find(bio);
		if (it == state().bios.end())
			return;
		BioState &b = it->second;
		if (b.passed_on) {
			state().bios.erase(it);
			return;
		}
		if (b.in_call && b.caller == emu::cur()) {
			// passed on during the call: not held
			b.passed_on = true;
			return;
		}
		// held (or handed to another task during the call)
		held = true;
		held_seq = b.seq;
		state().bios.erase(it);
	}
	if (held)
		passing_on_held(held_seq);
}

void module_bio_in_flight(struct bio *bio, emu::Site site)
{
	if (!bio->bi_end_io ||
	    !emu::in_module_text(reinterpret_cast<const void *>(
					 bio->bi_end_io)))
		return;
	emu::Invisible inv;
	std::lock_guard lk(state().m);
	state().module_bios.try_emplace(
		bio, InFlight{site, reinterpret_cast<const void *>(
					   bio->bi_end_io)});
}

void forget(const struct bio *bio)
{
	emu::Invisible inv;
	std::lock_guard lk(state().m);
	state().bios.erase(bio);
	state().module_bios.erase(bio);
}

}  // namespace

namespace emu {

void check_alloc_context(Site site, unsigned gfp, const char *what)
{
	if (!(gfp & (__GFP_IO | __GFP_FS)))
		return;
	emu_task *t = cur();
	if (t->task.bio_tail)
		violation(site, std::string(what) + " with gfp " +
			  gfp_text(gfp) + " (__GFP_IO/__GFP_FS) inside a "
			  "make_request function: reclaim may wait for "
			  "writeback queued behind this very call");
	if (!t->kthread)
		return;
	if (t_io.serves)
		violation(site, std::string(what) + " with gfp " +
			  gfp_text(gfp) + " (__GFP_IO/__GFP_FS) in kernel "
			  "thread " + t->task.comm + ", which serves held "
			  "I/O: reclaim may wait for writeback held behind "
			  "it");
	Invisible inv;
	std::lock_guard lk(state().m);
	t_io.io_alloc_seq = ++state().seq;
	t_io.io_alloc_site = site;
	t_io.io_alloc_what = std::string(what) + " with gfp " +
		gfp_text(gfp);
}

void io_make_request_begin(struct bio *bio)
{
	Invisible inv;
	std::lock_guard lk(state().m);
	BioState &b = state().bios[bio];
	b.in_call = true;
	b.passed_on = false;
	b.caller = cur();
	b.seq = ++state().seq;
}

void io_make_request_end(struct bio *bio, int ret)
{
	Invisible inv;
	std::lock_guard lk(state().m);
	auto it = state().bios.find(bio);
	if (it == state().bios.end() || it->second.caller != cur())
		return;   // handed to another task, which passed it on
	if (it->second.passed_on || ret)
		state().bios.erase(it);
	else
		it->second.in_call = false;   // held
}

void io_submitted(struct bio *bio, Site site)
{
	passed_on(bio);
	module_bio_in_flight(bio, site);
}

void io_at_disk(struct bio *bio)
{
	passed_on(bio);
	module_bio_in_flight(bio, Site{"(the disk's request function)", 0});
}

void io_ended(struct bio *bio)
{
	passed_on(bio);
	forget(bio);
}

void io_freed(struct bio *bio)
{
	forget(bio);
}

std::vector<std::string> module_bios_in_flight()
{
	Invisible inv;
	std::lock_guard lk(state().m);
	std::vector<std::string> out;
	for (auto &[bio, f] : state().module_bios) {
		char buf[64];
		std::snprintf(buf, sizeof(buf), "bio %p", static_cast<
			      const void *>(bio));
		out.push_back(std::string(buf) + " submitted at " +
			      to_string(f.site));
	}
	return out;
}

}  // namespace emu
