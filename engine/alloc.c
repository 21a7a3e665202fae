/*
 * alloc.c - the engine's allocations.
 *
 * Every allocation of the engine goes through here, counted, so that a
 * test can make the n-th one fail and reach each out-of-memory path the
 * way the emulated kernel's allocators let it reach the driver's.  The
 * engine runs on one thread; the counters are plain.
 */
#include <stdlib.h>

#include "engine.h"

static unsigned long calls;
static unsigned long fail_at;	/* the call that fails; 0: none */
static int fail_later;		/* and every call after it */

static int failing(void)
{
	calls++;
	return fail_at != 0 &&
	       (calls == fail_at || (fail_later && calls > fail_at));
}

void *cvb_malloc(size_t n)
{
	return failing() ? NULL : malloc(n);
}

void *cvb_calloc(size_t n, size_t size)
{
	return failing() ? NULL : calloc(n, size);
}

void *cvb_realloc(void *p, size_t n)
{
	return failing() ? NULL : realloc(p, n);
}

unsigned long cvb_alloc_calls(void)
{
	return calls;
}

void cvb_alloc_fail(unsigned long nth, int and_later)
{
	fail_at = nth == 0 ? 0 : calls + nth;
	fail_later = and_later;
}
