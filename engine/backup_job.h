/*
 * backup_job.h - what the two halves of one backup share: the job
 * (backup.c runs it) and the base it continues (backup_base.c chooses it
 * and keeps the repository's record of an interrupted backup).  Internal
 * to the engine.
 */
#ifndef CVB_BACKUP_JOB_H
#define CVB_BACKUP_JOB_H

#include "engine.h"

/* What the repository's record of this run says (job.record). */
enum { REC_NONE, REC_INTENT, REC_SECURED };

struct job {
	const struct cvb_backup_opts *o;
	struct cvb_err *err;
	cv_device dev;
	int dev_open;
	cv_uaddr buf;			/* the read-buffer mapping */
	uint32_t buf_len;
	uint32_t per_read;		/* blocks one READ_BLOCKS may carry */
	uint32_t bs, count;
	uint32_t state;			/* the backup's state after SNAPSHOT */
	const char *dir;		/* the repository */
	struct cvb_pending rec;		/* the record found at the start */
	int record;			/* what the record says now: REC_* */
	uint32_t record_kind;		/* of this run, once recorded */
	int snapped;			/* SNAPSHOT has succeeded */
	unsigned char *chunk;		/* host copy of one run */
	int fd;				/* the image under its temp name */
	char tmp[1110], final[1100];
};

/*
 * What this backup's snapshot can continue: the key to present, the
 * complete backup the result builds on, and the blocks an interrupted
 * backup's secured change map named since that backup's snapshot.
 */
struct base {
	int have;			/* a key to present */
	int from_record;		/* the record's, not the index's */
	const unsigned char *key;
	const unsigned char *map;	/* NULL: none recorded */
	uint32_t marked;		/* blocks set in map */
	uint32_t parent;		/* the repository's last backup */
	uint64_t parent_id;
};

#define NOT_USED "the record of an interrupted backup was not used: "
#define WHY_WINDOW "the previous backup was interrupted between its " \
		   "snapshot and securing the change map"
#define WHY_FULL_STOPPED "the previous backup, a full one, was " \
			 "interrupted after its snapshot"

int bk_last_header(const struct cvb_repo *repo, struct cvb_header *h,
		       struct cvb_err *err);
void bk_choose_base(const struct job *j, const struct cvb_repo *repo,
			const struct cvb_header *prev, int have_prev,
			int rec_found, int rec_r, const char *rec_why,
			struct base *b, char *note, char *mismatch,
			size_t len);
int bk_want_incremental(struct job *j, const struct cvb_repo *repo,
			    const struct cvb_header *prev, int have_prev,
			    const struct base *b, const char *mismatch,
			    char *why, size_t len);
int bk_vouched_after(struct job *j, int ams_r, const AutoMapState *ams,
			 const unsigned char *old, char *why, size_t len);
int bk_map_fits(const struct job *j, const unsigned char *map, char *why,
		    size_t len);
const char *bk_record_says(const struct job *j);
int bk_record_intent(struct job *j, const struct base *b, int inc);
int bk_record_secured(struct job *j, const struct base *b, int inc,
			  const unsigned char *key, const unsigned char *want);

#endif
