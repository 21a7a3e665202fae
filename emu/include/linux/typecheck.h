/*
 * typecheck.h - DUPLICATED from 2.6.27: compile-time type checks (a
 * comparison of pointers to different types warns in C, fails in C++).
 */
#ifndef TYPECHECK_H_INCLUDED
#define TYPECHECK_H_INCLUDED

#define typecheck(type, x) \
({	type __dummy; \
	__typeof__(x) __dummy2; \
	(void)(&__dummy == &__dummy2); \
	1; \
})

#define typecheck_fn(type, function) \
({	__typeof__(type) __tmp = function; \
	(void)__tmp; \
})

#endif
