// The fuzzer's sixteen commands: the selectors that choose each field,
// address and length of a record, and every command built, sent and its
// answer checked.

#include "runner.hpp"

namespace fuzz {

bool Runner::poke(int proc, emu::uaddr a, const void *src, std::size_t n)
{
	return w_.procs[proc]->poke(a, src, n);
}

MapRec Runner::map_of(int proc, int slot, int nth)
{
	std::lock_guard lk(w_.book);
	std::vector<MapRec> mine, theirs;
	for (auto &m : w_.maps) {
		if (m.slot == slot)
			mine.push_back(m);
		else if (m.proc == proc)
			theirs.push_back(m);
	}
	mine.insert(mine.end(), theirs.begin(), theirs.end());
	if (mine.empty())
		return MapRec{proc, slot, 0, 0};
	return mine[static_cast<std::size_t>(nth) % mine.size()];
}

emu::uaddr Runner::addr(int proc, int slot, std::uint8_t sel,
			emu::uaddr def, std::uint32_t raw)
{
	const emu::uaddr s = w_.scratch[proc];
	const unsigned hi = sel >> 4;
	switch (sel % 16) {
	case 1: return def + 1 + hi;                    // misaligned
	case 2: return s + kGuard - 1 - hi;             // runs into no access
	case 3: return s + kGuard;                      // no access
	case 4: return s + kReadOnly;                   // read-only
	case 5: return w_.procs[proc]->unmapped_address();
	case 6: return 0;
	case 7: {                                       // the read buffer
		MapRec m = map_of(proc, slot, 0);
		return m.addr ? m.addr : def;
	}
	case 8: {                                       // inside it
		MapRec m = map_of(proc, slot, 0);
		return m.addr ? m.addr + kPage * hi : def;
	}
	case 9: {                                       // another one
		MapRec m = map_of(proc, slot, 1);
		return m.addr ? m.addr : def;
	}
	case 10: return 0xc0000000u + (raw & 0xfff);    // the kernel's
	case 11: return 0xffffffffu - hi;               // wraps
	case 12: return raw;
	default: return def;
	}
}

std::uint32_t Runner::len(std::uint8_t sel, std::uint32_t def,
			  std::uint32_t raw)
{
	switch (sel % 8) {
	case 1: return 0;
	case 2: return 1;
	case 3: return def - 1;
	case 4: return def + 1;
	case 5: return 0xffffffffu;
	case 6: return raw & 0xff;
	case 7: return raw;
	default: return def;
	}
}

Dev Runner::dev(std::uint8_t sel, std::uint32_t raw)
{
	switch (sel % 16) {
	case 1: return {8, 2};
	case 2: return {8, 3};       // no file system
	case 3: return {8, 0};       // the whole disk under sda1
	case 4: return {8, 16};      // sdb: a file system on a whole disk
	case 5: return {8, 17};      // no such partition
	case 6: return {8, 15};
	case 7: return {3, 0};       // no such disk
	case 8: return {255, 255};   // the last of the session table
	case 9: return {256, 0};     // past it
	case 10: return {8, 256};
	case 11: return {raw >> 24, raw & 0xffffff};
	default: return {8, 1};
	}
}

int Runner::pick_slot(std::uint8_t sel, int lane)
{
	const int want = sel % kMaxSlots;
	{
		std::lock_guard lk(w_.book);
		if (w_.slots[want].open)
			return want;
		for (int s = 0; s < kMaxSlots; s++)
			if (w_.slots[s].open)
				return s;
	}
	// No file open: the fuzzing thread opens one, as a program would.
	if (lane != 0 || !w_.loaded)
		return -1;
	int fd = w_.open_slot(want, (sel >> 4) & 1, armed_);
	trace("  (opened slot " + std::to_string(want) + ": fd " +
	      std::to_string(fd) + ")");
	return fd >= 0 ? want : -1;
}

void Runner::fill_bitmap(int proc, std::uint8_t mode, std::uint32_t raw)
{
	std::vector<std::uint8_t> v(kBitmapBytes);
	switch (mode % 4) {
	case 1: std::fill(v.begin(), v.end(), 0xff); break;
	case 2: std::fill(v.begin(), v.end(), 0x00); break;
	case 3:
		for (std::size_t i = 0; i < v.size(); i++)
			v[i] = static_cast<std::uint8_t>(raw >> (8 * (i % 4)));
		break;
	default: return;   // as GET_AUTOMAP (or nothing) left it
	}
	poke(proc, w_.scratch[proc] + kBitmap, v.data(), v.size());
}

// ---- the commands ----------------------------------------------------------

// The results the driver defines for a command: its own codes 0 to 12
// (there is no 10), and three documented negative ones.
bool defined_result(int cmd, long r)
{
	if (r >= 0 && r <= 12 && r != 10)
		return true;
	switch (cmd) {
	case UNLOAD: return r == -1;              // module in use
	case GET_DIRTY_BLOCK: return r == -EFAULT;  // put_user's
	case START_BACKUP: return r < 0 && r >= -4095;  // the thread's start
	default: return false;
	}
}

// What a command can answer, where that is known exactly.
bool expected_result(int cmd, long r)
{
	switch (cmd) {
	case GET_STATE:
	case GET_AUTOMAP_STATE: return r == 0 || r == 6 || r == 7;
	case NO_LOAD:
	case NO_START:
	case SYNC: return r == 0;
	case VERSION_MAJOR:
	case VERSION_MINOR: return r == 0 || r == 7;
	case UNLOAD: return r == 0 || r == -1;
	case COMMAND_16: return r == 3;
	default: return true;
	}
}

void Runner::ioctl(const Op &op, int lane, bool fault_armed)
{
	const int cmd = op.cmd();
	const int si = pick_slot(op.slot, lane);
	if (si < 0) {
		trace(std::string(kNames[cmd]) + ": no file");
		return;
	}
	Slot slot;
	{
		std::lock_guard lk(w_.book);
		slot = w_.slots[si];
	}
	const int proc = slot.proc;
	emu::Process &p = *w_.procs[proc];
	const emu::uaddr S = w_.scratch[proc];
	const emu::uaddr rec = S + kRec[lane];
	const emu::uaddr ubm = S + kUbm[lane];
	std::uint32_t f[4] = {};
	std::size_t nf = 0;
	std::string desc;
	// What the default READ_BLOCKS reads, to move the cursor on.
	bool default_read = false;
	std::uint32_t read_start = 0, read_n = 0;
	Dev d{};
	std::uint32_t total = 0;
	bool default_ptr = (op.s[0] % 16 == 0 || op.s[0] % 16 >= 13);
	bool default_len = op.s[1] % 8 == 0;

	switch (cmd) {
	case GET_BLOCK_SIZE:
		d = dev(op.s[0], op.raw);
		f[0] = d.major;
		f[1] = d.minor;
		f[2] = addr(proc, si, op.s[1], S + kAnswer, op.raw);
		f[3] = len(op.s[2], 16, op.raw);
		nf = 4;
		break;
	case START_BACKUP: {
		if (w_.thread_start_wedged) {
			trace("START_BACKUP: skipped, the thread's "
			      "semaphore is gone since a failed start");
			return;
		}
		d = dev(op.s[0], op.raw);
		int m = mount_of(d.major, d.minor);
		std::uint32_t exact = 1024;
		if (m >= 0) {
			std::shared_lock lk(w_.fs_lock);
			if (w_.fs[m])
				exact = w_.blocks_of(m);
		}
		switch (op.s[1] % 8) {
		case 1: total = exact - 1; break;
		case 2: total = exact + 1; break;
		case 3: total = 0; break;
		case 4: total = 1; break;
		case 5: total = op.raw & 0x3fffff; break;
		case 6: total = 0xfffffff9u + (op.raw % 7); break;   // (n + 7) / 8 wraps
		case 7: total = exact * 2; break;
		default: total = exact; break;
		}
		std::uint32_t cache;
		switch (op.s[2] % 8) {
		case 1: cache = 0; break;
		case 2: cache = 1; break;
		case 3: cache = 16; break;
		case 4: cache = op.raw & 0xffff; break;
		case 5: cache = 0xffffffffu; break;
		case 6: cache = 256; break;
		case 7: cache = op.raw; break;
		default: cache = 1u << 20; break;
		}
		f[0] = d.major;
		f[1] = d.minor;
		f[2] = total;
		f[3] = cache;
		nf = 4;
		break;
	}
	case SNAPSHOT: {
		emu::uaddr def = S + kAnswerKey;
		switch (op.s[2] % 5) {
		case 1: {   // one byte of the key wrong
			std::uint8_t b = peek<std::uint8_t>(
				proc, S + kAnswerKey + op.raw % 56);
			b ^= 0x5a;
			poke(proc, S + kAnswerKey + op.raw % 56, &b, 1);
			break;
		}
		case 2: {
			std::uint8_t z[56] = {};
			poke(proc, S + kAnswerKey, z, sizeof(z));
			break;
		}
		case 3:     // a key saved before
			def = S + kSavedKey;
			break;
		case 4: {   // save this one for later
			std::uint8_t k[56];
			w_.procs[proc]->peek(S + kAnswerKey, k, sizeof(k));
			poke(proc, S + kSavedKey, k, sizeof(k));
			break;
		}
		default:
			break;
		}
		f[0] = addr(proc, si, op.s[0], def, op.raw);
		f[1] = len(op.s[1], KIV_AMS_KEY_LEN, op.raw);
		nf = 2;
		break;
	}
	case GET_STATE:
		f[0] = addr(proc, si, op.s[0], S + kAnswer, op.raw);
		f[1] = len(op.s[1], sizeof(State), op.raw);
		nf = 2;
		break;
	case GET_AUTOMAP_STATE:
		f[0] = addr(proc, si, op.s[0], S + kAnswer, op.raw);
		f[1] = len(op.s[1], sizeof(AutoMapState), op.raw);
		nf = 2;
		break;
	case LOAD_BLOCK_MAP:
	case GET_AUTOMAP: {
		std::uint32_t n = slot.total;
		switch (op.s[1] % 8) {
		case 1: n = 0; break;
		case 2: n = slot.total + 1; break;
		case 3: n = slot.total - 1; break;
		case 4: n = op.raw & 0x3ffff; break;
		case 5: n = 0xfffffff9u | (op.raw & 7); break;
		case 6: n = kBitmapBytes * 8; break;
		case 7: n = kBitmapBytes * 8 + 1; break;
		default: break;
		}
		std::uint32_t bm[2] = {
			addr(proc, si, op.s[2], S + kBitmap, op.raw), n};
		poke(proc, ubm, bm, sizeof(bm));
		if (cmd == LOAD_BLOCK_MAP)
			fill_bitmap(proc, op.s[3], op.raw);
		f[0] = addr(proc, si, op.s[0], ubm, op.raw);
		f[1] = op.raw;
		nf = 2;
		desc = " map {" + hex(bm[0]) + "," + std::to_string(n) + "}";
		break;
	}
	case GET_DIRTY_BLOCK:
		f[0] = addr(proc, si, op.s[0], S + kOut, op.raw);
		nf = 1;
		break;
	case READ_BLOCKS: {
		MapRec m = map_of(proc, si, 0);
		const unsigned bs = slot.bs ? slot.bs : 1024;
		const std::uint32_t per_map = m.len / bs;
		const std::uint32_t tot = slot.total;
		std::uint32_t start;
		switch (op.s[0] % 8) {
		case 1: start = 0; break;
		case 2: start = tot - 1; break;
		case 3: start = tot - per_map; break;
		case 4: start = op.raw; break;
		case 5: start = 0xffffffffu - (op.raw & 0xff); break;
		case 6: start = tot; break;
		case 7: start = slot.cursor + 1; break;
		default: start = slot.cursor; break;
		}
		std::uint32_t n;
		switch (op.s[1] % 8) {
		case 1: n = 0; break;
		case 2: n = 1; break;
		case 3: n = per_map + 1; break;
		case 4: n = op.raw & 0xffff; break;
		case 5: n = 0xffffffffu; break;
		case 6: n = per_map; break;
		case 7: n = op.raw; break;
		default:
			n = start < tot ? std::min(per_map, tot - start) : 1;
			break;
		}
		f[0] = start;
		f[1] = n;
		f[2] = addr(proc, si, op.s[2],
			    m.addr ? m.addr : S + kAnswer, op.raw);
		nf = 3;
		default_read = op.s[0] % 8 == 0 && op.s[1] % 8 == 0 &&
			       f[2] == m.addr;
		read_start = start;
		read_n = n;
		break;
	}
	case VERSION_MAJOR:
	case VERSION_MINOR:
		// The argument is the answer's address itself.
		break;
	default:
		break;
	}

	if (nf)
		poke(proc, rec, f, nf * 4);
	emu::uaddr arg;
	if (cmd == VERSION_MAJOR || cmd == VERSION_MINOR)
		arg = addr(proc, si, op.s[0], S + kOut, op.raw);
	else
		arg = addr(proc, si, op.s[5], rec, op.raw);
	bool default_arg = arg == rec;

	const long r = p.ioctl(slot.fd, kCodes[cmd], arg);

	std::string line = std::string(lane ? "[async] " : "") + kNames[cmd] +
			   " slot " + std::to_string(si) + " {";
	for (std::size_t i = 0; i < nf; i++)
		line += (i ? "," : "") + hex(f[i]);
	line += "}" + desc + " arg " + hex(arg) + " = " + std::to_string(r);
	trace(line);

	if (r == emu::SYSCALL_KILLED)
		finding(std::string(kNames[cmd]) + ": the kernel oopsed");
	if (r == -EBADF)
		return;   // the file went meanwhile (asynchronous close)
	if (!defined_result(cmd, r))
		finding(std::string(kNames[cmd]) + " returned " +
			std::to_string(r) + ", not a result the driver defines");
	if (!expected_result(cmd, r))
		finding(std::string(kNames[cmd]) + " returned " +
			std::to_string(r) + ", which it cannot answer");

	switch (cmd) {
	case START_BACKUP:
		if (r < 0 && r != -EBUSY) {
			// kernel_thread failed (only by injection): the
			// driver keeps signalThread taken.
			w_.thread_start_wedged = true;
			if (!fault_armed)
				finding("START_BACKUP's thread failed to start "
					"with no fault injected: " +
					std::to_string(r));
		}
		if (r == 0) {
			std::lock_guard lk(w_.book);
			Slot &s = w_.slots[si];
			if (s.open && s.fd == slot.fd) {
				s.started = true;
				s.mount = mount_of(d.major, d.minor);
				s.total = total;
				s.bs = s.mount >= 0 ? w_.fs_bs[s.mount] : 0;
				s.cursor = 0;
			}
		}
		break;
	case GET_STATE:
		if (r == 0 && default_arg && default_ptr && default_len) {
			State st = peek<State>(proc, S + kAnswer);
			static const std::uint32_t ok[] = {0, 1, 2, 4, 5, 6,
							   7, 8, 9, 10, 12, 13};
			if (std::find(std::begin(ok), std::end(ok), st.state) ==
			    std::end(ok))
				finding("GET_STATE answered state " +
					std::to_string(st.state));
			if (st.mmapSize < 0 ||
			    st.mmapSize > KIV_MAX_VM_PAGES * 4096)
				finding("GET_STATE answered mmapSize " +
					std::to_string(st.mmapSize));
		}
		break;
	case GET_AUTOMAP_STATE:
		if (r == 0 && default_arg && default_ptr && default_len) {
			AutoMapState a = peek<AutoMapState>(proc, S + kAnswer);
			if (a.state > 1)
				finding("GET_AUTOMAP_STATE answered state " +
					std::to_string(a.state));
			if (a.major && a.mapSize != (a.mapLen + 7) / 8)
				finding("GET_AUTOMAP_STATE: mapSize " +
					std::to_string(a.mapSize) +
					" for mapLen " +
					std::to_string(a.mapLen));
		}
		break;
	case GET_DIRTY_BLOCK:
		if (r == 0 && default_arg && default_ptr && slot.started) {
			std::uint32_t n = peek<std::uint32_t>(proc, S + kOut);
			if (n != 0xffffffffu && n >= slot.total)
				finding("GET_DIRTY_BLOCK answered block " +
					std::to_string(n) + " of a backup of " +
					std::to_string(slot.total) +
					" blocks");
		}
		break;
	case VERSION_MAJOR:
	case VERSION_MINOR:
		if (r == 0 && op.s[0] % 16 == 0) {
			std::int32_t v = peek<std::int32_t>(proc, S + kOut);
			if (v != (cmd == VERSION_MAJOR ? KIV_VERSION_MAJOR
						       : KIV_VERSION_MINOR))
				finding("version answered " +
					std::to_string(v));
		}
		break;
	case READ_BLOCKS:
		if (r == 0 && default_read && default_arg) {
			std::lock_guard lk(w_.book);
			Slot &s = w_.slots[si];
			if (s.open && s.fd == slot.fd) {
				s.cursor = read_start + read_n;
				if (s.cursor >= s.total)
					s.cursor = 0;
			}
		}
		break;
	default:
		break;
	}
}

void Runner::odd_ioctl(const Op &op, int lane)
{
	const int si = pick_slot(op.slot, lane);
	if (si < 0)
		return;
	Slot slot;
	{
		std::lock_guard lk(w_.book);
		slot = w_.slots[si];
	}
	std::uint32_t base = kCodes[op.s[1] % 16];
	std::uint32_t code;
	switch (op.s[0] % 6) {
	case 1: code = 0x40042a0bu; break;   // the number no command has
	case 2: code = base ^ ((1u + (op.s[2] & 0x3f)) << 16); break;
	case 3: code = base ^ 0xc0000000u; break;
	case 4: code = base ^ 0x0100u; break;
	case 5: code = 0; break;
	default: code = op.raw; break;
	}
	emu::uaddr arg = addr(slot.proc, si, op.s[5],
			      w_.scratch[slot.proc] + kRec[lane], op.raw);
	const long r = w_.procs[slot.proc]->ioctl(slot.fd, code, arg);
	trace(std::string(lane ? "[async] " : "") + "ioctl " + hex(code) +
	      " slot " + std::to_string(si) + " arg " + hex(arg) + " = " +
	      std::to_string(r));
	if (r == emu::SYSCALL_KILLED)
		finding("an unknown command oopsed");
	if (r == -EBADF)
		return;
	if (std::find(std::begin(kCodes), std::end(kCodes), code) ==
	    std::end(kCodes)) {
		if (r != 4)
			finding("unknown command " + hex(code) + " returned " +
				std::to_string(r) + ", not 4");
	}
}

}  // namespace fuzz
