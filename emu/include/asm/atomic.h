/*
 * asm/atomic.h - atomic_t and its operations.
 *
 * DUPLICATED in semantics from 2.6.27 x86: every read-modify-write is a
 * locked instruction and so a full barrier; atomic_read/atomic_set are
 * plain accesses, which on x86 are an acquire load and a release store.
 * They are written with the compiler's atomic built-ins with exactly those
 * orderings, so that ThreadSanitizer sees what the processor guarantees.
 */
#ifndef _ASM_X86_ATOMIC_H
#define _ASM_X86_ATOMIC_H

#include <linux/compiler.h>
#include <linux/types.h>
#include <asm/system.h>

typedef struct {
	int counter;
} atomic_t;

#define ATOMIC_INIT(i)	{ (i) }

#define atomic_read(v)	__atomic_load_n(&(v)->counter, __ATOMIC_ACQUIRE)
#define atomic_set(v, i) __atomic_store_n(&(v)->counter, (i), __ATOMIC_RELEASE)

static inline void atomic_add(int i, atomic_t *v)
{
	__atomic_add_fetch(&v->counter, i, __ATOMIC_SEQ_CST);
}

static inline void atomic_sub(int i, atomic_t *v)
{
	__atomic_sub_fetch(&v->counter, i, __ATOMIC_SEQ_CST);
}

static inline int atomic_sub_and_test(int i, atomic_t *v)
{
	return __atomic_sub_fetch(&v->counter, i, __ATOMIC_SEQ_CST) == 0;
}

static inline void atomic_inc(atomic_t *v)
{
	__atomic_add_fetch(&v->counter, 1, __ATOMIC_SEQ_CST);
}

static inline void atomic_dec(atomic_t *v)
{
	__atomic_sub_fetch(&v->counter, 1, __ATOMIC_SEQ_CST);
}

static inline int atomic_dec_and_test(atomic_t *v)
{
	return __atomic_sub_fetch(&v->counter, 1, __ATOMIC_SEQ_CST) == 0;
}

static inline int atomic_inc_and_test(atomic_t *v)
{
	return __atomic_add_fetch(&v->counter, 1, __ATOMIC_SEQ_CST) == 0;
}

static inline int atomic_add_negative(int i, atomic_t *v)
{
	return __atomic_add_fetch(&v->counter, i, __ATOMIC_SEQ_CST) < 0;
}

static inline int atomic_add_return(int i, atomic_t *v)
{
	return __atomic_add_fetch(&v->counter, i, __ATOMIC_SEQ_CST);
}

static inline int atomic_sub_return(int i, atomic_t *v)
{
	return __atomic_sub_fetch(&v->counter, i, __ATOMIC_SEQ_CST);
}

#define atomic_cmpxchg(v, old, new_) (cmpxchg(&((v)->counter), (old), (new_)))
#define atomic_xchg(v, new_) (xchg(&((v)->counter), (new_)))

/*
 * Add a to v, so long as v was not already u.  Returns non-zero if v was
 * not u.
 */
static inline int atomic_add_unless(atomic_t *v, int a, int u)
{
	int c = atomic_read(v);

	for (;;) {
		if (unlikely(c == u))
			break;
		if (__atomic_compare_exchange_n(&v->counter, &c, c + a, 0,
						__ATOMIC_SEQ_CST,
						__ATOMIC_SEQ_CST))
			break;
	}
	return c != u;
}

#define atomic_inc_not_zero(v) atomic_add_unless((v), 1, 0)
#define atomic_inc_return(v)  (atomic_add_return(1, v))
#define atomic_dec_return(v)  (atomic_sub_return(1, v))

#define smp_mb__before_atomic_dec()	barrier()
#define smp_mb__after_atomic_dec()	barrier()
#define smp_mb__before_atomic_inc()	barrier()
#define smp_mb__after_atomic_inc()	barrier()

/* asm-generic/atomic.h: atomic_long_t over a long. */
typedef struct {
	long counter;
} atomic_long_t;

#define ATOMIC_LONG_INIT(i)	{ (i) }
#define atomic_long_read(l) __atomic_load_n(&(l)->counter, __ATOMIC_ACQUIRE)
#define atomic_long_set(l, i) \
	__atomic_store_n(&(l)->counter, (i), __ATOMIC_RELEASE)
#define atomic_long_inc(l) \
	((void)__atomic_add_fetch(&(l)->counter, 1, __ATOMIC_SEQ_CST))
#define atomic_long_dec(l) \
	((void)__atomic_sub_fetch(&(l)->counter, 1, __ATOMIC_SEQ_CST))
#define atomic_long_add(i, l) \
	((void)__atomic_add_fetch(&(l)->counter, (i), __ATOMIC_SEQ_CST))
#define atomic_long_sub(i, l) \
	((void)__atomic_sub_fetch(&(l)->counter, (i), __ATOMIC_SEQ_CST))

#endif
