/*
 * cache.h - cache-line annotations, DUPLICATED from 2.6.27 x86 (64-byte
 * lines); the section annotation __read_mostly is STUBBED.
 */
#ifndef __LINUX_CACHE_H
#define __LINUX_CACHE_H

#define L1_CACHE_SHIFT	6
#define L1_CACHE_BYTES	(1 << L1_CACHE_SHIFT)
#define SMP_CACHE_BYTES	L1_CACHE_BYTES
#define L1_CACHE_ALIGN(x) (((x) + (L1_CACHE_BYTES - 1)) & ~(L1_CACHE_BYTES - 1))
#define __read_mostly
#define ____cacheline_aligned __attribute__((__aligned__(SMP_CACHE_BYTES)))
#define ____cacheline_aligned_in_smp ____cacheline_aligned
#define __cacheline_aligned ____cacheline_aligned
#define __cacheline_aligned_in_smp ____cacheline_aligned

#endif
