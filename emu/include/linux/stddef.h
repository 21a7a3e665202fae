/*
 * stddef.h - NULL, offsetof, false/true.
 *
 * DUPLICATED from 2.6.27.  In C++ the language's own bool, false and true
 * are used, and the C library's NULL and offsetof if already defined (they
 * are equivalent).
 */
#ifndef _LINUX_STDDEF_H
#define _LINUX_STDDEF_H

#include <linux/compiler.h>

#ifndef NULL
#ifdef __cplusplus
#define NULL __null
#else
#define NULL ((void *)0)
#endif
#endif

#ifndef __cplusplus
enum {
	false	= 0,
	true	= 1
};
#endif

#ifndef offsetof
#define offsetof(TYPE, MEMBER) __compiler_offsetof(TYPE, MEMBER)
#endif

#endif /* _LINUX_STDDEF_H */
