// The fuzzer's checked point in time: a well-formed backup of sda1
// while the writer runs, compared block by block with the frozen instant.

#include "runner.hpp"

namespace fuzz {

// ---- the point in time -----------------------------------------------------

// A well-formed backup of sda1 while the writer runs: START_BACKUP,
// SNAPSHOT (caught at the frozen instant, as tests/test_point_in_time.cpp
// catches it: a helper holds the backup's writers semaphore for reading,
// so the command stops after the freeze and before the hand-over; then the
// partition is copied), optionally the change map and a loaded block map,
// then the whole partition through READ_BLOCKS and the read buffer in
// runs of random length and order.  Every block must be the frozen one.
void Runner::pit(const Op &op)
{
	if (!w_.loaded || w_.thread_start_wedged || w_.disk_failures)
		return;
	unsigned bs;
	std::uint32_t blocks;
	{
		std::shared_lock lk(w_.fs_lock);
		if (!w_.fs[0] || w_.fs_bs[0] < 512)
			return;
		bs = w_.fs_bs[0];
		blocks = w_.blocks_of(0);
	}
	emu::Process &p = *w_.procs[0];
	const emu::uaddr S = w_.scratch[0];
	const int fd = p.open("/dev/corvalin");
	if (fd < 0)
		finding("pit: open returned " + std::to_string(fd));
	Backup *b = static_cast<Backup *>(p.file(fd)->private_data);
	const bool had_writer = w_.writer_running();
	w_.writer_start();
	emu::uaddr mapped = 0;
	std::uint32_t map_len = 0;
	auto done = [&] {
		if (mapped && p.munmap(mapped, map_len) != 0)
			finding("pit: munmap failed");
		if (p.close(fd) != 0)
			finding("pit: close failed");
		if (!had_writer)
			w_.writer_stop();
	};
	auto cmd = [&](std::uint32_t code, std::initializer_list<std::uint32_t>
			       fields) {
		std::vector<std::uint32_t> v(fields);
		if (!v.empty())
			poke(0, S + kPitRec, v.data(), v.size() * 4);
		return p.ioctl(fd, code, S + kPitRec);
	};
	const int mode = op.s[0] % 3;   // full, key from the session, untracked
	const bool load = op.s[1] & 1;
	std::mt19937_64 rng(op.raw);

	long r = cmd(KIV_IOC_START_BACKUP, {8, 1, blocks, 1u << 20});
	if (r != 0) {
		// Another backup holds the slot (9), or its thread still
		// runs (-EBUSY): nothing to check.
		trace("pit: START_BACKUP = " + std::to_string(r) + ", skipped");
		if (r < 0 && r != -EBUSY)
			finding("pit: START_BACKUP's thread failed: " +
				std::to_string(r));
		done();
		return;
	}
	if (mode == 0 && cmd(KIV_IOC_NO_LOAD_FROM_AUTOMAP, {}) != 0)
		finding("pit: NO_LOAD_FROM_AUTOMAP failed");
	if (mode == 2 && cmd(KIV_IOC_NO_START_AUTOMAP, {}) != 0)
		finding("pit: NO_START_AUTOMAP failed");
	{
		std::uint8_t z[sizeof(AutoMapState)] = {};
		poke(0, S + kPitAns, z, sizeof(z));
	}
	if (mode == 1 &&
	    cmd(KIV_IOC_GET_AUTOMAP_STATE, {S + kPitAns, sizeof(AutoMapState)}))
		finding("pit: GET_AUTOMAP_STATE failed");

	// The frozen instant.
	std::vector<std::uint8_t> image(std::size_t(blocks) * bs);
	std::atomic<int> phase{0};
	std::atomic<bool> snap_done{false};
	std::thread holder([&] {
		p.run_as([&] {
			down_read(&b->writers);
			phase = 1;
			while (phase != 2)
				std::this_thread::yield();
			while (!snap_done && down_read_trylock(&b->writers)) {
				up_read(&b->writers);
				std::this_thread::yield();
			}
			w_.sda->drain();
			std::vector<std::byte> now(image.size());
			w_.sda->read(kLabel[0][0].start, now);
			std::memcpy(image.data(), now.data(), now.size());
			up_read(&b->writers);
		});
	});
	while (phase != 1)
		std::this_thread::yield();
	w_.raw_gate.close();
	long snap = 0;
	std::thread snapper([&] {
		snap = cmd(KIV_IOC_SNAPSHOT, {S + kPitAns + 20, KIV_AMS_KEY_LEN});
		snap_done = true;
	});
	phase = 2;
	snapper.join();
	holder.join();
	w_.raw_gate.open();

	auto state = [&] {
		cmd(KIV_IOC_GET_STATE, {S + kPitAns, sizeof(State)});
		State st{};
		p.peek(S + kPitAns, &st, sizeof(st));
		return st;
	};
	State st = state();
	trace("pit: mode " + std::to_string(mode) + " bs " + std::to_string(bs) +
	      " SNAPSHOT = " + std::to_string(snap) + ", state " +
	      std::to_string(st.state));
	if (snap != 0 || st.state != BU_STATE_SNAPSHOT)
		finding("pit: SNAPSHOT of a well-formed backup returned " +
			std::to_string(snap) + " and left state " +
			std::to_string(st.state));

	if (mode == 1) {
		// Export the change map if the snapshot handed one over.
		std::uint32_t bm[2] = {S + kPitBitmap, blocks};
		poke(0, S + kPitUbm, bm, sizeof(bm));
		r = cmd(KIV_IOC_GET_AUTOMAP, {S + kPitUbm, 8});
		trace("pit: GET_AUTOMAP = " + std::to_string(r));
		if (r != 0 && r != 2)
			finding("pit: GET_AUTOMAP returned " + std::to_string(r));
	}
	if (load) {
		std::vector<std::uint8_t> ones(kPitBitmapBytes, 0xff);
		poke(0, S + kPitBitmap, ones.data(), ones.size());
		std::uint32_t bm[2] = {S + kPitBitmap, blocks};
		poke(0, S + kPitUbm, bm, sizeof(bm));
		r = cmd(KIV_IOC_LOAD_BLOCK_MAP, {S + kPitUbm, 8});
		st = state();
		trace("pit: LOAD_BLOCK_MAP = " + std::to_string(r) +
		      ", state " + std::to_string(st.state));
		if (r != 0 || st.state != BU_STATE_MAP_LOADED)
			finding("pit: LOAD_BLOCK_MAP of every block returned " +
				std::to_string(r) + ", state " +
				std::to_string(st.state));
	}

	map_len = static_cast<std::uint32_t>(st.mmapSize);
	long long a = p.mmap(0, map_len, emu::PROT_READ_, emu::MAP_PRIVATE_, fd,
			     0);
	if (a < static_cast<long long>(kPage))
		finding("pit: mmap of " + std::to_string(map_len) +
			" bytes returned " + std::to_string(a));
	mapped = static_cast<emu::uaddr>(a);
	const std::uint32_t per_map = map_len / bs;

	std::vector<std::pair<std::uint32_t, std::uint32_t>> runs;
	for (std::uint32_t at = 0; at < blocks;) {
		std::uint32_t n = 1 + static_cast<std::uint32_t>(
			rng() % std::min<std::uint32_t>(per_map, 64));
		n = std::min(n, blocks - at);
		runs.emplace_back(at, n);
		at += n;
	}
	std::shuffle(runs.begin(), runs.end(), rng);
	std::vector<std::uint8_t> got;
	for (auto [at, n] : runs) {
		r = cmd(KIV_IOC_READ_BLOCKS, {at, n, mapped});
		if (r != 0)
			finding("pit: READ_BLOCKS " + std::to_string(at) + "+" +
				std::to_string(n) + " returned " +
				std::to_string(r));
		got.resize(std::size_t(n) * bs);
		if (!p.peek(mapped, got.data(), got.size()))
			finding("pit: the read buffer cannot be read");
		for (std::uint32_t i = 0; i < n; i++)
			if (std::memcmp(got.data() + std::size_t(i) * bs,
					image.data() + std::size_t(at + i) * bs,
					bs))
				finding("pit: block " + std::to_string(at + i) +
					" differs from the frozen instant (mode " +
					std::to_string(mode) + (load ? ", map loaded" : "") +
					", bs " + std::to_string(bs) + ")");
		if (load && rng() % 4 == 0) {
			r = cmd(KIV_IOC_GET_DIRTY_BLOCK, {S + kPitOut});
			std::uint32_t blk = 0;
			p.peek(S + kPitOut, &blk, 4);
			if (r != 0 || (blk != 0xffffffffu && blk >= blocks))
				finding("pit: GET_DIRTY_BLOCK = " +
					std::to_string(r) + ", block " +
					std::to_string(blk));
		}
	}
	trace("pit: " + std::to_string(runs.size()) + " runs of " +
	      std::to_string(blocks) + " blocks as frozen");
	done();
}

}  // namespace fuzz
