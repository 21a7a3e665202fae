// Helpers of the read-side suites (block reader, read buffer, read
// command, snapshot): a disk with two partitions, a file system on the
// first, the control device open in the fixture's process, and the
// commands of a backup issued as system calls with records in user memory.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "test_driver_util.hpp"

namespace readpath {

constexpr unsigned kMajor = 8;
constexpr std::uint64_t kP1Start = 64;      // sectors
constexpr std::uint64_t kP2Sectors = 1024;

// Byte k of block n of partition 1 as the disk holds it before any test
// write: never zero, different for every block.
inline std::uint8_t pattern(std::uint32_t n, std::uint32_t k)
{
	return static_cast<std::uint8_t>(((n * 131u + k * 7u) % 251u) + 1u);
}

inline std::vector<std::uint8_t> block_pattern(std::uint32_t n,
					       unsigned block_size)
{
	std::vector<std::uint8_t> v(block_size);
	for (unsigned k = 0; k < block_size; k++)
		v[k] = pattern(n, k);
	return v;
}

// A change-tracking session key as the driver stores it.
using Key = std::array<unsigned char, 56>;

class ReadPath : public test::OpenFile {
protected:
	// The change-tracking session of partition 1, or NULL.
	AutoMapSession *session()
	{
		AutoMapSession **slot = amSlot(p1());
		return slot ? *slot : nullptr;
	}
	// Its current key.
	Key key_of(AutoMapSession *ams)
	{
		Key k;
		std::memcpy(k.data(), ams->sessionKey.key, 56);
		return k;
	}
	// Disk sda (major 8) with partition 1 of p1_sectors from sector 64,
	// filled with pattern(), and partition 2 behind it; a file system of
	// block_size mounted on partition 1.
	void make_disk(unsigned block_size, std::uint64_t p1_sectors = 2048,
		       emu::Completion completion = emu::Completion::Request,
		       unsigned threads = 2)
	{
		emu::DiskConfig c = test::disk_config(
			kMajor, 0, 16, kP1Start + p1_sectors + kP2Sectors, "sda");
		c.completion = completion;
		c.threads = threads;
		disk = std::make_unique<emu::Disk>(c);
		ASSERT_EQ(disk->add_partition(1, kP1Start, p1_sectors), 0);
		ASSERT_EQ(disk->add_partition(2, kP1Start + p1_sectors,
					      kP2Sectors), 0);
		bs = block_size;
		blocks = static_cast<std::uint32_t>(p1_sectors * 512 / bs);
		for (std::uint32_t n = 0; n < blocks; n++) {
			auto v = block_pattern(n, bs);
			disk->write(kP1Start + std::uint64_t(n) * (bs / 512),
				    std::as_bytes(std::span(v)));
		}
		fs = std::make_unique<emu::FileSystem>(*disk, 1, block_size);
		emu::log_clear();
	}

	emu::devnum p1() const { return disk->dev(1); }

	long ioctl(unsigned cmd, emu::uaddr arg)
	{
		return proc->ioctl(fd_, cmd, arg);
	}

	void poke32(emu::uaddr a, std::uint32_t v)
	{
		ASSERT_TRUE(proc->poke(a, &v, sizeof(v)));
	}

	// START_BACKUP of partition 1 (all its blocks unless told).
	long start(std::uint32_t maxCache = 1024, std::uint32_t total = 0)
	{
		StartBackup rec{kMajor, 1, total ? total : blocks, maxCache};
		EXPECT_TRUE(proc->poke(page_ + 2048, &rec, sizeof(rec)));
		return ioctl(KIV_IOC_START_BACKUP, page_ + 2048);
	}

	// SNAPSHOT with the key at page_ + 1024 (len bytes of it).
	long snapshot(std::uint32_t len = 0)
	{
		SnapShot rec{page_ + 1024, len};
		EXPECT_TRUE(proc->poke(page_ + 2048, &rec, sizeof(rec)));
		return ioctl(KIV_IOC_SNAPSHOT, page_ + 2048);
	}

	long read_blocks(std::uint32_t first, std::uint32_t n, emu::uaddr data)
	{
		ReadBlocks rec{first, n, data};
		EXPECT_TRUE(proc->poke(page_ + 2048, &rec, sizeof(rec)));
		return ioctl(KIV_IOC_READ_BLOCKS, page_ + 2048);
	}

	// A read-only private mapping of the device, or a negative errno /
	// the driver's refusal as mmap returned it.
	long long map(std::uint32_t pages, int prot = emu::PROT_READ_,
		      int flags = emu::MAP_PRIVATE_, unsigned long pgoff = 0)
	{
		return proc->mmap(0, std::size_t(pages) * 4096, prot, flags,
				  fd_, pgoff);
	}

	std::vector<std::uint8_t> peek(emu::uaddr a, std::size_t len)
	{
		std::vector<std::uint8_t> v(len);
		EXPECT_TRUE(proc->peek(a, v.data(), len));
		return v;
	}

	// The read-buffer slot of the mapping at addr.
	BackupVMA *slot_of(emu::uaddr addr)
	{
		BackupVMA *bvma = nullptr;
		EXPECT_EQ(checkVMA(b_, addr, &bvma), 1);
		return bvma;
	}

	// Blocks whose cached old contents the backup should deliver: set
	// in the cache map with a copy in the cache.
	// fs->sync(), then waits until kbackupd has finished every request
	// it holds: it marks a block in the cache map only after the write
	// went on, so the write's completion alone does not show the mark.
	void sync_settled()
	{
		ASSERT_EQ(fs->sync(), 0);
		while (atomic_read(&b_->mrInQueue) > 0)
			sched_yield();
	}
	void cache_block(std::uint32_t n, const std::vector<std::uint8_t> &v)
	{
		proc->run_as([&] {
			down_read(&b_->cacheUsers);
			EXPECT_EQ(saveBlock(b_, reinterpret_cast<const char *>(
						v.data()), n), 0);
			up_read(&b_->cacheUsers);
			EXPECT_EQ(setBlock(&b_->cacheMap, n), 0);
		});
	}

	// A loaded block map over every block of the partition, all set,
	// and state 6, as a map load leaves the backup.
	void load_full_map()
	{
		int pages = 0;
		proc->run_as([&] {
			ASSERT_EQ(newBlockMap(&b_->blockMap, blocks, nullptr, 1,
					      &pages), 0);
			atomic_add(pages, &b_->totalAllocPages);
			atomic_add(pages, &b_->curAllocPages);
			for (std::uint32_t n = 0; n < blocks; n++)
				setBlock(&b_->blockMap, n);
			setBackupState(b_, BU_STATE_MAP_LOADED);
		});
	}

	// Block n is in the map (a set bit; not an error).
	bool in_map(BlockMap *m, std::uint32_t n)
	{
		int r = 0;
		proc->run_as([&] { r = blockInMap(m, n); });
		return r != 0;
	}

	void TearDown() override
	{
		// Close the file (and the mappings) before the file system
		// and the disk go.
		OpenFile::TearDown();
		fs.reset();
		disk.reset();
	}

	std::unique_ptr<emu::Disk> disk;
	std::unique_ptr<emu::FileSystem> fs;
	unsigned bs = 0;
	std::uint32_t blocks = 0;
};

// A pointer as the kernel's %p prints it: lower-case hex, no "0x",
// zero-padded to 8 digits (16 when the value needs more).
inline std::string kptr(const void *p)
{
	auto v = reinterpret_cast<std::uintptr_t>(p);
	char buf[32];
	std::snprintf(buf, sizeof(buf), "%0*llx", v > 0xffffffffu ? 16 : 8,
		      static_cast<unsigned long long>(v));
	return buf;
}

}  // namespace readpath
