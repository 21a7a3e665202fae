// The emulated machine's disks (emu::Disk): a gendisk, its request queue,
// the disk's own make_request_fn, a backing store and completion threads.
//
// The request function runs in the submitter's context with the rules of
// 2.6.27's __make_request: it may sleep (a violation in atomic context;
// with interrupts merely off it is silent, as 2.6.27 has no might_sleep()
// there and schedule() turns them on), takes the queue lock with
// spin_lock_irq, and needs one of the queue's nr_requests
// requests: when all are in flight the submitter sleeps (get_request_wait,
// the queue lock dropped meanwhile) until a completion gives one back.  A
// bio must arrive remapped onto the whole disk: one that still names a
// partition (a caller that skipped generic_make_request's remapping) is a
// violation.  The function counts the request, shows it to the test's
// observer, and queues it for the disk's completion threads (or, with no
// threads, serves it on the spot as a RAM disk does).  A completion thread
// takes a pending request in the order Reorder asks for -- between
// barriers: with a draining ordered mode (DiskConfig::ordered) a barrier is
// served alone once everything queued before it has completed, and what
// was queued after it waits for it -- waits the
// request's latency, moves the data between the bio's pages (kmap'ed one
// vector at a time) and the backing store, and ends the bio as a
// request-based or a bio-based 2.6.27 driver ends it, in the disk's
// completion context: the block softirq (bio_endio in softirq context,
// then the request released under the queue lock), or an IDE-style
// interrupt handler (in_irq, interrupts off, bio_endio and the release
// both under the queue lock).  A completion routine that sleeps is caught
// either way.  A request that touches a failing sector transfers nothing
// and ends with that sector's error.
#include <algorithm>
#include <array>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <mutex>
#include <random>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <unordered_map>
#include <vector>

#include "emu/block.hpp"
#include "block_internal.hpp"
#include "checks.hpp"

#include <linux/highmem.h>
#include <linux/kdev_t.h>
#include <linux/mutex.h>
#include <linux/spinlock.h>

namespace {

constexpr std::uint64_t chunk_bytes = 4096;

// Where a disk's bytes live.  Offsets and lengths are in bytes; callers
// stay within the capacity.
class Store {
public:
	virtual ~Store() = default;
	virtual void read(std::uint64_t off, std::span<std::byte> out) = 0;
	virtual void write(std::uint64_t off,
			   std::span<const std::byte> in) = 0;
};

// Sparse memory: 4 KiB chunks made on first write; absent chunks read as
// zeros.
class MemoryStore final : public Store {
public:
	void read(std::uint64_t off, std::span<std::byte> out) override
	{
		std::lock_guard lk(m_);
		while (!out.empty()) {
			const std::uint64_t in_chunk = off % chunk_bytes;
			const std::size_t n = std::min<std::uint64_t>(
				out.size(), chunk_bytes - in_chunk);
			auto it = chunks_.find(off / chunk_bytes);
			if (it == chunks_.end())
				std::memset(out.data(), 0, n);
			else
				std::memcpy(out.data(),
					    it->second.data() + in_chunk, n);
			out = out.subspan(n);
			off += n;
		}
	}

	void write(std::uint64_t off, std::span<const std::byte> in) override
	{
		std::lock_guard lk(m_);
		while (!in.empty()) {
			const std::uint64_t in_chunk = off % chunk_bytes;
			const std::size_t n = std::min<std::uint64_t>(
				in.size(), chunk_bytes - in_chunk);
			auto &chunk = chunks_[off / chunk_bytes];
			if (chunk.empty())
				chunk.resize(chunk_bytes);
			std::memcpy(chunk.data() + in_chunk, in.data(), n);
			in = in.subspan(n);
			off += n;
		}
	}

private:
	std::mutex m_;
	std::unordered_map<std::uint64_t, std::vector<std::byte>> chunks_;
};

// An image file, read and written in place (pread/pwrite are safe from
// several threads at once).
class FileStore final : public Store {
public:
	explicit FileStore(const std::string &path)
	{
		fd_ = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
		if (fd_ < 0)
			emu::violation({}, "emu::Disk: cannot open image " +
				       path + ": " + std::strerror(errno));
	}
	~FileStore() override { ::close(fd_); }
	FileStore(const FileStore &) = delete;
	FileStore &operator=(const FileStore &) = delete;

	std::uint64_t size() const
	{
		struct stat st {};
		::fstat(fd_, &st);
		return static_cast<std::uint64_t>(st.st_size);
	}

	void read(std::uint64_t off, std::span<std::byte> out) override
	{
		while (!out.empty()) {
			ssize_t n = ::pread(fd_, out.data(), out.size(),
					    static_cast<off_t>(off));
			if (n < 0 && errno == EINTR)
				continue;
			if (n < 0)
				emu::violation({}, std::string("emu::Disk: "
					       "image read failed: ") +
					       std::strerror(errno));
			if (n == 0) {  // beyond the end of the file: zeros
				std::memset(out.data(), 0, out.size());
				return;
			}
			out = out.subspan(static_cast<std::size_t>(n));
			off += static_cast<std::uint64_t>(n);
		}
	}

	void write(std::uint64_t off, std::span<const std::byte> in) override
	{
		while (!in.empty()) {
			ssize_t n = ::pwrite(fd_, in.data(), in.size(),
					     static_cast<off_t>(off));
			if (n < 0 && errno == EINTR)
				continue;
			if (n <= 0)
				emu::violation({}, std::string("emu::Disk: "
					       "image write failed: ") +
					       std::strerror(errno));
			in = in.subspan(static_cast<std::size_t>(n));
			off += static_cast<std::uint64_t>(n);
		}
	}

private:
	int fd_ = -1;
};

struct Failure {
	std::uint64_t first, count;
	int error;
	emu::Dir dir;
};

struct Pending {
	struct bio *bio;
	std::uint64_t seq;
};

extern "C" void emu_disk_prepare_flush(struct request_queue *,
				       struct request *);
extern "C" int emu_disk_make_request(struct request_queue *q,
				     struct bio *bio);

}  // namespace

struct emu::Disk::Impl {
	DiskConfig cfg;
	struct gendisk *disk = nullptr;
	struct request_queue *q = nullptr;
	std::unique_ptr<Store> store;
	std::uint64_t capacity = 0;

	mutable std::mutex m;
	std::condition_variable work_cv;  // pending work, plug, stop
	std::condition_variable idle_cv;  // a request was served
	std::deque<Pending> pending;
	unsigned in_service = 0;
	bool barrier_in_service = false;
	bool plugged = false;
	bool stopping = false;
	Reorder reorder = Reorder::Fifo;
	std::mt19937_64 rng{1};
	std::chrono::microseconds lat_min{0}, lat_max{0};
	std::vector<Failure> failures;

	std::atomic<std::uint64_t> requests{0};
	std::mutex observer_m;
	std::shared_ptr<std::function<void(const DiskRequest &)>> observer;

	std::vector<std::jthread> workers;

	// The request pool (2.6.27's request_list): rq_count is guarded by
	// the queue lock; pool_m guards the generation of releases and the
	// sleepers, so that a sleeper that saw the pool full under the
	// queue lock cannot miss the release that follows.
	int rq_count = 0;
	mutable std::mutex pool_m;
	std::condition_variable pool_cv;
	std::uint64_t releases = 0;
	unsigned sleepers = 0;
	CompletionContext context = CompletionContext::Softirq;

	// The lock __make_request and the completion take: the driver-visible
	// queue lock, or the queue's own one when the disk was made without
	// (a bio-based driver leaves q->queue_lock unset).
	spinlock_t *queue_lock() const
	{
		return q->queue_lock ? q->queue_lock : &q->__queue_lock;
	}

	// get_request_wait(): called with the queue lock held and interrupts
	// off; returns with both and one request of the pool taken.
	void get_request_wait()
	{
		while (rq_count >= static_cast<int>(q->nr_requests)) {
			std::uint64_t seen;
			{
				std::lock_guard lk(pool_m);
				seen = releases;
				sleepers++;
			}
			spin_unlock_irq(queue_lock());
			{
				std::unique_lock lk(pool_m);
				emu::wait_until(lk, pool_cv, [&] {
					return releases != seen;
				});
				sleepers--;
			}
			spin_lock_irq(queue_lock());
		}
		rq_count++;
	}

	// __blk_put_request() and freed_request(): the queue lock held.
	void put_request()
	{
		rq_count--;
		{
			std::lock_guard lk(pool_m);
			releases++;
		}
		pool_cv.notify_all();
	}

	// The error a request over [sector, sector + n) in direction `dir`
	// meets, or 0.
	int failure_for(std::uint64_t sector, std::uint64_t n, Dir dir)
	{
		std::lock_guard lk(m);
		for (const Failure &f : failures)
			if ((static_cast<int>(f.dir) & static_cast<int>(dir)) &&
			    sector < f.first + f.count && f.first < sector + n)
				return f.error;
		return 0;
	}

	void transfer(struct bio *bio, bool write)
	{
		std::uint64_t off = static_cast<std::uint64_t>(bio->bi_sector)
				    * 512;
		std::uint64_t left = bio->bi_size;
		for (int i = bio->bi_idx; i < bio->bi_vcnt && left; i++) {
			struct bio_vec *bv = &bio->bi_io_vec[i];
			const std::size_t n =
				std::min<std::uint64_t>(bv->bv_len, left);
			if (bv->bv_offset + n > PAGE_SIZE)
				emu::violation({}, "emu::Disk: bio vector "
					       "crosses its page");
			auto *p = static_cast<std::byte *>(kmap(bv->bv_page)) +
				  bv->bv_offset;
			if (write)
				store->write(off, {p, n});
			else
				store->read(off, {p, n});
			kunmap(bv->bv_page);
			off += n;
			left -= n;
		}
	}

	// Serves one request from start to end.
	void serve(struct bio *bio, bool from_thread)
	{
		const bool write = bio_data_dir(bio) == WRITE;
		const std::uint64_t sector = bio->bi_sector;
		const std::uint64_t n = (bio->bi_size + 511) / 512;
		int error = 0;
		if (bio_empty_barrier(bio))
			error = 0;  // a cache flush: nothing to do
		else if (sector + n > capacity)
			error = -EIO;
		else
			error = failure_for(sector, n,
					    write ? Dir::Write : Dir::Read);
		if (!error && bio->bi_size)
			transfer(bio, write);
		if (!from_thread) {
			complete(bio, sector, error);
			spin_lock_irq(queue_lock());
			put_request();
			spin_unlock_irq(queue_lock());
		} else if (context == CompletionContext::Hardirq) {
			// The interrupt handler: ide_intr takes the queue lock
			// with interrupts off and ends the request under it.
			unsigned long flags;
			emu::HardirqContext hardirq;
			local_irq_save(flags);
			spin_lock(queue_lock());
			complete(bio, sector, error);
			put_request();
			spin_unlock(queue_lock());
			local_irq_restore(flags);
		} else {
			emu::SoftirqContext softirq;
			unsigned long flags;
			complete(bio, sector, error);
			spin_lock_irqsave(queue_lock(), flags);
			put_request();
			spin_unlock_irqrestore(queue_lock(), flags);
		}
	}

	void complete(struct bio *bio, std::uint64_t sector, int error)
	{
		if (cfg.completion == Completion::Bio) {
			bio_endio(bio, error);
			return;
		}
		// __end_that_request_first() and req_bio_endio() for a
		// request of exactly this bio.
		if (error)
			printk(KERN_ERR "end_request: I/O error, dev %s, "
			       "sector %llu\n", disk->disk_name,
			       (unsigned long long)sector);
		const unsigned int nbytes = bio->bi_size;
		if (error)
			clear_bit(BIO_UPTODATE, &bio->bi_flags);
		else if (!test_bit(BIO_UPTODATE, &bio->bi_flags))
			error = -EIO;
		bio->bi_size -= nbytes;
		bio->bi_sector += (nbytes >> 9);
		if (bio->bi_size == 0)
			bio_endio(bio, error);
	}

	// Requests before the first barrier in `pending` (all of them when
	// there is none).  The lock held.
	std::size_t before_barrier() const
	{
		for (std::size_t i = 0; i < pending.size(); i++)
			if (bio_barrier(pending[i].bio))
				return i;
		return pending.size();
	}
	// Whether a request may be taken now: the order Reorder asks for
	// holds only between barriers; a barrier is served alone, once
	// everything queued before it has completed.  The lock held.
	bool can_take() const
	{
		if (plugged || pending.empty() || barrier_in_service)
			return false;
		return before_barrier() > 0 || in_service == 0;
	}
	// Takes the next request to serve (the lock held, can_take()).
	Pending take()
	{
		const std::size_t span = before_barrier();
		std::size_t idx = 0;
		if (span > 0) {
			switch (reorder) {
			case Reorder::Fifo:
				idx = 0;
				break;
			case Reorder::Lifo:
				idx = span - 1;
				break;
			case Reorder::Random:
				idx = std::uniform_int_distribution<
					std::size_t>(0, span - 1)(rng);
				break;
			}
		}
		Pending p = pending[idx];
		pending.erase(pending.begin() + static_cast<long>(idx));
		return p;
	}

	void worker(std::stop_token stop, unsigned index)
	{
		const std::string comm = cfg.name + "-io/" +
					 std::to_string(index);
		TaskScope task(comm.c_str());
		std::unique_lock lk(m);
		for (;;) {
			work_cv.wait(lk, [&] {
				return can_take() ||
				       ((stopping || stop.stop_requested()) &&
					(plugged || pending.empty()));
			});
			if (!can_take())
				return;  // stopping, nothing left to serve
			Pending p = take();
			const bool barrier = bio_barrier(p.bio);
			barrier_in_service = barrier;
			in_service++;
			std::chrono::microseconds delay = lat_min;
			if (lat_max > lat_min)
				delay = std::chrono::microseconds(
					std::uniform_int_distribution<long>(
						lat_min.count(),
						lat_max.count())(rng));
			lk.unlock();
			if (delay.count())
				std::this_thread::sleep_for(delay);
			serve(p.bio, true);
			lk.lock();
			in_service--;
			if (barrier)
				barrier_in_service = false;
			idle_cv.notify_all();
			// A barrier may now be served, or the requests behind it.
			work_cv.notify_all();
		}
	}

	int request(struct bio *bio)
	{
		const emu::Site site = emu::blk::submitter_site();
		emu::check_may_sleep_unannotated(site, "__make_request");
		if (!bio->bi_bdev || !bio->bi_bdev->bd_contains)
			emu::violation(site, "the request function of " +
				       cfg.name + " got a bio whose block "
				       "device is not set or not open");
		// A bio may arrive with a partition as bi_bdev and a whole-disk
		// sector: the backup driver's own reads and released writes go
		// to the saved make_request_fn with absolute sectors, skipping
		// blk_partition_remap().  2.6.27's __make_request takes
		// bi_sector as a sector of the disk whatever bi_bdev says, and
		// so does this one.
		DiskRequest r;
		r.seq = ++requests;
		r.dev = bio->bi_bdev ? bio->bi_bdev->bd_dev : 0;
		r.sector = bio->bi_sector;
		r.bytes = bio->bi_size;
		r.rw = bio->bi_rw;
		r.bio = bio;
		std::shared_ptr<std::function<void(const DiskRequest &)>> obs;
		{
			std::lock_guard lk(observer_m);
			obs = observer;
		}
		if (obs && *obs)
			(*obs)(r);
		if (bio_barrier(bio) && cfg.ordered == Ordered::None) {
			// __make_request with QUEUE_ORDERED_NONE.
			bio_endio(bio, -EOPNOTSUPP);
			return 0;
		}
		spin_lock_irq(queue_lock());
		get_request_wait();
		if (cfg.threads) {
			std::lock_guard lk(m);
			pending.push_back({bio, r.seq});
		}
		spin_unlock_irq(queue_lock());
		if (cfg.threads == 0) {
			serve(bio, false);
			return 0;
		}
		work_cv.notify_one();
		return 0;
	}
};

namespace {

// The flush a draining queue puts before a barrier: the emulated disks
// have no write cache to flush, only its presence matters.
extern "C" void emu_disk_prepare_flush(struct request_queue *,
				       struct request *)
{
}

extern "C" int emu_disk_make_request(struct request_queue *q, struct bio *bio)
{
	emu::io_at_disk(bio);
	return static_cast<emu::Disk::Impl *>(q->queuedata)->request(bio);
}

}  // namespace

void emu::blk::in_completion_context(const std::function<void()> &fn)
{
	SoftirqContext softirq;
	fn();
}

emu::CompletionContext emu::default_completion_context()
{
	const char *env = std::getenv("EMU_DISK_COMPLETION");
	if (!env || !*env || std::string(env) == "softirq")
		return CompletionContext::Softirq;
	if (std::string(env) == "hardirq")
		return CompletionContext::Hardirq;
	violation({}, std::string("EMU_DISK_COMPLETION=") + env +
		  ": expected softirq or hardirq");
}

emu::Disk::Disk(DiskConfig config) : impl_(std::make_unique<Impl>())
{
	Impl &d = *impl_;
	d.cfg = std::move(config);
	if (d.cfg.minors < 1 || d.cfg.first_minor + d.cfg.minors > (1u << 20) ||
	    d.cfg.major >= (1u << 12))
		violation({}, "emu::Disk: bad major/minor range");
	if (d.cfg.image.empty()) {
		d.store = std::make_unique<MemoryStore>();
		d.capacity = d.cfg.sectors;
	} else {
		auto file = std::make_unique<FileStore>(d.cfg.image);
		d.capacity = d.cfg.sectors ? d.cfg.sectors : file->size() / 512;
		d.store = std::move(file);
	}
	for (int minor = 0; minor < d.cfg.minors; minor++) {
		int part;
		if (blk::find_disk(MKDEV(d.cfg.major, d.cfg.first_minor + minor),
				   &part))
			violation({}, "emu::Disk: device numbers of " +
				  d.cfg.name + " already taken by another disk");
	}

	d.context = d.cfg.context == CompletionContext::Default ?
		default_completion_context() : d.cfg.context;
	if (d.cfg.nr_requests < 1)
		violation({}, "emu::Disk: a queue needs at least one request");

	d.q = blk_alloc_queue(GFP_KERNEL);
	blk_queue_make_request(d.q, emu_disk_make_request);
	d.q->nr_requests = d.cfg.nr_requests;
	if (d.cfg.queue_lock)
		d.q->queue_lock = &d.q->__queue_lock;
	d.q->queuedata = &d;
	if (d.cfg.ordered == Ordered::DrainFlush)
		d.q->prepare_flush_fn = emu_disk_prepare_flush;

	d.disk = alloc_disk(d.cfg.minors);
	d.disk->major = static_cast<int>(d.cfg.major);
	d.disk->first_minor = static_cast<int>(d.cfg.first_minor);
	std::snprintf(d.disk->disk_name, sizeof(d.disk->disk_name), "%s",
		      d.cfg.name.c_str());
	d.disk->queue = d.q;
	d.disk->private_data = &d;
	set_capacity(d.disk, d.capacity);
	add_disk(d.disk);

	for (unsigned i = 0; i < d.cfg.threads; i++)
		d.workers.emplace_back([&d, i](std::stop_token stop) {
			d.worker(stop, i);
		});

	if (d.cfg.scan_partitions && d.cfg.minors > 1) {
		// register_disk(): mark the disk invalidated and open it
		// once, which reads the partition table.
		set_invalidated();
		struct block_device *whole = nullptr;
		if (blk::blkdev_open(dev(0), &whole) == 0)
			blk::blkdev_close(whole);
	}
}

emu::Disk::~Disk()
{
	Impl &d = *impl_;
	// Whoever replaced the queue's function still points at the queue,
	// which goes with the disk.
	if (d.q->make_request_fn != emu_disk_make_request)
		violation({}, "emu::Disk " + d.cfg.name + " destroyed while "
			  "its queue's make_request_fn is replaced (give the "
			  "queue back, e.g. unload the driver, first)");
	unplug();
	drain();
	{
		std::lock_guard lk(d.m);
		d.stopping = true;
	}
	d.work_cv.notify_all();
	d.workers.clear();  // joins
	del_gendisk(d.disk);
	put_disk(d.disk);
	blk_cleanup_queue(d.q);
}

int emu::Disk::add_partition(int partno, std::uint64_t start,
			     std::uint64_t sectors)
{
	return ::add_partition(impl_->disk, partno, start, sectors, 0);
}

void emu::write_dos_label(Disk &disk, std::span<const DosPartition> parts)
{
	std::array<std::byte, 512> s{};
	if (parts.size() > 4)
		violation(Site{__FILE__, __LINE__},
			  "a DOS label has four primary partitions");
	for (std::size_t i = 0; i < parts.size(); i++) {
		std::byte *e = s.data() + 0x1be + 16 * i;
		e[4] = std::byte{0x83};
		for (int b = 0; b < 4; b++) {
			e[8 + b] = std::byte(parts[i].start >> (8 * b));
			e[12 + b] = std::byte(parts[i].sectors >> (8 * b));
		}
	}
	s[510] = std::byte{0x55};
	s[511] = std::byte{0xAA};
	disk.write(0, s);
}

void emu::Disk::delete_partition(int partno)
{
	::delete_partition(impl_->disk, partno);
}

void emu::Disk::set_invalidated()
{
	struct block_device *whole = bdev(0);
	mutex_lock(&whole->bd_mutex);
	whole->bd_invalidated = 1;
	mutex_unlock(&whole->bd_mutex);
	bdput(whole);
}

struct gendisk *emu::Disk::gendisk() const { return impl_->disk; }
struct request_queue *emu::Disk::queue() const { return impl_->q; }
std::uint64_t emu::Disk::sectors() const { return impl_->capacity; }

emu::devnum emu::Disk::dev(int partno) const
{
	return MKDEV(impl_->cfg.major, impl_->cfg.first_minor + partno);
}

struct block_device *emu::Disk::bdev(int partno) const
{
	return bdget(dev(partno));
}

int (*emu::Disk::request_fn())(struct request_queue *, struct bio *)
{
	return emu_disk_make_request;
}

void emu::Disk::read(std::uint64_t sector, std::span<std::byte> out) const
{
	if (sector * 512 + out.size() > impl_->capacity * 512)
		violation({}, "emu::Disk::read beyond the end of the disk");
	impl_->store->read(sector * 512, out);
}

void emu::Disk::write(std::uint64_t sector, std::span<const std::byte> in)
{
	if (sector * 512 + in.size() > impl_->capacity * 512)
		violation({}, "emu::Disk::write beyond the end of the disk");
	impl_->store->write(sector * 512, in);
}

void emu::Disk::set_latency(std::chrono::microseconds min,
			    std::chrono::microseconds max)
{
	std::lock_guard lk(impl_->m);
	impl_->lat_min = min;
	impl_->lat_max = std::max(min, max);
}

void emu::Disk::set_reorder(Reorder order, std::uint64_t seed)
{
	std::lock_guard lk(impl_->m);
	impl_->reorder = order;
	impl_->rng.seed(seed);
}

void emu::Disk::plug()
{
	std::lock_guard lk(impl_->m);
	impl_->plugged = true;
}

void emu::Disk::unplug()
{
	{
		std::lock_guard lk(impl_->m);
		impl_->plugged = false;
	}
	impl_->work_cv.notify_all();
}

void emu::Disk::fail_sectors(std::uint64_t first, std::uint64_t count,
			     int error, Dir dir)
{
	std::lock_guard lk(impl_->m);
	impl_->failures.push_back({first, count, error, dir});
}

void emu::Disk::clear_failures()
{
	std::lock_guard lk(impl_->m);
	impl_->failures.clear();
}

void emu::Disk::drain()
{
	std::unique_lock lk(impl_->m);
	impl_->idle_cv.wait(lk, [this] {
		return impl_->in_service == 0 &&
		       (impl_->pending.empty() || impl_->plugged);
	});
}

std::uint64_t emu::Disk::requests() const
{
	return impl_->requests.load();
}

unsigned emu::Disk::requests_allocated() const
{
	unsigned long flags;
	spin_lock_irqsave(impl_->queue_lock(), flags);
	const unsigned n = static_cast<unsigned>(impl_->rq_count);
	spin_unlock_irqrestore(impl_->queue_lock(), flags);
	return n;
}

unsigned emu::Disk::pool_sleepers() const
{
	std::lock_guard lk(impl_->pool_m);
	return impl_->sleepers;
}

emu::CompletionContext emu::Disk::completion_context() const
{
	return impl_->context;
}

void emu::Disk::set_observer(std::function<void(const DiskRequest &)> observer)
{
	auto obs = std::make_shared<std::function<void(const DiskRequest &)>>(
		std::move(observer));
	std::lock_guard lk(impl_->observer_m);
	impl_->observer = std::move(obs);
}
