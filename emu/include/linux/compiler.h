/*
 * compiler.h - annotations and compiler helpers.
 *
 * DUPLICATED from 2.6.27 (the gcc 4 branch, without sparse): the sparse
 * address-space annotations are empty, likely/unlikely are
 * __builtin_expect.  `typeof` is spelled __typeof__ so that the headers
 * also compile as ISO C++ (the runtime and the tests include them).
 */
#ifndef __LINUX_COMPILER_H
#define __LINUX_COMPILER_H

#ifdef __cplusplus
/* The C library's own definitions of some of these names come first. */
#include <sys/cdefs.h>
#endif

#define __user
#define __kernel
#define __safe
#define __force
#define __nocast
#define __iomem
#define __chk_user_ptr(x) (void)0
#define __chk_io_ptr(x) (void)0
#define __acquires(x)
#define __releases(x)
#define __acquire(x) (void)0
#define __release(x) (void)0
#define __cond_lock(x, c) (c)

#define likely(x)	__builtin_expect(!!(x), 1)
#define unlikely(x)	__builtin_expect(!!(x), 0)

#define barrier() __asm__ __volatile__("" : : : "memory")

#ifndef __deprecated
#define __deprecated		__attribute__((deprecated))
#endif
#ifndef __packed
#define __packed		__attribute__((packed))
#endif
#ifndef __weak
#define __weak			__attribute__((weak))
#endif
#ifndef __naked
#define __naked			__attribute__((naked))
#endif
#ifndef __noreturn
#define __noreturn		__attribute__((noreturn))
#endif
#ifndef __pure
#define __pure			__attribute__((pure))
#endif
#ifndef __aligned
#define __aligned(x)		__attribute__((aligned(x)))
#endif
#ifndef __printf
#define __printf(a, b)		__attribute__((format(printf, a, b)))
#endif
#define noinline		__attribute__((noinline))
#ifndef __attribute_const__
#define __attribute_const__	__attribute__((__const__))
#endif
#ifndef __maybe_unused
#define __maybe_unused		__attribute__((unused))
#endif
#ifndef __used
#define __used			__attribute__((__used__))
#endif
#ifndef __must_check
#define __must_check		__attribute__((warn_unused_result))
#endif
#ifndef __always_inline
#define __always_inline		inline __attribute__((always_inline))
#endif
#ifndef __compiler_offsetof
#define __compiler_offsetof(a, b) __builtin_offsetof(a, b)
#endif
#ifndef __cold
#define __cold			__attribute__((__cold__))
#endif
#ifndef __section
#define __section(S)		__attribute__((__section__(#S)))
#endif
#define noinline_for_stack	noinline
#ifndef __must_be_array
#define __must_be_array(a)	0
#endif

/*
 * Prevent the compiler from merging or refetching accesses.
 */
#define ACCESS_ONCE(x) (*(volatile __typeof__(x) *)&(x))

#endif /* __LINUX_COMPILER_H */
