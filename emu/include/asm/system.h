/*
 * asm/system.h - memory barriers, xchg/cmpxchg.
 *
 * DUPLICATED in semantics from 2.6.27 x86 (SMP): mb/rmb are real fences
 * (mfence/lfence), wmb too, smp_wmb/read_barrier_depends are compiler
 * barriers as on x86, set_mb is an exchange.  xchg/cmpxchg use the
 * compiler's atomic built-ins (full barriers, as x86's locked
 * instructions), which ThreadSanitizer understands.
 */
#ifndef _ASM_X86_SYSTEM_H
#define _ASM_X86_SYSTEM_H

#include <linux/compiler.h>
#include <linux/irqflags.h>
#include <linux/emu_runtime.h>

/*
 * CUSTOMISED: mb() is a call into the runtime.  Besides the fence it tells
 * ThreadSanitizer what x86 guarantees: what a CPU stored before a full
 * barrier is seen by any CPU after its next locked instruction (the
 * emulated spin locks count as one).  The driver publishes its state words
 * that way (store, then mb(); read without a lock, then lock).
 */
EMU_BEGIN_DECLS
void emu_full_barrier(void);
EMU_END_DECLS

#define mb()	emu_full_barrier()
#define rmb()	__asm__ __volatile__("lfence" : : : "memory")
#define wmb()	__asm__ __volatile__("sfence" : : : "memory")
#define read_barrier_depends()		do { } while (0)

#define smp_mb()	mb()
#define smp_rmb()	barrier()
#define smp_wmb()	barrier()
#define smp_read_barrier_depends()	do { } while (0)

#define xchg(ptr, v)	__atomic_exchange_n((ptr), (v), __ATOMIC_SEQ_CST)

#define cmpxchg(ptr, old, new_)	({					\
	__typeof__(*(ptr)) __emu_old = (old);				\
	__atomic_compare_exchange_n((ptr), &__emu_old, (new_), 0,	\
				    __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST); \
	__emu_old; })

#define set_mb(var, value) do { (void)xchg(&var, value); } while (0)

#define nop() __asm__ __volatile__ ("nop")

#endif
