/*
 * cli.h - the command-line front end of the backup engine:
 *   corvalin backup DEVICE REPO | restore REPO TARGET | verify REPO |
 *   list REPO | status [DEVICE]      (docs/corvalin.1)
 *
 * C99, so that the same front end is the 32-bit target's static program
 * (engine/main.c) and the host tool's backup commands.  What differs
 * between a real system and the emulated kernel is the platform below.
 */
#ifndef CVB_CLI_H
#define CVB_CLI_H

#include <stdint.h>
#include <stdio.h>

#include "corvalin_client.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Exit codes (documented in corvalin.1). */
#define CVB_EXIT_OK		0
#define CVB_EXIT_FAILED		1	/* the command failed */
#define CVB_EXIT_USAGE		2	/* bad command line */
#define CVB_EXIT_PARTIAL	3	/* done, but unreadable blocks or
					 * backups that cannot be restored */
#define CVB_EXIT_REPO		4	/* repository damaged or foreign */
#define CVB_EXIT_BUSY		5	/* another backup is running */
#define CVB_EXIT_INTERRUPTED	130	/* stopped by SIGINT/SIGTERM */

struct cvb_platform {
	const struct cv_transport *tp;	/* the driver */
	const char *control_path;	/* NULL: /dev/corvalin */
	/* DEVICE as the user names it -> major:minor; 0 or an errno. */
	int (*resolve)(void *ctx, const char *name, uint32_t *major,
		       uint32_t *minor);
	/* The size in bytes of the block device DEVICE names (as resolve
	 * names it): 0 or an errno. */
	int (*device_size)(void *ctx, const char *name, uint64_t *bytes);
	/* 1 when TARGET is a block device holding a mounted file system,
	 * 0 when not, -errno when that cannot be told. */
	int (*is_mounted)(void *ctx, const char *target);
	/* Take the program-wide lock that keeps a second corvalin off the
	 * control device while a backup runs: 0 taken, 1 held by another
	 * program, -errno.  Released by release_lock. */
	int (*take_lock)(void *ctx);
	void (*release_lock)(void *ctx);
	void *ctx;
	/* Lines added to `corvalin help` (may be NULL). */
	const char *extra_help;
	/* Where results and errors go. */
	FILE *out, *err;
	/* Progress is shown when set (a terminal). */
	int progress;
	/* Set by SIGINT/SIGTERM handlers (may be NULL). */
	volatile int *stop;
	/* Passed to the backup's stage hook (tests, the demo; may be NULL). */
	int (*stage_hook)(void *ctx, int stage);
	void *hook_ctx;
};

/* The POSIX platform of a real system (engine/platform_posix.c). */
void cvb_platform_posix(struct cvb_platform *pf);

/* argv[0] is the command name ("backup", ...), as after "corvalin". */
int cvb_cli_main(int argc, char **argv, const struct cvb_platform *pf);

#ifdef __cplusplus
}
#endif

#endif /* CVB_CLI_H */
