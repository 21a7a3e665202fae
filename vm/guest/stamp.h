/*
 * stamp.h - the stamped blocks of the guest's unpaused writer
 * (vm/guest/race.c) and of the host's check of its chain of images
 * (vm/check-stamps.c): one definition for both sides.
 *
 * The writer's write number s = 1, 2, 3, ... goes to block
 * stamp_block(seed, s) of sde1, a function of (seed, s) alone, so the host
 * recomputes the whole sequence from the seed the guest printed.  The
 * block's 4 KiB are one 16-byte record (magic, seed, s, block) repeated:
 * a block read back names the write it holds, and a torn, misplaced or
 * foreign block is no write's at all.  Writes with s a multiple of
 * STAMP_WHOLE_EVERY go through the whole disk at the partition's offset,
 * the others through the partition.
 *
 * C99, no library beyond <stdint.h> and <string.h>: the guest builds it
 * against musl (i386), the host with its own compiler.  Both are
 * little-endian x86, so the records are stored as native 32-bit words.
 */
#ifndef CORVALIN_VM_STAMP_H
#define CORVALIN_VM_STAMP_H

#include <stdint.h>
#include <string.h>

#include "disks.h"

#define STAMP_BLOCK		4096u
#define STAMP_MAGIC		0x6d617473u	/* "stam" */
#define STAMP_WHOLE_EVERY	3u
/* Blocks of sde1, and the first one the writer stamps (the ones before
 * hold the read-only ext2's own blocks, which it never touches). */
#define STAMP_PART_BLOCKS	(GUEST_SDE_P1_SECTORS / (STAMP_BLOCK / 512u))
#define STAMP_FIRST		GUEST_RACE_FIRST_BLOCK

static inline uint32_t stamp_mix(uint32_t x)
{
	x ^= x >> 16;
	x *= 0x85ebca6bu;
	x ^= x >> 13;
	x *= 0xc2b2ae35u;
	x ^= x >> 16;
	return x;
}

/* The block of sde1 that write s stamps. */
static inline uint32_t stamp_block(uint32_t seed, uint32_t s)
{
	uint32_t h = stamp_mix(seed ^ stamp_mix(s * 0x9e3779b1u + 0x7f4a7c15u));

	return STAMP_FIRST + h % (STAMP_PART_BLOCKS - STAMP_FIRST);
}

/* 1 when write s goes through the whole disk, 0 through the partition. */
static inline int stamp_whole_disk(uint32_t s)
{
	return s % STAMP_WHOLE_EVERY == 0;
}

/* The contents write s gives block b, into buf (STAMP_BLOCK bytes). */
static inline void stamp_fill(unsigned char *buf, uint32_t seed, uint32_t s,
			      uint32_t b)
{
	uint32_t rec[4];
	unsigned i;

	rec[0] = STAMP_MAGIC;
	rec[1] = seed;
	rec[2] = s;
	rec[3] = b;
	for (i = 0; i < STAMP_BLOCK; i += sizeof(rec))
		memcpy(buf + i, rec, sizeof(rec));
}

/*
 * The write whose stamp block b holds (>= 1), or 0 when the bytes are no
 * write's stamp of that block under this seed.
 */
static inline uint32_t stamp_of(const unsigned char *buf, uint32_t seed,
				uint32_t b)
{
	uint32_t rec[4];
	unsigned i;

	memcpy(rec, buf, sizeof(rec));
	if (rec[0] != STAMP_MAGIC || rec[1] != seed || rec[3] != b ||
	    rec[2] == 0)
		return 0;
	for (i = sizeof(rec); i < STAMP_BLOCK; i += sizeof(rec))
		if (memcmp(buf + i, rec, sizeof(rec)) != 0)
			return 0;
	return rec[2];
}

#endif /* CORVALIN_VM_STAMP_H */
