// Helpers shared by the driver's test suites (test_control, _dispatch,
// _geometry, _queue, _blockmap), on top of tests/support: the driver's
// headers with C linkage, a file's Backup record, disk configurations.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support.hpp"
#include "emu/block.hpp"
#include "emu/emu.hpp"

// The kernel's headers declare their own C linkage; the driver's do not.
#include <linux/types.h>
#include <linux/kernel.h>
#include <linux/list.h>
#include <linux/fs.h>
#include <linux/mm.h>
#include <linux/highmem.h>
#include <linux/poll.h>
#include <linux/bio.h>
#include <linux/blkdev.h>
#include <linux/buffer_head.h>
#include <linux/genhd.h>
#include <linux/slab.h>
#include <linux/spinlock.h>
#include <linux/rwsem.h>
#include <linux/semaphore.h>
#include <linux/completion.h>
#include <linux/mutex.h>
#include <linux/time.h>
#include <asm/atomic.h>
#include <asm/system.h>

extern "C" {
#include "kivlib.h"
}

namespace test {

// Writes a DOS label into sector 0 of disk: two Linux (0x83) primary
// partitions, each given as {first sector, sectors}.
inline void write_dos_label(emu::Disk &disk, std::uint32_t first1,
			    std::uint32_t sectors1, std::uint32_t first2,
			    std::uint32_t sectors2)
{
	const emu::DosPartition parts[] = {{first1, sectors1},
					   {first2, sectors2}};
	emu::write_dos_label(disk, parts);
}


// The Backup record the driver attached to p's descriptor fd (NULL if
// none).
inline Backup *backup_of(emu::Process &p, int fd)
{
	struct file *f = p.file(fd);
	return f ? static_cast<Backup *>(f->private_data) : nullptr;
}

// A disk's configuration, by the fields the suites vary.
inline emu::DiskConfig disk_config(unsigned major, unsigned first_minor,
				   int minors, std::uint64_t sectors,
				   std::string name, bool queue_lock = true)
{
	emu::DiskConfig c;
	c.major = major;
	c.first_minor = first_minor;
	c.minors = minors;
	c.sectors = sectors;
	c.name = std::move(name);
	c.queue_lock = queue_lock;
	return c;
}

// The loaded module with one open file of the control device in the
// fixture's process: its descriptor, its Backup record and a page of user
// memory (readable and writable).  The log is cleared after the set-up.
class OpenFile : public support::ModuleTest {
protected:
	void SetUp() override
	{
		ModuleTest::SetUp();
		fd_ = open_device();
		ASSERT_GE(fd_, 0);
		b_ = backup_of(*proc, fd_);
		ASSERT_NE(b_, nullptr);
		page_ = proc->map_anon(4096);
		ASSERT_NE(page_, 0u);
		emu::log_clear();
	}

	int fd_ = -1;
	Backup *b_ = nullptr;
	emu::uaddr page_ = 0;
};

}  // namespace test
