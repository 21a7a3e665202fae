/*
 * time.h - struct timespec/timeval and the kernel's clocks.
 *
 * DUPLICATED from 2.6.27: the structures, the *_PER_* constants,
 * timespec_equal/compare/sub, set_normalized_timespec, timespec_to_ns.
 * CUSTOMISED: current_kernel_time() and do_gettimeofday() read the host's
 * real-time clock (current_kernel_time has the kernel's tick granularity
 * in 2.6.27; here it is finer, which no caller can rely on either way).
 * In C++ the C library's identical definitions of the two structures are
 * used.
 */
#ifndef _LINUX_TIME_H
#define _LINUX_TIME_H

#include <linux/types.h>
#include <linux/emu_runtime.h>

#ifndef _STRUCT_TIMESPEC
#define _STRUCT_TIMESPEC
struct timespec {
	time_t	tv_sec;		/* seconds */
	long	tv_nsec;	/* nanoseconds */
};
#endif

#ifndef __timeval_defined
#define __timeval_defined 1
struct timeval {
	time_t		tv_sec;		/* seconds */
	suseconds_t	tv_usec;	/* microseconds */
};
#endif

#define MSEC_PER_SEC	1000L
#define USEC_PER_MSEC	1000L
#define NSEC_PER_USEC	1000L
#define NSEC_PER_MSEC	1000000L
#define USEC_PER_SEC	1000000L
#define NSEC_PER_SEC	1000000000L
#define FSEC_PER_SEC	1000000000000000L

static inline int timespec_equal(const struct timespec *a,
				 const struct timespec *b)
{
	return (a->tv_sec == b->tv_sec) && (a->tv_nsec == b->tv_nsec);
}

static inline int timespec_compare(const struct timespec *lhs,
				   const struct timespec *rhs)
{
	if (lhs->tv_sec < rhs->tv_sec)
		return -1;
	if (lhs->tv_sec > rhs->tv_sec)
		return 1;
	return lhs->tv_nsec - rhs->tv_nsec;
}

static inline void set_normalized_timespec(struct timespec *ts, time_t sec,
					   long nsec)
{
	while (nsec >= NSEC_PER_SEC) {
		nsec -= NSEC_PER_SEC;
		++sec;
	}
	while (nsec < 0) {
		nsec += NSEC_PER_SEC;
		--sec;
	}
	ts->tv_sec = sec;
	ts->tv_nsec = nsec;
}

static inline struct timespec timespec_sub(struct timespec lhs,
					   struct timespec rhs)
{
	struct timespec ts_delta;

	set_normalized_timespec(&ts_delta, lhs.tv_sec - rhs.tv_sec,
				lhs.tv_nsec - rhs.tv_nsec);
	return ts_delta;
}

#define timespec_valid(ts) \
	(((ts)->tv_sec >= 0) && (((unsigned long) (ts)->tv_nsec) < NSEC_PER_SEC))

static inline s64 timespec_to_ns(const struct timespec *ts)
{
	return ((s64) ts->tv_sec * NSEC_PER_SEC) + ts->tv_nsec;
}

static inline s64 timeval_to_ns(const struct timeval *tv)
{
	return ((s64) tv->tv_sec * NSEC_PER_SEC) +
		tv->tv_usec * NSEC_PER_USEC;
}

EMU_BEGIN_DECLS
struct timespec current_kernel_time(void);
void do_gettimeofday(struct timeval *tv);
void getnstimeofday(struct timespec *tv);
unsigned long get_seconds(void);
EMU_END_DECLS

#define CURRENT_TIME		(current_kernel_time())

#endif
