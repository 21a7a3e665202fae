/*
 * transport_real.c - the real control device: open(2), ioctl(2), mmap(2)
 * of this host, and user memory that is the program's own.
 *
 * The driver reads 32-bit user addresses out of its records, so a user
 * address here is simply a pointer of this program.  That holds only when
 * pointers fit in 32 bits, which is the case on 32-bit x86, the driver's
 * platform.  The file compiles everywhere; on a host with wider pointers
 * every operation refuses with CV_E_ADDR32 instead of handing the driver
 * truncated addresses.
 */
#define _GNU_SOURCE 1

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/types.h>
#include <unistd.h>

#include "corvalin_client.h"

int cv_real_transport_usable(void)
{
	return sizeof(void *) <= sizeof(cv_uaddr);
}

static void *real_ptr(cv_uaddr addr)
{
	return (void *)(uintptr_t)addr;
}

static int real_open(void *ctx, const char *path)
{
	int fd;

	(void)ctx;
	if (!cv_real_transport_usable())
		return CV_E_ADDR32;
	fd = open(path, O_RDWR);
	return fd >= 0 ? fd : -errno;
}

static int real_close(void *ctx, int fd)
{
	(void)ctx;
	if (!cv_real_transport_usable())
		return CV_E_ADDR32;
	return close(fd) == 0 ? 0 : -errno;
}

static long real_ioctl(void *ctx, int fd, uint32_t code, cv_uaddr arg)
{
	long r;

	(void)ctx;
	if (!cv_real_transport_usable())
		return CV_E_ADDR32;
	/* The driver's positive result codes come back unchanged. */
	r = ioctl(fd, code, (unsigned long)arg);
	return r == -1 ? -errno : r;
}

static int64_t real_mmap(void *ctx, int fd, uint32_t len, int prot,
			 int flags, uint32_t pgoff)
{
	int hprot = 0, hflags = 0;
	void *p;

	(void)ctx;
	if (!cv_real_transport_usable())
		return CV_E_ADDR32;
	if (prot & CV_PROT_READ)
		hprot |= PROT_READ;
	if (prot & CV_PROT_WRITE)
		hprot |= PROT_WRITE;
	if (flags & CV_MAP_SHARED)
		hflags |= MAP_SHARED;
	if (flags & CV_MAP_PRIVATE)
		hflags |= MAP_PRIVATE;
	p = mmap(NULL, len, hprot, hflags, fd, (off_t)pgoff * CV_PAGE_SIZE);
	if (p == MAP_FAILED)
		return -errno;
	return (int64_t)(uintptr_t)p;
}

static int real_munmap(void *ctx, cv_uaddr addr, uint32_t len)
{
	(void)ctx;
	if (!cv_real_transport_usable())
		return CV_E_ADDR32;
	return munmap(real_ptr(addr), len) == 0 ? 0 : -errno;
}

static int real_mem_alloc(void *ctx, uint32_t len, cv_uaddr *addr)
{
	void *p;

	(void)ctx;
	if (!cv_real_transport_usable())
		return CV_E_ADDR32;
	p = calloc(1, len > 0 ? len : 1);
	if (p == NULL)
		return CV_E_NOMEM;
	*addr = (cv_uaddr)(uintptr_t)p;
	return 0;
}

static int real_mem_free(void *ctx, cv_uaddr addr, uint32_t len)
{
	(void)ctx;
	(void)len;
	if (!cv_real_transport_usable())
		return CV_E_ADDR32;
	free(real_ptr(addr));
	return 0;
}

/* The program's own memory: an access it cannot make would be a crash. */
static int real_mem_read(void *ctx, cv_uaddr addr, void *dst, uint32_t len)
{
	(void)ctx;
	if (!cv_real_transport_usable())
		return CV_E_ADDR32;
	if (len > 0)
		memcpy(dst, real_ptr(addr), len);
	return 0;
}

static int real_mem_write(void *ctx, cv_uaddr addr, const void *src,
			  uint32_t len)
{
	(void)ctx;
	if (!cv_real_transport_usable())
		return CV_E_ADDR32;
	if (len > 0)
		memcpy(real_ptr(addr), src, len);
	return 0;
}

static const struct cv_transport_ops cv_real_ops = {
	real_open,
	real_close,
	real_ioctl,
	real_mmap,
	real_munmap,
	real_mem_alloc,
	real_mem_free,
	real_mem_read,
	real_mem_write,
};

static const struct cv_transport cv_real = { &cv_real_ops, NULL, "real" };

const struct cv_transport *cv_transport_real(void)
{
	return &cv_real;
}
