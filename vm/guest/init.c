/*
 * init.c - the only program of the boot test's guest: /init of the
 * initramfs, a static i386 binary linked against musl (today's glibc does
 * not start on 2.6.27).
 *
 * It prepares the guest (proc, sysfs, device nodes, waits for the disk),
 * runs the boot scenario (vm/scenario) against the real corvalin.ko with
 * libcorvalin's real transport, prints the kernel log, and powers off.
 * Everything the host reads comes over the serial console:
 *
 *	"SCN <line>"			a transcript line of the scenario
 *	"==== corvalin kernel log ===="	the whole kernel log follows...
 *	"==== corvalin kernel log end ===="
 *	"==== corvalin guest done: <n> failures ===="	the last line
 *
 * The console log level is lowered once the guest is set up, so that the
 * module's information lines reach the host through the transcript only;
 * warnings, errors and oopses still go to the console at once.
 *
 * The scenario's second process is a child forked at its first use; it
 * runs the operations the scenario sends it over a pipe (a function of
 * this very program and an int) and answers with the int result.
 */
#define _GNU_SOURCE 1

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/klog.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include "scenario.h"

#define MODULE_DIR	"/lib/modules"
#define DISK_WAIT_MS	10000
#define PAGE		4096

/* syslog(2) actions of 2.6.27 */
#define LOG_READ	2
#define LOG_READ_ALL	3
#define LOG_CONSOLE_LEVEL 8
#define LOG_UNREAD	9
#define LOG_BUF_LEN	10

static const char *const module_names[] = { "corvalin", "blocker" };
static const char *const fs_types[] = { NULL, "ext2", "ext3" };

/* ---- output -------------------------------------------------------- */

static void out(const char *fmt, ...)
{
	char line[512];
	va_list ap;
	int n;

	va_start(ap, fmt);
	n = vsnprintf(line, sizeof(line) - 1, fmt, ap);
	va_end(ap);
	if (n < 0)
		return;
	if (n > (int)sizeof(line) - 2)
		n = (int)sizeof(line) - 2;
	line[n++] = '\n';
	/*
	 * One write per line, so the two processes never split each
	 * other's; then wait until the serial line sent it.  The tty sends
	 * from a buffer while printk writes to the console at once: without
	 * the wait, the kernel's console messages land in the middle of our
	 * lines, and out of order.
	 */
	(void)!write(1, line, (size_t)n);
	tcdrain(1);
}

static void power_off(void)
{
	sync();
	reboot(RB_POWER_OFF);
	/* Without ACPI power-off, returning makes the kernel panic; with
	 * panic=-1 on its command line it then reboots and QEMU, started
	 * with -no-reboot, exits. */
	_exit(1);
}

static void die(const char *what)
{
	out("==== corvalin guest error: %s: %s ====", what, strerror(errno));
	power_off();
}

/* ---- guest set-up -------------------------------------------------- */

static void node(const char *path, mode_t type, int major, int minor)
{
	unlink(path);
	if (mknod(path, type | 0600, makedev(major, minor)) != 0)
		die(path);
}

static void setup(void)
{
	struct stat st;
	int waited, fd;

	mkdir("/proc", 0755);
	mkdir("/sys", 0755);
	mkdir("/dev", 0755);
	mkdir("/mnt", 0755);
	mkdir("/mnt/p1", 0755);
	mkdir("/mnt/p2", 0755);
	if (mount("proc", "/proc", "proc", 0, NULL) != 0)
		die("mount /proc");
	if (mount("sysfs", "/sys", "sysfs", 0, NULL) != 0)
		die("mount /sys");
	/* No devtmpfs in 2.6.27. */
	node("/dev/corvalin", S_IFCHR, KIV_MAJOR, 0);
	node("/dev/sda", S_IFBLK, SCN_DISK_MAJOR, 0);
	node("/dev/sda1", S_IFBLK, SCN_DISK_MAJOR, 1);
	node("/dev/sda2", S_IFBLK, SCN_DISK_MAJOR, 2);

	/* An oops stops the guest at once (panic=-1 then reboots, and QEMU
	 * exits) instead of running on with a half-dead kernel. */
	fd = open("/proc/sys/kernel/panic_on_oops", O_WRONLY);
	if (fd < 0 || write(fd, "1\n", 2) != 2)
		die("/proc/sys/kernel/panic_on_oops");
	close(fd);

	/* The disk's probe and partition scan normally end before /init
	 * runs; wait a little in case they do not. */
	for (waited = 0; stat("/sys/block/sda/sda2", &st) != 0; waited += 50) {
		if (waited >= DISK_WAIT_MS) {
			errno = ENODEV;
			die("no /sys/block/sda/sda2");
		}
		usleep(50000);
	}
}

/* ---- the platform of the scenario ----------------------------------- */

struct child {
	pid_t pid;
	int req;		/* write end: requests */
	int resp;		/* read end: answers */
};

struct request {
	int (*fn)(int);
	int arg;
};

struct guest {
	struct child second;
	char klog[64 * 1024];	/* unread kernel log not yet handed out */
	size_t klog_len;
};

static struct guest guest;

static int load_module(void *ctx, int module)
{
	char path[128];
	struct stat st;
	void *image;
	long r;
	int fd;

	(void)ctx;
	snprintf(path, sizeof(path), MODULE_DIR "/%s.ko",
		 module_names[module]);
	fd = open(path, O_RDONLY);
	if (fd < 0 || fstat(fd, &st) != 0)
		die(path);
	image = mmap(NULL, (size_t)st.st_size, PROT_READ, MAP_PRIVATE, fd, 0);
	close(fd);
	if (image == MAP_FAILED)
		die(path);
	r = syscall(SYS_init_module, image, (unsigned long)st.st_size, "");
	r = r == 0 ? 0 : -errno;
	munmap(image, (size_t)st.st_size);
	return (int)r;
}

static int unload_module(void *ctx, int module)
{
	(void)ctx;
	/* As rmmod does: fail at once instead of waiting for the users. */
	if (syscall(SYS_delete_module, module_names[module], O_NONBLOCK) != 0)
		return -errno;
	return 0;
}

static int mount_fs(void *ctx, int partition)
{
	char dev[32], dir[32];

	(void)ctx;
	snprintf(dev, sizeof(dev), "/dev/sda%d", partition);
	snprintf(dir, sizeof(dir), "/mnt/p%d", partition);
	return mount(dev, dir, fs_types[partition], 0, NULL) == 0 ? 0 : -errno;
}

/*
 * Before unmounting, leave a file that the host reads back from the disk
 * image (vm/vmtest.sh): proof that the guest really used the partition.
 */
static int umount_fs(void *ctx, int partition)
{
	char path[64], text[64];
	int fd, n;

	(void)ctx;
	snprintf(path, sizeof(path), "/mnt/p%d/guest-was-here", partition);
	n = snprintf(text, sizeof(text), "corvalin boot test, sda%d %s\n",
		     partition, fs_types[partition]);
	fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
	if (fd < 0)
		return -errno;
	if (write(fd, text, (size_t)n) != n || fsync(fd) != 0) {
		close(fd);
		return -EIO;
	}
	close(fd);
	snprintf(path, sizeof(path), "/mnt/p%d", partition);
	return umount(path) == 0 ? 0 : -errno;
}

static int read_full(int fd, void *buf, size_t len)
{
	char *p = buf;

	while (len > 0) {
		ssize_t n = read(fd, p, len);

		if (n < 0 && errno == EINTR)
			continue;
		if (n <= 0)
			return -1;
		p += n;
		len -= (size_t)n;
	}
	return 0;
}

static void child_loop(int req, int resp)
{
	struct request r;
	int result;

	while (read_full(req, &r, sizeof(r)) == 0 && r.fn != NULL) {
		result = r.fn(r.arg);
		if (write(resp, &result, sizeof(result)) != sizeof(result))
			break;
	}
	_exit(0);
}

static int start_second(struct child *c)
{
	int req[2], resp[2];

	if (pipe(req) != 0 || pipe(resp) != 0)
		return -1;
	c->pid = fork();
	if (c->pid < 0)
		return -1;
	if (c->pid == 0) {
		int fd;

		/* A process of its own: none of the first one's files (an
		 * inherited /dev/corvalin would pin the module). */
		for (fd = 3; fd < 1024; fd++)
			if (fd != req[0] && fd != resp[1])
				close(fd);
		child_loop(req[0], resp[1]);
	}
	close(req[0]);
	close(resp[1]);
	c->req = req[1];
	c->resp = resp[0];
	return 0;
}

static void stop_second(struct child *c)
{
	struct request r = { NULL, 0 };
	int status;

	if (c->pid <= 0)
		return;
	(void)!write(c->req, &r, sizeof(r));
	close(c->req);
	close(c->resp);
	waitpid(c->pid, &status, 0);
	c->pid = 0;
}

static int run(void *ctx, int proc, int (*fn)(int), int arg)
{
	struct guest *g = ctx;
	struct request r;
	int result;

	if (proc == 0)
		return fn(arg);
	if (g->second.pid == 0 && start_second(&g->second) != 0)
		return -1;
	r.fn = fn;
	r.arg = arg;
	if (write(g->second.req, &r, sizeof(r)) != sizeof(r) ||
	    read_full(g->second.resp, &result, sizeof(result)) != 0)
		return -1;
	return result;
}

static const struct cv_transport *transport(void *ctx)
{
	(void)ctx;
	return cv_transport_real();
}

static long sys(void *ctx, int fd, int call)
{
	char buf[16];
	struct pollfd pfd;
	long r;

	(void)ctx;
	memset(buf, 0, sizeof(buf));
	switch (call) {
	case SCN_SYS_READ:
		r = read(fd, buf, sizeof(buf));
		break;
	case SCN_SYS_WRITE:
		r = write(fd, buf, sizeof(buf));
		break;
	default:
		pfd.fd = fd;
		pfd.events = POLLIN | POLLOUT | POLLPRI;
		pfd.revents = 0;
		r = poll(&pfd, 1, 0);
		if (r > 0)
			r = pfd.revents;
		break;
	}
	return r < 0 ? -errno : r;
}

/* Per process (each has its own copy of these after the fork). */
static cv_uaddr unmapped_page, readonly_page;

/* A fresh read-only anonymous page of this process. */
static void *map_readonly_page(void)
{
	void *p = mmap(NULL, PAGE, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS,
		       -1, 0);

	if (p == MAP_FAILED)
		die("mmap");
	return p;
}

static cv_uaddr unmapped(void *ctx)
{
	void *p;

	(void)ctx;
	if (unmapped_page == 0) {
		p = map_readonly_page();
		munmap(p, PAGE);
		unmapped_page = (cv_uaddr)(uintptr_t)p;
	}
	return unmapped_page;
}

static cv_uaddr readonly(void *ctx)
{
	(void)ctx;
	if (readonly_page == 0)
		readonly_page = (cv_uaddr)(uintptr_t)map_readonly_page();
	return readonly_page;
}

/*
 * Take the unread part of the kernel log (a destructive read that leaves
 * the whole log to LOG_READ_ALL) and hand it out line by line, without the
 * "[seconds.micros] " that CONFIG_PRINTK_TIME puts after the level.
 */
static int klog(void *ctx, char *line, size_t size)
{
	struct guest *g = ctx;
	int unread = klogctl(LOG_UNREAD, NULL, 0);
	char *nl, *text;
	size_t len;

	while (unread > 0 && g->klog_len < sizeof(g->klog)) {
		int n = klogctl(LOG_READ, g->klog + g->klog_len,
				(int)(sizeof(g->klog) - g->klog_len));

		if (n <= 0)
			break;
		g->klog_len += (size_t)n;
		unread = klogctl(LOG_UNREAD, NULL, 0);
	}
	nl = memchr(g->klog, '\n', g->klog_len);
	if (nl == NULL)
		return 0;		/* only an unfinished line, if any */
	*nl = '\0';
	text = g->klog;
	len = 0;
	if (text[0] == '<' && text[1] != '\0' && text[2] == '>') {
		memcpy(line, text, size > 3 ? 3 : size);
		len = 3;
		text += 3;
	}
	if (text[0] == '[') {
		char *end = strchr(text, ']');

		if (end != NULL && end[1] == ' ')
			text = end + 2;
	}
	snprintf(line + len, size - len, "%s", text);
	len = (size_t)(nl + 1 - g->klog);
	memmove(g->klog, nl + 1, g->klog_len - len);
	g->klog_len -= len;
	return 1;
}

static void print(void *ctx, const char *line)
{
	(void)ctx;
	out("SCN %s", line);
}

/* ---- main ------------------------------------------------------------ */

static void dump_kernel_log(void)
{
	int size = klogctl(LOG_BUF_LEN, NULL, 0);
	char *buf;
	int n;

	if (size <= 0)
		size = 1 << 17;
	buf = malloc((size_t)size);
	if (buf == NULL)
		return;
	n = klogctl(LOG_READ_ALL, buf, size);
	out("==== corvalin kernel log ====");
	if (n > 0) {
		(void)!write(1, buf, (size_t)n);
		if (buf[n - 1] != '\n')
			out("");
	}
	out("==== corvalin kernel log end ====");
	free(buf);
}

int main(void)
{
	struct scn_platform p;
	int failures;

	/* The kernel opened /dev/console of the initramfs as fds 0-2. */
	if (fcntl(1, F_GETFD) < 0)
		power_off();
	setup();
	/* From here only warnings and worse reach the console directly. */
	klogctl(LOG_CONSOLE_LEVEL, NULL, 5);

	memset(&p, 0, sizeof(p));
	p.ctx = &guest;
	p.load_module = load_module;
	p.unload_module = unload_module;
	p.mount = mount_fs;
	p.umount = umount_fs;
	p.run = run;
	p.transport = transport;
	p.sys = sys;
	p.unmapped = unmapped;
	p.readonly = readonly;
	p.klog = klog;
	p.print = print;

	out("==== corvalin guest: scenario ====");
	failures = scn_run(&p);
	stop_second(&guest.second);

	dump_kernel_log();
	out("==== corvalin guest done: %d failures ====", failures);
	power_off();
	return 0;
}
