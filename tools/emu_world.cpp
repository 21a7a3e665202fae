// The emulated machine of the backup program's demo and tests.
#include "emu_world.hpp"

#include <algorithm>
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

// BLKGETSIZE64 as the emulated i386 kernel numbers it (_IOR(0x12, 114,
// size_t) with a 4-byte size_t), whatever the host's own value.
constexpr unsigned kBlkGetSize64 = 0x80041272u;

int is_mounted(void *ctx, const char *target)
{
	(void)ctx;
	// The emulated partitions are mounted; targets on the host are the
	// host's block devices, never written by the demo: refuse them all.
	(void)target;
	return 1;
}

struct Layout {
	std::vector<bool> allocated;
	std::vector<std::uint32_t> writable;
};

// A small ext2 layout in `image` (n blocks of bs bytes, zero): the super
// block, one block of group descriptors, a block bitmap and an "inode
// table" per group, and about half of the remaining blocks allocated to
// files (random contents); free blocks stay zero.
Layout format_ext2(std::span<std::byte> image, unsigned bs, std::uint32_t n,
		   std::uint32_t per, std::uint64_t seed)
{
	Layout l;
	const std::uint32_t first = bs == 1024 ? 1 : 0;
	const std::uint32_t groups = (n - first + per - 1) / per;
	const std::uint32_t gdt_blocks = (groups * 32 + bs - 1) / bs;
	std::mt19937_64 rng(seed);
	auto block = [&](std::uint32_t b) { return image.data() +
						   std::size_t(b) * bs; };
	std::vector<bool> meta(n, false);

	l.allocated.assign(n, false);
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
		l.allocated[b] = meta[b] || rng() % 2 == 0;
		if (l.allocated[b] && !meta[b]) {
			l.writable.push_back(b);
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
					  l.allocated[base + i];
			if (used)
				bm[i / 8] |= static_cast<std::byte>(1u << (i % 8));
		}
	}
	return l;
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

	// The partitions, one after the other.
	parts_.resize(1 + cfg_.more.size());
	parts_[0].block_size = cfg_.block_size;
	parts_[0].start = kStart;
	parts_[0].sectors = std::uint64_t(cfg_.blocks) * cfg_.block_size / 512;
	parts_[0].blocks = cfg_.blocks;
	std::uint64_t next = kStart + parts_[0].sectors +
			     std::uint64_t(cfg_.room) * cfg_.block_size / 512;
	for (std::size_t i = 0; i < cfg_.more.size(); i++) {
		Part &p = parts_[i + 1];
		p.block_size = cfg_.more[i].block_size;
		p.start = next;
		p.sectors = cfg_.more[i].sectors;
		p.blocks = static_cast<std::uint32_t>(std::min<std::uint64_t>(
			p.sectors * 512 / p.block_size, 0xFFFFFFFFu));
		next += p.sectors;
	}

	emu::DiskConfig dc;
	dc.major = kMajor;
	dc.first_minor = 0;
	dc.minors = 16;
	dc.sectors = next + 64;
	dc.name = "sda";
	dc.threads = 2;
	disk_ = std::make_unique<emu::Disk>(dc);
	for (int n = 1; n <= partitions(); n++) {
		const std::string node = "/dev/sda" + std::to_string(n);
		emu::mknod_block(node.c_str(), kMajor,
				 static_cast<unsigned>(n));
		if (disk_->add_partition(n, part(n).start, part(n).sectors) !=
		    0) {
			error_ = "partition " + std::to_string(n);
			return;
		}
	}

	Part &p1 = parts_[0];
	std::vector<std::byte> image(std::size_t(cfg_.blocks) *
				     cfg_.block_size);
	if (cfg_.ext2) {
		Layout l = format_ext2(image, cfg_.block_size, cfg_.blocks,
				       cfg_.per_group, cfg_.seed);
		p1.allocated = std::move(l.allocated);
		p1.writable = std::move(l.writable);
	} else {
		std::mt19937_64 rng(cfg_.seed);
		for (auto &b : image)
			b = static_cast<std::byte>(rng());
		p1.allocated.assign(cfg_.blocks, true);
		for (std::uint32_t i = 0; i < cfg_.blocks; i++)
			p1.writable.push_back(i);
	}
	disk_->write(p1.start, image);
	for (std::size_t i = 0; i < cfg_.more.size(); i++) {
		const Config::Partition &m = cfg_.more[i];
		Part &p = parts_[i + 1];
		if (!m.ext2)
			continue;
		std::vector<std::byte> img(std::size_t(p.blocks) *
					   p.block_size);
		Layout l = format_ext2(img, p.block_size, p.blocks,
				       m.per_group, m.seed);
		p.allocated = std::move(l.allocated);
		p.writable = std::move(l.writable);
		disk_->write(p.start, img);
	}
	for (int n = 1; n <= partitions(); n++)
		part(n).fs = std::make_unique<emu::FileSystem>(
			*disk_, n, part(n).block_size);
	process_ = std::make_unique<emu::Process>("corvalin");
	transport_ = std::make_unique<EmuTransport>(*process_);
}

EmuWorld::~EmuWorld()
{
	stop_writer();
	transport_.reset();
	process_.reset();
	if (loaded_)
		(void)emu::module_unload();
	for (Part &p : parts_)
		p.fs.reset();
	disk_.reset();
	(void)new_log_lines();
}

int EmuWorld::resolve_cb(void *ctx, const char *name, std::uint32_t *major,
			 std::uint32_t *minor)
{
	auto &w = *static_cast<EmuWorld *>(ctx);
	for (int n = 0; n <= w.partitions(); n++) {
		const std::string node =
			"/dev/sda" + (n ? std::to_string(n) : std::string());
		if (node == name) {
			*major = kMajor;
			*minor = static_cast<std::uint32_t>(n);
			return 0;
		}
	}
	return ENOENT;
}

int EmuWorld::device_size_cb(void *ctx, const char *name,
			     std::uint64_t *bytes)
{
	return static_cast<EmuWorld *>(ctx)->device_size(name, bytes);
}

int EmuWorld::take_lock_cb(void *ctx)
{
	auto &w = *static_cast<EmuWorld *>(ctx);
	if (w.locked_)
		return 1;
	w.locked_ = true;
	return 0;
}

void EmuWorld::release_lock_cb(void *ctx)
{
	static_cast<EmuWorld *>(ctx)->locked_ = false;
}

int EmuWorld::device_size(const char *name, std::uint64_t *bytes)
{
	std::uint32_t major, minor;
	if (resolve_cb(this, name, &major, &minor) != 0)
		return ENOENT;
	const int fd = process_->open(name);
	if (fd < 0)
		return -fd;
	const emu::uaddr at = process_->map_anon(8);
	long r = at == 0 ? -ENOMEM : process_->ioctl(fd, kBlkGetSize64, at);
	if (r == 0 && !process_->peek(at, bytes, sizeof(*bytes)))
		r = -EFAULT;
	(void)process_->close(fd);
	return static_cast<int>(-r);
}

cvb_platform EmuWorld::platform(FILE *out, FILE *err)
{
	cvb_platform pf{};
	pf.tp = transport_->get();
	pf.control_path = CV_DEVICE_PATH;
	pf.resolve = resolve_cb;
	pf.device_size = device_size_cb;
	pf.is_mounted = is_mounted;
	pf.take_lock = take_lock_cb;
	pf.release_lock = release_lock_cb;
	pf.ctx = this;
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
		const Part &p = parts_[0];
		if (p.writable.empty())
			break;
		(void)p.fs->write_block(p.writable[r() % p.writable.size()],
					data);
		if (r() % 8 == 0)
			(void)p.fs->sync();
		writes_++;
	}
	(void)parts_[0].fs->sync();
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

std::vector<std::byte> EmuWorld::partition(int partno)
{
	Part &p = part(partno);
	(void)p.fs->sync();
	disk_->drain();
	std::vector<std::byte> out(std::size_t(p.blocks) * p.block_size);
	disk_->read(p.start, out);
	return out;
}

void EmuWorld::remount()
{
	Part &p = parts_[0];
	p.fs.reset();
	p.fs = std::make_unique<emu::FileSystem>(*disk_, 1, p.block_size);
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
	if (partitions() > 1)
		return -EBUSY;
	Part &p = parts_[0];
	const std::uint32_t blocks = p.blocks + extra;
	const emu::DosPartition p1{
		static_cast<std::uint32_t>(kStart),
		static_cast<std::uint32_t>(std::uint64_t(blocks) *
					   p.block_size / 512)};
	p.fs.reset();
	emu::write_dos_label(*disk_, {&p1, 1});
	const int fd = process_->open("/dev/sda");
	long r = fd;
	if (fd >= 0) {
		r = process_->ioctl(fd, BLKRRPART, 0);
		(void)process_->close(fd);
	}
	if (r == 0) {
		p.blocks = blocks;
		p.sectors = std::uint64_t(blocks) * p.block_size / 512;
		cfg_.blocks = blocks;
		cfg_.room -= extra;
		p.allocated.resize(blocks, !cfg_.ext2);
		if (!cfg_.ext2)
			for (std::uint32_t b = blocks - extra; b < blocks; b++)
				p.writable.push_back(b);
	}
	p.fs = std::make_unique<emu::FileSystem>(*disk_, 1, p.block_size);
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
