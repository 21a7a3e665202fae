/*
 * corvalin_client.h - libcorvalin, the client library of the corvalin
 * backup driver (C99 core).
 *
 * A backup program talks to the driver through the control device
 * /dev/corvalin: open, ioctl with the command codes and records of
 * <corvalin.h>, mmap of the read buffer, close.  This library wraps that in
 * one typed call per command.  Each call places its argument record (and
 * the records and buffers the argument points to) in the caller's user
 * memory, issues the ioctl, reads the answer back into the caller's host
 * record, and returns the driver's result code unchanged.
 *
 * Everything goes through a transport: a table of functions that opens the
 * device, issues ioctls, maps the device and manages user memory at 32-bit
 * user addresses.  Two transports exist:
 *   - the real device (cv_transport_real(), this file): open/ioctl/mmap on
 *     the host; user addresses are the program's own pointers, so it works
 *     only where pointers fit in 32 bits (32-bit x86, the driver's only
 *     platform).  Elsewhere it refuses with CV_E_ADDR32.
 *   - an emulated process talking to the emulated kernel (C++ only, see
 *     corvalin_emu.hpp), used by tests, tools and benchmarks.
 *
 * Results.  Every call returns an int:
 *     0                 success
 *     1 .. 12           the driver's result code (KIV_* in <corvalin.h>)
 *     -1 .. -4095       a negative errno: from the system call itself
 *                       (e.g. -ENOENT from open, -ENOTTY), or one of the
 *                       driver's negative results, which reach user space as
 *                       errno (e.g. UNLOAD's -1 arrives as -EPERM = -1)
 *     CV_E_* below that the library's own failures (see below)
 * cv_result_name() and cv_result_text() describe any of them.  Errno
 * values are Linux's (the driver's platform), whatever the host.
 *
 * Answer areas.  A call that receives an answer (a State, a BlockSize, a
 * bitmap...) takes a byte length `len` that is passed to the driver as is.
 * The library gives the driver an area of max(len, record size) bytes,
 * filled beforehand with the caller's record (zeros beyond it), and after
 * the ioctl copies the record size back into the caller's record whatever
 * the result: bytes the driver did not write keep the caller's values, so a
 * truncated answer is visible exactly as the driver produced it.
 *
 * Record placement.  Each cv_device owns CV_SCRATCH_SIZE bytes of user
 * memory, allocated at open: the argument record is placed at offset 0, an
 * inner record (the UserBlockMap of LOAD_BLOCK_MAP and GET_AUTOMAP) at
 * CV_SCRATCH_INNER, and the answer area or key at CV_SCRATCH_ANSWER when
 * it fits before the end; larger areas and bitmaps get their own user
 * memory for the duration of the call.
 *
 * Threads.  A cv_device is used by one thread at a time (its scratch memory
 * is shared by its calls).  Concurrent commands on one open file are issued
 * with cv_ioctl() and user memory of the caller's own.
 *
 * The header is C99 and C++ compatible; it builds with old compilers and
 * against musl for static i386 programs.
 */
#ifndef CORVALIN_CLIENT_H
#define CORVALIN_CLIENT_H

#include <stddef.h>
#include <stdint.h>

#include "corvalin.h"
#include "stats.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A 32-bit user-space address in the address space the transport serves. */
typedef uint32_t cv_uaddr;

#define CV_DEVICE_PATH		"/dev/corvalin"

/* Protection and mapping flags of mmap, with i386 Linux's values. */
#define CV_PROT_READ		1
#define CV_PROT_WRITE		2
#define CV_MAP_SHARED		1
#define CV_MAP_PRIVATE		2

/* Page size of the driver's platform. */
#define CV_PAGE_SIZE		4096u

/* Per-device scratch area (see "Record placement" above). */
#define CV_SCRATCH_SIZE		4096u
#define CV_SCRATCH_INNER	16u
#define CV_SCRATCH_ANSWER	64u

/*
 * The library's own failures: below every errno, so that they never collide
 * with a kernel result.
 */
#define CV_E_BASE		(-4096)
#define CV_E_ADDR32		(CV_E_BASE - 1)	/* pointers wider than 32 bits */
#define CV_E_NOMEM		(CV_E_BASE - 2)	/* user memory not available */
#define CV_E_FAULT		(CV_E_BASE - 3)	/* user memory access failed */
#define CV_E_ARG		(CV_E_BASE - 4)	/* invalid library argument */
#define CV_E_CLOSED		(CV_E_BASE - 5)	/* device handle not open */
#define CV_E_NOSYS		(CV_E_BASE - 6)	/* transport lacks the operation */
#define CV_E_KILLED		(CV_E_BASE - 7)	/* the kernel oopsed in the call */

/*
 * The transport seam.  `ctx` is the transport's own state.  Results follow
 * the rules above: open returns a file descriptor (>= 0) or a negative
 * result; ioctl returns what the system call returns (its value, or
 * -errno); mmap returns what mmap2 returns, widened to 64 bits (a mapping
 * address, or a negative errno); the others return 0 or a negative result.
 * mem_read/mem_write access user memory as the process itself would and
 * fail with CV_E_FAULT on an address it could not access.  A system call
 * in which the kernel oopsed kills the calling process: a real program
 * never returns from it; the emulated transport reports CV_E_KILLED.
 */
struct cv_transport_ops {
	int (*open)(void *ctx, const char *path);
	int (*close)(void *ctx, int fd);
	long (*ioctl)(void *ctx, int fd, uint32_t code, cv_uaddr arg);
	int64_t (*mmap)(void *ctx, int fd, uint32_t len, int prot, int flags,
			uint32_t pgoff);
	int (*munmap)(void *ctx, cv_uaddr addr, uint32_t len);
	int (*mem_alloc)(void *ctx, uint32_t len, cv_uaddr *addr);
	int (*mem_free)(void *ctx, cv_uaddr addr, uint32_t len);
	int (*mem_read)(void *ctx, cv_uaddr addr, void *dst, uint32_t len);
	int (*mem_write)(void *ctx, cv_uaddr addr, const void *src,
			 uint32_t len);
};

struct cv_transport {
	const struct cv_transport_ops *ops;
	void *ctx;
	const char *name;		/* "real", "emu" */
};

/*
 * The real device: open(2)/ioctl(2)/mmap(2) of this host; user memory is
 * malloc'ed and accessed directly.  Always returns the same transport;
 * cv_real_transport_usable() says whether it can work here (0 when
 * pointers do not fit in 32 bits; every operation then fails with
 * CV_E_ADDR32).
 */
const struct cv_transport *cv_transport_real(void);
int cv_real_transport_usable(void);

/* An open control device.  Fields are the library's; read fd if needed. */
typedef struct cv_device {
	const struct cv_transport *tp;
	int fd;				/* -1 when not open */
	cv_uaddr scratch;		/* CV_SCRATCH_SIZE bytes of user memory */
} cv_device;

/*
 * Open `path` (CV_DEVICE_PATH when NULL) through `tp`.  Returns 0 with
 * `dev` open, or the failure (dev->fd is then -1).  Opening the device does
 * not start a backup: every open file has its own idle backup record.
 */
int cv_open(cv_device *dev, const struct cv_transport *tp, const char *path);
/* Close the file (the driver ends any backup of this file); 0 or -errno.
 * Mappings of the device stay until cv_munmap. */
int cv_close(cv_device *dev);

/* --- the sixteen commands (driver result codes, see <corvalin.h>) ------ */

/* GET_BLOCK_SIZE: geometry of device major:minor into *out (area of len). */
int cv_get_block_size(cv_device *dev, uint32_t major, uint32_t minor,
		      BlockSize *out, uint32_t len);
/* START_BACKUP of device major:minor. */
int cv_start_backup(cv_device *dev, uint32_t major, uint32_t minor,
		    uint32_t totalBlocks, uint32_t maxCacheBlocks);
/* SNAPSHOT presenting `key` (an area of len bytes holding it; all zero when
 * key is NULL: no session known). */
int cv_snapshot(cv_device *dev, const AMSessionKey *key, uint32_t len);
/* GET_STATE into *out (area of len bytes). */
int cv_get_state(cv_device *dev, State *out, uint32_t len);
/* GET_AUTOMAP_STATE into *out (area of len bytes). */
int cv_get_automap_state(cv_device *dev, AutoMapState *out, uint32_t len);
/* NO_LOAD_FROM_AUTOMAP, NO_START_AUTOMAP. */
int cv_no_load_from_automap(cv_device *dev);
int cv_no_start_automap(cv_device *dev);
/* LOAD_BLOCK_MAP of a bitmap of mapLen blocks: (mapLen + 7) / 8 bytes at
 * `map`, block N at bit N % 8 of byte N / 8. */
int cv_load_block_map(cv_device *dev, const unsigned char *map,
		      uint32_t mapLen);
/* The same with a bitmap already in user memory at `map`. */
int cv_load_block_map_at(cv_device *dev, cv_uaddr map, uint32_t mapLen);
/* GET_AUTOMAP into the (mapLen + 7) / 8 bytes at `map`. */
int cv_get_automap(cv_device *dev, unsigned char *map, uint32_t mapLen);
int cv_get_automap_at(cv_device *dev, cv_uaddr map, uint32_t mapLen);
/* GET_DIRTY_BLOCK: the driver stores a block number into *blockNum. */
int cv_get_dirty_block(cv_device *dev, uint32_t *blockNum);
/* READ_BLOCKS into the read-buffer mapping at user address `data`. */
int cv_read_blocks(cv_device *dev, uint32_t startBlockNum,
		   uint32_t numBlocks, cv_uaddr data);
/* GET_VERSION_MAJOR / GET_VERSION_MINOR into *version. */
int cv_get_version_major(cv_device *dev, uint32_t *version);
int cv_get_version_minor(cv_device *dev, uint32_t *version);
/* SYNC, UNLOAD, COMMAND_16 (no argument is read). */
int cv_sync(cv_device *dev);
int cv_unload(cv_device *dev);
int cv_command_16(cv_device *dev);

/* Any code with any argument address: the system call's result. */
int cv_ioctl(cv_device *dev, uint32_t code, cv_uaddr arg);

/* --- the read buffer ---------------------------------------------------- */

/*
 * mmap `len` bytes of the device (prot/flags CV_*, offset pgoff pages).
 * Returns 0 with *addr set, a negative errno, or the driver's positive
 * refusal code: 2.6.27 hands a positive ->mmap result back as mmap's value,
 * which is then not page-aligned, so the library reports it as a result.
 */
int cv_mmap(cv_device *dev, uint32_t len, int prot, int flags,
	    uint32_t pgoff, cv_uaddr *addr);
/* The backup program's read buffer: read-only private mapping. */
int cv_map_read_buffer(cv_device *dev, uint32_t len, cv_uaddr *addr);
int cv_munmap(cv_device *dev, cv_uaddr addr, uint32_t len);

/* --- user memory of the transport's process ---------------------------- */

int cv_mem_alloc(cv_device *dev, uint32_t len, cv_uaddr *addr);
int cv_mem_free(cv_device *dev, cv_uaddr addr, uint32_t len);
int cv_mem_read(cv_device *dev, cv_uaddr addr, void *dst, uint32_t len);
int cv_mem_write(cv_device *dev, cv_uaddr addr, const void *src,
		 uint32_t len);

/* --- result codes ------------------------------------------------------- */

/* "KIV_OK", "KIV_ERR_NOMEM", "-EFAULT", "CV_E_ADDR32"...; never NULL. */
const char *cv_result_name(int result);
/* One line in English saying what the result means; never NULL. */
const char *cv_result_text(int result);

/* "idle", "started", "snapshot", ... for a BU_STATE_* value; never NULL. */
const char *cv_backup_state_name(uint32_t state);

/* Bytes of a bitmap of mapLen blocks: (mapLen + 7) / 8, without overflow. */
uint32_t cv_bitmap_bytes(uint32_t mapLen);

#ifdef __cplusplus
}
#endif

#endif /* CORVALIN_CLIENT_H */
