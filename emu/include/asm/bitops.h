/*
 * asm/bitops.h - bit operations on bitmaps of unsigned longs.
 *
 * DUPLICATED in semantics from 2.6.27 x86: bit `nr` of a bitmap is bit
 * nr % 8 of byte nr / 8 (x86 is little-endian, so this is also bit
 * nr % BITS_PER_LONG of long nr / BITS_PER_LONG); `nr` may exceed a long.
 * The atomic forms (set_bit, clear_bit, change_bit, test_and_*) are locked
 * read-modify-writes, i.e. full barriers; the __ forms are not atomic.
 * They operate on the byte holding the bit, with the compiler's atomic
 * built-ins, which needs no alignment and which ThreadSanitizer
 * understands; test_bit is an acquire load of that byte.
 */
#ifndef _ASM_X86_BITOPS_H
#define _ASM_X86_BITOPS_H

#include <linux/compiler.h>
#include <asm/system.h>

#define __emu_bit_byte(nr, addr) \
	((volatile unsigned char *)(addr) + ((unsigned long)(nr) >> 3))
#define __emu_bit_mask(nr) ((unsigned char)(1U << ((unsigned long)(nr) & 7)))

static inline void set_bit(unsigned int nr, volatile unsigned long *addr)
{
	__atomic_fetch_or(__emu_bit_byte(nr, addr), __emu_bit_mask(nr),
			  __ATOMIC_SEQ_CST);
}

static inline void __set_bit(int nr, volatile unsigned long *addr)
{
	volatile unsigned char *p = __emu_bit_byte(nr, addr);

	*p = *p | __emu_bit_mask(nr);
}

static inline void clear_bit(int nr, volatile unsigned long *addr)
{
	__atomic_fetch_and(__emu_bit_byte(nr, addr),
			   (unsigned char)~__emu_bit_mask(nr),
			   __ATOMIC_SEQ_CST);
}

static inline void clear_bit_unlock(unsigned nr, volatile unsigned long *addr)
{
	clear_bit(nr, addr);
}

static inline void __clear_bit(int nr, volatile unsigned long *addr)
{
	volatile unsigned char *p = __emu_bit_byte(nr, addr);

	*p = *p & (unsigned char)~__emu_bit_mask(nr);
}

static inline void __clear_bit_unlock(unsigned nr,
				      volatile unsigned long *addr)
{
	clear_bit(nr, addr);
}

#define smp_mb__before_clear_bit()	barrier()
#define smp_mb__after_clear_bit()	barrier()

static inline void __change_bit(int nr, volatile unsigned long *addr)
{
	volatile unsigned char *p = __emu_bit_byte(nr, addr);

	*p = *p ^ __emu_bit_mask(nr);
}

static inline void change_bit(int nr, volatile unsigned long *addr)
{
	__atomic_fetch_xor(__emu_bit_byte(nr, addr), __emu_bit_mask(nr),
			   __ATOMIC_SEQ_CST);
}

static inline int test_and_set_bit(int nr, volatile unsigned long *addr)
{
	return (__atomic_fetch_or(__emu_bit_byte(nr, addr),
				  __emu_bit_mask(nr), __ATOMIC_SEQ_CST) &
		__emu_bit_mask(nr)) != 0;
}

static inline int test_and_set_bit_lock(int nr, volatile unsigned long *addr)
{
	return test_and_set_bit(nr, addr);
}

static inline int __test_and_set_bit(int nr, volatile unsigned long *addr)
{
	volatile unsigned char *p = __emu_bit_byte(nr, addr);
	int old = (*p & __emu_bit_mask(nr)) != 0;

	*p = *p | __emu_bit_mask(nr);
	return old;
}

static inline int test_and_clear_bit(int nr, volatile unsigned long *addr)
{
	return (__atomic_fetch_and(__emu_bit_byte(nr, addr),
				   (unsigned char)~__emu_bit_mask(nr),
				   __ATOMIC_SEQ_CST) &
		__emu_bit_mask(nr)) != 0;
}

static inline int __test_and_clear_bit(int nr, volatile unsigned long *addr)
{
	volatile unsigned char *p = __emu_bit_byte(nr, addr);
	int old = (*p & __emu_bit_mask(nr)) != 0;

	*p = *p & (unsigned char)~__emu_bit_mask(nr);
	return old;
}

static inline int __test_and_change_bit(int nr, volatile unsigned long *addr)
{
	volatile unsigned char *p = __emu_bit_byte(nr, addr);
	int old = (*p & __emu_bit_mask(nr)) != 0;

	*p = *p ^ __emu_bit_mask(nr);
	return old;
}

static inline int test_and_change_bit(int nr, volatile unsigned long *addr)
{
	return (__atomic_fetch_xor(__emu_bit_byte(nr, addr),
				   __emu_bit_mask(nr), __ATOMIC_SEQ_CST) &
		__emu_bit_mask(nr)) != 0;
}

static inline int test_bit(int nr, const volatile unsigned long *addr)
{
	return (__atomic_load_n((const volatile unsigned char *)addr +
				((unsigned long)nr >> 3), __ATOMIC_ACQUIRE) &
		__emu_bit_mask(nr)) != 0;
}

/* __ffs: index of the lowest set bit; undefined for 0. */
static inline unsigned long __ffs(unsigned long word)
{
	return (unsigned long)__builtin_ctzl(word);
}

/* ffz: index of the lowest zero bit; undefined for ~0UL. */
static inline unsigned long ffz(unsigned long word)
{
	return (unsigned long)__builtin_ctzl(~word);
}

/* __fls: index of the highest set bit; undefined for 0. */
static inline unsigned long __fls(unsigned long word)
{
	return (unsigned long)(BITS_PER_LONG - 1 - __builtin_clzl(word));
}

/*
 * ffs/fls as the C library's: 1-based, 0 for no bit.  Spelled emu_ffs and
 * emu_fls so that they do not collide with the C library's ffs().
 */
static inline int emu_ffs(int x)
{
	return __builtin_ffs(x);
}
#define ffs(x) emu_ffs(x)

static inline int emu_fls(int x)
{
	return x ? 32 - __builtin_clz((unsigned int)x) : 0;
}
#define fls(x) emu_fls(x)

#endif
