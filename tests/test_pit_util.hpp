// Helpers of the seeded whole-driver suites (point in time, incremental
// chains): a raw bio submitted and waited for, a gate that holds raw
// writers back around a snapshot, and the seeds of a case.
#pragma once

#include <algorithm>
#include <gtest/gtest.h>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "corvalin.hpp"
#include "emu/block.hpp"
#include "test_driver_util.hpp"

namespace pit {

// One raw bio waited for by its submitter.
struct RawDone {
	std::mutex m;
	std::condition_variable cv;
	bool done = false;
};

inline void raw_end_io(struct bio *bio, int /* error */)
{
	auto *d = static_cast<RawDone *>(bio->bi_private);
	bio_put(bio);
	std::lock_guard lk(d->m);
	d->done = true;
	d->cv.notify_all();
}

// Submit `sectors` sectors at `sector` of bdev (partition-relative), in
// vectors of at most a page, each page's bytes set by fill(data, offset
// of the page in the request), and wait for the end.  rw: WRITE, READ or
// read-ahead.
template <typename Fill>
void raw_io_filled(struct block_device *bdev, unsigned long rw,
		   std::uint64_t sector, unsigned sectors, Fill fill)
{
	const unsigned bytes = sectors * 512;
	const unsigned nvec = (bytes + 4095) / 4096;
	std::vector<struct page *> pages;
	struct bio *bio = bio_alloc(GFP_KERNEL, static_cast<int>(nvec));
	ASSERT_NE(bio, nullptr);
	unsigned left = bytes;
	for (unsigned v = 0; v < nvec; v++) {
		struct page *p = alloc_page(GFP_KERNEL);
		ASSERT_NE(p, nullptr);
		pages.push_back(p);
		fill(static_cast<unsigned char *>(kmap(p)), v * 4096u);
		kunmap(p);
		bio->bi_io_vec[v].bv_page = p;
		bio->bi_io_vec[v].bv_len = std::min(left, 4096u);
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
	submit_bio(static_cast<int>(rw), bio);
	{
		std::unique_lock lk(done.m);
		done.cv.wait(lk, [&] { return done.done; });
	}
	for (struct page *p : pages)
		__free_page(p);
}

// The same with random bytes.
inline void raw_io(struct block_device *bdev, unsigned long rw,
		   std::uint64_t sector, unsigned sectors, std::mt19937_64 &rng)
{
	raw_io_filled(bdev, rw, sector, sectors,
		      [&rng](unsigned char *d, unsigned) {
			      for (unsigned k = 0; k < 4096; k++)
				      d[k] = static_cast<unsigned char>(rng());
		      });
}

// Lets raw I/O through, or holds new raw I/O back and waits until none
// is under way (a writer-preferring pause: the raw threads never starve
// the closer).
class Gate {
public:
	void enter()
	{
		std::unique_lock lk(m_);
		cv_.wait(lk, [&] { return !closed_; });
		active_++;
	}
	void leave()
	{
		std::lock_guard lk(m_);
		active_--;
		cv_.notify_all();
	}
	void close()
	{
		std::unique_lock lk(m_);
		closed_ = true;
		cv_.wait(lk, [&] { return active_ == 0; });
	}
	void open()
	{
		std::lock_guard lk(m_);
		closed_ = false;
		cv_.notify_all();
	}

private:
	std::mutex m_;
	std::condition_variable cv_;
	bool closed_ = false;
	int active_ = 0;
};

// The chain suites' disk sda for one seed: partition 1 of p1_sectors from
// p1_start and partition 2 of p2_sectors behind it; request or bio
// completion (seed bit 1), soft- or hard-interrupt context (bit 2), two
// completion threads in the seed's random order.  Null when the
// partitions cannot be added.
inline std::unique_ptr<emu::Disk> seeded_disk(std::uint64_t seed,
					      std::uint64_t p1_start,
					      std::uint64_t p1_sectors,
					      std::uint64_t p2_sectors)
{
	emu::DiskConfig c = test::disk_config(
		8, 0, 16, p1_start + p1_sectors + p2_sectors + 16, "sda");
	c.completion = (seed & 2) ? emu::Completion::Bio
				  : emu::Completion::Request;
	if (seed & 4)
		c.context = emu::CompletionContext::Hardirq;
	c.threads = 2;
	auto disk = std::make_unique<emu::Disk>(c);
	disk->set_reorder(emu::Reorder::Random, seed);
	if (disk->add_partition(1, p1_start, p1_sectors) ||
	    disk->add_partition(2, p1_start + p1_sectors, p2_sectors))
		return nullptr;
	return disk;
}

inline std::vector<std::uint64_t> seeds_for(std::uint64_t first, unsigned count)
{
	if (const char *env = std::getenv("CORVALIN_SEED"))
		return {std::strtoull(env, nullptr, 0)};
	std::vector<std::uint64_t> v;
	for (unsigned i = 0; i < count; i++)
		v.push_back(first + i);
	return v;
}

// Whether block n is set in a bitmap of the driver's layout.
inline bool bit(const std::vector<std::uint8_t> &map, std::uint32_t n)
{
	return map[n / 8] & (1u << (n % 8));
}

// Reads the blocks `map` names (of `blocks` blocks of bs bytes) through
// READ_BLOCKS and the mapping m into their places in image, in runs of
// consecutive blocks of at most run_limit() each.  Adds the blocks read to
// *read.  Returns "" or what went wrong.
template <typename Limit>
std::string read_map_into(corvalin::Device &dev, corvalin::Mapping &m,
			  const std::vector<std::uint8_t> &map,
			  std::uint32_t blocks, unsigned bs,
			  std::vector<std::byte> &image, Limit run_limit,
			  unsigned long *read)
{
	std::vector<std::byte> got;
	for (std::uint32_t at = 0; at < blocks;) {
		if (!bit(map, at)) {
			at++;
			continue;
		}
		const std::uint32_t limit = run_limit();
		std::uint32_t n = 1;
		while (at + n < blocks && n < limit && bit(map, at + n))
			n++;
		const corvalin::Result r = dev.read_blocks(at, n, m.address());
		got.resize(std::size_t(n) * bs);
		if (r != corvalin::Result::Ok ||
		    m.read(0, got) != corvalin::Result::Ok)
			return "READ_BLOCKS " + std::to_string(at) + "+" +
			       std::to_string(n) + ": " +
			       std::to_string(corvalin::to_int(r));
		std::memcpy(image.data() + std::size_t(at) * bs, got.data(),
			    got.size());
		*read += n;
		at += n;
	}
	return "";
}

// Runs one(seed) for the seeds of a case; the first that returns what
// went wrong fails the test with the seed and how to replay it.
template <typename One>
void run_seeds(std::uint64_t first, unsigned count, One one)
{
	for (std::uint64_t s : seeds_for(first, count)) {
		const std::string e = one(s);
		if (e.empty())
			continue;
		const auto *t = ::testing::UnitTest::GetInstance()
					->current_test_info();
		ADD_FAILURE() << "seed " << s << ": " << e
			      << "\n  replay: CORVALIN_SEED=" << s
			      << " <this test program> --gtest_filter="
			      << t->test_suite_name() << "." << t->name();
		return;
	}
}

}  // namespace pit

// TEST(suite, Seeds<from>) running fn(from, count): the seeded suites are
// cut into tests of `count` seeds each, so that CTest runs them in
// parallel and a failure names its range.
#define PIT_SEED_RANGE_TEST(suite, fn, from, count)        \
	TEST(suite, Seeds##from)                           \
	{                                                  \
		fn(from##ULL, count);                      \
	}
