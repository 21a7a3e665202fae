/*
 * backup.c - the guest's backups with writers running: the part of the
 * boot test that depends on timing, so it runs in the guest only and is
 * judged by its own verdict instead of the compared transcript.
 *
 * With corvalin.ko loaded and both partitions mounted:
 *
 * 1. A full backup of sda2 (ext3, 4 KiB blocks), then of sda1 (ext2,
 *    1 KiB blocks), each while two writer processes run:
 *      - writer A rewrites its files in place, version after version, with
 *        one write and an fsync per file, creates a file per version and
 *        deletes the one of two versions before.  After version K it stops
 *        and tells the backup; the backup takes the SNAPSHOT and lets it
 *        go on.  So the snapshot holds exactly version K of A's files.
 *      - writer B rewrites its files in place without pause; it publishes,
 *        per file, the version it started and the version it finished
 *        (fsync returned).  What B had finished before the SNAPSHOT call
 *        is the least the image may hold, what it had started when the
 *        call returned is the most.
 *    The backup program (this process, through libcorvalin's real
 *    transport) reads the whole partition with READ_BLOCKS, in runs of
 *    varying length through its read-buffer mapping, while the writers
 *    go on, and writes the image raw to sdb (SCN_SDB_*).  It prints what
 *    every file must hold, "BKP file ..." lines, and the host checks the
 *    images (vm/vmtest.sh, vm/check-image.c).
 *    The full backup of sda2 begins a chain of incrementals (chain.c):
 *    two incremental backups under the same writers, a re-read of sda's
 *    partition table between them, and the UNLOAD command at the end.
 * 2. A backup program (a child) reading sda2 over and over is killed with
 *    SIGKILL while it is inside READ_BLOCKS; its exit closes the backup.
 * 3. A backup of sda2 without change tracking is closed while a heavy
 *    writer keeps the copy-before-write queue full.
 * 4. A backup of the idle sda1 without change tracking, closed at once.
 * 5. The module unloaded, a write to each partition (the queue has its
 *    own function back), both partitions unmounted.
 *
 * Every close must print the statistics with all current counters at 0
 * and the read buffer released; the module's log lines of every step are
 * checked.  The closes of snapshotted backups are framed on the console
 * ("==== corvalin guest: close of a snapshotted backup ====" ... " done
 * ====") so that the host knows where the close path runs (the one kernel
 * warning the driver is allowed is that close path's, see vmtest.sh).
 *
 * Console lines: "BKP <text>"; a failed check is "BKP FAIL <what>".
 */
#define _GNU_SOURCE 1

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "content.h"
#include "bkp.h"
#include "guest.h"
#include "scenario.h"

struct shared *sh;
static int failures;

void bkp_fail(const char *fmt, ...)
{
	char line[256];
	va_list ap;

	va_start(ap, fmt);
	vsnprintf(line, sizeof(line), fmt, ap);
	va_end(ap);
	out("BKP FAIL %s", line);
	failures++;
}

void barrier(void)
{
	__sync_synchronize();
}

uint32_t part_blocks(int p)
{
	return p == 1 ? SCN_P1_BLOCKS : SCN_P2_BLOCKS;
}

uint32_t part_bs(int p)
{
	return p == 1 ? SCN_P1_BLOCK : SCN_P2_BLOCK;
}

/* ---- files ----------------------------------------------------------- */

void file_path(char *buf, size_t size, int p, unsigned id)
{
	if (id >= N_ID)
		snprintf(buf, size, "/mnt/p%d/w/n%04u", p, id - N_ID);
	else
		snprintf(buf, size, "/mnt/p%d/w/f%03u", p, id);
}

/*
 * Write version v of file id in place (created if missing, never
 * truncated: its size is the same at every version) with one write, then
 * fsync.  0 or -errno.
 */
int write_version(int p, unsigned id, unsigned v)
{
	static unsigned char buf[20 * CNT_CHUNK];
	unsigned c, n = cnt_chunks(id);
	char path[64];
	int fd, r = 0;

	for (c = 0; c < n; c++)
		cnt_fill(buf + c * CNT_CHUNK, id, v, c);
	file_path(path, sizeof(path), p, id);
	fd = open(path, O_WRONLY | O_CREAT, 0644);
	if (fd < 0)
		return -errno;
	if (pwrite(fd, buf, n * CNT_CHUNK, 0) != (ssize_t)(n * CNT_CHUNK) ||
	    fsync(fd) != 0)
		r = errno ? -errno : -EIO;
	close(fd);
	return r;
}

int fsync_path(const char *path)
{
	int fd = open(path, O_RDONLY), r;

	if (fd < 0)
		return -errno;
	r = fsync(fd) == 0 ? 0 : -errno;
	close(fd);
	return r;
}

/* Version 0 of every file of both writers, and A's file of version 0. */
static int setup_files(int p)
{
	char dir[32];
	unsigned i;
	int r = 0;

	snprintf(dir, sizeof(dir), "/mnt/p%d/w", p);
	if (mkdir(dir, 0755) != 0 && errno != EEXIST)
		return -errno;
	for (i = 0; i < NA && r == 0; i++)
		r = write_version(p, i, 0);
	for (i = 0; i < NB && r == 0; i++)
		r = write_version(p, B_ID + i, 0);
	if (r == 0)
		r = write_version(p, N_ID, 0);
	if (r == 0)
		r = fsync_path(dir);
	return r;
}

/* ---- writers (child processes) --------------------------------------- */

static void wait_flag(volatile int *flag)
{
	while (!*flag && !sh->stop)
		usleep(1000);
}

/*
 * Writer A.  Version v (from a_from + 1 on): every file rewritten, the
 * file of version v created, the one of version v - 2 deleted, the
 * directory synced.  After version a_stop it waits until the backup has
 * taken its snapshot (go).
 */
void writer_a(int p)
{
	char path[64], dir[32];
	unsigned v, i;

	snprintf(dir, sizeof(dir), "/mnt/p%d/w", p);
	for (v = sh->a_from + 1; ; v++) {
		for (i = 0; i < NA; i++)
			if (write_version(p, i, v) != 0)
				_exit(10);
		if (write_version(p, N_ID + v, v) != 0)
			_exit(11);
		if (v >= 2) {
			file_path(path, sizeof(path), p, N_ID + v - 2);
			if (unlink(path) != 0)
				_exit(12);
		}
		if (fsync_path(dir) != 0)
			_exit(13);
		barrier();
		sh->a_version = v;
		barrier();
		if (v == sh->a_stop)
			wait_flag(&sh->go);
		if (sh->stop)
			_exit(0);
	}
}

/*
 * Writer B across steps.  ver[i] is the version file i holds on disk since
 * B last stopped (B stops only between files, so then done == started).
 * At an instant of a step that started B from max(ver) + 1, file i holds
 * at least max(ver[i], done[i]) and at most max(ver[i], started[i]).
 */
unsigned b_from(const unsigned *ver)
{
	unsigned i, m = 0;

	for (i = 0; i < NB; i++)
		if (ver[i] > m)
			m = ver[i];
	return m;
}

void b_least(const unsigned *ver, unsigned *lo)
{
	unsigned i;

	for (i = 0; i < NB; i++)
		lo[i] = sh->done[i] > ver[i] ? sh->done[i] : ver[i];
}

void b_most(const unsigned *ver, unsigned *hi)
{
	unsigned i;

	for (i = 0; i < NB; i++)
		hi[i] = sh->started[i] > ver[i] ? sh->started[i] : ver[i];
}

void b_stopped(unsigned *ver)
{
	b_least(ver, ver);
}

/* Writer B: file after file, version after version (from b_from + 1 on),
 * until told to stop. */
void writer_b(int p)
{
	unsigned v, i;

	for (v = sh->b_from + 1; ; v++)
		for (i = 0; i < NB; i++) {
			if (sh->stop)
				_exit(0);
			sh->started[i] = v;
			barrier();
			if (write_version(p, B_ID + i, v) != 0)
				_exit(20);
			barrier();
			sh->done[i] = v;
		}
}

/* The heavy writer: rewrites a large file in 64 KiB writes, syncing each
 * MiB, so that many writes wait for their copies at once. */
static void writer_heavy(int p)
{
	static unsigned char buf[HEAVY_STEP];
	char path[32];
	unsigned off = 0;
	int fd;

	snprintf(path, sizeof(path), "/mnt/p%d/heavy", p);
	fd = open(path, O_WRONLY | O_CREAT, 0644);
	if (fd < 0)
		_exit(30);
	while (!sh->stop) {
		memset(buf, (int)(off >> 16), sizeof(buf));
		if (pwrite(fd, buf, sizeof(buf), off) != (ssize_t)sizeof(buf))
			_exit(31);
		off = (off + HEAVY_STEP) % HEAVY_BYTES;
		if (off % (1u << 20) == 0 && fdatasync(fd) != 0)
			_exit(32);
		sh->heavy += HEAVY_STEP;
	}
	_exit(0);
}

pid_t spawn(void (*fn)(int), int p)
{
	pid_t pid = fork();

	if (pid < 0)
		die("fork");
	if (pid == 0) {
		int fd;

		/* None of the parent's files: an inherited /dev/corvalin
		 * would keep the backup open after the parent's close. */
		for (fd = 3; fd < 256; fd++)
			close(fd);
		fn(p);
		_exit(0);
	}
	return pid;
}

/* Stop the writers and check that each ended well. */
void stop_writers(const pid_t *pids, int n, const char *what)
{
	int i, status;

	sh->stop = 1;
	barrier();
	for (i = 0; i < n; i++) {
		if (waitpid(pids[i], &status, 0) != pids[i])
			bkp_fail("%s: writer %d lost", what, i);
		else if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
			bkp_fail("%s: writer %d ended with status 0x%x", what,
				 i, (unsigned)status);
	}
}

void reset_shared(void)
{
	memset((void *)sh, 0, sizeof(*sh));
	barrier();
}

/* ---- the module's log ------------------------------------------------- */

/* Functions of the driver that log (the lines this suite judges). */
static const char *const driver_functions[] = {
	"printStats", "closeBackup", "backup_cache", "ioctlStartBackup",
	"ioctlSnapShot", "ioctlReadBlocks", "readFromCache", "kivVMnopage",
	"waitForMRs", "getCacheBlock", "cacheBlock", "closeCache",
	"kivBIOEndIO", "kivBHEndIO", "waitForSubmitted", "kivMRF", "kivAMRF",
	"newAMS", "unSetMRFDEV", "countQueueAMS", "unsetQueueMRFAMS",
	"newBlockMap", "newCacheMap", "startWorkQueue", "kivInit",
	"kivUnload", "kivExit", "kivIOCTL", "getDiskInfo", NULL
};

/* 1 when line ("<N>text") is one of the driver's. */
static int driver_line(const char *line)
{
	const char *text = line + (line[0] == '<' ? 3 : 0);
	size_t n;
	int i;

	for (i = 0; driver_functions[i] != NULL; i++) {
		n = strlen(driver_functions[i]);
		if (strncmp(text, driver_functions[i], n) == 0 &&
		    text[n] == ':')
			return 1;
	}
	return 0;
}

static const char *stat_value(const struct close_log *c, const char *label)
{
	int i;

	for (i = 0; i < c->nstats; i++)
		if (strcmp(c->label[i], label) == 0)
			return c->value[i];
	return NULL;
}

/*
 * Take the driver's log lines since the last look.  Lines listed in
 * `allowed` (exact, "<N>text") may come, in any order and number; the
 * statistics printout and "backup finished" go into *close when it is
 * given; any other driver line is a failure.  Every driver line is shown.
 */
void take_log(const char *what, const char *const *allowed,
		     struct close_log *close)
{
	char line[256];
	const char *text;
	int i, ok;

	if (close)
		memset(close, 0, sizeof(*close));
	while (guest_klog(line, sizeof(line))) {
		if (!driver_line(line))
			continue;
		out("BKP   klog %s", line);
		text = line + 3;
		ok = 0;
		for (i = 0; allowed && allowed[i] != NULL; i++)
			if (strcmp(line, allowed[i]) == 0)
				ok = 1;
		if (!ok && close && strncmp(text, "printStats: ", 12) == 0 &&
		    close->nstats < STATS_MAX) {
			const char *colon = strrchr(text, ':');

			if (colon != NULL) {
				snprintf(close->label[close->nstats], 64,
					 "%.*s", (int)(colon - text - 12),
					 text + 12);
				snprintf(close->value[close->nstats], 48,
					 "%s", colon + 2);
				close->nstats++;
				ok = 1;
			}
		}
		if (!ok && close &&
		    strncmp(text, "closeBackup: backup finished ", 29) == 0) {
			close->finished = 1;
			ok = 1;
		}
		if (!ok && close &&
		    strcmp(text, "backup_cache: backupd thread exiting") == 0) {
			close->thread_exit = 1;
			ok = 1;
		}
		if (!ok)
			bkp_fail("%s: unexpected driver line", what);
	}
}

/*
 * The close of a started backup of partition p printed its statistics,
 * with every counter of what the backup still holds at zero, stopped the
 * cache thread and said "backup finished".  Returns the number of blocks
 * it had cached (copies before writes), -1 when unknown.
 */
long check_close(const char *what, const struct close_log *c, int p,
			const char *state)
{
	static const char *const zero[] = {
		"current pages allocated", "current Block Requests allocated",
		"current cached blocks", "current block cache data structures",
		"buffer pages allocated", NULL
	};
	char dev[32];
	const char *v;
	int i;

	if (!c->thread_exit)
		bkp_fail("%s: the cache thread did not say it exits", what);
	if (!c->finished)
		bkp_fail("%s: no \"backup finished\"", what);
	if (c->nstats != 26)
		bkp_fail("%s: %d statistics lines, expected 26", what,
			 c->nstats);
	snprintf(dev, sizeof(dev), "major(%d) minor(%d)", SCN_DISK_MAJOR, p);
	v = stat_value(c, "device");
	if (v == NULL || strcmp(v, dev) != 0)
		bkp_fail("%s: statistics of device %s", what, v ? v : "?");
	v = stat_value(c, "state");
	if (v == NULL || strcmp(v, state) != 0)
		bkp_fail("%s: statistics show state %s, expected %s", what,
			 v ? v : "?", state);
	for (i = 0; zero[i] != NULL; i++) {
		v = stat_value(c, zero[i]);
		if (v == NULL || strcmp(v, "0") != 0)
			bkp_fail("%s: %s is %s after the close", what, zero[i],
				 v ? v : "missing");
	}
	v = stat_value(c, "total cached blocks");
	return v ? atol(v) : -1;
}

/* ---- the backup program's pieces --------------------------------------- */

static char started_line[96], freeze_line[64];

const char *const *start_lines(int p)
{
	static const char *lines[4];

	snprintf(started_line, sizeof(started_line), "<6>ioctlStartBackup: "
		 "backup started for device major=%d minor=%d",
		 SCN_DISK_MAJOR, p);
	snprintf(freeze_line, sizeof(freeze_line), "<3>ioctlSnapShot: Going "
		 "to freez: %d.%d", SCN_DISK_MAJOR, p);
	lines[0] = "<6>backup_cache: kbackupd thread started";
	lines[1] = started_line;
	lines[2] = freeze_line;
	lines[3] = NULL;
	return lines;
}

int check(const char *what, int got, int want)
{
	if (got != want) {
		bkp_fail("%s = %d (%s), expected %d", what, got,
			 cv_result_name(got), want);
		return 0;
	}
	return 1;
}

int key_is_zero(const AMSessionKey *k)
{
	unsigned i;

	for (i = 0; i < sizeof(k->key); i++)
		if (k->key[i])
			return 0;
	return 1;
}

/*
 * The session of partition `minor` of the scenario's disk as
 * GET_AUTOMAP_STATE reports it: in sync, a map of `blocks` blocks, a key
 * set.  Anything else is a failure, said with the fields seen.
 */
int session_in_sync(cv_device *d, const char *what, unsigned minor,
		    uint32_t blocks, AutoMapState *ams)
{
	memset(ams, 0, sizeof(*ams));
	if (!check(what, cv_get_automap_state(d, ams, sizeof(*ams)), 0))
		return 0;
	if (ams->major != SCN_DISK_MAJOR || ams->minor != minor ||
	    ams->state != AM_STATE_IN_SYNC || ams->mapLen != blocks ||
	    ams->mapSize != cv_bitmap_bytes(blocks) ||
	    key_is_zero(&ams->amsKey)) {
		bkp_fail("%s: session %u:%u state %u mapLen %u mapSize %u "
			 "key %s", what, (unsigned)ams->major,
			 (unsigned)ams->minor, (unsigned)ams->state,
			 (unsigned)ams->mapLen, (unsigned)ams->mapSize,
			 key_is_zero(&ams->amsKey) ? "zero" : "set");
		return 0;
	}
	return 1;
}

void check_state(cv_device *d, const char *what, uint32_t want)
{
	State st;

	memset(&st, 0, sizeof(st));
	if (check(what, cv_get_state(d, &st, sizeof(st)), 0) &&
	    st.state != want)
		bkp_fail("%s: state %u (%s), expected %u", what,
			 (unsigned)st.state, cv_backup_state_name(st.state),
			 (unsigned)want);
}

/* Open, START_BACKUP of partition p; 1 when both worked. */
int start(cv_device *d, int p, const char *what)
{
	if (!check(what, cv_open(d, cv_transport_real(), NULL), 0))
		return 0;
	if (!check(what, cv_start_backup(d, SCN_DISK_MAJOR, (uint32_t)p,
					 part_blocks(p), part_blocks(p)), 0)) {
		cv_close(d);
		return 0;
	}
	return 1;
}

/* The read buffer: as large as the driver allows. */
uint32_t buffer_len(int p)
{
	uint32_t pages = part_bs(p) * 256u / CV_PAGE_SIZE;

	return (pages > 256u ? 256u : pages) * CV_PAGE_SIZE;
}

/* Run lengths of the full backups: all sizes from one block to a full
 * buffer, in a fixed order. */
uint32_t run_length(unsigned i, uint32_t max)
{
	static const uint32_t lengths[] = { 256, 1, 77, 256, 200, 13, 255, 2 };
	uint32_t n = lengths[i % (sizeof(lengths) / sizeof(lengths[0]))];

	return n > max ? max : n;
}

/* ---- 1. full backups --------------------------------------------------- */

static void full_backup(int p, int sdb)
{
	const char *fs = p == 1 ? "ext2" : "ext3";
	uint32_t bs = part_bs(p), total = part_blocks(p);
	uint32_t len = buffer_len(p), max = len / bs, start_bn, n;
	off_t base = (off_t)(p == 1 ? SCN_SDB_P1_START : SCN_SDB_P2_START)
		* 512;
	unsigned lo[NB], hi[NB], i, runs = 0;
	char what[64];
	struct close_log c;
	cv_device d;
	cv_uaddr map;
	pid_t pids[2];
	long cached;
	time_t t0;
	int r = 0;

	snprintf(what, sizeof(what), "full backup of sda%d", p);
	out("BKP step full-backup sda%d (%s)", p, fs);
	reset_shared();
	sh->a_stop = K;
	if (!start(&d, p, what))
		return;
	pids[0] = spawn(writer_a, p);
	pids[1] = spawn(writer_b, p);

	/* Writer A finishes version K and waits; B runs on. */
	for (t0 = time(NULL); sh->a_version < K; usleep(1000))
		if (time(NULL) - t0 > WAIT_S) {
			bkp_fail("%s: writer A never reached version %d", what,
				 K);
			break;
		}
	usleep(50000);			/* some of B's writes in flight */
	for (i = 0; i < NB; i++)
		lo[i] = sh->done[i];
	barrier();
	r = cv_snapshot(&d, NULL, 0);
	barrier();
	for (i = 0; i < NB; i++)
		hi[i] = sh->started[i];
	sh->go = 1;
	barrier();
	check("SNAPSHOT", r, 0);
	check_state(&d, "GET_STATE after SNAPSHOT", BU_STATE_SNAPSHOT);
	out("BKP   snapshot at writer A version %u, writer B versions %u..%u "
	    "of file 0", (unsigned)sh->a_version, lo[0], hi[0]);

	/* The whole partition, run after run, while both writers go on. */
	if (check("mmap of the read buffer", cv_map_read_buffer(&d, len, &map),
		  0)) {
		for (start_bn = 0; start_bn < total && r == 0;
		     start_bn += n, runs++) {
			n = run_length(runs, max);
			if (n > total - start_bn)
				n = total - start_bn;
			r = cv_read_blocks(&d, start_bn, n, map);
			if (r == 0 &&
			    pwrite(sdb, (void *)(uintptr_t)map, n * bs,
				   base + (off_t)start_bn * bs) !=
			    (ssize_t)(n * bs))
				die("write to " SDB);
		}
		if (check("READ_BLOCKS", r, 0))
			out("BKP   read %u blocks in %u runs while writer A was "
			    "at version %u", (unsigned)total, runs,
			    (unsigned)sh->a_version);
		if (fsync(sdb) != 0)
			die("fsync " SDB);
		check_state(&d, "GET_STATE after the reads", BU_STATE_SNAPSHOT);
		check("munmap", cv_munmap(&d, map, len), 0);
	}
	stop_writers(pids, 2, what);
	if (sh->a_version <= K)
		bkp_fail("%s: writer A wrote nothing after the snapshot", what);

	out(MARK_CLOSE);
	check("close", cv_close(&d), 0);
	out(MARK_CLOSED);
	take_log(what, start_lines(p), &c);
	cached = check_close(what, &c, p, "7");
	out("BKP   blocks copied before writes: %ld", cached);
	if (cached <= 0)
		bkp_fail("%s: nothing was copied before a write", what);

	/* What the image must hold. */
	out("BKP image sda%d %s sdb-sector %u sectors %u", p, fs,
	    (unsigned)(base / 512), (unsigned)(total * bs / 512));
	for (i = 0; i < NA; i++)
		out("BKP file sda%d w/f%03u id %u chunks %u versions %u %u", p,
		    i, i, cnt_chunks(i), K, K);
	for (i = 0; i < NB; i++)
		out("BKP file sda%d w/f%03u id %u chunks %u versions %u %u", p,
		    B_ID + i, B_ID + i, cnt_chunks(B_ID + i), lo[i], hi[i]);
	for (i = K - 1; i <= K; i++)
		out("BKP file sda%d w/n%04u id %u chunks %u versions %u %u", p,
		    i, N_ID + i, cnt_chunks(N_ID + i), i, i);
	out("BKP end sda%d", p);
}

/* ---- 2. killed inside READ_BLOCKS --------------------------------------- */

static void reader_forever(int p)
{
	uint32_t len = buffer_len(p), max = len / part_bs(p), bn = 0;
	cv_device d;
	cv_uaddr map;
	int r;

	/* The partition's change tracking has a key this program does not
	 * know: it asks for a fresh session instead of presenting one. */
	if (cv_open(&d, cv_transport_real(), NULL) != 0 ||
	    cv_start_backup(&d, SCN_DISK_MAJOR, (uint32_t)p, part_blocks(p),
			    part_blocks(p)) != 0 ||
	    cv_no_load_from_automap(&d) != 0 ||
	    cv_snapshot(&d, NULL, 0) != 0 ||
	    cv_map_read_buffer(&d, len, &map) != 0)
		_exit(40);
	for (;;) {
		if (bn + max > part_blocks(p))
			bn = 0;
		sh->in_read = 1;
		barrier();
		r = cv_read_blocks(&d, bn, max, map);
		barrier();
		sh->in_read = 0;
		if (r != 0)
			_exit(41);
		sh->reads++;
		bn += max;
	}
}

/* The process state letter of /proc/<pid>/stat, or 0. */
static char proc_state(pid_t pid, char *wchan, size_t size)
{
	char path[64], buf[256], *p;
	int fd;
	ssize_t n;

	snprintf(path, sizeof(path), "/proc/%d/stat", (int)pid);
	fd = open(path, O_RDONLY);
	if (fd < 0)
		return 0;
	n = read(fd, buf, sizeof(buf) - 1);
	close(fd);
	if (n <= 0)
		return 0;
	buf[n] = '\0';
	p = strrchr(buf, ')');
	if (p == NULL || p[1] != ' ')
		return 0;
	snprintf(path, sizeof(path), "/proc/%d/wchan", (int)pid);
	fd = open(path, O_RDONLY);
	wchan[0] = '\0';
	if (fd >= 0) {
		n = read(fd, wchan, size - 1);
		wchan[n > 0 ? n : 0] = '\0';
		close(fd);
	}
	return p[2];
}

static void killed_reader(int p)
{
	const char *what = "reader killed inside READ_BLOCKS";
	char wchan[64] = "", st = 0;
	struct close_log c;
	pid_t writer, reader;
	time_t t0;
	int status = 0, going = 1;

	out("BKP step kill-inside-read sda%d", p);
	reset_shared();
	writer = spawn(writer_b, p);
	reader = spawn(reader_forever, p);
	for (t0 = time(NULL); sh->reads < 3; usleep(1000))
		if (time(NULL) - t0 > WAIT_S ||
		    waitpid(reader, &status, WNOHANG) == reader) {
			bkp_fail("%s: the reader never got going (status "
				 "0x%x)", what, (unsigned)status);
			going = 0;
			break;
		}
	/* Inside the command and asleep in the kernel (waiting for its
	 * disk reads, or for the record's semaphore). */
	out(MARK_CLOSE);
	for (t0 = time(NULL); going && time(NULL) - t0 < 30; usleep(100)) {
		if (!sh->in_read)
			continue;
		st = proc_state(reader, wchan, sizeof(wchan));
		if (st == 'D' && sh->in_read)
			break;
	}
	if (going) {
		kill(reader, SIGKILL);
		if (waitpid(reader, &status, 0) != reader)
			die("waitpid");
	}
	out(MARK_CLOSED);
	if (st != 'D')
		bkp_fail("%s: never caught the reader asleep in the command",
			 what);
	if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGKILL)
		bkp_fail("%s: the reader ended with status 0x%x", what,
			 (unsigned)status);
	out("BKP   SIGKILL after %u reads, the reader in state %c at %s", sh->reads,
	    st ? st : '?', wchan[0] ? wchan : "?");
	stop_writers(&writer, 1, what);
	take_log(what, start_lines(p), &c);
	check_close(what, &c, p, "7");
}

/* ---- 3. close under heavy writes ------------------------------------------ */

static void close_under_writes(int p)
{
	const char *what = "close under heavy writes";
	uint32_t len = buffer_len(p), max = len / part_bs(p);
	struct close_log c;
	unsigned heavy0, i;
	cv_device d;
	cv_uaddr map = 0;
	pid_t pids[2];
	time_t t0;
	long cached;

	out("BKP step close-under-writes sda%d", p);
	reset_shared();
	pids[0] = spawn(writer_heavy, p);
	pids[1] = spawn(writer_b, p);
	if (!start(&d, p, what)) {
		stop_writers(pids, 2, what);
		return;
	}
	/* Without change tracking: the close then takes the queue's
	 * interception away (unsetQueueMRFAMS) instead of handing it to
	 * change tracking. */
	check("NO_START_AUTOMAP", cv_no_start_automap(&d), 0);
	check("SNAPSHOT", cv_snapshot(&d, NULL, 0), 0);
	if (check("mmap of the read buffer", cv_map_read_buffer(&d, len, &map),
		  0)) {
		for (i = 0; i < 4; i++)
			check("READ_BLOCKS", cv_read_blocks(&d, i * max, max,
							    map), 0);
	}
	heavy0 = sh->heavy;
	for (t0 = time(NULL); sh->heavy - heavy0 < (1u << 20); usleep(1000))
		if (time(NULL) - t0 > WAIT_S) {
			bkp_fail("%s: the heavy writer does not write", what);
			break;
		}
	check_state(&d, "GET_STATE before the close", BU_STATE_SNAPSHOT);
	/* The mapping holds the file too: the backup ends when both are
	 * gone, here at the close. */
	if (map != 0)
		check("munmap", cv_munmap(&d, map, len), 0);
	out(MARK_CLOSE);
	check("close", cv_close(&d), 0);
	out(MARK_CLOSED);
	stop_writers(pids, 2, what);
	take_log(what, start_lines(p), &c);
	cached = check_close(what, &c, p, "7");
	out("BKP   blocks copied before writes: %ld", cached);
	if (cached <= 0)
		bkp_fail("%s: nothing was copied before a write", what);
}

/* ---- 4. an idle close without change tracking --------------------------- */

/*
 * Without a tracking session left on the disk, the close takes the
 * queue's interception away (unsetQueueMRFAMS) and, with nothing queued
 * to wait for, sleeps next with interrupts still off: the kernel's one
 * warning that the driver is allowed, inside the marks.
 */
static void close_idle_untracked(int p)
{
	const char *what = "idle close without change tracking";
	struct close_log c;
	cv_device d;

	out("BKP step close-idle-untracked sda%d", p);
	if (!start(&d, p, what))
		return;
	check("NO_START_AUTOMAP", cv_no_start_automap(&d), 0);
	check("SNAPSHOT", cv_snapshot(&d, NULL, 0), 0);
	check_state(&d, "GET_STATE before the close", BU_STATE_SNAPSHOT);
	out(MARK_CLOSE);
	check("close", cv_close(&d), 0);
	out(MARK_CLOSED);
	take_log(what, start_lines(p), &c);
	check_close(what, &c, p, "7");
}

/* ---- the suite ---------------------------------------------------------- */

/* What insmod and rmmod of corvalin.ko make the driver say. */
const char *const bkp_load_lines[] = {
	"<6>kivInit: corvalin version 3.1.0 build 9504 loaded", NULL
};
const char *const bkp_unload_lines[] = {
	"<6>kivUnload: corvalin version 3.1.0 build 9504 ready to be "
	"unloaded",
	"<6>kivExit: corvalin version 3.1.0 build 9504 exiting",
	NULL
};

int bkp_failures(void)
{
	return failures;
}

int bkp_run(void)
{
	char line[256];
	int p, r, sdb;

	failures = 0;
	sh = mmap(NULL, sizeof(*sh), PROT_READ | PROT_WRITE,
		  MAP_SHARED | MAP_ANONYMOUS, -1, 0);
	if (sh == MAP_FAILED)
		die("mmap");
	sdb = open(SDB, O_RDWR);
	if (sdb < 0)
		die(SDB);
	while (guest_klog(line, sizeof(line)))
		;

	out("BKP step setup");
	check("insmod corvalin", insmod("corvalin"), 0);
	for (p = 1; p <= 2; p++) {
		check("mount", guest_mount(p), 0);
		r = setup_files(p);
		if (r != 0)
			bkp_fail("files of sda%d: %s", p, strerror(-r));
	}
	sync();
	take_log("setup", bkp_load_lines, NULL);

	if (failures == 0) {
		full_backup(2, sdb);
		chain_run(sdb);
		full_backup(1, sdb);
		killed_reader(2);
		close_under_writes(2);
		close_idle_untracked(1);
	}
	close(sdb);

	/* The module first: the unload gives the disk's queue its own
	 * function back through the change-tracking sessions' devices,
	 * which it finds only while the partitions are in use. */
	out("BKP step unload");
	check("rmmod corvalin", rmmod("corvalin"), 0);
	take_log("unload", bkp_unload_lines, NULL);
	/* Every queue has its own function back: the partitions still take
	 * writes, through no code of the unloaded module. */
	for (p = 1; p <= 2; p++) {
		r = write_version(p, N_ID + 9999, 1);
		if (r != 0)
			bkp_fail("a write to sda%d after rmmod: %s", p,
				 strerror(-r));
		check("umount", guest_umount(p), 0);
	}
	munmap((void *)sh, sizeof(*sh));
	out("BKP result %d failures", failures);
	return failures;
}
