// The emulated machine of the backup program's demo and tests.
#include "emu_world.hpp"

#include <cerrno>
#include <cstring>
#include <random>
#include <span>

#include <sys/mount.h>

namespace corvalin::tool {
namespace {

constexpr std::uint64_t kStart = 63;  // odd: partitions need no alignment
constexpr unsigned kMajor = 8;

void put16(std::byte *p, unsigned v)
{
	p[0] = static_cast<std::byte>(v & 0xFF);
	p[1] = static_cast<std::byte>((v >> 8) & 0xFF);
}

void put32(std::byte *p, std::uint32_t v)
{
	for (int i = 0; i < 4; i++)
		p[i] = static_cast<std::byte>((v >> (8 * i)) & 0xFF);
}

int resolve(void *ctx, const char *name, std::uint32_t *major,
	    std::uint32_t *minor)
{
	(void)ctx;
	if (std::strcmp(name, "/dev/sda1") == 0) {
		*major = kMajor;
		*minor = 1;
		return 0;
	}
	if (std::strcmp(name, "/dev/sda") == 0) {
		*major = kMajor;
		*minor = 0;
		return 0;
	}
	return ENOENT;
}

int is_mounted(void *ctx, const char *target)
{
	(void)ctx;
	// The emulated partition is mounted; targets on the host are the
	// host's block devices, never written by the demo: refuse them all.
	(void)target;
	return 1;
}

int take_lock(void *ctx)
{
	bool &locked = *static_cast<bool *>(ctx);
	if (locked)
		return 1;
	locked = true;
	return 0;
}

void release_lock(void *ctx)
{
	*static_cast<bool *>(ctx) = false;
}

}  // namespace

EmuWorld::EmuWorld(const Config &c) : cfg_(c)
{
	emu::log_clear();
	if (emu::module_load() != 0) {
		error_ = "module load failed";
		return;
	}
	loaded_ = true;
	emu::mknod(CV_DEVICE_PATH, KIV_MAJOR, 0);
	emu::mknod_block("/dev/sda", kMajor, 0);
	emu::mknod_block("/dev/sda1", kMajor, 1);

	const std::uint64_t sectors =
		std::uint64_t(cfg_.blocks) * cfg_.block_size / 512;
	emu::DiskConfig dc;
	dc.major = kMajor;
	dc.first_minor = 0;
	dc.minors = 16;
	dc.sectors = kStart + sectors +
		     std::uint64_t(cfg_.room) * cfg_.block_size / 512 + 64;
	dc.name = "sda";
	dc.threads = 2;
	disk_ = std::make_unique<emu::Disk>(dc);
	if (disk_->add_partition(1, kStart, sectors) != 0) {
		error_ = "partition";
		return;
	}
	std::vector<std::byte> image(std::size_t(cfg_.blocks) *
				     cfg_.block_size);
	allocated_.assign(cfg_.blocks, !cfg_.ext2);
	if (cfg_.ext2) {
		format_ext2(image);
	} else {
		std::mt19937_64 rng(cfg_.seed);
		for (auto &b : image)
			b = static_cast<std::byte>(rng());
		for (std::uint32_t i = 0; i < cfg_.blocks; i++)
			writable_.push_back(i);
	}
	disk_->write(kStart, image);
	fs_ = std::make_unique<emu::FileSystem>(*disk_, 1, cfg_.block_size);
	process_ = std::make_unique<emu::Process>("corvalin");
	transport_ = std::make_unique<EmuTransport>(*process_);
}

// A small ext2 layout: the super block, one block of group descriptors,
// a block bitmap and an "inode table" per group, and about half of the
// remaining blocks allocated to files (random contents); free blocks are
// zero.
void EmuWorld::format_ext2(std::vector<std::byte> &image)
{
	const unsigned bs = cfg_.block_size;
	const std::uint32_t n = cfg_.blocks, per = cfg_.per_group;
	const std::uint32_t first = bs == 1024 ? 1 : 0;
	const std::uint32_t groups = (n - first + per - 1) / per;
	const std::uint32_t gdt_blocks = (groups * 32 + bs - 1) / bs;
	std::mt19937_64 rng(cfg_.seed);
	auto block = [&](std::uint32_t b) { return image.data() +
						   std::size_t(b) * bs; };
	std::vector<bool> meta(n, false);

	for (std::uint32_t b = 0; b <= first + gdt_blocks; b++)
		meta[b] = true;  // boot block, super block, descriptors
	std::vector<std::uint32_t> bitmap_at(groups);
	for (std::uint32_t g = 0; g < groups; g++) {
		const std::uint32_t base = first + g * per;
		bitmap_at[g] = g == 0 ? first + 1 + gdt_blocks : base;
		for (std::uint32_t k = 0; k < 9 && bitmap_at[g] + k < n; k++)
			meta[bitmap_at[g] + k] = true;  // bitmap, inodes
	}
	for (std::uint32_t b = 0; b < n; b++) {
		allocated_[b] = meta[b] || rng() % 2 == 0;
		if (allocated_[b] && !meta[b]) {
			writable_.push_back(b);
			for (unsigned k = 0; k < bs; k++)
				block(b)[k] = static_cast<std::byte>(rng());
		}
	}
	std::byte *sb = image.data() + 1024;
	put32(sb + 4, n);
	put32(sb + 20, first);
	put32(sb + 24, bs == 1024 ? 0 : bs == 2048 ? 1 : 2);
	put32(sb + 32, per);
	put16(sb + 56, 0xEF53);
	for (std::uint32_t g = 0; g < groups; g++) {
		put32(block(first + 1) + g * 32, bitmap_at[g]);
		std::byte *bm = block(bitmap_at[g]);
		const std::uint32_t base = first + g * per;
		for (std::uint32_t i = 0; i < bs * 8; i++) {
			// Bits past the end of the file system are set,
			// as a formatter leaves them.
			const bool used = base + i >= n || i >= per ||
					  allocated_[base + i];
			if (used)
				bm[i / 8] |= static_cast<std::byte>(1u << (i % 8));
		}
	}
}

EmuWorld::~EmuWorld()
{
	stop_writer();
	transport_.reset();
	process_.reset();
	if (loaded_)
		(void)emu::module_unload();
	fs_.reset();
	disk_.reset();
	(void)new_log_lines();
}

cvb_platform EmuWorld::platform(FILE *out, FILE *err)
{
	cvb_platform pf{};
	pf.tp = transport_->get();
	pf.control_path = CV_DEVICE_PATH;
	pf.resolve = resolve;
	pf.is_mounted = is_mounted;
	pf.take_lock = take_lock;
	pf.release_lock = release_lock;
	pf.ctx = &locked_;
	pf.out = out;
	pf.err = err;
	return pf;
}

void EmuWorld::start_writer(std::uint64_t seed)
{
	stop_ = false;
	writer_ = std::thread([this, seed] { writer_loop(seed); });
}

void EmuWorld::writer_loop(std::uint64_t seed)
{
	std::mt19937_64 r(seed);
	std::vector<std::byte> data(cfg_.block_size);
	while (!stop_) {
		{
			std::unique_lock lk(m_);
			if (paused_) {
				parked_ = true;
				cv_.notify_all();
				cv_.wait(lk, [&] { return !paused_ || stop_; });
				parked_ = false;
				continue;
			}
		}
		for (auto &x : data)
			x = static_cast<std::byte>(r());
		if (writable_.empty())
			break;
		(void)fs_->write_block(writable_[r() % writable_.size()],
				       data);
		if (r() % 8 == 0)
			(void)fs_->sync();
		writes_++;
	}
	(void)fs_->sync();
}

void EmuWorld::pause_writer()
{
	std::unique_lock lk(m_);
	if (!writer_.joinable())
		return;
	paused_ = true;
	cv_.wait(lk, [&] { return parked_ || stop_; });
}

void EmuWorld::resume_writer()
{
	std::lock_guard lk(m_);
	paused_ = false;
	cv_.notify_all();
}

void EmuWorld::stop_writer()
{
	{
		std::lock_guard lk(m_);
		stop_ = true;
		paused_ = false;
		cv_.notify_all();
	}
	if (writer_.joinable())
		writer_.join();
}

std::vector<std::byte> EmuWorld::partition()
{
	(void)fs_->sync();
	disk_->drain();
	std::vector<std::byte> out(std::size_t(cfg_.blocks) * cfg_.block_size);
	disk_->read(kStart, out);
	return out;
}

void EmuWorld::remount()
{
	fs_.reset();
	fs_ = std::make_unique<emu::FileSystem>(*disk_, 1, cfg_.block_size);
}

int EmuWorld::reload_module()
{
	if (emu::module_unload() != 0)
		return -1;
	loaded_ = false;
	if (emu::module_load() != 0)
		return -1;
	loaded_ = true;
	emu::mknod(CV_DEVICE_PATH, KIV_MAJOR, 0);
	return 0;
}

int EmuWorld::grow_partition(std::uint32_t extra)
{
	if (extra > cfg_.room)
		return -ENOSPC;
	const std::uint32_t blocks = cfg_.blocks + extra;
	const emu::DosPartition p1{
		static_cast<std::uint32_t>(kStart),
		static_cast<std::uint32_t>(std::uint64_t(blocks) *
					   cfg_.block_size / 512)};
	fs_.reset();
	emu::write_dos_label(*disk_, {&p1, 1});
	const int fd = process_->open("/dev/sda");
	long r = fd;
	if (fd >= 0) {
		r = process_->ioctl(fd, BLKRRPART, 0);
		(void)process_->close(fd);
	}
	if (r == 0) {
		cfg_.blocks = blocks;
		cfg_.room -= extra;
		allocated_.resize(blocks, !cfg_.ext2);
		if (!cfg_.ext2)
			for (std::uint32_t b = blocks - extra; b < blocks; b++)
				writable_.push_back(b);
	}
	fs_ = std::make_unique<emu::FileSystem>(*disk_, 1, cfg_.block_size);
	return static_cast<int>(r);
}

std::vector<std::string> EmuWorld::new_log_lines()
{
	const auto lines = emu::log_strings();
	std::vector<std::string> out, allowed;
	if (log_seen_ > lines.size())
		log_seen_ = 0;
	for (std::size_t i = log_seen_; i < lines.size(); i++) {
		out.push_back(lines[i]);
		// The one warning the driver's close path is allowed
		// (returning with interrupts off after restoring a queue).
		if (lines[i].find("BUG: sleeping function called from "
				  "invalid context") != std::string::npos)
			allowed.push_back(lines[i]);
	}
	if (!allowed.empty())
		emu::warnings_seen(allowed);
	log_seen_ = lines.size();
	return out;
}

}  // namespace corvalin::tool
