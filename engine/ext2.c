/*
 * ext2.c - the allocated blocks of an ext2 or ext3 file system, from its
 * super block, group descriptors and block bitmaps.
 *
 * A small reader rather than a file-system library: the engine must build
 * statically against musl for the 32-bit target with nothing but the C
 * library, and a full backup needs only these three structures.  Anything
 * it does not understand (a feature that moves or changes them, sizes that
 * do not add up) makes it answer "not recognised" and say what it found,
 * and the backup then reads every block, saying so: never fewer blocks
 * than the file system uses, never a silent change of what is read.
 *
 * The structures are read through the snapshot (READ_BLOCKS), so they are
 * those of the frozen instant; freezing an ext3 file system commits its
 * journal, so its bitmaps in place are current.
 */
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "engine.h"

#define EXT2_MAGIC			0xEF53u
/* Incompatible features we understand: file type in directory entries,
 * needs recovery (ext3; the freeze committed the journal), journal device. */
#define EXT2_INCOMPAT_KNOWN		(0x0002u | 0x0004u | 0x0008u)
/* Read-only compatible: sparse super blocks, large files, B-tree dirs. */
#define EXT2_RO_COMPAT_KNOWN		(0x0001u | 0x0002u | 0x0004u)

static uint16_t get16(const unsigned char *p)
{
	return (uint16_t)(p[0] | p[1] << 8);
}

static int nope(char *why, size_t len, const char *fmt, ...)
#ifdef __GNUC__
	__attribute__((format(printf, 3, 4)))
#endif
	;

static int nope(char *why, size_t len, const char *fmt, ...)
{
	va_list ap;

	if (why != NULL && len > 0) {
		va_start(ap, fmt);
		vsnprintf(why, len, fmt, ap);
		va_end(ap);
	}
	return 0;
}

int cvb_ext2_used_blocks(cvb_read_fn rd, void *ctx, uint32_t block_size,
			 uint32_t block_count, unsigned char *used,
			 char *why, size_t whylen)
{
	unsigned char *buf, *sb, *gdt = NULL;
	uint32_t fs_blocks, first, per_group, groups, gdt_blocks, g, i;
	uint32_t sb_block, log, incompat, ro_compat;
	int r;

	/* The super block is the 1024 bytes at byte 1024. */
	buf = cvb_malloc(block_size > 2048 ? block_size : 2048);
	if (buf == NULL)
		return -CVB_E_IO;
	sb_block = 1024 / block_size;
	r = rd(ctx, sb_block, block_size >= 2048 ? 1 : 2048 / block_size,
	       buf);
	if (r != 0) {
		free(buf);
		return -r;
	}
	sb = buf + (block_size >= 2048 ? 1024 : 0);
	if (get16(sb + 56) != EXT2_MAGIC) {
		free(buf);
		return nope(why, whylen, "no ext2/ext3 file system found (no "
			    "super block)");
	}
	log = cvb_get32(sb + 24);
	fs_blocks = cvb_get32(sb + 4);
	first = cvb_get32(sb + 20);
	per_group = cvb_get32(sb + 32);
	incompat = cvb_get32(sb + 76) >= 1 ? cvb_get32(sb + 96) : 0;
	ro_compat = cvb_get32(sb + 76) >= 1 ? cvb_get32(sb + 100) : 0;
	r = 1;
	if (log > 6 || (1024u << log) != block_size)
		r = nope(why, whylen, "the ext2/ext3 file system's block size "
			 "(%lu) is not the mounted one (%u)",
			 log > 20 ? 0ul : 1024ul << log, (unsigned)block_size);
	else if ((incompat & ~EXT2_INCOMPAT_KNOWN) != 0 ||
		 (ro_compat & ~EXT2_RO_COMPAT_KNOWN) != 0)
		r = nope(why, whylen, "the ext2/ext3 file system has features "
			 "the reader does not know (incompatible 0x%x, "
			 "read-only compatible 0x%x)",
			 (unsigned)(incompat & ~EXT2_INCOMPAT_KNOWN),
			 (unsigned)(ro_compat & ~EXT2_RO_COMPAT_KNOWN));
	else if (fs_blocks == 0 || fs_blocks > block_count ||
		 first != (block_size == 1024 ? 1u : 0u) || per_group == 0 ||
		 per_group > block_size * 8 || first >= fs_blocks)
		r = nope(why, whylen, "the ext2/ext3 file system's geometry "
			 "(%u blocks, %u per group, first data block %u) does "
			 "not fit the partition (%u blocks)",
			 (unsigned)fs_blocks, (unsigned)per_group,
			 (unsigned)first, (unsigned)block_count);
	if (r == 0) {
		free(buf);
		return 0;
	}
	groups = (fs_blocks - first + per_group - 1) / per_group;
	gdt_blocks = (uint32_t)(((uint64_t)groups * 32 + block_size - 1) /
				block_size);
	free(buf);
	buf = NULL;
	if (first + 1 + gdt_blocks > fs_blocks)
		return nope(why, whylen, "the ext2/ext3 group descriptors "
			    "(%u blocks) do not fit the file system",
			    (unsigned)gdt_blocks);
	gdt = cvb_malloc((size_t)gdt_blocks * block_size);
	buf = cvb_malloc(block_size);
	if (gdt == NULL || buf == NULL) {
		free(gdt);
		free(buf);
		return -CVB_E_IO;
	}
	r = rd(ctx, first + 1, gdt_blocks, gdt);
	for (g = 0; r == 0 && g < groups; g++) {
		uint32_t bitmap = cvb_get32(gdt + (size_t)g * 32);
		uint32_t base = first + g * per_group;
		uint32_t n = fs_blocks - base < per_group ? fs_blocks - base
							  : per_group;

		if (bitmap < first || bitmap >= fs_blocks) {
			free(gdt);
			free(buf);
			memset(used, 0, cvb_bitmap_bytes(block_count));
			return nope(why, whylen, "the ext2/ext3 block bitmap "
				    "of group %u lies outside the file system "
				    "(block %u)", (unsigned)g,
				    (unsigned)bitmap);
		}
		r = rd(ctx, bitmap, 1, buf);
		for (i = 0; r == 0 && i < n; i++)
			if (cvb_bit(buf, i))
				cvb_set_bit(used, base + i);
	}
	free(gdt);
	free(buf);
	if (r != 0) {
		memset(used, 0, cvb_bitmap_bytes(block_count));
		return -r;
	}
	/* The blocks before the first group (the boot block of a 1 KiB
	 * file system) belong to no bitmap; keep them. */
	for (i = 0; i < first; i++)
		cvb_set_bit(used, i);
	return 1;
}
