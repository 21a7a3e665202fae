/*
 * check-stamps.c - the host's check of the chain the guest took of sde1
 * while its writer never paused (vm/guest/race.c): every image is the
 * partition as it was after one write of the writer's sequence, exactly.
 *
 *   check-stamps DISK ORIG < LINES
 *   check-stamps --forge K DISK < LINES
 *
 * DISK is sde's image file; ORIG holds sde1's contents before the guest
 * ran (what a block no write reached holds).  LINES are the guest's
 * console lines (the "BKP race " prefix removed):
 *
 *   seed SEED
 *   image K slot-sector SECTOR writes LO HI read N
 *   writes N
 *
 * The writer's write s went to block stamp_block(SEED, s) with that
 * write's stamp (vm/guest/stamp.h), one write completing before the next
 * was issued, so the partition was always state(S) for some S: per
 * block, the stamp of the last write <= S to it, else its ORIG contents.
 * For image k (slot k of DISK) let S_k be the largest write found in it;
 * the image must equal state(S_k) block by block (an older block there is
 * a write lost across a frozen instant), S_k must lie in LO..HI (writes
 * completed before the SNAPSHOT call, issued when it returned), and S_k
 * must grow from image to image.  sde1 itself, after the run, must be
 * state(writes).  Prints one line per image and per fault, and a summary;
 * exit status 0 when all holds, 1 on a fault, 2 on bad input.
 *
 * --forge K changes DISK (a copy!) the way a lost write would: one block
 * of image K that holds a write made after image K-1's instant is set back
 * to what image K-1 holds there.  The check of the result must report
 * exactly that block; vm/vmtest.sh runs both to check the check.
 */
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "guest/stamp.h"

#define BS		STAMP_BLOCK
#define BLOCKS		STAMP_PART_BLOCKS
#define PART_BYTES	((size_t)BLOCKS * BS)
#define MAX_SHOWN	20	/* fault lines per image */

struct image {
	uint32_t sector, lo, hi, read;
	uint32_t s;			/* S_k: the largest write in it */
	unsigned char *data;
};

static uint32_t seed, nwrites;
static int have_seed, have_writes, nimages;
static struct image images[GUEST_RACE_IMAGES];
static uint32_t *blk;			/* blk[s]: the block of write s */
static unsigned char *orig;

static int read_at(int fd, void *buf, size_t len, off_t off)
{
	return pread(fd, buf, len, off) == (ssize_t)len ? 0 : -1;
}

static int parse(void)
{
	char line[256];
	unsigned k, sector, lo, hi, rd, v;

	while (fgets(line, sizeof(line), stdin)) {
		if (sscanf(line, "seed %u", &v) == 1) {
			seed = v;
			have_seed = 1;
		} else if (sscanf(line, "image %u slot-sector %u writes %u %u "
				  "read %u", &k, &sector, &lo, &hi, &rd) == 5) {
			if ((int)k != nimages || nimages == GUEST_RACE_IMAGES) {
				fprintf(stderr, "check-stamps: image %u out of "
					"order\n", k);
				return -1;
			}
			if (sector != GUEST_SDE_SLOT_START +
			    k * GUEST_SDE_P1_SECTORS) {
				fprintf(stderr, "check-stamps: image %u at "
					"sector %u, not slot %u\n", k, sector,
					k);
				return -1;
			}
			images[nimages].sector = sector;
			images[nimages].lo = lo;
			images[nimages].hi = hi;
			images[nimages].read = rd;
			nimages++;
		} else if (sscanf(line, "writes %u", &v) == 1) {
			nwrites = v;
			have_writes = 1;
		} else {
			fprintf(stderr, "check-stamps: bad line: %s", line);
			return -1;
		}
	}
	if (!have_seed || !have_writes || nimages != GUEST_RACE_IMAGES) {
		fprintf(stderr, "check-stamps: need the seed, %d images and "
			"the number of writes (have %d images)\n",
			GUEST_RACE_IMAGES, nimages);
		return -1;
	}
	return 0;
}

/* The write block b of buf holds: >= 1, 0 for its ORIG contents, -1 for
 * neither. */
static long holds(const unsigned char *buf, uint32_t b)
{
	uint32_t s = stamp_of(buf, seed, b);

	if (s != 0)
		return s <= nwrites && blk[s] == b ? (long)s : -1;
	return memcmp(buf, orig + (size_t)b * BS, BS) == 0 ? 0 : -1;
}

/* state(S): last[b] = the last write <= S to block b, else 0. */
static void state(uint32_t S, uint32_t *last)
{
	uint32_t s;

	memset(last, 0, BLOCKS * sizeof(*last));
	for (s = 1; s <= S; s++)
		last[blk[s]] = s;
}

static void describe(char *buf, size_t size, long v)
{
	if (v > 0)
		snprintf(buf, size, "write %ld", v);
	else if (v == 0)
		snprintf(buf, size, "its first contents");
	else
		snprintf(buf, size, "no write's stamp");
}

/* Image data (or the partition, k = -1) against state(S); faults. */
static int compare(const char *name, const unsigned char *data, uint32_t S,
		   const uint32_t *last)
{
	char got[48], want[48];
	int faults = 0, j;
	uint32_t b;
	long v;

	for (b = 0; b < BLOCKS; b++) {
		v = holds(data + (size_t)b * BS, b);
		if (v == (long)last[b])
			continue;
		if (faults++ >= MAX_SHOWN)
			continue;
		describe(got, sizeof(got), v);
		describe(want, sizeof(want), last[b]);
		if (v >= 0 && v < (long)last[b]) {
			/* The first image whose instant came after it. */
			for (j = 0; j < nimages && images[j].s < last[b]; j++)
				;
			printf("%s block %u: holds %s, state(%u) holds %s: "
			       "an older block, write %u lost (first due in "
			       "image %d)\n", name, (unsigned)b, got,
			       (unsigned)S, want, (unsigned)last[b], j);
		} else {
			printf("%s block %u: holds %s, state(%u) holds %s\n",
			       name, (unsigned)b, got, (unsigned)S, want);
		}
	}
	if (faults > MAX_SHOWN)
		printf("%s: %d more faulty blocks not shown\n", name,
		       faults - MAX_SHOWN);
	return faults;
}

/* The largest write image data holds. */
static uint32_t largest(const unsigned char *data)
{
	uint32_t b, S = 0;
	long v;

	for (b = 0; b < BLOCKS; b++) {
		v = holds(data + (size_t)b * BS, b);
		if (v > (long)S)
			S = (uint32_t)v;
	}
	return S;
}

/* Set one block of image k back to image k-1's contents; 0 when done. */
static int forge(int fd, int k)
{
	struct image *cur = &images[k], *prev = &images[k - 1];
	uint32_t *last = malloc(BLOCKS * sizeof(*last)), s, b;
	char was[48];
	size_t off;

	if (last == NULL)
		return -1;
	state(cur->s, last);
	for (s = cur->s; s > prev->s + 1; s--) {
		b = blk[s - 1];
		if (b == blk[cur->s] || last[b] != s - 1)
			continue;
		off = (size_t)b * BS;
		if (memcmp(cur->data + off, prev->data + off, BS) == 0)
			continue;
		if (pwrite(fd, prev->data + off, BS,
			   (off_t)cur->sector * 512 + (off_t)off) != BS) {
			perror("check-stamps: writing the forged block");
			return -1;
		}
		describe(was, sizeof(was), holds(prev->data + off, b));
		printf("forged image %d block %u: write %u set back to image "
		       "%d's contents (%s)\n", k, (unsigned)b,
		       (unsigned)(s - 1), k - 1, was);
		free(last);
		return 0;
	}
	fprintf(stderr, "check-stamps: image %d has no block to forge\n", k);
	free(last);
	return -1;
}

int main(int argc, char **argv)
{
	const char *disk_path, *orig_path = NULL;
	int forge_k = -1, faults = 0, f, k, fd, grew = 0;
	unsigned char *part;
	uint32_t *last, *prev_last, s, b, changed;

	if (argc == 4 && strcmp(argv[1], "--forge") == 0) {
		forge_k = atoi(argv[2]);
		disk_path = argv[3];
	} else if (argc == 3) {
		disk_path = argv[1];
		orig_path = argv[2];
	} else {
		fprintf(stderr, "usage: check-stamps DISK ORIG < LINES\n"
			"       check-stamps --forge K DISK < LINES\n");
		return 2;
	}
	if (parse() != 0)
		return 2;
	if (forge_k >= 0 && (forge_k < 1 || forge_k >= nimages)) {
		fprintf(stderr, "check-stamps: --forge needs 1..%d\n",
			nimages - 1);
		return 2;
	}
	blk = malloc(((size_t)nwrites + 1) * sizeof(*blk));
	orig = calloc(1, PART_BYTES);
	part = malloc(PART_BYTES);
	last = malloc(BLOCKS * sizeof(*last));
	prev_last = malloc(BLOCKS * sizeof(*prev_last));
	if (!blk || !orig || !part || !last || !prev_last) {
		perror("check-stamps");
		return 2;
	}
	for (s = 1; s <= nwrites; s++)
		blk[s] = stamp_block(seed, s);
	blk[0] = BLOCKS;

	fd = open(disk_path, forge_k < 0 ? O_RDONLY : O_RDWR);
	if (fd < 0) {
		perror(disk_path);
		return 2;
	}
	if (orig_path != NULL) {
		int ofd = open(orig_path, O_RDONLY);

		if (ofd < 0 || read_at(ofd, orig, PART_BYTES, 0) != 0) {
			perror(orig_path);
			return 2;
		}
		close(ofd);
	}
	for (k = 0; k < nimages; k++) {
		images[k].data = malloc(PART_BYTES);
		if (images[k].data == NULL ||
		    read_at(fd, images[k].data, PART_BYTES,
			    (off_t)images[k].sector * 512) != 0) {
			fprintf(stderr, "check-stamps: cannot read image %d\n",
				k);
			return 2;
		}
		images[k].s = largest(images[k].data);
	}
	if (forge_k >= 0)
		return forge(fd, forge_k) == 0 ? 0 : 2;

	memset(prev_last, 0, BLOCKS * sizeof(*prev_last));
	for (k = 0; k < nimages; k++) {
		struct image *im = &images[k];
		char name[32], since[32];

		snprintf(name, sizeof(name), "image %d", k);
		state(im->s, last);
		f = compare(name, im->data, im->s, last);
		if (im->s < im->lo || im->s > im->hi) {
			printf("%s: holds writes up to %u, outside its "
			       "snapshot's window %u..%u\n", name,
			       (unsigned)im->s, (unsigned)im->lo,
			       (unsigned)im->hi);
			f++;
		}
		if (k > 0 && im->s <= images[k - 1].s) {
			printf("%s: holds writes up to %u, image %d up to "
			       "%u: no progress\n", name, (unsigned)im->s,
			       k - 1, (unsigned)images[k - 1].s);
			f++;
		} else if (k > 0) {
			grew++;
		}
		for (b = 0, changed = 0; b < BLOCKS; b++)
			changed += last[b] != prev_last[b];
		if (k == 0)
			snprintf(since, sizeof(since), "before it");
		else
			snprintf(since, sizeof(since), "since image %d", k - 1);
		printf("%s: S=%u (snapshot between writes %u and %u), %u "
		       "writes %s, %u blocks changed, %u read, %d faults\n",
		       name, (unsigned)im->s, (unsigned)im->lo,
		       (unsigned)im->hi,
		       (unsigned)(k ? im->s - images[k - 1].s : im->s), since,
		       (unsigned)changed, (unsigned)im->read, f);
		faults += f;
		memcpy(prev_last, last, BLOCKS * sizeof(*last));
	}

	/* sde1 itself after the writer stopped: state(writes). */
	if (read_at(fd, part, PART_BYTES, (off_t)GUEST_SDE_P1_START * 512)) {
		fprintf(stderr, "check-stamps: cannot read sde1\n");
		return 2;
	}
	state(nwrites, last);
	f = compare("sde1", part, nwrites, last);
	printf("sde1 after the run: state(%u) %s\n", (unsigned)nwrites,
	       f ? "NOT held" : "held");
	faults += f;
	close(fd);

	printf("check-stamps: %d images, %u writes (seed %u), S grew %d "
	       "times of %d, %d faults\n", nimages, (unsigned)nwrites,
	       (unsigned)seed, grew, nimages - 1, faults);
	return faults ? 1 : 0;
}
