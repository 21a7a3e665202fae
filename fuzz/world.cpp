// The emulated machine of one fuzz input: set-up, the writer thread, mounts
// and partition re-reads, and the checks when it is taken down.
#include "world.hpp"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>

#include "emu/block.hpp"
#include "emu/emu.hpp"

#include <linux/bio.h>
#include <linux/blkdev.h>
#include <linux/errno.h>
#include <linux/fs.h>
#include <linux/genhd.h>
#include <linux/highmem.h>

#include "corvalin.h"

namespace fuzz {

const Part kLabel[kLabels][3] = {
	{{63, 2048}, {2111, 1024}, {3135, 512}},
	{{63, 2048}, {2111, 1536}, {0, 0}},
	{{63, 2048}, {2111, 512}, {3135, 512}},
	{{63, 2048}, {0, 0}, {0, 0}},
};

// ---- findings --------------------------------------------------------------

namespace {

std::mutex g_trace_m;
std::vector<std::string> g_trace;

bool trace_echo()
{
	static const bool on = std::getenv("CORVALIN_FUZZ_TRACE") != nullptr;
	return on;
}

}  // namespace

void trace(const std::string &line)
{
	std::lock_guard lk(g_trace_m);
	g_trace.push_back(line);
	if (trace_echo()) {
		static const auto t0 = std::chrono::steady_clock::now();
		const auto ms = std::chrono::duration_cast<
			std::chrono::milliseconds>(
			std::chrono::steady_clock::now() - t0).count();
		std::fprintf(stderr, "fuzz: %6lld ms  %s\n",
			     static_cast<long long>(ms), line.c_str());
	}
}

void trace_reset()
{
	std::lock_guard lk(g_trace_m);
	g_trace.clear();
}

void finding(const std::string &what)
{
	{
		std::lock_guard lk(g_trace_m);
		std::fprintf(stderr, "\n==== corvalin fuzz: FINDING: %s\n",
			     what.c_str());
		std::fprintf(stderr, "==== what the input did:\n");
		for (auto &l : g_trace)
			std::fprintf(stderr, "  %s\n", l.c_str());
	}
	auto log = emu::log_strings();
	std::size_t from = log.size() > 80 ? log.size() - 80 : 0;
	std::fprintf(stderr, "==== kernel log (last %zu of %zu lines):\n",
		     log.size() - from, log.size());
	for (std::size_t i = from; i < log.size(); i++)
		std::fprintf(stderr, "  %s\n", log[i].c_str());
	std::fprintf(stderr, "==== end of finding\n");
	std::fflush(stderr);
	std::abort();
}

// ---- raw block I/O ---------------------------------------------------------

namespace {

struct RawDone {
	std::mutex m;
	std::condition_variable cv;
	bool done = false;
	bool uptodate = false;
};

void raw_end_io(struct bio *bio, int /* error */)
{
	auto *d = static_cast<RawDone *>(bio->bi_private);
	const bool uptodate = bio_flagged(bio, BIO_UPTODATE) != 0;
	bio_put(bio);
	std::lock_guard lk(d->m);
	d->uptodate = uptodate;
	d->done = true;
	d->cv.notify_all();
}

}  // namespace

int raw_io(struct block_device *bdev, int rw, std::uint64_t sector,
	   unsigned sectors, std::uint64_t seed)
{
	const unsigned bytes = sectors * 512;
	const unsigned nvec = (bytes + kPage - 1) / kPage;
	struct bio *bio = bio_alloc(GFP_KERNEL, static_cast<int>(nvec));
	if (!bio)
		return kRawNoMemory;
	std::vector<struct page *> pages;
	std::mt19937_64 r(seed);
	unsigned left = bytes;
	for (unsigned v = 0; v < nvec; v++) {
		struct page *p = alloc_page(GFP_KERNEL);
		if (!p) {
			for (struct page *q : pages)
				__free_page(q);
			bio_put(bio);
			return kRawNoMemory;
		}
		pages.push_back(p);
		auto *a = static_cast<unsigned char *>(kmap(p));
		for (unsigned k = 0; k < kPage; k++)
			a[k] = static_cast<unsigned char>(r());
		kunmap(p);
		bio->bi_io_vec[v].bv_page = p;
		bio->bi_io_vec[v].bv_len = std::min(left, kPage);
		bio->bi_io_vec[v].bv_offset = 0;
		left -= bio->bi_io_vec[v].bv_len;
	}
	RawDone done;
	bio->bi_vcnt = static_cast<unsigned short>(nvec);
	bio->bi_size = bytes;
	bio->bi_bdev = bdev;
	bio->bi_sector = static_cast<sector_t>(sector);
	bio->bi_end_io = raw_end_io;
	bio->bi_private = &done;
	unsigned long how = rw == 0 ? WRITE
			  : rw == 1 ? READ : (1UL << BIO_RW_AHEAD);
	submit_bio(static_cast<int>(how), bio);
	{
		std::unique_lock lk(done.m);
		if (!done.cv.wait_for(lk, std::chrono::seconds(60),
				      [&] { return done.done; }))
			finding("a raw bio (sector " + std::to_string(sector) +
				", " + std::to_string(sectors) +
				" sectors) did not end within 60 s");
	}
	for (struct page *p : pages)
		__free_page(p);
	return done.uptodate ? kRawOk : kRawFailed;
}

void Gate::enter()
{
	std::unique_lock lk(m_);
	cv_.wait(lk, [&] { return !closed_; });
	active_++;
}

void Gate::leave()
{
	std::lock_guard lk(m_);
	active_--;
	cv_.notify_all();
}

void Gate::close()
{
	std::unique_lock lk(m_);
	closed_ = true;
	cv_.wait(lk, [&] { return active_ == 0; });
}

void Gate::open()
{
	std::lock_guard lk(m_);
	closed_ = false;
	cv_.notify_all();
}

// ---- the machine -----------------------------------------------------------

namespace {

emu::Disk &disk_of(const World &w, int m)
{
	return m == 2 ? *w.sdb : *w.sda;
}

int partno_of(int m)
{
	return m == 2 ? 0 : m + 1;
}

// The disks' first contents: every block different (splitmix64, eight
// bytes at a time, so that a fresh machine is cheap).
std::vector<std::byte> random_bytes(std::size_t n, std::uint64_t seed)
{
	std::vector<std::byte> v(n);
	std::uint64_t x = seed;
	for (std::size_t i = 0; i + 8 <= n; i += 8) {
		x += 0x9e3779b97f4a7c15ull;
		std::uint64_t z = x;
		z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
		z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
		z ^= z >> 31;
		std::memcpy(v.data() + i, &z, 8);
	}
	return v;
}

}  // namespace

World::World(const Config &config) : cfg(config)
{
	emu::fail_reset();
	emu::log_clear();
	emu::race_windows_set(cfg.race_windows ? 0x5eed0000u + cfg.seed : 0);
	if (emu::module_load() != 0)
		finding("module_load failed at the start of an input");
	loaded = true;
	emu::mknod("/dev/corvalin", KIV_MAJOR, 0);
	emu::mknod_block("/dev/sda", 8, 0);

	std::mt19937_64 rng(cfg.seed);
	emu::DiskConfig c;
	c.major = 8;
	c.first_minor = 0;
	c.minors = 16;
	c.sectors = kSdaSectors;
	c.name = "sda";
	c.threads = 2;
	c.completion = cfg.bio_completion ? emu::Completion::Bio
					  : emu::Completion::Request;
	c.context = cfg.hardirq ? emu::CompletionContext::Hardirq
				: emu::CompletionContext::Softirq;
	sda = std::make_unique<emu::Disk>(c);
	sda->set_reorder(emu::Reorder::Random, cfg.seed);
	if (cfg.seed & 1)
		sda->set_latency(std::chrono::microseconds(0),
				 std::chrono::microseconds(20));
	for (int p = 0; p < 3; p++)
		if (sda->add_partition(p + 1, kLabel[0][p].start,
				       kLabel[0][p].sectors))
			finding("add_partition failed in the set-up");
	write_label(0);
	sda->write(63, random_bytes((kSdaSectors - 63) * 512, rng()));

	emu::DiskConfig d = c;
	d.first_minor = 16;
	d.sectors = kSdbSectors;
	d.name = "sdb";
	d.threads = 1;
	sdb = std::make_unique<emu::Disk>(d);
	sdb->write(0, random_bytes(kSdbSectors * 512, rng()));

	mount(0, cfg.sda1_bs);
	if (cfg.journal && cfg.sda1_bs >= 1024)
		fs[0]->enable_journal(fs[0]->blocks() - 8, 8);
	mount(1, 1024);
	mount(2, 4096);

	for (int p = 0; p < kProcs; p++) {
		procs[p] = std::make_unique<emu::Process>(p ? "other"
							    : "backup");
		scratch[p] = procs[p]->map_anon(kScratchPages * kPage);
		if (!scratch[p] ||
		    procs[p]->protect(scratch[p] + kGuard, kPage,
				      emu::PROT_NONE_) ||
		    procs[p]->protect(scratch[p] + kReadOnly, kPage,
				      emu::PROT_READ_))
			finding("no scratch memory in the set-up");
	}
	if (cfg.writer)
		writer_start();
	emu::log_clear();
}

World::~World()
{
	if (!finished_)
		finish();
}

bool World::partition_exists(int m) const
{
	if (m == 2)
		return true;
	return sda->gendisk()->part[m] != nullptr;
}

std::uint32_t World::blocks_of(int m) const
{
	return fs[m] ? static_cast<std::uint32_t>(fs[m]->blocks()) : 0;
}

bool World::mount(int m, unsigned bs)
{
	std::unique_lock lk(fs_lock);
	if (fs[m] || !partition_exists(m))
		return false;
	fs[m] = std::make_unique<emu::FileSystem>(disk_of(*this, m),
						  partno_of(m), bs);
	fs_bs[m] = bs;
	return true;
}

void World::umount(int m)
{
	std::unique_lock lk(fs_lock);
	fs[m].reset();
}

struct block_device *World::bdev_of(int m) const
{
	return fs[m] ? fs[m]->bdev() : nullptr;
}

struct block_device *World::sda_whole() const
{
	for (int m = 0; m < 2; m++)
		if (fs[m])
			return fs[m]->bdev()->bd_contains;
	return nullptr;
}

void World::write_label(int v)
{
	std::vector<emu::DosPartition> parts;
	for (int p = 0; p < 3; p++) {
		if (!kLabel[v][p].sectors)
			break;
		parts.push_back({kLabel[v][p].start, kLabel[v][p].sectors});
	}
	emu::write_dos_label(*sda, parts);
	label_on_disk = v;
}

long World::reread_partitions()
{
	emu::Process &p = *procs[0];
	int fd = p.open("/dev/sda");
	if (fd < 0)
		return fd;
	long r = p.ioctl(fd, BLKRRPART, 0);
	if (r == 0)
		label_live = label_on_disk;
	p.close(fd);
	return r;
}

void World::restore_partitions()
{
	bool missing = false;
	for (int m = 0; m < 2; m++)
		missing |= !partition_exists(m);
	if (label_live != 0 || missing) {
		umount(0);
		umount(1);
		write_label(0);
		long r = reread_partitions();
		if (r != 0)
			finding("re-reading sda's original label at the end: " +
				std::to_string(r));
	}
	for (int m = 0; m < kMounts; m++) {
		if (!fs[m])
			mount(m, m == 0 ? cfg.sda1_bs : m == 1 ? 1024 : 4096);
		if (!fs[m])
			finding("cannot mount " + std::to_string(m) +
				" again at the end");
	}
}

int World::open_files()
{
	std::lock_guard lk(book);
	int n = 0;
	for (auto &s : slots)
		n += s.open;
	return n;
}

int World::open_slot(int s, int p, bool fault_armed)
{
	int fd = procs[p]->open("/dev/corvalin");
	if (fd == emu::SYSCALL_KILLED)
		finding("open of /dev/corvalin oopsed");
	if (!loaded) {
		if (fd != -ENXIO)
			finding("open with the module unloaded returned " +
				std::to_string(fd) + ", not -ENXIO");
		return fd;
	}
	if (fd < 0 && !(fault_armed && (fd == -ENOMEM || fd == -ENODEV)))
		finding("open of /dev/corvalin returned " +
			std::to_string(fd));
	if (fd >= 0) {
		std::lock_guard lk(book);
		slots[s] = Slot{};
		slots[s].open = true;
		slots[s].proc = p;
		slots[s].fd = fd;
	}
	return fd;
}

void World::close_slot(int s)
{
	std::vector<MapRec> mine;
	Slot slot;
	{
		std::lock_guard lk(book);
		slot = slots[s];
		if (!slot.open)
			return;
		for (auto it = maps.begin(); it != maps.end();) {
			if (it->slot == s) {
				mine.push_back(*it);
				it = maps.erase(it);
			} else {
				++it;
			}
		}
		slots[s] = Slot{};
	}
	emu::Process &p = *procs[slot.proc];
	// Unmapped first: the close of a file whose last reference a later
	// munmap drops is the one case the validator reports although the
	// kernel is fine (docs/TESTING.md), and programs unmap first.
	for (auto &m : mine) {
		int r = p.munmap(m.addr, m.len);
		if (r != 0)
			finding("munmap of a whole read buffer returned " +
				std::to_string(r));
	}
	int r = p.close(slot.fd);
	if (r != 0)
		finding("close of /dev/corvalin returned " + std::to_string(r));
}

// ---- the writer ------------------------------------------------------------

void World::writer_start()
{
	if (writer_.joinable())
		return;
	writer_stop_ = false;
	static std::atomic<std::uint64_t> n{0};
	writer_ = std::thread(&World::writer_loop, this,
			      (std::uint64_t(cfg.seed) << 32) + n++);
}

void World::writer_stop()
{
	if (!writer_.joinable())
		return;
	writer_stop_ = true;
	writer_resume();
	writer_.join();
}

void World::writer_pause()
{
	if (!writer_.joinable())
		return;
	std::unique_lock lk(pause_m_);
	pause_req_ = true;
	pause_cv_.wait(lk, [&] { return paused_ || writer_stop_; });
}

void World::writer_resume()
{
	std::lock_guard lk(pause_m_);
	pause_req_ = false;
	pause_cv_.notify_all();
}

void World::writer_loop(std::uint64_t seed)
{
	std::mt19937_64 r(seed);
	std::vector<std::byte> data(4096);
	while (!writer_stop_) {
		{
			std::unique_lock lk(pause_m_);
			if (pause_req_) {
				paused_ = true;
				pause_cv_.notify_all();
				pause_cv_.wait(lk, [&] {
					return !pause_req_ ||
					       writer_stop_.load();
				});
				paused_ = false;
			}
		}
		if (writer_stop_)
			break;
		std::shared_lock lk(fs_lock);
		const int m = static_cast<int>(r() % kMounts);
		emu::FileSystem *f = fs[m].get();
		const unsigned what = static_cast<unsigned>(r() % 16);
		if (f && f->block_size() >= 512 && what < 7) {
			for (auto &b : data)
				b = static_cast<std::byte>(r());
			auto span = std::span<const std::byte>(
				data.data(), f->block_size());
			if (what == 6)
				f->write_mapped(r() % f->blocks(), span);
			else
				f->write_block(r() % f->blocks(), span);
		} else if (f && what == 7) {
			if (int e = f->sync(); e && !disk_failures)
				finding("the writer's file-system write-back "
					"failed: " + std::to_string(e));
		} else if (f && what < 14) {
			struct block_device *bdev = f->bdev();
			std::uint64_t len = f->blocks() * f->block_size() / 512;
			int rw = what == 13 ? 1 + static_cast<int>(r() % 2) : 0;
			if (what == 12 && m < 2) {
				bdev = bdev->bd_contains;
				len = kSdaSectors;
			}
			unsigned n = 1 + static_cast<unsigned>(r() % 16);
			if (len > 64 + n) {
				std::uint64_t at = r() % (len - n);
				if (bdev == sda_whole() && at < 63)
					at = 63;  // not over the label
				raw_gate.enter();
				int res = raw_io(bdev, rw, at, n, r());
				raw_gate.leave();
				if (res == kRawFailed && rw != 2 &&
				    !disk_failures)
					finding("the writer's raw " +
						std::string(rw ? "read" : "write") +
						" of " + std::to_string(n) +
						" sectors at " + std::to_string(at) +
						" failed");
			}
		} else if (f && what == 14 && f->block_size() >= 512) {
			f->read_block(r() % f->blocks(),
				      std::span<std::byte>(data.data(),
							   f->block_size()));
		}
		lk.unlock();
		std::this_thread::sleep_for(
			std::chrono::microseconds(r() % 200));
	}
}

// ---- the end of an input ---------------------------------------------------

namespace {

// The one warning the driver is known to print: the close of a backup
// that gives the queue back to the disk leaves interrupts off
// (unsetQueueMRFAMS restores, for both of its nested irqsave locks, the
// state saved by the inner one), and the close's next sleep warns, as
// 2.6.27 does (docs/TESTING.md; the boot test allows it too).
bool known_warning(const std::string &w)
{
	return w.rfind("<3>BUG: sleeping function called from invalid "
		       "context at core/backup.c:", 0) == 0;
}

}  // namespace

void World::finish()
{
	finished_ = true;
	writer_stop();
	sda->clear_failures();
	for (int s = 0; s < kMaxSlots; s++)
		close_slot(s);
	{
		std::lock_guard lk(book);
		if (!maps.empty())
			finding("a mapping of no open file is left");
	}
	if (loaded)
		restore_partitions();
	procs[0].reset();
	procs[1].reset();
	if (loaded) {
		int r = emu::module_unload();
		if (r != 0)
			finding("module_unload with no file open returned " +
				std::to_string(r));
		loaded = false;
	}
	for (int m = 0; m < kMounts; m++)
		umount(m);
	sdb.reset();
	sda.reset();

	std::vector<std::string> problems = emu::test_problems(true);
	for (auto &w : emu::take_pending_warnings())
		if (!known_warning(w))
			problems.push_back("unexpected kernel warning: " + w);
	if (!problems.empty()) {
		std::string all;
		for (auto &p : problems)
			all += "\n    " + p;
		finding("the emulated kernel is not clean after the input:" +
			all);
	}
	emu::fail_reset();
	emu::race_windows_set(0);
	emu::log_clear();
}

}  // namespace fuzz
