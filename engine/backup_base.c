/*
 * backup_base.c - what a backup continues: the repository's last complete
 * backup, or the record that an interrupted backup left of its snapshot
 * (its key and the change map secured right after it); whether the
 * session vouches for it before and after the SNAPSHOT; and the records
 * this run leaves in its turn (backup.c says when).
 */
#define _POSIX_C_SOURCE 200809L
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "backup_job.h"

/* Last backup's header, to learn its key (0, or no usable previous). */
int bk_last_header(const struct cvb_repo *repo, struct cvb_header *h,
		       struct cvb_err *err)
{
	struct cvb_image im;
	int r;

	if (repo->count == 0)
		return -1;
	r = cvb_image_open(repo, repo->count, &im, err);
	if (r != 0)
		return r;
	*h = im.h;
	cvb_image_close(&im);
	return 0;
}

/*
 * The base: the record of an interrupted backup when it continues the
 * repository's last backup of this partition, else that last backup.
 * `note` gets why a record that is there cannot be used; `mismatch` what
 * a session key other than the base's means, as far as the record tells
 * ("" for the plain mismatch).  rec_r/rec_why: how loading the record
 * went (0, or CVB_E_CORRUPT and the reason).
 */
void bk_choose_base(const struct job *j, const struct cvb_repo *repo,
			const struct cvb_header *prev, int have_prev,
			int rec_found, int rec_r, const char *rec_why,
			struct base *b, char *note, char *mismatch,
			size_t len)
{
	const struct cvb_pending *p = &j->rec;
	const char *after = p->kind == CVB_KIND_FULL ? WHY_FULL_STOPPED
						     : WHY_WINDOW;

	memset(b, 0, sizeof(*b));
	note[0] = mismatch[0] = '\0';
	if (repo->count > 0 && have_prev && (prev->flags & CVB_FLAG_KEY) &&
	    prev->major == j->o->major && prev->minor == j->o->minor &&
	    prev->block_size == j->bs && prev->block_count == j->count) {
		b->have = 1;
		b->key = prev->key;
		b->parent = repo->count;
		b->parent_id = prev->id;
	}
	if (!rec_found)
		return;
	if (rec_r != 0) {
		/* It may have held the key the session has now. */
		snprintf(note, len, NOT_USED "%s", rec_why);
		snprintf(mismatch, len, "%s", note);
		return;
	}
	if (!(p->flags & CVB_PENDING_KEY)) {
		/*
		 * Nothing to continue: a full backup stopped after its
		 * snapshot (SECURED), or one about to take it (INTENT).
		 * Either way a key other than the last backup's means that
		 * snapshot was taken.
		 */
		snprintf(mismatch, len, "%s", after);
		return;
	}
	if (p->parent < repo->count) {
		/* Left behind by a backup that completed, or older. */
		snprintf(note, len, NOT_USED "it continues backup %u, and "
			 "backup %u has completed since", (unsigned)p->parent,
			 (unsigned)repo->count);
		return;
	}
	if (p->parent > repo->count || !have_prev ||
	    p->parent_id != prev->id) {
		snprintf(note, len, NOT_USED "it continues a backup %u that "
			 "is not this repository's (the last one here is %u)",
			 (unsigned)p->parent, (unsigned)repo->count);
		snprintf(mismatch, len, "%s", note);
		return;
	}
	if (p->major != j->o->major || p->minor != j->o->minor ||
	    p->block_size != j->bs || p->block_count != j->count) {
		snprintf(note, len, NOT_USED "it was made for device %u:%u "
			 "of %u blocks of %u bytes, the partition is %u:%u of "
			 "%u blocks of %u bytes", (unsigned)p->major,
			 (unsigned)p->minor, (unsigned)p->block_count,
			 (unsigned)p->block_size, (unsigned)j->o->major,
			 (unsigned)j->o->minor, (unsigned)j->count,
			 (unsigned)j->bs);
		snprintf(mismatch, len, "%s", note);
		return;
	}
	b->have = 1;
	b->from_record = 1;
	b->key = p->key;
	b->map = p->map;
	b->marked = p->marked;
	b->parent = p->parent;
	b->parent_id = p->parent_id;
	/*
	 * An INTENT record whose key the session no longer has: the
	 * snapshot it announced was taken and its map never recorded.
	 */
	if (p->state == CVB_PENDING_INTENT)
		snprintf(mismatch, len, "%s", after);
	else
		snprintf(mismatch, len, NOT_USED "the driver does not accept "
			 "its session key (the partition had another snapshot "
			 "since)");
}

/* Decide whether to try an incremental from `b`; fills why when not. */
int bk_want_incremental(struct job *j, const struct cvb_repo *repo,
			    const struct cvb_header *prev, int have_prev,
			    const struct base *b, const char *mismatch,
			    char *why, size_t len)
{
	AutoMapState ams;
	int r;

	if (j->o->force_full) {
		snprintf(why, len, "--full was given");
		return 0;
	}
	if (repo->count == 0) {
		snprintf(why, len, "first backup in this repository");
		return 0;
	}
	if (!have_prev) {
		snprintf(why, len, "the repository's last backup cannot be "
			 "read");
		return 0;
	}
	if (prev->major != j->o->major || prev->minor != j->o->minor) {
		snprintf(why, len, "the last backup is of another device "
			 "(%u:%u)", (unsigned)prev->major,
			 (unsigned)prev->minor);
		return 0;
	}
	if (prev->block_size != j->bs || prev->block_count != j->count) {
		snprintf(why, len, "size changed (%u blocks of %u bytes, now "
			 "%u of %u)", (unsigned)prev->block_count,
			 (unsigned)prev->block_size, (unsigned)j->count,
			 (unsigned)j->bs);
		return 0;
	}
	if (!b->have) {
		snprintf(why, len, "the last backup has no session key");
		return 0;
	}
	memset(&ams, 0, sizeof(ams));
	r = cv_get_automap_state(&j->dev, &ams, sizeof(ams));
	if (r != 0) {
		snprintf(why, len, "change tracking cannot be queried (%s)",
			 cv_result_name(r));
		return 0;
	}
	if (ams.major == 0 && ams.minor == 0 && ams.state == 0) {
		snprintf(why, len, "the partition is not tracked (module "
			 "reloaded, or tracking stopped)");
		return 0;
	}
	if (ams.major != j->o->major || ams.minor != j->o->minor) {
		snprintf(why, len, "change tracking answers for device %u:%u",
			 (unsigned)ams.major, (unsigned)ams.minor);
		return 0;
	}
	if (ams.state != 1) {
		snprintf(why, len, "tracking lost (session state %u)",
			 (unsigned)ams.state);
		return 0;
	}
	if (ams.mapLen != j->count) {
		snprintf(why, len, "size changed (tracking covers %u blocks, "
			 "the partition has %u)", (unsigned)ams.mapLen,
			 (unsigned)j->count);
		return 0;
	}
	if (memcmp(ams.amsKey.key, b->key, CVB_KEY_SIZE) != 0) {
		if (mismatch[0] != '\0')
			snprintf(why, len, "%s", mismatch);
		else
			snprintf(why, len, "key mismatch (the partition's last "
				 "backup is not this repository's last one)");
		return 0;
	}
	return 1;
}

/*
 * Whether the session's state read right after the snapshot vouches for
 * what the snapshot did: the partition's own session, in sync, covering
 * the partition's blocks, under a key other than `old` (every snapshot
 * that keeps or starts tracking gives the session a new key; `old` is the
 * key presented, or NULL).  Fills why when not.
 */
int bk_vouched_after(struct job *j, int ams_r, const AutoMapState *ams,
			 const unsigned char *old, char *why, size_t len)
{
	if (ams_r != 0) {
		snprintf(why, len, "change map not vouched for (change "
			 "tracking cannot be queried after the snapshot: %s)",
			 cv_result_name(ams_r));
		return 0;
	}
	if (ams->major != j->o->major || ams->minor != j->o->minor) {
		snprintf(why, len, "change map not vouched for (after the "
			 "snapshot change tracking answers for device %u:%u)",
			 (unsigned)ams->major, (unsigned)ams->minor);
		return 0;
	}
	if (ams->state != 1) {
		snprintf(why, len, "change map not vouched for (after the "
			 "snapshot the session is in state %u)",
			 (unsigned)ams->state);
		return 0;
	}
	if (ams->mapLen != j->count) {
		snprintf(why, len, "change map not vouched for (after the "
			 "snapshot the session covers %u blocks, the partition "
			 "has %u)", (unsigned)ams->mapLen, (unsigned)j->count);
		return 0;
	}
	if (old != NULL && memcmp(ams->amsKey.key, old, CVB_KEY_SIZE) == 0) {
		snprintf(why, len, "change map not vouched for (the snapshot "
			 "did not renew the session key)");
		return 0;
	}
	return 1;
}

/*
 * The exported change map against the partition's geometry: the driver
 * wrote (count + 7) / 8 bytes for a map of `count` blocks (it refuses a
 * map of another length), so only the last byte can name blocks that do
 * not exist.  Such a map was not made for this partition.
 */
int bk_map_fits(const struct job *j, const unsigned char *map, char *why,
		    size_t len)
{
	uint32_t bm = cvb_bitmap_bytes(j->count);

	if (j->count % 8 != 0 && (map[bm - 1] >> (j->count % 8)) != 0) {
		snprintf(why, len, "change map not usable (it marks blocks at "
			 "or beyond the partition's %u blocks)",
			 (unsigned)j->count);
		return 0;
	}
	return 1;
}

/* What the record this run leaves means for the next backup. */
const char *bk_record_says(const struct job *j)
{
	if (j->record_kind != CVB_KIND_INCREMENTAL)
		return "";
	if (j->record == REC_SECURED)
		return " (the next backup continues this one)";
	if (j->record == REC_INTENT && j->snapped)
		return " (its change map was not secured: the next backup "
		       "is full)";
	return "";
}

/*
 * The record before the SNAPSHOT: the base this snapshot continues, so
 * that a run that dies before the snapshot leaves the next one the same
 * base, and one that dies after it (before its map is secured) leaves a
 * key the session no longer has.
 */
int bk_record_intent(struct job *j, const struct base *b, int inc)
{
	struct cvb_pending p;
	int r;

	memset(&p, 0, sizeof(p));
	p.state = CVB_PENDING_INTENT;
	p.kind = inc ? CVB_KIND_INCREMENTAL : CVB_KIND_FULL;
	p.major = j->o->major;
	p.minor = j->o->minor;
	p.block_size = j->bs;
	p.block_count = j->count;
	if (b->have) {
		p.flags = CVB_PENDING_KEY;
		p.parent = b->parent;
		p.parent_id = b->parent_id;
		memcpy(p.key, b->key, CVB_KEY_SIZE);
		if (b->map != NULL) {
			p.flags |= CVB_PENDING_MAP;
			p.map = b->map;
			p.marked = b->marked;
		}
	}
	r = cvb_pending_save(j->dir, &p, j->err);
	if (r == 0) {
		j->record = REC_INTENT;
		j->record_kind = p.kind;
	}
	return r;
}

/*
 * The record right after the SNAPSHOT.  An incremental: the session's new
 * key and the blocks changed since its parent's snapshot (`want`, this
 * snapshot's map joined with the base's), so that the next run continues
 * from there.  A full backup: that it was taken, and nothing to continue
 * (no complete backup is at its snapshot; its own key is only of use
 * with its image complete).
 */
int bk_record_secured(struct job *j, const struct base *b, int inc,
			  const unsigned char *key, const unsigned char *want)
{
	struct cvb_pending p;
	int r;

	memset(&p, 0, sizeof(p));
	p.state = CVB_PENDING_SECURED;
	p.kind = inc ? CVB_KIND_INCREMENTAL : CVB_KIND_FULL;
	p.major = j->o->major;
	p.minor = j->o->minor;
	p.block_size = j->bs;
	p.block_count = j->count;
	if (inc) {
		p.flags = CVB_PENDING_KEY | CVB_PENDING_MAP;
		p.parent = b->parent;
		p.parent_id = b->parent_id;
		memcpy(p.key, key, CVB_KEY_SIZE);
		p.map = want;
		p.marked = cvb_count_bits(want, j->count);
	}
	r = cvb_pending_save(j->dir, &p, j->err);
	if (r == 0) {
		j->record = REC_SECURED;
		j->record_kind = p.kind;
	}
	return r;
}
