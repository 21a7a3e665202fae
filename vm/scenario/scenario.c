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

	while (s->p->klog(s->p->ctx, line, sizeof(line))) {
		if (is_kernel_line(line)) {
			say(s, "  kernel %s", line);
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
	OP_BLOCK_SIZE		/* arg: minor | len << 8 | mounted << 15 */
};

static const char *const op_names[] = {
	"open", "close", "syscalls", "version", "state", "raw", "bad_arg",
	"bad_answer", "unload", "block_size"
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
	mount_fs(s, 0, 1);
	mount_fs(s, 0, 2);

	say(s, "step close");
	in_proc(s, 1, OP_CLOSE, 0);
	in_proc(s, 0, OP_CLOSE, 0);
	expect_log(s, NULL);

	say(s, "step unload");
	module(s, 0, SCN_MOD_CORVALIN, 0);
	expect_log(s, UNLOADED, NULL);
	open_expect(s, 0, -LX_ENXIO);
	expect_log(s, NULL);

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
