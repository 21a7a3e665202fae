/*
 * scenario.h - the boot scenario of corvalin: everything of the control
 * device that a user can reach, driven through libcorvalin, in one run.
 *
 * One source, two worlds.  The scenario (scenario.c, C99) runs
 *   - in a real Linux 2.6.27 guest under QEMU, as part of the static /init
 *     program (vm/guest/init.c), against the real corvalin.ko;
 *   - in the emulated kernel (tests/test_scenario.cpp), against the same
 *     driver sources compiled for the emulation.
 * Each world supplies a platform: module loading, mounts, its processes
 * and their user memory, the kernel log.  The scenario writes a transcript,
 * one line per call: what it did, what came back, and the kernel log lines
 * that the call produced.  The boot test compares the two transcripts line
 * by line (vm/vmtest.sh), so the real kernel and the emulation must agree
 * on every result and every log line of the module.
 *
 * Transcript lines (the platform prints them as they come):
 *	"step <name>"			a group of calls
 *	"  <call> = <result>"		one call and its result
 *	"  klog <N>text"		a kernel log line, level N, timestamp
 *					and trailing newline removed
 *	"  FAIL <what>"			a check that did not hold
 *	"result <n> failures"		the last line
 *
 * The disk of the scenario is described here once: vm/mkdisk.sh reads the
 * SCN_DISK_* and SCN_P* values from this file, and the emulated run builds
 * the same disk.
 */
#ifndef CORVALIN_SCENARIO_H
#define CORVALIN_SCENARIO_H

#include <stddef.h>
#include <stdint.h>

#include "corvalin_client.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The disk: sda (block major 8), an MSDOS label with two partitions. */
#define SCN_DISK_MAJOR		8
#define SCN_DISK_SECTORS	65536	/* 32 MiB */
/* sda1: ext2 with 1024-byte blocks */
#define SCN_P1_START		2048
#define SCN_P1_SECTORS		16384
#define SCN_P1_BLOCK		1024
/* sda2: ext3 with 4096-byte blocks */
#define SCN_P2_START		18432
#define SCN_P2_SECTORS		47104
#define SCN_P2_BLOCK		4096
/* Their sizes in file-system blocks (what START_BACKUP is told). */
#define SCN_P1_BLOCKS		(SCN_P1_SECTORS / (SCN_P1_BLOCK / 512))
#define SCN_P2_BLOCKS		(SCN_P2_SECTORS / (SCN_P2_BLOCK / 512))

/*
 * The guest's second disk, sdb (block major 8, minor 16): no label, the
 * raw images of the guest's full backups (vm/guest/backup.c) at fixed
 * sectors, sda1's then sda2's.  Only the guest writes it; the host
 * checks the images (vm/vmtest.sh).  The emulated run has no such disk.
 */
#define SCN_SDB_MINOR		16
#define SCN_SDB_SECTORS		63488	/* 31 MiB */
#define SCN_SDB_P1_START	0
#define SCN_SDB_P2_START	16384

/* Modules the scenario loads. */
#define SCN_MOD_CORVALIN	0	/* corvalin.ko */
#define SCN_MOD_BLOCKER		1	/* vm/blocker: holds major 120 */

/* Processes: the scenario's own, and a second one (forked in the guest). */
#define SCN_PROCS		2

/* System calls on an open file besides ioctl. */
#define SCN_SYS_READ		0
#define SCN_SYS_WRITE		1
#define SCN_SYS_POLL		2

/*
 * What a world provides.  Results of system calls are 0 or a positive
 * value, or a negative errno with Linux's numbers.
 */
struct scn_platform {
	void *ctx;
	/* insmod (init_module) / rmmod (delete_module, O_NONBLOCK). */
	int (*load_module)(void *ctx, int module);
	int (*unload_module)(void *ctx, int module);
	/* Mount / unmount partition 1 or 2 (its file system of the disk). */
	int (*mount)(void *ctx, int partition);
	int (*umount)(void *ctx, int partition);
	/*
	 * Run fn(arg) in process `proc` and return its result, or -1 when
	 * the process died.  Memory is per process: fn sees the scenario's
	 * state as that process left it (a process other than the first
	 * starts as a copy of the first at its first use, as fork makes
	 * it, but without its open files).  Only an int crosses the
	 * boundary.
	 */
	int (*run)(void *ctx, int proc, int (*fn)(int arg), int arg);
	/* Inside run: the libcorvalin transport of the current process. */
	const struct cv_transport *(*transport)(void *ctx);
	/* Inside run: read/write 16 bytes, or poll (the ready mask). */
	long (*sys)(void *ctx, int fd, int call);
	/* Inside run: an unmapped address; a mapped read-only page. */
	cv_uaddr (*unmapped)(void *ctx);
	cv_uaddr (*readonly)(void *ctx);
	/* The next kernel log line since the last call, as "<N>text"
	 * without timestamp or '\n': 1, or 0 when there is none. */
	int (*klog)(void *ctx, char *line, size_t size);
	/* One transcript line (without '\n'). */
	void (*print)(void *ctx, const char *line);
	/* 1 when the disk holds the file systems that vm/mkdisk.sh makes
	 * (the guest; the emulated run given the guest's image), so that
	 * what READ_BLOCKS delivers can be checked against them. */
	int disk_has_fs;
};

/*
 * Run the scenario; returns the number of failed checks (0: all held).
 * The platform starts with no module loaded and nothing mounted, and is
 * left that way.
 */
int scn_run(const struct scn_platform *p);

#ifdef __cplusplus
}
#endif

#endif /* CORVALIN_SCENARIO_H */
