/*
 * backup.c - one backup of a partition into a repository.
 *
 * The order of commands (the driver's protocol for a backup program):
 *   GET_BLOCK_SIZE, START_BACKUP; then either SNAPSHOT presenting the
 *   repository's last session key, or the one its record of an
 *   interrupted backup holds (incremental), or NO_LOAD_FROM_AUTOMAP
 *   and SNAPSHOT without a key (full); GET_STATE must then say 4;
 *   GET_AUTOMAP_STATE gives the key to present next time; an incremental
 *   exports its change map (GET_AUTOMAP) and loads it as the set of blocks
 *   to read (LOAD_BLOCK_MAP); then READ_BLOCKS run after run through the
 *   mapped read buffer; close.
 *
 * An incremental trusts the exported map only as far as the session's
 * state vouches for it: before SNAPSHOT the partition's session must be
 * in sync under the repository's key, after it in sync under a new key
 * and covering the partition, and the map itself must fit the partition.
 * Anything else makes the backup full (of the same snapshot), saying why:
 * a map that misses a changed block gives an image that restores wrong
 * data without any error, a full backup only costs time.
 *
 * The repository only ever changes by renames: the image is written under
 * a temporary name, fsynced, renamed, and the index replaced the same way.
 * An interrupted backup leaves at most a temporary file (removed by the
 * next run), an image the index does not list (overwritten by the next
 * run, which takes the same number) and its record (below); the chain of
 * listed backups is never touched.
 *
 * The snapshot, though, changes the driver: it hands the change map over
 * and gives the session a new key, so a backup that dies after it takes
 * both with it and the next backup would have to be full.  Hence the
 * record of a backup that has not completed ("pending", format.h): before
 * the SNAPSHOT it says what the snapshot continues (INTENT: the key about
 * to be presented, the parent, any map an earlier interrupted backup
 * secured); right after it, the exported map (joined with that earlier
 * map) and the new key (SECURED).  The next run presents the recorded key
 * and, when the session still vouches for it, reads the union of the
 * recorded map and the map its own snapshot hands over, as an incremental
 * from the same parent; the record goes once the index lists a completed
 * backup.  Only a death between the SNAPSHOT and the SECURED record costs
 * a full backup, and the INTENT record left behind lets the next run say
 * exactly that.
 */
#define _POSIX_C_SOURCE 200809L
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include "crc32c.h"
#include "engine.h"
#include "fileio.h"

/*
 * The most blocks a backup takes: block numbers are 32 bits in every
 * command, and the read loops step `first + n` without reaching 2^32.
 */
#define CVB_MAX_BLOCKS		0xFFFFFFF0u

#include "backup_job.h"


static int driver_fail(struct job *j, const char *what, int r)
{
	return cvb_fail(j->err, CVB_E_DRIVER, "%s: %s (%s)", what,
			cv_result_name(r), cv_result_text(r));
}

static uint64_t random_id(void)
{
	static unsigned counter;
	uint64_t v = 0;
	struct timeval tv;
	int fd = open("/dev/urandom", O_RDONLY);

	if (fd >= 0) {
		if (read(fd, &v, sizeof(v)) != (ssize_t)sizeof(v))
			v = 0;
		close(fd);
	}
	gettimeofday(&tv, NULL);
	v ^= (uint64_t)tv.tv_sec << 32 ^ (uint64_t)tv.tv_usec << 12 ^
	     (uint64_t)getpid() ^ (uint64_t)++counter << 52;
	return v != 0 ? v : 1;
}

static uint64_t now_us(void)
{
	struct timeval tv;

	gettimeofday(&tv, NULL);
	return (uint64_t)tv.tv_sec * 1000000u + (uint64_t)tv.tv_usec;
}

/* Remove what an interrupted run left: temporary files of ours. */
static void remove_leftovers(const char *dir)
{
	DIR *d = opendir(dir);
	struct dirent *de;
	char path[1100];
	size_t n;

	if (d == NULL)
		return;
	while ((de = readdir(d)) != NULL) {
		n = strlen(de->d_name);
		if (n > 4 && strcmp(de->d_name + n - 4, ".tmp") == 0 &&
		    (strncmp(de->d_name, "backup-", 7) == 0 ||
		     strcmp(de->d_name, CVB_INDEX_NAME ".tmp") == 0 ||
		     strcmp(de->d_name, CVB_PENDING_NAME ".tmp") == 0) &&
		    cvb_path(dir, de->d_name, path, sizeof(path)) == 0)
			unlink(path);
	}
	closedir(d);
}

/* READ_BLOCKS of n <= per_read blocks, copied to out (n * bs bytes). */
static int read_run(struct job *j, uint32_t first, uint32_t n,
		    unsigned char *out, int *rr)
{
	int r = cv_read_blocks(&j->dev, first, n, j->buf);

	*rr = r;
	if (r != 0 && r != KIV_ERR_IO)
		return driver_fail(j, "READ_BLOCKS", r);
	r = cv_mem_read(&j->dev, j->buf, out, n * j->bs);
	if (r != 0)
		return driver_fail(j, "reading the read buffer", r);
	return 0;
}

/* The file-system reader's view: blocks through the snapshot. */
static int fs_read(void *ctx, uint32_t first, uint32_t n, unsigned char *buf)
{
	struct job *j = (struct job *)ctx;
	uint32_t step;
	int r, rr;

	while (n > 0) {
		step = n < j->per_read ? n : j->per_read;
		if (first >= j->count || step > j->count - first)
			return CVB_E_ARG;
		r = read_run(j, first, step, buf, &rr);
		if (r != 0)
			return r;
		if (rr != 0)
			return cvb_fail(j->err, CVB_E_DRIVER, "file-system "
					"metadata at block %u could not be "
					"read", (unsigned)first);
		first += step;
		n -= step;
		buf += (size_t)step * j->bs;
	}
	return 0;
}

static int all_zero(const unsigned char *p, size_t n)
{
	while (n-- > 0)
		if (*p++ != 0)
			return 0;
	return 1;
}

/* Stage hook: 0 go on, else the CVB_E_INTERRUPTED outcome (1 or 2). */
static int stage(struct job *j, enum cvb_stage s)
{
	if (j->o->stage_hook == NULL)
		return 0;
	return j->o->stage_hook(j->o->hook_ctx, (int)s);
}



/*
 * The partition's block count from GET_BLOCK_SIZE, checked against the
 * size the system gives.  Every size and block number the driver takes
 * or gives is 32 bits wide: GET_BLOCK_SIZE's size in KiB wraps at 4 TiB
 * (a 5 TiB partition reads as 1 TiB), and START_BACKUP, READ_BLOCKS and
 * the maps number blocks in 32 bits.  A partition they cannot describe is
 * refused: backing up the part they do describe would look like a
 * complete backup.
 */
static int check_geometry(struct job *j, const BlockSize *geo)
{
	uint64_t bytes = j->o->device_bytes, blocks;
	unsigned ma = (unsigned)j->o->major, mi = (unsigned)j->o->minor;
	int32_t bs = geo->blockSize;

	if (bs < 512 || (uint32_t)bs > CVB_MAX_BLOCK_SIZE ||
	    (bs & (bs - 1)) != 0)
		return cvb_fail(j->err, CVB_E_DRIVER, "unusable geometry: "
				"block size %d, %u KiB", (int)bs,
				(unsigned)geo->partitionSizeKB);
	if (bytes / 1024 > 0xFFFFFFFFu)
		return cvb_fail(j->err, CVB_E_TOO_BIG, "device %u:%u has %llu "
				"bytes (%llu GiB): partitions of 4 TiB and more "
				"cannot be backed up, the driver describes "
				"sizes in 32-bit KiB (it reports %u KiB)", ma,
				mi, (unsigned long long)bytes,
				(unsigned long long)(bytes >> 30),
				(unsigned)geo->partitionSizeKB);
	if (bytes / 1024 != geo->partitionSizeKB)
		return cvb_fail(j->err, CVB_E_DRIVER, "device %u:%u has %llu "
				"KiB but the driver reports %u KiB: refusing "
				"to back up a partition whose size the driver "
				"does not see", ma, mi,
				(unsigned long long)(bytes / 1024),
				(unsigned)geo->partitionSizeKB);
	blocks = (uint64_t)geo->partitionSizeKB * 1024u / (uint32_t)bs;
	if (blocks > CVB_MAX_BLOCKS)
		return cvb_fail(j->err, CVB_E_TOO_BIG, "device %u:%u has %llu "
				"blocks of %d bytes: more than the driver's "
				"32-bit block numbers can address (at most %u)",
				ma, mi, (unsigned long long)blocks, (int)bs,
				(unsigned)CVB_MAX_BLOCKS);
	if (blocks == 0)
		return cvb_fail(j->err, CVB_E_DRIVER, "unusable geometry: "
				"block size %d, %u KiB", (int)bs,
				(unsigned)geo->partitionSizeKB);
	j->bs = (uint32_t)bs;
	j->count = (uint32_t)blocks;
	return 0;
}

/*
 * The allocated blocks of an ext2/ext3 file system into `used` (zeroed):
 * 1, or 0 with why filled when they cannot be had (no such file system,
 * one the reader does not understand, metadata that cannot be read).
 */
static int used_blocks(struct job *j, unsigned char *used, char *why,
		       size_t len)
{
	char fs_why[200];
	int r;

	fs_why[0] = '\0';
	j->err->msg[0] = '\0';
	r = cvb_ext2_used_blocks(fs_read, j, j->bs, j->count, used, fs_why,
				 sizeof(fs_why));
	if (r == 1)
		return 1;
	if (r == 0)
		snprintf(why, len, "%s", fs_why);
	else
		snprintf(why, len, "the file system's block bitmaps could "
			 "not be read (%.200s)", j->err->msg[0] ? j->err->msg :
			 "out of memory");
	j->err->msg[0] = '\0';
	j->err->code = 0;
	memset(used, 0, cvb_bitmap_bytes(j->count));
	return 0;
}

static int snapshot(struct job *j, const unsigned char *key)
{
	AMSessionKey k;
	State st;
	int r;

	if (key != NULL) {
		memcpy(k.key, key, CVB_KEY_SIZE);
	} else {
		r = cv_no_load_from_automap(&j->dev);
		if (r != 0)
			return driver_fail(j, "NO_LOAD_FROM_AUTOMAP", r);
	}
	r = cv_snapshot(&j->dev, key != NULL ? &k : NULL,
			key != NULL ? (uint32_t)sizeof(k) : 0u);
	if (r == KIV_ERR_INVALID)
		return cvb_fail(j->err, CVB_E_DRIVER, "SNAPSHOT refused: the "
				"partition has no mounted file system to "
				"freeze, or its queue cannot be hooked (see "
				"the kernel log)");
	if (r != 0)
		return driver_fail(j, "SNAPSHOT", r);
	memset(&st, 0, sizeof(st));
	r = cv_get_state(&j->dev, &st, sizeof(st));
	if (r != 0)
		return driver_fail(j, "GET_STATE", r);
	j->state = st.state;
	j->buf_len = (uint32_t)st.mmapSize;
	return 0;
}

/*
 * Load the blocks to read as the backup's block map (state 6): from then
 * on the driver keeps old contents only of blocks still to be read, and
 * frees each as it is read, so its cache stays small.  A driver without
 * the command (it answers 3 and stays in state 4) is read in state 4.
 */
static int load_map(struct job *j, const unsigned char *want)
{
	State st;
	int r = cv_load_block_map(&j->dev, want, j->count);

	if (r == 0) {
		j->state = BU_STATE_MAP_LOADED;
		return 0;
	}
	memset(&st, 0, sizeof(st));
	if (r == KIV_ERR_REFUSED &&
	    cv_get_state(&j->dev, &st, sizeof(st)) == 0 &&
	    st.state == BU_STATE_SNAPSHOT)
		return 0;
	return driver_fail(j, "LOAD_BLOCK_MAP", r);
}

static void cleanup(struct job *j, int keep_tmp)
{
	if (j->fd >= 0) {
		close(j->fd);
		j->fd = -1;
		if (!keep_tmp)
			unlink(j->tmp);
	}
	if (j->dev_open) {
		if (j->buf != 0)
			(void)cv_munmap(&j->dev, j->buf, j->buf_len);
		(void)cv_close(&j->dev);
		j->dev_open = 0;
		j->buf = 0;
	}
	free(j->chunk);
	j->chunk = NULL;
}


static int interrupted(struct job *j, int how, const char *where)
{
	cleanup(j, how == 2);
	return cvb_fail(j->err, CVB_E_INTERRUPTED, "backup interrupted %s; "
			"the repository is unchanged%s", where,
			bk_record_says(j));
}


/* Read the set of blocks `want` and store them; fills h and the sums. */
static int read_and_store(struct job *j, struct cvb_header *h,
			  const unsigned char *want, unsigned char *bad,
			  struct cvb_backup_result *res)
{
	uint32_t bs = j->bs, at = 0, n, i, stored = 0, run_fill = 0;
	uint32_t nsums = (h->present_count + CVB_RUN_BLOCKS - 1) /
			 CVB_RUN_BLOCKS;
	unsigned char *sums = cvb_calloc((size_t)nsums * 4 + 4, 1);
	uint32_t crc = 0;
	uint64_t off = h->data_offset;
	int r = 0, rr, first = 1;

	if (sums == NULL)
		return cvb_fail(j->err, CVB_E_IO, "out of memory");
	while (at < j->count) {
		if (!cvb_bit(want, at)) {
			at++;
			continue;
		}
		for (n = 1; n < j->per_read && at + n < j->count &&
		     cvb_bit(want, at + n); n++)
			;
		r = read_run(j, at, n, j->chunk, &rr);
		if (r != 0)
			break;
		if (rr == KIV_ERR_IO) {
			/*
			 * Some blocks of the run could not be read; they
			 * arrive as zeros.  Before a block map is loaded
			 * (state 4) nothing is consumed, so each block is
			 * read again alone to learn which; in state 6 the
			 * run's all-zero blocks are the candidates.
			 */
			for (i = 0; i < n && r == 0; i++) {
				unsigned char *p = j->chunk + (size_t)i * bs;

				if (j->state == BU_STATE_SNAPSHOT) {
					r = read_run(j, at + i, 1, p, &rr);
					if (r == 0 && rr != 0) {
						memset(p, 0, bs);
						cvb_set_bit(bad, at + i);
					}
				} else if (all_zero(p, bs)) {
					cvb_set_bit(bad, at + i);
				}
			}
			if (r != 0)
				break;
		}
		for (i = 0; i < n; i++) {
			crc = cvb_crc32c(crc, j->chunk + (size_t)i * bs, bs);
			if (++run_fill == CVB_RUN_BLOCKS) {
				cvb_put32(sums + (size_t)(stored / CVB_RUN_BLOCKS)
					  * 4, crc);
				crc = 0;
				run_fill = 0;
			}
			stored++;
		}
		r = cvb_write_at(j->fd, j->chunk, (size_t)n * bs, off);
		if (r != 0) {
			r = cvb_fail(j->err, CVB_E_IO, "%s: %s", j->tmp,
				     strerror(r));
			break;
		}
		off += (uint64_t)n * bs;
		res->blocks_read += n;
		at += n;
		if (j->o->progress != NULL)
			j->o->progress(j->o->progress_ctx,
				       (uint64_t)res->blocks_read * bs,
				       (uint64_t)h->present_count * bs);
		if (j->o->stop != NULL && *j->o->stop) {
			r = -1;
			break;
		}
		if (first) {
			first = 0;
			rr = stage(j, CVB_STAGE_READING);
			if (rr != 0) {
				r = -rr;
				break;
			}
		}
	}
	if (r == 0 && run_fill > 0)
		cvb_put32(sums + (size_t)(stored / CVB_RUN_BLOCKS) * 4, crc);
	if (r == 0 && stored != h->present_count)
		r = cvb_fail(j->err, CVB_E_DRIVER, "read %u blocks, expected "
			     "%u", (unsigned)stored,
			     (unsigned)h->present_count);
	if (r == 0) {
		uint32_t bm = cvb_bitmap_bytes(j->count);

		h->unreadable_count = cvb_count_bits(bad, j->count);
		h->unreadable_crc = cvb_crc32c(0, bad, bm);
		h->sums_crc = cvb_crc32c(0, sums, (size_t)nsums * 4);
		r = cvb_write_at(j->fd, bad, bm, h->unreadable_offset);
		if (r == 0)
			r = cvb_write_at(j->fd, sums, (size_t)nsums * 4,
					 h->sums_offset);
		if (r != 0)
			r = cvb_fail(j->err, CVB_E_IO, "%s: %s", j->tmp,
				     strerror(r));
	}
	free(sums);
	return r;
}


/*
 * The backup proper: from the repository as loaded (with the record of
 * an interrupted backup, if one was found) to the index listing the new
 * backup.  The caller frees the repository and the record.
 */
static int run(struct job *j, struct cvb_repo *repo, int rec_found,
	       int rec_r, const char *rec_why, struct cvb_backup_result *res)
{
	const struct cvb_backup_opts *o = j->o;
	struct cvb_err *err = j->err;
	struct cvb_header prev, h;
	struct cvb_entry e;
	struct cvb_err ignored;
	struct base b;
	BlockSize geo;
	AutoMapState ams;
	unsigned char head[CVB_HEADER_SIZE];
	unsigned char *want = NULL, *bad = NULL;
	char name[64], why[240], after_why[200], note[240], mismatch[240];
	uint64_t t0;
	uint32_t bm, i;
	int r, have_prev, inc, how, vouched;

	have_prev = bk_last_header(repo, &prev, &ignored) == 0;
	r = cv_open(&j->dev, o->tp, o->control_path);
	if (r != 0)
		return driver_fail(j, "opening the control device", r);
	j->dev_open = 1;
	memset(&geo, 0, sizeof(geo));
	r = cv_get_block_size(&j->dev, o->major, o->minor, &geo, sizeof(geo));
	if (r != 0) {
		cleanup(j, 0);
		if (r == KIV_ERR_NO_FS)
			return cvb_fail(err, CVB_E_DRIVER, "device %u:%u has "
					"no mounted file system or does not "
					"exist (GET_BLOCK_SIZE: %s)",
					(unsigned)o->major, (unsigned)o->minor,
					cv_result_name(r));
		return driver_fail(j, "GET_BLOCK_SIZE", r);
	}
	r = check_geometry(j, &geo);
	if (r != 0) {
		cleanup(j, 0);
		return r;
	}
	r = cv_start_backup(&j->dev, o->major, o->minor, j->count,
			    o->max_cache_blocks ? o->max_cache_blocks
						: j->count);
	if (r != 0) {
		cleanup(j, 0);
		if (r == KIV_ERR_BUSY)
			return cvb_fail(err, CVB_E_BUSY, "another backup is "
					"running (START_BACKUP: %s)",
					cv_result_name(r));
		return driver_fail(j, "START_BACKUP", r);
	}
	how = stage(j, CVB_STAGE_STARTED);
	if (how != 0)
		return interrupted(j, how, "after START_BACKUP");

	bk_choose_base(j, repo, &prev, have_prev, rec_found, rec_r, rec_why, &b,
		    note, mismatch, sizeof(note));
	why[0] = '\0';
	inc = bk_want_incremental(j, repo, &prev, have_prev, &b, mismatch, why,
			       sizeof(why));
	if (!inc && mismatch[0] != '\0' && strcmp(why, mismatch) == 0)
		snprintf(note, sizeof(note), "%s", mismatch);
	r = bk_record_intent(j, &b, inc);
	if (r != 0) {
		cleanup(j, 0);
		return r;
	}
	how = stage(j, CVB_STAGE_INTENT);
	if (how != 0)
		return interrupted(j, how, "before SNAPSHOT");

	t0 = now_us();
	if (inc) {
		r = snapshot(j, b.key);
		if (r == 0 && j->state == BU_STATE_STARTED) {
			/* The driver refused the key: it changed since. */
			if (b.from_record) {
				snprintf(why, sizeof(why), NOT_USED "the "
					 "driver refused its session key at "
					 "the snapshot");
				snprintf(note, sizeof(note), "%s", why);
			} else {
				snprintf(why, sizeof(why), "key mismatch at "
					 "the snapshot");
			}
			inc = 0;
			t0 = now_us();
			r = snapshot(j, NULL);
		}
	} else {
		r = snapshot(j, NULL);
	}
	res->frozen_us = (uint32_t)(now_us() - t0);
	if (r == 0 && j->state != BU_STATE_SNAPSHOT)
		r = cvb_fail(err, CVB_E_DRIVER, "SNAPSHOT left the backup in "
			     "state %u (%s)", (unsigned)j->state,
			     cv_backup_state_name(j->state));
	if (r != 0) {
		cleanup(j, 0);
		return r;
	}
	j->snapped = 1;
	/*
	 * The session right after the snapshot: what vouches for the map an
	 * incremental is about to export, and the key the next backup
	 * presents (kept only when the session vouches for this snapshot,
	 * else the next backup is full).
	 */
	memset(&h, 0, sizeof(h));
	memset(&ams, 0, sizeof(ams));
	r = cv_get_automap_state(&j->dev, &ams, sizeof(ams));
	vouched = bk_vouched_after(j, r, &ams, b.have ? b.key : have_prev ?
				prev.key : NULL, after_why, sizeof(after_why));
	if (vouched) {
		memcpy(h.key, ams.amsKey.key, CVB_KEY_SIZE);
		h.flags |= CVB_FLAG_KEY;
	}
	h.time = o->time ? o->time : (uint64_t)time(NULL);
	how = stage(j, CVB_STAGE_SNAPSHOT);
	if (how != 0)
		return interrupted(j, how, "after SNAPSHOT");

	/*
	 * The map and the key exist nowhere else now: export the map and
	 * secure both in the record before anything else can fail.
	 */
	bm = cvb_bitmap_bytes(j->count);
	want = cvb_calloc(bm, 1);
	if (want == NULL) {
		cleanup(j, 0);
		return cvb_fail(err, CVB_E_IO, "out of memory");
	}
	if (inc) {
		/*
		 * Exported even when it is not going to be used: the export
		 * consumes the handed-over map, and a map still in place
		 * would be overwritten (and lost) by LOAD_BLOCK_MAP.
		 */
		r = cv_get_automap(&j->dev, want, j->count);
		if (r == KIV_ERR_INVALID) {
			/* No map was handed over after all: read all. */
			inc = 0;
			snprintf(why, sizeof(why), "the driver handed over no "
				 "change map");
			r = 0;
		} else if (r != 0) {
			r = driver_fail(j, "GET_AUTOMAP", r);
		} else if (!vouched) {
			inc = 0;
			snprintf(why, sizeof(why), "%s", after_why);
		} else if (!bk_map_fits(j, want, why, sizeof(why))) {
			inc = 0;
		}
		if (r == 0 && !inc)
			memset(want, 0, bm);
	}
	if (r == 0 && inc && b.map != NULL) {
		/* Changed since the parent: before the base's snapshot, or
		 * between it and this one. */
		for (i = 0; i < bm; i++)
			want[i] = (unsigned char)(want[i] | b.map[i]);
		res->continued = 1;
		res->continued_blocks = b.marked;
	}
	if (r == 0)
		r = bk_record_secured(j, &b, inc, ams.amsKey.key, want);
	if (r != 0) {
		free(want);
		cleanup(j, 0);
		return r;
	}
	how = stage(j, CVB_STAGE_SECURED);
	if (how != 0) {
		free(want);
		return interrupted(j, how, "after securing its change map");
	}

	r = cv_map_read_buffer(&j->dev, j->buf_len, &j->buf);
	bad = cvb_calloc(bm, 1);
	j->per_read = j->buf_len / j->bs;
	j->chunk = cvb_malloc((size_t)j->buf_len + 1);
	if (r != 0 || j->per_read == 0) {
		if (r == 0)
			r = KIV_ERR_INVALID;
		j->buf = 0;
		r = driver_fail(j, "mapping the read buffer", r);
	} else if (bad == NULL || j->chunk == NULL) {
		r = cvb_fail(err, CVB_E_IO, "out of memory");
	}
	if (r == 0 && inc)
		r = load_map(j, want);
	if (r == 0 && !inc) {
		if (o->used_blocks)
			r = used_blocks(j, want, res->why_all_blocks,
					sizeof(res->why_all_blocks));
		if (r == 1) {
			h.flags |= CVB_FLAG_USED_BLOCKS;
			res->used_blocks = 1;
			r = 0;
		} else {
			/*
			 * Not ext2/ext3, or its bitmaps could not be read
			 * (the read loop then records what is unreadable):
			 * read every block, and say why.
			 */
			r = 0;
			memset(want, 0xFF, bm);
			if (j->count % 8)
				want[bm - 1] = (unsigned char)
					((1u << (j->count % 8)) - 1);
		}
		if (r == 0)
			r = load_map(j, want);
	}
	if (r != 0) {
		free(want);
		free(bad);
		cleanup(j, 0);
		return r;
	}
	how = stage(j, CVB_STAGE_MAP);
	if (how != 0) {
		free(want);
		free(bad);
		return interrupted(j, how, "after the block map");
	}

	h.version = CVB_FORMAT_VERSION;
	h.number = repo->count + 1;
	h.kind = inc ? CVB_KIND_INCREMENTAL : CVB_KIND_FULL;
	h.parent = inc ? repo->count : 0;
	h.parent_id = inc ? prev.id : 0;
	h.id = random_id();
	h.major = o->major;
	h.minor = o->minor;
	h.block_size = j->bs;
	h.block_count = j->count;
	h.partition_kb = geo.partitionSizeKB;
	h.present_count = cvb_count_bits(want, j->count);
	h.frozen_us = res->frozen_us;
	cvb_header_layout(&h);
	h.bitmap_crc = cvb_crc32c(0, want, bm);

	cvb_image_name(h.number, name, sizeof(name));
	(void)cvb_path(j->dir, name, j->final, sizeof(j->final));
	snprintf(j->tmp, sizeof(j->tmp), "%s.tmp", j->final);
	j->fd = open(j->tmp, O_WRONLY | O_CREAT | O_TRUNC, 0600);
	if (j->fd < 0)
		r = cvb_fail(err, CVB_E_IO, "%s: %s", j->tmp, strerror(errno));
	else if ((r = cvb_write_at(j->fd, want, bm, h.bitmap_offset)) != 0)
		r = cvb_fail(err, CVB_E_IO, "%s: %s", j->tmp, strerror(r));
	if (r == 0)
		r = read_and_store(j, &h, want, bad, res);
	free(want);
	free(bad);
	if (r < 0)
		return interrupted(j, -r, "while reading");
	if (r != 0) {
		cleanup(j, 0);
		return r;
	}
	/* Everything is read: end the backup before the slow writes. */
	(void)cv_munmap(&j->dev, j->buf, j->buf_len);
	j->buf = 0;
	(void)cv_close(&j->dev);
	j->dev_open = 0;
	how = stage(j, CVB_STAGE_STORED);
	if (how != 0)
		return interrupted(j, how, "while writing its image");

	if (h.unreadable_count > 0)
		h.flags |= CVB_FLAG_UNREADABLE;
	cvb_header_encode(&h, head);
	r = cvb_write_at(j->fd, head, sizeof(head), 0);
	if (r == 0 && fsync(j->fd) != 0)
		r = errno;
	if (r == 0 && close(j->fd) != 0)
		r = errno;
	else if (r != 0)
		close(j->fd);
	j->fd = -1;
	if (r != 0) {
		unlink(j->tmp);
		cleanup(j, 0);
		return cvb_fail(err, CVB_E_IO, "%s: %s", j->tmp, strerror(r));
	}
	how = stage(j, CVB_STAGE_WRITTEN);
	if (how != 0) {
		if (how == 1)
			unlink(j->tmp);
		cleanup(j, 1);
		return cvb_fail(err, CVB_E_INTERRUPTED, "backup interrupted "
				"before its rename; the repository is "
				"unchanged%s", bk_record_says(j));
	}
	if (rename(j->tmp, j->final) != 0 || cvb_fsync_dir(j->dir) != 0) {
		r = cvb_fail(err, CVB_E_IO, "%s: %s", j->final,
			     strerror(errno));
		unlink(j->tmp);
		cleanup(j, 0);
		return r;
	}
	how = stage(j, CVB_STAGE_RENAMED);
	if (how != 0) {
		cleanup(j, 1);
		return cvb_fail(err, CVB_E_INTERRUPTED, "backup interrupted "
				"before the index was updated; the "
				"repository is unchanged%s", bk_record_says(j));
	}
	cvb_entry_from_header(&h, &e);
	r = cvb_repo_append(repo, &e, err);
	cleanup(j, 0);
	if (r != 0)
		return r;
	/*
	 * The index lists the backup, and its header holds the key the
	 * record held: the record is done with.  Should it survive (the
	 * removal failed, or the program died first), it names a parent
	 * that is no longer the last backup, and the next run sets it
	 * aside.
	 */
	(void)cvb_pending_remove(j->dir);
	j->record = REC_NONE;
	(void)stage(j, CVB_STAGE_DONE);

	res->number = h.number;
	res->incremental = inc;
	snprintf(res->why_full, sizeof(res->why_full), "%s", inc ? "" : why);
	snprintf(res->pending_note, sizeof(res->pending_note), "%s", note);
	if (!inc)
		res->continued = 0;
	res->block_size = j->bs;
	res->block_count = j->count;
	res->unreadable = h.unreadable_count;
	res->bytes_stored = h.file_size;
	if (h.unreadable_count > 0)
		return cvb_fail(err, CVB_E_PARTIAL, "%u blocks could not be "
				"read; they are recorded as unreadable and "
				"restore as zeros",
				(unsigned)h.unreadable_count);
	return 0;
}

int cvb_backup(const char *dir, const struct cvb_backup_opts *o,
	       struct cvb_backup_result *res, struct cvb_err *err)
{
	struct job j;
	struct cvb_repo repo;
	char rec_why[200];
	int r, rec_found, rec_r;

	memset(res, 0, sizeof(*res));
	memset(&j, 0, sizeof(j));
	j.o = o;
	j.err = err;
	j.fd = -1;
	j.dir = dir;
	if (o->device_bytes == 0)
		return cvb_fail(err, CVB_E_ARG, "the size of device %u:%u is "
				"not known: without it a partition of 4 TiB "
				"or more cannot be told from a smaller one",
				(unsigned)o->major, (unsigned)o->minor);
	r = cvb_repo_load(dir, 1, &repo, err);
	if (r != 0)
		return r;
	if (mkdir(dir, 0700) != 0 && errno != EEXIST) {
		cvb_repo_free(&repo);
		return cvb_fail(err, CVB_E_IO, "%s: %s", dir, strerror(errno));
	}
	remove_leftovers(dir);
	/*
	 * A record that fails its checks is set aside (the backup says so);
	 * one that cannot be read at all stops the backup before the driver
	 * is touched, as losing it would cost a full backup.
	 */
	rec_why[0] = '\0';
	rec_r = cvb_pending_load(dir, &j.rec, &rec_found, err);
	if (rec_r == CVB_E_CORRUPT) {
		snprintf(rec_why, sizeof(rec_why), "%.160s", err->msg);
		err->msg[0] = '\0';
		err->code = 0;
	} else if (rec_r != 0) {
		cvb_repo_free(&repo);
		return rec_r;
	}
	r = run(&j, &repo, rec_found, rec_r, rec_why, res);
	cvb_pending_free(&j.rec);
	cvb_repo_free(&repo);
	return r;
}
