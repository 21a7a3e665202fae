/*
 * format.c - encoding and checking the repository's records.
 */
#include <stdio.h>
#include <string.h>

#include "crc32c.h"
#include "format.h"

void cvb_put32(unsigned char *p, uint32_t v)
{
	p[0] = (unsigned char)v;
	p[1] = (unsigned char)(v >> 8);
	p[2] = (unsigned char)(v >> 16);
	p[3] = (unsigned char)(v >> 24);
}

void cvb_put64(unsigned char *p, uint64_t v)
{
	cvb_put32(p, (uint32_t)v);
	cvb_put32(p + 4, (uint32_t)(v >> 32));
}

uint32_t cvb_get32(const unsigned char *p)
{
	return (uint32_t)p[0] | (uint32_t)p[1] << 8 | (uint32_t)p[2] << 16 |
	       (uint32_t)p[3] << 24;
}

uint64_t cvb_get64(const unsigned char *p)
{
	return (uint64_t)cvb_get32(p) | (uint64_t)cvb_get32(p + 4) << 32;
}

uint32_t cvb_bitmap_bytes(uint32_t n)
{
	return (uint32_t)(((uint64_t)n + 7) / 8);
}

uint32_t cvb_count_bits(const unsigned char *map, uint32_t n)
{
	uint32_t i, c = 0;

	for (i = 0; i < n / 8; i++) {
		unsigned v = map[i];

		while (v) {
			v &= v - 1;
			c++;
		}
	}
	for (i = n & ~7u; i < n; i++)
		c += (uint32_t)cvb_bit(map, i);
	return c;
}

/* Field offsets of the header (docs/FORMAT.md has the same table). */
enum {
	H_MAGIC = 0, H_VERSION = 8, H_SIZE = 12, H_NUMBER = 16, H_KIND = 20,
	H_PARENT = 24, H_FLAGS = 28, H_MAJOR = 32, H_MINOR = 36,
	H_BLOCK_SIZE = 40, H_BLOCK_COUNT = 44, H_ID = 48, H_PARENT_ID = 56,
	H_TIME = 64, H_PARTITION_KB = 72, H_RUN_BLOCKS = 76,
	H_PRESENT = 80, H_UNREADABLE = 84, H_BITMAP_OFF = 88,
	H_DATA_OFF = 96, H_UNREADABLE_OFF = 104, H_SUMS_OFF = 112,
	H_FILE_SIZE = 120, H_KEY = 128, H_BITMAP_CRC = 184,
	H_UNREADABLE_CRC = 188, H_SUMS_CRC = 192, H_FROZEN_US = 196,
	H_CRC = 252
};

void cvb_header_encode(const struct cvb_header *h, unsigned char *out)
{
	memset(out, 0, CVB_HEADER_SIZE);
	memcpy(out + H_MAGIC, CVB_IMAGE_MAGIC, 8);
	cvb_put32(out + H_VERSION, h->version);
	cvb_put32(out + H_SIZE, CVB_HEADER_SIZE);
	cvb_put32(out + H_NUMBER, h->number);
	cvb_put32(out + H_KIND, h->kind);
	cvb_put32(out + H_PARENT, h->parent);
	cvb_put32(out + H_FLAGS, h->flags);
	cvb_put32(out + H_MAJOR, h->major);
	cvb_put32(out + H_MINOR, h->minor);
	cvb_put32(out + H_BLOCK_SIZE, h->block_size);
	cvb_put32(out + H_BLOCK_COUNT, h->block_count);
	cvb_put64(out + H_ID, h->id);
	cvb_put64(out + H_PARENT_ID, h->parent_id);
	cvb_put64(out + H_TIME, h->time);
	cvb_put32(out + H_PARTITION_KB, h->partition_kb);
	cvb_put32(out + H_RUN_BLOCKS, h->run_blocks);
	cvb_put32(out + H_PRESENT, h->present_count);
	cvb_put32(out + H_UNREADABLE, h->unreadable_count);
	cvb_put64(out + H_BITMAP_OFF, h->bitmap_offset);
	cvb_put64(out + H_DATA_OFF, h->data_offset);
	cvb_put64(out + H_UNREADABLE_OFF, h->unreadable_offset);
	cvb_put64(out + H_SUMS_OFF, h->sums_offset);
	cvb_put64(out + H_FILE_SIZE, h->file_size);
	memcpy(out + H_KEY, h->key, CVB_KEY_SIZE);
	cvb_put32(out + H_BITMAP_CRC, h->bitmap_crc);
	cvb_put32(out + H_UNREADABLE_CRC, h->unreadable_crc);
	cvb_put32(out + H_SUMS_CRC, h->sums_crc);
	cvb_put32(out + H_FROZEN_US, h->frozen_us);
	cvb_put32(out + H_CRC, cvb_crc32c(0, out, H_CRC));
}

static uint64_t sums_count(const struct cvb_header *h)
{
	return ((uint64_t)h->present_count + h->run_blocks - 1) /
	       h->run_blocks;
}

void cvb_header_layout(struct cvb_header *h)
{
	uint64_t bm = cvb_bitmap_bytes(h->block_count);

	h->run_blocks = CVB_RUN_BLOCKS;
	h->bitmap_offset = CVB_HEADER_SIZE;
	h->data_offset = h->bitmap_offset + bm;
	h->unreadable_offset = h->data_offset +
			       (uint64_t)h->present_count * h->block_size;
	h->sums_offset = h->unreadable_offset + bm;
	h->file_size = h->sums_offset + 4 * sums_count(h);
}

static int bad(char *why, size_t len, const char *text)
{
	snprintf(why, len, "%s", text);
	return -1;
}

int cvb_header_decode(const unsigned char *in, uint64_t file_size_on_disk,
		      struct cvb_header *h, char *why, size_t whylen)
{
	struct cvb_header want;

	if (memcmp(in + H_MAGIC, CVB_IMAGE_MAGIC, 8) != 0)
		return bad(why, whylen, "not a corvalin backup image "
			   "(wrong magic)");
	h->version = cvb_get32(in + H_VERSION);
	if (h->version != CVB_FORMAT_VERSION) {
		snprintf(why, whylen, "image format version %u is not "
			 "supported (this program reads version %u)",
			 h->version, CVB_FORMAT_VERSION);
		return -1;
	}
	if (cvb_get32(in + H_CRC) != cvb_crc32c(0, in, H_CRC))
		return bad(why, whylen, "header checksum mismatch");
	if (cvb_get32(in + H_SIZE) != CVB_HEADER_SIZE)
		return bad(why, whylen, "unexpected header size");
	h->number = cvb_get32(in + H_NUMBER);
	h->kind = cvb_get32(in + H_KIND);
	h->parent = cvb_get32(in + H_PARENT);
	h->flags = cvb_get32(in + H_FLAGS);
	h->major = cvb_get32(in + H_MAJOR);
	h->minor = cvb_get32(in + H_MINOR);
	h->block_size = cvb_get32(in + H_BLOCK_SIZE);
	h->block_count = cvb_get32(in + H_BLOCK_COUNT);
	h->id = cvb_get64(in + H_ID);
	h->parent_id = cvb_get64(in + H_PARENT_ID);
	h->time = cvb_get64(in + H_TIME);
	h->partition_kb = cvb_get32(in + H_PARTITION_KB);
	h->run_blocks = cvb_get32(in + H_RUN_BLOCKS);
	h->present_count = cvb_get32(in + H_PRESENT);
	h->unreadable_count = cvb_get32(in + H_UNREADABLE);
	h->bitmap_offset = cvb_get64(in + H_BITMAP_OFF);
	h->data_offset = cvb_get64(in + H_DATA_OFF);
	h->unreadable_offset = cvb_get64(in + H_UNREADABLE_OFF);
	h->sums_offset = cvb_get64(in + H_SUMS_OFF);
	h->file_size = cvb_get64(in + H_FILE_SIZE);
	memcpy(h->key, in + H_KEY, CVB_KEY_SIZE);
	h->bitmap_crc = cvb_get32(in + H_BITMAP_CRC);
	h->unreadable_crc = cvb_get32(in + H_UNREADABLE_CRC);
	h->sums_crc = cvb_get32(in + H_SUMS_CRC);
	h->frozen_us = cvb_get32(in + H_FROZEN_US);

	if (h->number == 0 || h->number > CVB_MAX_BACKUPS)
		return bad(why, whylen, "backup number out of range");
	if (h->kind != CVB_KIND_FULL && h->kind != CVB_KIND_INCREMENTAL)
		return bad(why, whylen, "unknown backup kind");
	if ((h->kind == CVB_KIND_FULL) != (h->parent == 0) ||
	    (h->kind == CVB_KIND_FULL) != (h->parent_id == 0) ||
	    (h->parent != 0 && h->parent >= h->number))
		return bad(why, whylen, "inconsistent parent");
	if ((h->flags & ~CVB_FLAGS_KNOWN) != 0)
		return bad(why, whylen, "unknown flags");
	if (h->block_size < 512 || h->block_size > CVB_MAX_BLOCK_SIZE ||
	    (h->block_size & (h->block_size - 1)) != 0)
		return bad(why, whylen, "invalid block size");
	if (h->block_count == 0)
		return bad(why, whylen, "invalid block count");
	if (h->run_blocks != CVB_RUN_BLOCKS)
		return bad(why, whylen, "unsupported checksum run length");
	if (h->present_count > h->block_count ||
	    h->unreadable_count > h->present_count)
		return bad(why, whylen, "block counts out of range");
	/* Every offset follows from the counts: nothing else is accepted. */
	want = *h;
	cvb_header_layout(&want);
	if (want.bitmap_offset != h->bitmap_offset ||
	    want.data_offset != h->data_offset ||
	    want.unreadable_offset != h->unreadable_offset ||
	    want.sums_offset != h->sums_offset ||
	    want.file_size != h->file_size)
		return bad(why, whylen, "inconsistent layout");
	if (file_size_on_disk < h->file_size)
		return bad(why, whylen, "file is truncated");
	if (file_size_on_disk > h->file_size)
		return bad(why, whylen, "file has trailing bytes");
	return 0;
}

void cvb_entry_from_header(const struct cvb_header *h, struct cvb_entry *e)
{
	e->number = h->number;
	e->kind = h->kind;
	e->parent = h->parent;
	e->flags = h->flags;
	e->id = h->id;
	e->parent_id = h->parent_id;
	e->time = h->time;
	e->block_size = h->block_size;
	e->block_count = h->block_count;
	e->present_count = h->present_count;
	e->unreadable_count = h->unreadable_count;
	e->file_size = h->file_size;
}

void cvb_entry_encode(const struct cvb_entry *e, unsigned char *out)
{
	cvb_put32(out + 0, e->number);
	cvb_put32(out + 4, e->kind);
	cvb_put32(out + 8, e->parent);
	cvb_put32(out + 12, e->flags);
	cvb_put64(out + 16, e->id);
	cvb_put64(out + 24, e->parent_id);
	cvb_put64(out + 32, e->time);
	cvb_put32(out + 40, e->block_size);
	cvb_put32(out + 44, e->block_count);
	cvb_put32(out + 48, e->present_count);
	cvb_put32(out + 52, e->unreadable_count);
	cvb_put64(out + 56, e->file_size);
}

void cvb_entry_decode(const unsigned char *in, struct cvb_entry *e)
{
	e->number = cvb_get32(in + 0);
	e->kind = cvb_get32(in + 4);
	e->parent = cvb_get32(in + 8);
	e->flags = cvb_get32(in + 12);
	e->id = cvb_get64(in + 16);
	e->parent_id = cvb_get64(in + 24);
	e->time = cvb_get64(in + 32);
	e->block_size = cvb_get32(in + 40);
	e->block_count = cvb_get32(in + 44);
	e->present_count = cvb_get32(in + 48);
	e->unreadable_count = cvb_get32(in + 52);
	e->file_size = cvb_get64(in + 56);
}

void cvb_image_name(uint32_t number, char *out, size_t len)
{
	snprintf(out, len, "backup-%06u.img", (unsigned)number);
}

/* --- the record of a backup that has not completed ----------------------- */

/* Field offsets of the record (docs/FORMAT.md has the same table). */
enum {
	P_MAGIC = 0, P_VERSION = 8, P_SIZE = 12, P_STATE = 16, P_FLAGS = 20,
	P_KIND = 24, P_PARENT = 28, P_PARENT_ID = 32, P_MAJOR = 40,
	P_MINOR = 44, P_BLOCK_SIZE = 48, P_BLOCK_COUNT = 52, P_MARKED = 56,
	P_MAP_BYTES = 60, P_KEY = 64, P_CRC = 124
};

static uint32_t pending_map_bytes(const struct cvb_pending *p)
{
	return p->flags & CVB_PENDING_MAP ? cvb_bitmap_bytes(p->block_count)
					  : 0u;
}

size_t cvb_pending_size(const struct cvb_pending *p)
{
	return CVB_PENDING_HEAD_SIZE + (size_t)pending_map_bytes(p);
}

void cvb_pending_encode(const struct cvb_pending *p, unsigned char *out)
{
	uint32_t mb = pending_map_bytes(p), crc;

	memset(out, 0, CVB_PENDING_HEAD_SIZE);
	memcpy(out + P_MAGIC, CVB_PENDING_MAGIC, 8);
	cvb_put32(out + P_VERSION, CVB_PENDING_VERSION);
	cvb_put32(out + P_SIZE, CVB_PENDING_HEAD_SIZE);
	cvb_put32(out + P_STATE, p->state);
	cvb_put32(out + P_FLAGS, p->flags);
	cvb_put32(out + P_KIND, p->kind);
	cvb_put32(out + P_PARENT, p->parent);
	cvb_put64(out + P_PARENT_ID, p->parent_id);
	cvb_put32(out + P_MAJOR, p->major);
	cvb_put32(out + P_MINOR, p->minor);
	cvb_put32(out + P_BLOCK_SIZE, p->block_size);
	cvb_put32(out + P_BLOCK_COUNT, p->block_count);
	cvb_put32(out + P_MARKED, p->marked);
	cvb_put32(out + P_MAP_BYTES, mb);
	memcpy(out + P_KEY, p->key, CVB_KEY_SIZE);
	if (mb > 0)
		memcpy(out + CVB_PENDING_HEAD_SIZE, p->map, mb);
	crc = cvb_crc32c(0, out, P_CRC);
	crc = cvb_crc32c(crc, out + CVB_PENDING_HEAD_SIZE, mb);
	cvb_put32(out + P_CRC, crc);
}

/* What a record says must hang together; NULL when it does. */
static const char *pending_inconsistency(const struct cvb_pending *p,
					 uint32_t head_size, uint32_t mb)
{
	int key = (p->flags & CVB_PENDING_KEY) != 0;
	int map = (p->flags & CVB_PENDING_MAP) != 0;

	if (head_size != CVB_PENDING_HEAD_SIZE)
		return "unexpected header size";
	if (p->state != CVB_PENDING_INTENT && p->state != CVB_PENDING_SECURED)
		return "unknown state";
	if ((p->flags & ~CVB_PENDING_FLAGS_KNOWN) != 0)
		return "unknown flags";
	if (p->kind != CVB_KIND_FULL && p->kind != CVB_KIND_INCREMENTAL)
		return "unknown backup kind";
	if (p->block_size < 512 || p->block_size > CVB_MAX_BLOCK_SIZE ||
	    (p->block_size & (p->block_size - 1)) != 0 ||
	    p->block_count == 0)
		return "invalid geometry";
	if (mb != (map ? cvb_bitmap_bytes(p->block_count) : 0u))
		return "map size does not match the block count";
	/* A key continues a complete backup; a map needs the key. */
	if (key != (p->parent != 0) || key != (p->parent_id != 0) ||
	    (map && !key))
		return "inconsistent parent";
	if (p->state == CVB_PENDING_SECURED &&
	    (p->kind == CVB_KIND_INCREMENTAL) != (key && map))
		return "inconsistent parent";
	if (!map)
		return p->marked != 0 ? "map does not match its block count"
				      : NULL;
	if (cvb_count_bits(p->map, p->block_count) != p->marked ||
	    (p->block_count % 8 != 0 &&
	     (p->map[mb - 1] >> (p->block_count % 8)) != 0))
		return "map does not match its block count";
	return NULL;
}

int cvb_pending_decode(const unsigned char *in, uint64_t len,
		       struct cvb_pending *p, char *why, size_t whylen)
{
	uint64_t want;
	uint32_t mb, crc;
	const char *bad_field;

	memset(p, 0, sizeof(*p));
	if (len < CVB_PENDING_HEAD_SIZE) {
		snprintf(why, whylen, "it is truncated (%llu bytes)",
			 (unsigned long long)len);
		return -1;
	}
	if (memcmp(in + P_MAGIC, CVB_PENDING_MAGIC, 8) != 0)
		return bad(why, whylen, "it is not a corvalin record (wrong "
			   "magic)");
	if (cvb_get32(in + P_VERSION) != CVB_PENDING_VERSION) {
		snprintf(why, whylen, "its version %u is not supported (this "
			 "program reads version %u)",
			 (unsigned)cvb_get32(in + P_VERSION),
			 CVB_PENDING_VERSION);
		return -1;
	}
	mb = cvb_get32(in + P_MAP_BYTES);
	want = CVB_PENDING_HEAD_SIZE + (uint64_t)mb;
	if (len != want) {
		snprintf(why, whylen, len < want ? "it is truncated (%llu of "
			 "%llu bytes)" : "it has trailing bytes (%llu, not "
			 "%llu)", (unsigned long long)len,
			 (unsigned long long)want);
		return -1;
	}
	crc = cvb_crc32c(0, in, P_CRC);
	crc = cvb_crc32c(crc, in + CVB_PENDING_HEAD_SIZE, mb);
	if (crc != cvb_get32(in + P_CRC))
		return bad(why, whylen, "its checksum does not match");
	p->state = cvb_get32(in + P_STATE);
	p->flags = cvb_get32(in + P_FLAGS);
	p->kind = cvb_get32(in + P_KIND);
	p->parent = cvb_get32(in + P_PARENT);
	p->parent_id = cvb_get64(in + P_PARENT_ID);
	p->major = cvb_get32(in + P_MAJOR);
	p->minor = cvb_get32(in + P_MINOR);
	p->block_size = cvb_get32(in + P_BLOCK_SIZE);
	p->block_count = cvb_get32(in + P_BLOCK_COUNT);
	p->marked = cvb_get32(in + P_MARKED);
	memcpy(p->key, in + P_KEY, CVB_KEY_SIZE);
	p->map = mb > 0 ? in + CVB_PENDING_HEAD_SIZE : NULL;
	bad_field = pending_inconsistency(p, cvb_get32(in + P_SIZE), mb);
	if (bad_field != NULL) {
		snprintf(why, whylen, "it is inconsistent (%s)", bad_field);
		return -1;
	}
	return 0;
}
