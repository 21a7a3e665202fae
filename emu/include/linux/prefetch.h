/*
 * prefetch.h - STUBBED: prefetch hints are no-ops (as on architectures
 * without a prefetch instruction in 2.6.27); they have no semantics.
 */
#ifndef _LINUX_PREFETCH_H
#define _LINUX_PREFETCH_H

static inline void prefetch(const void *x) { (void)x; }
static inline void prefetchw(const void *x) { (void)x; }
#define spin_lock_prefetch(x) prefetchw(x)

#endif
