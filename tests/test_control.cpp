// Module lifecycle and the control device (core/kivlib.c, kernel/shim-2.6.c):
// load and unload with their exact banners, registration failure, the
// module reference every open file holds, open/release and their result
// codes, the `busy` rule at close, and the do-nothing read/write/poll.
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "emu/emu.hpp"
#include "test_driver_util.hpp"

#include <linux/fs.h>
#include <linux/slab.h>
#include <linux/semaphore.h>
#include <linux/completion.h>
#include <asm/atomic.h>

namespace {


const std::string kLoaded =
	"<6>kivInit: corvalin version 3.1.0 build 9504 loaded";
const std::string kLoadFailed =
	"<6>kivInit: corvalin version 3.1.0 build 9504 load FAILED";
const std::string kReady =
	"<6>kivUnload: corvalin version 3.1.0 build 9504 ready to be unloaded";
const std::string kExiting =
	"<6>kivExit: corvalin version 3.1.0 build 9504 exiting";

// Module references an open file of the control device holds, as on
// 2.6.27: chrdev_open's cdev_get and fops_get each take one on the fops'
// owner, and kivOpen takes its own (kivModGet).  All three go at close.
constexpr int kRefsPerFile = 3;

// Stands for another driver that already holds major 120.
struct file_operations otherFops{};

// --------------------------------------------------------------------------
// Before and at load

TEST(ModuleState, GlobalsHoldTheirStaticValuesBeforeLoad)
{
	EXPECT_EQ(atomic_read(&initDone), 0);
	EXPECT_EQ(atomic_read(&busy), 0);
	EXPECT_EQ(atomic_read(&shutting_down), 0);
	EXPECT_EQ(atomic_read(&shutdown_ready), 0);
	EXPECT_EQ(atomic_read(&queueListUsers), 1);
	EXPECT_TRUE(list_empty(&queueListHead));
	EXPECT_EQ(atomic_read(&amListUsers), 1);
	EXPECT_EQ(atomic_read(&curAllocAMPages), 0);
	EXPECT_EQ(activeSession, nullptr);
	EXPECT_EQ(atomic_read(&backup_cacheThreadContinue), 1);
	EXPECT_FALSE(completion_done(&backup_cacheThreadStartCompleted));
	EXPECT_FALSE(completion_done(&backup_cacheThreadExited));
	EXPECT_FALSE(spin_is_locked(&busyLock));
	EXPECT_FALSE(spin_is_locked(&queueListUsersLock));
	// activeSessionUsers is an unlocked rw semaphore.
	ASSERT_TRUE(down_write_trylock(&activeSessionUsers));
	up_write(&activeSessionUsers);
	for (auto &row : amList)
		for (auto *slot : row)
			ASSERT_EQ(slot, nullptr);
}

TEST(ModuleLoad, RegistersTheDeviceAndSaysLoaded)
{
	emu::log_clear();
	ASSERT_EQ(emu::module_load(), 0);
	ExpectLog({kLoaded});
	EXPECT_TRUE(emu::module_loaded());
	EXPECT_EQ(atomic_read(&initDone), 1);
	EXPECT_EQ(emu::module_refcount(), 0);
	// signalThread was set to one free count.
	ASSERT_EQ(down_trylock(&signalThread), 0);
	EXPECT_NE(down_trylock(&signalThread), 0);
	up(&signalThread);
	// Major 120 is taken now.
	EXPECT_EQ(register_chrdev(120, "other", &otherFops), -EBUSY);
	ASSERT_EQ(emu::module_unload(), 0);
	ExpectLog({kReady, kExiting});
}

TEST(ModuleLoad, DescribesItselfInOneLine)
{
	const std::string d = emu::module_info("description");
	EXPECT_FALSE(d.empty());
	EXPECT_EQ(d.find('\n'), std::string::npos);
	EXPECT_FALSE(emu::module_info("license").empty());
}

TEST(FileOperations, TableHasOnlyTheDriverEntries)
{
	const struct file_operations &f = kivFileOps;
	EXPECT_EQ(f.read, &kivRead);
	EXPECT_EQ(f.write, &kivWrite);
	EXPECT_EQ(f.poll, &kivPoll);
	EXPECT_EQ(f.ioctl, &kivIOCTL);
	EXPECT_EQ(f.mmap, &kivMMAP);
	EXPECT_EQ(f.open, &kivOpen);
	EXPECT_EQ(f.release, &kivRelease);
	EXPECT_EQ(f.llseek, nullptr);
	EXPECT_EQ(f.aio_read, nullptr);
	EXPECT_EQ(f.aio_write, nullptr);
	EXPECT_EQ(f.readdir, nullptr);
	EXPECT_EQ(f.unlocked_ioctl, nullptr);
	EXPECT_EQ(f.compat_ioctl, nullptr);
	EXPECT_EQ(f.flush, nullptr);
	EXPECT_EQ(f.fsync, nullptr);
	EXPECT_EQ(f.aio_fsync, nullptr);
	EXPECT_EQ(f.fasync, nullptr);
	EXPECT_EQ(f.lock, nullptr);
	EXPECT_EQ(f.sendpage, nullptr);
	EXPECT_EQ(f.get_unmapped_area, nullptr);
	EXPECT_EQ(f.check_flags, nullptr);
	EXPECT_EQ(f.dir_notify, nullptr);
	EXPECT_EQ(f.flock, nullptr);
	EXPECT_EQ(f.splice_write, nullptr);
	EXPECT_EQ(f.splice_read, nullptr);
	EXPECT_EQ(f.setlease, nullptr);
	// The owner is filled in at registration, so every open pins us.
	emu::log_clear();
	ASSERT_EQ(emu::module_load(), 0);
	EXPECT_EQ(f.owner, THIS_MODULE);
	EXPECT_NE(f.owner, nullptr);
	ASSERT_EQ(emu::module_unload(), 0);
}

// --------------------------------------------------------------------------
// Registration failure: major 120 is taken

class RegistrationFailure : public ::testing::Test {
protected:
	void SetUp() override
	{
		ASSERT_EQ(register_chrdev(120, "other", &otherFops), 0);
		emu::log_clear();
	}
	void TearDown() override { unregister_chrdev(120, "other"); }
};

TEST_F(RegistrationFailure, LoadReturnsTheKernelErrorAndSaysFailed)
{
	// The failure branch also resets the session table.
	amList[3][4] = reinterpret_cast<AutoMapSession *>(0x1000);
	EXPECT_EQ(emu::module_load(), -EBUSY);
	ExpectLog({kLoadFailed});
	EXPECT_FALSE(emu::module_loaded());
	EXPECT_EQ(atomic_read(&initDone), 0);
	EXPECT_EQ(amList[3][4], nullptr);
	EXPECT_FALSE(spin_is_locked(&busyLock));
}

TEST_F(RegistrationFailure, LaterOpensFailWithNoSuchDevice)
{
	const emu::Usage base = emu::usage();
	EXPECT_EQ(emu::module_load(), -EBUSY);
	emu::log_clear();
	struct inode inode{};
	struct file file{};
	EXPECT_EQ(kivOpen(&inode, &file), -ENXIO);
	EXPECT_EQ(file.private_data, nullptr);
	EXPECT_EQ(emu::usage(), base);
	ExpectLog({});
}

TEST_F(RegistrationFailure, EveryCommandReturnsOneEvenUnknownOnes)
{
	EXPECT_EQ(emu::module_load(), -EBUSY);
	emu::log_clear();
	// A record the dispatcher must not even look at.
	Backup b{};
	struct inode inode{};
	struct file file{};
	file.private_data = &b;
	for (unsigned cmd : {KIV_IOC_GET_STATE, KIV_IOC_GET_VERSION_MAJOR,
			     KIV_IOC_COMMAND_16, KIV_IOC_UNLOAD, 0x2a0cu,
			     0x1234u, 0u})
		EXPECT_EQ(kivIOCTL(&inode, &file, cmd, 0), 1) << cmd;
	EXPECT_EQ(atomic_read(&b.ioctlCount), 0);
	ExpectLog({});
}

TEST(NotLoaded, CommandsReturnOneAndOpensFailWithNoSuchDevice)
{
	struct inode inode{};
	struct file file{};
	EXPECT_EQ(kivOpen(&inode, &file), -ENXIO);
	EXPECT_EQ(file.private_data, nullptr);
	EXPECT_EQ(kivIOCTL(&inode, &file, 0x77u, 0), 1);
	EXPECT_EQ(kivIOCTL(&inode, &file, KIV_IOC_GET_STATE, 0), 1);
}

// --------------------------------------------------------------------------
// The loaded module with a process

class ControlDevice : public support::ModuleTest {
protected:
	int open_dev() { return open_device(); }
};

TEST_F(ControlDevice, UnloadLogsReadyThenExiting)
{
	ASSERT_EQ(emu::module_unload(), 0);
	ExpectLog({kReady, kExiting});
	EXPECT_FALSE(emu::module_loaded());
	// The module's data went with it (poisoned until the next load).
	EXPECT_EQ(static_cast<unsigned>(atomic_read(&initDone)), 0x6b6b6b6bu);
	// The device is unregistered: the major is free again.
	EXPECT_EQ(register_chrdev(120, "other", &otherFops), 0);
	unregister_chrdev(120, "other");
}

TEST_F(ControlDevice, OpenAttachesAFreshIdleRecord)
{
	const emu::Usage base = emu::usage();
	int fd = open_dev();
	Backup *b = test::backup_of(*proc, fd);
	ASSERT_NE(b, nullptr);
	EXPECT_EQ(emu::usage().kmalloc_objects, base.kmalloc_objects + 1);
	EXPECT_EQ(b->state, 0u);
	EXPECT_EQ(atomic_read(&b->ioctlCount), 0);
	EXPECT_EQ(atomic_read(&b->mrInQueue), 0);
	EXPECT_EQ(b->maxVMPages, 0);
	EXPECT_EQ(b->noLoadFromAutoMap, 0);
	EXPECT_EQ(b->noStartAutoMap, 0);
	EXPECT_EQ(b->startedCacheThread, 0);
	EXPECT_EQ(b->diskInfo.kdev, 0u);
	EXPECT_EQ(b->diskInfo.bdev, nullptr);
	EXPECT_EQ(b->blockMap.map, nullptr);
	EXPECT_EQ(b->cacheMap.map, nullptr);
	EXPECT_EQ(b->blockTable, nullptr);
	EXPECT_EQ(b->mrHead, nullptr);
	EXPECT_EQ(b->mmBIORequests, nullptr);
	// bSem free with one count; writers and cacheUsers unlocked.
	ASSERT_EQ(down_trylock(&b->bSem), 0);
	EXPECT_NE(down_trylock(&b->bSem), 0);
	up(&b->bSem);
	ASSERT_TRUE(down_write_trylock(&b->writers));
	up_write(&b->writers);
	ASSERT_TRUE(down_write_trylock(&b->cacheUsers));
	up_write(&b->cacheUsers);
	EXPECT_FALSE(spin_is_locked(&b->mrLock));
	// Opening does not take the backup slot.
	EXPECT_EQ(atomic_read(&busy), 0);
	EXPECT_EQ(emu::module_refcount(), kRefsPerFile);
	EXPECT_EQ(proc->close(fd), 0);
	EXPECT_EQ(emu::module_refcount(), 0);
	EXPECT_EQ(emu::usage(), base);
	ExpectLog({});
}

TEST_F(ControlDevice, TwoProcessesBothOpen)
{
	emu::Process other;
	int a = open_dev();
	int b = other.open("/dev/corvalin");
	ASSERT_GE(b, 0);
	Backup *ra = test::backup_of(*proc, a);
	Backup *rb = test::backup_of(other, b);
	ASSERT_NE(ra, nullptr);
	ASSERT_NE(rb, nullptr);
	EXPECT_NE(ra, rb);
	EXPECT_EQ(emu::module_refcount(), 2 * kRefsPerFile);
	// And a second file of the same process gets a record of its own.
	int c = open_dev();
	EXPECT_NE(test::backup_of(*proc, c), ra);
	EXPECT_EQ(emu::module_refcount(), 3 * kRefsPerFile);
	EXPECT_EQ(other.close(b), 0);
	EXPECT_EQ(proc->close(a), 0);
	EXPECT_EQ(proc->close(c), 0);
	EXPECT_EQ(emu::module_refcount(), 0);
	ExpectLog({});
}

TEST_F(ControlDevice, OpenFilesPinTheModule)
{
	int fd = open_dev();
	EXPECT_EQ(emu::module_refcount(), kRefsPerFile);
	EXPECT_EQ(emu::module_unload(), -EWOULDBLOCK);
	EXPECT_TRUE(emu::module_loaded());
	ExpectLog({});
	// Still fully working.
	EXPECT_EQ(proc->ioctl(fd, KIV_IOC_COMMAND_16, 0), 3);
	EXPECT_EQ(proc->close(fd), 0);
	EXPECT_EQ(emu::module_refcount(), 0);
	EXPECT_EQ(emu::module_unload(), 0);
	ExpectLog({kReady, kExiting});
}

// The process cannot reach kivOpen while the module is going: 2.6.27's
// chrdev_open takes the module reference first (fops_get) and fails with
// -ENXIO.  kivOpen itself, called directly, fails with -ENODEV and frees
// its record: the kernel never releases a file whose open failed.
TEST_F(ControlDevice, OpenWhileModuleIsGoing)
{
	const emu::Usage base = emu::usage();
	emu::module_begin_removal();
	EXPECT_EQ(proc->open("/dev/corvalin"), -ENXIO);
	EXPECT_EQ(emu::usage(), base);  // the driver's open never ran

	struct inode inode{};
	struct file file{};
	EXPECT_EQ(kivOpen(&inode, &file), -ENODEV);
	EXPECT_EQ(file.private_data, nullptr);
	EXPECT_EQ(emu::usage(), base) << "the record is not left behind";
	EXPECT_EQ(emu::module_refcount(), 0);
	ExpectLog({});

	EXPECT_EQ(emu::module_unload(), 0);
	ExpectLog({kReady, kExiting});
}

TEST_F(ControlDevice, OpenWithoutMemoryFailsWithNoMemory)
{
	const emu::Usage base = emu::usage();
	struct inode inode{};
	struct file file{};
	{
		auto fail = emu::FailScope::nth(emu::Alloc::Kmalloc, 1);
		EXPECT_EQ(kivOpen(&inode, &file), -ENOMEM);
	}
	EXPECT_EQ(file.private_data, nullptr);
	EXPECT_EQ(emu::module_refcount(), 0);
	EXPECT_EQ(emu::usage(), base);
	ExpectLog({});
}

// Through the system call the failure is an ordinary error: a positive
// ->open result would be taken by 2.6.27's do_sys_open for a file pointer
// (ERR_PTR(5) is not IS_ERR) and oops the kernel, so the driver fails
// with -ENOMEM.  The process lives on and nothing is left behind.
TEST_F(ControlDevice, OpenSyscallWithoutMemoryFailsAndTheProcessLivesOn)
{
	const emu::Usage base = emu::usage();
	int r;
	{
		auto fail = emu::FailScope::nth(emu::Alloc::Kmalloc, 1);
		r = proc->open("/dev/corvalin");
	}
	EXPECT_EQ(r, -ENOMEM);
	EXPECT_FALSE(proc->killed());
	EXPECT_EQ(emu::module_refcount(), 0);
	EXPECT_EQ(emu::usage(), base);
	ExpectLog({});
	// The next open works.
	const int fd = proc->open("/dev/corvalin");
	EXPECT_GE(fd, 0);
	EXPECT_EQ(proc->close(fd), 0);
}

TEST_F(ControlDevice, ReleaseWithoutRecordReturnsTwoAndDoesNothing)
{
	int fd = open_dev();
	atomic_set(&busy, 1);
	const emu::Usage base = emu::usage();
	const int refs = emu::module_refcount();
	struct inode inode{};
	struct file file{};
	EXPECT_EQ(kivRelease(&inode, &file), 2);
	EXPECT_EQ(emu::module_refcount(), refs);
	EXPECT_EQ(atomic_read(&busy), 1);
	EXPECT_EQ(emu::usage(), base);
	ExpectLog({});
	atomic_set(&busy, 0);
	EXPECT_EQ(proc->close(fd), 0);
}

TEST_F(ControlDevice, ReleaseDetachesAndFreesTheRecord)
{
	const emu::Usage base = emu::usage();
	struct inode inode{};
	struct file file{};
	ASSERT_EQ(kivOpen(&inode, &file), 0);
	ASSERT_NE(file.private_data, nullptr);
	EXPECT_EQ(emu::module_refcount(), 1);
	EXPECT_EQ(kivRelease(&inode, &file), 0);
	EXPECT_EQ(file.private_data, nullptr);
	EXPECT_EQ(emu::module_refcount(), 0);
	EXPECT_EQ(emu::usage(), base);
	// A second release finds no record.
	EXPECT_EQ(kivRelease(&inode, &file), 2);
	EXPECT_EQ(emu::module_refcount(), 0);
	ExpectLog({});
}

// Any record's close frees the backup slot, even one that never held it.
TEST_F(ControlDevice, IdleFileCloseClearsBusy)
{
	int running = open_dev();
	atomic_set(&busy, 1);
	int idle = open_dev();
	EXPECT_EQ(proc->close(idle), 0);
	EXPECT_EQ(atomic_read(&busy), 0);
	ExpectLog({});
	EXPECT_EQ(proc->close(running), 0);
	EXPECT_EQ(atomic_read(&busy), 0);
}

// A record refused with state 12 never clears it.
TEST_F(ControlDevice, RefusedRecordCloseKeepsBusy)
{
	int fd = open_dev();
	Backup *b = test::backup_of(*proc, fd);
	ASSERT_NE(b, nullptr);
	setBackupState(b, BU_STATE_REFUSED);
	atomic_set(&busy, 1);
	EXPECT_EQ(proc->close(fd), 0);
	EXPECT_EQ(atomic_read(&busy), 1);
	// A refused record was not idle: its close reports the end.
	const auto lines = emu::log_strings();
	ASSERT_FALSE(lines.empty());
	EXPECT_EQ(lines.back(),
		  "<6>closeBackup: backup finished device major=0 minor=0");
	emu::log_clear();
	atomic_set(&busy, 0);
}

TEST_F(ControlDevice, ReadWriteAndPollDoNothing)
{
	int fd = open_dev();
	emu::uaddr buf = proc->map_anon(4096);
	std::vector<unsigned char> pattern(4096, 0xA5);
	ASSERT_TRUE(proc->poke(buf, pattern.data(), pattern.size()));
	EXPECT_EQ(proc->read(fd, buf, 100), 0);
	EXPECT_EQ(proc->write(fd, buf, 100), 0);
	EXPECT_EQ(proc->poll(fd), 0u);
	// Nothing was touched, and bad buffers make no difference.
	std::vector<unsigned char> now(4096);
	ASSERT_TRUE(proc->peek(buf, now.data(), now.size()));
	EXPECT_EQ(now, pattern);
	const emu::uaddr hole = proc->unmapped_address();
	EXPECT_EQ(proc->read(fd, hole, 4096), 0);
	EXPECT_EQ(proc->write(fd, hole, 4096), 0);
	// Commands do not count them.
	EXPECT_EQ(atomic_read(&test::backup_of(*proc, fd)->ioctlCount), 0);
	EXPECT_EQ(proc->close(fd), 0);
	ExpectLog({});
}

TEST_F(ControlDevice, UnloadCommandKeepsDeviceAndModule)
{
	int fd = open_dev();
	Backup *b = test::backup_of(*proc, fd);
	// The argument is not read: an unmapped address is fine.
	EXPECT_EQ(proc->ioctl(fd, KIV_IOC_UNLOAD, proc->unmapped_address()),
		  0);
	EXPECT_EQ(atomic_read(&b->ioctlCount), 1);
	EXPECT_EQ(b->state, 0u);
	EXPECT_TRUE(emu::module_loaded());
	EXPECT_EQ(emu::module_refcount(), kRefsPerFile);
	EXPECT_EQ(atomic_read(&initDone), 1);
	EXPECT_EQ(register_chrdev(120, "other", &otherFops), -EBUSY);
	// The device stays usable: the same file and a new one.
	EXPECT_EQ(proc->ioctl(fd, KIV_IOC_COMMAND_16, 0), 3);
	int fd2 = open_dev();
	EXPECT_EQ(proc->ioctl(fd2, KIV_IOC_UNLOAD, 0), 0);
	EXPECT_EQ(proc->close(fd2), 0);
	EXPECT_EQ(proc->close(fd), 0);
	ExpectLog({});
}

// UNLOAD ends all change tracking: every session is closed, every hooked
// queue gets its real function back, and the bitmap pages are freed; the
// device and the module stay.
TEST_F(ControlDevice, UnloadCommandClosesEveryTrackingSession)
{
	emu::Disk disk(test::disk_config(8, 0, 16, 300000, "sda"));
	ASSERT_EQ(disk.add_partition(1, 63, 100000), 0);
	ASSERT_EQ(disk.add_partition(2, 100063, 100000), 0);
	emu::FileSystem fs1(disk, 1, 4096);
	emu::FileSystem fs2(disk, 2, 1024);
	const emu::Usage base = emu::usage();

	Backup b1{}, b2{};
	ASSERT_EQ(getDiskInfo(&b1.diskInfo, disk.dev(1)), 0);
	ASSERT_EQ(getDiskInfo(&b2.diskInfo, disk.dev(2)), 0);
	b1.diskInfo.numBlocks = fs1.blocks();
	b2.diskInfo.numBlocks = fs2.blocks();
	AutoMapSession *a1 = nullptr, *a2 = nullptr;
	ASSERT_EQ(newAMS(&b1, &a1), 0);
	ASSERT_EQ(newAMS(&b2, &a2), 0);
	setAMSState(a1, AM_STATE_IN_SYNC);
	setAMSState(a2, AM_STATE_IN_SYNC);
	ASSERT_EQ(setMRF(&b1, kivAMRF), 0);
	ASSERT_EQ(setMRF(&b2, kivAMRF), 0);
	ASSERT_EQ(amList[8][1], a1);
	ASSERT_EQ(amList[8][2], a2);
	ASSERT_EQ(disk.queue()->make_request_fn, &kivAMRF);
	ASSERT_GT(atomic_read(&curAllocAMPages), 0);

	int fd = open_dev();
	EXPECT_EQ(proc->ioctl(fd, KIV_IOC_UNLOAD, 0), 0);
	EXPECT_EQ(amList[8][1], nullptr);
	EXPECT_EQ(amList[8][2], nullptr);
	EXPECT_EQ(disk.queue()->make_request_fn, emu::Disk::request_fn());
	EXPECT_TRUE(list_empty(&queueListHead));
	EXPECT_EQ(atomic_read(&curAllocAMPages), 0);
	EXPECT_TRUE(emu::module_loaded());
	EXPECT_EQ(register_chrdev(120, "other", &otherFops), -EBUSY);
	EXPECT_EQ(proc->ioctl(fd, KIV_IOC_GET_VERSION_MAJOR, 0), 7);
	ExpectLog({"<3>kivIOCTL: copy to user space failed"});
	EXPECT_EQ(proc->close(fd), 0);
	EXPECT_EQ(emu::usage(), base);
}

TEST_F(ControlDevice, ShutdownAndUnloadEntryPoints)
{
	EXPECT_EQ(kivCheckModUse(), 0);
	EXPECT_EQ(kivShutdown(), 0);
	ExpectLog({});
	EXPECT_TRUE(emu::module_loaded());
}

}  // namespace
