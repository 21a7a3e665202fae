/*
 * The block-device half of 2.6.27's <linux/fs.h>: block devices, super
 * blocks, freezing levels, and the fs.h declarations of the block layer
 * (READ/WRITE, bio_data_dir, submit_bio, bdget, get_super ...).
 *
 * It is not a header of 2.6.27: the emulated <linux/fs.h> includes it, so
 * that the block layer and the file systems of the emulation keep their
 * declarations together.  Code never includes it directly; it includes
 * <linux/fs.h>, exactly as on the real kernel.
 *
 * freeze_bdev, thaw_bdev, fsync_bdev and sync_blockdev are not here: 2.6.27
 * declares them in <linux/buffer_head.h>, and so does the emulation.
 *
 * DUPLICATED: the names, constants and function signatures below, and the
 * members of struct block_device (all of them, in 2.6.27's order) and of
 * struct super_block that a block driver or a freeze can reach (a subset, in
 * 2.6.27's order; file-system internals such as inode lists, quota and
 * export operations are left out because nothing in the emulation has
 * them).
 * CUSTOMISED: the implementations (emu/src/block_dev.cpp, emu/src/fs_super.cpp)
 * keep 2.6.27's semantics with user-space machinery: bdget() finds or makes
 * the block_device of any device number (bd_disk NULL until it is opened;
 * making one is a slab allocation, failable with emu::Alloc::Slab),
 * get_super() returns the mounted super block with s_count raised and
 * s_umount held for reading, drop_super() gives both back.  The calls that
 * may sleep are macros that hand their call site to the context checks.
 */
#ifndef _LINUX_EMU_FS_BLOCK_H
#define _LINUX_EMU_FS_BLOCK_H

#include <linux/types.h>
#include <linux/list.h>
#include <linux/wait.h>
#include <linux/mutex.h>
#include <linux/rwsem.h>
#include <linux/semaphore.h>
#include <asm/atomic.h>
#include <linux/emu_runtime.h>
#include <asm/ioctl.h>

struct inode;
struct dentry;
struct file;
struct gendisk;
struct hd_struct;
struct bio;
struct module;
struct hd_geometry;
struct backing_dev_info;
struct file_system_type;
struct super_operations;

/* Direction bits of bi_rw and of submit_bio()'s rw argument. */
#ifndef RW_MASK
#define RW_MASK		1
#define RWA_MASK	2
#define READ 0
#define WRITE 1
#define READA 2		/* read-ahead  - don't block if no resources */
#define SWRITE 3	/* for ll_rw_block() - wait for buffer lock */
#define READ_SYNC	(READ | (1 << BIO_RW_SYNC))
#define READ_META	(READ | (1 << BIO_RW_META))
#define WRITE_SYNC	(WRITE | (1 << BIO_RW_SYNC))
#define SWRITE_SYNC	(SWRITE | (1 << BIO_RW_SYNC))
#define WRITE_BARRIER	((1 << BIO_RW) | (1 << BIO_RW_BARRIER))
#endif

/* Block device ioctls (the ones the emulated block nodes answer). */
#define BLKRRPART	_IO(0x12,95)	/* re-read partition table */
#define BLKFLSBUF	_IO(0x12,97)	/* flush buffer cache */
/* _IOR(0x12,114,size_t) with i386's 4-byte size_t */
#define BLKGETSIZE64	_IOC(_IOC_READ,0x12,114,4)

#ifndef MS_RDONLY
#define MS_RDONLY	 1	/* Mount read-only */
#endif

struct block_device {
	dev_t			bd_dev;  /* not a kdev_t - it's a search key */
	struct inode *		bd_inode;	/* will die */
	int			bd_openers;
	struct mutex		bd_mutex;	/* open/close mutex */
	struct semaphore	bd_mount_sem;
	struct list_head	bd_inodes;
	void *			bd_holder;
	int			bd_holders;
	struct list_head	bd_holder_list;
	struct block_device *	bd_contains;
	unsigned		bd_block_size;
	struct hd_struct *	bd_part;
	/* number of times partitions within this device have been opened. */
	unsigned		bd_part_count;
	int			bd_invalidated;
	struct gendisk *	bd_disk;
	struct list_head	bd_list;
	struct backing_dev_info *bd_inode_backing_dev_info;
	unsigned long		bd_private;
};

struct block_device_operations {
	int (*open) (struct inode *, struct file *);
	int (*release) (struct inode *, struct file *);
	int (*ioctl) (struct inode *, struct file *, unsigned, unsigned long);
	long (*unlocked_ioctl) (struct file *, unsigned, unsigned long);
	long (*compat_ioctl) (struct file *, unsigned, unsigned long);
	int (*direct_access) (struct block_device *, sector_t,
						void **, unsigned long *);
	int (*media_changed) (struct gendisk *);
	int (*revalidate_disk) (struct gendisk *);
	int (*getgeo)(struct block_device *, struct hd_geometry *);
	struct module *owner;
};

#define S_BIAS (1<<30)

/*
 * The members of 2.6.27's super_block that the block layer, get_super()
 * and freezing use.  s_count is S_BIAS + the get_super() references while
 * the file system is mounted (2.6.27's convention); s_frozen is one of the
 * SB_* levels below.
 */
struct super_block {
	struct list_head	s_list;		/* Keep this first */
	dev_t			s_dev;		/* search index; _not_ kdev_t */
	unsigned long		s_blocksize;
	unsigned char		s_blocksize_bits;
	unsigned char		s_dirt;
	unsigned long long	s_maxbytes;	/* Max file size */
	struct file_system_type	*s_type;
	const struct super_operations	*s_op;
	unsigned long		s_flags;
	unsigned long		s_magic;
	struct dentry		*s_root;
	struct rw_semaphore	s_umount;
	struct mutex		s_lock;
	int			s_count;
	int			s_syncing;
	int			s_need_sync_fs;
	atomic_t		s_active;

	struct block_device	*s_bdev;
	struct list_head	s_instances;

	int			s_frozen;
	wait_queue_head_t	s_wait_unfrozen;

	char s_id[32];				/* Informational name */

	void			*s_fs_info;	/* Filesystem private info */
};

/*
 * Snapshotting support.
 */
enum {
	SB_UNFROZEN = 0,
	SB_FREEZE_WRITE	= 1,
	SB_FREEZE_TRANS = 2,
};

#define vfs_check_frozen(sb, level) \
	wait_event((sb)->s_wait_unfrozen, ((sb)->s_frozen < (level)))

/*
 * return READ, READA, or WRITE
 */
#define bio_rw(bio)		((bio)->bi_rw & (RW_MASK | RWA_MASK))

/*
 * return data direction, READ or WRITE
 */
#define bio_data_dir(bio)	((bio)->bi_rw & 1)

EMU_BEGIN_DECLS

void emu_submit_bio(int rw, struct bio *bio, EMU_SITE_PARAMS);

struct block_device *emu_bdget(dev_t dev, EMU_SITE_PARAMS);
extern void bdput(struct block_device *);

#define BDEVNAME_SIZE	32	/* Largest string for a blockdev identifier */
extern const char *__bdevname(dev_t, char *buffer);
extern const char *bdevname(struct block_device *bdev, char *buffer);

int emu_set_blocksize(struct block_device *bdev, int size, EMU_SITE_PARAMS);
int emu_sb_set_blocksize(struct super_block *sb, int size, EMU_SITE_PARAMS);

struct super_block *emu_get_super(struct block_device *bdev, EMU_SITE_PARAMS);
struct super_block *emu_user_get_super(dev_t dev, EMU_SITE_PARAMS);
extern void drop_super(struct super_block *sb);
void emu_lock_super(struct super_block *sb, EMU_SITE_PARAMS);
extern void unlock_super(struct super_block *);

EMU_END_DECLS

/* These may sleep: the call site goes to the context check. */
#define submit_bio(rw, bio)	emu_submit_bio((rw), (bio), EMU_SITE)
#define bdget(dev)		emu_bdget((dev), EMU_SITE)
#define set_blocksize(bdev, size) emu_set_blocksize((bdev), (size), EMU_SITE)
#define sb_set_blocksize(sb, size) emu_sb_set_blocksize((sb), (size), EMU_SITE)
#define get_super(bdev)		emu_get_super((bdev), EMU_SITE)
#define user_get_super(dev)	emu_user_get_super((dev), EMU_SITE)
#define lock_super(sb)		emu_lock_super((sb), EMU_SITE)

#endif /* _LINUX_EMU_FS_BLOCK_H */
