/*
 * platform_posix.c - the CLI's platform on a real system: device nodes
 * by stat(2), their sizes by lseek(2), mounts from /proc/mounts, a lock
 * file with fcntl(2).
 */
#define _POSIX_C_SOURCE 200809L
#define _DEFAULT_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "cli.h"

static int lock_fd = -1;

static int resolve(void *ctx, const char *name, uint32_t *major,
		   uint32_t *minor)
{
	struct stat st;

	(void)ctx;
	if (stat(name, &st) != 0)
		return errno;
	if (!S_ISBLK(st.st_mode))
		return -1;
	*major = (uint32_t)major(st.st_rdev);
	*minor = (uint32_t)minor(st.st_rdev);
	return 0;
}

/*
 * The size of the block device, from its end: the kernel's own count of
 * the partition's sectors, in 64 bits whatever the driver's interfaces
 * say.  Read-only open of a mounted partition; nothing is read.
 */
static int device_size(void *ctx, const char *name, uint64_t *bytes)
{
	off_t end;
	int fd, e;

	(void)ctx;
	fd = open(name, O_RDONLY);
	if (fd < 0)
		return errno;
	end = lseek(fd, 0, SEEK_END);
	e = errno;
	close(fd);
	if (end < 0)
		return e;
	*bytes = (uint64_t)end;
	return 0;
}

/* Whether any mounted file system's source is the same block device. */
static int is_mounted(void *ctx, const char *target)
{
	struct stat t, s;
	char line[4096], src[4096];
	FILE *f;
	int found = 0;

	(void)ctx;
	if (stat(target, &t) != 0)
		return -errno;
	f = fopen("/proc/mounts", "r");
	if (f == NULL)
		return -errno;
	while (!found && fgets(line, sizeof(line), f) != NULL)
		if (sscanf(line, "%4095s", src) == 1 && src[0] == '/' &&
		    stat(src, &s) == 0 && S_ISBLK(s.st_mode) &&
		    s.st_rdev == t.st_rdev)
			found = 1;
	fclose(f);
	return found;
}

static const char *lock_path(void)
{
	struct stat st;

	if (stat("/var/run", &st) == 0 && S_ISDIR(st.st_mode))
		return "/var/run/corvalin.lock";
	return "/tmp/corvalin.lock";
}

static int take_lock(void *ctx)
{
	struct flock fl;

	(void)ctx;
	lock_fd = open(lock_path(), O_RDWR | O_CREAT, 0600);
	/* A system without a writable /var/run or /tmp (a bare initramfs)
	 * runs unlocked rather than not at all. */
	if (lock_fd < 0 && (errno == ENOENT || errno == EROFS))
		return 0;
	if (lock_fd < 0)
		return -errno;
	memset(&fl, 0, sizeof(fl));
	fl.l_type = F_WRLCK;
	fl.l_whence = SEEK_SET;
	if (fcntl(lock_fd, F_SETLK, &fl) != 0) {
		int e = errno;

		close(lock_fd);
		lock_fd = -1;
		return e == EACCES || e == EAGAIN ? 1 : -e;
	}
	return 0;
}

static void release_lock(void *ctx)
{
	(void)ctx;
	if (lock_fd >= 0)
		close(lock_fd);	/* drops the lock */
	lock_fd = -1;
}

void cvb_platform_posix(struct cvb_platform *pf)
{
	memset(pf, 0, sizeof(*pf));
	pf->tp = cv_transport_real();
	pf->control_path = CV_DEVICE_PATH;
	pf->resolve = resolve;
	pf->device_size = device_size;
	pf->is_mounted = is_mounted;
	pf->take_lock = take_lock;
	pf->release_lock = release_lock;
	pf->out = stdout;
	pf->err = stderr;
	pf->progress = isatty(2);
}
