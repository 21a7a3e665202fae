// bench_backup_read: how fast a backup program reads the frozen image,
// against a plain sequential read of the same partition.
//
//   backup   a backup in state 4 (START_BACKUP, one read buffer of the
//            largest size, SNAPSHOT, all before the clock starts): the
//            whole partition with READ_BLOCKS in runs of the buffer size,
//            each run read back out of the mapping by the program
//            (libcorvalin, emulated transport).  Nothing is written
//            meanwhile, so every block comes from the disk.
//   raw      the same partition read in the same runs straight through
//            the emulated block layer (submit_bio on the partition's block
//            device: end-of-device check, partition remap, the disk's own
//            make_request function), one bio of one block each, as the
//            driver sends them; each run copied out of its pages.  Run
//            after START_BACKUP but before the SNAPSHOT, so the queue has
//            the disk's own function.
//   raw/big  informative: the runs in bios as large as the queue takes
//            (max_sectors 255: 31 pages, 124 KiB), what a real kernel's
//            elevator makes of a sequential reader's per-block bios by
//            merging them; the emulated disk does not merge, so this shows
//            the per-request cost of the model.
//
// Both deliver every byte into a buffer of the program and checksum it.
// Ratio = backup throughput / raw throughput, per repetition (the two are
// measured back to back on the same disk with the same latency), median
// of the repetitions.  Target >= 0.90.
#include <atomic>
#include <condition_variable>
#include <mutex>

#include "backup_bench.hpp"

#include <linux/bio.h>
#include <linux/blkdev.h>
#include <linux/highmem.h>
#include <linux/mm.h>

namespace {

using bb::Clock;

constexpr int kReps = 7;

// Ends of the raw reader's bios, counted; the reader waits for a run.
struct RunWait {
	std::mutex m;
	std::condition_variable cv;
	unsigned ended = 0;
	unsigned failed = 0;
};

void raw_end_io(struct bio *bio, int error)
{
	auto *w = static_cast<RunWait *>(bio->bi_private);
	const bool ok = error == 0 && bio_flagged(bio, BIO_UPTODATE);
	bio_put(bio);
	std::lock_guard lk(w->m);
	w->ended++;
	if (!ok)
		w->failed++;
	w->cv.notify_all();
}

// The raw sequential reader: kernel pages for one run, reused.
class RawReader {
public:
	RawReader(bb::Machine &m, std::uint32_t run_blocks)
	    : m_(m), run_blocks_(run_blocks)
	{
		const unsigned bs = m.cfg.block_size;
		npages_ = (run_blocks * bs + 4095) / 4096;
		max_pages_ = m.disk->queue()->max_sectors * 512 / 4096;
		for (unsigned i = 0; i < npages_; i++) {
			struct page *p = alloc_page(GFP_KERNEL);
			if (!p)
				bb::die("bench: no page for the raw reader");
			pages_.push_back(p);
		}
	}
	~RawReader()
	{
		for (struct page *p : pages_)
			__free_page(p);
	}

	// Reads the whole partition; returns the checksum of what it read.
	std::uint64_t read_all(bool big_bios,
			       std::vector<std::byte> &out)
	{
		const unsigned bs = m_.cfg.block_size;
		std::uint64_t sum = 0;
		for (std::uint32_t first = 0; first < m_.blocks;
		     first += run_blocks_) {
			const std::uint32_t n =
				std::min(run_blocks_, m_.blocks - first);
			RunWait w;
			unsigned bios = 0;
			if (big_bios) {
				const std::uint32_t per =
					max_pages_ * 4096 / bs;
				for (std::uint32_t i = 0; i < n; i += per) {
					submit_big(first, i,
						   std::min(per, n - i), w);
					bios++;
				}
			} else {
				for (std::uint32_t i = 0; i < n; i++)
					submit_block(first + i, i, w);
				bios = n;
			}
			{
				std::unique_lock lk(w.m);
				w.cv.wait(lk, [&] { return w.ended == bios; });
				if (w.failed)
					bb::die("bench: a raw read failed");
			}
			// What read(2) would hand the program: the run, in
			// the program's buffer.
			for (std::uint32_t i = 0; i < n; i++) {
				const unsigned off = i * bs;
				struct page *p = pages_[off / 4096];
				const char *a = static_cast<const char *>(
					kmap(p));
				std::memcpy(out.data() + off, a + off % 4096,
					    bs);
				kunmap(p);
			}
			sum ^= bb::checksum(std::span(out).first(
				std::size_t(n) * bs));
		}
		return sum;
	}

private:
	// Block `block` of the partition into slot i of the run's pages.
	void submit_block(std::uint32_t block, std::uint32_t i, RunWait &w)
	{
		const unsigned bs = m_.cfg.block_size;
		struct bio *bio = bio_alloc(GFP_NOIO, 1);
		if (!bio)
			bb::die("bench: bio_alloc failed");
		const unsigned off = i * bs;
		bio->bi_io_vec[0].bv_page = pages_[off / 4096];
		bio->bi_io_vec[0].bv_offset = off % 4096;
		bio->bi_io_vec[0].bv_len = bs;
		bio->bi_vcnt = 1;
		bio->bi_size = bs;
		bio->bi_bdev = m_.disk->bdev(1);
		bio->bi_sector = (sector_t)block * (bs / 512);
		bio->bi_end_io = raw_end_io;
		bio->bi_private = &w;
		submit_bio(READ, bio);
	}

	// Blocks [first + i, first + i + n) of the run in one bio over its
	// slots' pages.
	void submit_big(std::uint32_t first, std::uint32_t i, std::uint32_t n,
			RunWait &w)
	{
		const unsigned bs = m_.cfg.block_size;
		const unsigned bytes = n * bs;
		const unsigned vecs = (bytes + 4095) / 4096;
		const unsigned page0 = i * bs / 4096;
		struct bio *bio = bio_alloc(GFP_NOIO, static_cast<int>(vecs));
		if (!bio)
			bb::die("bench: bio_alloc failed");
		unsigned left = bytes;
		for (unsigned v = 0; v < vecs; v++) {
			bio->bi_io_vec[v].bv_page = pages_[page0 + v];
			bio->bi_io_vec[v].bv_offset = 0;
			bio->bi_io_vec[v].bv_len = left < 4096 ? left : 4096;
			left -= bio->bi_io_vec[v].bv_len;
		}
		bio->bi_vcnt = static_cast<unsigned short>(vecs);
		bio->bi_size = bytes;
		bio->bi_bdev = m_.disk->bdev(1);
		bio->bi_sector = (sector_t)(first + i) * (bs / 512);
		bio->bi_end_io = raw_end_io;
		bio->bi_private = &w;
		submit_bio(READ, bio);
	}

	bb::Machine &m_;
	std::uint32_t run_blocks_;
	unsigned npages_ = 0;
	unsigned max_pages_ = 1;
	std::vector<struct page *> pages_;
};

// The whole partition through READ_BLOCKS and the mapping; the checksum.
std::uint64_t backup_read_all(bb::Machine &m, bb::Backup &b,
			      std::vector<std::byte> &out)
{
	const unsigned bs = m.cfg.block_size;
	std::uint64_t sum = 0;
	for (std::uint32_t first = 0; first < m.blocks; first += b.run_blocks) {
		const std::uint32_t n = std::min(b.run_blocks, m.blocks - first);
		if (b.dev.read_blocks(first, n, b.map.address()) !=
		    corvalin::Result::Ok)
			bb::die("bench: READ_BLOCKS failed");
		auto run = std::span(out).first(std::size_t(n) * bs);
		if (b.map.read(0, run) != corvalin::Result::Ok)
			bb::die("bench: reading the mapping failed");
		sum ^= bb::checksum(run);
	}
	return sum;
}

struct Figures {
	std::vector<double> raw_s, backup_s, big_s, ratio, raw_cs, backup_cs;
};

void run_setting(std::chrono::microseconds latency)
{
	bb::MachineConfig c;
	c.latency = latency;
	double mib = 0;
	std::uint32_t run_blocks = 0;

	Figures f;
	std::uint64_t expect = 0;
	for (int rep = 0; rep < kReps; rep++) {
		bb::Machine m(c);
		mib = double(m.blocks) * c.block_size / (1 << 20);
		bb::Backup b(m);
		run_blocks = b.run_blocks;
		RawReader raw(m, b.run_blocks);
		std::vector<std::byte> out(std::size_t(b.run_blocks) *
					   c.block_size);
		// The raw reads before the backup's snapshot: the queue has
		// the disk's own function.
		long cs = bb::context_switches();
		auto t0 = Clock::now();
		const std::uint64_t s_raw = raw.read_all(false, out);
		f.raw_s.push_back(bb::seconds_since(t0));
		f.raw_cs.push_back(double(bb::context_switches() - cs) /
				   m.blocks);
		t0 = Clock::now();
		const std::uint64_t s_big = raw.read_all(true, out);
		f.big_s.push_back(bb::seconds_since(t0));

		b.snapshot();
		cs = bb::context_switches();
		t0 = Clock::now();
		const std::uint64_t s_bak = backup_read_all(m, b, out);
		f.backup_s.push_back(bb::seconds_since(t0));
		f.backup_cs.push_back(double(bb::context_switches() - cs) /
				      m.blocks);
		(void)b.close();

		if (rep == 0)
			expect = s_raw;
		if (s_raw != expect || s_big != expect || s_bak != expect)
			bb::die("bench: the two reads delivered different data");
		f.ratio.push_back(f.raw_s.back() / f.backup_s.back());
	}

	auto rate = [&](const std::vector<double> &s) {
		return mib / bb::median(s);
	};
	std::printf("disk latency %lld us per request, %u completion "
		    "threads; %.0f MiB partition, %u-byte blocks, runs of %u "
		    "blocks; %d repetitions\n",
		    static_cast<long long>(latency.count()), c.threads, mib,
		    c.block_size, run_blocks, kReps);
	std::printf("  raw sequential read (bio per block)  %8.1f MiB/s "
		    "(median %.3f s)\n", rate(f.raw_s), bb::median(f.raw_s));
	std::printf("  backup read (READ_BLOCKS + mapping)  %8.1f MiB/s "
		    "(median %.3f s)\n", rate(f.backup_s),
		    bb::median(f.backup_s));
	std::printf("  informative: raw, largest bios       %8.1f MiB/s "
		    "(median %.3f s)\n", rate(f.big_s), bb::median(f.big_s));
	std::printf("  context switches per block: raw %.2f, backup %.2f "
		    "(medians)\n", bb::median(f.raw_cs),
		    bb::median(f.backup_cs));
	const double r = bb::median(f.ratio);
	std::printf("  ratio backup/raw: %.2f (min %.2f, max %.2f)  "
		    "target >= 0.90: %s\n", r, bb::vmin(f.ratio),
		    bb::vmax(f.ratio), bb::verdict(r >= 0.90));
}

}  // namespace

int main()
{
	bb::print_header("bench_backup_read",
			 "backup read throughput / raw sequential read");
	run_setting(std::chrono::microseconds(0));
	run_setting(std::chrono::microseconds(50));
	return 0;
}
