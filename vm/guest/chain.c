/*
 * chain.c - incremental backups of sda2 (ext3) on the real kernel: the
 * chain that the full backup of sda2 (backup.c) begins.
 *
 * Each incremental, like a backup program would:
 *   1. open /dev/corvalin, START_BACKUP, GET_AUTOMAP_STATE: the partition
 *      is tracked and in sync (the control device was closed since the
 *      previous backup), with the key read after the previous snapshot;
 *   2. SNAPSHOT presenting that key, with writer A stopped after a known
 *      version and writer B running (as in the full backups);
 *   3. GET_AUTOMAP_STATE again (a fresh key, kept for the next step),
 *      GET_AUTOMAP of the handed-over change map (a second one finds
 *      nothing: the export consumed it), LOAD_BLOCK_MAP of that map;
 *   4. READ_BLOCKS of every run of changed blocks while both writers go
 *      on, one GET_DIRTY_BLOCK half-way (a block still to be read, or
 *      none), each run written over a copy of the previous image on sdb;
 *   5. close: the queue goes back to change tracking.
 * The host checks every image of the chain (vm/vmtest.sh): e2fsck finds
 * it clean and every file holds its content of that snapshot.
 *
 * Between the two incrementals both partitions are unmounted and the
 * partition table of sda re-read (BLKRRPART) under change tracking: it
 * must return, and tracking must go on (the second incremental gets its
 * change map).  After the chain the UNLOAD command ends all tracking: the
 * next backup of sda2 finds no session.
 */
#define _GNU_SOURCE 1

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "bkp.h"
#include "content.h"
#include "disks.h"
#include "guest.h"
#include "scenario.h"

#define P		2	/* the chain's partition */
#define COPY_BYTES	(256u << 10)
#define RESCAN_WAIT_S	60

static unsigned char bitmap[(SCN_P2_BLOCKS + 7) / 8];
static unsigned char copy_buf[COPY_BYTES];

/* First sector on sdb of the chain's image k (0: the full backup). */
static off_t slot_sector(int k)
{
	if (k == 0)
		return SCN_SDB_P2_START;
	return GUEST_SDB_CHAIN_START + (off_t)(k - 1) * SCN_P2_SECTORS;
}

/* The image before incremental k is where incremental k starts from. */
static int copy_slot(int sdb, int from, int to)
{
	off_t src = slot_sector(from) * 512, dst = slot_sector(to) * 512;
	off_t len = (off_t)SCN_P2_SECTORS * 512, done;

	for (done = 0; done < len; done += COPY_BYTES)
		if (pread(sdb, copy_buf, COPY_BYTES, src + done) != COPY_BYTES ||
		    pwrite(sdb, copy_buf, COPY_BYTES, dst + done) != COPY_BYTES)
			return -1;
	return fsync(sdb);
}

static int bit(uint32_t bn)
{
	return bitmap[bn / 8] >> (bn % 8) & 1;
}

static uint32_t count_bits(uint32_t total)
{
	uint32_t bn, n = 0;

	for (bn = 0; bn < total; bn++)
		n += (uint32_t)bit(bn);
	return n;
}

/* The session of sda2 as GET_AUTOMAP_STATE reports it: tracked, in sync,
 * a map of the whole partition. */
static int tracked(cv_device *d, const char *what, AutoMapState *ams)
{
	return session_in_sync(d, what, P, part_blocks(P), ams);
}

/*
 * Incremental k of the chain.  *a_last: writer A's last version so far,
 * b_ver: B's versions (b_stopped); both updated.
 */
static void incremental(int k, int sdb, unsigned *a_last, unsigned *b_ver)
{
	static char null_line[96];
	const char *allowed[6];
	const char *const *sl = start_lines(P);
	uint32_t bs = part_bs(P), total = part_blocks(P);
	uint32_t len = buffer_len(P), max = len / bs, bn, n, changed;
	uint32_t read_blocks = 0, dirty = 0, runs = 0;
	off_t base = slot_sector(k) * 512;
	unsigned lo[NB], hi[NB], i;
	AutoMapState before, after;
	struct close_log c;
	char what[64];
	cv_device d;
	cv_uaddr map;
	pid_t pids[2];
	time_t t0;
	int r;

	snprintf(what, sizeof(what), "incremental %d of sda%d", k, P);
	out("BKP step incremental-%d sda%d (ext3)", k, P);
	if (copy_slot(sdb, k - 1, k) != 0) {
		bkp_fail("%s: copying the previous image on " SDB ": %s", what,
			 strerror(errno));
		return;
	}
	reset_shared();
	sh->a_from = *a_last;
	sh->a_stop = *a_last + 2;
	sh->b_from = b_from(b_ver);
	if (!start(&d, P, what))
		return;
	if (!tracked(&d, "GET_AUTOMAP_STATE before SNAPSHOT", &before)) {
		check("close", cv_close(&d), 0);
		take_log(what, sl, &c);
		check_close(what, &c, P, "7");
		return;
	}
	pids[0] = spawn(writer_a, P);
	pids[1] = spawn(writer_b, P);
	for (t0 = time(NULL); sh->a_version < sh->a_stop; usleep(1000))
		if (time(NULL) - t0 > WAIT_S) {
			bkp_fail("%s: writer A never reached version %u", what,
				 (unsigned)sh->a_stop);
			break;
		}
	usleep(50000);			/* some of B's writes in flight */
	b_least(b_ver, lo);
	barrier();
	r = cv_snapshot(&d, &before.amsKey, sizeof(before.amsKey));
	barrier();
	b_most(b_ver, hi);
	sh->go = 1;
	barrier();
	check("SNAPSHOT with the session key", r, 0);
	check_state(&d, "GET_STATE after SNAPSHOT", BU_STATE_SNAPSHOT);
	if (tracked(&d, "GET_AUTOMAP_STATE after SNAPSHOT", &after) &&
	    memcmp(&after.amsKey, &before.amsKey, sizeof(after.amsKey)) == 0)
		bkp_fail("%s: the snapshot left the session key as it was",
			 what);

	/* The change map: exported once, then loaded as the blocks to read. */
	memset(bitmap, 0xa5, sizeof(bitmap));
	r = cv_get_automap(&d, bitmap, total);
	check("GET_AUTOMAP", r, 0);
	changed = r == 0 ? count_bits(total) : 0;
	check("a second GET_AUTOMAP", cv_get_automap(&d, copy_buf, total),
	      KIV_ERR_INVALID);
	out("BKP   snapshot at writer A version %u, writer B versions %u..%u "
	    "of file 0; change map: %u of %u blocks", (unsigned)sh->a_stop,
	    lo[0], hi[0], (unsigned)changed, (unsigned)total);
	if (r == 0 && changed == 0)
		bkp_fail("%s: the change map is empty", what);
	if (r == 0 &&
	    check("LOAD_BLOCK_MAP", cv_load_block_map(&d, bitmap, total), 0)) {
		check_state(&d, "GET_STATE after LOAD_BLOCK_MAP",
			    BU_STATE_MAP_LOADED);
		r = cv_map_read_buffer(&d, len, &map);
		check("mmap of the read buffer", r, 0);
	} else {
		r = -1;
	}

	/* Every run of changed blocks, while both writers go on. */
	for (bn = 0; r == 0 && bn < total; bn += n) {
		if (!bit(bn)) {
			n = 1;
			continue;
		}
		for (n = 1; n < max && bn + n < total && bit(bn + n); n++)
			;
		r = cv_read_blocks(&d, bn, n, map);
		if (r == 0 &&
		    pwrite(sdb, (void *)(uintptr_t)map, n * bs,
			   base + (off_t)bn * bs) != (ssize_t)(n * bs))
			die("write to " SDB);
		read_blocks += n;
		if (++runs == 2 && r == 0) {
			/* Half-way (or so): a block the cache still holds is
			 * one still to be read, if any. */
			uint32_t dirty_bn = 0;

			check("GET_DIRTY_BLOCK",
			      cv_get_dirty_block(&d, &dirty_bn), 0);
			if (dirty_bn != 0xffffffffu &&
			    (dirty_bn < bn + n || dirty_bn >= total ||
			     !bit(dirty_bn)))
				bkp_fail("%s: GET_DIRTY_BLOCK reports block "
					 "%u, not one still to be read", what,
					 (unsigned)dirty_bn);
			dirty = dirty_bn;
		}
	}
	if (r != -1 && check("READ_BLOCKS", r, 0)) {
		if (runs >= 2)
			out("BKP   read %u changed blocks in %u runs (block "
			    "still cached after the second run: %d)",
			    (unsigned)read_blocks, (unsigned)runs,
			    dirty == 0xffffffffu ? -1 : (int)dirty);
		else
			out("BKP   read %u changed blocks in %u run",
			    (unsigned)read_blocks, (unsigned)runs);
		if (read_blocks != changed)
			bkp_fail("%s: read %u blocks of a map of %u", what,
				 (unsigned)read_blocks, (unsigned)changed);
		check_state(&d, "GET_STATE after the reads",
			    BU_STATE_MAP_LOADED);
		check("munmap", cv_munmap(&d, map, len), 0);
	}
	if (fsync(sdb) != 0)
		die("fsync " SDB);
	stop_writers(pids, 2, what);
	*a_last = sh->a_version;
	b_stopped(b_ver);

	out(MARK_CLOSE);
	check("close", cv_close(&d), 0);
	out(MARK_CLOSED);
	snprintf(null_line, sizeof(null_line),
		 "<3>ioctlGetAutoMap: backup error automap is NULL ");
	allowed[0] = sl[0];
	allowed[1] = sl[1];
	allowed[2] = sl[2];
	allowed[3] = null_line;
	allowed[4] = NULL;
	take_log(what, allowed, &c);
	out("BKP   blocks copied before writes: %ld",
	    check_close(what, &c, P, "7"));

	out("BKP image sda%d-incr%d ext3 sdb-sector %u sectors %u", P, k,
	    (unsigned)(base / 512), (unsigned)SCN_P2_SECTORS);
	for (i = 0; i < NA; i++)
		out("BKP file sda%d-incr%d w/f%03u id %u chunks %u versions "
		    "%u %u", P, k, i, i, cnt_chunks(i),
		    (unsigned)sh->a_stop, (unsigned)sh->a_stop);
	for (i = 0; i < NB; i++)
		out("BKP file sda%d-incr%d w/f%03u id %u chunks %u versions "
		    "%u %u", P, k, B_ID + i, B_ID + i, cnt_chunks(B_ID + i),
		    lo[i], hi[i]);
	for (i = sh->a_stop - 1; i <= sh->a_stop; i++)
		out("BKP file sda%d-incr%d w/n%04u id %u chunks %u versions "
		    "%u %u", P, k, i, N_ID + i, cnt_chunks(N_ID + i), i, i);
	out("BKP end sda%d-incr%d", P, k);
}

/*
 * Re-read sda's partition table while sda2 is tracked: both partitions
 * unmounted, BLKRRPART on /dev/sda in a child (so that a hang is seen as
 * one), both mounted again.
 */
static void rescan(void)
{
	const char *what = "partition table re-read of a tracked disk";
	struct stat st;
	pid_t pid;
	time_t t0;
	int p, status = 0, done = 0;

	out("BKP step rescan sda");
	for (p = 1; p <= 2; p++)
		check("umount", guest_umount(p), 0);
	pid = fork();
	if (pid < 0)
		die("fork");
	if (pid == 0) {
		int fd = open("/dev/sda", O_RDONLY);

		if (fd < 0)
			_exit(100);
		_exit(ioctl(fd, BLKRRPART) == 0 ? 0 : errno);
	}
	for (t0 = time(NULL); time(NULL) - t0 < RESCAN_WAIT_S; usleep(10000))
		if (waitpid(pid, &status, WNOHANG) == pid) {
			done = 1;
			break;
		}
	if (!done) {
		bkp_fail("%s: BLKRRPART did not return within %d s", what,
			 RESCAN_WAIT_S);
		return;
	}
	if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
		bkp_fail("%s: BLKRRPART ended with status 0x%x", what,
			 (unsigned)status);
	out("BKP   BLKRRPART returned after %d s", (int)(time(NULL) - t0));
	if (stat("/sys/block/sda/sda2", &st) != 0)
		bkp_fail("%s: no sda2 after the re-read", what);
	for (p = 1; p <= 2; p++)
		check("mount", guest_mount(p), 0);
	take_log(what, NULL, NULL);
}

/* UNLOAD ends all change tracking: a backup of sda2 finds no session. */
static void unload_tracking(void)
{
	const char *what = "UNLOAD of change tracking";
	AutoMapState ams, zero;
	struct close_log c;
	cv_device d;

	out("BKP step unload-tracking");
	if (!check(what, cv_open(&d, cv_transport_real(), NULL), 0))
		return;
	check("UNLOAD", cv_unload(&d), 0);
	check("close", cv_close(&d), 0);
	if (!start(&d, P, what))
		return;
	memset(&ams, 0xff, sizeof(ams));
	memset(&zero, 0, sizeof(zero));
	if (check("GET_AUTOMAP_STATE after UNLOAD",
		  cv_get_automap_state(&d, &ams, sizeof(ams)), 0) &&
	    memcmp(&ams, &zero, sizeof(ams)) != 0)
		bkp_fail("%s: sda%d still has a session (state %u)", what, P,
			 (unsigned)ams.state);
	check("close", cv_close(&d), 0);
	take_log(what, start_lines(P), &c);
	check_close(what, &c, P, "7");
}

void chain_run(int sdb)
{
	unsigned a_last = sh->a_version, b_ver[NB];
	int k;

	/* Where the full backup of sda2 left the writers. */
	memset(b_ver, 0, sizeof(b_ver));
	b_stopped(b_ver);
	for (k = 1; k <= GUEST_CHAIN_STEPS; k++) {
		incremental(k, sdb, &a_last, b_ver);
		if (k == 1)
			rescan();
	}
	unload_tracking();
	program_run(&a_last, b_ver);
}
