/*
 * race.c - a chain of backups of sde1 on the real kernel while a writer
 * that no freeze stops writes to it without ever pausing.
 *
 * The writer (a child process, one thread) writes 4 KiB stamped blocks
 * with O_DIRECT, one write after the other, each complete before the next
 * is issued: write s = 1, 2, 3, ... goes to block stamp_block(seed, s) and
 * holds the stamp of (seed, s, block) (vm/guest/stamp.h), through /dev/sde1
 * or, every STAMP_WHOLE_EVERY-th write, through the whole disk /dev/sde at
 * the partition's offset.  Both are writes that the SNAPSHOT's freeze does
 * not hold back: the partition's file system is mounted read-only (the
 * driver backs up only a partition with a mounted file system) and never
 * writes itself.  At any instant sde1 is therefore exactly state(S) for
 * the last completed write S: per block, the stamp of the last write <= S
 * to it, else its contents before the writer began.
 *
 * While the writer runs, backups of sde1 through the driver's commands,
 * each on a fresh open of /dev/corvalin as a backup program runs them:
 *   0. a full one: START_BACKUP, GET_AUTOMAP_STATE (no session: the disk
 *      was never tracked), SNAPSHOT without a key (change tracking starts
 *      at its frozen instant), READ_BLOCKS of every block;
 *   k. GUEST_RACE_IMAGES - 1 incrementals: START_BACKUP, GET_AUTOMAP_STATE
 *      (in sync, the key read after the previous snapshot), SNAPSHOT
 *      presenting it, GET_AUTOMAP_STATE (a fresh key), GET_AUTOMAP,
 *      LOAD_BLOCK_MAP, READ_BLOCKS of exactly the map's blocks.
 * The image of backup k, the one before it with the blocks read
 * overwritten, goes to slot k of sde (GUEST_SDE_SLOT_START).  Around each
 * SNAPSHOT the guest notes the last write completed before the call and
 * the write issued when it returned: the image must hold a state(S) with
 * S between the two.  The guest checks each change map against the
 * writes it knows fell between two snapshots; the host checks every
 * image block by block against the writer's sequence
 * (vm/check-stamps.c): a block older than state(S_k) is a write lost
 * across a frozen instant.
 *
 * The disk sits on an AHCI controller, whose driver (ahci.ko) this phase
 * loads first.  corvalin.ko is loaded for the phase (backup.c unloaded
 * it), and unloaded at its end while sde1 is still mounted (the unload
 * finds the tracked queue through the partition).
 *
 * Console lines: "BKP ..." as backup.c's; what the host reads:
 *	"BKP race seed SEED"
 *	"BKP race image K slot-sector SECTOR writes LO HI read N"
 *	"BKP race writes N"		the writer's total, once it stopped
 */
#define _GNU_SOURCE 1

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "bkp.h"
#include "disks.h"
#include "guest.h"
#include "scenario.h"
#include "stamp.h"

#define DISK		"/dev/sde"
#define PART		"/dev/sde1"
#define MNT		"/mnt/race"
#define MINOR		(GUEST_SDE_MINOR + 1)
#define BS		STAMP_BLOCK
#define BLOCKS		STAMP_PART_BLOCKS
#define PART_BYTES	((off_t)GUEST_SDE_P1_SECTORS * 512)
/* READ_BLOCKS' largest buffer: 256 blocks of 4 KiB. */
#define BUF_LEN		(256u * CV_PAGE_SIZE)
#define BUF_BLOCKS	(BUF_LEN / BS)
/* The writer's writes between the close of a backup and the next start
 * (the first: before the disk is tracked at all). */
#define GAP_WRITES	100u
#define DISK_WAIT_MS	20000
#define SLOT_CHUNK	(1u << 20)

/* Shared with the writer (an anonymous shared mapping). */
struct race_shared {
	volatile int stop;		/* writer: finish the write, exit */
	volatile uint32_t seed;
	volatile uint32_t issued;	/* the write in progress, or last */
	volatile uint32_t done;		/* the last completed write */
	volatile uint32_t whole;	/* writes sent through the whole disk */
	volatile int error;		/* errno of a failed write */
};

static struct race_shared *rs;
static unsigned char bitmap[(BLOCKS + 7) / 8];
static unsigned char written[(BLOCKS + 7) / 8];
static unsigned char *image;		/* the chain's image so far */

static long now_ms(void)
{
	struct timespec ts;

	clock_gettime(CLOCK_MONOTONIC, &ts);
	return (long)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

static int bit(const unsigned char *map, uint32_t bn)
{
	return map[bn / 8] >> (bn % 8) & 1;
}

static void set_bit(unsigned char *map, uint32_t bn)
{
	map[bn / 8] |= (unsigned char)(1u << (bn % 8));
}

/* ---- the writer (a child process) ------------------------------------ */

static void writer(int unused)
{
	off_t disk_base = (off_t)GUEST_SDE_P1_START * 512;
	uint32_t s, b, seed = rs->seed;
	unsigned char *buf;
	int part, disk;
	ssize_t r;

	(void)unused;
	if (posix_memalign((void **)&buf, CV_PAGE_SIZE, BS) != 0)
		_exit(50);
	part = open(PART, O_WRONLY | O_DIRECT);
	disk = open(DISK, O_WRONLY | O_DIRECT);
	if (part < 0 || disk < 0) {
		rs->error = errno;
		_exit(51);
	}
	for (s = 1; !rs->stop; s++) {
		b = stamp_block(seed, s);
		stamp_fill(buf, seed, s, b);
		rs->issued = s;
		barrier();
		if (stamp_whole_disk(s))
			r = pwrite(disk, buf, BS, disk_base + (off_t)b * BS);
		else
			r = pwrite(part, buf, BS, (off_t)b * BS);
		if (r != (ssize_t)BS) {
			rs->error = r < 0 ? errno : EIO;
			_exit(52);
		}
		barrier();
		rs->done = s;
		if (stamp_whole_disk(s))
			rs->whole++;
	}
	_exit(0);
}

/* Wait until the writer has completed write `want`; 0 when it never did. */
static int wait_writes(uint32_t want, const char *what)
{
	time_t t0;

	for (t0 = time(NULL); rs->done < want; usleep(1000))
		if (time(NULL) - t0 > WAIT_S || rs->error) {
			bkp_fail("%s: the writer is at write %u, not %u (%s)",
				 what, (unsigned)rs->done, (unsigned)want,
				 rs->error ? strerror(rs->error) : "stalled");
			return 0;
		}
	return 1;
}

/* ---- one backup of the chain ------------------------------------------ */

/* The session of sde1 as GET_AUTOMAP_STATE reports it: in sync, a map of
 * the whole partition, a key. */
static int tracked(cv_device *d, const char *what, AutoMapState *ams)
{
	return session_in_sync(d, what, MINOR, BLOCKS, ams);
}

/*
 * The change map of incremental k against what the guest knows of the
 * writes: every write completed after the previous SNAPSHOT returned
 * (> prev_hi) and before this one was called (<= lo) landed between the
 * two frozen instants, so its block must be in the map.  A block no write
 * issued between the previous SNAPSHOT call and the return of this one
 * (prev_lo < s <= hi) touched has no business there: counted, not a
 * failure (a larger map costs reads, not correctness).
 */
static void check_map(const char *what, uint32_t prev_lo, uint32_t prev_hi,
		      uint32_t lo, uint32_t hi)
{
	uint32_t s, b, missing = 0, extra = 0, seed = rs->seed;

	for (s = prev_hi + 1; s <= lo; s++) {
		b = stamp_block(seed, s);
		if (!bit(bitmap, b)) {
			if (missing++ < 8)
				bkp_fail("%s: block %u, written by write %u "
					 "between the two snapshots, is not "
					 "in the change map", what,
					 (unsigned)b, (unsigned)s);
		}
	}
	memset(written, 0, sizeof(written));
	for (s = prev_lo + 1; s <= hi; s++)
		set_bit(written, stamp_block(seed, s));
	for (b = 0; b < BLOCKS; b++)
		if (bit(bitmap, b) && !bit(written, b))
			extra++;
	if (missing)
		bkp_fail("%s: %u writes between the snapshots missing from "
			 "the change map", what, (unsigned)missing);
	out("BKP   change map against the writes: writes %u..%u certainly "
	    "in it, %u of them missing; %u blocks no write of %u..%u "
	    "touched", (unsigned)(prev_hi + 1), (unsigned)lo,
	    (unsigned)missing, (unsigned)extra, (unsigned)(prev_lo + 1),
	    (unsigned)hi);
}

/* Write the chain's image to slot k of sde. */
static void write_slot(int slot_fd, int k)
{
	off_t base = ((off_t)GUEST_SDE_SLOT_START +
		      (off_t)k * GUEST_SDE_P1_SECTORS) * 512, done;

	for (done = 0; done < PART_BYTES; done += SLOT_CHUNK)
		if (pwrite(slot_fd, image + done, SLOT_CHUNK, base + done) !=
		    (ssize_t)SLOT_CHUNK)
			die("write to " DISK);
	if (fsync(slot_fd) != 0)
		die("fsync " DISK);
}

/*
 * Backup k of the chain (0: the full one).  key: the session key read
 * after the previous snapshot, replaced by the fresh one; lo_hi: the
 * previous backup's snapshot window, replaced by this one's.
 */
static void backup(int k, int slot_fd, AMSessionKey *key, uint32_t *lo_hi)
{
	uint32_t lo, hi, bn, n, changed = 0, read_blocks = 0, runs = 0;
	AutoMapState before, after;
	struct close_log c;
	char what[64];
	cv_device d;
	cv_uaddr map = 0;
	long t0 = now_ms(), cached;
	int r;

	snprintf(what, sizeof(what), "%s %d of sde1",
		 k ? "incremental" : "full backup", k);
	out("BKP step race-%s-%d sde1", k ? "incremental" : "full", k);
	if (!check(what, cv_open(&d, cv_transport_real(), NULL), 0))
		return;
	if (!check(what, cv_start_backup(&d, SCN_DISK_MAJOR, MINOR, BLOCKS,
					 BLOCKS), 0)) {
		cv_close(&d);
		return;
	}
	if (k == 0) {
		AutoMapState zero;

		memset(&before, 0xff, sizeof(before));
		memset(&zero, 0, sizeof(zero));
		if (check("GET_AUTOMAP_STATE of the untracked disk",
			  cv_get_automap_state(&d, &before, sizeof(before)),
			  0) && memcmp(&before, &zero, sizeof(zero)) != 0)
			bkp_fail("%s: sde1 already has a session (state %u)",
				 what, (unsigned)before.state);
	} else if (tracked(&d, "GET_AUTOMAP_STATE before SNAPSHOT", &before) &&
		   memcmp(&before.amsKey, key, sizeof(*key)) != 0) {
		bkp_fail("%s: the session's key is not the one read after "
			 "the previous snapshot", what);
	}

	lo = rs->done;
	barrier();
	r = k ? cv_snapshot(&d, &before.amsKey, sizeof(before.amsKey)) :
		cv_snapshot(&d, NULL, 0);
	barrier();
	hi = rs->issued;
	check(k ? "SNAPSHOT with the session key" : "SNAPSHOT", r, 0);
	check_state(&d, "GET_STATE after SNAPSHOT", BU_STATE_SNAPSHOT);
	if (tracked(&d, "GET_AUTOMAP_STATE after SNAPSHOT", &after)) {
		if (k && memcmp(&after.amsKey, &before.amsKey,
				sizeof(after.amsKey)) == 0)
			bkp_fail("%s: the snapshot left the session key as "
				 "it was", what);
		*key = after.amsKey;
	}

	if (k == 0) {
		memset(bitmap, 0xff, sizeof(bitmap));
		changed = BLOCKS;
		r = 0;
	} else {
		memset(bitmap, 0xa5, sizeof(bitmap));
		r = cv_get_automap(&d, bitmap, BLOCKS);
		if (check("GET_AUTOMAP", r, 0)) {
			for (bn = 0; bn < BLOCKS; bn++)
				changed += (uint32_t)bit(bitmap, bn);
			if (changed == 0)
				bkp_fail("%s: the change map is empty", what);
			check_map(what, lo_hi[0], lo_hi[1], lo, hi);
			if (check("LOAD_BLOCK_MAP",
				  cv_load_block_map(&d, bitmap, BLOCKS), 0))
				check_state(&d,
					    "GET_STATE after LOAD_BLOCK_MAP",
					    BU_STATE_MAP_LOADED);
			else
				r = -1;
		}
	}
	out("BKP   snapshot between writes %u (done before the call) and %u "
	    "(issued when it returned); %s: %u of %u blocks",
	    (unsigned)lo, (unsigned)hi, k ? "change map" : "full",
	    (unsigned)changed, (unsigned)BLOCKS);
	if (r == 0 && !check("mmap of the read buffer",
			     cv_map_read_buffer(&d, BUF_LEN, &map), 0))
		r = -1;

	/* The blocks to read, run after run, while the writer goes on. */
	for (bn = 0; r == 0 && bn < BLOCKS; bn += n) {
		if (!bit(bitmap, bn)) {
			n = 1;
			continue;
		}
		for (n = 1; n < BUF_BLOCKS && bn + n < BLOCKS &&
		     bit(bitmap, bn + n); n++)
			;
		r = cv_read_blocks(&d, bn, n, map);
		if (r == 0)
			memcpy(image + (size_t)bn * BS,
			       (const void *)(uintptr_t)map, (size_t)n * BS);
		read_blocks += n;
		runs++;
	}
	if (r != -1 && check("READ_BLOCKS", r, 0)) {
		if (read_blocks != changed)
			bkp_fail("%s: read %u blocks of a map of %u", what,
				 (unsigned)read_blocks, (unsigned)changed);
		check_state(&d, "GET_STATE after the reads",
			    k ? BU_STATE_MAP_LOADED : BU_STATE_SNAPSHOT);
	}
	if (map != 0)
		check("munmap", cv_munmap(&d, map, BUF_LEN), 0);

	out(MARK_CLOSE);
	check("close", cv_close(&d), 0);
	out(MARK_CLOSED);
	take_log(what, start_lines(MINOR), &c);
	cached = check_close(what, &c, MINOR, "7");
	write_slot(slot_fd, k);
	out("BKP   read %u blocks in %u runs; blocks copied before writes: "
	    "%ld; writer at write %u; %ld ms", (unsigned)read_blocks,
	    (unsigned)runs, cached, (unsigned)rs->done, now_ms() - t0);
	out("BKP race image %d slot-sector %u writes %u %u read %u", k,
	    (unsigned)(GUEST_SDE_SLOT_START + k * GUEST_SDE_P1_SECTORS),
	    (unsigned)lo, (unsigned)hi, (unsigned)read_blocks);
	lo_hi[0] = lo;
	lo_hi[1] = hi;
}

/* ---- the phase ----------------------------------------------------- */

/* The disk's controller, then sde1 in /sys. */
static int disk_ready(void)
{
	struct stat st;
	int waited, r = insmod("ahci");

	if (r != 0) {
		bkp_fail("insmod ahci = %d (%s)", r, strerror(-r));
		return 0;
	}
	for (waited = 0; stat("/sys/block/sde/sde1", &st) != 0; waited += 50) {
		if (waited >= DISK_WAIT_MS) {
			bkp_fail("no /sys/block/sde/sde1 %d ms after loading "
				 "ahci", DISK_WAIT_MS);
			return 0;
		}
		usleep(50000);
	}
	return 1;
}

static uint32_t random_seed(void)
{
	uint32_t seed = 0;
	int fd = open("/dev/urandom", O_RDONLY);

	if (fd < 0 || read(fd, &seed, sizeof(seed)) != sizeof(seed))
		seed = (uint32_t)time(NULL) ^ (uint32_t)getpid();
	if (fd >= 0)
		close(fd);
	return seed;
}

int race_run(void)
{
	int before = bkp_failures(), k, slot_fd, status;
	uint32_t lo_hi[2] = { 0, 0 };
	char line[256];
	AMSessionKey key;
	long t0 = now_ms();
	pid_t pid;

	out("BKP step race-setup sde1");
	while (guest_klog(line, sizeof(line)))
		;
	if (!disk_ready())
		return bkp_failures() - before;
	if (mount(PART, MNT, "ext2", MS_RDONLY, NULL) != 0) {
		bkp_fail("mount " PART " read-only: %s", strerror(errno));
		return bkp_failures() - before;
	}
	rs = mmap(NULL, sizeof(*rs), PROT_READ | PROT_WRITE,
		  MAP_SHARED | MAP_ANONYMOUS, -1, 0);
	if (rs == MAP_FAILED)
		die("mmap");
	if (posix_memalign((void **)&image, CV_PAGE_SIZE, (size_t)PART_BYTES))
		die("memory for the image");
	slot_fd = open(DISK, O_RDWR | O_DIRECT);
	if (slot_fd < 0)
		die(DISK);
	check("insmod corvalin", insmod("corvalin"), 0);
	take_log("race setup", bkp_load_lines, NULL);

	memset((void *)rs, 0, sizeof(*rs));
	rs->seed = random_seed();
	out("BKP race seed %u", (unsigned)rs->seed);
	out("BKP   writer: blocks %u..%u of %u, one write in %u through "
	    DISK, (unsigned)STAMP_FIRST, (unsigned)(BLOCKS - 1),
	    (unsigned)BLOCKS, STAMP_WHOLE_EVERY);
	barrier();
	pid = spawn(writer, 0);
	memset(&key, 0, sizeof(key));
	/* Writes on the disk before anything tracks it, then the chain. */
	for (k = 0; k < GUEST_RACE_IMAGES; k++) {
		if (!wait_writes(rs->done + GAP_WRITES, "race"))
			break;
		backup(k, slot_fd, &key, lo_hi);
	}

	rs->stop = 1;
	barrier();
	if (waitpid(pid, &status, 0) != pid)
		bkp_fail("race: writer lost");
	else if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
		bkp_fail("race: writer ended with status 0x%x (%s)",
			 (unsigned)status,
			 rs->error ? strerror(rs->error) : "-");
	out("BKP race writes %u", (unsigned)rs->done);
	out("BKP   writer: %u writes, %u of them through " DISK,
	    (unsigned)rs->done, (unsigned)rs->whole);
	close(slot_fd);

	/* The module while sde1 is in use: the unload finds the tracked
	 * queue through the partition's session. */
	check("rmmod corvalin", rmmod("corvalin"), 0);
	take_log("race unload", bkp_unload_lines, NULL);
	if (umount(MNT) != 0)
		bkp_fail("umount " MNT ": %s", strerror(errno));
	free(image);
	munmap((void *)rs, sizeof(*rs));
	out("BKP   race phase: %ld ms", now_ms() - t0);
	return bkp_failures() - before;
}
