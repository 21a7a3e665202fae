/*
 * program.c - the backup program, corvalin, on the real kernel: the
 * static i386 musl build of engine/ (vm/build-guest.sh program), as
 * /bin/corvalin of the guest, driven as an administrator would drive it.
 *
 * With sda2's change tracking ended by UNLOAD (chain.c) and the
 * repository's ext2 file system of sdd mounted on /mnt/repo:
 *   1. writer A writes two versions (rewrites, a file created, one
 *      deleted), then `corvalin backup /dev/sda2 /mnt/repo --json` runs
 *      while writer B rewrites its files: a full backup, since the
 *      partition has no change tracking;
 *   2. the same again: an incremental backup this time;
 *   3. `corvalin verify /mnt/repo`: both backups restorable;
 *   4. `corvalin restore /mnt/repo /dev/sdcN --backup N` for N = 1, 2.
 * The host checks each restored partition (vm/vmtest.sh): e2fsck finds it
 * clean and every file holds its content of that backup (A's files at the
 * version before the backup, each of B's chunks at a version between what
 * B had finished when the program started and what it had started when
 * the program ended).
 */
#define _GNU_SOURCE 1

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "bkp.h"
#include "content.h"
#include "disks.h"
#include "guest.h"
#include "scenario.h"

#define PROGRAM		"/bin/corvalin"
#define REPO_DEV	"/dev/sdd"
#define REPO		"/mnt/repo"
#define P		2

/*
 * Run the program with argv (NULL-terminated, argv[0] included), its
 * output (stdout and stderr) shown on the console line by line and the
 * last line of stdout kept in last (size bytes).  Returns its exit status,
 * or -1 when it did not exit normally.
 */
static int run_program(char *const argv[], char *last, size_t size)
{
	char buf[4096], *line, *nl;
	size_t have = 0;
	int pipefd[2], status, fd;
	ssize_t n;
	pid_t pid;

	if (pipe(pipefd) != 0)
		die("pipe");
	pid = fork();
	if (pid < 0)
		die("fork");
	if (pid == 0) {
		dup2(pipefd[1], 1);
		dup2(pipefd[1], 2);
		for (fd = 3; fd < 256; fd++)
			close(fd);
		execv(PROGRAM, argv);
		_exit(127);
	}
	close(pipefd[1]);
	last[0] = '\0';
	for (;;) {
		n = read(pipefd[0], buf + have, sizeof(buf) - 1 - have);
		if (n < 0 && errno == EINTR)
			continue;
		if (n <= 0)
			break;
		have += (size_t)n;
		buf[have] = '\0';
		for (line = buf; (nl = strchr(line, '\n')) != NULL;
		     line = nl + 1) {
			*nl = '\0';
			out("BKP   corvalin: %s", line);
			snprintf(last, size, "%s", line);
		}
		have = strlen(line);
		memmove(buf, line, have);
		if (have == sizeof(buf) - 1)
			have = 0;	/* a line too long to keep */
	}
	close(pipefd[0]);
	if (waitpid(pid, &status, 0) != pid)
		die("waitpid");
	return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/* Writer A writes versions a_last + 1 and + 2, then stops. */
static void advance_a(unsigned *a_last, const char *what)
{
	pid_t pid;
	time_t t0;

	reset_shared();
	sh->a_from = *a_last;
	sh->a_stop = *a_last + 2;
	pid = spawn(writer_a, P);
	for (t0 = time(NULL); sh->a_version < sh->a_stop; usleep(1000))
		if (time(NULL) - t0 > WAIT_S) {
			bkp_fail("%s: writer A never reached version %u", what,
				 (unsigned)sh->a_stop);
			break;
		}
	stop_writers(&pid, 1, what);
	*a_last = sh->a_version;
}

/* Backup n of the repository under writer B; 1 when it worked. */
static int program_backup(int n, unsigned *a_last, unsigned *b_ver)
{
	char *argv[] = { "corvalin", "backup", "/dev/sda2", REPO, "--json",
			 NULL };
	const char *kind = n == 1 ? "\"kind\":\"full\"" :
		"\"kind\":\"incremental\"";
	unsigned lo[NB], hi[NB], i, a;
	char what[64], last[1024];
	struct close_log c;
	pid_t pid;
	int status;

	snprintf(what, sizeof(what), "corvalin backup %d of sda%d", n, P);
	out("BKP step program-backup-%d sda%d", n, P);
	advance_a(a_last, what);
	a = *a_last;
	reset_shared();
	sh->b_from = b_from(b_ver);
	pid = spawn(writer_b, P);
	usleep(50000);			/* some of B's writes in flight */
	b_least(b_ver, lo);
	barrier();
	/* The program's exit closes its snapshotted backup. */
	out(MARK_CLOSE);
	status = run_program(argv, last, sizeof(last));
	out(MARK_CLOSED);
	barrier();
	b_most(b_ver, hi);
	stop_writers(&pid, 1, what);
	b_stopped(b_ver);
	take_log(what, start_lines(P), &c);
	check_close(what, &c, P, "7");
	if (!check(what, status, 0))
		return 0;
	if (strstr(last, kind) == NULL) {
		bkp_fail("%s: not %s", what, kind);
		return 0;
	}
	/* What the restore of this backup must hold. */
	for (i = 0; i < NA; i++)
		out("BKP file sda%d-restore%d w/f%03u id %u chunks %u versions "
		    "%u %u", P, n, i, i, cnt_chunks(i), a, a);
	for (i = 0; i < NB; i++)
		out("BKP file sda%d-restore%d w/f%03u id %u chunks %u versions "
		    "%u %u", P, n, B_ID + i, B_ID + i, cnt_chunks(B_ID + i),
		    lo[i], hi[i]);
	for (i = a - 1; i <= a; i++)
		out("BKP file sda%d-restore%d w/n%04u id %u chunks %u versions "
		    "%u %u", P, n, i, N_ID + i, cnt_chunks(N_ID + i), i, i);
	return 1;
}

void program_run(unsigned *a_last, unsigned *b_ver)
{
	static const unsigned starts[GUEST_RESTORES] = {
		GUEST_SDC_P1_START, GUEST_SDC_P2_START
	};
	char *verify[] = { "corvalin", "verify", REPO, NULL };
	char *restore[] = { "corvalin", "restore", REPO, NULL, "--backup",
			    NULL, NULL };
	char target[16], number[8], last[1024];
	int n, ok = 1;

	out("BKP step program sda%d", P);
	if (!check("mount " REPO_DEV, mount(REPO_DEV, REPO, "ext2", 0, NULL)
		   == 0 ? 0 : -errno, 0))
		return;
	for (n = 1; n <= GUEST_RESTORES && ok; n++)
		ok = program_backup(n, a_last, b_ver);
	if (ok) {
		out("BKP step program-verify");
		check("corvalin verify", run_program(verify, last,
						     sizeof(last)), 0);
	}
	for (n = 1; n <= GUEST_RESTORES && ok; n++) {
		out("BKP step program-restore-%d", n);
		snprintf(target, sizeof(target), "/dev/sdc%d", n);
		snprintf(number, sizeof(number), "%d", n);
		restore[3] = target;
		restore[5] = number;
		if (check("corvalin restore", run_program(restore, last,
							  sizeof(last)), 0))
			out("BKP image sda%d-restore%d ext3 sdc-sector %u "
			    "sectors %u", P, n, starts[n - 1],
			    (unsigned)SCN_P2_SECTORS);
	}
	check("umount " REPO, umount(REPO) == 0 ? 0 : -errno, 0);
	take_log("the program", NULL, NULL);
}
