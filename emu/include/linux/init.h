/*
 * init.h - section markers and the module entry points.
 *
 * CUSTOMISED: __init/__exit and their data forms mark nothing (there are no
 * sections to discard after loading in a host program).  module_init()
 * and module_exit() are 2.6.27's MODULE forms: the same type check of the
 * function, and an alias naming it as the module's entry point; the
 * aliases are called emu_init_module/emu_cleanup_module (not
 * init_module/cleanup_module, which the C library already exports), and
 * the emulated insmod/rmmod (emu/src/emu/module.hpp) call them.  A program
 * that uses the module links the driver's library whole, so that the
 * aliases are present.
 */
#ifndef _LINUX_INIT_H
#define _LINUX_INIT_H

#include <linux/compiler.h>

#define __init
#define __initdata
#define __exit
#define __exitdata
#define __devinit
#define __devexit
#define __devinitdata
#define __exit_p(x)	x
#define __devexit_p(x)	x
#define __init_or_module

typedef int (*initcall_t)(void);
typedef void (*exitcall_t)(void);

#define module_init(initfn)					\
	static inline initcall_t __inittest(void)		\
	{ return initfn; }					\
	int emu_init_module(void) __attribute__((alias(#initfn)));

#define module_exit(exitfn)					\
	static inline exitcall_t __exittest(void)		\
	{ return exitfn; }					\
	void emu_cleanup_module(void) __attribute__((alias(#exitfn)));

#endif /* _LINUX_INIT_H */
