// The command-sequence fuzzer's entry: an input decoded into its machine
// and operations, each dispatched (the read buffer and the disks here,
// the commands in commands.cpp, the point in time in pit.cpp).  The input
// format is described in runner.hpp.

#include "runner.hpp"

namespace fuzz {

// ---- the read buffer -------------------------------------------------------

void Runner::mmap(const Op &op, int lane)
{
	const int si = pick_slot(op.slot, lane);
	if (si < 0)
		return;
	Slot slot;
	{
		std::lock_guard lk(w_.book);
		slot = w_.slots[si];
	}
	emu::Process &p = *w_.procs[slot.proc];
	const emu::uaddr S = w_.scratch[slot.proc];
	// The size the driver offers, asked as a program asks it.
	std::uint32_t gs[2] = {S + kStateAns[lane], sizeof(State)};
	poke(slot.proc, S + kRec[lane], gs, sizeof(gs));
	long r = p.ioctl(slot.fd, KIV_IOC_GET_STATE, S + kRec[lane]);
	if (r != 0 && r != -EBADF)
		finding("GET_STATE before mmap returned " + std::to_string(r));
	State st = peek<State>(slot.proc, S + kStateAns[lane]);
	const std::uint32_t max = st.mmapSize > 0 ? st.mmapSize / kPage : 1;

	std::uint64_t bytes;
	switch (op.s[0] % 8) {
	case 1: bytes = std::uint64_t(max + 1) * kPage; break;
	case 2: bytes = kPage; break;
	case 3: bytes = std::uint64_t(max / 2) * kPage; break;
	case 4: bytes = 0; break;
	case 5: bytes = std::uint64_t(op.raw % 300) * kPage; break;
	case 6: bytes = std::uint64_t(max) * kPage - 1 - (op.raw & 0xff); break;
	case 7: bytes = 0x40000000u; break;
	default: bytes = std::uint64_t(max) * kPage; break;
	}
	int prot = emu::PROT_READ_, flags = emu::MAP_PRIVATE_;
	switch (op.s[1] % 7) {
	case 1: prot |= emu::PROT_WRITE_; break;
	case 2: flags = emu::MAP_SHARED_; break;
	case 3: prot = emu::PROT_NONE_; break;
	case 4: prot |= emu::PROT_EXEC_; break;
	case 5: flags = 0; break;
	case 6: prot |= emu::PROT_WRITE_; flags = emu::MAP_SHARED_; break;
	default: break;
	}
	unsigned long pgoff;
	switch (op.s[2] % 4) {
	case 1: pgoff = 1; break;
	case 2: pgoff = op.raw; break;
	case 3: pgoff = 0xffffffffu; break;
	default: pgoff = 0; break;
	}
	const long long a = p.mmap(0, static_cast<std::size_t>(bytes), prot,
				   flags, slot.fd, pgoff);
	trace("mmap slot " + std::to_string(si) + " " +
	      std::to_string(bytes) + " bytes prot " + std::to_string(prot) +
	      " flags " + std::to_string(flags) + " pgoff " + hex(pgoff) +
	      " = " + hex(static_cast<std::uint32_t>(a)) + " (" +
	      std::to_string(a) + ")");
	if (a == emu::SYSCALL_KILLED)
		finding("mmap oopsed");
	if (a >= static_cast<long long>(kPage)) {
		std::lock_guard lk(w_.book);
		w_.maps.push_back(MapRec{slot.proc, si,
					 static_cast<emu::uaddr>(a),
					 static_cast<std::uint32_t>(
						 (bytes + kPage - 1) & ~std::uint64_t(kPage - 1))});
		return;
	}
	static const long long ok[] = {2, 5, -EINVAL, -ENOMEM, -EACCES,
				       -EOVERFLOW, -ENODEV, -EBADF};
	if (std::find(std::begin(ok), std::end(ok), a) == std::end(ok))
		finding("mmap returned " + std::to_string(a));
}

void Runner::munmap(const Op &op)
{
	const int si = op.slot % kMaxSlots;
	int proc;
	{
		std::lock_guard lk(w_.book);
		proc = w_.slots[si].open ? w_.slots[si].proc : 0;
	}
	MapRec m = map_of(proc, si, op.s[0]);
	if (!m.addr) {
		trace("munmap: no mapping");
		return;
	}
	const std::uint32_t pages = m.len / kPage;
	emu::uaddr at = m.addr;
	std::uint32_t n = m.len;
	bool whole = false;
	switch (op.s[1] % 7) {
	case 1: n = kPage; break;                                  // head
	case 2: at = m.addr + m.len - kPage; n = kPage; break;     // tail
	case 3: at = m.addr + kPage * (op.raw % pages); n = kPage; break;
	case 4: at = m.addr + 1; break;                            // unaligned
	case 5: n = 0; break;
	case 6: n = 0xffffffffu; break;
	default: whole = true; break;
	}
	const int r = w_.procs[m.proc]->munmap(at, n);
	trace("munmap " + hex(at) + " " + std::to_string(n) + " of [" +
	      hex(m.addr) + " +" + std::to_string(m.len) + "] slot " +
	      std::to_string(m.slot) + " = " + std::to_string(r));
	if (r == emu::SYSCALL_KILLED)
		finding("munmap oopsed");
	if (r != 0 && r != -EINVAL)
		finding("munmap returned " + std::to_string(r));
	if (whole && r == 0) {
		std::lock_guard lk(w_.book);
		for (auto it = w_.maps.begin(); it != w_.maps.end(); ++it)
			if (it->proc == m.proc && it->addr == m.addr) {
				w_.maps.erase(it);
				break;
			}
	}
}

void Runner::peek_map(const Op &op)
{
	const int si = op.slot % kMaxSlots;
	int proc;
	{
		std::lock_guard lk(w_.book);
		proc = w_.slots[si].open ? w_.slots[si].proc : 0;
	}
	MapRec m = map_of(proc, si, op.s[0]);
	if (!m.addr)
		return;
	const std::uint32_t pages = m.len / kPage;
	const emu::uaddr at = m.addr + kPage * (op.s[1] % (pages + 1)) +
			      (op.s[2] & 0xf0);
	std::uint8_t buf[16];
	bool ok = w_.procs[m.proc]->peek(at, buf, sizeof(buf));
	bool stored = false;
	if (op.s[3] & 1)
		stored = w_.procs[m.proc]->poke(at, buf, sizeof(buf));
	trace("peek " + hex(at) + " = " + (ok ? "read" : "fault") +
	      ((op.s[3] & 1) ? (stored ? ", stored" : ", store refused")
			     : ""));
	if (stored)
		finding("a store into a read-only read buffer succeeded");
}

// ---- the disks -------------------------------------------------------------

void Runner::fs_write(const Op &op)
{
	std::shared_lock lk(w_.fs_lock);
	const int m = op.s[0] % kMounts;
	emu::FileSystem *f = w_.fs[m].get();
	if (!f || f->block_size() < 512)
		return;
	std::vector<std::byte> data(f->block_size(), std::byte{op.s[1]});
	const std::uint64_t block = op.raw % f->blocks();
	data[0] = static_cast<std::byte>(block);
	int r = (op.s[2] & 1) ? f->write_mapped(block, data)
			      : f->write_block(block, data);
	trace("fs-write mount " + std::to_string(m) + " block " +
	      std::to_string(block) + ((op.s[2] & 1) ? " (mapped)" : "") +
	      " = " + std::to_string(r));
	if (r != 0 && !w_.disk_failures)
		finding("a file-system write returned " + std::to_string(r));
}

void Runner::fs_sync(const Op &op)
{
	std::shared_lock lk(w_.fs_lock);
	const int m = op.s[0] % kMounts;
	emu::FileSystem *f = w_.fs[m].get();
	if (!f)
		return;
	int r = f->sync();
	trace("fs-sync mount " + std::to_string(m) + " = " + std::to_string(r));
	if (r != 0 && !w_.disk_failures)
		finding("a file-system write-back failed: " + std::to_string(r));
}

void Runner::raw(const Op &op)
{
	std::shared_lock lk(w_.fs_lock);
	const int target = op.s[0] % 4;
	struct block_device *bdev = nullptr;
	std::uint64_t len = 0;
	if (target == 2) {
		bdev = w_.sda_whole();
		len = kSdaSectors;
	} else {
		const int m = target == 3 ? 2 : target;
		if (w_.fs[m]) {
			bdev = w_.bdev_of(m);
			len = w_.fs[m]->blocks() * w_.fs[m]->block_size() / 512;
		}
	}
	if (!bdev || len < 128)
		return;
	const unsigned n = 1 + op.s[1] % 16;
	std::uint64_t at = op.raw % (len - n);
	const bool over = op.s[2] & 0x80;
	if (over)
		at = len - n + 1 + (op.s[2] & 0x1f);   // over the end
	if (target == 2 && at < 63)
		at = 63;   // sda's label stays as the input wrote it
	const int rw = op.s[2] % 3;
	const int res = raw_io(bdev, rw, at, n, op.raw);
	trace("raw-io " + std::string(rw == 0 ? "write" : rw == 1 ? "read"
							     : "readahead") +
	      " target " + std::to_string(target) + " sector " +
	      std::to_string(at) + " +" + std::to_string(n) +
	      (res == kRawNoMemory ? " (no memory)"
	       : res == kRawFailed ? " (failed)" : ""));
	// Within the device nothing may fail a request: the driver passes
	// every write on and reads nothing itself.
	if (res == kRawFailed && !over && rw != 2 && !w_.disk_failures)
		finding("a raw " + std::string(rw ? "read" : "write") +
			" within the device failed");
}

void Runner::rescan(const Op &op)
{
	const int v = op.s[0] % 5;
	if (v)
		w_.write_label(v - 1);
	bool any_mounted;
	{
		std::shared_lock lk(w_.fs_lock);
		any_mounted = w_.fs[0] || w_.fs[1];
	}
	long r = w_.reread_partitions();
	trace("rescan label " + std::to_string(w_.label_on_disk) + " = " +
	      std::to_string(r));
	if (r != 0 && r != -EBUSY)
		finding("BLKRRPART of sda returned " + std::to_string(r));
	if (r != 0 && !any_mounted)
		finding("BLKRRPART of sda with nothing of it mounted returned " +
			std::to_string(r));
}

// No allocation of the driver's may outlive its unload.
void check_unloaded_clean()
{
	std::string left;
	for (auto &l : emu::leaks())
		if (l.find(" at core/") != std::string::npos ||
		    l.find(" at kernel/") != std::string::npos)
			left += "\n    " + l;
	if (!left.empty())
		finding("the driver left allocations after its unload:" + left);
}

void Runner::module(const Op &op)
{
	const int what = op.s[0] % 3;
	if (what == 0 || what == 2) {
		const int files = w_.open_files();
		if (!w_.loaded) {
			int r = emu::module_unload();
			trace("rmmod (not loaded) = " + std::to_string(r));
			if (r != -ENOENT)
				finding("rmmod of an unloaded module returned " +
					std::to_string(r));
		} else {
			int r = emu::module_unload();
			trace("rmmod with " + std::to_string(files) +
			      " files open = " + std::to_string(r));
			if (files > 0 && r != -EWOULDBLOCK)
				finding("rmmod with files open returned " +
					std::to_string(r));
			if (files == 0 && r != 0)
				finding("rmmod with no file open returned " +
					std::to_string(r));
			if (r == 0) {
				w_.loaded = false;
				check_unloaded_clean();
			}
		}
	}
	if (what == 1 || what == 2) {
		int r = emu::module_load();
		trace("insmod = " + std::to_string(r));
		if (w_.loaded && r != -EEXIST)
			finding("insmod of a loaded module returned " +
				std::to_string(r));
		if (!w_.loaded) {
			if (r != 0)
				finding("insmod returned " + std::to_string(r));
			w_.loaded = true;
			w_.thread_start_wedged = false;
		}
	}
}

// ---- dispatch --------------------------------------------------------------

void Runner::exec(const Op &op, int lane, bool fault_armed)
{
	if (lane == 0)
		armed_ = fault_armed;
	if (op.is_ioctl()) {
		ioctl(op, lane, fault_armed);
		return;
	}
	const int si = op.slot % kMaxSlots;
	switch (op.other()) {
	case OPEN: {
		int s = si;
		{
			std::lock_guard lk(w_.book);
			for (int i = 0; w_.slots[s].open && i < kMaxSlots; i++)
				s = (s + 1) % kMaxSlots;
			if (w_.slots[s].open) {
				trace("open: every slot in use");
				return;
			}
		}
		int fd = w_.open_slot(s, op.s[0] & 1, fault_armed);
		trace("open slot " + std::to_string(s) + " in process " +
		      std::to_string(op.s[0] & 1) + " = " + std::to_string(fd));
		break;
	}
	case CLOSE:
		trace("close slot " + std::to_string(si));
		w_.close_slot(si);
		break;
	case REOPEN: {
		int proc;
		{
			std::lock_guard lk(w_.book);
			if (!w_.slots[si].open)
				return;
			proc = w_.slots[si].proc;
		}
		w_.close_slot(si);
		int fd = w_.open_slot(si, proc, fault_armed);
		trace("reopen slot " + std::to_string(si) + " = " +
		      std::to_string(fd));
		break;
	}
	case MMAP: mmap(op, lane); break;
	case MUNMAP: munmap(op); break;
	case PEEK: peek_map(op); break;
	case FS_WRITE: fs_write(op); break;
	case FS_SYNC: fs_sync(op); break;
	case RAW_IO: raw(op); break;
	case WRITER:
		if (op.s[0] & 1)
			w_.writer_stop();
		else
			w_.writer_start();
		trace(std::string("writer ") + ((op.s[0] & 1) ? "stopped"
							      : "running"));
		break;
	case UMOUNT: {
		const int m = op.s[0] % kMounts;
		w_.umount(m);
		trace("umount " + std::to_string(m));
		break;
	}
	case MOUNT: {
		const int m = op.s[0] % kMounts;
		static const unsigned sizes[] = {0, 1024, 2048, 4096, 512, 256};
		unsigned bs = sizes[op.s[1] % 6];
		if (!bs)
			bs = m == 0 ? w_.cfg.sda1_bs : m == 1 ? 1024 : 4096;
		bool ok = w_.mount(m, bs);
		trace("mount " + std::to_string(m) + " bs " + std::to_string(bs) +
		      (ok ? "" : " (not possible)"));
		break;
	}
	case RESCAN: rescan(op); break;
	case MODULE: module(op); break;
	case PIT: pit(op); break;
	case ODD_IOCTL: odd_ioctl(op, lane); break;
	case DISK_FAIL: {
		// sda's sectors from sda1 on fail with -EIO (or -EOPNOTSUPP)
		// in one direction or both; 0 clears.  From here on the input
		// expects failed requests.
		const int what = op.s[0] % 4;
		if (what == 0) {
			w_.sda->clear_failures();
			trace("disk-fail: cleared");
			break;
		}
		static const emu::Dir dirs[] = {emu::Dir::Read, emu::Dir::Write,
						emu::Dir::Both};
		const std::uint64_t first = 63 + op.raw % 3584;
		const std::uint64_t count = 1 + op.s[1] % 64;
		const int err = (op.s[2] & 1) ? -EOPNOTSUPP : -EIO;
		w_.disk_failures = true;
		w_.sda->fail_sectors(first, count, err, dirs[what - 1]);
		trace("disk-fail: sda sectors " + std::to_string(first) + "+" +
		      std::to_string(count) + " dir " + std::to_string(what) +
		      " error " + std::to_string(err));
		break;
	}
	case SIGNAL:
		w_.procs[op.s[0] & 1]->kill(9);
		trace("SIGKILL to process " + std::to_string(op.s[0] & 1));
		break;
	default:
		break;
	}
}

const emu::Alloc kKinds[] = {
	emu::Alloc::Kmalloc, emu::Alloc::Vmalloc, emu::Alloc::Pages,
	emu::Alloc::Slab, emu::Alloc::SlabCreate, emu::Alloc::Bio,
	emu::Alloc::BufferHead, emu::Alloc::Thread,
};
const char *const kKindNames[] = {
	"kmalloc", "vmalloc", "pages", "slab", "slab-create", "bio",
	"buffer-head", "thread",
};

void run_input(const std::uint8_t *data, std::size_t size)
{
	Config cfg;
	const std::uint8_t h0 = size > 0 ? data[0] : 0;
	static const unsigned sizes[] = {1024, 4096, 2048, 1024};
	cfg.sda1_bs = sizes[h0 & 3];
	cfg.bio_completion = h0 & 4;
	cfg.hardirq = h0 & 8;
	cfg.journal = h0 & 16;
	cfg.writer = h0 & 32;
	cfg.race_windows = h0 & 64;
	cfg.prologue = h0 & 128;
	cfg.seed = size > 1 ? data[1] : 0;
	trace_reset();
	trace("config: sda1 bs " + std::to_string(cfg.sda1_bs) +
	      (cfg.bio_completion ? ", bio completion" : "") +
	      (cfg.hardirq ? ", hardirq" : "") + (cfg.journal ? ", journal" : "") +
	      (cfg.writer ? ", writer" : "") +
	      (cfg.race_windows ? ", race windows" : "") +
	      (cfg.prologue ? ", prologue" : "") + ", seed " +
	      std::to_string(cfg.seed));

	World w(cfg);
	Runner run(w);
	if (cfg.prologue) {
		run.exec(make(kFirstOther + OPEN), 0, false);
		run.exec(make(START_BACKUP), 0, false);
		run.exec(make(SNAPSHOT), 0, false);
		run.exec(make(kFirstOther + MMAP), 0, false);
	}

	std::thread async;
	bool join_after = false;
	bool next_async = false;
	std::optional<std::pair<int, unsigned>> fault;
	auto join = [&] {
		if (async.joinable())
			async.join();
		join_after = false;
	};
	const std::size_t nops = std::min<std::size_t>(
		size > kHeader ? (size - kHeader + kOpBytes - 1) / kOpBytes : 0,
		kMaxOps);
	for (std::size_t i = 0; i < nops; i++) {
		const std::size_t at = kHeader + i * kOpBytes;
		const Op op = decode(data + at, size - at);
		if (async.joinable() && !may_overlap(op))
			join();
		if (!op.is_ioctl() && op.other() == ASYNC) {
			next_async = true;
			continue;
		}
		if (!op.is_ioctl() && op.other() == FAULT) {
			const int k = op.s[0] % 8;
			const unsigned n = 1 + op.raw % (kKinds[k] == emu::Alloc::Slab
							  ? 4200 : 48);
			fault = {k, n};
			continue;
		}
		if (next_async && may_run_async(op)) {
			next_async = false;
			join();
			trace("async: " + op_name(op) + " on another thread, "
			      "alongside the next operation");
			async = std::thread([&run, op] { run.exec(op, 1, false); });
			join_after = true;
			continue;
		}
		next_async = false;
		const bool arm = fault && faultable(op);
		if (arm) {
			join();
			w.writer_pause();
			trace("fault: the " + std::to_string(fault->second) +
			      "th " + kKindNames[fault->first] +
			      " allocation from now fails");
			emu::fail_nth(kKinds[fault->first], fault->second);
		}
		const bool joined_later = join_after;
		run.exec(op, 0, arm);
		if (arm) {
			emu::fail_clear(kKinds[fault->first]);
			w.writer_resume();
		}
		fault.reset();
		if (joined_later)
			join();
	}
	join();
	w.finish();
}

}  // namespace fuzz

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
	// A hang is reported sooner than the test default, well within
	// libFuzzer's own -timeout.
	if (!std::getenv("EMU_HANG_TIMEOUT"))
		emu::set_hang_timeout(std::chrono::seconds(15));
	return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data,
				      std::size_t size)
{
	fuzz::run_input(data, size);
	return 0;
}

