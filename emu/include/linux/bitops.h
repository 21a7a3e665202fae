/*
 * bitops.h - DUPLICATED from 2.6.27: the generic bitmap helpers over the
 * architecture's bit operations (asm/bitops.h), and the find_*_bit search
 * functions (CUSTOMISED: implemented in the runtime, same contracts).
 */
#ifndef _LINUX_BITOPS_H
#define _LINUX_BITOPS_H

#include <asm/types.h>
#include <asm/bitops.h>
#include <linux/emu_runtime.h>

#define BIT(nr)			(1UL << (nr))
#define BIT_MASK(nr)		(1UL << ((nr) % BITS_PER_LONG))
#define BIT_WORD(nr)		((nr) / BITS_PER_LONG)
#define BITS_TO_LONGS(nr)	DIV_ROUND_UP(nr, BITS_PER_LONG)
#define BITS_PER_BYTE		8

EMU_BEGIN_DECLS
unsigned long find_next_bit(const unsigned long *addr, unsigned long size,
			    unsigned long offset);
unsigned long find_next_zero_bit(const unsigned long *addr,
				 unsigned long size, unsigned long offset);
EMU_END_DECLS

#define find_first_bit(addr, size) find_next_bit((addr), (size), 0)
#define find_first_zero_bit(addr, size) find_next_zero_bit((addr), (size), 0)

#define for_each_bit(bit, addr, size) \
	for ((bit) = find_first_bit((addr), (size)); \
	     (bit) < (size); \
	     (bit) = find_next_bit((addr), (size), (bit) + 1))

static inline unsigned int hweight32(unsigned int w)
{
	return (unsigned int)__builtin_popcount(w);
}

static inline unsigned long hweight_long(unsigned long w)
{
	return (unsigned long)__builtin_popcountl(w);
}

static inline int get_bitmask_order(unsigned int count)
{
	int order = fls(count);

	return order;
}

static inline int get_count_order(unsigned int count)
{
	int order = fls(count) - 1;

	if (count & (count - 1))
		order++;
	return order;
}

static inline __u32 rol32(__u32 word, unsigned int shift)
{
	return (word << shift) | (word >> (32 - shift));
}

static inline __u32 ror32(__u32 word, unsigned int shift)
{
	return (word >> shift) | (word << (32 - shift));
}

#endif
