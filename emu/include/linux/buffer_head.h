/*
 * include/linux/buffer_head.h, as 2.6.27 has it.
 *
 * Everything to do with buffer_heads, plus the declarations 2.6.27 keeps
 * here for syncing and freezing a block device (sync_blockdev, fsync_bdev,
 * freeze_bdev, thaw_bdev).
 *
 * DUPLICATED: enum bh_state_bits (2.6.27's bit numbers), struct buffer_head
 * (all members, 2.6.27's order), the BUFFER_FNS/TAS_BUFFER_FNS accessors,
 * get_bh, put_bh, trylock_buffer, lock_buffer, wait_on_buffer (might_sleep,
 * then __wait_on_buffer when locked or unreferenced), bh_offset, map_bh and
 * the signatures of the out-of-line functions.
 * CUSTOMISED (emu/src/block_bh.cpp, emu/src/fs_super.cpp):
 * alloc_buffer_head() takes the buffer head from the emulation's accounted
 * allocator (it counts in emu::usage().buffer_heads until
 * free_buffer_head(); failure injection of emu::Alloc::BufferHead makes it
 * return NULL), unlock_buffer() wakes the waiters of that buffer head
 * (2.6.27 hashes them into bit wait queues; the effect is the same),
 * __wait_on_buffer()/__lock_buffer() sleep uninterruptibly until the lock
 * bit clears.  The sync and freeze functions act on the emulated file
 * systems (emu/src/emu/block.hpp).
 */
#ifndef _LINUX_BUFFER_HEAD_H
#define _LINUX_BUFFER_HEAD_H

#include <linux/types.h>
#include <linux/kernel.h>
#include <linux/fs.h>
#include <linux/list.h>
#include <linux/mm.h>
#include <linux/wait.h>
#include <asm/atomic.h>
#include <asm/bitops.h>
#include <asm/system.h>
#include <linux/emu_runtime.h>

enum bh_state_bits {
	BH_Uptodate,	/* Contains valid data */
	BH_Dirty,	/* Is dirty */
	BH_Lock,	/* Is locked */
	BH_Req,		/* Has been submitted for I/O */
	BH_Uptodate_Lock,/* Used by the first bh in a page, to serialise
			  * IO completion of other buffers in the page
			  */

	BH_Mapped,	/* Has a disk mapping */
	BH_New,		/* Disk mapping was newly created by get_block */
	BH_Async_Read,	/* Is under end_buffer_async_read I/O */
	BH_Async_Write,	/* Is under end_buffer_async_write I/O */
	BH_Delay,	/* Buffer is not yet allocated on disk */
	BH_Boundary,	/* Block is followed by a discontiguity */
	BH_Write_EIO,	/* I/O error on write */
	BH_Ordered,	/* ordered write */
	BH_Eopnotsupp,	/* operation not supported (barrier) */
	BH_Unwritten,	/* Buffer is allocated on disk but not written */

	BH_PrivateStart,/* not a state bit, but the first bit available
			 * for private allocation by other entities
			 */
};

#define MAX_BUF_PER_PAGE (PAGE_SIZE / 512)

struct page;
struct buffer_head;
struct address_space;
struct super_block;
struct block_device;
typedef void (bh_end_io_t)(struct buffer_head *bh, int uptodate);

/*
 * Historically, a buffer_head was used to map a single block
 * within a page, and of course as the unit of I/O through the
 * filesystem and block layers.  Nowadays the basic I/O unit
 * is the bio, and buffer_heads are used for extracting block
 * mappings (via a get_block_t call), for tracking state within
 * a page (via a page_mapping) and for wrapping bio submission
 * for backward compatibility reasons (e.g. submit_bh).
 */
struct buffer_head {
	unsigned long b_state;		/* buffer state bitmap (see above) */
	struct buffer_head *b_this_page;/* circular list of page's buffers */
	struct page *b_page;		/* the page this bh is mapped to */

	sector_t b_blocknr;		/* start block number */
	size_t b_size;			/* size of mapping */
	char *b_data;			/* pointer to data within the page */

	struct block_device *b_bdev;
	bh_end_io_t *b_end_io;		/* I/O completion */
	void *b_private;		/* reserved for b_end_io */
	struct list_head b_assoc_buffers; /* associated with another mapping */
	struct address_space *b_assoc_map;	/* mapping this buffer is
						   associated with */
	atomic_t b_count;		/* users using this buffer_head */
};

/*
 * macro tricks to expand the set_buffer_foo(), clear_buffer_foo()
 * and buffer_foo() functions.
 */
#define BUFFER_FNS(bit, name)						\
static inline void set_buffer_##name(struct buffer_head *bh)		\
{									\
	set_bit(BH_##bit, &(bh)->b_state);				\
}									\
static inline void clear_buffer_##name(struct buffer_head *bh)		\
{									\
	clear_bit(BH_##bit, &(bh)->b_state);				\
}									\
static inline int buffer_##name(const struct buffer_head *bh)		\
{									\
	return test_bit(BH_##bit, &(bh)->b_state);			\
}

/*
 * test_set_buffer_foo() and test_clear_buffer_foo()
 */
#define TAS_BUFFER_FNS(bit, name)					\
static inline int test_set_buffer_##name(struct buffer_head *bh)	\
{									\
	return test_and_set_bit(BH_##bit, &(bh)->b_state);		\
}									\
static inline int test_clear_buffer_##name(struct buffer_head *bh)	\
{									\
	return test_and_clear_bit(BH_##bit, &(bh)->b_state);		\
}									\

/*
 * Emit the buffer bitops functions.   Note that there are also functions
 * of the form "mark_buffer_foo()".  These are higher-level functions which
 * do something in addition to setting a b_state bit.
 */
BUFFER_FNS(Uptodate, uptodate)
BUFFER_FNS(Dirty, dirty)
TAS_BUFFER_FNS(Dirty, dirty)
BUFFER_FNS(Lock, locked)
BUFFER_FNS(Req, req)
TAS_BUFFER_FNS(Req, req)
BUFFER_FNS(Mapped, mapped)
BUFFER_FNS(New, new)
BUFFER_FNS(Async_Read, async_read)
BUFFER_FNS(Async_Write, async_write)
BUFFER_FNS(Delay, delay)
BUFFER_FNS(Boundary, boundary)
BUFFER_FNS(Write_EIO, write_io_error)
BUFFER_FNS(Ordered, ordered)
BUFFER_FNS(Eopnotsupp, eopnotsupp)
BUFFER_FNS(Unwritten, unwritten)

#define bh_offset(bh)		((unsigned long)(bh)->b_data & ~PAGE_MASK)

EMU_BEGIN_DECLS

void init_buffer(struct buffer_head *, bh_end_io_t *, void *);
void set_bh_page(struct buffer_head *bh,
		struct page *page, unsigned long offset);
void end_buffer_read_sync(struct buffer_head *bh, int uptodate);
void end_buffer_write_sync(struct buffer_head *bh, int uptodate);

int emu_sync_blockdev(struct block_device *bdev, EMU_SITE_PARAMS);
void emu___wait_on_buffer(struct buffer_head *bh, EMU_SITE_PARAMS);
int emu_fsync_bdev(struct block_device *bdev, EMU_SITE_PARAMS);
struct super_block *emu_freeze_bdev(struct block_device *bdev,
				    EMU_SITE_PARAMS);
void thaw_bdev(struct block_device *, struct super_block *);
int emu_fsync_super(struct super_block *sb, EMU_SITE_PARAMS);
struct buffer_head *emu_alloc_buffer_head(gfp_t gfp_flags, EMU_SITE_PARAMS);
void emu_free_buffer_head(struct buffer_head *bh, EMU_SITE_PARAMS);
void unlock_buffer(struct buffer_head *bh);
void emu___lock_buffer(struct buffer_head *bh, EMU_SITE_PARAMS);
int emu_submit_bh(int rw, struct buffer_head *bh, EMU_SITE_PARAMS);

EMU_END_DECLS

/*
 * The call site goes to the accounting (alloc/free) or to the context check
 * of the calls that may sleep.
 */
#define alloc_buffer_head(gfp_flags) \
	emu_alloc_buffer_head((gfp_flags), EMU_SITE)
#define free_buffer_head(bh)	emu_free_buffer_head((bh), EMU_SITE)
#define sync_blockdev(bdev)	emu_sync_blockdev((bdev), EMU_SITE)
#define fsync_bdev(bdev)	emu_fsync_bdev((bdev), EMU_SITE)
#define fsync_super(sb)		emu_fsync_super((sb), EMU_SITE)
#define freeze_bdev(bdev)	emu_freeze_bdev((bdev), EMU_SITE)
#define __wait_on_buffer(bh)	emu___wait_on_buffer((bh), EMU_SITE)
#define __lock_buffer(bh)	emu___lock_buffer((bh), EMU_SITE)
#define submit_bh(rw, bh)	emu_submit_bh((rw), (bh), EMU_SITE)

/*
 * inline definitions
 */

static inline void get_bh(struct buffer_head *bh)
{
        atomic_inc(&bh->b_count);
}

static inline void put_bh(struct buffer_head *bh)
{
        smp_mb__before_atomic_dec();
        atomic_dec(&bh->b_count);
}

static inline void
map_bh(struct buffer_head *bh, struct super_block *sb, sector_t block)
{
	set_buffer_mapped(bh);
	bh->b_bdev = sb->s_bdev;
	bh->b_blocknr = block;
	bh->b_size = sb->s_blocksize;
}

static inline int trylock_buffer(struct buffer_head *bh)
{
	return likely(!test_and_set_bit(BH_Lock, &bh->b_state));
}

/*
 * Calling wait_on_buffer() for a zero-ref buffer is illegal, so we call into
 * __wait_on_buffer() just to trip a debug check.  Because debug code in inline
 * functions is bloaty.
 *
 * (Macros over inline functions here, so that the context check names the
 * caller's line.)
 */
static inline void emu_wait_on_buffer(struct buffer_head *bh, EMU_SITE_PARAMS)
{
	emu_might_sleep(emu_file, emu_line);
	if (buffer_locked(bh) || atomic_read(&bh->b_count) == 0)
		emu___wait_on_buffer(bh, emu_file, emu_line);
}
#define wait_on_buffer(bh)	emu_wait_on_buffer((bh), EMU_SITE)

static inline void emu_lock_buffer(struct buffer_head *bh, EMU_SITE_PARAMS)
{
	emu_might_sleep(emu_file, emu_line);
	if (!trylock_buffer(bh))
		emu___lock_buffer(bh, emu_file, emu_line);
}
#define lock_buffer(bh)		emu_lock_buffer((bh), EMU_SITE)

#endif /* _LINUX_BUFFER_HEAD_H */
