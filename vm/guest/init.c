/*
 * init.c - the only program of the boot test's guest: /init of the
 * initramfs, a static i386 binary linked against musl (today's glibc does
 * not start on 2.6.27).
 *
 * It prepares the guest (proc, sysfs, device nodes, waits for the four
 * disks of vm/guest/disks.h), runs the boot scenario (vm/scenario) against the real
 * corvalin.ko with libcorvalin's real transport, then, when the scenario
 * passed, the backups with writers running (backup.c) and the chain under
 * a writer that never pauses (race.c), prints the kernel log, and powers
 * off.  Everything the host reads comes over the serial console (and the
 * images backup.c writes to sdb, race.c to sde):
 *
 *	"SCN <line>"			a transcript line of the scenario
 *	"BKP <line>"			a line of backup.c or race.c (see there)
 *	"==== corvalin guest: backups done: <n> failures ===="
 *	"==== corvalin guest: race done: <n> failures ===="
 *	"==== corvalin kernel log ===="	the whole kernel log follows...
 *	"==== corvalin kernel log end ===="
 *	"==== corvalin guest: lock validator debug_locks <0|1> ===="
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

#include "disks.h"
#include "guest.h"
#include "scenario.h"

#define DISK_WAIT_MS	10000
#define HUNG_TASK_SECS	"20\n"	/* /proc/sys/kernel/hung_task_timeout_secs */
#define PAGE		4096

/* syslog(2) actions of 2.6.27 */
#define LOG_CONSOLE_LEVEL 8

static const char *const module_names[] = { "corvalin", "blocker" };
static const char *const fs_types[] = { NULL, "ext2", "ext3" };

/* ---- guest set-up -------------------------------------------------- */

/*
 * The lock validator switches itself off after its first report, or when
 * it runs out of room; "debug_locks: 1" at the end shows it watched the
 * whole scenario.
 */
static void report_lock_validator(void)
{
	char buf[4096];
	const char *line;
	ssize_t n;
	int fd = open("/proc/lockdep_stats", O_RDONLY);

	if (fd < 0)
		die("/proc/lockdep_stats");
	n = read(fd, buf, sizeof(buf) - 1);
	close(fd);
	if (n <= 0)
		die("/proc/lockdep_stats");
	buf[n] = '\0';
	line = strstr(buf, "debug_locks:");
	if (!line)
		die("no debug_locks in /proc/lockdep_stats");
	line += strlen("debug_locks:");
	while (*line == ' ')
		line++;
	out("==== corvalin guest: lock validator debug_locks %d ====",
	    atoi(line));
}

static void setup(void)
{
	struct stat st;
	int waited;

	guest_setup();
	mkdir("/mnt/p1", 0755);
	mkdir("/mnt/p2", 0755);
	mkdir("/mnt/repo", 0755);
	node("/dev/sda", S_IFBLK, SCN_DISK_MAJOR, 0);
	node("/dev/sda1", S_IFBLK, SCN_DISK_MAJOR, 1);
	node("/dev/sda2", S_IFBLK, SCN_DISK_MAJOR, 2);
	node("/dev/sdb", S_IFBLK, SCN_DISK_MAJOR, SCN_SDB_MINOR);
	node("/dev/sdc", S_IFBLK, SCN_DISK_MAJOR, GUEST_SDC_MINOR);
	node("/dev/sdc1", S_IFBLK, SCN_DISK_MAJOR, GUEST_SDC_MINOR + 1);
	node("/dev/sdc2", S_IFBLK, SCN_DISK_MAJOR, GUEST_SDC_MINOR + 2);
	node("/dev/sdd", S_IFBLK, SCN_DISK_MAJOR, GUEST_SDD_MINOR);
	/* sde appears only once race.c has loaded its controller's driver. */
	mkdir("/mnt/race", 0755);
	node("/dev/sde", S_IFBLK, SCN_DISK_MAJOR, GUEST_SDE_MINOR);
	node("/dev/sde1", S_IFBLK, SCN_DISK_MAJOR, GUEST_SDE_MINOR + 1);
	/* The backup program draws its temporary names from here. */
	node("/dev/urandom", S_IFCHR, 1, 9);

	/* A task blocked in D state this long is reported ("INFO: task ...
	 * blocked for more than 20 seconds.") well within the boot test's
	 * time limit, with the locks it holds, instead of the guest just
	 * never finishing. */
	write_proc("/proc/sys/kernel/hung_task_timeout_secs", HUNG_TASK_SECS);

	/* The disk's probe and partition scan normally end before /init
	 * runs; wait a little in case they do not. */
	for (waited = 0; stat("/sys/block/sda/sda2", &st) != 0 ||
	     stat("/sys/block/sdb", &st) != 0 ||
	     stat("/sys/block/sdc/sdc2", &st) != 0 ||
	     stat("/sys/block/sdd", &st) != 0; waited += 50) {
		if (waited >= DISK_WAIT_MS) {
			errno = ENODEV;
			die("no /sys/block/sda/sda2, sdb, sdc/sdc2 or sdd");
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
};

static struct guest guest;

static int load_module(void *ctx, int module)
{
	(void)ctx;
	return insmod(module_names[module]);
}

/*
 * Booted with corvalin.selftest=lockdep, the guest only loads lockbug.ko,
 * which commits a lock order inversion, and powers off: the host expects
 * the boot test's verdict to find the validator's report.  Booted with
 * corvalin.selftest=boot, it only says its first line and powers off
 * (vm/bootloop.sh boots it many times over).  1 when such a mode was asked
 * for (and done), else 0.
 */
static int self_test(void)
{
	char cmdline[1024];
	ssize_t n;
	int fd = open("/proc/cmdline", O_RDONLY), r;

	if (fd < 0)
		die("/proc/cmdline");
	n = read(fd, cmdline, sizeof(cmdline) - 1);
	close(fd);
	if (n < 0)
		die("/proc/cmdline");
	cmdline[n] = '\0';
	if (strstr(cmdline, "corvalin.selftest=boot")) {
		out("==== corvalin guest: self-test boot ====");
		return 1;
	}
	if (!strstr(cmdline, "corvalin.selftest=lockdep"))
		return 0;
	out("==== corvalin guest: self-test lockdep ====");
	r = insmod("lockbug");
	out("==== corvalin guest: lockbug loaded: %d ====", r);
	return 1;
}

static int unload_module(void *ctx, int module)
{
	(void)ctx;
	return rmmod(module_names[module]);
}

int guest_mount(int partition)
{
	char dev[32], dir[32];

	snprintf(dev, sizeof(dev), "/dev/sda%d", partition);
	snprintf(dir, sizeof(dir), "/mnt/p%d", partition);
	return mount(dev, dir, fs_types[partition], 0, NULL) == 0 ? 0 : -errno;
}

int guest_umount(int partition)
{
	char dir[32];

	snprintf(dir, sizeof(dir), "/mnt/p%d", partition);
	return umount(dir) == 0 ? 0 : -errno;
}

static int mount_fs(void *ctx, int partition)
{
	(void)ctx;
	return guest_mount(partition);
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
	return guest_umount(partition);
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

static int klog(void *ctx, char *line, size_t size)
{
	(void)ctx;
	return guest_klog(line, size);
}

static void print(void *ctx, const char *line)
{
	(void)ctx;
	out("SCN %s", line);
}

/* ---- main ------------------------------------------------------------ */

int main(void)
{
	struct scn_platform p;
	int failures, race;

	/* The kernel opened /dev/console of the initramfs as fds 0-2. */
	if (fcntl(1, F_GETFD) < 0)
		power_off();
	setup();
	if (self_test())
		power_off();
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
	p.disk_has_fs = 1;

	out("==== corvalin guest: scenario ====");
	failures = scn_run(&p);
	stop_second(&guest.second);
	if (failures == 0) {
		out("==== corvalin guest: backups ====");
		failures = bkp_run();
		out("==== corvalin guest: backups done: %d failures ====",
		    failures);
		out("==== corvalin guest: race ====");
		race = race_run();
		out("==== corvalin guest: race done: %d failures ====", race);
		failures += race;
	}

	dump_kernel_log();
	report_lock_validator();
	out("==== corvalin guest done: %d failures ====", failures);
	power_off();
	return 0;
}
