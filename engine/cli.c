/*
 * cli.c - corvalin's backup commands: arguments, output, exit codes.
 *
 * Output: one human-readable summary on stdout, or with --json one JSON
 * object per command.  Errors go to stderr as "corvalin COMMAND: text".
 * Progress (bytes, rate, time left) is drawn on stderr only when the
 * platform says it is a terminal.
 */
#define _POSIX_C_SOURCE 200809L
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include "cli.h"
#include "engine.h"

struct cmd {
	const char *name, *usage, *summary, *help;
	int (*run)(int argc, char **argv, const struct cvb_platform *pf);
};

static int run_backup(int, char **, const struct cvb_platform *);
static int run_restore(int, char **, const struct cvb_platform *);
static int run_verify(int, char **, const struct cvb_platform *);
static int run_list(int, char **, const struct cvb_platform *);
static int run_status(int, char **, const struct cvb_platform *);

static const struct cmd cmds[] = {
	{"backup", "DEVICE REPO [--full] [--no-used-blocks] "
	 "[--max-cache-blocks N] [--json]",
	 "back up a mounted partition into a repository directory",
	 "  The first backup is full; later ones are incremental when the\n"
	 "  driver vouches for the partition's changes, full otherwise (the\n"
	 "  reason is printed).  --full forces a full backup.  Full backups of\n"
	 "  ext2/ext3 read only allocated blocks (--no-used-blocks: all).\n",
	 run_backup},
	{"restore", "REPO TARGET [--backup N] [--json]",
	 "rebuild the partition of backup N (default: the latest)",
	 "  TARGET is a block device (refused when mounted) or an image file;\n"
	 "  it receives the partition byte for byte, walking the chain of\n"
	 "  incrementals back to its full backup.\n",
	 run_restore},
	{"verify", "REPO [--json]",
	 "check every image's checksums and every chain",
	 "  Says which backups are restorable.\n", run_verify},
	{"list", "REPO [--json]", "list the backups of a repository", "",
	 run_list},
	{"status", "[DEVICE] [--json]",
	 "driver version, running backup, geometry of DEVICE",
	 "  Does not open the driver while a corvalin backup runs, and changes\n"
	 "  nothing in it: the tracking state of DEVICE is not queried (only a\n"
	 "  started backup can see it, and ending one can stop the tracking of\n"
	 "  the disk's other partitions).\n",
	 run_status},
};
#define NCMDS (sizeof(cmds) / sizeof(cmds[0]))

static const struct cmd *current;

static int usage(const struct cvb_platform *pf, const char *what)
{
	fprintf(pf->err, "corvalin %s: %s\nusage: corvalin %s %s\n",
		current->name, what, current->name, current->usage);
	return CVB_EXIT_USAGE;
}

static int exit_of(int code)
{
	switch (code) {
	case CVB_OK:
		return CVB_EXIT_OK;
	case CVB_E_PARTIAL:
		return CVB_EXIT_PARTIAL;
	case CVB_E_CORRUPT:
	case CVB_E_FOREIGN:
		return CVB_EXIT_REPO;
	case CVB_E_BUSY:
		return CVB_EXIT_BUSY;
	case CVB_E_INTERRUPTED:
		return CVB_EXIT_INTERRUPTED;
	default:
		return CVB_EXIT_FAILED;
	}
}

static int fail(const struct cvb_platform *pf, const struct cvb_err *e,
		int json)
{
	fprintf(pf->err, "corvalin %s: %s\n", current->name, e->msg);
	if (json)
		fprintf(pf->out, "{\"command\":\"%s\",\"ok\":false,"
			"\"exit\":%d}\n", current->name, exit_of(e->code));
	return exit_of(e->code);
}

/* A JSON string (our strings are ASCII; escape what JSON requires). */
static void jstr(FILE *f, const char *s)
{
	fputc('"', f);
	for (; *s; s++) {
		unsigned char c = (unsigned char)*s;

		if (c == '"' || c == '\\')
			fprintf(f, "\\%c", c);
		else if (c < 0x20)
			fprintf(f, "\\u%04x", c);
		else
			fputc(c, f);
	}
	fputc('"', f);
}

static void mib(char *buf, size_t len, double bytes)
{
	snprintf(buf, len, "%.1f MiB", bytes / 1048576.0);
}

/* --- progress -------------------------------------------------------------- */

struct progress {
	const struct cvb_platform *pf;
	double t0;
	const char *what;
};

static double now_s(void)
{
	struct timeval tv;

	gettimeofday(&tv, NULL);
	return (double)tv.tv_sec + (double)tv.tv_usec / 1e6;
}

static void show_progress(void *ctx, uint64_t done, uint64_t total)
{
	struct progress *p = (struct progress *)ctx;
	double el = now_s() - p->t0, bytes = (double)done;
	double rate = el > 0 ? bytes / el : 0, left;
	char a[32], b[32];

	left = rate > 0 ? ((double)total - (double)done) / rate : 0;
	mib(a, sizeof(a), bytes);
	mib(b, sizeof(b), (double)total);
	fprintf(p->pf->err, "\r%s %s of %s, %.1f MiB/s, %.0f s left   ",
		p->what, a, b, rate / 1048576.0, left);
	if (done >= total)
		fputc('\n', p->pf->err);
	fflush(p->pf->err);
}

/* --- options --------------------------------------------------------------- */

struct opts {
	int json, full, no_used, backup_set;
	uint32_t backup, max_cache;
	char *pos[3];
	int npos;
};

static int parse_u32(const char *s, uint32_t *v)
{
	char *end;
	unsigned long long x = strtoull(s, &end, 10);

	if (*s == '\0' || *end != '\0' || *s == '-' || x > 0xFFFFFFFFull)
		return -1;
	*v = (uint32_t)x;
	return 0;
}

/* Returns 0, or an exit code (usage). */
static int parse(int argc, char **argv, const struct cvb_platform *pf,
		 struct opts *o, int maxpos, const char *allowed)
{
	int i;

	memset(o, 0, sizeof(*o));
	for (i = 1; i < argc; i++) {
		const char *a = argv[i];

		if (a[0] != '-' || a[1] == '\0') {
			if (o->npos == maxpos)
				return usage(pf, "too many arguments");
			o->pos[o->npos++] = argv[i];
			continue;
		}
		if (strstr(allowed, a) == NULL)
			return usage(pf, "unknown option");
		if (strcmp(a, "--json") == 0) {
			o->json = 1;
		} else if (strcmp(a, "--full") == 0) {
			o->full = 1;
		} else if (strcmp(a, "--no-used-blocks") == 0) {
			o->no_used = 1;
		} else if (strcmp(a, "--used-blocks") == 0) {
			o->no_used = 0;
		} else if (strcmp(a, "--backup") == 0 ||
			   strcmp(a, "--max-cache-blocks") == 0) {
			uint32_t *v = a[2] == 'b' ? &o->backup : &o->max_cache;

			if (i + 1 >= argc || parse_u32(argv[i + 1], v) != 0 ||
			    *v == 0)
				return usage(pf, "expected a positive number");
			o->backup_set |= a[2] == 'b';
			i++;
		} else {
			return usage(pf, "unknown option");
		}
	}
	return 0;
}

/* --- backup ---------------------------------------------------------------- */

static int run_backup(int argc, char **argv, const struct cvb_platform *pf)
{
	struct opts o;
	struct cvb_backup_opts bo;
	struct cvb_backup_result res;
	struct cvb_err e;
	struct progress pr;
	char stored[32];
	int r, lk;

	r = parse(argc, argv, pf, &o, 2, "--json --full --no-used-blocks "
		  "--used-blocks --max-cache-blocks");
	if (r != 0)
		return r;
	if (o.npos != 2)
		return usage(pf, "expected DEVICE and REPO");
	memset(&bo, 0, sizeof(bo));
	memset(&e, 0, sizeof(e));
	bo.tp = pf->tp;
	bo.control_path = pf->control_path;
	r = pf->resolve(pf->ctx, o.pos[0], &bo.major, &bo.minor);
	if (r != 0) {
		cvb_fail(&e, CVB_E_ARG, "%s: %s", o.pos[0], r > 0 ?
			 strerror(r) : "not a block device");
		return fail(pf, &e, o.json);
	}
	r = pf->device_size != NULL ?
	    pf->device_size(pf->ctx, o.pos[0], &bo.device_bytes) : ENOSYS;
	if (r != 0) {
		cvb_fail(&e, CVB_E_ARG, "%s: cannot learn its size: %s",
			 o.pos[0], strerror(r));
		return fail(pf, &e, o.json);
	}
	bo.force_full = o.full;
	bo.used_blocks = !o.no_used;
	bo.max_cache_blocks = o.max_cache;
	bo.stop = pf->stop;
	bo.stage_hook = pf->stage_hook;
	bo.hook_ctx = pf->hook_ctx;
	pr.pf = pf;
	pr.t0 = now_s();
	pr.what = "backup:";
	if (pf->progress && !o.json) {
		bo.progress = show_progress;
		bo.progress_ctx = &pr;
	}
	lk = pf->take_lock(pf->ctx);
	if (lk != 0) {
		cvb_fail(&e, lk > 0 ? CVB_E_BUSY : CVB_E_IO, lk > 0 ?
			 "another corvalin backup is running" :
			 "cannot take the corvalin lock: %s", strerror(-lk));
		return fail(pf, &e, o.json);
	}
	r = cvb_backup(o.pos[1], &bo, &res, &e);
	pf->release_lock(pf->ctx);
	if (r != 0 && r != CVB_E_PARTIAL)
		return fail(pf, &e, o.json);
	mib(stored, sizeof(stored), (double)res.bytes_stored);
	if (res.why_all_blocks[0] != '\0')
		fprintf(pf->err, "corvalin backup: warning: every block was "
			"read, not only the allocated ones: %s\n",
			res.why_all_blocks);
	if (o.json) {
		fprintf(pf->out, "{\"command\":\"backup\",\"ok\":%s,"
			"\"exit\":%d,\"backup\":%u,\"kind\":\"%s\","
			"\"why_full\":", r == 0 ? "true" : "false",
			exit_of(r), (unsigned)res.number,
			res.incremental ? "incremental" : "full");
		jstr(pf->out, res.why_full);
		fprintf(pf->out, ",\"continued\":%s,\"continued_blocks\":%u,"
			"\"pending_note\":", res.continued ? "true" : "false",
			(unsigned)res.continued_blocks);
		jstr(pf->out, res.pending_note);
		fprintf(pf->out, ",\"block_size\":%u,\"block_count\":%u,"
			"\"used_blocks\":%s,\"why_all_blocks\":",
			(unsigned)res.block_size, (unsigned)res.block_count,
			res.used_blocks ? "true" : "false");
		jstr(pf->out, res.why_all_blocks);
		fprintf(pf->out, ",\"blocks_read\":%u,\"unreadable\":%u,"
			"\"bytes_stored\":%llu,\"frozen_us\":%u}\n",
			(unsigned)res.blocks_read, (unsigned)res.unreadable,
			(unsigned long long)res.bytes_stored,
			(unsigned)res.frozen_us);
	} else {
		if (!res.incremental)
			fprintf(pf->out, "full backup: %s\n", res.why_full);
		else if (res.continued)
			fprintf(pf->out, "continuing an interrupted backup: "
				"%u blocks from it\n",
				(unsigned)res.continued_blocks);
		if (res.pending_note[0] != '\0' &&
		    strcmp(res.pending_note, res.why_full) != 0)
			fprintf(pf->out, "note: %s\n", res.pending_note);
		fprintf(pf->out, "backup %u (%s) of %s: %u of %u blocks read"
			"%s, %s stored, frozen within %.1f ms\n",
			(unsigned)res.number,
			res.incremental ? "incremental" : "full", o.pos[0],
			(unsigned)res.blocks_read, (unsigned)res.block_count,
			res.used_blocks ? " (allocated blocks only)" : "",
			stored, res.frozen_us / 1000.0);
	}
	if (r != 0)
		fprintf(pf->err, "corvalin backup: %s\n", e.msg);
	return exit_of(r);
}

/* --- restore --------------------------------------------------------------- */

static int run_restore(int argc, char **argv, const struct cvb_platform *pf)
{
	struct opts o;
	struct cvb_repo repo;
	struct cvb_restore_opts ro;
	struct cvb_restore_result res;
	struct cvb_err e;
	struct progress pr;
	struct stat st;
	int r, fd, is_file, m;

	r = parse(argc, argv, pf, &o, 2, "--json --backup");
	if (r != 0)
		return r;
	if (o.npos != 2)
		return usage(pf, "expected REPO and TARGET");
	memset(&e, 0, sizeof(e));
	r = cvb_repo_load(o.pos[0], 0, &repo, &e);
	if (r != 0)
		return fail(pf, &e, o.json);
	is_file = stat(o.pos[1], &st) != 0 || S_ISREG(st.st_mode);
	if (!is_file && !S_ISBLK(st.st_mode)) {
		cvb_repo_free(&repo);
		cvb_fail(&e, CVB_E_ARG, "%s: neither a block device nor a "
			 "regular file", o.pos[1]);
		return fail(pf, &e, o.json);
	}
	m = is_file ? 0 : pf->is_mounted(pf->ctx, o.pos[1]);
	if (m != 0) {
		cvb_repo_free(&repo);
		cvb_fail(&e, CVB_E_ARG, m > 0 ? "%s is mounted: refusing to "
			 "write onto a mounted file system" :
			 "%s: cannot tell whether it is mounted", o.pos[1]);
		return fail(pf, &e, o.json);
	}
	fd = open(o.pos[1], is_file ? O_WRONLY | O_CREAT : O_WRONLY, 0600);
	if (fd < 0) {
		cvb_repo_free(&repo);
		cvb_fail(&e, CVB_E_IO, "%s: %s", o.pos[1], strerror(errno));
		return fail(pf, &e, o.json);
	}
	memset(&ro, 0, sizeof(ro));
	ro.number = o.backup;
	pr.pf = pf;
	pr.t0 = now_s();
	pr.what = "restore:";
	if (pf->progress && !o.json) {
		ro.progress = show_progress;
		ro.progress_ctx = &pr;
	}
	r = cvb_restore_fd(&repo, &ro, fd, is_file, &res, &e);
	if (close(fd) != 0 && r == 0)
		r = cvb_fail(&e, CVB_E_IO, "%s: %s", o.pos[1],
			     strerror(errno));
	cvb_repo_free(&repo);
	if (r != 0)
		return fail(pf, &e, o.json);
	if (o.json)
		fprintf(pf->out, "{\"command\":\"restore\",\"ok\":true,"
			"\"exit\":0,\"backup\":%u,\"chain\":%u,"
			"\"block_size\":%u,\"block_count\":%u,"
			"\"blocks_from_images\":%u,\"unreadable\":%u,"
			"\"bytes\":%llu}\n", (unsigned)res.number,
			(unsigned)res.chain_len, (unsigned)res.block_size,
			(unsigned)res.block_count,
			(unsigned)res.blocks_written,
			(unsigned)res.unreadable,
			(unsigned long long)res.bytes);
	else
		fprintf(pf->out, "restored backup %u (chain of %u) onto %s: "
			"%llu bytes, %u blocks from the images%s\n",
			(unsigned)res.number, (unsigned)res.chain_len,
			o.pos[1], (unsigned long long)res.bytes,
			(unsigned)res.blocks_written,
			res.unreadable ? ", some unreadable at backup "
			"time (zeros)" : "");
	return CVB_EXIT_OK;
}

/* --- verify and list ------------------------------------------------------- */

struct extras {
	const struct cvb_platform *pf;
	int json, n;
};

static void extra_file(void *ctx, const char *name)
{
	struct extras *x = (struct extras *)ctx;

	if (x->json) {
		fputs(x->n ? "," : "", x->pf->out);
		jstr(x->pf->out, name);
	} else {
		fprintf(x->pf->out, "not part of the repository (ignored): "
			"%s\n", name);
	}
	x->n++;
}

/*
 * The options of a command that takes REPO alone (and --json), and that
 * repository loaded.  Returns 0, or the exit status already reported.
 */
static int load_repo_arg(int argc, char **argv,
			 const struct cvb_platform *pf, struct opts *o,
			 struct cvb_repo *repo, struct cvb_err *e)
{
	int r;

	r = parse(argc, argv, pf, o, 1, "--json");
	if (r != 0)
		return r;
	if (o->npos != 1)
		return usage(pf, "expected REPO");
	memset(e, 0, sizeof(*e));
	if (cvb_repo_load(o->pos[0], 0, repo, e) != 0)
		return fail(pf, e, o->json);
	return 0;
}

static int run_verify(int argc, char **argv, const struct cvb_platform *pf)
{
	struct opts o;
	struct cvb_repo repo;
	struct cvb_verify_item *v = NULL;
	struct cvb_err e;
	struct extras x;
	uint32_t i, bad = 0;
	int r;

	r = load_repo_arg(argc, argv, pf, &o, &repo, &e);
	if (r != 0)
		return r;
	x.pf = pf;
	x.json = o.json;
	x.n = 0;
	if (o.json)
		fputs("{\"command\":\"verify\",\"ignored_files\":[", pf->out);
	r = cvb_verify(&repo, &v, extra_file, &x, &e);
	if (r != 0) {
		cvb_repo_free(&repo);
		return fail(pf, &e, o.json);
	}
	if (o.json)
		fputs("],\"backups\":[", pf->out);
	for (i = 0; i < repo.count; i++) {
		bad += !v[i].restorable;
		if (o.json) {
			fprintf(pf->out, "%s{\"backup\":%u,\"image_ok\":%s,"
				"\"restorable\":%s,\"problem\":",
				i ? "," : "", (unsigned)v[i].number,
				v[i].image_ok ? "true" : "false",
				v[i].restorable ? "true" : "false");
			jstr(pf->out, v[i].problem);
			fputc('}', pf->out);
		} else {
			fprintf(pf->out, "backup %u: %s%s%s\n",
				(unsigned)v[i].number,
				v[i].restorable ? "restorable" :
				"NOT restorable",
				v[i].problem[0] ? ": " : "", v[i].problem);
		}
	}
	r = bad ? CVB_EXIT_PARTIAL : CVB_EXIT_OK;
	if (o.json)
		fprintf(pf->out, "],\"ok\":%s,\"exit\":%d}\n",
			bad ? "false" : "true", r);
	else
		fprintf(pf->out, "%u of %u backups restorable\n",
			(unsigned)(repo.count - bad), (unsigned)repo.count);
	free(v);
	cvb_repo_free(&repo);
	return r;
}

/*
 * The record of a backup that has not completed, as list shows it: one
 * line, or the JSON member "interrupted" (null when there is none).
 */
static void show_pending(const struct cvb_platform *pf, const char *dir,
			 int json)
{
	struct cvb_pending p;
	struct cvb_err e;
	int found = 0, r;
	const char *kind, *state;

	memset(&e, 0, sizeof(e));
	r = cvb_pending_load(dir, &p, &found, &e);
	if (json)
		fputs(",\"interrupted\":", pf->out);
	if (!found && r == 0) {
		if (json)
			fputs("null", pf->out);
		return;
	}
	if (r != 0) {
		if (json) {
			fputs(r == CVB_E_CORRUPT ? "{\"damaged\":" :
			      "{\"unreadable\":", pf->out);
			jstr(pf->out, e.msg);
			fputc('}', pf->out);
		} else {
			fprintf(pf->out, "interrupted backup: its record %s "
				"(%s); the next backup does not use it\n",
				r == CVB_E_CORRUPT ? "is damaged" :
				"cannot be read", e.msg);
		}
		return;
	}
	kind = p.kind == CVB_KIND_FULL ? "full" : "incremental";
	state = p.state == CVB_PENDING_SECURED ? "secured" : "intent";
	if (json) {
		fprintf(pf->out, "{\"state\":\"%s\",\"kind\":\"%s\","
			"\"continues\":%u,\"blocks\":%u}", state, kind,
			(unsigned)p.parent, (unsigned)p.marked);
	} else if (p.state == CVB_PENDING_SECURED &&
		   p.kind == CVB_KIND_INCREMENTAL) {
		fprintf(pf->out, "interrupted backup: it continues backup %u "
			"with %u changed blocks secured; the next backup "
			"continues it\n", (unsigned)p.parent,
			(unsigned)p.marked);
	} else if (p.state == CVB_PENDING_SECURED) {
		fprintf(pf->out, "interrupted backup: a full one, stopped "
			"after its snapshot; the next backup is full\n");
	} else {
		fprintf(pf->out, "interrupted backup: %s, stopped around "
			"its snapshot%s\n", p.kind == CVB_KIND_FULL ?
			"a full one" : "an incremental one",
			p.kind == CVB_KIND_FULL ? "" : " before its change map "
			"was secured");
	}
	cvb_pending_free(&p);
}

static int run_list(int argc, char **argv, const struct cvb_platform *pf)
{
	struct opts o;
	struct cvb_repo repo;
	struct cvb_err e;
	const struct cvb_entry *en;
	char when[32], size[32], par[16];
	struct tm tm;
	time_t t;
	uint32_t i;
	int r;

	r = load_repo_arg(argc, argv, pf, &o, &repo, &e);
	if (r != 0)
		return r;
	if (o.json)
		fputs("{\"command\":\"list\",\"ok\":true,\"exit\":0,"
		      "\"backups\":[", pf->out);
	else
		fprintf(pf->out, "%-6s %-11s %-6s %-20s %10s %10s %10s\n",
			"backup", "kind", "parent", "time (UTC)", "blocks",
			"stored", "size");
	for (i = 0; i < repo.count; i++) {
		en = &repo.entries[i];
		t = (time_t)en->time;
		if (gmtime_r(&t, &tm) == NULL ||
		    strftime(when, sizeof(when), "%Y-%m-%d %H:%M:%S",
			     &tm) == 0)
			snprintf(when, sizeof(when), "?");
		mib(size, sizeof(size), (double)en->file_size);
		snprintf(par, sizeof(par), "%u", (unsigned)en->parent);
		if (o.json)
			fprintf(pf->out, "%s{\"backup\":%u,\"kind\":\"%s\","
				"\"parent\":%u,\"time\":%llu,"
				"\"block_size\":%u,\"block_count\":%u,"
				"\"stored_blocks\":%u,\"unreadable\":%u,"
				"\"used_blocks\":%s,\"bytes\":%llu}",
				i ? "," : "", (unsigned)en->number,
				en->kind == CVB_KIND_FULL ? "full" :
				"incremental", (unsigned)en->parent,
				(unsigned long long)en->time,
				(unsigned)en->block_size,
				(unsigned)en->block_count,
				(unsigned)en->present_count,
				(unsigned)en->unreadable_count,
				en->flags & CVB_FLAG_USED_BLOCKS ? "true" :
				"false", (unsigned long long)en->file_size);
		else
			fprintf(pf->out, "%-6u %-11s %-6s %-20s %10u %10u "
				"%10s%s\n", (unsigned)en->number,
				en->kind == CVB_KIND_FULL ? "full" :
				"incremental", en->parent ? par : "-", when,
				(unsigned)en->block_count,
				(unsigned)en->present_count, size,
				en->unreadable_count ? "  (unreadable blocks)"
				: "");
	}
	if (o.json)
		fputs("]", pf->out);
	show_pending(pf, o.pos[0], o.json);
	if (o.json)
		fputs("}\n", pf->out);
	cvb_repo_free(&repo);
	return CVB_EXIT_OK;
}

/* --- status ---------------------------------------------------------------- */

/*
 * status changes nothing in the driver, and so does not ask for the
 * partition's tracking state.  The driver answers GET_AUTOMAP_STATE for
 * the device of a backup record, and only START_BACKUP gives a record its
 * device; the close of a started record then hands the disk's queue back,
 * and where the partition itself is not tracked in sync and one other
 * partition of its disk is, that hand-back unhooks the queue and drops
 * the other partition's tracking out of sync: its next backup is full.
 * GET_BLOCK_SIZE needs no backup: status shows the geometry the next
 * backup would take, and whether the driver's 32-bit sizes describe it.
 */
static int run_status(int argc, char **argv, const struct cvb_platform *pf)
{
	struct opts o;
	struct cvb_err e;
	cv_device dev;
	uint32_t vmaj = 0, vmin = 0, major = 0, minor = 0;
	uint64_t bytes = 0;
	BlockSize geo;
	int r, lk, geo_r = -1, size_r = ENOSYS;
	char size[32];
	const char *too_big = "";

	r = parse(argc, argv, pf, &o, 1, "--json");
	if (r != 0)
		return r;
	memset(&e, 0, sizeof(e));
	memset(&geo, 0, sizeof(geo));
	if (o.npos == 1) {
		r = pf->resolve(pf->ctx, o.pos[0], &major, &minor);
		if (r != 0) {
			cvb_fail(&e, CVB_E_ARG, "%s: %s", o.pos[0], r > 0 ?
				 strerror(r) : "not a block device");
			return fail(pf, &e, o.json);
		}
		if (pf->device_size != NULL)
			size_r = pf->device_size(pf->ctx, o.pos[0], &bytes);
		if (size_r == 0 && bytes / 1024 > 0xFFFFFFFFu)
			too_big = "4 TiB or more: too large for the driver's "
				  "32-bit sizes, cannot be backed up";
	}
	/*
	 * Closing any file of the control device ends the running backup's
	 * interception (the driver's close clears the one active backup
	 * whatever file it belongs to), so while a corvalin backup holds
	 * the lock, status does not open the device at all.
	 */
	lk = pf->take_lock(pf->ctx);
	if (lk < 0) {
		cvb_fail(&e, CVB_E_IO, "cannot take the corvalin lock: %s",
			 strerror(-lk));
		return fail(pf, &e, o.json);
	}
	if (lk == 0) {
		r = cv_open(&dev, pf->tp, pf->control_path);
		if (r != 0) {
			pf->release_lock(pf->ctx);
			cvb_fail(&e, CVB_E_DRIVER, "cannot open the control "
				 "device: %s (%s); is the module loaded?",
				 cv_result_name(r), cv_result_text(r));
			return fail(pf, &e, o.json);
		}
		(void)cv_get_version_major(&dev, &vmaj);
		(void)cv_get_version_minor(&dev, &vmin);
		if (o.npos == 1)
			geo_r = cv_get_block_size(&dev, major, minor, &geo,
						  sizeof(geo));
		(void)cv_close(&dev);
		pf->release_lock(pf->ctx);
	}
	if (o.json) {
		fprintf(pf->out, "{\"command\":\"status\",\"ok\":true,"
			"\"exit\":0,\"backup_running\":%s",
			lk == 1 ? "true" : "false");
		if (lk == 0)
			fprintf(pf->out, ",\"driver_version\":\"%u.%u\"",
				(unsigned)vmaj, (unsigned)vmin);
		if (o.npos == 1) {
			fprintf(pf->out, ",\"device\":");
			jstr(pf->out, o.pos[0]);
			fprintf(pf->out, ",\"major\":%u,\"minor\":%u",
				(unsigned)major, (unsigned)minor);
			if (size_r == 0)
				fprintf(pf->out, ",\"bytes\":%llu",
					(unsigned long long)bytes);
			if (geo_r == 0)
				fprintf(pf->out, ",\"block_size\":%d,"
					"\"partition_kb\":%u",
					(int)geo.blockSize,
					(unsigned)geo.partitionSizeKB);
			else if (lk == 0)
				fprintf(pf->out, ",\"mounted\":false");
			if (too_big[0] != '\0')
				fprintf(pf->out, ",\"too_large\":true");
			fprintf(pf->out, ",\"tracking\":\"not queried\"");
		}
		fputs("}\n", pf->out);
		return CVB_EXIT_OK;
	}
	if (lk == 1) {
		fprintf(pf->out, "a corvalin backup is running (the driver is "
			"not queried meanwhile)\n");
		return CVB_EXIT_OK;
	}
	fprintf(pf->out, "driver version %u.%u\nno corvalin backup running\n",
		(unsigned)vmaj, (unsigned)vmin);
	if (o.npos != 1)
		return CVB_EXIT_OK;
	fprintf(pf->out, "%s (%u:%u): ", o.pos[0], (unsigned)major,
		(unsigned)minor);
	if (too_big[0] != '\0') {
		fprintf(pf->out, "%s\n", too_big);
	} else if (geo_r == 0 && geo.blockSize > 0 &&
		   (uint64_t)geo.partitionSizeKB * 1024u /
		   (uint32_t)geo.blockSize > 0xFFFFFFF0u) {
		fprintf(pf->out, "more blocks of %d bytes than the driver's "
			"32-bit block numbers address, cannot be backed up\n",
			(int)geo.blockSize);
	} else if (geo_r == 0) {
		mib(size, sizeof(size),
		    (double)geo.partitionSizeKB * 1024.0);
		fprintf(pf->out, "%s in blocks of %d bytes, mounted\n", size,
			(int)geo.blockSize);
	} else {
		fprintf(pf->out, "%s\n", geo_r == KIV_ERR_NO_FS ?
			"no mounted file system (cannot be backed up)" :
			cv_result_name(geo_r));
	}
	fprintf(pf->out, "change tracking: not queried (the driver shows it "
		"only to a backup it has started, and ending that backup can "
		"stop the tracking of the disk's other partitions); each "
		"backup says whether it is incremental, and why not\n");
	return CVB_EXIT_OK;
}

/* --- dispatch -------------------------------------------------------------- */

static void help(const struct cvb_platform *pf)
{
	size_t i;

	fprintf(pf->out, "usage: corvalin <command> [arguments]\n\n"
		"commands:\n");
	for (i = 0; i < NCMDS; i++)
		fprintf(pf->out, "  %-10s %s\n", cmds[i].name,
			cmds[i].summary);
	if (pf->extra_help != NULL)
		fputs(pf->extra_help, pf->out);
	fprintf(pf->out, "  %-10s %s\n\n'corvalin COMMAND --help' shows a "
		"command's usage; see corvalin(1).\n", "help",
		"show the commands, or one command's usage");
}

static int command_help(const struct cvb_platform *pf, const struct cmd *c)
{
	fprintf(pf->out, "usage: corvalin %s %s\n  %s\n%s", c->name, c->usage,
		c->summary, c->help);
	return CVB_EXIT_OK;
}

static const struct cmd *find(const char *name)
{
	size_t i;

	for (i = 0; i < NCMDS; i++)
		if (strcmp(cmds[i].name, name) == 0)
			return &cmds[i];
	return NULL;
}

int cvb_cli_main(int argc, char **argv, const struct cvb_platform *pf)
{
	const struct cmd *c;
	int i;

	if (argc < 1) {
		help(pf);
		return CVB_EXIT_USAGE;
	}
	if (strcmp(argv[0], "help") == 0 || strcmp(argv[0], "--help") == 0 ||
	    strcmp(argv[0], "-h") == 0) {
		if (argc > 1 && (c = find(argv[1])) != NULL)
			return command_help(pf, c);
		if (argc > 1) {
			fprintf(pf->err, "corvalin help: no command named "
				"'%s'\n", argv[1]);
			return CVB_EXIT_USAGE;
		}
		help(pf);
		return CVB_EXIT_OK;
	}
	c = find(argv[0]);
	if (c == NULL) {
		fprintf(pf->err, "corvalin: unknown command '%s' (try "
			"'corvalin help')\n", argv[0]);
		return CVB_EXIT_USAGE;
	}
	for (i = 1; i < argc; i++)
		if (strcmp(argv[i], "--help") == 0 ||
		    strcmp(argv[i], "-h") == 0)
			return command_help(pf, c);
	current = c;
	return c->run(argc, argv, pf);
}
