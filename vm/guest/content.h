/*
 * content.h - the versioned file contents of the guest's writers
 * (vm/guest/backup.c) and of the host's check of the backup images
 * (vm/check-image.c): one definition for both sides.
 *
 * A file is a run of 1 KiB chunks (the smallest block size of the boot
 * test's file systems).  Chunk c of file `id` at version v is a function
 * of (id, v, c) alone: a text header naming the three, then bytes of a
 * xorshift sequence seeded by them.  Any chunk read back therefore says
 * which file, version and place it belongs to, and a torn or misplaced
 * chunk, or one of another file, is recognised.
 *
 * C99, no library beyond <stdio.h> and <string.h>: the guest builds it
 * against musl (i386), the host with its own compiler.
 */
#ifndef CORVALIN_VM_CONTENT_H
#define CORVALIN_VM_CONTENT_H

#include <stdint.h>
#include <stdio.h>
#include <string.h>

#define CNT_CHUNK	1024u
#define CNT_HEADER	48u		/* bytes of text at a chunk's start */

/* Chunks of a writer's file: 1 to 20 KiB, by id. */
static inline unsigned cnt_chunks(unsigned id)
{
	return 1u + (id * 7u) % 20u;
}

static inline uint32_t cnt_next(uint32_t *x)
{
	*x ^= *x << 13;
	*x ^= *x >> 17;
	*x ^= *x << 5;
	return *x;
}

/* Chunk c of file id at version v, into buf (CNT_CHUNK bytes). */
static inline void cnt_fill(unsigned char *buf, unsigned id, unsigned v,
			    unsigned c)
{
	uint32_t x = (id * 0x9e3779b1u) ^ (v * 0x85ebca77u) ^
		     (c * 0xc2b2ae3du) ^ 0x2545f491u;
	char head[64];
	int n;
	unsigned i;

	if (x == 0)
		x = 1;
	/* ids, versions and chunks stay below these bounds */
	n = snprintf(head, sizeof(head), "corvalin id %05u version %06u "
		     "chunk %04u", id % 100000u, v % 1000000u, c % 10000u);
	memset(buf, ' ', CNT_HEADER);
	memcpy(buf, head, (size_t)n < CNT_HEADER ? (size_t)n : CNT_HEADER);
	buf[CNT_HEADER - 1] = '\n';
	for (i = CNT_HEADER; i < CNT_CHUNK; i += 4) {
		uint32_t r = cnt_next(&x);

		memcpy(buf + i, &r, 4);
	}
}

/*
 * The version that chunk c of file id holds, or -1 when the bytes are not
 * exactly a version of that chunk.
 */
static inline long cnt_version(const unsigned char *buf, unsigned id,
			       unsigned c)
{
	unsigned char want[CNT_CHUNK];
	char head[CNT_HEADER + 1];
	unsigned got_id, v, got_c;

	memcpy(head, buf, CNT_HEADER);
	head[CNT_HEADER] = '\0';
	if (sscanf(head, "corvalin id %5u version %6u chunk %4u",
		   &got_id, &v, &got_c) != 3 || got_id != id || got_c != c)
		return -1;
	cnt_fill(want, id, v, c);
	return memcmp(want, buf, CNT_CHUNK) == 0 ? (long)v : -1;
}

#endif /* CORVALIN_VM_CONTENT_H */
