/*
 * client.c - libcorvalin's typed commands over a transport.
 *
 * Every command follows one pattern: lay the argument record (and what it
 * points to) out in user memory of the transport's process, issue the
 * ioctl on the device's file descriptor, read the answer back, and return
 * the system call's result unchanged.  See corvalin_client.h for the
 * placement and answer-area rules that tests rely on.
 */
#include <string.h>

#include "corvalin_client.h"

/* A user area: in the device's scratch page, or owned for one call. */
struct cv_area {
	cv_uaddr addr;
	uint32_t size;
	int owned;
};

static int cv_ready(const cv_device *dev)
{
	if (dev == NULL || dev->tp == NULL)
		return CV_E_ARG;
	if (dev->fd < 0)
		return CV_E_CLOSED;
	return 0;
}

static int area_get(cv_device *dev, uint32_t size, struct cv_area *a)
{
	a->size = size;
	if (size <= CV_SCRATCH_SIZE - CV_SCRATCH_ANSWER) {
		a->addr = dev->scratch + CV_SCRATCH_ANSWER;
		a->owned = 0;
		return 0;
	}
	a->owned = 1;
	return dev->tp->ops->mem_alloc(dev->tp->ctx, size, &a->addr);
}

static void area_put(cv_device *dev, struct cv_area *a)
{
	if (a->owned)
		(void)dev->tp->ops->mem_free(dev->tp->ctx, a->addr, a->size);
}

/* Write `len` bytes of src, or zeros when src is NULL, at addr. */
static int put_bytes(cv_device *dev, cv_uaddr addr, const void *src,
		     uint32_t len)
{
	static const unsigned char zeros[256];
	int r;

	if (src != NULL)
		return dev->tp->ops->mem_write(dev->tp->ctx, addr, src, len);
	while (len > 0) {
		uint32_t n = len < sizeof(zeros) ? len : (uint32_t)sizeof(zeros);

		r = dev->tp->ops->mem_write(dev->tp->ctx, addr, zeros, n);
		if (r != 0)
			return r;
		addr += n;
		len -= n;
	}
	return 0;
}

/* Fill an area of a->size bytes: `head` bytes of src, zeros after them. */
static int fill_area(cv_device *dev, const struct cv_area *a,
		     const void *src, uint32_t head)
{
	int r;

	if (head > a->size)
		head = a->size;
	r = put_bytes(dev, a->addr, src, head);
	if (r == 0 && a->size > head)
		r = put_bytes(dev, a->addr + head, NULL, a->size - head);
	return r;
}

/*
 * After the ioctl returned r: read the answer back from user memory.  A
 * failed read replaces a successful result; the ioctl's error wins.
 */
static int read_back(cv_device *dev, int r, cv_uaddr addr, void *dst,
		     uint32_t len)
{
	int rr = dev->tp->ops->mem_read(dev->tp->ctx, addr, dst, len);

	return rr != 0 && r >= 0 ? rr : r;
}

static int sys_ioctl(cv_device *dev, uint32_t code, cv_uaddr arg)
{
	return (int)dev->tp->ops->ioctl(dev->tp->ctx, dev->fd, code, arg);
}

/* Place the argument record at the start of the scratch page, then ioctl. */
static int arg_call(cv_device *dev, uint32_t code, const void *arg,
		    uint32_t argSize)
{
	int r = dev->tp->ops->mem_write(dev->tp->ctx, dev->scratch, arg,
					argSize);

	return r != 0 ? r : sys_ioctl(dev, code, dev->scratch);
}

/*
 * A command whose argument record points at an answer area: the record's
 * 32-bit address field sits at addrOff, the answer is a host record of
 * recSize bytes, and the driver is told the area is `len` bytes.
 */
static int answer_call(cv_device *dev, uint32_t code, void *arg,
		       uint32_t argSize, size_t addrOff, void *rec,
		       uint32_t recSize, uint32_t len)
{
	struct cv_area a;
	kiv_u32 where;
	int r;

	r = area_get(dev, len > recSize ? len : recSize, &a);
	if (r != 0)
		return r;
	r = fill_area(dev, &a, rec, recSize);
	if (r == 0) {
		where = a.addr;
		memcpy((char *)arg + addrOff, &where, sizeof(where));
		r = arg_call(dev, code, arg, argSize);
		r = read_back(dev, r, a.addr, rec, recSize);
	}
	area_put(dev, &a);
	return r;
}

int cv_open(cv_device *dev, const struct cv_transport *tp, const char *path)
{
	int fd, r;

	if (dev == NULL)
		return CV_E_ARG;
	dev->tp = tp;
	dev->fd = -1;
	dev->scratch = 0;
	if (tp == NULL || tp->ops == NULL)
		return CV_E_ARG;
	fd = tp->ops->open(tp->ctx, path != NULL ? path : CV_DEVICE_PATH);
	if (fd < 0)
		return fd;
	r = tp->ops->mem_alloc(tp->ctx, CV_SCRATCH_SIZE, &dev->scratch);
	if (r != 0) {
		(void)tp->ops->close(tp->ctx, fd);
		dev->scratch = 0;
		return r;
	}
	dev->fd = fd;
	return 0;
}

int cv_close(cv_device *dev)
{
	int r = cv_ready(dev);

	if (r != 0)
		return r;
	r = dev->tp->ops->close(dev->tp->ctx, dev->fd);
	(void)dev->tp->ops->mem_free(dev->tp->ctx, dev->scratch,
				     CV_SCRATCH_SIZE);
	dev->fd = -1;
	dev->scratch = 0;
	return r;
}

int cv_get_block_size(cv_device *dev, uint32_t major, uint32_t minor,
		      BlockSize *out, uint32_t len)
{
	GetBlockSize g;
	int r = cv_ready(dev);

	if (r != 0)
		return r;
	if (out == NULL)
		return CV_E_ARG;
	g.major = major;
	g.minor = minor;
	g.bs = 0;
	g.len = len;
	return answer_call(dev, KIV_IOC_GET_BLOCK_SIZE, &g, sizeof(g),
			   offsetof(GetBlockSize, bs), out, sizeof(*out), len);
}

int cv_start_backup(cv_device *dev, uint32_t major, uint32_t minor,
		    uint32_t totalBlocks, uint32_t maxCacheBlocks)
{
	StartBackup s;
	int r = cv_ready(dev);

	if (r != 0)
		return r;
	s.major = major;
	s.minor = minor;
	s.totalBlocks = totalBlocks;
	s.maxCacheBlocks = maxCacheBlocks;
	return arg_call(dev, KIV_IOC_START_BACKUP, &s, sizeof(s));
}

int cv_snapshot(cv_device *dev, const AMSessionKey *key, uint32_t len)
{
	SnapShot s;
	struct cv_area a;
	int r = cv_ready(dev);

	if (r != 0)
		return r;
	r = area_get(dev, len > sizeof(*key) ? len : (uint32_t)sizeof(*key),
		     &a);
	if (r != 0)
		return r;
	r = fill_area(dev, &a, key, key != NULL ? sizeof(*key) : 0);
	if (r == 0) {
		s.amsKey = a.addr;
		s.len = len;
		r = arg_call(dev, KIV_IOC_SNAPSHOT, &s, sizeof(s));
	}
	area_put(dev, &a);
	return r;
}

int cv_get_state(cv_device *dev, State *out, uint32_t len)
{
	GetState g;
	int r = cv_ready(dev);

	if (r != 0)
		return r;
	if (out == NULL)
		return CV_E_ARG;
	g.s = 0;
	g.len = len;
	return answer_call(dev, KIV_IOC_GET_STATE, &g, sizeof(g),
			   offsetof(GetState, s), out, sizeof(*out), len);
}

int cv_get_automap_state(cv_device *dev, AutoMapState *out, uint32_t len)
{
	GetAutoMapState g;
	int r = cv_ready(dev);

	if (r != 0)
		return r;
	if (out == NULL)
		return CV_E_ARG;
	g.ams = 0;
	g.len = len;
	return answer_call(dev, KIV_IOC_GET_AUTOMAP_STATE, &g, sizeof(g),
			   offsetof(GetAutoMapState, ams), out, sizeof(*out),
			   len);
}

int cv_no_load_from_automap(cv_device *dev)
{
	return cv_ioctl(dev, KIV_IOC_NO_LOAD_FROM_AUTOMAP, 0);
}

int cv_no_start_automap(cv_device *dev)
{
	return cv_ioctl(dev, KIV_IOC_NO_START_AUTOMAP, 0);
}

uint32_t cv_bitmap_bytes(uint32_t mapLen)
{
	return (uint32_t)(((uint64_t)mapLen + 7) / 8);
}

/* LOAD_BLOCK_MAP and GET_AUTOMAP: outer record -> UserBlockMap -> bits. */
static int map_call(cv_device *dev, uint32_t code, cv_uaddr map,
		    uint32_t mapLen)
{
	UserBlockMap u;
	LoadBlockMap outer;	/* same layout as GetAutoMap */
	int r;

	u.map = map;
	u.mapLen = mapLen;
	r = dev->tp->ops->mem_write(dev->tp->ctx,
				    dev->scratch + CV_SCRATCH_INNER, &u,
				    sizeof(u));
	if (r != 0)
		return r;
	outer.bm = dev->scratch + CV_SCRATCH_INNER;
	outer.len = sizeof(u);
	return arg_call(dev, code, &outer, sizeof(outer));
}

int cv_load_block_map_at(cv_device *dev, cv_uaddr map, uint32_t mapLen)
{
	int r = cv_ready(dev);

	return r != 0 ? r : map_call(dev, KIV_IOC_LOAD_BLOCK_MAP, map, mapLen);
}

int cv_get_automap_at(cv_device *dev, cv_uaddr map, uint32_t mapLen)
{
	int r = cv_ready(dev);

	return r != 0 ? r : map_call(dev, KIV_IOC_GET_AUTOMAP, map, mapLen);
}

/* Bitmaps always get user memory of their own (at least one byte). */
static int bitmap_call(cv_device *dev, uint32_t code, unsigned char *map,
		       uint32_t mapLen, int readBack)
{
	struct cv_area a;
	uint32_t bytes = cv_bitmap_bytes(mapLen);
	int r = cv_ready(dev);

	if (r != 0)
		return r;
	if (map == NULL && bytes > 0)
		return CV_E_ARG;
	a.owned = 1;
	a.size = bytes > 0 ? bytes : 1;
	r = dev->tp->ops->mem_alloc(dev->tp->ctx, a.size, &a.addr);
	if (r != 0)
		return r;
	r = put_bytes(dev, a.addr, map, bytes);
	if (r == 0) {
		r = map_call(dev, code, a.addr, mapLen);
		if (readBack && bytes > 0)
			r = read_back(dev, r, a.addr, map, bytes);
	}
	area_put(dev, &a);
	return r;
}

int cv_load_block_map(cv_device *dev, const unsigned char *map,
		      uint32_t mapLen)
{
	/* Not read back: the cast only lets both directions share the path. */
	return bitmap_call(dev, KIV_IOC_LOAD_BLOCK_MAP, (unsigned char *)map,
			   mapLen, 0);
}

int cv_get_automap(cv_device *dev, unsigned char *map, uint32_t mapLen)
{
	return bitmap_call(dev, KIV_IOC_GET_AUTOMAP, map, mapLen, 1);
}

int cv_get_dirty_block(cv_device *dev, uint32_t *blockNum)
{
	DirtyBlock d;
	int r = cv_ready(dev);

	if (r != 0)
		return r;
	if (blockNum == NULL)
		return CV_E_ARG;
	d.blockNum = 0;
	return answer_call(dev, KIV_IOC_GET_DIRTY_BLOCK, &d, sizeof(d),
			   offsetof(DirtyBlock, blockNum), blockNum,
			   sizeof(*blockNum), sizeof(*blockNum));
}

int cv_read_blocks(cv_device *dev, uint32_t startBlockNum,
		   uint32_t numBlocks, cv_uaddr data)
{
	ReadBlocks rb;
	int r = cv_ready(dev);

	if (r != 0)
		return r;
	rb.startBlockNum = startBlockNum;
	rb.numBlocks = numBlocks;
	rb.data = data;
	return arg_call(dev, KIV_IOC_READ_BLOCKS, &rb, sizeof(rb));
}

/* The version commands take the address of the answer itself. */
static int version_call(cv_device *dev, uint32_t code, uint32_t *version)
{
	cv_uaddr at;
	int r = cv_ready(dev);

	if (r != 0)
		return r;
	if (version == NULL)
		return CV_E_ARG;
	at = dev->scratch + CV_SCRATCH_ANSWER;
	r = dev->tp->ops->mem_write(dev->tp->ctx, at, version,
				    sizeof(*version));
	if (r != 0)
		return r;
	r = sys_ioctl(dev, code, at);
	return read_back(dev, r, at, version, sizeof(*version));
}

int cv_get_version_major(cv_device *dev, uint32_t *version)
{
	return version_call(dev, KIV_IOC_GET_VERSION_MAJOR, version);
}

int cv_get_version_minor(cv_device *dev, uint32_t *version)
{
	return version_call(dev, KIV_IOC_GET_VERSION_MINOR, version);
}

/* Commands whose 4-byte argument is declared but never read. */
static int plain_call(cv_device *dev, uint32_t code)
{
	int r = cv_ready(dev);

	return r != 0 ? r : sys_ioctl(dev, code, dev->scratch);
}

int cv_sync(cv_device *dev)
{
	return plain_call(dev, KIV_IOC_SYNC);
}

int cv_unload(cv_device *dev)
{
	return plain_call(dev, KIV_IOC_UNLOAD);
}

int cv_command_16(cv_device *dev)
{
	return plain_call(dev, KIV_IOC_COMMAND_16);
}

int cv_ioctl(cv_device *dev, uint32_t code, cv_uaddr arg)
{
	int r = cv_ready(dev);

	return r != 0 ? r : sys_ioctl(dev, code, arg);
}

int cv_mmap(cv_device *dev, uint32_t len, int prot, int flags,
	    uint32_t pgoff, cv_uaddr *addr)
{
	int64_t v;
	int r = cv_ready(dev);

	if (r != 0)
		return r;
	if (addr == NULL)
		return CV_E_ARG;
	v = dev->tp->ops->mmap(dev->tp->ctx, dev->fd, len, prot, flags,
			       pgoff);
	if (v < 0)
		return (int)v;
	/*
	 * A real mapping is page-aligned; a small unaligned value is the
	 * driver's ->mmap result, which the kernel returned as the address.
	 */
	if ((v & (CV_PAGE_SIZE - 1)) != 0)
		return v < (int64_t)CV_PAGE_SIZE ? (int)v : CV_E_FAULT;
	*addr = (cv_uaddr)v;
	return 0;
}

int cv_map_read_buffer(cv_device *dev, uint32_t len, cv_uaddr *addr)
{
	return cv_mmap(dev, len, CV_PROT_READ, CV_MAP_PRIVATE, 0, addr);
}

int cv_munmap(cv_device *dev, cv_uaddr addr, uint32_t len)
{
	if (dev == NULL || dev->tp == NULL)
		return CV_E_ARG;
	return dev->tp->ops->munmap(dev->tp->ctx, addr, len);
}

int cv_mem_alloc(cv_device *dev, uint32_t len, cv_uaddr *addr)
{
	if (dev == NULL || dev->tp == NULL || addr == NULL)
		return CV_E_ARG;
	return dev->tp->ops->mem_alloc(dev->tp->ctx, len, addr);
}

int cv_mem_free(cv_device *dev, cv_uaddr addr, uint32_t len)
{
	if (dev == NULL || dev->tp == NULL)
		return CV_E_ARG;
	return dev->tp->ops->mem_free(dev->tp->ctx, addr, len);
}

int cv_mem_read(cv_device *dev, cv_uaddr addr, void *dst, uint32_t len)
{
	if (dev == NULL || dev->tp == NULL || (dst == NULL && len > 0))
		return CV_E_ARG;
	return dev->tp->ops->mem_read(dev->tp->ctx, addr, dst, len);
}

int cv_mem_write(cv_device *dev, cv_uaddr addr, const void *src,
		 uint32_t len)
{
	if (dev == NULL || dev->tp == NULL || (src == NULL && len > 0))
		return CV_E_ARG;
	return dev->tp->ops->mem_write(dev->tp->ctx, addr, src, len);
}
