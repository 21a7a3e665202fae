/*
 * scenario.c - the boot scenario of corvalin (see scenario.h).
 *
 * The scenario checks what it can by itself (results, answer bytes, the
 * module's kernel log lines) and writes a transcript that the boot test
 * compares across the two worlds.  Kernel log lines that the kernel itself
 * prints in reaction to a step (file-system mounts, module taint) are not
 * the module's: they are written as "  kernel ..." lines, which are neither
 * checked nor compared.
 *
 * Work done in another process goes through the platform's run(): only an
 * int goes in and out, so each action there is an operation code with its
 * arguments packed into that int (see proc_main), and the per-process
 * state lives in the single static struct scn, of which a forked process
 * has its own copy.
 *
 * C99 that also compiles as C++: the guest builds it as C, the emulated
 * run compiles it into its C++ test (tests/test_scenario.cpp).
 */
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "scenario.h"

#define LINE_MAX_LEN	256
#define PATTERN		0xa5	/* fill of answer areas before a call */

struct scn {
	const struct scn_platform *p;
	int failures;
	cv_device dev[SCN_PROCS];	/* each process uses its own entry */
	cv_uaddr map[SCN_PROCS];	/* its read buffer, 0 when none */
	uint32_t map_len[SCN_PROCS];
	int timing_seen;		/* timing lines since the last look */
};

static struct scn scn_state;

/* Kernel log lines that the kernel, not the module, prints. */
static const char *const kernel_lines[] = {
	"kjournald starting",
	"EXT3 FS on ",
	"EXT3-fs: ",
	"EXT2-fs ",
	"EXT2-fs: ",
	"Disabling lock debugging due to kernel taint",
	NULL
};

static void say(struct scn *s, const char *fmt, ...)
{
	char line[LINE_MAX_LEN];
	va_list ap;

	va_start(ap, fmt);
	vsnprintf(line, sizeof(line), fmt, ap);
	va_end(ap);
	s->p->print(s->p->ctx, line);
}

static void fail(struct scn *s, const char *fmt, ...)
{
	char line[LINE_MAX_LEN];
	va_list ap;

	va_start(ap, fmt);
	vsnprintf(line, sizeof(line), fmt, ap);
	va_end(ap);
	say(s, "  FAIL %s", line);
	s->failures++;
}

/* Print "  what = got" and check it. */
static void expect(struct scn *s, const char *what, long got, long want)
{
	say(s, "  %s = %ld", what, got);
	if (got != want)
		fail(s, "%s: got %ld, expected %ld", what, got, want);
}

/*
 * The statistics printout at a backup's close has two lines whose values
 * are measured times (the freeze); they differ from run to run and from
 * world to world, so they are checked for their form only and written as
 * "  timing ..." lines, which are not compared.
 */
static const char *const timing_lines[] = {
	"<6>printStats: time to freeze in seconds: ",
	"<6>printStats: time frozen in seconds: ",
	NULL
};

/* 1 when line is a timing line of the right form ("%d.%09d"). */
static int is_timing_line(const char *line)
{
	const char *t;
	int i, n;

	for (i = 0; timing_lines[i] != NULL; i++) {
		if (strncmp(line, timing_lines[i], strlen(timing_lines[i])))
			continue;
		t = line + strlen(timing_lines[i]);
		if (*t == '-')
			return 0;	/* a time never runs backwards */
		while (*t >= '0' && *t <= '9')
			t++;
		if (*t++ != '.')
			return 0;
		for (n = 0; *t >= '0' && *t <= '9'; n++)
			t++;
		return n == 9 && *t == '\0';
	}
	return 0;
}

static int is_kernel_line(const char *line)
{
	const char *text = line;
	int i;

	if (text[0] == '<' && text[1] != '\0' && text[2] == '>')
		text += 3;
	/* "<N>corvalin: module license '...' taints kernel." */
	if (strstr(text, ": module license ") != NULL)
		return 1;
	for (i = 0; kernel_lines[i] != NULL; i++)
		if (strncmp(text, kernel_lines[i], strlen(kernel_lines[i])) == 0)
			return 1;
	return 0;
}

/*
 * Print the kernel log lines logged since the last look and check that the
 * module's lines are exactly `want` (NULL-terminated), in order.
 */
static void expect_log_v(struct scn *s, const char *const *want)
{
	char line[LINE_MAX_LEN];
	int n = 0;

	s->timing_seen = 0;
	while (s->p->klog(s->p->ctx, line, sizeof(line))) {
		if (is_kernel_line(line)) {
			say(s, "  kernel %s", line);
			continue;
		}
		if (is_timing_line(line)) {
			say(s, "  timing %s", line);
			s->timing_seen++;
			continue;
		}
		say(s, "  klog %s", line);
		if (want[n] == NULL)
			fail(s, "unexpected log line");
		else if (strcmp(line, want[n++]) != 0)
			fail(s, "log line differs from \"%s\"", want[n - 1]);
	}
	for (; want[n] != NULL; n++)
		fail(s, "missing log line \"%s\"", want[n]);
}

#define expect_log(s, ...) do {						\
		static const char *const want_[] = { __VA_ARGS__ };	\
		expect_log_v((s), want_);				\
	} while (0)

#define BANNER	"<6>kivInit: corvalin version 3.1.0 build 9504 "
#define LOADED	BANNER "loaded"
#define FAILED	BANNER "load FAILED"
#define UNLOADED \
	"<6>kivUnload: corvalin version 3.1.0 build 9504 ready to be unloaded", \
	"<6>kivExit: corvalin version 3.1.0 build 9504 exiting"

/*
 * What the close of a started (or refused) backup logs: `pre` (the cache
 * thread's exit, the queue hand-back's messages), the statistics printout
 * with every counter that must be back to zero at zero, and "backup
 * finished".  The two timing lines come between; they are checked for
 * their form (see timing_lines).
 */
struct close_want {
	int major, minor, state, block_size;
	unsigned part_kb, blocks;
	int am_pages;			/* the session maps' pages */
	unsigned max_cache;
	int total_pages, total_brs, reads_disk;
	unsigned part_start;
	int blocks_per_page, max_vm_pages, commands;
};

#define CLOSE_LINES	40

static void expect_close_log(struct scn *s, const char *const *pre,
			     const struct close_want *w)
{
	static char text[CLOSE_LINES][LINE_MAX_LEN];
	const char *want[CLOSE_LINES + 1];
	int n = 0, i;

#define STAT(...) snprintf(text[n], LINE_MAX_LEN, "<6>printStats: " __VA_ARGS__), \
		  want[n] = text[n], n++
	for (i = 0; pre[i] != NULL; i++)
		want[n++] = pre[i];
	STAT("device: major(%u) minor(%u)", (unsigned)w->major,
	     (unsigned)w->minor);
	STAT("state: %u", (unsigned)w->state);
	STAT("block size: %i", w->block_size);
	STAT("partition size (KB): %u", w->part_kb);
	STAT("file system size (blocks): %u", w->blocks);
	STAT("pages allocated for write journal: %d", w->am_pages);
	STAT("max cache size in blocks: %i", (int)w->max_cache);
	STAT("total pages allocated: %d", w->total_pages);
	STAT("current pages allocated: %d", 0);
	STAT("total Block Requests allocated: %d", w->total_brs);
	STAT("current Block Requests allocated: %d", 0);
	STAT("total cached blocks: %d", 0);
	STAT("current cached blocks: %d", 0);
	STAT("peak cached blocks: %d", 0);
	STAT("total block cache data structures: %d", 0);
	STAT("current block cache data structures: %d", 0);
	STAT("total reads from disk: %d", w->reads_disk);
	STAT("total reads from cache: %d", 0);
	STAT("blocks cleaned from cache: %d", 0);
	STAT("partition start (sector): %u", w->part_start);
	STAT("blocks per page: %i", w->blocks_per_page);
	STAT("max buffer size in pages: %i", w->max_vm_pages);
	STAT("buffer pages allocated: %i", 0);
	STAT("commands processed: %d", w->commands);
#undef STAT
	snprintf(text[n], LINE_MAX_LEN, "<6>closeBackup: backup finished "
		 "device major=%d minor=%d", w->major, w->minor);
	want[n] = text[n];
	n++;
	want[n] = NULL;
	expect_log_v(s, want);
	if (s->timing_seen != 2)
		fail(s, "%d timing lines in the statistics, expected 2",
		     s->timing_seen);
}

#define THREAD_STARTED	"<6>backup_cache: kbackupd thread started"
#define THREAD_EXITING	"<6>backup_cache: backupd thread exiting"

/* ---- work inside a process ------------------------------------------ */

enum {
	OP_OPEN,		/* arg: result expected */
	OP_CLOSE,
	OP_SYSCALLS,		/* read, write, poll: all 0 */
	OP_VERSION,		/* arg: 0 major, 1 minor */
	OP_STATE,		/* arg: len */
	OP_RAW,			/* arg: 0 unknown number 11, 1 0x2a0c, 2 COMMAND_16 */
	OP_BAD_ARG,		/* argument record unreadable */
	OP_BAD_ANSWER,		/* arg: 0 GET_STATE, 1 GET_VERSION_MAJOR */
	OP_UNLOAD,
	OP_BLOCK_SIZE,		/* arg: minor | len << 8 | mounted << 15 */
	OP_START,		/* arg: minor | result << 8 */
	OP_SNAPSHOT,		/* arg: result */
	OP_BACKUP_STATE,	/* arg: minor | state << 8 (GET_STATE) */
	OP_MAP,			/* arg: pages | result << 10 */
	OP_UNMAP,
	OP_READ,		/* arg: index into read_cases */
	OP_READ_ALL,		/* arg: minor */
	OP_SYNC
};

static const char *const op_names[] = {
	"open", "close", "syscalls", "version", "state", "raw", "bad_arg",
	"bad_answer", "unload", "block_size", "start_backup", "snapshot",
	"backup_state", "map", "unmap", "read_blocks", "read_all", "sync"
};

/* The partitions' geometry, by minor. */
static uint32_t part_blocks(int minor)
{
	return minor == 1 ? SCN_P1_BLOCKS : SCN_P2_BLOCKS;
}

static uint32_t part_block_size(int minor)
{
	return minor == 1 ? SCN_P1_BLOCK : SCN_P2_BLOCK;
}

/* The read buffer's largest size for a block size: 256 blocks, at most
 * 256 pages. */
static uint32_t max_map_pages(uint32_t block_size)
{
	uint32_t pages = block_size * 256u / CV_PAGE_SIZE;

	return pages > 256u ? 256u : pages;
}

/*
 * READ_BLOCKS calls that the driver refuses or answers at once, on the
 * backup of sda1 (1024-byte blocks, a read buffer of 64 pages).  `offset`
 * is added to the buffer's address.
 */
struct read_case {
	uint32_t start, count, offset;
	int result;
};

static const struct read_case read_cases[] = {
	{ 0u, 257u, 0u, KIV_ERR_INVALID },	/* more than the buffer holds */
	{ 0u, 16u, 4096u, KIV_ERR_INVALID },	/* not the buffer's start */
	{ SCN_P1_BLOCKS - 4u, 8u, 0u, KIV_ERR_INVALID },  /* beyond the end */
	{ 0xffffffffu, 1u, 0u, KIV_ERR_INVALID },	/* range wraps */
	{ 10u, 0u, 0u, 0 },			/* nothing to read */
	{ SCN_P1_BLOCKS - 256u, 256u, 0u, 0 },	/* ends at the last block */
	{ 0u, 1u, 0u, KIV_ERR_INVALID }		/* no buffer (state check) */
};

static void fill(void *p, size_t n)
{
	memset(p, PATTERN, n);
}

/* 1 when the n bytes at p all still hold the fill pattern. */
static int untouched(const void *p, size_t n)
{
	const unsigned char *b = (const unsigned char *)p;
	size_t i;

	for (i = 0; i < n; i++)
		if (b[i] != PATTERN)
			return 0;
	return 1;
}

static void op_state(struct scn *s, cv_device *d, int len)
{
	char what[64];
	State st;
	size_t got = (size_t)len < sizeof(st) ? (size_t)len : sizeof(st);

	fill(&st, sizeof(st));
	snprintf(what, sizeof(what), "GET_STATE len %d", len);
	expect(s, what, cv_get_state(d, &st, (uint32_t)len), 0);
	say(s, "  state %08x %08x %08x %08x %08x", (unsigned)st.major,
	    (unsigned)st.minor, (unsigned)st.state, (unsigned)st.blockSize,
	    (unsigned)st.mmapSize);
	/* Before a backup the answer is all zero, and only len bytes of it
	 * arrive: the rest keeps what the area held. */
	{
		static const unsigned char zero[sizeof(State)] = { 0 };

		if (memcmp(&st, zero, got) != 0)
			fail(s, "GET_STATE len %d: answer not zero", len);
		if (!untouched((unsigned char *)&st + got, sizeof(st) - got))
			fail(s, "GET_STATE len %d: wrote beyond len", len);
	}
}

static void op_block_size(struct scn *s, cv_device *d, int minor, int len,
			  int mounted)
{
	char what[64];
	BlockSize bs;
	int r;

	fill(&bs, sizeof(bs));
	snprintf(what, sizeof(what), "GET_BLOCK_SIZE %d:%d len %d",
		 SCN_DISK_MAJOR, minor, len);
	r = cv_get_block_size(d, SCN_DISK_MAJOR, (uint32_t)minor, &bs,
			      (uint32_t)len);
	say(s, "  %s = %d", what, r);
	say(s, "  block size %08x %08x %08x %08x", (unsigned)bs.major,
	    (unsigned)bs.minor, (unsigned)bs.blockSize,
	    (unsigned)bs.partitionSizeKB);
	if (mounted) {
		if (r != 0) {
			fail(s, "%s: got %d, expected 0", what, r);
			return;
		}
		if (bs.major != SCN_DISK_MAJOR || bs.minor != (uint32_t)minor)
			fail(s, "%s: wrong device in the answer", what);
		if (len < 16) {
			if (!untouched(&bs.blockSize, 8))
				fail(s, "%s: wrote beyond len", what);
			return;
		}
		if (bs.blockSize != (minor == 1 ? SCN_P1_BLOCK : SCN_P2_BLOCK))
			fail(s, "%s: block size %d", what, (int)bs.blockSize);
		if (bs.partitionSizeKB !=
		    (minor == 1 ? SCN_P1_SECTORS : SCN_P2_SECTORS) / 2u)
			fail(s, "%s: size %u KiB", what,
			     (unsigned)bs.partitionSizeKB);
	} else {
		/* Not mounted: 8, and nothing written. */
		if (r != KIV_ERR_NO_FS)
			fail(s, "%s: got %d, expected %d", what, r,
			     KIV_ERR_NO_FS);
		if (!untouched(&bs, sizeof(bs)))
			fail(s, "%s: wrote an answer", what);
	}
}

static void op_start(struct scn *s, cv_device *d, int proc, int minor,
		     int want)
{
	char what[64];

	snprintf(what, sizeof(what), "[p%d] START_BACKUP %d:%d", proc,
		 SCN_DISK_MAJOR, minor);
	expect(s, what, cv_start_backup(d, SCN_DISK_MAJOR, (uint32_t)minor,
					part_blocks(minor), part_blocks(minor)),
	       want);
}

/* GET_STATE of a started (or refused, minor 0) backup. */
static void op_backup_state(struct scn *s, cv_device *d, int proc, int minor,
			    int state)
{
	char what[64];
	State st;
	uint32_t bs = minor ? part_block_size(minor) : 0;

	fill(&st, sizeof(st));
	snprintf(what, sizeof(what), "[p%d] GET_STATE", proc);
	expect(s, what, cv_get_state(d, &st, sizeof(st)), 0);
	say(s, "  state %08x %08x %08x %08x %08x", (unsigned)st.major,
	    (unsigned)st.minor, (unsigned)st.state, (unsigned)st.blockSize,
	    (unsigned)st.mmapSize);
	if (st.major != (uint32_t)(minor ? SCN_DISK_MAJOR : 0) ||
	    st.minor != (uint32_t)minor || st.state != (uint32_t)state ||
	    (uint32_t)st.blockSize != bs ||
	    (uint32_t)st.mmapSize !=
	    (minor ? max_map_pages(bs) * CV_PAGE_SIZE : 0u))
		fail(s, "%s: not the backup of 8:%d in state %d", what, minor,
		     state);
}

static void op_map(struct scn *s, cv_device *d, int proc, int pages,
		   int want)
{
	char what[64];
	cv_uaddr addr = 0;
	uint32_t len = (uint32_t)pages * CV_PAGE_SIZE;
	int r = cv_map_read_buffer(d, len, &addr);

	snprintf(what, sizeof(what), "[p%d] mmap %d pages", proc, pages);
	expect(s, what, r, want);
	if (r == 0) {
		s->map[proc] = addr;
		s->map_len[proc] = len;
	}
}

static void op_read(struct scn *s, cv_device *d, int proc, int i)
{
	const struct read_case *c = &read_cases[i];
	char what[96];
	cv_uaddr data = s->map[proc] ? s->map[proc] + c->offset : 0;

	snprintf(what, sizeof(what), "[p%d] READ_BLOCKS %u+%u at buffer+%u",
		 proc, (unsigned)c->start, (unsigned)c->count,
		 (unsigned)c->offset);
	expect(s, what, cv_read_blocks(d, c->start, c->count, data),
	       c->result);
}

/*
 * The whole partition, run after run of a full buffer, in order; every
 * run must succeed.  The image itself differs between the worlds (the
 * guest's mounts write their super blocks), so only the file system's
 * magic number (byte 1080 of the partition) is shown, when the disk holds
 * the file systems that vm/mkdisk.sh makes.
 */
static void op_read_all(struct scn *s, cv_device *d, int proc, int minor)
{
	uint32_t bs = part_block_size(minor), total = part_blocks(minor);
	uint32_t run = max_map_pages(bs) * CV_PAGE_SIZE / bs, start, n;
	unsigned char magic[2] = { 0, 0 };
	int runs = 0, r = 0;

	for (start = 0; start < total && r == 0; start += n, runs++) {
		n = total - start < run ? total - start : run;
		r = cv_read_blocks(d, start, n, s->map[proc]);
		if (r == 0 && start == 0 &&
		    cv_mem_read(d, s->map[proc] + 1080u, magic, 2) != 0)
			fail(s, "reading the read buffer");
	}
	say(s, "  [p%d] READ_BLOCKS 0..%u in %d runs of %u = %d", proc,
	    (unsigned)total - 1, runs, (unsigned)run, r);
	if (r != 0)
		fail(s, "READ_BLOCKS of run %d: %d", runs, r);
	if (!s->p->disk_has_fs)
		return;
	say(s, "  file system magic %02x%02x", magic[1], magic[0]);
	if (magic[0] != 0x53 || magic[1] != 0xef)
		fail(s, "no ext2 magic in the image");
}

static int proc_main(int packed)
{
	struct scn *s = &scn_state;
	int proc = (packed >> 28) & 0xf;
	int op = (packed >> 16) & 0xff;
	int arg = packed & 0xffff;
	cv_device *d = &s->dev[proc];
	const struct cv_transport *tp = s->p->transport(s->p->ctx);
	int before = s->failures;
	char what[64];
	uint32_t v;
	int r;

	switch (op) {
	case OP_OPEN:
		snprintf(what, sizeof(what), "[p%d] open", proc);
		expect(s, what, cv_open(d, tp, CV_DEVICE_PATH), arg - 0x100);
		break;
	case OP_CLOSE:
		snprintf(what, sizeof(what), "[p%d] close", proc);
		expect(s, what, cv_close(d), 0);
		break;
	case OP_SYSCALLS:
		snprintf(what, sizeof(what), "[p%d] read 16", proc);
		expect(s, what, s->p->sys(s->p->ctx, d->fd, SCN_SYS_READ), 0);
		snprintf(what, sizeof(what), "[p%d] write 16", proc);
		expect(s, what, s->p->sys(s->p->ctx, d->fd, SCN_SYS_WRITE), 0);
		snprintf(what, sizeof(what), "[p%d] poll", proc);
		expect(s, what, s->p->sys(s->p->ctx, d->fd, SCN_SYS_POLL), 0);
		break;
	case OP_VERSION:
		v = 0xdeadbeef;
		snprintf(what, sizeof(what), "[p%d] GET_VERSION_%s", proc,
			 arg ? "MINOR" : "MAJOR");
		r = arg ? cv_get_version_minor(d, &v) :
			  cv_get_version_major(d, &v);
		expect(s, what, r, 0);
		snprintf(what, sizeof(what), "[p%d] version %s", proc,
			 arg ? "minor" : "major");
		expect(s, what, (long)v, arg ? KIV_VERSION_MINOR :
					       KIV_VERSION_MAJOR);
		break;
	case OP_STATE:
		op_state(s, d, arg);
		break;
	case OP_RAW: {
		static const uint32_t codes[] = {
			0x40042a0bu, 0x00002a0cu, KIV_IOC_COMMAND_16
		};
		static const int results[] = {
			KIV_ERR_UNKNOWN, KIV_ERR_UNKNOWN, KIV_ERR_REFUSED
		};

		snprintf(what, sizeof(what), "[p%d] ioctl 0x%08x", proc,
			 (unsigned)codes[arg]);
		expect(s, what, cv_ioctl(d, codes[arg], 0), results[arg]);
		break;
	}
	case OP_BAD_ARG:
		snprintf(what, sizeof(what), "[p%d] GET_STATE unreadable "
			 "argument", proc);
		expect(s, what, cv_ioctl(d, KIV_IOC_GET_STATE,
					 s->p->unmapped(s->p->ctx)),
		       KIV_ERR_COPY_IN);
		break;
	case OP_BAD_ANSWER: {
		cv_uaddr ro = s->p->readonly(s->p->ctx);
		cv_uaddr rec;
		GetState g;

		if (arg == 1) {
			snprintf(what, sizeof(what), "[p%d] GET_VERSION_MAJOR "
				 "read-only answer", proc);
			expect(s, what, cv_ioctl(d, KIV_IOC_GET_VERSION_MAJOR,
						 ro), KIV_ERR_COPY_OUT);
			break;
		}
		g.s = ro;
		g.len = sizeof(State);
		r = cv_mem_alloc(d, sizeof(g), &rec);
		if (r == 0)
			r = cv_mem_write(d, rec, &g, sizeof(g));
		if (r != 0) {
			fail(s, "user memory for GetState: %s",
			     cv_result_name(r));
			break;
		}
		snprintf(what, sizeof(what), "[p%d] GET_STATE read-only answer",
			 proc);
		expect(s, what, cv_ioctl(d, KIV_IOC_GET_STATE, rec),
		       KIV_ERR_COPY_OUT);
		cv_mem_free(d, rec, sizeof(g));
		break;
	}
	case OP_UNLOAD:
		snprintf(what, sizeof(what), "[p%d] UNLOAD", proc);
		expect(s, what, cv_unload(d), 0);
		break;
	case OP_BLOCK_SIZE:
		op_block_size(s, d, arg & 0xff, (arg >> 8) & 0x7f,
			      (arg >> 15) & 1);
		break;
	case OP_START:
		op_start(s, d, proc, arg & 0xff, arg >> 8);
		break;
	case OP_SNAPSHOT:
		snprintf(what, sizeof(what), "[p%d] SNAPSHOT", proc);
		expect(s, what, cv_snapshot(d, NULL, 0), arg);
		break;
	case OP_BACKUP_STATE:
		op_backup_state(s, d, proc, arg & 0xff, arg >> 8);
		break;
	case OP_MAP:
		op_map(s, d, proc, arg & 0x3ff, arg >> 10);
		break;
	case OP_UNMAP:
		snprintf(what, sizeof(what), "[p%d] munmap", proc);
		expect(s, what, cv_munmap(d, s->map[proc], s->map_len[proc]),
		       0);
		s->map[proc] = 0;
		s->map_len[proc] = 0;
		break;
	case OP_READ:
		op_read(s, d, proc, arg);
		break;
	case OP_READ_ALL:
		op_read_all(s, d, proc, arg);
		break;
	case OP_SYNC:
		snprintf(what, sizeof(what), "[p%d] SYNC", proc);
		expect(s, what, cv_sync(d), 0);
		break;
	default:
		fail(s, "unknown operation %d", op);
		break;
	}
	/* Hand the failures back instead of keeping them: this may be a
	 * copy of the scenario's state in another process. */
	r = s->failures - before;
	s->failures = before;
	return r;
}

/* Run operation op in process proc; its failures count here. */
static void in_proc(struct scn *s, int proc, int op, int arg)
{
	int packed = proc << 28 | op << 16 | (arg & 0xffff);
	int failures = s->p->run(s->p->ctx, proc, proc_main, packed);

	if (failures < 0)
		fail(s, "[p%d] %s: the process did not answer", proc,
		     op_names[op]);
	else
		s->failures += failures;
}

static void open_expect(struct scn *s, int proc, int result)
{
	in_proc(s, proc, OP_OPEN, result + 0x100);
}

static void module(struct scn *s, int load, int which, int want)
{
	const char *name = which == SCN_MOD_CORVALIN ? "corvalin" : "blocker";
	char what[64];
	int r;

	if (load)
		r = s->p->load_module(s->p->ctx, which);
	else
		r = s->p->unload_module(s->p->ctx, which);
	snprintf(what, sizeof(what), "%s %s", load ? "insmod" : "rmmod", name);
	expect(s, what, r, want);
}

static void mount_fs(struct scn *s, int on, int partition)
{
	char what[64];
	int r;

	r = on ? s->p->mount(s->p->ctx, partition) :
		 s->p->umount(s->p->ctx, partition);
	snprintf(what, sizeof(what), "%s sda%d", on ? "mount" : "umount",
		 partition);
	expect(s, what, r, 0);
	/* The file systems speak; the module must not. */
	expect_log(s, NULL);
}

/* The argument of OP_BLOCK_SIZE. */
#define BS(minor, len, mounted)	((minor) | (len) << 8 | (mounted) << 15)

/* Linux's errno values, whatever the host. */
#define LX_ENOENT	2
#define LX_ENXIO	6
#define LX_EAGAIN	11
#define LX_EBUSY	16

/* The argument of OP_START, OP_BACKUP_STATE and OP_MAP. */
#define START(minor, result)	((minor) | (result) << 8)
#define BSTATE(minor, state)	((minor) | (state) << 8)
#define MAP(pages, result)	((pages) | (result) << 10)

/*
 * A backup's life on an idle partition, as far as it is the same in both
 * worlds: refusals before a start, a start refused because another backup
 * holds the slot, the close of the refused record and of a backup never
 * snapshotted, then a full backup of the idle ext2 partition (sda1):
 * snapshot, the read buffer, the refusals of READ_BLOCKS, the whole
 * partition read run after run, SYNC, close.  Nothing writes to sda1
 * meanwhile, so nothing is copied before a write and every counter of the
 * statistics is known.  Both processes have their files open on entry and
 * on return.  (The backups with writers running are the guest's alone:
 * vm/guest/backup.c.)
 */
static void backup_steps(struct scn *s)
{
	static const char *const thread_exit[] = { THREAD_EXITING, NULL };
	static const char *const null_queue[] = {
		"<3>countQueueAMS: Could not count ams sessions for request "
		"queue because queue was null.",
		"<3>unsetQueueMRFAMS: Could not unset MRFS for request queue "
		"because queue was null.",
		NULL
	};
	struct close_want w;

	say(s, "step backup-refusals");
	in_proc(s, 0, OP_READ, 6);
	expect_log(s, "<3>ioctlReadBlocks: state (0) not valid", NULL);
	in_proc(s, 0, OP_SNAPSHOT, KIV_ERR_INVALID);
	in_proc(s, 0, OP_MAP, MAP(1, KIV_ERR_INVALID));
	expect_log(s, NULL);

	say(s, "step backup-slot");
	in_proc(s, 0, OP_START, START(2, 0));
	expect_log(s, THREAD_STARTED, "<6>ioctlStartBackup: backup started "
		   "for device major=8 minor=2", NULL);
	in_proc(s, 1, OP_START, START(1, KIV_ERR_BUSY));
	expect_log(s, "<3>ioctlStartBackup: another backup operation is open "
		   "can't start backup on device major=8 minor=1", NULL);
	in_proc(s, 0, OP_BACKUP_STATE, BSTATE(2, BU_STATE_STARTED));
	in_proc(s, 1, OP_BACKUP_STATE, BSTATE(0, BU_STATE_REFUSED));
	in_proc(s, 0, OP_READ, 6);
	expect_log(s, "<3>ioctlReadBlocks: state (2) not valid", NULL);

	/* The refused record has no device: no queue to hand back. */
	say(s, "step backup-close-refused");
	in_proc(s, 1, OP_CLOSE, 0);
	memset(&w, 0, sizeof(w));
	w.state = BU_STATE_REFUSED;
	/* Its file's commands since the open, START_BACKUP and GET_STATE
	 * included (every command counts, refused or unknown). */
	w.commands = 10;
	expect_close_log(s, null_queue, &w);

	/* Never snapshotted: the queue was never hooked. */
	say(s, "step backup-close-started");
	in_proc(s, 0, OP_CLOSE, 0);
	memset(&w, 0, sizeof(w));
	w.major = SCN_DISK_MAJOR;
	w.minor = 2;
	w.state = BU_STATE_CLOSING;
	w.block_size = SCN_P2_BLOCK;
	w.part_kb = SCN_P2_SECTORS / 2;
	w.blocks = SCN_P2_BLOCKS;
	w.max_cache = SCN_P2_BLOCKS;
	w.total_pages = 1;		/* the cache map */
	w.part_start = SCN_P2_START;
	w.blocks_per_page = CV_PAGE_SIZE / SCN_P2_BLOCK;
	w.max_vm_pages = (int)max_map_pages(SCN_P2_BLOCK);
	/* Its file's commands since the open: the 14 of the steps before,
	 * READ_BLOCKS, SNAPSHOT, START_BACKUP, GET_STATE, READ_BLOCKS. */
	w.commands = 14 + 5;
	expect_close_log(s, thread_exit, &w);
	open_expect(s, 0, 0);
	open_expect(s, 1, 0);
	expect_log(s, NULL);

	say(s, "step backup-idle-ext2");
	in_proc(s, 0, OP_START, START(1, 0));
	expect_log(s, THREAD_STARTED, "<6>ioctlStartBackup: backup started "
		   "for device major=8 minor=1", NULL);
	in_proc(s, 0, OP_SNAPSHOT, 0);
	expect_log(s, "<3>ioctlSnapShot: Going to freez: 8.1", NULL);
	in_proc(s, 0, OP_BACKUP_STATE, BSTATE(1, BU_STATE_SNAPSHOT));
	in_proc(s, 0, OP_SNAPSHOT, KIV_ERR_INVALID);
	in_proc(s, 0, OP_MAP, MAP(65, KIV_ERR_INVALID));
	in_proc(s, 0, OP_MAP, MAP(64, 0));
	expect_log(s, NULL);
	in_proc(s, 0, OP_READ, 0);
	expect_log(s, "<3>ioctlReadBlocks: tried to read (257) number of "
		   "blocks size (1024) and mmap region can hold (262144) bytes",
		   NULL);
	in_proc(s, 0, OP_READ, 1);
	expect_log(s, "<3>ioctlReadBlocks: invalid data pointer", NULL);
	in_proc(s, 0, OP_READ, 2);
	expect_log(s, "<3>ioctlReadBlocks: block num (8196) out of range "
		   "(8192)", NULL);
	in_proc(s, 0, OP_READ, 3);
	expect_log(s, "<3>ioctlReadBlocks: invalid block read range "
		   "(4294967295-0)", NULL);
	in_proc(s, 0, OP_READ, 4);
	in_proc(s, 0, OP_READ, 5);
	in_proc(s, 0, OP_READ_ALL, 1);
	in_proc(s, 0, OP_SYNC, 0);
	in_proc(s, 0, OP_UNMAP, 0);
	expect_log(s, NULL);
	in_proc(s, 0, OP_CLOSE, 0);
	memset(&w, 0, sizeof(w));
	w.major = SCN_DISK_MAJOR;
	w.minor = 1;
	w.state = BU_STATE_CLOSING;
	w.block_size = SCN_P1_BLOCK;
	w.part_kb = SCN_P1_SECTORS / 2;
	w.blocks = SCN_P1_BLOCKS;
	w.am_pages = 1;			/* the new session's map */
	w.max_cache = SCN_P1_BLOCKS;
	w.total_pages = 1 + 64;		/* the cache map, the read buffer */
	w.total_brs = 256 + SCN_P1_BLOCKS;
	w.reads_disk = 256 + SCN_P1_BLOCKS;
	w.part_start = SCN_P1_START;
	w.blocks_per_page = CV_PAGE_SIZE / SCN_P1_BLOCK;
	w.max_vm_pages = (int)max_map_pages(SCN_P1_BLOCK);
	/* START, GET_STATE, two SNAPSHOTs, six READ_BLOCKS, 32 runs, SYNC */
	w.commands = 1 + 1 + 2 + 6 + SCN_P1_BLOCKS / 256 + 1;
	expect_close_log(s, thread_exit, &w);
	open_expect(s, 0, 0);
	expect_log(s, NULL);
}

int scn_run(const struct scn_platform *p)
{
	struct scn *s = &scn_state;
	int i;

	memset(s, 0, sizeof(*s));
	s->p = p;
	for (i = 0; i < SCN_PROCS; i++)
		s->dev[i].fd = -1;
	/* What the kernel logged before (its boot) is not the scenario's. */
	{
		char line[LINE_MAX_LEN];

		while (p->klog(p->ctx, line, sizeof(line)))
			;
	}

	say(s, "step no-module");
	open_expect(s, 0, -LX_ENXIO);
	expect_log(s, NULL);

	say(s, "step load");
	module(s, 1, SCN_MOD_CORVALIN, 0);
	expect_log(s, LOADED, NULL);

	say(s, "step open-two-processes");
	open_expect(s, 0, 0);
	open_expect(s, 1, 0);
	/* Every open file holds a module reference. */
	module(s, 0, SCN_MOD_CORVALIN, -LX_EAGAIN);
	expect_log(s, NULL);

	say(s, "step read-write-poll");
	in_proc(s, 0, OP_SYSCALLS, 0);
	in_proc(s, 1, OP_SYSCALLS, 0);
	expect_log(s, NULL);

	say(s, "step versions");
	in_proc(s, 0, OP_VERSION, 0);
	in_proc(s, 0, OP_VERSION, 1);
	in_proc(s, 1, OP_VERSION, 0);
	in_proc(s, 1, OP_VERSION, 1);
	expect_log(s, NULL);

	say(s, "step get-state");
	in_proc(s, 0, OP_STATE, (int)sizeof(State));
	in_proc(s, 0, OP_STATE, 0);
	in_proc(s, 0, OP_STATE, 8);
	in_proc(s, 1, OP_STATE, 64);
	expect_log(s, NULL);

	say(s, "step unknown-and-refused");
	in_proc(s, 0, OP_RAW, 0);
	expect_log(s, "<3>kivIOCTL: ioctl command not found", NULL);
	in_proc(s, 1, OP_RAW, 1);
	expect_log(s, "<3>kivIOCTL: ioctl command not found", NULL);
	in_proc(s, 0, OP_RAW, 2);
	expect_log(s, NULL);

	say(s, "step bad-user-memory");
	in_proc(s, 0, OP_BAD_ARG, 0);
	expect_log(s, NULL);
	in_proc(s, 0, OP_BAD_ANSWER, 0);
	expect_log(s, "<3>ioctlGetState: copy to user space failed", NULL);
	in_proc(s, 1, OP_BAD_ANSWER, 1);
	expect_log(s, "<3>kivIOCTL: copy to user space failed", NULL);

	say(s, "step unload-command");
	in_proc(s, 1, OP_UNLOAD, 0);
	expect_log(s, NULL);
	/* The device stays registered and usable. */
	in_proc(s, 1, OP_VERSION, 0);
	in_proc(s, 0, OP_STATE, (int)sizeof(State));
	expect_log(s, NULL);

	say(s, "step geometry");
	in_proc(s, 0, OP_BLOCK_SIZE, BS(1, 16, 0));
	expect_log(s, "<3>getDiskInfo: device major=8 minor=1 not found, "
		   "getting super block failed", NULL);
	mount_fs(s, 1, 1);
	mount_fs(s, 1, 2);
	in_proc(s, 0, OP_BLOCK_SIZE, BS(1, 16, 1));
	in_proc(s, 1, OP_BLOCK_SIZE, BS(2, 16, 1));
	in_proc(s, 0, OP_BLOCK_SIZE, BS(2, 8, 1));
	expect_log(s, NULL);
	in_proc(s, 0, OP_BLOCK_SIZE, BS(0, 16, 0));
	expect_log(s, "<3>getDiskInfo: device major=8 minor=0 not found, "
		   "getting super block failed", NULL);
	backup_steps(s);

	say(s, "step close");
	in_proc(s, 1, OP_CLOSE, 0);
	in_proc(s, 0, OP_CLOSE, 0);
	expect_log(s, NULL);

	say(s, "step unload");
	module(s, 0, SCN_MOD_CORVALIN, 0);
	expect_log(s, UNLOADED, NULL);
	open_expect(s, 0, -LX_ENXIO);
	expect_log(s, NULL);

	/*
	 * Only now, with the module gone: the backup of sda1 left a change-
	 * tracking session on the disk's queue, and the unload gives the
	 * queue its own function back through the session's device, which
	 * it finds only while the partition is still in use.
	 */
	say(s, "step umount");
	mount_fs(s, 0, 1);
	mount_fs(s, 0, 2);

	say(s, "step major-taken");
	module(s, 1, SCN_MOD_BLOCKER, 0);
	module(s, 1, SCN_MOD_CORVALIN, -LX_EBUSY);
	expect_log(s, FAILED, NULL);
	module(s, 0, SCN_MOD_CORVALIN, -LX_ENOENT);
	module(s, 0, SCN_MOD_BLOCKER, 0);
	expect_log(s, NULL);
	module(s, 1, SCN_MOD_CORVALIN, 0);
	expect_log(s, LOADED, NULL);
	open_expect(s, 0, 0);
	in_proc(s, 0, OP_VERSION, 0);
	in_proc(s, 0, OP_CLOSE, 0);
	module(s, 0, SCN_MOD_CORVALIN, 0);
	expect_log(s, UNLOADED, NULL);

	say(s, "result %d failures", s->failures);
	return s->failures;
}
