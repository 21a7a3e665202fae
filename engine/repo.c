/*
 * repo.c - the repository directory: its index and reading image files.
 */
#define _POSIX_C_SOURCE 200809L
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "crc32c.h"
#include "engine.h"
#include "fileio.h"

int cvb_fail(struct cvb_err *err, int code, const char *fmt, ...)
{
	va_list ap;

	if (err != NULL) {
		err->code = code;
		va_start(ap, fmt);
		vsnprintf(err->msg, sizeof(err->msg), fmt, ap);
		va_end(ap);
	}
	return code;
}

int cvb_path(const char *dir, const char *name, char *out, size_t len)
{
	int n = snprintf(out, len, "%s/%s", dir, name);

	return n < 0 || (size_t)n >= len ? -1 : 0;
}

/*
 * Whether the directory holds any file named like our image files.  A
 * temporary one ("backup-N.img.tmp") is not: a first backup killed while
 * writing its image leaves one, and the next run removes it.
 */
static int has_images(const char *dir)
{
	DIR *d = opendir(dir);
	struct dirent *de;
	size_t n;
	int found = 0;

	if (d == NULL)
		return 0;
	while ((de = readdir(d)) != NULL) {
		n = strlen(de->d_name);
		if (strncmp(de->d_name, "backup-", 7) == 0 &&
		    !(n > 4 && strcmp(de->d_name + n - 4, ".tmp") == 0))
			found = 1;
	}
	closedir(d);
	return found;
}

int cvb_repo_load(const char *dir, int may_be_new, struct cvb_repo *repo,
		  struct cvb_err *err)
{
	char path[1100];
	unsigned char head[CVB_INDEX_HEAD_SIZE];
	unsigned char *body = NULL;
	uint64_t size;
	uint32_t count, i, crc;
	struct stat st;
	int fd, r;

	memset(repo, 0, sizeof(*repo));
	if (strlen(dir) >= sizeof(repo->dir))
		return cvb_fail(err, CVB_E_ARG, "%s: path too long", dir);
	strcpy(repo->dir, dir);
	if (stat(dir, &st) != 0) {
		if (errno == ENOENT && may_be_new)
			return 0;
		return cvb_fail(err, errno == ENOENT ? CVB_E_ARG : CVB_E_IO,
				"%s: %s", dir, strerror(errno));
	}
	if (!S_ISDIR(st.st_mode))
		return cvb_fail(err, CVB_E_FOREIGN, "%s: not a directory (a "
				"repository is a directory)", dir);
	if (cvb_path(dir, CVB_INDEX_NAME, path, sizeof(path)) != 0)
		return cvb_fail(err, CVB_E_ARG, "%s: path too long", dir);
	fd = open(path, O_RDONLY);
	if (fd < 0) {
		if (errno != ENOENT)
			return cvb_fail(err, CVB_E_IO, "%s: %s", path,
					strerror(errno));
		if (has_images(dir))
			return cvb_fail(err, CVB_E_CORRUPT, "%s: backup "
					"images but no index", dir);
		if (may_be_new)
			return 0;
		return cvb_fail(err, CVB_E_ARG, "%s: no backups here (no "
				"index)", dir);
	}
	r = cvb_file_size(fd, &size);
	if (r == 0 && size < CVB_INDEX_HEAD_SIZE) {
		close(fd);
		return cvb_fail(err, size >= 8 ? CVB_E_CORRUPT : CVB_E_FOREIGN,
				"%s: %s", path, size >= 8 ? "index is truncated"
				: "not a corvalin repository index");
	}
	if (r == 0)
		r = cvb_read_at(fd, head, sizeof(head), 0);
	if (r != 0) {
		close(fd);
		return cvb_fail(err, CVB_E_IO, "%s: %s", path, strerror(r));
	}
	if (memcmp(head, CVB_INDEX_MAGIC, 8) != 0) {
		close(fd);
		return cvb_fail(err, CVB_E_FOREIGN, "%s: not a corvalin "
				"repository index (wrong magic)", path);
	}
	if (cvb_get32(head + 8) != CVB_FORMAT_VERSION) {
		close(fd);
		return cvb_fail(err, CVB_E_FOREIGN, "%s: index format version "
				"%u is not supported", path,
				(unsigned)cvb_get32(head + 8));
	}
	count = cvb_get32(head + 12);
	if (cvb_get32(head + 16) != CVB_INDEX_ENTRY_SIZE ||
	    count > CVB_MAX_BACKUPS ||
	    size != CVB_INDEX_HEAD_SIZE + (uint64_t)count *
	    CVB_INDEX_ENTRY_SIZE) {
		close(fd);
		return cvb_fail(err, CVB_E_CORRUPT, "%s: index size does not "
				"match its entry count", path);
	}
	body = cvb_malloc((size_t)count * CVB_INDEX_ENTRY_SIZE + 1);
	repo->entries = cvb_calloc((size_t)count + 1, sizeof(*repo->entries));
	if (body == NULL || repo->entries == NULL) {
		close(fd);
		free(body);
		cvb_repo_free(repo);
		return cvb_fail(err, CVB_E_IO, "out of memory");
	}
	r = cvb_read_at(fd, body, (size_t)count * CVB_INDEX_ENTRY_SIZE,
			CVB_INDEX_HEAD_SIZE);
	close(fd);
	if (r != 0) {
		free(body);
		cvb_repo_free(repo);
		return cvb_fail(err, CVB_E_IO, "%s: %s", path, strerror(r));
	}
	crc = cvb_crc32c(0, head, 28);
	crc = cvb_crc32c(crc, body, (size_t)count * CVB_INDEX_ENTRY_SIZE);
	if (crc != cvb_get32(head + 28)) {
		free(body);
		cvb_repo_free(repo);
		return cvb_fail(err, CVB_E_CORRUPT, "%s: index checksum "
				"mismatch", path);
	}
	for (i = 0; i < count; i++) {
		struct cvb_entry *e = &repo->entries[i];

		cvb_entry_decode(body + (size_t)i * CVB_INDEX_ENTRY_SIZE, e);
		if (e->number != i + 1 ||
		    (e->kind != CVB_KIND_FULL &&
		     e->kind != CVB_KIND_INCREMENTAL) ||
		    (e->kind == CVB_KIND_FULL) != (e->parent == 0) ||
		    e->parent >= e->number) {
			free(body);
			cvb_repo_free(repo);
			return cvb_fail(err, CVB_E_CORRUPT, "%s: entry %u is "
					"inconsistent", path, (unsigned)i + 1);
		}
	}
	free(body);
	repo->count = count;
	return 0;
}

void cvb_repo_free(struct cvb_repo *repo)
{
	free(repo->entries);
	repo->entries = NULL;
	repo->count = 0;
}

const struct cvb_entry *cvb_repo_entry(const struct cvb_repo *repo,
				       uint32_t number)
{
	if (number == 0 || number > repo->count)
		return NULL;
	return &repo->entries[number - 1];
}

int cvb_repo_append(struct cvb_repo *repo, const struct cvb_entry *e,
		    struct cvb_err *err)
{
	uint32_t count = repo->count + 1, i, crc;
	size_t len = CVB_INDEX_HEAD_SIZE + (size_t)count *
		     CVB_INDEX_ENTRY_SIZE;
	unsigned char *buf = cvb_calloc(1, len);
	struct cvb_entry *grown;
	int r;

	if (buf == NULL)
		return cvb_fail(err, CVB_E_IO, "out of memory");
	grown = cvb_realloc(repo->entries, (size_t)count * sizeof(*grown));
	if (grown == NULL) {
		free(buf);
		return cvb_fail(err, CVB_E_IO, "out of memory");
	}
	repo->entries = grown;
	memcpy(buf, CVB_INDEX_MAGIC, 8);
	cvb_put32(buf + 8, CVB_FORMAT_VERSION);
	cvb_put32(buf + 12, count);
	cvb_put32(buf + 16, CVB_INDEX_ENTRY_SIZE);
	for (i = 0; i < repo->count; i++)
		cvb_entry_encode(&repo->entries[i], buf + CVB_INDEX_HEAD_SIZE +
				 (size_t)i * CVB_INDEX_ENTRY_SIZE);
	cvb_entry_encode(e, buf + CVB_INDEX_HEAD_SIZE +
			 (size_t)repo->count * CVB_INDEX_ENTRY_SIZE);
	crc = cvb_crc32c(0, buf, 28);
	crc = cvb_crc32c(crc, buf + CVB_INDEX_HEAD_SIZE,
			 len - CVB_INDEX_HEAD_SIZE);
	cvb_put32(buf + 28, crc);
	r = cvb_replace_file(repo->dir, CVB_INDEX_NAME, buf, len, err);
	free(buf);
	if (r != 0)
		return r;
	repo->entries[repo->count] = *e;
	repo->count = count;
	return 0;
}

/* --- the record of a backup that has not completed ------------------------ */

void cvb_pending_free(struct cvb_pending *p)
{
	free(p->raw);
	memset(p, 0, sizeof(*p));
}

int cvb_pending_load(const char *dir, struct cvb_pending *p, int *found,
		     struct cvb_err *err)
{
	char path[1100], why[160];
	unsigned char *raw;
	uint64_t size;
	int fd, r;

	memset(p, 0, sizeof(*p));
	*found = 0;
	if (cvb_path(dir, CVB_PENDING_NAME, path, sizeof(path)) != 0)
		return cvb_fail(err, CVB_E_ARG, "%s: path too long", dir);
	fd = open(path, O_RDONLY);
	if (fd < 0) {
		if (errno == ENOENT || errno == ENOTDIR)
			return 0;
		return cvb_fail(err, CVB_E_IO, "%s: %s", path,
				strerror(errno));
	}
	*found = 1;
	r = cvb_file_size(fd, &size);
	if (r != 0) {
		close(fd);
		return cvb_fail(err, CVB_E_IO, "%s: %s", path, strerror(r));
	}
	/*
	 * The largest record maps 2^32 blocks; anything larger is damage,
	 * not a reason to allocate that much.
	 */
	if (size > CVB_PENDING_HEAD_SIZE + (uint64_t)0x20000000u) {
		close(fd);
		return cvb_fail(err, CVB_E_CORRUPT, "it has trailing bytes "
				"(%llu in all)", (unsigned long long)size);
	}
	raw = cvb_malloc((size_t)size + 1);
	if (raw == NULL) {
		close(fd);
		return cvb_fail(err, CVB_E_IO, "out of memory");
	}
	r = cvb_read_at(fd, raw, (size_t)size, 0);
	close(fd);
	if (r != 0) {
		free(raw);
		return cvb_fail(err, CVB_E_IO, "%s: %s", path, strerror(r));
	}
	if (cvb_pending_decode(raw, size, p, why, sizeof(why)) != 0) {
		free(raw);
		memset(p, 0, sizeof(*p));
		return cvb_fail(err, CVB_E_CORRUPT, "%s", why);
	}
	p->raw = raw;
	return 0;
}

int cvb_pending_save(const char *dir, const struct cvb_pending *p,
		     struct cvb_err *err)
{
	size_t len = cvb_pending_size(p);
	unsigned char *buf = cvb_malloc(len);
	int r;

	if (buf == NULL)
		return cvb_fail(err, CVB_E_IO, "out of memory");
	cvb_pending_encode(p, buf);
	r = cvb_replace_file(dir, CVB_PENDING_NAME, buf, len, err);
	free(buf);
	return r;
}

int cvb_pending_remove(const char *dir)
{
	char path[1100];

	if (cvb_path(dir, CVB_PENDING_NAME, path, sizeof(path)) != 0)
		return ENAMETOOLONG;
	if (unlink(path) != 0)
		return errno == ENOENT ? 0 : errno;
	return cvb_fsync_dir(dir);
}

/* --- image files ---------------------------------------------------------- */

void cvb_image_close(struct cvb_image *im)
{
	if (im->fd >= 0)
		close(im->fd);
	free(im->present);
	free(im->unreadable);
	free(im->sums);
	free(im->io);
	memset(im, 0, sizeof(*im));
	im->fd = -1;
}

int cvb_image_open(const struct cvb_repo *repo, uint32_t number,
		   struct cvb_image *im, struct cvb_err *err)
{
	const struct cvb_entry *e = cvb_repo_entry(repo, number);
	struct cvb_entry got;
	unsigned char head[CVB_HEADER_SIZE];
	char name[64], path[1100], why[160];
	uint64_t size;
	uint32_t bm, nsums, i;
	unsigned char *raw = NULL;
	int r;

	memset(im, 0, sizeof(*im));
	im->fd = -1;
	if (e == NULL)
		return cvb_fail(err, CVB_E_ARG, "%s: there is no backup %u",
				repo->dir, (unsigned)number);
	cvb_image_name(number, name, sizeof(name));
	if (cvb_path(repo->dir, name, path, sizeof(path)) != 0)
		return cvb_fail(err, CVB_E_ARG, "path too long");
	im->fd = open(path, O_RDONLY);
	if (im->fd < 0)
		return cvb_fail(err, errno == ENOENT ? CVB_E_CORRUPT : CVB_E_IO,
				"%s: %s", path, strerror(errno));
	r = cvb_file_size(im->fd, &size);
	if (r == 0 && size < CVB_HEADER_SIZE) {
		cvb_image_close(im);
		return cvb_fail(err, CVB_E_CORRUPT, "%s: file is truncated "
				"(%llu bytes)", path,
				(unsigned long long)size);
	}
	if (r == 0)
		r = cvb_read_at(im->fd, head, sizeof(head), 0);
	if (r != 0) {
		cvb_image_close(im);
		return cvb_fail(err, CVB_E_IO, "%s: %s", path, strerror(r));
	}
	if (cvb_header_decode(head, size, &im->h, why, sizeof(why)) != 0) {
		cvb_image_close(im);
		return cvb_fail(err, CVB_E_CORRUPT, "%s: %s", path, why);
	}
	cvb_entry_from_header(&im->h, &got);
	if (memcmp(&got, e, sizeof(got)) != 0) {
		cvb_image_close(im);
		return cvb_fail(err, CVB_E_CORRUPT, "%s: header does not "
				"match the index", path);
	}
	bm = cvb_bitmap_bytes(im->h.block_count);
	nsums = (im->h.present_count + CVB_RUN_BLOCKS - 1) / CVB_RUN_BLOCKS;
	im->present = cvb_malloc(bm);
	im->unreadable = cvb_malloc(bm);
	im->sums = cvb_malloc((size_t)nsums * 4 + 4);
	raw = cvb_malloc((size_t)nsums * 4 + 4);
	im->io = cvb_malloc((size_t)im->h.block_size * CVB_RUN_BLOCKS);
	if (im->present == NULL || im->unreadable == NULL ||
	    im->sums == NULL || raw == NULL || im->io == NULL) {
		free(raw);
		cvb_image_close(im);
		return cvb_fail(err, CVB_E_IO, "out of memory");
	}
	r = cvb_read_at(im->fd, im->present, bm, im->h.bitmap_offset);
	if (r == 0)
		r = cvb_read_at(im->fd, im->unreadable, bm,
				im->h.unreadable_offset);
	if (r == 0)
		r = cvb_read_at(im->fd, raw, (size_t)nsums * 4,
				im->h.sums_offset);
	if (r != 0) {
		free(raw);
		cvb_image_close(im);
		return cvb_fail(err, CVB_E_IO, "%s: %s", path, strerror(r));
	}
	if (cvb_crc32c(0, im->present, bm) != im->h.bitmap_crc ||
	    cvb_crc32c(0, im->unreadable, bm) != im->h.unreadable_crc ||
	    cvb_crc32c(0, raw, (size_t)nsums * 4) != im->h.sums_crc) {
		free(raw);
		cvb_image_close(im);
		return cvb_fail(err, CVB_E_CORRUPT, "%s: bitmap or checksum "
				"table damaged", path);
	}
	for (i = 0; i < nsums; i++)
		im->sums[i] = cvb_get32(raw + (size_t)i * 4);
	free(raw);
	/* Bits past the last block must be clear; counts must match. */
	if (cvb_count_bits(im->present, bm * 8) != im->h.present_count ||
	    cvb_count_bits(im->unreadable, bm * 8) !=
	    im->h.unreadable_count) {
		cvb_image_close(im);
		return cvb_fail(err, CVB_E_CORRUPT, "%s: bitmaps do not match "
				"the block counts", path);
	}
	for (i = 0; i < bm; i++)
		if (im->unreadable[i] & ~im->present[i]) {
			cvb_image_close(im);
			return cvb_fail(err, CVB_E_CORRUPT, "%s: an unreadable "
					"block is not stored", path);
		}
	return 0;
}

int cvb_image_next(struct cvb_image *im, const unsigned char **data,
		   struct cvb_err *err)
{
	uint32_t bs = im->h.block_size, run, n;
	int r;

	if (im->next_index >= im->h.present_count)
		return cvb_fail(err, CVB_E_ARG, "read past the stored blocks");
	if (im->io_at == im->io_blocks) {
		/* Load the next run (the checksum unit) whole. */
		run = im->next_index / CVB_RUN_BLOCKS;
		n = im->h.present_count - run * CVB_RUN_BLOCKS;
		if (n > CVB_RUN_BLOCKS)
			n = CVB_RUN_BLOCKS;
		r = cvb_read_at(im->fd, im->io, (size_t)n * bs,
				im->h.data_offset +
				(uint64_t)run * CVB_RUN_BLOCKS * bs);
		if (r != 0)
			return cvb_fail(err, CVB_E_IO, "backup %u: %s",
					(unsigned)im->h.number, strerror(r));
		if (cvb_crc32c(0, im->io, (size_t)n * bs) != im->sums[run])
			return cvb_fail(err, CVB_E_CORRUPT, "backup %u: "
					"checksum mismatch in stored blocks "
					"%u to %u", (unsigned)im->h.number,
					(unsigned)(run * CVB_RUN_BLOCKS),
					(unsigned)(run * CVB_RUN_BLOCKS + n -
						   1));
		im->io_blocks = n;
		im->io_at = 0;
	}
	*data = im->io + (size_t)im->io_at * bs;
	im->io_at++;
	im->next_index++;
	return 0;
}
