/*
 * Generic hard disk header file, as 2.6.27 has it: disks and partitions.
 *
 * DUPLICATED: struct hd_struct and struct gendisk with the members of
 * 2.6.27 that describe the geometry and the queue (in 2.6.27's order; the
 * sysfs device, kobjects and per-cpu statistics are left out), the
 * GENHD_FL_* flags, 2.6.27's partition table layout (`part[i]` is
 * partition i + 1, NULL when absent, `minors - 1` entries), and the inline
 * helpers get_capacity, set_capacity, get_start_sect, get_part and
 * bdget_disk.
 * CUSTOMISED (emu/src/block_disk.cpp): alloc_disk, add_disk, del_gendisk,
 * put_disk, get_gendisk, add_partition and delete_partition keep a table of
 * registered disks by device number instead of kobject maps.  Disks are the
 * emulated machine's hardware: they are not counted in emu::usage().
 */
#ifndef _LINUX_GENHD_H
#define _LINUX_GENHD_H

#include <linux/types.h>
#include <linux/kdev_t.h>
#include <linux/fs.h>

struct request_queue;
struct block_device_operations;

struct hd_struct {
	sector_t start_sect;
	sector_t nr_sects;
	int policy, partno;
	unsigned long stamp;
	int in_flight;
};

#define GENHD_FL_REMOVABLE			1
#define GENHD_FL_DRIVERFS			2
#define GENHD_FL_MEDIA_CHANGE_NOTIFY		4
#define GENHD_FL_CD				8
#define GENHD_FL_UP				16
#define GENHD_FL_SUPPRESS_PARTITION_INFO	32
#define GENHD_FL_FAIL				64

struct gendisk {
	int major;			/* major number of driver */
	int first_minor;
	int minors;                     /* maximum number of minors, =1 for
                                         * disks that can't be partitioned. */
	char disk_name[32];		/* name of major driver */
	struct hd_struct **part;	/* [indexed by minor] */
	struct block_device_operations *fops;
	struct request_queue *queue;
	void *private_data;
	sector_t capacity;

	int flags;
	int policy;

	atomic_t sync_io;		/* RAID */
	unsigned long stamp;
	int in_flight;
};

static inline struct hd_struct *get_part(struct gendisk *gendiskp,
					 sector_t sector)
{
	struct hd_struct *part;
	int i;
	for (i = 0; i < gendiskp->minors - 1; i++) {
		part = gendiskp->part[i];
		if (part && part->start_sect <= sector
		    && sector < part->start_sect + part->nr_sects)
			return part;
	}
	return NULL;
}

#ifdef __cplusplus
extern "C" {
#endif

extern void add_disk(struct gendisk *disk);
extern void del_gendisk(struct gendisk *gp);
extern struct gendisk *get_gendisk(dev_t dev, int *part);

extern char *disk_name(struct gendisk *hd, int part, char *buf);

extern int add_partition(struct gendisk *, int, sector_t, sector_t, int);
extern void delete_partition(struct gendisk *, int);

extern struct gendisk *alloc_disk(int minors);
extern void put_disk(struct gendisk *disk);

#ifdef __cplusplus
}
#endif

#define ADDPART_FLAG_NONE	0
#define ADDPART_FLAG_RAID	1
#define ADDPART_FLAG_WHOLEDISK	2

static inline sector_t get_start_sect(struct block_device *bdev)
{
	return bdev->bd_contains == bdev ? 0 : bdev->bd_part->start_sect;
}
static inline sector_t get_capacity(struct gendisk *disk)
{
	return disk->capacity;
}
static inline void set_capacity(struct gendisk *disk, sector_t size)
{
	disk->capacity = size;
}

static inline struct block_device *bdget_disk(struct gendisk *disk, int index)
{
	return bdget(MKDEV(disk->major, disk->first_minor) + index);
}

#endif /* _LINUX_GENHD_H */
