// User processes of the emulated kernel.
//
// A Process has a 32-bit user address space and a file-descriptor table.
// Its system calls run the driver's file operations exactly as 2.6.27 does:
// open() finds the character device by the node's major number and calls
// fops->open; ioctl() enters fops->ioctl under the big kernel lock (which a
// sleeping task releases, as 2.6.27's schedule() does); mmap() builds a
// vm_area_struct and calls fops->mmap; touching a page of a driver mapping
// calls vm_ops->fault; munmap() and close() call vm_ops->close and
// fops->release.  System calls return what the kernel would return to user
// space (a non-negative result, or a negative errno).
//
// copy_from_user/copy_to_user/put_user inside the driver reach the address
// space of the process whose call is running (current->mm) and fail on
// unmapped or wrongly protected addresses exactly as the kernel's do.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>

struct file;

namespace emu {

using uaddr = std::uint32_t;  // a 32-bit user-space address

// Protection and flag bits, with the values of i386 Linux.
inline constexpr int PROT_NONE_ = 0, PROT_READ_ = 1, PROT_WRITE_ = 2,
		     PROT_EXEC_ = 4;
inline constexpr int MAP_SHARED_ = 1, MAP_PRIVATE_ = 2;

// Create the character-device node `path` (like mknod c major minor).
void mknod(const char *path, unsigned major, unsigned minor);
// Create the block-device node `path` (like mknod b major minor): opening
// it opens the disk or partition of that number; read, write, fsync and
// ioctl (BLKRRPART, BLKFLSBUF, BLKGETSIZE64) are 2.6.27's block device
// file operations, through the device's page cache.
void mknod_block(const char *path, unsigned major, unsigned minor);

// What a system call "returns" when the kernel oopsed inside it and the
// process was killed (it never sees a result).  2.6.27 oopses, for
// example, when a driver's open() returns a positive value: the open path
// takes it for a struct file pointer.  The oops is logged as on the real
// kernel ("<1>BUG: unable to handle kernel NULL pointer dereference at
// 00000011"), and the process exits: its mappings are removed and its files
// closed.  Every later system call of that process returns SYSCALL_KILLED.
inline constexpr int SYSCALL_KILLED = -1000000;

class Process {
public:
	Process();
	explicit Process(const char *comm);   // the task name (default "backup")
	~Process();  // removes every mapping, then closes every open file
	Process(const Process &) = delete;
	Process &operator=(const Process &) = delete;

	// --- memory of the address space --------------------------------
	// Anonymous private mapping of `len` bytes (rounded up to pages),
	// zero-filled.  Returns its address (never 0), or 0 on failure.
	uaddr map_anon(std::size_t len, int prot = PROT_READ_ | PROT_WRITE_);
	int protect(uaddr addr, std::size_t len, int prot);
	// Access as the process itself would (faults in driver pages; a
	// store to a read-only page or an access to an unmapped one fails).
	// Returns false on SIGSEGV/SIGBUS.
	bool peek(uaddr addr, void *dst, std::size_t len);
	bool poke(uaddr addr, const void *src, std::size_t len);
	// An address that is certainly not mapped in this process.
	uaddr unmapped_address() const;

	// --- system calls ------------------------------------------------
	int open(const char *path);                 // fd or -errno
	int close(int fd);                          // 0 or -errno
	long ioctl(int fd, unsigned cmd, unsigned long arg);
	long read(int fd, uaddr buf, std::size_t count);
	long write(int fd, uaddr buf, std::size_t count);
	int fsync(int fd);                          // 0 or -errno
	unsigned poll(int fd);                      // the driver's poll mask
	// mmap2: returns the mapping's address, or a negative errno (as a
	// signed value) when the driver or the checks refuse it.
	long long mmap(uaddr addr, std::size_t len, int prot, int flags, int fd,
		       unsigned long pgoff);
	int munmap(uaddr addr, std::size_t len);

	int pid() const;
	// Sends a signal to the process's system calls in progress: an
	// interruptible sleep in one of them ends (e.g. down_interruptible
	// returns -EINTR).  A pending signal is consumed when the system call
	// returns.
	void kill(int sig);
	// The kernel oopsed in one of its system calls (see SYSCALL_KILLED).
	bool killed() const;

	// --- for tests that call driver functions directly ---------------
	// Runs fn on the calling thread as inside a system call of this
	// process: `current` has its pid, name and address space, so the
	// driver's copy_from_user/copy_to_user reach this process's memory.
	void run_as(const std::function<void()> &fn);
	// The struct file behind descriptor fd (nullptr if none).
	struct ::file *file(int fd) const;

private:
	struct Impl;
	std::unique_ptr<Impl> impl_;
	friend struct ProcessAccess;
};

}  // namespace emu
