/*
 * guest.h - what the guest programs of vm/ share (platform.c: console
 * output, power-off, device nodes, modules, the kernel log) and what the
 * boot test's /init (init.c) offers its parts (mounts, backups).
 */
#ifndef CORVALIN_VM_GUEST_H
#define CORVALIN_VM_GUEST_H

#include <stddef.h>
#include <sys/types.h>

/* One line to the console (one write, drained before returning). */
void out(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
/* Sync and power off (QEMU then exits). */
void power_off(void) __attribute__((noreturn));
/* Report errno for `what` ("==== corvalin guest error: ..."), power off. */
void die(const char *what) __attribute__((noreturn));
/* mknod path (S_IFBLK or S_IFCHR in type) major:minor, mode 0600; write
 * value to a /proc file; both die on failure. */
void node(const char *path, mode_t type, int major, int minor);
void write_proc(const char *path, const char *value);
/* What every guest's /init does first: /proc and /sys mounted, /dev and
 * /mnt made, the node /dev/corvalin, and panic_on_oops set. */
void guest_setup(void);
/* insmod /lib/modules/<name>.ko; rmmod <name> (O_NONBLOCK): 0 or -errno. */
int insmod(const char *name);
int rmmod(const char *name);
/* Mount /dev/sda<partition> on /mnt/p<partition> (its ext2 or ext3), and
 * unmount it: 0 or -errno. */
int guest_mount(int partition);
int guest_umount(int partition);
/* The next unread kernel log line, "<N>text" without the timestamp: 1, or
 * 0 when there is none. */
int guest_klog(char *line, size_t size);
/* The whole kernel log to the console, between "==== corvalin kernel log
 * ====" and "==== corvalin kernel log end ====". */
void dump_kernel_log(void);

/* The backups with writers running (backup.c): the number of failures. */
int bkp_run(void);
/* The chain of sde1 under a writer that never pauses (race.c): the
 * number of failures. */
int race_run(void);

#endif /* CORVALIN_VM_GUEST_H */
