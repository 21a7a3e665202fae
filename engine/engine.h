/*
 * engine.h - the backup engine of corvalin: the repository (index and
 * image files), backups through libcorvalin, restore, verify.
 *
 * C99 with POSIX file calls only, so that it builds the same on the host
 * and statically against musl for the 32-bit target.  The engine talks to
 * the driver through a libcorvalin transport (the real device, or an
 * emulated process in tests and the demo) and to the repository through
 * ordinary files: a repository is a directory; see docs/FORMAT.md.
 *
 * Errors: every call returns 0 or one of CVB_E_* and fills a cvb_err with
 * a one-line message (no trailing newline).
 */
#ifndef CVB_ENGINE_H
#define CVB_ENGINE_H

#include <stddef.h>
#include <stdint.h>

#include "corvalin_client.h"
#include "format.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
	CVB_OK = 0,
	CVB_E_IO = 1,		/* a system call on a file failed */
	CVB_E_DRIVER = 2,	/* the driver refused or failed a command */
	CVB_E_CORRUPT = 3,	/* repository data fails its checks */
	CVB_E_FOREIGN = 4,	/* not a corvalin repository */
	CVB_E_ARG = 5,		/* invalid request (no such backup, ...) */
	CVB_E_BUSY = 6,		/* another backup is running */
	CVB_E_INTERRUPTED = 7,	/* stopped by a signal or a stage hook */
	CVB_E_PARTIAL = 8,	/* stored, but some blocks were unreadable */
	CVB_E_MOUNTED = 9,	/* restore target is mounted */
	CVB_E_TOO_BIG = 10	/* beyond what the driver's 32-bit sizes
				 * and block numbers describe */
};

struct cvb_err {
	int code;
	char msg[512];
};

/* Fill err (printf-style) and return code. */
int cvb_fail(struct cvb_err *err, int code, const char *fmt, ...)
#ifdef __GNUC__
	__attribute__((format(printf, 3, 4)))
#endif
	;

/* --- allocation ---------------------------------------------------------- */

/* Every allocation of the engine (engine/alloc.c); free() releases. */
void *cvb_malloc(size_t n);
void *cvb_calloc(size_t n, size_t size);
void *cvb_realloc(void *p, size_t n);
/*
 * Fault injection for tests: the allocations made so far; make the nth
 * from now fail (1: the next one), and with `and_later` every one after
 * it too.  nth 0 ends the injection.
 */
unsigned long cvb_alloc_calls(void);
void cvb_alloc_fail(unsigned long nth, int and_later);

/* --- the repository ------------------------------------------------------ */

#define CVB_INDEX_NAME "index"

struct cvb_repo {
	char dir[1024];
	uint32_t count;
	struct cvb_entry *entries;	/* count entries, numbers 1..count */
};

/*
 * Load REPO's index.  A missing directory, or one without an index and
 * without any image file, is an empty repository when `may_be_new` is set
 * (the first backup creates it), otherwise CVB_E_ARG.  A file that is not
 * our index gives CVB_E_FOREIGN; a damaged index CVB_E_CORRUPT.
 */
int cvb_repo_load(const char *dir, int may_be_new, struct cvb_repo *repo,
		  struct cvb_err *err);
void cvb_repo_free(struct cvb_repo *repo);
/* Entry of backup `number`, or NULL. */
const struct cvb_entry *cvb_repo_entry(const struct cvb_repo *repo,
				       uint32_t number);
/*
 * Append `e` (number count + 1) and replace the index atomically: write
 * "index.tmp", fsync it, rename it over "index", fsync the directory.
 */
int cvb_repo_append(struct cvb_repo *repo, const struct cvb_entry *e,
		    struct cvb_err *err);

/*
 * The record of a backup that has not completed (CVB_PENDING_NAME, see
 * format.h).  Load: 0 with *found 0 when there is none; 0 with *found 1
 * and p filled (cvb_pending_free releases it); CVB_E_CORRUPT with only
 * the reason in err (e.g. "its checksum does not match") when the file
 * fails its checks; CVB_E_IO when it cannot be read.
 */
int cvb_pending_load(const char *dir, struct cvb_pending *p, int *found,
		     struct cvb_err *err);
void cvb_pending_free(struct cvb_pending *p);
/* Replace it atomically (cvb_replace_file), as the index is replaced. */
int cvb_pending_save(const char *dir, const struct cvb_pending *p,
		     struct cvb_err *err);
/* Remove it (none there is fine) durably: 0 or an errno value. */
int cvb_pending_remove(const char *dir);

/* An image file opened for reading, its header and bitmaps checked. */
struct cvb_image {
	int fd;
	struct cvb_header h;
	unsigned char *present;		/* bitmap of stored blocks */
	unsigned char *unreadable;	/* bitmap of unreadable blocks */
	uint32_t *sums;			/* per-run checksums */
	/* sequential reading of the stored blocks */
	uint32_t next_index;		/* stored blocks consumed */
	unsigned char *io;		/* buffer of up to a run of blocks */
	uint32_t io_blocks, io_at;
};

/*
 * Open backup `number` of repo: header, bitmaps and checksum table read
 * and checked against each other and against the index entry.
 */
int cvb_image_open(const struct cvb_repo *repo, uint32_t number,
		   struct cvb_image *im, struct cvb_err *err);
void cvb_image_close(struct cvb_image *im);
/*
 * The next stored block, in block order: its data is placed at *data
 * (block_size bytes, valid until the next call).  Each run's checksum is
 * checked when its last block is read (CVB_E_CORRUPT on a mismatch).
 */
int cvb_image_next(struct cvb_image *im, const unsigned char **data,
		   struct cvb_err *err);

/* --- backup -------------------------------------------------------------- */

/* Stages a backup passes, in order (for progress and for tests). */
enum cvb_stage {
	CVB_STAGE_STARTED = 1,		/* START_BACKUP done */
	CVB_STAGE_INTENT,		/* the record says a snapshot comes */
	CVB_STAGE_SNAPSHOT,		/* SNAPSHOT done, state 4 */
	CVB_STAGE_SECURED,		/* the snapshot's change map recorded */
	CVB_STAGE_MAP,			/* set of blocks to read known */
	CVB_STAGE_READING,		/* after the first run was stored */
	CVB_STAGE_STORED,		/* every block stored, driver closed,
					 * the image's header not written */
	CVB_STAGE_WRITTEN,		/* image complete, under its temp name */
	CVB_STAGE_RENAMED,		/* image renamed, index not yet */
	CVB_STAGE_DONE			/* index updated */
};

struct cvb_backup_opts {
	const struct cv_transport *tp;	/* driver transport */
	const char *control_path;	/* NULL: /dev/corvalin */
	uint32_t major, minor;		/* the partition */
	/*
	 * The partition's size in bytes as the system tells it (the block
	 * device's end).  Required: GET_BLOCK_SIZE answers in 32-bit KiB,
	 * which wraps at 4 TiB, so the driver's answer alone cannot tell a
	 * 5 TiB partition from a 1 TiB one.  0 is refused.
	 */
	uint64_t device_bytes;
	int force_full;
	int used_blocks;		/* 1 where ext2/ext3 is recognised */
	uint32_t max_cache_blocks;	/* 0: a default */
	/* Called at every stage; a nonzero result stops the backup there
	 * (1: as after SIGINT, cleaning up its temporary file; 2: as if the
	 * process were killed, leaving every file as it is). */
	int (*stage_hook)(void *ctx, int stage);	/* enum cvb_stage */
	void *hook_ctx;
	/* Called after every run read: bytes done of total. */
	void (*progress)(void *ctx, uint64_t done, uint64_t total);
	void *progress_ctx;
	/* Set (by a signal handler) to stop the backup at the next run. */
	volatile int *stop;
	/* Time of the backup (seconds since 1970); 0: now. */
	uint64_t time;
};

struct cvb_backup_result {
	uint32_t number;		/* the new backup */
	int incremental;
	char why_full[240];		/* "" for an incremental */
	/*
	 * An incremental that continues an interrupted backup: its parent
	 * is the interrupted one's, and it read the blocks that backup's
	 * secured change map named (continued_blocks of them) along with
	 * its own.
	 */
	int continued;
	uint32_t continued_blocks;
	/* A record of an interrupted backup that was found and not used:
	 * why, as one sentence ("" otherwise). */
	char pending_note[240];
	uint32_t block_size, block_count;
	int used_blocks;		/* 1: only allocated blocks were read */
	/* A full backup asked to read only allocated blocks that read every
	 * block: why ("" otherwise).  Callers show it as a warning. */
	char why_all_blocks[300];
	uint32_t blocks_read;
	uint32_t unreadable;
	uint64_t bytes_stored;		/* size of the image file */
	uint32_t frozen_us;
};

int cvb_backup(const char *repo_dir, const struct cvb_backup_opts *o,
	       struct cvb_backup_result *res, struct cvb_err *err);

/* --- restore and verify -------------------------------------------------- */

/* The chain of backup `number`: numbers from the full one to `number`. */
int cvb_chain(const struct cvb_repo *repo, uint32_t number,
	      uint32_t *chain, uint32_t *len, struct cvb_err *err);

struct cvb_restore_opts {
	uint32_t number;		/* 0: the latest */
	/* bytes done of total */
	void (*progress)(void *ctx, uint64_t done, uint64_t total);
	void *progress_ctx;
};

struct cvb_restore_result {
	uint32_t number;
	uint32_t chain_len;
	uint32_t block_size, block_count;
	uint32_t blocks_written;	/* blocks taken from images */
	uint32_t unreadable;		/* restored as zeros: unreadable */
	uint64_t bytes;			/* size of the partition image */
};

/*
 * Write backup N's partition onto `fd` (a block device or a regular file,
 * opened for writing; `is_file` lets absent blocks become holes).  Every
 * image of the chain is read whole and its checksums checked before the
 * run they cover is trusted... see restore.c for the exact order.
 */
int cvb_restore_fd(const struct cvb_repo *repo,
		   const struct cvb_restore_opts *o, int fd, int is_file,
		   struct cvb_restore_result *res, struct cvb_err *err);

struct cvb_verify_item {
	uint32_t number;
	int image_ok;			/* its own checks passed */
	int restorable;			/* it and its whole chain are ok */
	char problem[600];		/* first problem found, "" if none */
};

/*
 * Check every image of the repository (header, bitmaps, every run's
 * checksum) and every chain.  `items` gets repo->count entries (caller
 * frees).  Files in the directory that the index does not list are
 * reported through `extra` (may be NULL), one name per call.
 */
int cvb_verify(const struct cvb_repo *repo, struct cvb_verify_item **items,
	       void (*extra)(void *ctx, const char *name), void *extra_ctx,
	       struct cvb_err *err);

/* --- file-system aware reads --------------------------------------------- */

/* Reads `n` blocks from `first` into buf; 0 or a CVB_E_* code. */
typedef int (*cvb_read_fn)(void *ctx, uint32_t first, uint32_t n,
			   unsigned char *buf);

/*
 * If the partition (block_count blocks of block_size bytes, read through
 * `rd`) holds an ext2 or ext3 file system of the same block size, set the
 * bits of its allocated blocks in `used` (cvb_bitmap_bytes(block_count)
 * bytes, zeroed by the caller) and return 1.  Return 0 when it is not
 * recognised (`why` says why), or a negative value when reading failed.
 */
int cvb_ext2_used_blocks(cvb_read_fn rd, void *ctx, uint32_t block_size,
			 uint32_t block_count, unsigned char *used,
			 char *why, size_t whylen);

#ifdef __cplusplus
}
#endif

#endif /* CVB_ENGINE_H */
