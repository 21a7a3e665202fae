/*
 * random.h - kernel random numbers.
 *
 * CUSTOMISED: get_random_bytes() draws from a deterministic generator
 * (xorshift, seeded from CORVALIN_SEED when set, else from a fixed value)
 * so that a test run can be replayed; the kernel's entropy pool has the
 * same contract for its callers (any bytes, no failure).  random32() and
 * srandom32() are the same source.
 */
#ifndef _LINUX_RANDOM_H
#define _LINUX_RANDOM_H

#include <linux/types.h>
#include <linux/emu_runtime.h>

EMU_BEGIN_DECLS
void get_random_bytes(void *buf, int nbytes);
u32 random32(void);
void srandom32(u32 seed);
EMU_END_DECLS

#endif
