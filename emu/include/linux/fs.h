/*
 * fs.h - files, inodes, file operations, character devices.
 *
 * DUPLICATED from 2.6.27: struct file_operations with its full member list
 * and signatures, the FMODE_/MAY_ constants, iminor/imajor, fops_get/
 * fops_put, register_chrdev/unregister_chrdev's contract (major 0 asks for
 * a free major, searched downward from 254 as 2.6.27 does, and returns it;
 * a major already registered returns -EBUSY; unregister finds the
 * registration by major alone).
 * CUSTOMISED: struct file and struct inode carry the members a character
 * driver uses (file: f_op, f_flags, f_mode, f_pos, f_count, private_data,
 * f_path/f_dentry; inode: i_mode, i_rdev, i_bdev, i_size, i_private...);
 * the system calls that create and use them are in the process model
 * (emu/src/emu/process.hpp).  The block-device half of 2.6.27's fs.h
 * (struct block_device, struct super_block, bdget, get_super...) is in
 * linux/emu_fs_block.h, included from here.
 */
#ifndef _LINUX_FS_H
#define _LINUX_FS_H

#include <linux/types.h>
#include <linux/kdev_t.h>
#include <linux/list.h>
#include <linux/wait.h>
#include <linux/stat.h>
#include <linux/mutex.h>
#include <linux/rwsem.h>
#include <linux/time.h>
#include <linux/emu_runtime.h>
#include <asm/atomic.h>
#include <linux/emu_fs_block.h>

#define MAY_EXEC 1
#define MAY_WRITE 2
#define MAY_READ 4
#define MAY_APPEND 8
#define MAY_ACCESS 16
#define MAY_OPEN 32

#define FMODE_READ	1
#define FMODE_WRITE	2
#define FMODE_LSEEK	4
#define FMODE_PREAD	8
#define FMODE_PWRITE	FMODE_PREAD
#define FMODE_EXEC	16

#define CHRDEV_MAJOR_HASH_SIZE	255

struct poll_table_struct;
struct vm_area_struct;
struct kiocb;
struct iovec;
struct file_lock;
struct pipe_inode_info;
struct vfsmount;
struct module;
struct page;

typedef int (*filldir_t)(void *, const char *, int, loff_t, u64, unsigned);
typedef struct files_struct *fl_owner_t;

struct dentry {
	struct inode *d_inode;		/* Where the name belongs to */
	struct dentry *d_parent;	/* parent directory */
};

struct path {
	struct vfsmount *mnt;
	struct dentry *dentry;
};

struct inode {
	struct list_head	i_list;
	unsigned long		i_ino;
	atomic_t		i_count;
	unsigned int		i_nlink;
	unsigned int		i_uid;
	unsigned int		i_gid;
	dev_t			i_rdev;
	u64			i_version;
	loff_t			i_size;
	struct timespec		i_atime;
	struct timespec		i_mtime;
	struct timespec		i_ctime;
	unsigned int		i_blkbits;
	umode_t			i_mode;
	struct mutex		i_mutex;
	const struct file_operations	*i_fop;
	struct super_block	*i_sb;
	struct block_device	*i_bdev;
	unsigned long		i_state;
	unsigned int		i_flags;
	void			*i_private;	/* fs or device private pointer */
};

struct file {
	struct list_head	fu_list;
	struct path		f_path;
#define f_dentry	f_path.dentry
#define f_vfsmnt	f_path.mnt
	const struct file_operations	*f_op;
	atomic_long_t		f_count;
	unsigned int		f_flags;
	mode_t			f_mode;
	loff_t			f_pos;
	unsigned int		f_uid, f_gid;
	u64			f_version;
	/* needed for tty driver, and maybe others */
	void			*private_data;
	struct address_space	*f_mapping;
};

struct file_operations {
	struct module *owner;
	loff_t (*llseek) (struct file *, loff_t, int);
	ssize_t (*read) (struct file *, char __user *, size_t, loff_t *);
	ssize_t (*write) (struct file *, const char __user *, size_t, loff_t *);
	ssize_t (*aio_read) (struct kiocb *, const struct iovec *, unsigned long, loff_t);
	ssize_t (*aio_write) (struct kiocb *, const struct iovec *, unsigned long, loff_t);
	int (*readdir) (struct file *, void *, filldir_t);
	unsigned int (*poll) (struct file *, struct poll_table_struct *);
	int (*ioctl) (struct inode *, struct file *, unsigned int, unsigned long);
	long (*unlocked_ioctl) (struct file *, unsigned int, unsigned long);
	long (*compat_ioctl) (struct file *, unsigned int, unsigned long);
	int (*mmap) (struct file *, struct vm_area_struct *);
	int (*open) (struct inode *, struct file *);
	int (*flush) (struct file *, fl_owner_t id);
	int (*release) (struct inode *, struct file *);
	int (*fsync) (struct file *, struct dentry *, int datasync);
	int (*aio_fsync) (struct kiocb *, int datasync);
	int (*fasync) (int, struct file *, int);
	int (*lock) (struct file *, int, struct file_lock *);
	ssize_t (*sendpage) (struct file *, struct page *, int, size_t, loff_t *, int);
	unsigned long (*get_unmapped_area)(struct file *, unsigned long, unsigned long, unsigned long, unsigned long);
	int (*check_flags)(int);
	int (*dir_notify)(struct file *filp, unsigned long arg);
	int (*flock) (struct file *, int, struct file_lock *);
	ssize_t (*splice_write)(struct pipe_inode_info *, struct file *, loff_t *, size_t, unsigned int);
	ssize_t (*splice_read)(struct file *, loff_t *, struct pipe_inode_info *, size_t, unsigned int);
	int (*setlease)(struct file *, long, struct file_lock **);
};

static inline unsigned iminor(const struct inode *inode)
{
	return MINOR(inode->i_rdev);
}

static inline unsigned imajor(const struct inode *inode)
{
	return MAJOR(inode->i_rdev);
}

EMU_BEGIN_DECLS
int register_chrdev(unsigned int major, const char *name,
		    const struct file_operations *fops);
void unregister_chrdev(unsigned int major, const char *name);
int try_module_get(struct module *module);
void module_put(struct module *module);
loff_t no_llseek(struct file *file, loff_t offset, int origin);
int nonseekable_open(struct inode *inode, struct file *filp);
EMU_END_DECLS

#define fops_get(fops) \
	(((fops) && try_module_get((fops)->owner) ? (fops) : NULL))
#define fops_put(fops) \
	do { if (fops) module_put((fops)->owner); } while (0)

#endif /* _LINUX_FS_H */
