// The emulated transport: every operation is a system call or a memory
// access of one emu::Process.
#include "corvalin_emu.hpp"

#include <cerrno>

namespace corvalin {
namespace {

emu::Process &proc(void *ctx)
{
	return *static_cast<emu::Process *>(ctx);
}

// A system call in which the emulated kernel oopsed never returns to a
// real program; the process reports it with SYSCALL_KILLED.
template <class T> T syscall_result(T r)
{
	return r == emu::SYSCALL_KILLED ? T{CV_E_KILLED} : r;
}

int emu_open(void *ctx, const char *path)
{
	return syscall_result(proc(ctx).open(path));
}

int emu_close(void *ctx, int fd)
{
	return syscall_result(proc(ctx).close(fd));
}

long emu_ioctl(void *ctx, int fd, std::uint32_t code, cv_uaddr arg)
{
	return syscall_result(proc(ctx).ioctl(fd, code, arg));
}

std::int64_t emu_mmap(void *ctx, int fd, std::uint32_t len, int prot,
		      int flags, std::uint32_t pgoff)
{
	return syscall_result<std::int64_t>(
	    proc(ctx).mmap(0, len, prot, flags, fd, pgoff));
}

int emu_munmap(void *ctx, cv_uaddr addr, std::uint32_t len)
{
	return syscall_result(proc(ctx).munmap(addr, len));
}

int emu_mem_alloc(void *ctx, std::uint32_t len, cv_uaddr *addr)
{
	const emu::uaddr a = proc(ctx).map_anon(len > 0 ? len : 1);

	if (a == 0)
		return CV_E_NOMEM;
	*addr = a;
	return 0;
}

int emu_mem_free(void *ctx, cv_uaddr addr, std::uint32_t len)
{
	return proc(ctx).munmap(addr, len > 0 ? len : 1);
}

int emu_mem_read(void *ctx, cv_uaddr addr, void *dst, std::uint32_t len)
{
	return proc(ctx).peek(addr, dst, len) ? 0 : CV_E_FAULT;
}

int emu_mem_write(void *ctx, cv_uaddr addr, const void *src,
		  std::uint32_t len)
{
	return proc(ctx).poke(addr, src, len) ? 0 : CV_E_FAULT;
}

constexpr cv_transport_ops emu_ops = {
	emu_open,   emu_close,     emu_ioctl,    emu_mmap,      emu_munmap,
	emu_mem_alloc, emu_mem_free, emu_mem_read, emu_mem_write,
};

}  // namespace

EmuTransport::EmuTransport(emu::Process &process)
    : process_(process), tp_{&emu_ops, &process, "emu"}
{
}

}  // namespace corvalin
