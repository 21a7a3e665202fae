/*
 * restore.c - rebuilding a partition from a chain of backups, and
 * checking a repository.
 *
 * A chain is a full backup followed by incrementals, each the child of
 * the one before (its parent number and parent id).  Block N of backup K
 * is the block stored by the newest image of K's chain that has it; a
 * block no image stores is zero (a file-system aware full backup leaves
 * unallocated blocks out).  Every image is read sequentially, whole, and
 * each run of stored blocks is checked against its checksum before any of
 * its blocks is used.
 */
#define _POSIX_C_SOURCE 200809L
#include <dirent.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "engine.h"
#include "fileio.h"

int cvb_chain(const struct cvb_repo *repo, uint32_t number,
	      uint32_t *chain, uint32_t *len, struct cvb_err *err)
{
	const struct cvb_entry *e = cvb_repo_entry(repo, number), *p;
	uint32_t n = 0, i, t;

	if (e == NULL)
		return cvb_fail(err, CVB_E_ARG, "there is no backup %u "
				"(the repository has %u)", (unsigned)number,
				(unsigned)repo->count);
	for (;;) {
		chain[n++] = e->number;
		if (e->kind == CVB_KIND_FULL)
			break;
		p = cvb_repo_entry(repo, e->parent);
		if (p == NULL || p->id != e->parent_id ||
		    p->block_size != e->block_size ||
		    p->block_count != e->block_count)
			return cvb_fail(err, CVB_E_CORRUPT, "backup %u: its "
					"parent %u does not match (broken "
					"chain)", (unsigned)e->number,
					(unsigned)e->parent);
		e = p;
	}
	for (i = 0; i < n / 2; i++) {
		t = chain[i];
		chain[i] = chain[n - 1 - i];
		chain[n - 1 - i] = t;
	}
	*len = n;
	return 0;
}

/* Pending output: a run of consecutive blocks not yet written. */
struct out {
	int fd;
	uint32_t bs, first, n, cap;
	unsigned char *buf;
};

static int flush(struct out *o, struct cvb_err *err)
{
	int r;

	if (o->n == 0)
		return 0;
	r = cvb_write_at(o->fd, o->buf, (size_t)o->n * o->bs,
			 (uint64_t)o->first * o->bs);
	o->n = 0;
	if (r != 0)
		return cvb_fail(err, CVB_E_IO, "writing the target at block "
				"%u: %s", (unsigned)o->first, strerror(r));
	return 0;
}

static int put(struct out *o, uint32_t block, const unsigned char *data,
	       struct cvb_err *err)
{
	int r;

	if (o->n > 0 && (o->first + o->n != block || o->n == o->cap)) {
		r = flush(o, err);
		if (r != 0)
			return r;
	}
	if (o->n == 0)
		o->first = block;
	if (data != NULL)
		memcpy(o->buf + (size_t)o->n * o->bs, data, o->bs);
	else
		memset(o->buf + (size_t)o->n * o->bs, 0, o->bs);
	o->n++;
	return 0;
}

int cvb_restore_fd(const struct cvb_repo *repo,
		   const struct cvb_restore_opts *o, int fd, int is_file,
		   struct cvb_restore_result *res, struct cvb_err *err)
{
	uint32_t *chain = NULL, len = 0, i, b, number;
	struct cvb_image *im = NULL;
	struct out out;
	const unsigned char *data, *use;
	int r = 0, from;

	memset(res, 0, sizeof(*res));
	memset(&out, 0, sizeof(out));
	number = o->number ? o->number : repo->count;
	if (repo->count == 0)
		return cvb_fail(err, CVB_E_ARG, "the repository has no "
				"backups");
	chain = cvb_calloc(repo->count, sizeof(*chain));
	im = cvb_calloc(repo->count, sizeof(*im));
	if (chain == NULL || im == NULL) {
		free(chain);
		free(im);
		return cvb_fail(err, CVB_E_IO, "out of memory");
	}
	for (i = 0; i < repo->count; i++)
		im[i].fd = -1;
	r = cvb_chain(repo, number, chain, &len, err);
	for (i = 0; r == 0 && i < len; i++)
		r = cvb_image_open(repo, chain[i], &im[i], err);
	if (r == 0) {
		out.fd = fd;
		out.bs = im[0].h.block_size;
		out.cap = CVB_RUN_BLOCKS;
		out.buf = cvb_malloc((size_t)out.bs * out.cap);
		if (out.buf == NULL)
			r = cvb_fail(err, CVB_E_IO, "out of memory");
		res->number = number;
		res->chain_len = len;
		res->block_size = im[0].h.block_size;
		res->block_count = im[0].h.block_count;
		res->bytes = (uint64_t)res->block_count * res->block_size;
	}
	if (r == 0 && is_file && ftruncate(fd, 0) != 0)
		r = cvb_fail(err, CVB_E_IO, "truncating the target: %s",
			     strerror(errno));
	if (r == 0 && is_file && ftruncate(fd, (off_t)res->bytes) != 0)
		r = cvb_fail(err, CVB_E_IO, "sizing the target: %s",
			     strerror(errno));
	for (b = 0; r == 0 && b < res->block_count; b++) {
		use = NULL;
		from = -1;
		/* Newest first; older copies are read too (checksums). */
		for (i = len; r == 0 && i-- > 0;) {
			if (!cvb_bit(im[i].present, b))
				continue;
			r = cvb_image_next(&im[i], &data, err);
			if (r == 0 && from < 0) {
				from = (int)i;
				use = data;
				if (cvb_bit(im[i].unreadable, b))
					res->unreadable++;
			}
			/* `use` points into im[from]'s own buffer. */
		}
		if (r != 0)
			break;
		if (from >= 0) {
			res->blocks_written++;
			r = put(&out, b, use, err);
		} else if (!is_file) {
			r = put(&out, b, NULL, err);
		}
		if (r == 0 && o->progress != NULL && (b & 1023) == 1023)
			o->progress(o->progress_ctx,
				    (uint64_t)(b + 1) * res->block_size,
				    res->bytes);
	}
	if (r == 0)
		r = flush(&out, err);
	if (r == 0 && fsync(fd) != 0 && errno != EINVAL)
		r = cvb_fail(err, CVB_E_IO, "fsync of the target: %s",
			     strerror(errno));
	if (r == 0 && o->progress != NULL)
		o->progress(o->progress_ctx, res->bytes, res->bytes);
	for (i = 0; i < repo->count; i++)
		if (im[i].fd >= 0 || im[i].present != NULL)
			cvb_image_close(&im[i]);
	free(out.buf);
	free(chain);
	free(im);
	return r;
}

/* Open an image and read every stored block: its own checks. */
static int check_image(const struct cvb_repo *repo, uint32_t number,
		       struct cvb_err *err)
{
	struct cvb_image im;
	const unsigned char *data;
	uint32_t i;
	int r = cvb_image_open(repo, number, &im, err);

	for (i = 0; r == 0 && i < im.h.present_count; i++)
		r = cvb_image_next(&im, &data, err);
	if (im.fd >= 0 || im.present != NULL)
		cvb_image_close(&im);
	return r;
}

int cvb_verify(const struct cvb_repo *repo, struct cvb_verify_item **items,
	       void (*extra)(void *ctx, const char *name), void *extra_ctx,
	       struct cvb_err *err)
{
	struct cvb_verify_item *v;
	struct cvb_err e;
	const struct cvb_entry *en, *p;
	uint32_t i;
	DIR *d;
	struct dirent *de;
	char name[64];
	unsigned long num;

	v = cvb_calloc((size_t)repo->count + 1, sizeof(*v));
	if (v == NULL)
		return cvb_fail(err, CVB_E_IO, "out of memory");
	for (i = 0; i < repo->count; i++) {
		en = &repo->entries[i];
		v[i].number = en->number;
		memset(&e, 0, sizeof(e));
		v[i].image_ok = check_image(repo, en->number, &e) == 0;
		if (!v[i].image_ok)
			snprintf(v[i].problem, sizeof(v[i].problem), "%s",
				 e.msg);
		v[i].restorable = v[i].image_ok;
		if (v[i].restorable && en->kind == CVB_KIND_INCREMENTAL) {
			p = cvb_repo_entry(repo, en->parent);
			if (p == NULL || p->id != en->parent_id ||
			    p->block_size != en->block_size ||
			    p->block_count != en->block_count) {
				v[i].restorable = 0;
				snprintf(v[i].problem, sizeof(v[i].problem),
					 "its parent %u does not match",
					 (unsigned)en->parent);
			} else if (!v[p->number - 1].restorable) {
				/* Parents come first: already decided. */
				v[i].restorable = 0;
				snprintf(v[i].problem, sizeof(v[i].problem),
					 "backup %u of its chain is not "
					 "restorable", (unsigned)p->number);
			}
		}
	}
	*items = v;
	if (extra == NULL)
		return 0;
	d = opendir(repo->dir);
	if (d == NULL)
		return 0;
	while ((de = readdir(d)) != NULL) {
		if (strcmp(de->d_name, ".") == 0 ||
		    strcmp(de->d_name, "..") == 0 ||
		    strcmp(de->d_name, CVB_INDEX_NAME) == 0 ||
		    strcmp(de->d_name, CVB_PENDING_NAME) == 0)
			continue;
		if (sscanf(de->d_name, "backup-%lu.img", &num) == 1 &&
		    num >= 1 && num <= repo->count) {
			cvb_image_name((uint32_t)num, name, sizeof(name));
			if (strcmp(name, de->d_name) == 0)
				continue;
		}
		extra(extra_ctx, de->d_name);
	}
	closedir(d);
	return 0;
}
