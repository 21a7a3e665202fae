// Processes of the emulated kernel: user memory and the kernel's
// user-access functions, character devices, and the system calls that
// reach a driver (open, ioctl, read/write/poll, mmap with faults, munmap,
// close), exercised through a tiny driver written here.
#include <array>
#include <atomic>
#include <cstring>
#include <new>
#include <thread>
#include <vector>

#include "test_emu_util.hpp"

#include <linux/fs.h>
#include <linux/gfp.h>
#include <linux/highmem.h>
#include <linux/mm.h>
#include <linux/poll.h>
#include <linux/semaphore.h>
#include <linux/smp_lock.h>
#include <linux/uaccess.h>

using emu::PROT_NONE_;
using emu::PROT_READ_;
using emu::PROT_WRITE_;
using emu::MAP_PRIVATE_;
using emu::MAP_SHARED_;
using support::user_ptr;

// ---- user memory ------------------------------------------------------------------------

class UserMemory : public ::testing::Test {
protected:
	emu::Process proc;
};

TEST_F(UserMemory, CopyFromUserStopsAtTheFaultAndZeroFillsTheRest)
{
	emu::uaddr base = proc.map_anon(2 * PAGE_SIZE);
	ASSERT_NE(base, 0u);
	ASSERT_EQ(proc.protect(base + PAGE_SIZE, PAGE_SIZE, PROT_NONE_), 0);
	std::array<unsigned char, 16> pattern;
	pattern.fill(0x5c);
	ASSERT_TRUE(proc.poke(base + PAGE_SIZE - 6, pattern.data(), 6));
	std::array<unsigned char, 16> dst;
	dst.fill(0xee);
	unsigned long left = 1;
	proc.run_as([&] {
		left = copy_from_user(dst.data(),
				      user_ptr(base + PAGE_SIZE - 6), 16);
	});
	EXPECT_EQ(left, 10u);
	for (int i = 0; i < 6; i++)
		EXPECT_EQ(dst[i], 0x5c) << i;
	for (int i = 6; i < 16; i++)
		EXPECT_EQ(dst[i], 0) << i;
}

TEST_F(UserMemory, CopyToUserFailsOnAReadOnlyPage)
{
	emu::uaddr base = proc.map_anon(PAGE_SIZE, PROT_READ_);
	char data[8] = "abcdefg";
	unsigned long left = 0;
	proc.run_as([&] { left = copy_to_user(user_ptr(base), data, 8); });
	EXPECT_EQ(left, 8u);
	char back[8];
	ASSERT_TRUE(proc.peek(base, back, 8));
	EXPECT_EQ(back[0], 0);
	EXPECT_FALSE(proc.poke(base, data, 8));
}

TEST_F(UserMemory, CopiesRoundTripAcrossPages)
{
	emu::uaddr base = proc.map_anon(3 * PAGE_SIZE);
	std::vector<unsigned char> out(2 * PAGE_SIZE), in(2 * PAGE_SIZE);
	for (size_t i = 0; i < out.size(); i++)
		out[i] = static_cast<unsigned char>(i * 7);
	proc.run_as([&] {
		EXPECT_EQ(copy_to_user(user_ptr(base + 100), out.data(),
				       out.size()), 0u);
		EXPECT_EQ(copy_from_user(in.data(), user_ptr(base + 100),
					 in.size()), 0u);
		EXPECT_EQ(clear_user(user_ptr(base + 100), 10), 0u);
	});
	EXPECT_EQ(in, out);
	unsigned char z[10];
	ASSERT_TRUE(proc.peek(base + 100, z, 10));
	for (unsigned char c : z)
		EXPECT_EQ(c, 0);
}

TEST_F(UserMemory, PutUserAndGetUserReturnEfaultOnUnmapped)
{
	emu::uaddr bad = proc.unmapped_address();
	emu::uaddr good = proc.map_anon(PAGE_SIZE);
	proc.run_as([&] {
		int x = 42;
		EXPECT_EQ(put_user(x, static_cast<int __user *>(user_ptr(bad))),
			  -EFAULT);
		EXPECT_EQ(put_user(x, static_cast<int __user *>(user_ptr(good))),
			  0);
		int y = 7;
		EXPECT_EQ(get_user(y, static_cast<int __user *>(user_ptr(bad))),
			  -EFAULT);
		EXPECT_EQ(y, 0);
		EXPECT_EQ(get_user(y, static_cast<int __user *>(user_ptr(good))),
			  0);
		EXPECT_EQ(y, 42);
	});
}

TEST_F(UserMemory, AddressesAboveTaskSizeCopyNothing)
{
	emu::uaddr top = proc.map_anon(PAGE_SIZE);
	(void)top;
	char buf[4] = {1, 2, 3, 4};
	proc.run_as([&] {
		EXPECT_EQ(copy_from_user(buf, user_ptr(0xBFFFFFFEu), 4), 4u);
		EXPECT_EQ(buf[0], 0);
		EXPECT_EQ(copy_to_user(user_ptr(0xC0000000u), buf, 1), 1u);
		EXPECT_FALSE(access_ok(VERIFY_READ, user_ptr(0xBFFFFFFFu), 2));
		EXPECT_TRUE(access_ok(VERIFY_READ, user_ptr(0xBFFFFFFFu), 1));
	});
}

TEST(UserMemoryKernelThread, ATaskWithoutAddressSpaceFaults)
{
	emu::Process proc;
	emu::uaddr base = proc.map_anon(PAGE_SIZE);
	std::atomic<unsigned long> left{0};
	emutest::KThread t([&] {
		char buf[4];
		left = copy_from_user(buf, user_ptr(base), 4);
	});
	t.join();
	EXPECT_EQ(left, 4u);
}

// ---- a tiny character driver ------------------------------------------------------------

namespace {

struct Tiny {
	int opens = 0, releases = 0, mmaps = 0, closes = 0, faults = 0;
	unsigned long last_pgoff = ~0UL;
	unsigned int last_flags = ~0U;
	unsigned long last_vm_flags = 0;
	int open_result = 0;
	int mmap_result = 0;
	bool fault_sigbus = false;
	bool held_bkl_in_ioctl = false;
	std::atomic<int> in_ioctl3{0};
	struct page *pages[4] = {};
	struct file *last_file = nullptr;
} g_tiny;

int tiny_fault(struct vm_area_struct *vma, struct vm_fault *vmf)
{
	(void)vma;
	g_tiny.faults++;
	g_tiny.last_pgoff = vmf->pgoff;
	g_tiny.last_flags = vmf->flags;
	if (g_tiny.fault_sigbus || vmf->pgoff >= 4)
		return VM_FAULT_SIGBUS;
	struct page *page = g_tiny.pages[vmf->pgoff];
	get_page(page);
	vmf->page = page;
	return 0;
}

void tiny_vm_close(struct vm_area_struct *vma)
{
	(void)vma;
	g_tiny.closes++;
}

struct vm_operations_struct tiny_vm_ops = {
	nullptr, tiny_vm_close, tiny_fault, nullptr, nullptr,
};

int tiny_open(struct inode *inode, struct file *file)
{
	(void)inode;
	g_tiny.opens++;
	g_tiny.last_file = file;
	return g_tiny.open_result;
}

int tiny_release(struct inode *inode, struct file *file)
{
	(void)inode;
	(void)file;
	g_tiny.releases++;
	return 0;
}

struct semaphore g_ioctl_gate;

int tiny_ioctl(struct inode *inode, struct file *file, unsigned int cmd,
	       unsigned long arg)
{
	(void)file;
	g_tiny.held_bkl_in_ioctl = kernel_locked();
	if (cmd == 3) {
		// Sleeps holding the BKL (which schedule() releases).
		g_tiny.in_ioctl3++;
		down(&g_ioctl_gate);
		g_tiny.held_bkl_in_ioctl = kernel_locked();
		return 3;
	}
	if (cmd == 1)
		return static_cast<int>(arg) + MINOR(inode->i_rdev);
	if (cmd == 2)
		return put_user(0x12345678u,
				reinterpret_cast<unsigned int __user *>(arg));
	return -EINVAL;
}

ssize_t tiny_read(struct file *file, char __user *buf, size_t count,
		  loff_t *pos)
{
	(void)file;
	(void)buf;
	(void)pos;
	return static_cast<ssize_t>(count / 2);
}

unsigned int tiny_poll(struct file *file, struct poll_table_struct *wait)
{
	(void)file;
	(void)wait;
	return POLLIN;
}

int tiny_mmap(struct file *file, struct vm_area_struct *vma)
{
	(void)file;
	g_tiny.mmaps++;
	g_tiny.last_vm_flags = vma->vm_flags;
	if (g_tiny.mmap_result)
		return g_tiny.mmap_result;
	vma->vm_ops = &tiny_vm_ops;
	vma->vm_private_data = &g_tiny;
	return 0;
}

struct file_operations tiny_fops;

class TinyDriver : public ::testing::Test {
protected:
	void SetUp() override
	{
		g_tiny.~Tiny();
		new (&g_tiny) Tiny{};
		sema_init(&g_ioctl_gate, 0);
		tiny_fops = file_operations{};
		tiny_fops.open = tiny_open;
		tiny_fops.release = tiny_release;
		tiny_fops.ioctl = tiny_ioctl;
		tiny_fops.read = tiny_read;
		tiny_fops.poll = tiny_poll;
		tiny_fops.mmap = tiny_mmap;
		major_ = register_chrdev(0, "tiny", &tiny_fops);
		ASSERT_GT(major_, 0);
		emu::mknod("/dev/tiny", static_cast<unsigned>(major_), 3);
		for (auto &p : g_tiny.pages) {
			p = alloc_page(GFP_HIGHUSER | __GFP_ZERO);
			ASSERT_NE(p, nullptr);
		}
		proc = std::make_unique<emu::Process>();
	}
	void TearDown() override
	{
		proc.reset();
		for (auto &p : g_tiny.pages)
			if (p)
				__free_page(p);
		unregister_chrdev(static_cast<unsigned>(major_), "tiny");
	}
	void fill_page(int i, unsigned char v)
	{
		void *a = kmap(g_tiny.pages[i]);
		memset(a, v, PAGE_SIZE);
		kunmap(g_tiny.pages[i]);
	}
	int major_ = 0;
	std::unique_ptr<emu::Process> proc;
};

}  // namespace

TEST(Chrdev, MajorZeroAllocatesFromTheTopTakenMajorIsBusy)
{
	struct file_operations fops {};
	EXPECT_EQ(register_chrdev(0, "a", &fops), 254);
	EXPECT_EQ(register_chrdev(0, "b", &fops), 253);
	EXPECT_EQ(register_chrdev(120, "c", &fops), 0);
	EXPECT_EQ(register_chrdev(120, "d", &fops), -EBUSY);
	EXPECT_EQ(register_chrdev(254, "e", &fops), -EBUSY);
	unregister_chrdev(254, "other name");   // found by major alone
	EXPECT_EQ(register_chrdev(254, "e", &fops), 0);
	unregister_chrdev(254, "e");
	unregister_chrdev(253, "b");
	unregister_chrdev(120, "c");
}

TEST_F(TinyDriver, OpenCallsTheDriverAndCloseReleases)
{
	int fd = proc->open("/dev/tiny");
	ASSERT_GE(fd, 0);
	EXPECT_EQ(g_tiny.opens, 1);
	EXPECT_EQ(proc->file(fd), g_tiny.last_file);
	EXPECT_EQ(proc->close(fd), 0);
	EXPECT_EQ(g_tiny.releases, 1);
	EXPECT_EQ(proc->close(fd), -EBADF);
}

TEST_F(TinyDriver, OpenOfAMissingNodeOrDevice)
{
	EXPECT_EQ(proc->open("/dev/none"), -ENOENT);
	emu::mknod("/dev/orphan", 77, 0);
	EXPECT_EQ(proc->open("/dev/orphan"), -ENXIO);
}

TEST_F(TinyDriver, NegativeOpenResultIsTheSystemCallsResult)
{
	g_tiny.open_result = -EBUSY;
	EXPECT_EQ(proc->open("/dev/tiny"), -EBUSY);
	EXPECT_EQ(g_tiny.releases, 0);
}

TEST_F(TinyDriver, PositiveOpenResultOopsesAndKillsTheProcess)
{
	int other = proc->open("/dev/tiny");
	ASSERT_GE(other, 0);
	emu::log_clear();
	g_tiny.open_result = 5;
	EXPECT_EQ(proc->open("/dev/tiny"), emu::SYSCALL_KILLED);
	EXPECT_TRUE(proc->killed());
	ExpectLog({"<1>BUG: unable to handle kernel NULL pointer dereference "
		   "at 00000011"});
	// The dying process closed its other file.
	EXPECT_EQ(g_tiny.releases, 1);
	EXPECT_EQ(proc->ioctl(other, 1, 0), emu::SYSCALL_KILLED);
}

TEST_F(TinyDriver, IoctlRunsUnderTheBigKernelLockAndPassesResultsThrough)
{
	int fd = proc->open("/dev/tiny");
	EXPECT_EQ(proc->ioctl(fd, 1, 39), 42);
	EXPECT_TRUE(g_tiny.held_bkl_in_ioctl);
	EXPECT_EQ(proc->ioctl(fd, 7, 0), -EINVAL);
	emu::uaddr buf = proc->map_anon(PAGE_SIZE);
	EXPECT_EQ(proc->ioctl(fd, 2, buf), 0);
	unsigned int v = 0;
	ASSERT_TRUE(proc->peek(buf, &v, 4));
	EXPECT_EQ(v, 0x12345678u);
	EXPECT_EQ(proc->ioctl(fd, 2, proc->unmapped_address()), -EFAULT);
	EXPECT_EQ(proc->ioctl(99, 1, 0), -EBADF);
	proc->close(fd);
}

TEST_F(TinyDriver, IoctlWithoutAHandlerIsEnotty)
{
	tiny_fops.ioctl = nullptr;
	int fd = proc->open("/dev/tiny");
	EXPECT_EQ(proc->ioctl(fd, 1, 0), -ENOTTY);
	proc->close(fd);
}

TEST_F(TinyDriver, ReadWritePoll)
{
	int fd = proc->open("/dev/tiny");
	emu::uaddr buf = proc->map_anon(PAGE_SIZE);
	EXPECT_EQ(proc->read(fd, buf, 10), 5);
	EXPECT_EQ(proc->write(fd, buf, 10), -EINVAL);   // no write operation
	EXPECT_EQ(proc->poll(fd), static_cast<unsigned>(POLLIN));
	proc->close(fd);
}

TEST_F(TinyDriver, MmapFaultsPagesInOnFirstTouch)
{
	fill_page(0, 0xa0);
	fill_page(1, 0xa1);
	int fd = proc->open("/dev/tiny");
	long long addr = proc->mmap(0, 2 * PAGE_SIZE, PROT_READ_, MAP_PRIVATE_,
				    fd, 0);
	ASSERT_GT(addr, 0);
	EXPECT_EQ(g_tiny.mmaps, 1);
	EXPECT_EQ(g_tiny.last_vm_flags, static_cast<unsigned long>(
			  VM_READ | VM_MAYREAD | VM_MAYWRITE | VM_MAYEXEC));
	EXPECT_EQ(g_tiny.faults, 0);
	auto a = static_cast<emu::uaddr>(addr);
	unsigned char c = 0;
	ASSERT_TRUE(proc->peek(a + PAGE_SIZE + 3, &c, 1));
	EXPECT_EQ(c, 0xa1);
	EXPECT_EQ(g_tiny.faults, 1);
	EXPECT_EQ(g_tiny.last_pgoff, 1u);
	EXPECT_EQ(g_tiny.last_flags, 0u);
	EXPECT_EQ(page_count(g_tiny.pages[1]), 2);   // the mapping's reference
	ASSERT_TRUE(proc->peek(a + PAGE_SIZE + 4, &c, 1));
	EXPECT_EQ(g_tiny.faults, 1);   // already mapped
	// Read-only mapping: a store fails without calling the driver.
	EXPECT_FALSE(proc->poke(a, &c, 1));
	EXPECT_EQ(g_tiny.faults, 1);
	EXPECT_EQ(proc->close(fd), 0);
	EXPECT_EQ(g_tiny.releases, 0);   // the mapping holds the file
	EXPECT_EQ(proc->munmap(a, 2 * PAGE_SIZE), 0);
	EXPECT_EQ(g_tiny.closes, 1);
	EXPECT_EQ(g_tiny.releases, 1);
	EXPECT_EQ(page_count(g_tiny.pages[1]), 1);
}

TEST_F(TinyDriver, KernelCopyToADriverMappingFaultsItIn)
{
	fill_page(2, 0x33);
	int fd = proc->open("/dev/tiny");
	long long addr = proc->mmap(0, PAGE_SIZE, PROT_READ_, MAP_SHARED_, fd, 2);
	ASSERT_GT(addr, 0);
	unsigned char c = 0;
	unsigned long left = 1;
	proc->run_as([&] {
		left = copy_from_user(&c, user_ptr(static_cast<emu::uaddr>(addr)),
				      1);
	});
	EXPECT_EQ(left, 0u);
	EXPECT_EQ(c, 0x33);
	EXPECT_EQ(g_tiny.last_pgoff, 2u);
	proc->close(fd);
}

TEST_F(TinyDriver, FaultErrorIsSigbus)
{
	g_tiny.fault_sigbus = true;
	int fd = proc->open("/dev/tiny");
	long long addr = proc->mmap(0, PAGE_SIZE, PROT_READ_, MAP_PRIVATE_, fd, 0);
	unsigned char c;
	EXPECT_FALSE(proc->peek(static_cast<emu::uaddr>(addr), &c, 1));
	EXPECT_EQ(g_tiny.faults, 1);
	proc->close(fd);
}

TEST_F(TinyDriver, WriteToAPrivateMappingCopiesThePage)
{
	fill_page(0, 0x77);
	int fd = proc->open("/dev/tiny");
	long long addr = proc->mmap(0, PAGE_SIZE, PROT_READ_ | PROT_WRITE_,
				    MAP_PRIVATE_, fd, 0);
	ASSERT_GT(addr, 0);
	unsigned char c = 0x01;
	ASSERT_TRUE(proc->poke(static_cast<emu::uaddr>(addr), &c, 1));
	EXPECT_EQ(g_tiny.last_flags, static_cast<unsigned>(FAULT_FLAG_WRITE));
	unsigned char back[2];
	ASSERT_TRUE(proc->peek(static_cast<emu::uaddr>(addr), back, 2));
	EXPECT_EQ(back[0], 0x01);
	EXPECT_EQ(back[1], 0x77);
	void *k = kmap(g_tiny.pages[0]);
	EXPECT_EQ(*static_cast<unsigned char *>(k), 0x77);
	kunmap(g_tiny.pages[0]);
	EXPECT_EQ(page_count(g_tiny.pages[0]), 1);   // the copy replaced it
	proc->close(fd);
}

TEST_F(TinyDriver, DriverRefusalUndoesTheMapping)
{
	g_tiny.mmap_result = -EINVAL;
	int fd = proc->open("/dev/tiny");
	EXPECT_EQ(proc->mmap(0, PAGE_SIZE, PROT_READ_, MAP_PRIVATE_, fd, 0),
		  -EINVAL);
	EXPECT_EQ(proc->close(fd), 0);
	EXPECT_EQ(g_tiny.releases, 1);
}

TEST_F(TinyDriver, MmapChecksBeforeTheDriver)
{
	int fd = proc->open("/dev/tiny");
	EXPECT_EQ(proc->mmap(0, 0, PROT_READ_, MAP_PRIVATE_, fd, 0), -EINVAL);
	EXPECT_EQ(proc->mmap(0, PAGE_SIZE, PROT_READ_, 0, fd, 0), -EINVAL);
	EXPECT_EQ(proc->mmap(0, PAGE_SIZE, PROT_READ_, MAP_PRIVATE_, 42, 0),
		  -EBADF);
	EXPECT_EQ(g_tiny.mmaps, 0);
	tiny_fops.mmap = nullptr;
	EXPECT_EQ(proc->mmap(0, PAGE_SIZE, PROT_READ_, MAP_PRIVATE_, fd, 0),
		  -ENODEV);
	proc->close(fd);
}

TEST_F(TinyDriver, ExitUnmapsThenClosesFiles)
{
	fill_page(0, 1);
	int fd = proc->open("/dev/tiny");
	long long addr = proc->mmap(0, PAGE_SIZE, PROT_READ_, MAP_PRIVATE_, fd, 0);
	unsigned char c;
	ASSERT_TRUE(proc->peek(static_cast<emu::uaddr>(addr), &c, 1));
	proc.reset();
	EXPECT_EQ(g_tiny.closes, 1);
	EXPECT_EQ(g_tiny.releases, 1);
	EXPECT_EQ(page_count(g_tiny.pages[0]), 1);
}

TEST_F(TinyDriver, PartialMunmapKeepsTheRest)
{
	fill_page(0, 0x10);
	fill_page(1, 0x11);
	int fd = proc->open("/dev/tiny");
	auto a = static_cast<emu::uaddr>(
		proc->mmap(0, 2 * PAGE_SIZE, PROT_READ_, MAP_SHARED_, fd, 0));
	unsigned char c;
	ASSERT_TRUE(proc->peek(a, &c, 1));
	EXPECT_EQ(proc->munmap(a, PAGE_SIZE), 0);
	EXPECT_EQ(g_tiny.closes, 1);
	EXPECT_FALSE(proc->peek(a, &c, 1));
	ASSERT_TRUE(proc->peek(a + PAGE_SIZE, &c, 1));
	EXPECT_EQ(c, 0x11);
	EXPECT_EQ(proc->munmap(a + PAGE_SIZE, PAGE_SIZE), 0);
	EXPECT_EQ(g_tiny.closes, 2);
	proc->close(fd);
}

TEST_F(TinyDriver, ConcurrentIoctlsAreSerialisedOnlyUntilAHandlerSleeps)
{
	int fd = proc->open("/dev/tiny");
	std::atomic<long> slow{0};
	std::thread sleeper([&] { slow = proc->ioctl(fd, 3, 0); });
	ASSERT_TRUE(emutest::eventually([] { return g_tiny.in_ioctl3 == 1; }));
	// The sleeping handler released the BKL: another ioctl runs now.
	EXPECT_EQ(proc->ioctl(fd, 1, 1), 4);
	up(&g_ioctl_gate);
	sleeper.join();
	EXPECT_EQ(slow, 3);
	EXPECT_TRUE(g_tiny.held_bkl_in_ioctl);   // retaken after the sleep
	proc->close(fd);
}
