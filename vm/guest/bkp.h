/*
 * bkp.h - the pieces of the guest's backups with writers running that
 * its two parts share: the full backups and the closes of backup.c, and
 * the incremental chain of chain.c.
 */
#ifndef CORVALIN_VM_BKP_H
#define CORVALIN_VM_BKP_H

#include <stdint.h>
#include <sys/types.h>

#include "corvalin_client.h"

#define NA		24	/* writer A's files, ids 0 .. NA-1 */
#define NB		16	/* writer B's files, ids B_ID .. */
#define B_ID		100
#define N_ID		1000	/* A's file of version v: id N_ID + v */
#define K		2	/* A's version at a full backup's snapshot */
#define HEAVY_BYTES	(3u << 20)	/* the heavy writer's file */
#define HEAVY_STEP	(64u << 10)
#define WAIT_S		120	/* any wait of this suite, at most */
#define SDB		"/dev/sdb"

#define MARK_CLOSE	"==== corvalin guest: close of a snapshotted backup ===="
#define MARK_CLOSED	"==== corvalin guest: close of a snapshotted backup done ===="

/* Shared by the processes of a step (an anonymous shared mapping). */
struct shared {
	volatile int stop;		/* writers: finish and exit */
	volatile int go;		/* writer A: version a_stop may end */
	volatile unsigned a_from;	/* writer A starts at a_from + 1 */
	volatile unsigned a_stop;	/* ... and waits after this version */
	volatile unsigned b_from;	/* writer B starts at b_from + 1 */
	volatile unsigned started[NB];	/* writer B, per file */
	volatile unsigned done[NB];
	volatile unsigned a_version;	/* writer A's last finished version */
	volatile unsigned heavy;	/* the heavy writer's bytes written */
	volatile int in_read;		/* the killed reader: inside READ_BLOCKS */
	volatile unsigned reads;	/* ... and READ_BLOCKS done */
};

extern struct shared *sh;

void bkp_fail(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
/* The failures bkp_fail has counted since bkp_run began. */
int bkp_failures(void);
void barrier(void);
uint32_t part_blocks(int p);
uint32_t part_bs(int p);

/* Files and writers (child processes). */
void file_path(char *buf, size_t size, int p, unsigned id);
int write_version(int p, unsigned id, unsigned v);
int fsync_path(const char *path);
void writer_a(int p);
void writer_b(int p);
pid_t spawn(void (*fn)(int), int p);
void stop_writers(const pid_t *pids, int n, const char *what);
void reset_shared(void);
/* Writer B's versions across steps (backup.c): where to start, the least
 * and the most each file may hold now, and the versions once B stopped. */
unsigned b_from(const unsigned *ver);
void b_least(const unsigned *ver, unsigned *lo);
void b_most(const unsigned *ver, unsigned *hi);
void b_stopped(unsigned *ver);

/* The module's log. */
#define STATS_MAX 32

/* The driver's lines at insmod and at rmmod of corvalin.ko. */
extern const char *const bkp_load_lines[];
extern const char *const bkp_unload_lines[];

/* What one close printed. */
struct close_log {
	int finished;			/* "backup finished" seen */
	int thread_exit;		/* the cache thread's exit line seen */
	int nstats;
	char label[STATS_MAX][64];	/* printStats: <label>: <value> */
	char value[STATS_MAX][48];
};

void take_log(const char *what, const char *const *allowed,
	      struct close_log *close);
long check_close(const char *what, const struct close_log *c, int p,
		 const char *state);
const char *const *start_lines(int p);

/* The backup program's pieces. */
int check(const char *what, int got, int want);
void check_state(cv_device *d, const char *what, uint32_t want);
int key_is_zero(const AMSessionKey *k);
int session_in_sync(cv_device *d, const char *what, unsigned minor,
		    uint32_t blocks, AutoMapState *ams);
int start(cv_device *d, int p, const char *what);
uint32_t buffer_len(int p);
uint32_t run_length(unsigned i, uint32_t max);

/* The incremental chain of sda2 (chain.c), after its full backup. */
void chain_run(int sdb);
/* The backup program's backups, verify and restores of sda2 (program.c);
 * writer A's last version and B's versions (b_stopped), updated. */
void program_run(unsigned *a_last, unsigned *b_ver);

#endif /* CORVALIN_VM_BKP_H */
