/*
 * vmbench.c - /init of the benchmark guest (vm/vmbench.sh): the backup
 * benchmarks of bench/ on the real 2.6.27 kernel, with the real module,
 * through libcorvalin's real transport.  A static i386 binary linked
 * against musl, like the boot test's guest.
 *
 * The disk: sda1, an ext3 file system of 4096-byte blocks, mounted on
 * /mnt.  Every backup loads the module afresh and unloads it after the
 * close, so that each starts without change tracking (a snapshot starts
 * it), except where tracking is what is measured.
 *
 *   read    the whole partition with READ_BLOCKS in runs of the largest
 *           read buffer (256 pages), each run checksummed out of the
 *           mapping, against read(2) of /dev/sda1 with O_DIRECT in runs of
 *           the same size (the block layer only, no page cache); and,
 *           for information, read(2) through the page cache after
 *           dropping it (what dd does).
 *   write   WRITE_BLOCKS blocks of a file rewritten in place and fsync'ed:
 *           without a backup; in state 4 right after SNAPSHOT (first
 *           writes: each data block is copied by kbackupd first); and
 *           again in the same backup (rewrites of cached blocks).
 *   freeze  eTimeFrozen and eTimeToFreeze of the snapshot, read from the
 *           close's statistics in the kernel log: idle, and with a child
 *           rewriting a file without pause (dirty pages for the freeze to
 *           write back).
 *   tracking  the write figure's rewrite with the queue left to change
 *           tracking by a closed backup, against the module not loaded.
 *   incremental  blocks read by an incremental backup (key presented,
 *           change map exported, loaded and read) against the data
 *           blocks rewritten since the snapshot before.
 *
 * Results go to the console as "VMB <line>", kernel log lines reporting
 * trouble (BUG, WARNING, traces) as "KLOG <line>"; the last line is
 * "==== corvalin vmbench done ====" (or, when the guest stops on a
 * failure, "==== corvalin guest error: ... ====", see platform.c).
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
#include <sys/ioctl.h>
#include <sys/klog.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include "corvalin_client.h"
#include "guest.h"

#define BLOCK		4096
#define RUN_BYTES	(256 * 4096)
#define WRITE_BLOCKS	2048		/* 8 MiB */
#define READ_REPS	5
#define WRITE_REPS	5
#define FREEZE_REPS	5
#define TRACK_REPS	9	/* pairs of tracked and untracked rewrites */
#define DATA_FILE	"/mnt/data"
#define BUSY_FILE	"/mnt/busy"

static double now(void)
{
	struct timespec ts;

	clock_gettime(CLOCK_MONOTONIC, &ts);
	return (double)ts.tv_sec + (double)ts.tv_nsec / 1e9;
}

static uint64_t checksum(const unsigned char *p, size_t len)
{
	uint64_t s = 0, w;
	size_t i;

	for (i = 0; i + 8 <= len; i += 8) {
		memcpy(&w, p + i, 8);
		s = s * 31 + w;
	}
	return s;
}

static int cmp_double(const void *a, const void *b)
{
	double x = *(const double *)a, y = *(const double *)b;

	return x < y ? -1 : x > y;
}

/* Sorts v. */
static double median(double *v, int n)
{
	qsort(v, (size_t)n, sizeof(*v), cmp_double);
	return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

/* "median (min, max)" of a ratio, and whether the median reaches target. */
static void ratio_line(const char *what, double *v, int n, double target)
{
	double m = median(v, n);

	out("VMB   ratio %s: %.2f (min %.2f, max %.2f)  target >= %.2f: %s",
	    what, m, v[0], v[n - 1], target, m >= target ? "met" : "MISSED");
}

/* ---- the module and the kernel log ------------------------------------ */

static void load_module(void)
{
	int r = insmod("corvalin");

	if (r != 0) {
		errno = -r;
		die("init_module corvalin");
	}
}

static void unload_module(void)
{
	int r = rmmod("corvalin");

	if (r != 0) {
		errno = -r;
		die("delete_module corvalin");
	}
}

/* The value of the last kernel log line holding key, or -1. */
static double klog_value(const char *key)
{
	static char buf[256 * 1024];
	double v = -1;
	char *p;
	int n;

	n = klogctl(3, buf, (int)sizeof(buf) - 1);	/* read all */
	if (n < 0)
		die("klogctl");
	buf[n] = '\0';
	for (p = strstr(buf, key); p; p = strstr(p + 1, key))
		v = strtod(p + strlen(key), NULL);
	return v;
}

/*
 * Kernel trouble since the log was last cleared: each line that reports
 * it goes to the console as "KLOG <line>" (the console itself shows only
 * emergencies), and the count is kept.  Then the log is cleared.
 */
static int klog_trouble;

static void klog_check_and_clear(void)
{
	static const char *const bad[] = {
		"BUG:", "WARNING:", "Call Trace", "Oops", "INFO: "
	};
	static char buf[256 * 1024];
	char *line, *end;
	size_t i;
	int n;

	n = klogctl(3, buf, (int)sizeof(buf) - 1);
	if (n < 0)
		die("klogctl");
	buf[n] = '\0';
	for (line = buf; *line; line = end + (*end != '\0')) {
		end = strchr(line, '\n');
		if (!end)
			end = line + strlen(line);
		for (i = 0; i < sizeof(bad) / sizeof(bad[0]); i++) {
			char *hit = strstr(line, bad[i]);

			if (hit && hit < end) {
				out("KLOG %.*s", (int)(end - line), line);
				klog_trouble++;
				break;
			}
		}
	}
	klogctl(5, NULL, 0);
}

/* ---- a backup ------------------------------------------------------------ */

struct backup {
	cv_device dev;
	cv_uaddr buf;
	uint32_t blocks;
};

static void backup_start(struct backup *b, uint32_t blocks)
{
	int r;

	klog_check_and_clear();
	load_module();
	b->blocks = blocks;
	r = cv_open(&b->dev, cv_transport_real(), CV_DEVICE_PATH);
	if (r)
		die("open /dev/corvalin");
	r = cv_start_backup(&b->dev, 8, 1, blocks, blocks);
	if (r) {
		errno = r;
		die("START_BACKUP");
	}
	r = cv_map_read_buffer(&b->dev, RUN_BYTES, &b->buf);
	if (r) {
		errno = r;
		die("mmap of the read buffer");
	}
}

static void backup_snapshot(struct backup *b)
{
	State st;
	int r = cv_snapshot(&b->dev, NULL, 0);

	if (r) {
		errno = r;
		die("SNAPSHOT");
	}
	if (cv_get_state(&b->dev, &st, sizeof(st)) || st.state != 4) {
		errno = EINVAL;
		die("state 4 after SNAPSHOT");
	}
}

static void backup_close(struct backup *b)
{
	cv_munmap(&b->dev, b->buf, RUN_BYTES);
	if (cv_close(&b->dev))
		die("close /dev/corvalin");
	unload_module();
}

/* ---- read ------------------------------------------------------------------ */

static uint32_t partition_blocks(void)
{
	unsigned long long bytes;
	char line[64];
	FILE *f = fopen("/sys/block/sda/sda1/size", "r");

	if (!f || !fgets(line, sizeof(line), f))
		die("/sys/block/sda/sda1/size");
	fclose(f);
	bytes = strtoull(line, NULL, 10) * 512;
	return (uint32_t)(bytes / BLOCK);
}

static double raw_read(unsigned char *buf, uint64_t *sum)
{
	double t0 = now();
	ssize_t n;
	int fd = open("/dev/sda1", O_RDONLY | O_DIRECT);

	if (fd < 0)
		die("open /dev/sda1");
	*sum = 0;
	while ((n = read(fd, buf, RUN_BYTES)) > 0)
		*sum ^= checksum(buf, (size_t)n);
	if (n < 0)
		die("read /dev/sda1");
	close(fd);
	return now() - t0;
}

/* The same through the page cache (read-ahead), the caches dropped first. */
static double buffered_read(unsigned char *buf, uint64_t *sum)
{
	double t0;
	ssize_t n;
	int fd;

	sync();
	fd = open("/proc/sys/vm/drop_caches", O_WRONLY);
	if (fd < 0 || write(fd, "3\n", 2) != 2)
		die("/proc/sys/vm/drop_caches");
	close(fd);
	t0 = now();
	fd = open("/dev/sda1", O_RDONLY);
	if (fd < 0)
		die("open /dev/sda1");
	*sum = 0;
	while ((n = read(fd, buf, RUN_BYTES)) > 0)
		*sum ^= checksum(buf, (size_t)n);
	if (n < 0)
		die("read /dev/sda1");
	close(fd);
	return now() - t0;
}

static double backup_read(struct backup *b, uint64_t *sum)
{
	const unsigned char *map =
		(const unsigned char *)(uintptr_t)b->buf;
	uint32_t first, n, run = RUN_BYTES / BLOCK;
	double t0 = now();
	int r;

	*sum = 0;
	for (first = 0; first < b->blocks; first += run) {
		n = b->blocks - first < run ? b->blocks - first : run;
		r = cv_read_blocks(&b->dev, first, n, b->buf);
		if (r) {
			errno = r;
			die("READ_BLOCKS");
		}
		*sum ^= checksum(map, (size_t)n * BLOCK);
	}
	return now() - t0;
}

static void bench_read(uint32_t blocks)
{
	double raw[READ_REPS], bak[READ_REPS], ratio[READ_REPS];
	double buffered[READ_REPS];
	double mib = (double)blocks * BLOCK / (1 << 20);
	unsigned char *buf;
	struct backup b;
	uint64_t s1, s2;
	int i;

	if (posix_memalign((void **)&buf, 4096, RUN_BYTES))
		die("posix_memalign");
	for (i = 0; i < READ_REPS; i++) {
		raw[i] = raw_read(buf, &s1);
		buffered[i] = buffered_read(buf, &s1);
		backup_start(&b, blocks);
		backup_snapshot(&b);
		bak[i] = backup_read(&b, &s2);
		backup_close(&b);
		ratio[i] = raw[i] / bak[i];
	}
	free(buf);
	out("VMB read: %.0f MiB partition, runs of %d blocks, %d repetitions",
	    mib, RUN_BYTES / BLOCK, READ_REPS);
	out("VMB   raw O_DIRECT read              %8.1f MiB/s", mib / median(raw, READ_REPS));
	out("VMB   backup read (READ_BLOCKS)      %8.1f MiB/s", mib / median(bak, READ_REPS));
	out("VMB   informative: buffered read     %8.1f MiB/s", mib / median(buffered, READ_REPS));
	ratio_line("backup/raw", ratio, READ_REPS, 0.90);
}

/* ---- write ----------------------------------------------------------------- */

static double rewrite_file(unsigned char fill)
{
	static unsigned char block[BLOCK];
	double t0;
	int fd, i;

	memset(block, fill, sizeof(block));
	t0 = now();
	fd = open(DATA_FILE, O_WRONLY | O_CREAT, 0644);
	if (fd < 0)
		die("open " DATA_FILE);
	for (i = 0; i < WRITE_BLOCKS; i++)
		if (write(fd, block, BLOCK) != BLOCK)
			die("write " DATA_FILE);
	if (fsync(fd))
		die("fsync " DATA_FILE);
	close(fd);
	return now() - t0;
}

static void bench_write(uint32_t blocks)
{
	double none[WRITE_REPS], first[WRITE_REPS], re[WRITE_REPS];
	double rf[WRITE_REPS], rr[WRITE_REPS];
	double mib = (double)WRITE_BLOCKS * BLOCK / (1 << 20);
	unsigned char fill = 1;
	struct backup b;
	int i;

	rewrite_file(fill++);	/* the file exists, allocated, on disk */
	for (i = 0; i < WRITE_REPS; i++) {
		none[i] = rewrite_file(fill++);
		backup_start(&b, blocks);
		backup_snapshot(&b);
		first[i] = rewrite_file(fill++);
		re[i] = rewrite_file(fill++);
		backup_close(&b);
		rf[i] = none[i] / first[i];
		rr[i] = none[i] / re[i];
	}
	out("VMB write: %d blocks of a file rewritten in place, then fsync; "
	    "%d repetitions", WRITE_BLOCKS, WRITE_REPS);
	out("VMB   no backup                      %8.1f MiB/s", mib / median(none, WRITE_REPS));
	out("VMB   state 4, first writes          %8.1f MiB/s", mib / median(first, WRITE_REPS));
	out("VMB   state 4, rewrites              %8.1f MiB/s", mib / median(re, WRITE_REPS));
	ratio_line("first writes / no backup", rf, WRITE_REPS, 0.40);
	ratio_line("rewrites / no backup", rr, WRITE_REPS, 0.95);
}

/* ---- incremental ---------------------------------------------------------- */

/* The file's block N -> the partition's (in place of N), 2.6.27's value;
 * musl carries no kernel headers. */
#ifndef FIBMAP
#define FIBMAP		1
#endif
#define INCR_STRIDE	4	/* every 4th block of the file rewritten */

static unsigned char incr_map[(64u << 20) / BLOCK / 8];

static int map_bit(uint32_t bn)
{
	return incr_map[bn / 8] >> (bn % 8) & 1;
}

/* The session key of the partition, through the running backup b. */
static void current_key(struct backup *b, AMSessionKey *key)
{
	AutoMapState ams;
	int r = cv_get_automap_state(&b->dev, &ams, sizeof(ams));

	if (r || ams.state != AM_STATE_IN_SYNC) {
		errno = r ? r : EINVAL;
		die("GET_AUTOMAP_STATE: a session in sync");
	}
	*key = ams.amsKey;
}

/*
 * Rewrite every INCR_STRIDE-th block of the data file in place, fsync;
 * the partition's block numbers of those blocks go to bns (FIBMAP).
 * Returns how many.
 */
static uint32_t rewrite_some(unsigned char fill, uint32_t *bns)
{
	static unsigned char block[BLOCK];
	uint32_t n = 0;
	int fd, i, bn;

	memset(block, fill, sizeof(block));
	fd = open(DATA_FILE, O_RDWR);
	if (fd < 0)
		die("open " DATA_FILE);
	for (i = 0; i < WRITE_BLOCKS; i += INCR_STRIDE) {
		if (pwrite(fd, block, BLOCK, (off_t)i * BLOCK) != BLOCK)
			die("write " DATA_FILE);
		bn = i;
		if (ioctl(fd, FIBMAP, &bn) != 0 || bn <= 0)
			die("FIBMAP " DATA_FILE);
		bns[n++] = (uint32_t)bn;
	}
	if (fsync(fd))
		die("fsync " DATA_FILE);
	close(fd);
	return n;
}

/* Untracked writes, no module: the same rewrite as with tracking. */
static double write_untracked(unsigned char fill)
{
	return rewrite_file(fill);
}

/*
 * Writes under change tracking alone (no backup running: the close of a
 * snapshotted backup left the queue to the tracking function) against
 * untracked writes (module not loaded), the same rewrite each time.
 */
static void bench_tracking(uint32_t blocks)
{
	double plain[TRACK_REPS], tracked[TRACK_REPS], ratio[TRACK_REPS];
	double mib = (double)WRITE_BLOCKS * BLOCK / (1 << 20);
	unsigned char fill = 0x80;
	struct backup b;
	int i;

	rewrite_file(fill++);		/* allocated, on disk */
	/* Each measured rewrite follows an unmeasured one in the same
	 * setting: neither pays for the snapshot's or the unload's
	 * aftermath. */
	for (i = 0; i < TRACK_REPS; i++) {
		rewrite_file(fill++);
		plain[i] = write_untracked(fill++);
		backup_start(&b, blocks);
		backup_snapshot(&b);
		cv_munmap(&b.dev, b.buf, RUN_BYTES);
		if (cv_close(&b.dev))
			die("close /dev/corvalin");
		rewrite_file(fill++);
		tracked[i] = rewrite_file(fill++);
		unload_module();
		ratio[i] = plain[i] / tracked[i];
	}
	out("VMB write: %d blocks rewritten in place, then fsync; %d "
	    "repetitions", WRITE_BLOCKS, TRACK_REPS);
	out("VMB   untracked (module not loaded)  %8.1f MiB/s",
	    mib / median(plain, TRACK_REPS));
	out("VMB   change tracking only           %8.1f MiB/s",
	    mib / median(tracked, TRACK_REPS));
	ratio_line("tracking only / untracked", ratio, TRACK_REPS, 0.98);
}

/*
 * Read amplification of an incremental backup: a full backup's snapshot
 * starts change tracking; a known set of data blocks is rewritten; the
 * next backup presents the key, exports the change map, loads it and
 * reads exactly its blocks.  Blocks read / data blocks written is the
 * figure; the rest of the map (the journal, inode and bitmap blocks the
 * file system wrote for the same fsync) is counted and shown apart.
 */
static void bench_incremental(uint32_t blocks)
{
	static uint32_t bns[WRITE_BLOCKS / INCR_STRIDE];
	uint32_t n, i, bn, run, in_map = 0, read_blocks = 0, missing = 0;
	uint32_t max = RUN_BYTES / BLOCK;
	unsigned char fill = 0x40;
	AMSessionKey key;
	struct backup b;
	int r;

	if (blocks > sizeof(incr_map) * 8) {
		errno = EFBIG;
		die("partition larger than the incremental map");
	}
	rewrite_file(fill++);		/* allocated, on disk */
	backup_start(&b, blocks);
	backup_snapshot(&b);
	current_key(&b, &key);
	cv_munmap(&b.dev, b.buf, RUN_BYTES);
	if (cv_close(&b.dev))
		die("close /dev/corvalin");

	/* Between backups: only change tracking sees the writes. */
	n = rewrite_some(fill++, bns);

	r = cv_open(&b.dev, cv_transport_real(), CV_DEVICE_PATH);
	if (r == 0)
		r = cv_start_backup(&b.dev, 8, 1, blocks, blocks);
	if (r == 0)
		r = cv_snapshot(&b.dev, &key, sizeof(key));
	if (r == 0)
		r = cv_get_automap(&b.dev, incr_map, blocks);
	if (r == 0)
		r = cv_load_block_map(&b.dev, incr_map, blocks);
	if (r == 0)
		r = cv_map_read_buffer(&b.dev, RUN_BYTES, &b.buf);
	if (r) {
		errno = r;
		die("incremental backup");
	}
	for (i = 0; i < n; i++)
		missing += (uint32_t)!map_bit(bns[i]);
	for (bn = 0; bn < blocks; bn++)
		in_map += (uint32_t)map_bit(bn);
	for (bn = 0; bn < blocks; bn += run) {
		if (!map_bit(bn)) {
			run = 1;
			continue;
		}
		for (run = 1; run < max && bn + run < blocks &&
		     map_bit(bn + run); run++)
			;
		r = cv_read_blocks(&b.dev, bn, run, b.buf);
		if (r) {
			errno = r;
			die("READ_BLOCKS of the incremental");
		}
		read_blocks += run;
	}
	backup_close(&b);

	out("VMB incremental: %u data blocks rewritten in place (every %d-th "
	    "of a %d-block file), then fsync", (unsigned)n, INCR_STRIDE,
	    WRITE_BLOCKS);
	out("VMB   change map %u blocks: the %u data blocks (%u missing) and "
	    "%u of the file system's own (journal, inode, bitmaps)",
	    (unsigned)in_map, (unsigned)(n - missing), (unsigned)missing,
	    (unsigned)(in_map - (n - missing)));
	out("VMB   blocks read %u = blocks in the map %u", (unsigned)read_blocks,
	    (unsigned)in_map);
	out("VMB   ratio read amplification (blocks read / data blocks "
	    "written): %.2f  target 1.00 plus the file system's own: %s",
	    (double)read_blocks / n,
	    missing == 0 && read_blocks == in_map ? "met" : "MISSED");
}

/* ---- freeze ---------------------------------------------------------------- */

static void busy_writer(void)
{
	static unsigned char chunk[65536];
	int fd = open(BUSY_FILE, O_WRONLY | O_CREAT, 0644);
	unsigned i = 0;

	if (fd < 0)
		_exit(1);
	for (;;) {
		memset(chunk, (int)(i & 0xff), sizeof(chunk));
		if (pwrite(fd, chunk, sizeof(chunk),
			   (off_t)(i % 128) * sizeof(chunk)) < 0)
			_exit(1);
		i++;
	}
}

static void bench_freeze(uint32_t blocks)
{
	double frozen[2][FREEZE_REPS], tofreeze[2][FREEZE_REPS];
	struct backup b;
	pid_t child = 0;
	int busy, i;

	for (busy = 0; busy < 2; busy++) {
		for (i = 0; i < FREEZE_REPS; i++) {
			sync();
			backup_start(&b, blocks);
			if (busy) {
				child = fork();
				if (child == 0)
					busy_writer();
				usleep(300000);
			}
			backup_snapshot(&b);
			if (busy) {
				kill(child, SIGKILL);
				waitpid(child, NULL, 0);
			}
			cv_munmap(&b.dev, b.buf, RUN_BYTES);
			if (cv_close(&b.dev))
				die("close /dev/corvalin");
			frozen[busy][i] = klog_value(
				"printStats: time frozen in seconds: ") * 1e3;
			tofreeze[busy][i] = klog_value(
				"printStats: time to freeze in seconds: ") * 1e3;
			unload_module();
		}
	}
	for (busy = 0; busy < 2; busy++) {
		/* median() sorts: min and max are read after it. */
		double mf = median(frozen[busy], FREEZE_REPS);
		double mt = median(tofreeze[busy], FREEZE_REPS);

		out("VMB freeze %s: eTimeFrozen median %.3f ms (min %.3f, max "
		    "%.3f), eTimeToFreeze median %.3f ms (%d snapshots)",
		    busy ? "busy" : "idle", mf, frozen[busy][0],
		    frozen[busy][FREEZE_REPS - 1], mt, FREEZE_REPS);
	}
	out("VMB   idle freeze window target <= 5 ms: %s",
	    median(frozen[0], FREEZE_REPS) <= 5.0 ? "met" : "MISSED");
}

/* ---- set-up ---------------------------------------------------------------- */

static void setup(void)
{
	struct stat st;
	int waited;

	guest_setup();
	node("/dev/sda", S_IFBLK, 8, 0);
	node("/dev/sda1", S_IFBLK, 8, 1);
	for (waited = 0; stat("/sys/block/sda/sda1", &st) != 0; waited += 50) {
		if (waited >= 10000) {
			errno = ENODEV;
			die("no /sys/block/sda/sda1");
		}
		usleep(50000);
	}
	if (mount("/dev/sda1", "/mnt", "ext3", 0, NULL) != 0)
		die("mount /dev/sda1");
	/* Only emergencies on the console: the module's lines are read
	 * from the log, and the serial line is slow. */
	klogctl(8, NULL, 1);
}

int main(void)
{
	uint32_t blocks;

	setup();
	out("==== corvalin vmbench ====");
	blocks = partition_blocks();
	bench_read(blocks);
	bench_write(blocks);
	bench_freeze(blocks);
	bench_tracking(blocks);
	bench_incremental(blocks);
	if (umount("/mnt") != 0)
		die("umount /mnt");
	klog_check_and_clear();
	out("VMB kernel log: %d lines reporting trouble", klog_trouble);
	out("==== corvalin vmbench done ====");
	power_off();
	return 0;
}
