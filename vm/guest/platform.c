/*
 * platform.c - what every guest program of vm/ needs from the guest
 * kernel: console output, power-off, device nodes, /proc settings, module
 * loading and unloading, and the kernel log.  Linked into the boot test's
 * /init (init.c) and the benchmark's (vm/bench/vmbench.c).
 */
#define _GNU_SOURCE 1

#include <errno.h>
#include <fcntl.h>
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
#include <termios.h>
#include <unistd.h>

#include "corvalin.h"
#include "guest.h"

#define MODULE_DIR	"/lib/modules"

/* syslog(2) actions of 2.6.27 */
#define LOG_READ	2
#define LOG_READ_ALL	3
#define LOG_UNREAD	9
#define LOG_BUF_LEN	10

/* ---- output and power ------------------------------------------------ */

void out(const char *fmt, ...)
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

void power_off(void)
{
	sync();
	reboot(RB_POWER_OFF);
	/* Without ACPI power-off, returning makes the kernel panic; with
	 * panic=-1 on its command line it then reboots and QEMU, started
	 * with -no-reboot, exits. */
	_exit(1);
}

void die(const char *what)
{
	out("==== corvalin guest error: %s: %s ====", what, strerror(errno));
	power_off();
}

/* ---- set-up ----------------------------------------------------------- */

void node(const char *path, mode_t type, int major, int minor)
{
	unlink(path);
	if (mknod(path, type | 0600, makedev(major, minor)) != 0)
		die(path);
}

void write_proc(const char *path, const char *value)
{
	int fd = open(path, O_WRONLY);

	if (fd < 0 || write(fd, value, strlen(value)) != (ssize_t)strlen(value))
		die(path);
	close(fd);
}

void guest_setup(void)
{
	mkdir("/proc", 0755);
	mkdir("/sys", 0755);
	mkdir("/dev", 0755);
	mkdir("/mnt", 0755);
	if (mount("proc", "/proc", "proc", 0, NULL) != 0)
		die("mount /proc");
	if (mount("sysfs", "/sys", "sysfs", 0, NULL) != 0)
		die("mount /sys");
	/* No devtmpfs in 2.6.27. */
	node("/dev/corvalin", S_IFCHR, KIV_MAJOR, 0);
	/* An oops stops the guest at once (panic=-1 then reboots, and QEMU
	 * exits) instead of running on with a half-dead kernel. */
	write_proc("/proc/sys/kernel/panic_on_oops", "1\n");
}

/* ---- modules ---------------------------------------------------------- */

/* Load MODULE_DIR/<name>.ko: 0 or -errno. */
int insmod(const char *name)
{
	char path[128];
	struct stat st;
	void *image;
	long r;
	int fd;

	snprintf(path, sizeof(path), MODULE_DIR "/%s.ko", name);
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

int rmmod(const char *name)
{
	/* As rmmod does: fail at once instead of waiting for the users. */
	if (syscall(SYS_delete_module, name, O_NONBLOCK) != 0)
		return -errno;
	return 0;
}

/* ---- the kernel log ---------------------------------------------------- */

/*
 * Take the unread part of the kernel log (a destructive read that leaves
 * the whole log to LOG_READ_ALL) and hand it out line by line, without the
 * "[seconds.micros] " that CONFIG_PRINTK_TIME puts after the level.
 */
int guest_klog(char *line, size_t size)
{
	static struct unread_log {
		char klog[64 * 1024];	/* unread log not yet handed out */
		size_t klog_len;
	} log;
	struct unread_log *g = &log;
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

void dump_kernel_log(void)
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
			out("%s", "");
	}
	out("==== corvalin kernel log end ====");
	free(buf);
}

