/*
 * fileio.c - the engine's file primitives (POSIX, no stdio buffering).
 */
#define _POSIX_C_SOURCE 200809L
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "engine.h"
#include "fileio.h"

int cvb_file_size(int fd, uint64_t *size)
{
	struct stat st;

	if (fstat(fd, &st) != 0)
		return errno;
	*size = (uint64_t)st.st_size;
	return 0;
}

int cvb_read_at(int fd, void *buf, size_t len, uint64_t off)
{
	char *p = (char *)buf;
	ssize_t n;

	while (len > 0) {
		n = pread(fd, p, len, (off_t)off);
		if (n < 0 && errno == EINTR)
			continue;
		if (n < 0)
			return errno;
		if (n == 0)
			return EIO;	/* the file ends early */
		p += n;
		off += (uint64_t)n;
		len -= (size_t)n;
	}
	return 0;
}

int cvb_write_at(int fd, const void *buf, size_t len, uint64_t off)
{
	const char *p = (const char *)buf;
	ssize_t n;

	while (len > 0) {
		n = pwrite(fd, p, len, (off_t)off);
		if (n < 0 && errno == EINTR)
			continue;
		if (n < 0)
			return errno;
		if (n == 0)
			return EIO;
		p += n;
		off += (uint64_t)n;
		len -= (size_t)n;
	}
	return 0;
}

int cvb_fsync_dir(const char *dir)
{
	int fd = open(dir, O_RDONLY), r = 0;

	if (fd < 0)
		return errno;
	/* Some file systems refuse fsync on a directory: not an error. */
	if (fsync(fd) != 0 && errno != EINVAL && errno != EROFS)
		r = errno;
	close(fd);
	return r;
}

int cvb_replace_file(const char *dir, const char *name, const void *buf,
		     size_t len, struct cvb_err *err)
{
	char path[1100], tmp[1110];
	int fd, r;

	if (cvb_path(dir, name, path, sizeof(path)) != 0)
		return cvb_fail(err, CVB_E_ARG, "path too long");
	snprintf(tmp, sizeof(tmp), "%s.tmp", path);
	fd = open(tmp, O_WRONLY | O_CREAT | O_TRUNC, 0600);
	if (fd < 0)
		return cvb_fail(err, CVB_E_IO, "%s: %s", tmp, strerror(errno));
	r = cvb_write_at(fd, buf, len, 0);
	if (r == 0 && fsync(fd) != 0)
		r = errno;
	if (close(fd) != 0 && r == 0)
		r = errno;
	if (r == 0 && rename(tmp, path) != 0)
		r = errno;
	if (r != 0) {
		unlink(tmp);
		return cvb_fail(err, CVB_E_IO, "%s: %s", path, strerror(r));
	}
	r = cvb_fsync_dir(dir);
	if (r != 0)
		return cvb_fail(err, CVB_E_IO, "%s: %s", dir, strerror(r));
	return 0;
}
