/*
 * format.h - the repository's on-disk records (docs/FORMAT.md).
 *
 * A repository is a directory holding one image file per backup
 * ("backup-NNNNNN.img") and an index ("index") that lists them.  Every
 * integer is little-endian with a fixed width; records are encoded and
 * decoded field by field, never copied as C structs, so a repository
 * written on the 32-bit target reads on a 64-bit host and back.
 */
#ifndef CVB_FORMAT_H
#define CVB_FORMAT_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define CVB_IMAGE_MAGIC		"CVLNIMG\0"
#define CVB_INDEX_MAGIC		"CVLNIDX\0"
#define CVB_FORMAT_VERSION	1u
#define CVB_HEADER_SIZE		256u
#define CVB_INDEX_HEAD_SIZE	32u
#define CVB_INDEX_ENTRY_SIZE	64u
#define CVB_KEY_SIZE		56u
/* Blocks per checksummed run of stored data. */
#define CVB_RUN_BLOCKS		256u
/* The largest block size a repository accepts (the driver's is <= 4096). */
#define CVB_MAX_BLOCK_SIZE	65536u
/* Backups in one repository (keeps the index a small file). */
#define CVB_MAX_BACKUPS		100000u

#define CVB_KIND_FULL		1u
#define CVB_KIND_INCREMENTAL	2u

#define CVB_FLAG_USED_BLOCKS	0x1u	/* full backup of allocated blocks */
#define CVB_FLAG_UNREADABLE	0x2u	/* some blocks could not be read */
#define CVB_FLAG_KEY		0x4u	/* `key` is the session's next key */
#define CVB_FLAGS_KNOWN		0x7u

/* The header of an image file (CVB_HEADER_SIZE bytes on disk). */
struct cvb_header {
	uint32_t version;
	uint32_t number;	/* 1, 2, ... within the repository */
	uint32_t kind;		/* CVB_KIND_* */
	uint32_t parent;	/* number of the parent, 0 for a full one */
	uint32_t flags;		/* CVB_FLAG_* */
	uint32_t major, minor;	/* the device at backup time */
	uint32_t block_size;
	uint32_t block_count;
	uint64_t id;		/* random, unique per image */
	uint64_t parent_id;	/* the parent's id, 0 for a full one */
	uint64_t time;		/* seconds since 1970, UTC, at the snapshot */
	uint32_t partition_kb;
	uint32_t run_blocks;	/* CVB_RUN_BLOCKS */
	uint32_t present_count;	/* blocks stored */
	uint32_t unreadable_count;
	uint64_t bitmap_offset;	/* bitmap of stored blocks */
	uint64_t data_offset;	/* the stored blocks, in block order */
	uint64_t unreadable_offset; /* bitmap of unreadable blocks */
	uint64_t sums_offset;	/* one CRC-32C per run of stored blocks */
	uint64_t file_size;
	unsigned char key[CVB_KEY_SIZE];
	uint32_t bitmap_crc;
	uint32_t unreadable_crc;
	uint32_t sums_crc;
	uint32_t frozen_us;	/* how long SNAPSHOT took, microseconds */
};

/* One entry of the index (CVB_INDEX_ENTRY_SIZE bytes on disk). */
struct cvb_entry {
	uint32_t number, kind, parent, flags;
	uint64_t id, parent_id, time;
	uint32_t block_size, block_count, present_count, unreadable_count;
	uint64_t file_size;
};

/*
 * The record of a backup that has not completed ("pending", beside the
 * index; docs/FORMAT.md).  Written before the snapshot (state INTENT: the
 * key about to be presented, and what it continues) and again right
 * after it (state SECURED: the session's new key and the change map the
 * snapshot handed over), so that a backup that dies after its snapshot
 * does not take the change map with it.  The index never lists it.
 */
#define CVB_PENDING_NAME	"pending"
#define CVB_PENDING_MAGIC	"CVLNPND\0"
#define CVB_PENDING_VERSION	1u
#define CVB_PENDING_HEAD_SIZE	128u

#define CVB_PENDING_INTENT	1u	/* a snapshot is about to be taken */
#define CVB_PENDING_SECURED	2u	/* a snapshot was taken, see map */

#define CVB_PENDING_KEY		0x1u	/* `key` is the one to present */
#define CVB_PENDING_MAP		0x2u	/* `map`: blocks changed since the
					 * parent's snapshot */
#define CVB_PENDING_FLAGS_KNOWN	0x3u

struct cvb_pending {
	uint32_t state;		/* CVB_PENDING_INTENT or _SECURED */
	uint32_t flags;		/* CVB_PENDING_* */
	uint32_t kind;		/* CVB_KIND_* of the backup that wrote it */
	uint32_t parent;	/* the complete backup it continues, 0: none */
	uint64_t parent_id;
	uint32_t major, minor;	/* the partition */
	uint32_t block_size, block_count;
	uint32_t marked;	/* blocks set in map */
	unsigned char key[CVB_KEY_SIZE];
	/* With CVB_PENDING_MAP: cvb_bitmap_bytes(block_count) bytes. */
	const unsigned char *map;
	unsigned char *raw;	/* the file as read (owns map), or NULL */
};

/* Bytes of the encoded record. */
size_t cvb_pending_size(const struct cvb_pending *p);
/* Encode into cvb_pending_size(p) bytes (checksum included). */
void cvb_pending_encode(const struct cvb_pending *p, unsigned char *out);
/*
 * Decode and check a whole record file of `len` bytes: magic, version,
 * size, checksum, and the consistency of its fields.  p->map points into
 * `in`.  Returns 0, or fills `why` (one line) and returns -1.
 */
int cvb_pending_decode(const unsigned char *in, uint64_t len,
		       struct cvb_pending *p, char *why, size_t whylen);

/* Little-endian access to byte buffers. */
void cvb_put32(unsigned char *p, uint32_t v);
void cvb_put64(unsigned char *p, uint64_t v);
uint32_t cvb_get32(const unsigned char *p);
uint64_t cvb_get64(const unsigned char *p);

/* Bytes of a bitmap of n blocks. */
uint32_t cvb_bitmap_bytes(uint32_t n);
static inline int cvb_bit(const unsigned char *map, uint32_t n)
{
	return (map[n >> 3] >> (n & 7)) & 1;
}
static inline void cvb_set_bit(unsigned char *map, uint32_t n)
{
	map[n >> 3] = (unsigned char)(map[n >> 3] | (1u << (n & 7)));
}
/* Set bits among the first n. */
uint32_t cvb_count_bits(const unsigned char *map, uint32_t n);

/* Encode a header into CVB_HEADER_SIZE bytes (header CRC included). */
void cvb_header_encode(const struct cvb_header *h, unsigned char *out);
/*
 * Decode and check a header: magic, version, CRC, and the consistency of
 * its sizes and offsets with each other and with `file_size_on_disk`.
 * Returns 0, or fills `why` (one line) and returns -1.
 */
int cvb_header_decode(const unsigned char *in, uint64_t file_size_on_disk,
		      struct cvb_header *h, char *why, size_t whylen);
/* The header of an image whose sizes are known: offsets and file size. */
void cvb_header_layout(struct cvb_header *h);

void cvb_entry_from_header(const struct cvb_header *h, struct cvb_entry *e);
void cvb_entry_encode(const struct cvb_entry *e, unsigned char *out);
void cvb_entry_decode(const unsigned char *in, struct cvb_entry *e);

/* Image file name of backup `number`: "backup-NNNNNN.img". */
void cvb_image_name(uint32_t number, char *out, size_t len);

#ifdef __cplusplus
}
#endif

#endif /* CVB_FORMAT_H */
